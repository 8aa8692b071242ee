// Ten minutes of a busy screen on the virtual clock, recorded by the whole recorder on the simulated
// device and uploaded to a collector on 127.0.0.1. The first minute shows every image the screen has;
// after it, what the recorder and the device hold stays flat, and nothing the recorder was shown
// outlives it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "common/recording_logger.h"
#include "integration/collector_process.h"
#include "integration/counted_device.h"
#include "verdalune/session_replay.h"
#include "verdalune/sim/screen_builder.h"

namespace verdalune::sessionreplay {
namespace {

using namespace std::chrono_literals;

// VDL_LONG_RUN_MINUTES shortens the run where ten minutes take too long (the sanitizer builds).
int minutesToRun() {
  const char* value = std::getenv("VDL_LONG_RUN_MINUTES");
  const int minutes = value ? std::atoi(value) : 10;
  return minutes >= 3 ? minutes : 10;
}

std::shared_ptr<const sim::SimImage> photo(platform::Color color) {
  return sim::SimImage::fromBitmap(sim::draw(sim::Drawing::filled(color, 4), {48, 36}, 1), {.scale = 1});
}

// What the recorder and the device hold between two frames.
struct Holdings {
  SessionReplay::Diagnostics recorder;
  std::int64_t layers = 0;
  std::int64_t surfaces = 0;
  std::size_t storedBlocks = 0;
};

TEST(LongRun, ABusyScreenRecordedForTenMinutesHoldsFlatMemory) {
  auto collector = testing::CollectorProcess::start();
  ASSERT_NE(collector, nullptr);
  auto device = std::make_shared<testing::CountedDevice>();
  const auto& queue = device->sim->app()->manualQueue();
  const std::vector photos{photo({0.9, 0.4, 0.2, 1}), photo({0.2, 0.6, 0.3, 1}), photo({0.1, 0.3, 0.8, 1})};
  auto surface = sim::SimSurface::bgra(32, 32);
  auto video = std::make_shared<sim::SimLayer>();
  video->setContents(surface);

  // A list of twelve cells that scrolls, three photos shared among them; a clock that ticks each second,
  // a progress text that changes each frame, an animated spinner and a surface a producer redraws.
  sim::ScreenBuilder builder(*device->sim);
  builder.window({0, 0, 390, 844}, 1).box({0, 0, 390, 844}, {0.96, 0.96, 0.98, 1});
  builder.container({0, 120, 390, 600}, platform::Color{1, 1, 1, 1}).named("list");
  for (int i = 0; i < 12; ++i) {
    builder.container({8, 8 + 80.0 * i, 374, 72}, platform::Color{1, 1, 1, 1})
        .image(photos[i % 3], {4, 4, 48, 36})
        .label("Run " + std::to_string(i + 1), {60, 8, 200, 20})
        .end();
  }
  const auto screen = builder.end()
                          .label("00", {300, 60, 60, 24})
                          .named("clock")
                          .label("Syncing", {16, 60, 200, 24})
                          .named("progress")
                          .box({340, 20, 30, 30}, {0, 0.48, 1, 1}, 15)
                          .named("spinner")
                          .layer(video, {16, 740, 32, 32})
                          .build();
  const auto list = screen.find<sim::SimView>("list");
  list->simLayer()->update([](platform::LayerProperties& p) { p.masksToBounds = true; });
  const auto clock = screen.find<sim::SimTextView>("clock");
  const auto progress = screen.find<sim::SimTextView>("progress");
  const auto spinner = screen.find<sim::SimView>("spinner")->simLayer();
  const std::int64_t screenLayers = sim::SimLayer::liveCount();

  auto logger = std::make_shared<RecordingLogger>();
  auto replay = SessionReplay::make(
      "test-key", "device", 7, false, 1.0f, {}, logger, ServerZone::US, MaskLevel::light, false, device,
      {.serverUrl = collector->baseUrl(),
       .makeQueue = [&](std::string_view) { return std::shared_ptr<Queue>(queue); }});
  replay->start();
  ASSERT_TRUE(device->settle());
  const auto blockFolder =
      device->sim->app()->applicationSupportDirectory() / "com.verdalune.sessionreplay" / "test-key";
  const auto storedBlocks = [&] {
    std::error_code ignored;
    std::filesystem::directory_iterator entries(blockFolder, ignored);
    return static_cast<std::size_t>(std::distance(entries, std::filesystem::directory_iterator()));
  };

  const platform::Color tints[] = {{1, 0, 0, 1}, {0, 1, 0, 1}, {0, 0, 1, 1},
                                   {1, 1, 0, 1}, {0, 1, 1, 1}, {1, 0, 1, 1}};
  const int minutes = minutesToRun();
  std::vector<Holdings> atMinute;
  std::shared_ptr<sim::SimImageView> banner;
  for (int frame = 0; frame < minutes * 600; ++frame) {
    list->scrollTo({0, 6.0 * (frame % 60)});
    progress->setText("Syncing " + std::to_string(frame % 10 * 10) + "%");
    if (frame % 10 == 0) clock->setText(std::to_string((frame / 10) % 60 + 100).substr(1));
    spinner->endAnimation();
    spinner->beginAnimation([turn = frame % 12](platform::LayerProperties& shown) {
      shown.opacity = 0.4f + 0.05f * static_cast<float>(turn);
      shown.transform.m[0] = shown.transform.m[5] = 1 - 0.02 * turn;
    });
    if (frame % 3 == 0) surface->fill(tints[frame / 3 % 6]);
    // A banner with one of the photos comes for two seconds in every four, a new view each time.
    if (frame % 40 == 0) {
      banner = sim::SimViewNode::make<sim::SimImageView>(photos[frame / 40 % 3]);
      banner->setFrame({100, 760, 48, 36});
      screen.window->addSubview(banner);
      banner->simLayer()->commit();
    } else if (frame % 40 == 20) {
      banner->removeFromSuperview();
      banner.reset();
    }
    queue->advance(100ms);
    ASSERT_TRUE(device->settle());
    if (frame % 600 == 599) {
      atMinute.push_back(
          {replay->diagnostics(), sim::SimLayer::liveCount(), sim::SimSurface::liveCount(), storedBlocks()});
    }
  }

  const Holdings& warm = atMinute.front();
  EXPECT_GT(warm.recorder.sentImages, 0u);
  EXPECT_GT(warm.recorder.observedLayers, 30u);
  for (std::size_t minute = 1; minute < atMinute.size(); ++minute) {
    SCOPED_TRACE("minute " + std::to_string(minute + 1));
    const Holdings& now = atMinute[minute];
    EXPECT_EQ(now.recorder.sentImages, warm.recorder.sentImages)
        << "every image is one the first minute sent";
    EXPECT_EQ(now.recorder.observedLayers, warm.recorder.observedLayers) << "banners gone are not observed";
    EXPECT_LE(now.recorder.surfaceCopies, 1u) << "a copy of the frame shown, none of frames gone";
    EXPECT_EQ(now.layers, warm.layers);
    EXPECT_EQ(now.surfaces, warm.surfaces);
    EXPECT_LE(now.storedBlocks, 2u) << "delivered blocks leave the disk";
  }

  replay->flush();
  ASSERT_TRUE(device->settle());
  EXPECT_EQ(storedBlocks(), 0u);
  EXPECT_GT(collector->sessionEvents("device", 7).size(), static_cast<std::size_t>(minutes * 600));
  EXPECT_EQ(logger->errors(), std::vector<std::string>{});
  replay->stop();
  replay.reset();
  ASSERT_TRUE(device->settle());
  EXPECT_EQ(sim::SimLayer::liveCount(), screenLayers) << "no layer outlives the recorder";
  EXPECT_EQ(sim::SimSurface::liveCount(), 1) << "nor any copy of the producer's surface";
}

}  // namespace
}  // namespace verdalune::sessionreplay
