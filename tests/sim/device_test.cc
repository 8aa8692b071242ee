#include <gtest/gtest.h>

#include <chrono>
#include <vector>

#include "verdalune/sim/platform.h"
#include "verdalune/sim/screen_builder.h"

namespace verdalune::sessionreplay::sim {
namespace {

using namespace std::chrono_literals;
using platform::ActivityChange;
using platform::TouchBatch;
using platform::TouchPhase;

TEST(SimApplicationTest, ActivityChangesAreAnnouncedOnTheMainQueueUntilCancelled) {
  SimApplication app;
  std::vector<ActivityChange> heard;
  auto subscription = app.observeActivity([&](ActivityChange change) {
    EXPECT_TRUE(app.mainQueue()->isCurrent());
    heard.push_back(change);
  });
  app.setActive(false);
  EXPECT_FALSE(app.isActive());
  EXPECT_TRUE(heard.empty()) << "nothing runs until the main queue is drained";
  app.runUntilIdle();
  app.setActive(false);  // no transition
  app.setActive(true);
  app.runUntilIdle();
  EXPECT_EQ(heard, (std::vector{ActivityChange::willResignActive, ActivityChange::didBecomeActive}));

  subscription.reset();
  app.setActive(false);
  app.runUntilIdle();
  EXPECT_EQ(heard.size(), 2u);
}

TEST(SimApplicationTest, DescribesTheApplication) {
  SimApplication app({.bundleIdentifier = std::nullopt, .osVersion = {14, 2, 0}});
  EXPECT_EQ(app.bundleIdentifier(), std::nullopt);
  EXPECT_EQ(app.libraryVersion(), "0.1.0");
  EXPECT_TRUE(app.osVersion().isAtLeast(14));
  EXPECT_FALSE(app.osVersion().isAtLeast(15));
  EXPECT_EQ(app.clock()->wallMilliseconds(), 1'700'000'000'000);
  ASSERT_TRUE(app.defaultsStore()->set("k", std::int64_t{3}));
  EXPECT_EQ(app.defaultsStore()->integer("k"), 3);
  EXPECT_NE(app.applicationSupportDirectory(), SimApplication().applicationSupportDirectory());
}

TEST(SimApplicationTest, SupportDirectoryIsRemovedWithTheApplication) {
  std::filesystem::path directory;
  {
    SimApplication app;
    directory = app.applicationSupportDirectory();
    std::filesystem::create_directories(directory / "blocks");
  }
  EXPECT_FALSE(std::filesystem::exists(directory));
}

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
  link->invalidate();
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

  Frames fewer;
  auto slow =
      std::dynamic_pointer_cast<SimDisplayLink>(device.userInterface()->makeDisplayLink(fewer.recorder()));
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

TEST(SimDisplayLinkTest, DroppingTheLinkStopsIt) {
  SimPlatform device;
  int calls = 0;
  auto link = device.userInterface()->makeDisplayLink([&](const platform::DisplayFrame&) { ++calls; });
  link->start();
  device.app()->advance(50ms);
  const int before = calls;
  link.reset();
  device.app()->advance(1s);
  EXPECT_EQ(calls, before);
  EXPECT_TRUE(device.ui()->displayLinks().empty());
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
  EXPECT_TRUE(second[1].locations.empty());
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

TEST(ScreenBuilderTest, ContainersNestViewsAndBareLayers) {
  SimPlatform device;
  auto screen = ScreenBuilder(device)
                    .container({{0, 100}, {390, 80}}, platform::Color{1, 1, 1, 1})
                    .named("cell")
                    .label("Title", {{16, 10}, {200, 20}})
                    .layer(std::make_shared<SimLayer>("AVPlayerLayer", platform::LayerKind::videoPlayer),
                           {{300, 0}, {80, 80}})
                    .end()
                    .label("Footer", {{16, 800}, {200, 20}})
                    .build();
  auto cell = screen.find<SimView>("cell");
  ASSERT_NE(cell, nullptr);
  EXPECT_EQ(screen.find<SimTextView>("cell"), nullptr) << "a name finds only its own type";
  const auto cellLayers = cell->layer()->sublayers();
  ASSERT_EQ(cellLayers.size(), 2u);
  EXPECT_EQ(cellLayers[0]->delegateView()->className(), "UILabel");
  EXPECT_EQ(cellLayers[1]->kind(), platform::LayerKind::videoPlayer);
  EXPECT_EQ(cellLayers[1]->delegateView(), nullptr);
  EXPECT_NE(cellLayers[1]->presentationLayer(), nullptr);
  EXPECT_EQ(cellLayers[0]->properties().frame.origin, (platform::Point{16, 10}))
      << "in the container's coordinates";
  EXPECT_EQ(screen.window->layer()->sublayers().size(), 2u);
  EXPECT_EQ(cell->subviewList().size(), 1u);
}

TEST(SimUserInterfaceTest, PlainViewsAndLayersPointAtEachOther) {
  SimPlatform device;
  auto view = device.userInterface()->makePlainView("VDLBlockMarker");
  EXPECT_EQ(view->className(), "VDLBlockMarker");
  EXPECT_EQ(view->kind(), platform::ViewKind::other);
  EXPECT_EQ(view->layer()->delegateView(), view);
  EXPECT_TRUE(view->layer()->properties().bounds.isEmpty());
}

}  // namespace
}  // namespace verdalune::sessionreplay::sim
