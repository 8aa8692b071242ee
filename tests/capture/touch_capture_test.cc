#include "capture/touch_capture.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "verdalune/sim/platform.h"

namespace verdalune::sessionreplay {
namespace {

using Type = TouchEvent::TouchEventType;
using namespace std::chrono_literals;

// What the recognizer reported, in order: single touches and lists of moves.
using Report = std::variant<TouchEvent, std::vector<TouchMoveEvent>>;

class TouchCaptureTest : public ::testing::Test {
 protected:
  void SetUp() override {
    recognizer = std::make_shared<VerdaluneSessionReplayGestureRecognizer>(app->clock());
    recognizer->onTouchEvent = [this](const TouchEvent& touch) { reports.emplace_back(touch); };
    recognizer->onTouchMoveEvent = [this](std::vector<TouchMoveEvent> moves) { reports.emplace_back(moves); };
    handle = recognizer->attach(*window);
  }

  void touch(platform::TouchPhase phase, std::vector<platform::Point> locations) {
    window->touch(phase, std::move(locations));
    app->advance(16ms);
  }

  std::int64_t millisecondsOf(std::chrono::system_clock::time_point date) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(date.time_since_epoch()).count();
  }

  std::shared_ptr<sim::SimApplication> app = std::make_shared<sim::SimApplication>();
  std::shared_ptr<sim::SimWindow> window = sim::SimWindow::make(app, {0, 0, 390, 844});
  std::shared_ptr<VerdaluneSessionReplayGestureRecognizer> recognizer;
  std::shared_ptr<platform::TouchRecognizer> handle;
  std::vector<Report> reports;
};

TEST_F(TouchCaptureTest, ADragIsBeganThenOneListOfMovesThenEnded) {
  const std::int64_t start = app->clock()->wallMilliseconds();
  touch(platform::TouchPhase::began, {{10, 20}, {300, 300}});
  touch(platform::TouchPhase::moved, {{12, 40}});
  touch(platform::TouchPhase::moved, {{14, 60}});
  touch(platform::TouchPhase::moved, {{16, 80}});
  ASSERT_EQ(reports.size(), 1u) << "moves wait for the end of the gesture";
  touch(platform::TouchPhase::ended, {{16, 90}});

  ASSERT_EQ(reports.size(), 3u);
  const auto& began = std::get<TouchEvent>(reports[0]);
  EXPECT_EQ(began.type, Type::began);
  EXPECT_EQ(began.location, (platform::Point{10, 20})) << "the first touch of the set stands for it";
  EXPECT_EQ(millisecondsOf(began.date), start);

  const auto& moves = std::get<std::vector<TouchMoveEvent>>(reports[1]);
  ASSERT_EQ(moves.size(), 3u);
  EXPECT_EQ(moves[0].location, (platform::Point{12, 40}));
  EXPECT_EQ(moves[2].location, (platform::Point{16, 80}));
  EXPECT_EQ(millisecondsOf(moves[1].date), start + 32);

  const auto& ended = std::get<TouchEvent>(reports[2]);
  EXPECT_EQ(ended.type, Type::ended);
  EXPECT_EQ(millisecondsOf(ended.date), start + 64);
  EXPECT_EQ(recognizer->queuedMoveCount(), 0u);
}

TEST_F(TouchCaptureTest, MovesBeforeACancellationComeFirstAndAnEmptySetIsTheOrigin) {
  touch(platform::TouchPhase::moved, {});
  touch(platform::TouchPhase::cancelled, {});
  ASSERT_EQ(reports.size(), 2u);
  EXPECT_EQ(std::get<std::vector<TouchMoveEvent>>(reports[0]).front().location, (platform::Point{0, 0}));
  EXPECT_EQ(std::get<TouchEvent>(reports[1]).type, Type::cancelled);
  EXPECT_EQ(std::get<TouchEvent>(reports[1]).location, (platform::Point{0, 0}));
}

TEST_F(TouchCaptureTest, WithoutAMovesCallbackQueuedMovesAreDropped) {
  recognizer->onTouchMoveEvent = nullptr;
  touch(platform::TouchPhase::moved, {{1, 1}});
  touch(platform::TouchPhase::began, {{2, 2}});
  recognizer->onTouchMoveEvent = [this](std::vector<TouchMoveEvent> moves) { reports.emplace_back(moves); };
  touch(platform::TouchPhase::ended, {{3, 3}});
  ASSERT_EQ(reports.size(), 2u) << "the dropped move never comes back";
  EXPECT_EQ(std::get<TouchEvent>(reports[0]).type, Type::began);
  EXPECT_EQ(std::get<TouchEvent>(reports[1]).type, Type::ended);
}

TEST_F(TouchCaptureTest, TheWindowKeepsTheRecognizerUntilItIsRemoved) {
  EXPECT_TRUE(window->hasTouchRecognizer(VerdaluneSessionReplayGestureRecognizer::name));
  std::weak_ptr<VerdaluneSessionReplayGestureRecognizer> weak = recognizer;
  recognizer.reset();
  touch(platform::TouchPhase::began, {{5, 5}});
  EXPECT_EQ(reports.size(), 1u);

  handle->remove();
  EXPECT_TRUE(weak.expired());
  EXPECT_FALSE(window->hasTouchRecognizer(VerdaluneSessionReplayGestureRecognizer::name));
  touch(platform::TouchPhase::ended, {{5, 5}});
  EXPECT_EQ(reports.size(), 1u);
}

}  // namespace
}  // namespace verdalune::sessionreplay
