// The simulated device's timing and input behaviour that capture depends on and that no capture test would
// notice going wrong: how often the display link fires, which frames a late main queue skips, which
// recognizers hear a touch batch, and which scene counts as the one showing.

#include <gtest/gtest.h>

#include <chrono>
#include <vector>

#include "verdalune/sim/platform.h"
#include "verdalune/sim/screen_builder.h"

namespace verdalune::sessionreplay::sim {
namespace {

using namespace std::chrono_literals;
using platform::TouchBatch;
using platform::TouchPhase;

struct Frames {
  std::vector<platform::DisplayFrame> seen;
  auto recorder() {
    return [this](const platform::DisplayFrame& frame) { seen.push_back(frame); };
  }
};

TEST(SimDisplayLinkTest, FiresAtThePreferredRateAsTheClockAdvances) {
  SimPlatform device;
  Frames frames;
  auto link = device.userInterface()->makeDisplayLink(frames.recorder());
  link->setPreferredFrameRateRange({.minimum = 10, .maximum = 30, .preferred = 30});
  device.app()->advance(100ms);
  EXPECT_TRUE(frames.seen.empty()) << "made stopped";

  link->start();
  device.app()->advance(1s);
  EXPECT_EQ(frames.seen.size(), 30u);
  for (std::size_t i = 1; i < frames.seen.size(); ++i) {
    EXPECT_NEAR(frames.seen[i].timestamp - frames.seen[i - 1].timestamp, 1.0 / 30, 0.0015);
  }
  EXPECT_NEAR(frames.seen[0].targetTimestamp - frames.seen[0].timestamp, 1.0 / 30, 1e-9);

  link->invalidate();
  device.app()->advance(1s);
  EXPECT_EQ(frames.seen.size(), 30u);

  // Dropping a running link stops it too.
  auto dropped = device.userInterface()->makeDisplayLink(frames.recorder());
  dropped->start();
  dropped.reset();
  device.app()->advance(1s);
  EXPECT_EQ(frames.seen.size(), 30u);
  link.reset();
  EXPECT_TRUE(device.ui()->displayLinks().empty());
}

TEST(SimDisplayLinkTest, RateFollowsTheDisplayAndTheOlderSetting) {
  SimPlatform device;
  device.ui()->setDisplayMaximumRate(60);
  Frames frames;
  auto link = device.userInterface()->makeDisplayLink(frames.recorder());
  link->setPreferredFramesPerSecond(0);  // zero asks for the display's own rate
  link->start();
  device.app()->advance(1s);
  EXPECT_EQ(frames.seen.size(), 60u);

  auto slow =
      std::dynamic_pointer_cast<SimDisplayLink>(device.userInterface()->makeDisplayLink([](auto&) {}));
  slow->setPreferredFramesPerSecond(24);  // not a division of 60: the display shows the closest
  EXPECT_EQ(slow->rate(), 20);
  slow->setPreferredFramesPerSecond(25);  // halfway between 30 and 20: the faster
  EXPECT_EQ(slow->rate(), 30);
  slow->setPreferredFrameRateRange({.minimum = 10, .maximum = 60, .preferred = 0});
  EXPECT_EQ(slow->rate(), 60) << "the range wins over the older setting; no preference means the maximum";
}

TEST(SimDisplayLinkTest, SkipsFramesTheMainQueueWasLateFor) {
  SimPlatform device;
  Frames frames;
  auto link = device.userInterface()->makeDisplayLink(frames.recorder());
  link->setPreferredFramesPerSecond(10);
  link->start();
  // The clock jumps without running the queue, as a main thread blocked for half a second.
  device.app()->manualClock()->advance(500ms);
  device.app()->runUntilIdle();
  EXPECT_EQ(frames.seen.size(), 1u);
  device.app()->advance(250ms);
  EXPECT_EQ(frames.seen.size(), 3u);
}

TEST(SimWindowTest, TouchesReachAttachedRecognizersUntilRemoved) {
  SimPlatform device;
  auto screen = ScreenBuilder(device).window({{0, 0}, {390, 844}}).build();
  std::vector<TouchBatch> first;
  std::vector<TouchBatch> second;
  auto a = screen.window->addTouchRecognizer("a", [&](const TouchBatch& batch) { first.push_back(batch); });
  auto b = screen.window->addTouchRecognizer("b", [&](const TouchBatch& batch) { second.push_back(batch); });
  EXPECT_TRUE(screen.window->hasTouchRecognizer("a"));

  device.app()->advance(2s);
  screen.window->touch(TouchPhase::began, {{10, 20}, {30, 40}});
  device.app()->runUntilIdle();
  ASSERT_EQ(first.size(), 1u);
  EXPECT_EQ(first[0].phase, TouchPhase::began);
  EXPECT_EQ(first[0].locations, (std::vector<platform::Point>{{10, 20}, {30, 40}}));
  EXPECT_NEAR(first[0].timestamp,
              std::chrono::duration<double>(device.app()->clock()->monotonic().time_since_epoch()).count(),
              1e-9);
  EXPECT_EQ(second.size(), 1u);

  a->remove();
  EXPECT_FALSE(a->isAttached());
  EXPECT_FALSE(screen.window->hasTouchRecognizer("a"));
  screen.window->touch(TouchPhase::ended, {});
  device.app()->runUntilIdle();
  EXPECT_EQ(first.size(), 1u);
  EXPECT_EQ(second.size(), 2u);
  a->remove();  // again: nothing
}

TEST(SimWindowTest, RecognizerRemovedDuringABatchDoesNotHearIt) {
  SimPlatform device;
  auto window = SimWindow::make(device.app(), {{0, 0}, {10, 10}});
  std::shared_ptr<platform::TouchRecognizer> later;
  int laterCalls = 0;
  auto first = window->addTouchRecognizer("first", [&](const TouchBatch&) { later->remove(); });
  later = window->addTouchRecognizer("later", [&](const TouchBatch&) { ++laterCalls; });
  window->touch(TouchPhase::moved, {{1, 1}});
  device.app()->runUntilIdle();
  EXPECT_EQ(laterCalls, 0);

  window->touch(TouchPhase::moved, {{1, 1}});
  window.reset();  // a touch queued for a window that is gone goes nowhere
  device.app()->runUntilIdle();
  EXPECT_FALSE(first->isAttached());
}

TEST(SimUserInterfaceTest, FirstConnectedSceneMustShowWindows) {
  SimPlatform device;
  EXPECT_EQ(device.userInterface()->firstConnectedWindowScene(), nullptr);
  auto external = std::make_shared<SimWindowScene>(platform::Rect{{0, 0}, {1920, 1080}}, 1);
  device.ui()->connectScene(external);
  auto screen = ScreenBuilder(device).label("x", {{0, 0}, {10, 10}}).build();
  EXPECT_EQ(device.userInterface()->firstConnectedWindowScene(), nullptr)
      << "no preference for the one showing";
  device.ui()->disconnectScene(external);
  auto scene = device.userInterface()->firstConnectedWindowScene();
  ASSERT_EQ(scene, screen.scene);
  EXPECT_EQ(scene->screenScale(), 3);
  ASSERT_EQ(scene->windows().size(), 1u);
  EXPECT_EQ(scene->windows()[0]->layer()->sublayers()[0], screen.views[0]->simLayer());
  EXPECT_NE(screen.views[0]->simLayer()->presentationLayer(), nullptr) << "a built screen is committed";
  EXPECT_EQ(screen.views[0]->simLayer()->properties().contentsScale, 3);
}

}  // namespace
}  // namespace verdalune::sessionreplay::sim
