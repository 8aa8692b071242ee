#include <pthread.h>

#include <memory>
#include <string>
#include <utility>

#include "support/work_list.h"
#include "verdalune/support/queue.h"

namespace verdalune::sessionreplay {
namespace {

// Linux keeps 15 characters and the terminating NUL; a longer name makes the call fail.
void nameCurrentThread(const std::string& label) {
  constexpr std::size_t kMaxThreadNameLength = 15;
  pthread_setname_np(pthread_self(), label.substr(0, kMaxThreadNameLength).c_str());
}

// Runs on the queue's own thread. It holds the list, not the SerialQueue, which may be destroyed
// by the work this thread is running.
void runQueue(std::shared_ptr<WorkList> work, std::string label) {
  nameCurrentThread(label);
  WorkList::CurrentScope current(work.get());
  for (;;) {
    std::optional<WorkList::Item> item = work->waitNext();
    if (!item) break;
    item->run();
    // The captures go here, still marked as this queue's work, and they may destroy the queue.
    item.reset();
  }
}

}  // namespace

SerialQueue::SerialQueue(std::string label)
    : ClockedQueue(std::move(label), std::make_shared<SystemClock>()),
      thread_(runQueue, work(), this->label()) {}

SerialQueue::~SerialQueue() {
  work()->close();
  if (work()->isCurrent()) {
    // Joining would wait for the work that is running this destructor.
    thread_.detach();
  } else {
    thread_.join();
  }
}

}  // namespace verdalune::sessionreplay
