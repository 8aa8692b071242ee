#include <memory>
#include <string>
#include <utility>

#include "support/work_list.h"
#include "verdalune/support/queue.h"

namespace verdalune::sessionreplay {
namespace {

// Both loops below hold the list and the clock themselves, never `this`: the work they run may
// destroy the queue, which closes the list and ends the loop.
std::size_t runDue(WorkList& work, const ManualClock& clock) {
  WorkList::CurrentScope current(&work);
  std::size_t ran = 0;
  while (std::optional<WorkList::Item> item = work.next(clock.monotonic())) {
    ran += item->run() ? 1 : 0;
  }
  return ran;
}

}  // namespace

ManualQueue::ManualQueue(std::string label, std::shared_ptr<ManualClock> clock)
    : ClockedQueue(std::move(label), clock), clock_(std::move(clock)) {}

ManualQueue::~ManualQueue() {
  work()->close();
}

std::size_t ManualQueue::runUntilIdle() {
  if (isCurrent()) return 0;
  const std::shared_ptr<WorkList> work = this->work();
  const std::shared_ptr<ManualClock> clock = clock_;
  return runDue(*work, *clock);
}

std::size_t ManualQueue::advance(std::chrono::nanoseconds by) {
  if (isCurrent()) return 0;
  const std::shared_ptr<WorkList> work = this->work();
  const std::shared_ptr<ManualClock> clock = clock_;
  const auto end = clock->monotonic() + by;
  std::size_t ran = runDue(*work, *clock);
  // Step from one due time to the next so that work sees the time it was due at, and work scheduled
  // on the way (a timer set by a timer) fires within this same advance.
  while (std::optional<WorkList::TimePoint> due = work->nextDue()) {
    if (*due > end) break;
    clock->advance(*due - clock->monotonic());
    ran += runDue(*work, *clock);
  }
  clock->advance(end - clock->monotonic());
  return ran + runDue(*work, *clock);
}

std::size_t ManualQueue::pendingCount() const {
  return work()->pendingCount();
}

}  // namespace verdalune::sessionreplay
