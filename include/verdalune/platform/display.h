#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "verdalune/platform/geometry.h"

// Display refresh callbacks and touch observation.
//
// Threads: every call is made on the main queue and every callback arrives there.
namespace verdalune::sessionreplay::platform {

// One display refresh. Times are seconds on the monotonic clock (Application::clock()'s monotonic
// reading, counted from that clock's epoch): only differences between them mean anything.
struct DisplayFrame {
  double timestamp = 0;        // when the frame that just ended was shown
  double targetTimestamp = 0;  // when the next frame will be shown
};

struct FrameRateRange {
  float minimum = 0;
  float maximum = 0;
  float preferred = 0;
};

// A timer tied to the display's refresh. Made stopped; start() attaches it to the main run loop in the
// common modes, so it also fires while the user scrolls. It calls its callback at most at the preferred
// rate and skips frames rather than queueing them. The platform keeps the callback until invalidate(), so a
// callback that refers to its owner holds it weakly.
class DisplayLink {
 public:
  virtual ~DisplayLink() = default;

  // Available from OS 15.0; set before start().
  virtual void setPreferredFrameRateRange(FrameRateRange range) = 0;
  // The form before OS 15.0; set before start().
  virtual void setPreferredFramesPerSecond(int framesPerSecond) = 0;

  virtual void start() = 0;

  // Stops the callbacks for good and releases the callback. Once it returns no callback starts; calling
  // it again does nothing. Destroying a link that was not invalidated invalidates it.
  virtual void invalidate() = 0;
};

enum class TouchPhase { began, moved, ended, cancelled };

// The touches one platform touch callback delivered to a window.
struct TouchBatch {
  TouchPhase phase = TouchPhase::began;
  // Each touch's location in the window's coordinates, in the delivered set's own order. May be empty.
  std::vector<Point> locations;
  // Seconds on the monotonic clock, as DisplayFrame.
  double timestamp = 0;
};

// A passive gesture recognizer attached to a window: it sees every touch that reaches the window and
// takes no part in recognition. The platform guarantees that it never cancels, delays or claims the
// application's touches, never prevents another recognizer and is never prevented by one, and requires
// no other recognizer to fail. The window keeps it (and its handler) while it is attached.
class TouchRecognizer {
 public:
  virtual ~TouchRecognizer() = default;

  virtual const std::string& name() const = 0;

  // False once removed, or once its window is gone.
  virtual bool isAttached() const = 0;

  // Detaches the recognizer and releases its handler; no call of the handler starts afterwards. Does
  // nothing when it is no longer attached.
  virtual void remove() = 0;
};

}  // namespace verdalune::sessionreplay::platform
