#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "verdalune/sim/platform.h"

namespace verdalune::sessionreplay::sim {

// A screen made by ScreenBuilder: the scene, its window and the views in the order they were added.
struct Screen {
  std::shared_ptr<SimWindowScene> scene;
  std::shared_ptr<SimWindow> window;
  std::vector<std::shared_ptr<SimViewNode>> views;
  std::map<std::string, std::shared_ptr<SimViewNode>, std::less<>> named;
  std::vector<std::shared_ptr<SimLayer>> layers;  // the bare layers, in the order they were added

  // The view added under `name` as T; null when there is none or it is of another type.
  template <typename T>
  std::shared_ptr<T> find(std::string_view name) const {
    auto found = named.find(name);
    return found == named.end() ? nullptr : std::dynamic_pointer_cast<T>(found->second);
  }
};

struct TextFieldOptions {
  bool secure = false;
  std::optional<std::string> contentType;
  TextStyle style;
};

// A screen in a few lines:
//
//   auto screen = ScreenBuilder(platform).window({0, 0, 390, 844})
//                     .label("Hello", {16, 100, 200, 30}).named("greeting")
//                     .textField("secret", {16, 140, 200, 30}, {.secure = true})
//                     .build();
//
// Views are added to the window back to front. build() connects the scene (first, when the device has
// none yet) and commits the window's layers, so they have presentation copies as shown layers do.
class ScreenBuilder {
 public:
  explicit ScreenBuilder(SimPlatform& platform) : platform_(platform) {}

  ScreenBuilder& window(platform::Rect frame, double scale = 3);
  ScreenBuilder& label(std::string text, platform::Rect frame, TextStyle style = {});
  ScreenBuilder& textField(std::string text, platform::Rect frame, TextFieldOptions options = {});
  ScreenBuilder& textView(std::string text, platform::Rect frame, TextStyle style = {});
  ScreenBuilder& image(std::shared_ptr<const platform::Image> image, platform::Rect frame);
  // A view of a background colour and corner radius, as a card or button background.
  ScreenBuilder& box(platform::Rect frame, platform::Color fill, double cornerRadius = 0);
  ScreenBuilder& map(platform::Rect frame);
  ScreenBuilder& webView(platform::Rect frame, std::optional<std::string> url = std::nullopt);
  ScreenBuilder& blur(platform::Rect frame, int style);
  // A plain view that the views added until the matching end() go into, in its coordinates; a cell of a
  // list or a card with content, for instance.
  ScreenBuilder& container(platform::Rect frame, std::optional<platform::Color> background = std::nullopt);
  ScreenBuilder& end();
  // A bare layer of `className` and `kind` (a video player's, a GPU drawing layer) with no view.
  ScreenBuilder& layer(std::shared_ptr<SimLayer> layer, platform::Rect frame);
  // Any view the caller made.
  ScreenBuilder& view(std::shared_ptr<SimViewNode> view, platform::Rect frame);
  // Names the view added last.
  ScreenBuilder& named(std::string name);

  Screen build();

 private:
  void ensureWindow();

  SimPlatform& platform_;
  Screen screen_;
  std::vector<std::shared_ptr<SimViewNode>> parents_;
};

}  // namespace verdalune::sessionreplay::sim
