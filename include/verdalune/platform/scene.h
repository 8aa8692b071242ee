#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "verdalune/platform/display.h"
#include "verdalune/platform/geometry.h"
#include "verdalune/platform/layer.h"

// The application's scenes and windows: where a capture starts.
//
// Threads: main queue only. Ownership: the platform owns scenes and windows; the library holds them only
// for the length of a capture.
namespace verdalune::sessionreplay::platform {

class Window {
 public:
  virtual ~Window() = default;

  // The window's root layer. Never null.
  virtual std::shared_ptr<Layer> layer() const = 0;

  // Attaches a passive recognizer that calls `handler` for every touch callback the window receives
  // (see TouchRecognizer). The handler is called on the main queue; it should hold its owner weakly, as
  // the window keeps it until the recognizer is removed.
  virtual std::shared_ptr<TouchRecognizer> addTouchRecognizer(
      std::string name, std::function<void(const TouchBatch&)> handler) = 0;

  // Whether a recognizer of that name is attached to this window now, whoever attached it.
  virtual bool hasTouchRecognizer(std::string_view name) const = 0;
};

// A scene that shows windows on a screen.
class WindowScene {
 public:
  virtual ~WindowScene() = default;

  // Back to front, the scene's window order.
  virtual std::vector<std::shared_ptr<Window>> windows() const = 0;

  // The bounds of the scene's screen, in points, and its pixels per point.
  virtual Rect screenBounds() const = 0;
  virtual double screenScale() const = 0;
};

// The application's user interface, as capture reaches it.
class UserInterface {
 public:
  virtual ~UserInterface() = default;

  // The first scene of the application's connected scenes, in the platform's own order of that set (no
  // preference for the foreground one), when it is a window scene. Null when there is no scene or the
  // first one shows no windows (an external display scene, a car screen scene).
  virtual std::shared_ptr<WindowScene> firstConnectedWindowScene() const = 0;

  // A display link that will call `onFrame` (see DisplayLink). Never null.
  virtual std::shared_ptr<DisplayLink> makeDisplayLink(std::function<void(const DisplayFrame&)> onFrame) = 0;

  // A visual-effect view that belongs to no window, for reading the filters of each effect. Never null.
  virtual std::shared_ptr<VisualEffectView> makeVisualEffectView() = 0;

  // A plain, empty view of zero frame that reports `className` and is not an accessibility element, for
  // the host to place in its hierarchy (the library marks the ends of block ranges with such views).
  // Never null.
  virtual std::shared_ptr<View> makePlainView(std::string className) = 0;
};

}  // namespace verdalune::sessionreplay::platform
