#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "verdalune/support/clock.h"
#include "verdalune/support/queue.h"

namespace verdalune::sessionreplay {
namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;

TEST(ManualClockTest, AdvanceMovesBothTimesForwardOnlyAndKeepsFractionsOfAMillisecond) {
  ManualClock clock(1'000);
  EXPECT_EQ(clock.monotonic(), std::chrono::steady_clock::time_point{});
  for (int i = 0; i < 1000; ++i) clock.advance(500us);
  clock.advance(-1s);
  EXPECT_EQ(clock.wallMilliseconds(), 1'500);
  EXPECT_EQ(clock.monotonic().time_since_epoch(), 500ms);

  clock.setWallMilliseconds(-5);
  EXPECT_EQ(clock.wallMilliseconds(), -5);
  EXPECT_EQ(clock.monotonic().time_since_epoch(), 500ms)
      << "setting the wall time leaves monotonic time alone";
}

class ManualQueueTest : public ::testing::Test {
 protected:
  static constexpr std::int64_t kStartWall = 1'700'000'000'000;

  // Records the name and the virtual time, in milliseconds since the test began.
  std::function<void()> record(std::string name) {
    return [this, name] { log.push_back(name + "@" + std::to_string(elapsed().count())); };
  }

  milliseconds elapsed() const {
    return std::chrono::duration_cast<milliseconds>(clock->monotonic() - start);
  }

  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>(kStartWall);
  const std::chrono::steady_clock::time_point start = clock->monotonic();
  ManualQueue queue{"com.verdalune.sessionreplay.test", clock};
  std::vector<std::string> log;
};

TEST_F(ManualQueueTest, RunsNothingUntilDrivenThenEverythingDueIncludingWorkQueuedByWork) {
  bool current = false;
  std::size_t nestedRuns = 99;
  queue.async([&] {
    record("a")();
    current = queue.isCurrent();
    queue.async(record("c"));
    queue.asyncAfter(0ms, record("d"));
    // One item at a time: driving the queue from its own work does nothing, not even move the clock.
    nestedRuns = queue.runUntilIdle() + queue.advance(1s);
  });
  queue.async(record("b"));
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(queue.pendingCount(), 2u);

  EXPECT_EQ(queue.runUntilIdle(), 4u);
  EXPECT_EQ(log, (std::vector<std::string>{"a@0", "b@0", "c@0", "d@0"}));
  EXPECT_TRUE(current);
  EXPECT_FALSE(queue.isCurrent());
  EXPECT_EQ(nestedRuns, 0u);
  EXPECT_EQ(queue.pendingCount(), 0u);
}

TEST_F(ManualQueueTest, DelayedWorkRunsInDueOrderWithTheClockAtItsDueTime) {
  queue.asyncAfter(300ms, record("d"));
  queue.asyncAfter(100ms, record("a"));
  // A timer set by a timer fires within the same advance when it comes due there.
  queue.asyncAfter(200ms, [&] {
    record("c")();
    queue.asyncAfter(50ms, record("e"));
  });
  queue.asyncAfter(100ms, record("b"));
  EXPECT_EQ(queue.runUntilIdle(), 0u);

  EXPECT_EQ(queue.advance(260ms), 4u);
  EXPECT_EQ(log, (std::vector<std::string>{"a@100", "b@100", "c@200", "e@250"}));
  EXPECT_EQ(elapsed(), 260ms);
  EXPECT_EQ(clock->wallMilliseconds(), kStartWall + 260);

  EXPECT_EQ(queue.advance(40ms), 1u);
  EXPECT_EQ(log.back(), "d@300");
}

}  // namespace
}  // namespace verdalune::sessionreplay
