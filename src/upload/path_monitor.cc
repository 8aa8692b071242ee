#include "upload/path_monitor.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <string>
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

PathStatus networkPathStatus(const std::vector<NetworkInterface>& interfaces,
                             const std::vector<DefaultRoute>& defaultRoutes, bool collectorOnLoopback) {
  if (collectorOnLoopback) return PathStatus::satisfied;
  auto working = [](const NetworkInterface& interface) {
    constexpr unsigned kUpAndRunning = IFF_UP | IFF_RUNNING;
    return (interface.flags & kUpAndRunning) == kUpAndRunning && !(interface.flags & IFF_LOOPBACK);
  };
  auto usable = [&](int index) {
    return std::ranges::any_of(interfaces, [&](const NetworkInterface& interface) {
      return (index == 0 || interface.index == index) && working(interface);
    });
  };
  const bool routed = std::ranges::any_of(defaultRoutes, [&](const DefaultRoute& route) {
    // Index 0 stands for "any interface": the kernel did not say which.
    return route.interfaces.empty() ? usable(0) : std::ranges::any_of(route.interfaces, usable);
  });
  const bool onANetwork = std::ranges::any_of(interfaces, [&](const NetworkInterface& interface) {
    return working(interface) && interface.hasRoutableAddress;
  });
  return routed || onANetwork ? PathStatus::satisfied : PathStatus::unsatisfied;
}

bool isLoopbackHost(std::string_view host) {
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  if (host.ends_with('.')) host.remove_suffix(1);
  const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
  if (std::ranges::equal(host, std::string_view("localhost"), {}, lower)) return true;
  const std::string text(host);
  in_addr v4{};
  if (inet_pton(AF_INET, text.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
  in6_addr v6{};
  return inet_pton(AF_INET6, text.c_str(), &v6) == 1 &&
         (IN6_IS_ADDR_LOOPBACK(&v6) || (IN6_IS_ADDR_V4MAPPED(&v6) && v6.s6_addr[12] == 127));
}

}  // namespace verdalune::sessionreplay
