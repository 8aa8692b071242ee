#include "verdalune/support/queue.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <latch>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

namespace verdalune::sessionreplay {
namespace {

using namespace std::chrono_literals;

// Blocks until everything queued on `queue` before this call has run.
void drain(Queue& queue) {
  std::latch done(1);
  queue.async([&] { done.count_down(); });
  done.wait();
}

std::vector<int> upTo(int count) {
  std::vector<int> numbers(static_cast<std::size_t>(count));
  std::iota(numbers.begin(), numbers.end(), 0);
  return numbers;
}

TEST(SerialQueueTest, RunsWorkInFifoOrderAsItsOwnOnANamedThread) {
  SerialQueue queue("com.verdalune.sessionreplay.test");
  SerialQueue other("other");
  std::vector<int> order;
  bool current = false;
  bool otherCurrent = true;
  char name[16] = {};
  for (int i = 0; i < 1000; ++i) queue.async([&order, i] { order.push_back(i); });
  queue.async([&] {
    current = queue.isCurrent();
    otherCurrent = other.isCurrent();
    pthread_getname_np(pthread_self(), name, sizeof name);
  });
  drain(queue);

  EXPECT_EQ(order, upTo(1000));
  EXPECT_TRUE(current);
  EXPECT_FALSE(otherCurrent);
  EXPECT_FALSE(queue.isCurrent());
  EXPECT_STREQ(name, "com.verdalune.s");
}

TEST(SerialQueueTest, DelayedWorkRunsWhenDueAndCancelStopsWorkNotYetRun) {
  SerialQueue queue("delayed");
  auto token = std::make_shared<int>(0);
  std::weak_ptr<int> watch = token;
  std::atomic<bool> farRan = false;
  auto far = queue.asyncAfter(1h, [&farRan, token = std::move(token)] { farRan = true; });
  std::latch nearRan(1);
  auto near = queue.asyncAfter(1ms, [&] { nearRan.count_down(); });
  nearRan.wait();

  EXPECT_FALSE(near->cancel()) << "it already ran";
  EXPECT_TRUE(far->cancel());
  EXPECT_TRUE(watch.expired()) << "cancel releases the captures at once, not at the due time";
  EXPECT_FALSE(far->cancel());
  EXPECT_FALSE(farRan);
}

TEST(SerialQueueTest, SuspensionIsCountedAndHoldsAllWorkUntilTheLastResume) {
  SerialQueue queue("suspend");
  std::vector<std::string> order;
  queue.suspend();
  queue.suspend();
  queue.async([&] { order.push_back("first"); });
  // Due at once, so it comes due while the queue is suspended and keeps its place.
  queue.asyncAfter(0ms, [&] { order.push_back("due"); });
  queue.async([&] { order.push_back("last"); });

  EXPECT_TRUE(queue.resume());
  EXPECT_TRUE(queue.isSuspended());
  EXPECT_TRUE(queue.resume());
  drain(queue);
  EXPECT_EQ(order, (std::vector<std::string>{"first", "due", "last"}));

  EXPECT_FALSE(queue.resume()) << "a resume without a suspend does nothing";
  queue.suspend();
  EXPECT_TRUE(queue.isSuspended()) << "the extra resume must not cancel out a later suspend";
  EXPECT_TRUE(queue.resume());
}

TEST(SerialQueueTest, DestructionWaitsForTheRunningWorkAndDropsTheRestWithItsCaptures) {
  auto queue = std::make_unique<SerialQueue>("drop");
  auto token = std::make_shared<int>(0);
  std::weak_ptr<int> watch = token;
  std::latch started(1);
  std::latch proceed(1);
  bool finished = false;  // plain on purpose: only the join orders the write before the read
  std::atomic<int> ran = 0;
  queue->async([&] {
    queue->suspend();  // holds the rest back however late the destruction starts
    started.count_down();
    proceed.wait();
    finished = true;
  });
  queue->async([&ran, token] { ++ran; });
  auto delayed = queue->asyncAfter(1h, [&ran, token] { ++ran; });
  token.reset();
  started.wait();
  std::thread destroyer([&] { queue.reset(); });
  proceed.count_down();
  destroyer.join();

  EXPECT_TRUE(finished);
  EXPECT_EQ(ran, 0);
  EXPECT_TRUE(watch.expired()) << "the caller's handle must not keep the captures alive";
  EXPECT_FALSE(delayed->cancel());
}

TEST(SerialQueueTest, DestructionFromItsOwnWorkDoesNotDeadlock) {
  auto queue = std::make_unique<SerialQueue>("self");
  std::latch queued(1);
  std::latch destroyed(1);
  auto token = std::make_shared<int>(0);
  std::weak_ptr<int> watch = token;
  std::atomic<bool> laterRan = false;
  queue->async([&] {
    queued.wait();
    queue.reset();
    destroyed.count_down();
  });
  queue->async([&laterRan, token = std::move(token)] { laterRan = true; });
  queued.count_down();
  destroyed.wait();

  EXPECT_TRUE(watch.expired()) << "work behind the destroying work is dropped during the destruction";
  EXPECT_FALSE(laterRan);
}

TEST(SerialQueueTest, ManyProducersKeepTheirOwnOrderWhileOthersSuspendAndResume) {
  constexpr int kProducers = 8;
  constexpr int kItems = 500;
  SerialQueue queue("producers");
  std::vector<std::vector<int>> seen(kProducers);
  std::latch allRan(kProducers * kItems);
  {
    std::vector<std::jthread> threads;
    for (int p = 0; p < kProducers; ++p) {
      threads.emplace_back([&, p] {
        for (int i = 0; i < kItems; ++i) {
          auto work = [&, p, i] {
            seen[p].push_back(i);
            allRan.count_down();
          };
          // Work due at once keeps its place among the async work of the same thread.
          if (i % 2 == 0) {
            queue.async(work);
          } else {
            queue.asyncAfter(0ms, work);
          }
        }
      });
    }
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        queue.suspend();
        std::this_thread::yield();
        EXPECT_TRUE(queue.resume());
      }
    });
  }
  allRan.wait();

  EXPECT_FALSE(queue.isSuspended());
  for (int p = 0; p < kProducers; ++p) EXPECT_EQ(seen[p], upTo(kItems)) << "producer " << p;
}

}  // namespace
}  // namespace verdalune::sessionreplay
