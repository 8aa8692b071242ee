#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "verdalune/support/queue.h"

namespace verdalune::sessionreplay {

// The pending work of one serial queue and its rules (FIFO, due order, counted suspension), shared by
// SerialQueue and ManualQueue. It never runs work itself: the queue takes the next item and runs it.
// Time is whatever the caller passes as `now`, so the same rules serve real and virtual time.
//
// Thread-safe: one mutex guards everything below. Work is never run or destroyed with the mutex held,
// so work may call back into the list. Lock order: mutex_ before a DelayedWork's own mutex.
class WorkList {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  // One runnable item: plain async work, or delayed work that has come due (and may still be
  // cancelled until it is run).
  class Item {
   public:
    explicit Item(std::function<void()> work) : work_(std::move(work)) {}
    explicit Item(std::shared_ptr<DelayedWork> delayed) : delayed_(std::move(delayed)) {}

    // Runs the work unless it was cancelled; true when it ran.
    bool run();
    bool isPending() const;
    // Releases what the work captured without running it.
    void discard();

   private:
    std::function<void()> work_;
    std::shared_ptr<DelayedWork> delayed_;
  };

  // Both first make runnable the delayed work due at `now`, so that work which came due earlier keeps
  // its place ahead of what is posted now.
  void post(TimePoint now, std::function<void()> work);
  std::shared_ptr<DelayedWork> postAt(TimePoint due, TimePoint now, std::function<void()> work);

  // now + delay, with a negative delay counted as zero and a delay past the clock's range as "never".
  static TimePoint dueAfter(TimePoint now, std::chrono::milliseconds delay);

  void suspend();
  bool resume();
  bool isSuspended() const;

  // Moves the delayed work due at `now` behind the runnable work, then takes the first runnable item;
  // nothing while suspended or closed.
  std::optional<Item> next(TimePoint now);

  // next() on the steady clock, waiting as long as it takes; nothing once closed.
  std::optional<Item> waitNext();

  // The earliest due time of delayed work not yet runnable.
  std::optional<TimePoint> nextDue();

  std::size_t pendingCount() const;

  // Drops all pending work and everything posted later; wakes a waitNext().
  void close();

  // Marks the calling thread as running work from `list` until the scope ends.
  class CurrentScope {
   public:
    explicit CurrentScope(const WorkList* list);
    ~CurrentScope();
    CurrentScope(const CurrentScope&) = delete;
    CurrentScope& operator=(const CurrentScope&) = delete;

   private:
    const WorkList* previous_;
  };
  bool isCurrent() const;

 private:
  void promoteDue(TimePoint now);                   // requires mutex_
  std::optional<Item> takeRunnable();               // requires mutex_
  std::optional<TimePoint> earliestPendingTimer();  // requires mutex_

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Item> runnable_;
  // Keyed by (due time, scheduling order), so ties keep FIFO order.
  std::map<std::pair<TimePoint, std::uint64_t>, std::shared_ptr<DelayedWork>> timers_;
  std::uint64_t nextSequence_ = 0;
  int suspendCount_ = 0;
  bool closed_ = false;
};

}  // namespace verdalune::sessionreplay
