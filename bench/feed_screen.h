#pragma once

#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "capture/snapshotter.h"
#include "verdalune/sim/drawing.h"
#include "verdalune/sim/platform.h"
#include "verdalune/sim/screen_builder.h"

namespace verdalune::sessionreplay::bench {

class DiscardingReceiver final : public CaptureReceiver {
 public:
  void serialize(std::shared_ptr<const Snapshot> snapshot, const std::string&, std::int64_t) override {
    benchmark::DoNotOptimize(snapshot);
  }
  void serializeTouch(const TouchEvent&, const std::string&, std::int64_t) override {}
  void serializeTouchMoves(std::vector<TouchMoveEvent>, const std::string&, std::int64_t) override {}
  void captureStopped() override {}
};

class NoWebViews final : public WebViewAttacher {
 public:
  void attach(const std::shared_ptr<platform::WebView>&, std::int64_t) override {}
  void detach(std::int64_t) override {}
  void detachAll() override {}
};

inline std::size_t countLayers(const platform::Layer& layer) {
  std::size_t count = 1;
  for (const auto& sublayer : layer.sublayers()) count += countLayers(*sublayer);
  return count;
}

// A device showing a feed: scroll views of cards, each card a background, a photo, a title and a
// subtitle label, and a row of two buttons with labels nested one level deeper. One photo object is
// shared by every card, as an app shows one cached image in many cells; each label draws its own
// bitmap, so equal texts are equal pixels in different bitmaps. Cards are added until the window holds
// at least `layers` layers.
struct FeedScreen {
  explicit FeedScreen(std::size_t layers) {
    const auto photo = sim::SimImage::fromBitmap(sim::solidBitmap(120, 90, {0.3, 0.5, 0.7, 1}));
    sim::ScreenBuilder builder(*device);
    builder.window({0, 0, 390, 844});
    std::size_t added = 1;
    for (int list = 0; added < layers; ++list) {
      builder.container({0, 0, 390, 844}, platform::Color{0.95, 0.95, 0.97, 1});
      ++added;
      for (int card = 0; card < 50 && added < layers; ++card) {
        const double top = 8 + 120.0 * card;
        builder.container({8, top, 374, 112})
            .box({0, 0, 374, 112}, {1, 1, 1, 1}, 12)
            .image(photo, {8, 8, 96, 72})
            .label("Morning run along the river " + std::to_string(card), {112, 8, 250, 22})
            .label("Shared by Alex and 12 others", {112, 34, 250, 18})
            .container({112, 74, 250, 30})
            .box({0, 0, 120, 30}, {0, 0.48, 1, 1}, 8)
            .label("Like", {8, 4, 100, 22})
            .box({130, 0, 120, 30}, {0.9, 0.9, 0.92, 1}, 8)
            .label("Share", {138, 4, 100, 22})
            .end()
            .end();
        added += 10;
      }
      builder.end();
    }
    screen = builder.build();
    layerCount = countLayers(*screen.window->layer());
    snapshotter = Snapshotter::make(device, std::make_shared<DiscardingReceiver>(), nullptr,
                                    std::make_shared<NoWebViews>());
  }

  std::shared_ptr<sim::SimPlatform> device = std::make_shared<sim::SimPlatform>();
  sim::Screen screen;
  std::size_t layerCount = 0;
  std::shared_ptr<Snapshotter> snapshotter;
};

}  // namespace verdalune::sessionreplay::bench
