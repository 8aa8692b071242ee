// The reference picture a replay is compared with: what the compositor draws must be what the layers say,
// checked at chosen pixels of small screens drawn at one pixel a point.

#include "verdalune/sim/compositor.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "verdalune/sim/drawing.h"
#include "verdalune/sim/screen_builder.h"

namespace verdalune::sessionreplay::sim {
namespace {

using Pixel = std::array<std::uint8_t, 4>;
constexpr Pixel kClear{0, 0, 0, 0}, kRed{255, 0, 0, 255}, kBlue{0, 0, 255, 255};
constexpr platform::Color kRedColor{1, 0, 0, 1}, kBlueColor{0, 0, 1, 1};

std::shared_ptr<SimLayer> box(platform::Rect frame, platform::Color color) {
  auto layer = std::make_shared<SimLayer>();
  layer->setFrame(frame);
  layer->setBackgroundColor(color);
  return layer;
}

// Black and white columns two pixels wide: what a blur turns grey.
std::shared_ptr<SimLayer> stripes(platform::Rect frame) {
  platform::Bitmap bitmap = solidBitmap(static_cast<std::uint32_t>(frame.size.width),
                                        static_cast<std::uint32_t>(frame.size.height), {1, 1, 1, 1});
  for (std::uint32_t y = 0; y < bitmap.height; ++y) {
    for (std::uint32_t x = 0; x < bitmap.width; x += 4) {
      for (std::uint32_t k = x; k < std::min(x + 2, bitmap.width); ++k) {
        std::fill_n(&bitmap.pixels[y * bitmap.bytesPerRow + k * 4], 3, 0);
      }
    }
  }
  auto layer = std::make_shared<SimLayer>();
  layer->setFrame(frame);
  layer->setContents(std::make_shared<const platform::Bitmap>(std::move(bitmap)));
  return layer;
}

struct Case {
  std::string name;
  // Adds layers to the 100 × 100 pt window's root layer.
  std::function<void(SimLayer& root)> build;
  std::vector<std::pair<platform::Point, Pixel>> expected;
};

TEST(CompositorTest, DrawsWhatTheLayersSay) {
  const std::vector<Case> cases = {
      {"a rounded clip keeps its corners clear",
       [](SimLayer& root) {
         auto clip = box({{10, 10}, {60, 60}}, kBlueColor);
         clip->setCornerRadius(20);
         clip->update([](platform::LayerProperties& p) { p.masksToBounds = true; });
         clip->addSublayer(box({{-20, -20}, {100, 100}}, kRedColor));
         root.addSublayer(clip);
       },
       {{{12, 12}, kClear}, {{40, 40}, kRed}, {{75, 40}, kClear}}},
      {"the bounds origin scrolls the sublayers",
       [](SimLayer& root) {
         auto list = box({{0, 0}, {100, 100}}, kBlueColor);
         list->update([](platform::LayerProperties& p) { p.bounds.origin = {0, 30}; });
         list->addSublayer(box({{0, 40}, {100, 20}}, kRedColor));
         root.addSublayer(list);
       },
       {{{50, 15}, kRed}, {{50, 45}, kBlue}}},
      {"a transform turns the layer about its anchor point",
       [](SimLayer& root) {
         auto bar = box({{40, 10}, {20, 80}}, kRedColor);
         bar->update([](platform::LayerProperties& p) {
           p.transform.m = {0, 1, 0, 0, -1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};  // a quarter turn
         });
         root.addSublayer(bar);
       },
       {{{15, 50}, kRed}, {{50, 15}, kClear}}},
      {"opacity applies to the layer and its sublayers as one",
       [](SimLayer& root) {
         auto group = box({{0, 0}, {100, 100}}, kRedColor);
         group->addSublayer(box({{0, 0}, {50, 100}}, kRedColor));
         group->setOpacity(0.5f);
         root.addSublayer(group);
       },
       {{{25, 50}, Pixel{128, 0, 0, 128}}, {{75, 50}, Pixel{128, 0, 0, 128}}}},
      {"contents sit by their gravity, cropped by the contents rect",
       [](SimLayer& root) {
         auto image = std::make_shared<SimLayer>();
         image->setFrame({{0, 0}, {100, 100}});
         platform::Bitmap bitmap = solidBitmap(40, 20, kRedColor);
         for (std::uint32_t y = 0; y < 20; ++y)
           std::fill_n(&bitmap.pixels[y * bitmap.bytesPerRow + 80], 80, 0);
         image->setContents(std::make_shared<const platform::Bitmap>(std::move(bitmap)));
         image->setContentsRect({{0, 0}, {0.5, 1}});
         image->update([](platform::LayerProperties& p) { p.contentsGravity = "center"; });
         root.addSublayer(image);
       },
       {{{41, 50}, kRed}, {{58, 50}, kRed}, {{35, 50}, kClear}, {{50, 35}, kClear}, {{65, 50}, kClear}}},
      {"a hidden layer is not drawn; an animation shows its current values",
       [](SimLayer& root) {
         auto hidden = box({{0, 0}, {50, 100}}, kRedColor);
         hidden->setHidden(true);
         auto moving = box({{50, 0}, {50, 50}}, kRedColor);
         root.addSublayer(hidden);
         root.addSublayer(moving);
         root.commit();
         moving->beginAnimation([](platform::LayerProperties& p) { p.position.y = 75; });
       },
       {{{25, 50}, kClear}, {{75, 25}, kClear}, {{75, 75}, kRed}}},
      {"a backdrop layer blurs what is under it, and only there",
       [](SimLayer& root) {
         root.addSublayer(stripes({{0, 0}, {100, 100}}));
         auto backdrop = std::make_shared<SimLayer>("UICABackdropLayer");
         backdrop->setFrame({{0, 0}, {100, 50}});
         backdrop->setFilters(
             {{.name = "gaussianBlur", .type = "gaussianBlur", .inputs = {{"inputRadius", 6.0}}}});
         root.addSublayer(backdrop);
       },
       {{{20, 25}, Pixel{128, 128, 128, 255}},
        {{21, 25}, Pixel{128, 128, 128, 255}},
        {{20, 75}, Pixel{0, 0, 0, 255}},
        {{22, 75}, Pixel{255, 255, 255, 255}}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    SimPlatform device;
    auto screen = ScreenBuilder(device).window({{0, 0}, {100, 100}}, 1).build();
    c.build(*screen.window->rootView()->simLayer());
    const platform::Bitmap picture = composite(device);
    ASSERT_EQ(picture.width, 100u);
    for (const auto& [at, pixel] : c.expected) {
      const auto drawn = pixelAt(picture, static_cast<std::uint32_t>(at.x), static_cast<std::uint32_t>(at.y));
      for (int channel = 0; channel < 4; ++channel) {
        EXPECT_NEAR(drawn[channel], pixel[channel], 24)
            << "at " << at.x << "," << at.y << " channel " << channel;
      }
    }
  }
}

}  // namespace
}  // namespace verdalune::sessionreplay::sim
