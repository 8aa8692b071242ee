#include "upload/path_monitor.h"

#include <gtest/gtest.h>
#include <net/if.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

namespace verdalune::sessionreplay {
namespace {

using namespace std::chrono_literals;
using platform::PathStatus;

constexpr auto kPatience = 10s;

TEST(ManualPathMonitor, StartDeliversTheCurrentStatusThenOnlyChangesOnTheCallersThread) {
  ManualPathMonitor monitor(PathStatus::unsatisfied);
  std::vector<PathStatus> seen;
  const auto caller = std::this_thread::get_id();
  monitor.set(PathStatus::satisfied);  // before start: remembered, not delivered
  monitor.start([&](PathStatus status) {
    EXPECT_EQ(std::this_thread::get_id(), caller);
    seen.push_back(status);
  });
  for (auto status : {PathStatus::satisfied, PathStatus::unsatisfied, PathStatus::unsatisfied,
                      PathStatus::requiresConnection, PathStatus::satisfied}) {
    monitor.set(status);
  }
  EXPECT_EQ(seen, (std::vector{PathStatus::satisfied, PathStatus::unsatisfied, PathStatus::requiresConnection,
                               PathStatus::satisfied}));
}

TEST(ManualPathMonitor, NoUpdateRunsOnceCancelHasReturned) {
  ManualPathMonitor monitor;
  std::atomic<bool> cancelReturned{false};
  std::atomic<bool> lateUpdate{false};
  std::atomic<int> delivered{0};
  monitor.start([&](PathStatus) {
    if (cancelReturned.load()) lateUpdate.store(true);
    ++delivered;
  });
  std::thread toggler([&] {
    for (int i = 0; i < 5000; ++i) monitor.set(i % 2 == 0 ? PathStatus::unsatisfied : PathStatus::satisfied);
  });
  // Cancel while updates are coming from the other thread.
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (delivered.load() < 100 && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  monitor.cancel();
  cancelReturned.store(true);
  toggler.join();
  EXPECT_FALSE(lateUpdate.load());
}

TEST(NetworkPathStatus, NeedsADefaultRouteOrAnAddressOnAWorkingInterfaceUnlessTheCollectorIsLocal) {
  const NetworkInterface loopback{
      .index = 1, .flags = IFF_UP | IFF_RUNNING | IFF_LOOPBACK, .hasRoutableAddress = true};
  const NetworkInterface ethernet{.index = 2, .flags = IFF_UP | IFF_RUNNING | IFF_BROADCAST};
  const NetworkInterface noCarrier{.index = 3, .flags = IFF_UP};
  const NetworkInterface down{.index = 4, .flags = IFF_RUNNING};
  auto addressed = [](NetworkInterface interface) {
    interface.hasRoutableAddress = true;
    return interface;
  };
  const std::tuple<const char*, std::vector<NetworkInterface>, std::vector<DefaultRoute>, bool, PathStatus>
      cases[] = {
          {"nothing at all", {}, {}, false, PathStatus::unsatisfied},
          {"through a working interface", {loopback, ethernet}, {{{2}}}, false, PathStatus::satisfied},
          {"working interface, link-local only", {loopback, ethernet}, {}, false, PathStatus::unsatisfied},
          {"through an interface without carrier",
           {ethernet, noCarrier},
           {{{3}}},
           false,
           PathStatus::unsatisfied},
          {"through an interface that is down", {ethernet, down}, {{{4}}}, false, PathStatus::unsatisfied},
          {"through the loopback", {loopback, ethernet}, {{{1}}}, false, PathStatus::unsatisfied},
          {"through an interface that is gone", {ethernet}, {{{9}}}, false, PathStatus::unsatisfied},
          {"one of two routes works", {ethernet, down}, {{{4}}, {{2}}}, false, PathStatus::satisfied},
          {"multipath with one working hop", {ethernet, down}, {{{4, 2}}}, false, PathStatus::satisfied},
          {"naming no interface, one works", {loopback, ethernet}, {{}}, false, PathStatus::satisfied},
          {"naming no interface, only the loopback works",
           {loopback, down},
           {{}},
           false,
           PathStatus::unsatisfied},
          // A local network without a gateway still reaches a collector on it.
          {"no default route, an address on the LAN",
           {loopback, addressed(ethernet)},
           {},
           false,
           PathStatus::satisfied},
          {"an address on an interface without carrier",
           {loopback, addressed(noCarrier)},
           {},
           false,
           PathStatus::unsatisfied},
          {"an address on an interface that is down",
           {loopback, addressed(down)},
           {},
           false,
           PathStatus::unsatisfied},
          // A collector on this host needs no network at all.
          {"only the loopback, collector on it", {loopback}, {}, true, PathStatus::satisfied},
          {"nothing at all, collector on the loopback", {}, {}, true, PathStatus::satisfied},
      };
  for (const auto& [name, interfaces, routes, collectorOnLoopback, expected] : cases) {
    EXPECT_EQ(networkPathStatus(interfaces, routes, collectorOnLoopback), expected) << name;
  }
}

TEST(IsLoopbackHost, KnowsTheLoopbackByNameAndAddress) {
  for (const char* host : {"localhost", "LocalHost", "localhost.", "127.0.0.1", "127.1.2.3", "::1", "[::1]",
                           "0:0:0:0:0:0:0:1", "::ffff:127.0.0.1"}) {
    EXPECT_TRUE(isLoopbackHost(host)) << host;
  }
  for (const char* host : {"", "collector.example", "127.example", "localhost.example", "128.0.0.1",
                           "10.0.0.7", "::2", "[fe80::1]", "::ffff:10.0.0.1"}) {
    EXPECT_FALSE(isLoopbackHost(host)) << host;
  }
}

std::unique_ptr<NetlinkPathMonitor> makeNetlinkMonitor(std::string_view collectorHost = {}) {
  auto monitor = NetlinkPathMonitor::create(collectorHost);
  EXPECT_TRUE(monitor.has_value()) << monitor.error().message();
  return monitor ? std::move(*monitor) : nullptr;
}

TEST(NetlinkPathMonitor, StartReportsThisMachinesStatusOnItsOwnThread) {
  auto monitor = makeNetlinkMonitor();
  ASSERT_TRUE(monitor);
  std::promise<std::pair<PathStatus, std::thread::id>> first;
  std::atomic<int> updates{0};
  monitor->start([&](PathStatus status) {
    if (updates++ == 0) first.set_value({status, std::this_thread::get_id()});
  });
  monitor->start([](PathStatus) { ADD_FAILURE() << "a second start delivered"; });
  auto delivered = first.get_future();
  ASSERT_EQ(delivered.wait_for(kPatience), std::future_status::ready);
  monitor->cancel();
  const auto [status, thread] = delivered.get();
  // Which status depends on the machine; a Linux host never asks for a connection.
  EXPECT_NE(status, PathStatus::requiresConnection);
  EXPECT_NE(thread, std::this_thread::get_id());
  const int afterCancel = updates.load();
  monitor.reset();
  EXPECT_EQ(updates.load(), afterCancel);
}

TEST(NetlinkPathMonitor, ACollectorOnThisHostIsAlwaysReachable) {
  auto monitor = makeNetlinkMonitor("[::1]");
  ASSERT_TRUE(monitor);
  std::promise<PathStatus> first;
  std::atomic<int> updates{0};
  monitor->start([&](PathStatus status) {
    if (updates++ == 0) first.set_value(status);
  });
  auto delivered = first.get_future();
  ASSERT_EQ(delivered.wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(delivered.get(), PathStatus::satisfied);
}

TEST(NetlinkPathMonitor, MayBeDestroyedFromInsideItsOwnUpdate) {
  auto monitor = makeNetlinkMonitor();
  ASSERT_TRUE(monitor);
  // Shared with the update, which may still be returning from set_value() when the test ends.
  auto destroyed = std::make_shared<std::promise<void>>();
  auto done = destroyed->get_future();
  monitor->start([&monitor, destroyed](PathStatus) {
    monitor.reset();  // would deadlock if the monitor joined its own thread
    destroyed->set_value();
  });
  EXPECT_EQ(done.wait_for(kPatience), std::future_status::ready);
}

}  // namespace
}  // namespace verdalune::sessionreplay
