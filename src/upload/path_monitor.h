#pragma once

#include <atomic>
#include <expected>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include "verdalune/platform/network.h"

namespace verdalune::sessionreplay {

// Hands a monitor's statuses to its update: the first status known once started goes out, then only
// changes. Updates run under a lock so that stop() can wait one out: once stop() returns no update is
// running and none will run; called from inside an update, stop() only prevents the later ones.
//
// Thread-safe. An update must not call report() or start() on its own reporter (it would deadlock).
class PathStatusReporter {
 public:
  explicit PathStatusReporter(std::optional<platform::PathStatus> current = std::nullopt);
  PathStatusReporter(const PathStatusReporter&) = delete;
  PathStatusReporter& operator=(const PathStatusReporter&) = delete;

  // Installs the update and, if the status is known already, delivers it at once on the caller's
  // thread. False, doing nothing, when started or stopped before.
  bool start(std::function<void(platform::PathStatus)> update);

  // Records the status; delivers it on the caller's thread when started and it differs from the one
  // delivered last (the first one always goes out).
  void report(platform::PathStatus status);

  // Ends the updates for good and releases the update's captures (unless called from inside it).
  void stop();
  [[nodiscard]] bool stopped() const { return stopped_.load(); }

 private:
  void deliverLocked(platform::PathStatus status);

  std::mutex mutex_;                                  // held while an update runs
  std::function<void(platform::PathStatus)> update_;  // guarded by mutex_
  std::optional<platform::PathStatus> current_;       // guarded by mutex_
  std::optional<platform::PathStatus> delivered_;     // guarded by mutex_
  bool started_ = false;                              // guarded by mutex_
  std::atomic<bool> stopped_{false};
  std::atomic<std::thread::id> updatingThread_;  // the thread running the update, while one runs
};

// A path monitor that tests drive by hand. start() delivers the current status at once, set()
// delivers a new one at once if it differs, both on the caller's thread. Start it once; a start after
// the first or after cancel() does nothing. Thread-safe, with the reporter's limits on updates.
class ManualPathMonitor final : public platform::PathMonitor {
 public:
  explicit ManualPathMonitor(platform::PathStatus initial = platform::PathStatus::satisfied);

  void start(std::function<void(platform::PathStatus)> update) override;
  void cancel() override;
  void set(platform::PathStatus status);

 private:
  PathStatusReporter reporter_;
};

// One network interface as the kernel describes it; `flags` holds its IFF_ bits. `hasRoutableAddress`
// is true when it holds an address that reaches beyond its own link (not link-local, not host-only).
struct NetworkInterface {
  int index = 0;
  unsigned flags = 0;
  bool hasRoutableAddress = false;
};

// A default route (IPv4 or IPv6) and the interfaces it leaves through: one, several for a multipath
// route, none when the kernel names them only through a nexthop object.
struct DefaultRoute {
  std::vector<int> interfaces;
};

// Whether the collector can be reached, judged from this host alone. Satisfied when
// - the collector is on this host (`collectorOnLoopback`), whatever the network does;
// - a default route leaves through a working interface (up, running, not the loopback; a route naming
//   no interface counts as leaving through any working one); or
// - a working interface holds a routable address: a collector on the local network, or one reached
//   through a more specific route, needs no default route.
// Unsatisfied otherwise: no cable or radio link with an address, nothing but the loopback.
//
// Link-local addresses do not count, because every interface that is up has an IPv6 one whether or not
// it is on a network. Erring towards "satisfied" costs little: the transport's own errors still tell an
// unreachable collector, and its uploads try again, while a wrong "unsatisfied" parks them until the
// network changes.
[[nodiscard]] platform::PathStatus networkPathStatus(const std::vector<NetworkInterface>& interfaces,
                                                     const std::vector<DefaultRoute>& defaultRoutes,
                                                     bool collectorOnLoopback = false);

// True for "localhost" and for addresses of 127.0.0.0/8 and ::1 (bracketed or not, also as IPv4
// mapped into IPv6): a host the loopback interface reaches.
[[nodiscard]] bool isLoopbackHost(std::string_view host);

// The path monitor of a Linux host: networkPathStatus over the kernel's interfaces, addresses and
// default routes, re-read whenever rtnetlink announces a link, address or route change (IPv4 or
// IPv6). Given the collector's host, and that host is on the loopback, it reports satisfied throughout.
// It never reports requiresConnection.
//
// start() spawns the monitor's thread, which delivers the current status first and then each change.
// If the tables cannot be read the status is kept as it was, and taken to be satisfied before the
// first read: the transport's own errors still tell an unreachable network, while a wrong
// "unsatisfied" would park the uploads with nothing to wake them.
//
// Start it once; a start after the first or after cancel() does nothing. cancel() waits for the
// thread unless called from inside an update. Thread-safe; the monitor may be destroyed from inside
// its own update (its thread then winds down by itself).
class NetlinkPathMonitor final : public platform::PathMonitor {
 public:
  // Opens the rtnetlink sockets; fails with the system's error when they cannot be opened.
  // `collectorHost` is the host part of the collector's URL ("localhost", "127.0.0.1", "[::1]", a name
  // or an address), or empty when unknown.
  [[nodiscard]] static std::expected<std::unique_ptr<NetlinkPathMonitor>, std::error_code> create(
      std::string_view collectorHost = {});

  ~NetlinkPathMonitor() override;
  NetlinkPathMonitor(const NetlinkPathMonitor&) = delete;
  NetlinkPathMonitor& operator=(const NetlinkPathMonitor&) = delete;

  void start(std::function<void(platform::PathStatus)> update) override;
  void cancel() override;

 private:
  struct Watch;

  explicit NetlinkPathMonitor(std::shared_ptr<Watch> watch);

  std::shared_ptr<Watch> watch_;  // shared with the thread so that it may outlive the monitor
  std::mutex threadMutex_;
  std::thread thread_;  // guarded by threadMutex_
};

}  // namespace verdalune::sessionreplay
