#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "verdalune/support/clock.h"

namespace verdalune::sessionreplay {

class WorkList;

// A piece of work scheduled with Queue::asyncAfter, kept by the caller to cancel it.
//
// Thread-safe: cancel() may be called from any thread, including from the work itself.
class DelayedWork {
 public:
  DelayedWork(const DelayedWork&) = delete;
  DelayedWork& operator=(const DelayedWork&) = delete;

  // Stops the work from running if it has not started, and releases what it captured before
  // returning. True when this call stopped it; false when it has already started or run, was
  // cancelled before, or its queue is gone. Harmless to call at any time and any number of times.
  bool cancel();

 private:
  friend class WorkList;

  explicit DelayedWork(std::function<void()> work);

  // Hands the work over to be run; empty when it was cancelled or already handed over.
  std::function<void()> take();
  bool isPending() const;

  mutable std::mutex mutex_;
  std::function<void()> work_;  // guarded by mutex_; empty once taken or cancelled
};

// A serial queue: work runs one item at a time, never two at once, in the order it became runnable.
//
// - async: runs after all work queued before it (FIFO).
// - asyncAfter: becomes runnable when the delay has passed; items come due in due-time order, those due
//   at the same time in the order they were scheduled. A delay of zero or less is runnable at once and
//   keeps its place among async work queued from the same thread.
// - suspend/resume are counted, like a dispatch queue's: each suspend needs one resume. While
//   suspended the item running finishes, nothing else starts, async work waits, and delayed work that
//   comes due waits too and runs after resume, in the order it came due among the waiting work.
//   A resume without a matching suspend does nothing and returns false.
//
// Work must not throw: an exception escaping it ends the process on a threaded queue.
// Every member may be called from any thread, including from work running on the queue.
class Queue {
 public:
  virtual ~Queue() = default;
  Queue(const Queue&) = delete;
  Queue& operator=(const Queue&) = delete;

  virtual const std::string& label() const = 0;

  virtual void async(std::function<void()> work) = 0;
  virtual std::shared_ptr<DelayedWork> asyncAfter(std::chrono::milliseconds delay,
                                                  std::function<void()> work) = 0;

  virtual void suspend() = 0;
  virtual bool resume() = 0;
  virtual bool isSuspended() const = 0;

  // True when the caller is work running on this queue.
  virtual bool isCurrent() const = 0;

 protected:
  Queue() = default;
};

// The part of SerialQueue and ManualQueue that is the same: the Queue calls, over pending work kept in a
// WorkList, with due times read from a Clock's monotonic time.
class ClockedQueue : public Queue {
 public:
  const std::string& label() const final { return label_; }
  void async(std::function<void()> work) final;
  std::shared_ptr<DelayedWork> asyncAfter(std::chrono::milliseconds delay, std::function<void()> work) final;
  void suspend() final;
  bool resume() final;
  bool isSuspended() const final;
  bool isCurrent() const final;

 protected:
  ClockedQueue(std::string label, std::shared_ptr<const Clock> clock);

  // Shared, so that a run in progress can outlive the queue when its own work destroys it.
  const std::shared_ptr<WorkList>& work() const { return work_; }

 private:
  const std::string label_;
  const std::shared_ptr<const Clock> clock_;
  const std::shared_ptr<WorkList> work_;
};

// A queue with a thread of its own, named after the label (cut to 15 characters by the OS).
//
// Destruction drops the work that has not started, releasing its captures, and waits for the item
// running, if any, to finish; no work runs once the destructor has returned. Work queued here holds
// its owner weakly, so dropped work would have done nothing anyway. Destroying the queue from work
// running on it (the work held the last reference) does not wait for itself: the thread is let go and
// ends as soon as that work returns.
class SerialQueue final : public ClockedQueue {
 public:
  explicit SerialQueue(std::string label);
  ~SerialQueue() override;

 private:
  std::thread thread_;
};

// A queue that runs nothing by itself: a test drives it with runUntilIdle() and advance(), and its
// delayed work measures time on a ManualClock. Work runs on the thread that drives the queue, with the
// clock showing the time the work came due.
//
// Meant for one test thread; async and the other Queue calls are also safe from other threads.
// Destruction drops the work still pending; destroying the queue from its own work stops the run.
class ManualQueue final : public ClockedQueue {
 public:
  ManualQueue(std::string label, std::shared_ptr<ManualClock> clock);
  ~ManualQueue() override;

  // Runs everything runnable at the clock's current time, including work queued by that work, until
  // nothing is left or the queue is suspended. Returns how many items ran. Called from work on this
  // queue it does nothing and returns 0: the queue runs one item at a time.
  std::size_t runUntilIdle();

  // Moves the clock forward by `by`, stopping at each due time on the way to run what came due there
  // (as runUntilIdle does), then leaves the clock at the end. Returns how many items ran. Called from
  // work on this queue it does nothing and returns 0.
  std::size_t advance(std::chrono::nanoseconds by);

  // Work waiting to run, due or not, leaving out cancelled delayed work.
  std::size_t pendingCount() const;

  const std::shared_ptr<ManualClock>& clock() const { return clock_; }

 private:
  const std::shared_ptr<ManualClock> clock_;
};

}  // namespace verdalune::sessionreplay
