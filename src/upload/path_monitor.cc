#include "upload/path_monitor.h"

#include <net/if.h>

#include <algorithm>
#include <utility>

namespace verdalune::sessionreplay {

using platform::PathStatus;

PathStatusReporter::PathStatusReporter(std::optional<PathStatus> current) : current_(current) {}

bool PathStatusReporter::start(std::function<void(PathStatus)> update) {
  std::lock_guard lock(mutex_);
  if (started_ || stopped()) return false;
  started_ = true;
  update_ = std::move(update);
  if (current_) deliverLocked(*current_);
  return true;
}

void PathStatusReporter::report(PathStatus status) {
  std::lock_guard lock(mutex_);
  current_ = status;
  if (started_ && delivered_ != status) deliverLocked(status);
}

void PathStatusReporter::deliverLocked(PathStatus status) {
  if (stopped()) return;
  delivered_ = status;
  updatingThread_.store(std::this_thread::get_id());
  update_(status);
  updatingThread_.store({});
}

void PathStatusReporter::stop() {
  stopped_.store(true);
  // From inside the update the lock is ours already; the flag alone keeps the next one from running.
  if (updatingThread_.load() == std::this_thread::get_id()) return;
  std::lock_guard lock(mutex_);
  update_ = nullptr;
}

ManualPathMonitor::ManualPathMonitor(PathStatus initial) : reporter_(initial) {}

void ManualPathMonitor::start(std::function<void(PathStatus)> update) {
  reporter_.start(std::move(update));
}

void ManualPathMonitor::cancel() {
  reporter_.stop();
}

void ManualPathMonitor::set(PathStatus status) {
  reporter_.report(status);
}

PathStatus routedPathStatus(const std::vector<NetworkInterface>& interfaces,
                            const std::vector<DefaultRoute>& defaultRoutes) {
  auto usable = [&](int index) {
    return std::ranges::any_of(interfaces, [&](const NetworkInterface& interface) {
      constexpr unsigned kUpAndRunning = IFF_UP | IFF_RUNNING;
      return (index == 0 || interface.index == index) && (interface.flags & kUpAndRunning) == kUpAndRunning &&
             !(interface.flags & IFF_LOOPBACK);
    });
  };
  const bool routed = std::ranges::any_of(defaultRoutes, [&](const DefaultRoute& route) {
    // Index 0 stands for "any interface": the kernel did not say which.
    return route.interfaces.empty() ? usable(0) : std::ranges::any_of(route.interfaces, usable);
  });
  return routed ? PathStatus::satisfied : PathStatus::unsatisfied;
}

}  // namespace verdalune::sessionreplay
