#include "verdalune/support/queue.h"

#include <utility>

#include "support/work_list.h"

namespace verdalune::sessionreplay {
namespace {

thread_local const WorkList* tCurrentList = nullptr;

}  // namespace

DelayedWork::DelayedWork(std::function<void()> work) : work_(std::move(work)) {}

bool DelayedWork::cancel() {
  // Destroyed after the lock is released: the captures may do anything, even schedule more work.
  std::function<void()> released = take();
  return static_cast<bool>(released);
}

std::function<void()> DelayedWork::take() {
  std::lock_guard lock(mutex_);
  return std::exchange(work_, nullptr);
}

bool DelayedWork::isPending() const {
  std::lock_guard lock(mutex_);
  return static_cast<bool>(work_);
}

ClockedQueue::ClockedQueue(std::string label, std::shared_ptr<const Clock> clock)
    : label_(std::move(label)), clock_(std::move(clock)), work_(std::make_shared<WorkList>()) {}

void ClockedQueue::async(std::function<void()> work) {
  work_->post(clock_->monotonic(), std::move(work));
}

std::shared_ptr<DelayedWork> ClockedQueue::asyncAfter(std::chrono::milliseconds delay,
                                                      std::function<void()> work) {
  const auto now = clock_->monotonic();
  return work_->postAt(WorkList::dueAfter(now, delay), now, std::move(work));
}

void ClockedQueue::suspend() {
  work_->suspend();
}
bool ClockedQueue::resume() {
  return work_->resume();
}
bool ClockedQueue::isSuspended() const {
  return work_->isSuspended();
}
bool ClockedQueue::isCurrent() const {
  return work_->isCurrent();
}

bool WorkList::Item::run() {
  if (!delayed_) {
    work_();
    return true;
  }
  std::function<void()> work = delayed_->take();
  if (!work) return false;
  work();
  return true;
}

bool WorkList::Item::isPending() const {
  return !delayed_ || delayed_->isPending();
}

void WorkList::Item::discard() {
  work_ = nullptr;
  if (delayed_) delayed_->take();
}

void WorkList::post(TimePoint now, std::function<void()> work) {
  if (!work) return;
  {
    std::lock_guard lock(mutex_);
    if (closed_) return;
    promoteDue(now);
    runnable_.emplace_back(std::move(work));
  }
  changed_.notify_one();
}

std::shared_ptr<DelayedWork> WorkList::postAt(TimePoint due, TimePoint now, std::function<void()> work) {
  std::shared_ptr<DelayedWork> delayed(new DelayedWork(std::move(work)));
  {
    std::unique_lock lock(mutex_);
    if (closed_) {
      lock.unlock();
      delayed->take();
      return delayed;
    }
    promoteDue(now);
    if (due <= now) {
      runnable_.emplace_back(delayed);
    } else {
      timers_.emplace(std::make_pair(due, nextSequence_++), delayed);
    }
  }
  // The thread may be waiting for a later timer than this one.
  changed_.notify_one();
  return delayed;
}

WorkList::TimePoint WorkList::dueAfter(TimePoint now, std::chrono::milliseconds delay) {
  if (delay.count() <= 0) return now;
  const auto room = std::chrono::duration_cast<std::chrono::milliseconds>(TimePoint::max() - now);
  if (delay >= room) return TimePoint::max();
  return now + delay;
}

void WorkList::suspend() {
  std::lock_guard lock(mutex_);
  ++suspendCount_;
}

bool WorkList::resume() {
  {
    std::lock_guard lock(mutex_);
    if (suspendCount_ == 0) return false;
    if (--suspendCount_ > 0) return true;
  }
  changed_.notify_one();
  return true;
}

bool WorkList::isSuspended() const {
  std::lock_guard lock(mutex_);
  return suspendCount_ > 0;
}

std::optional<WorkList::Item> WorkList::next(TimePoint now) {
  std::lock_guard lock(mutex_);
  promoteDue(now);
  return takeRunnable();
}

std::optional<WorkList::Item> WorkList::waitNext() {
  std::unique_lock lock(mutex_);
  for (;;) {
    // Delayed work is made runnable at its due time even while suspended, so that on resume it runs
    // in the order it came due among the work posted meanwhile.
    promoteDue(std::chrono::steady_clock::now());
    if (std::optional<Item> item = takeRunnable()) return item;
    if (closed_) return std::nullopt;
    if (std::optional<TimePoint> due = earliestPendingTimer()) {
      changed_.wait_until(lock, *due);
    } else {
      changed_.wait(lock);
    }
  }
}

std::optional<WorkList::TimePoint> WorkList::nextDue() {
  std::lock_guard lock(mutex_);
  return earliestPendingTimer();
}

std::size_t WorkList::pendingCount() const {
  std::lock_guard lock(mutex_);
  std::size_t count = 0;
  for (const Item& item : runnable_) count += item.isPending() ? 1 : 0;
  for (const auto& [key, delayed] : timers_) count += delayed->isPending() ? 1 : 0;
  return count;
}

void WorkList::close() {
  std::deque<Item> runnable;
  std::map<std::pair<TimePoint, std::uint64_t>, std::shared_ptr<DelayedWork>> timers;
  {
    std::lock_guard lock(mutex_);
    closed_ = true;
    runnable.swap(runnable_);
    timers.swap(timers_);
  }
  changed_.notify_all();
  // Callers may still hold handles to delayed work; release its captures now rather than with the
  // last handle.
  for (Item& item : runnable) item.discard();
  for (auto& [key, delayed] : timers) delayed->take();
}

void WorkList::promoteDue(TimePoint now) {
  while (!timers_.empty() && timers_.begin()->first.first <= now) {
    auto node = timers_.extract(timers_.begin());
    if (node.mapped()->isPending()) runnable_.emplace_back(std::move(node.mapped()));
  }
}

std::optional<WorkList::Item> WorkList::takeRunnable() {
  if (closed_ || suspendCount_ > 0 || runnable_.empty()) return std::nullopt;
  Item item = std::move(runnable_.front());
  runnable_.pop_front();
  return item;
}

std::optional<WorkList::TimePoint> WorkList::earliestPendingTimer() {
  // Cancelled work leaves its entry behind; drop such entries so nobody waits for them.
  while (!timers_.empty() && !timers_.begin()->second->isPending()) timers_.erase(timers_.begin());
  if (timers_.empty()) return std::nullopt;
  return timers_.begin()->first.first;
}

WorkList::CurrentScope::CurrentScope(const WorkList* list) : previous_(tCurrentList) {
  tCurrentList = list;
}

WorkList::CurrentScope::~CurrentScope() {
  tCurrentList = previous_;
}

bool WorkList::isCurrent() const {
  return tCurrentList == this;
}

}  // namespace verdalune::sessionreplay
