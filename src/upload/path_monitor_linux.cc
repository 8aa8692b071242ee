#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <utility>

#include "support/files.h"
#include "upload/path_monitor.h"

namespace verdalune::sessionreplay {

using platform::PathStatus;

namespace {

class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) : fd_(fd) {}
  ~UniqueFd() {
    if (fd_ >= 0) ::close(fd_);
  }
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&&) = delete;

  [[nodiscard]] int get() const { return fd_; }

 private:
  int fd_;
};

// A socket on the kernel's routing tables, listening to the given multicast groups.
std::expected<UniqueFd, std::error_code> openRouteSocket(unsigned groups) {
  UniqueFd socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  if (socket.get() < 0) return std::unexpected(systemError());
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = groups;
  if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return std::unexpected(systemError());
  }
  return socket;
}

// Every change that can move a default route, an interface's state or its addresses (which count on
// their own, and take routes along when they come and go).
constexpr unsigned kWatchedGroups =
    RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;

// The kernel answers a dump at once; this only keeps a lost answer from holding the thread forever.
constexpr timeval kDumpPatience{.tv_sec = 2, .tv_usec = 0};

NetworkInterface interfaceOf(const nlmsghdr& message) {
  const auto* info = static_cast<const ifinfomsg*>(NLMSG_DATA(&message));
  return {.index = info->ifi_index, .flags = info->ifi_flags};
}

// The interface of an address that reaches beyond its own link; nothing for a link-local or host-only
// one.
std::optional<int> routableAddressInterfaceOf(const nlmsghdr& message) {
  const auto* address = static_cast<const ifaddrmsg*>(NLMSG_DATA(&message));
  if (address->ifa_scope >= RT_SCOPE_LINK) return std::nullopt;
  return static_cast<int>(address->ifa_index);
}

std::optional<DefaultRoute> defaultRouteOf(const nlmsghdr& message) {
  const auto* route = static_cast<const rtmsg*>(NLMSG_DATA(&message));
  if (route->rtm_dst_len != 0 || route->rtm_type != RTN_UNICAST) return std::nullopt;
  DefaultRoute found;
  int length = static_cast<int>(RTM_PAYLOAD(&message));
  for (const rtattr* attribute = RTM_RTA(route); RTA_OK(attribute, length);
       attribute = RTA_NEXT(attribute, length)) {
    if (attribute->rta_type == RTA_OIF && RTA_PAYLOAD(attribute) >= sizeof(int)) {
      found.interfaces.push_back(*static_cast<const int*>(RTA_DATA(attribute)));
    } else if (attribute->rta_type == RTA_MULTIPATH) {
      int remaining = static_cast<int>(RTA_PAYLOAD(attribute));
      for (const auto* hop = static_cast<const rtnexthop*>(RTA_DATA(attribute)); RTNH_OK(hop, remaining);
           hop = RTNH_NEXT(hop)) {
        found.interfaces.push_back(hop->rtnh_ifindex);
        remaining -= static_cast<int>(RTNH_ALIGN(hop->rtnh_len));
      }
    }
  }
  return found;
}

}  // namespace

// What the monitor's thread needs; shared with the monitor, so either may go first.
struct NetlinkPathMonitor::Watch {
  Watch(UniqueFd changes, UniqueFd queries, UniqueFd wakeup, bool collectorOnLoopback)
      : changes(std::move(changes)),
        queries(std::move(queries)),
        wakeup(std::move(wakeup)),
        collectorOnLoopback(collectorOnLoopback) {}

  void run();
  void wake() const {
    const std::uint64_t one = 1;
    (void)!::write(wakeup.get(), &one, sizeof one);
  }

  // The status the tables say now; nothing when they could not be read.
  std::optional<PathStatus> readStatus();

  // Sends one dump request (`Request` is the family-wide request body) and hands every answer to
  // `visit`. False when the answer could not be read to its end.
  template <typename Request, typename Visit>
  bool dump(std::uint16_t type, Visit visit);

  const UniqueFd changes;  // subscribed to kWatchedGroups before the first read, so no change slips by
  const UniqueFd queries;  // dump requests and their answers
  const UniqueFd wakeup;   // an eventfd written by cancel()
  const bool collectorOnLoopback;
  PathStatusReporter reporter;
  // Used by the monitor's thread only.
  std::uint32_t sequence = 0;
  alignas(nlmsghdr) char buffer[32 * 1024];
};

template <typename Request, typename Visit>
bool NetlinkPathMonitor::Watch::dump(std::uint16_t type, Visit visit) {
  struct {
    nlmsghdr header;
    Request body;  // zero: every address family
  } request{};
  request.header.nlmsg_len = NLMSG_LENGTH(sizeof(Request));
  request.header.nlmsg_type = type;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.header.nlmsg_seq = ++sequence;
  if (::send(queries.get(), &request, request.header.nlmsg_len, 0) < 0) return false;
  for (;;) {
    // MSG_TRUNC makes recv() tell the whole size of an answer too big for the buffer, which would
    // otherwise be cut short without a word.
    long length = ::recv(queries.get(), buffer, sizeof buffer, MSG_TRUNC);
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0 || length > static_cast<long>(sizeof buffer)) return false;
    for (auto* message = reinterpret_cast<const nlmsghdr*>(buffer); NLMSG_OK(message, length);
         message = NLMSG_NEXT(message, length)) {
      // Left over from an earlier dump whose answer was given up on.
      if (message->nlmsg_seq != sequence) continue;
      if (message->nlmsg_type == NLMSG_DONE) return true;
      if (message->nlmsg_type == NLMSG_ERROR || message->nlmsg_len < NLMSG_LENGTH(sizeof(Request)))
        return false;
      visit(*message);
    }
  }
}

std::optional<PathStatus> NetlinkPathMonitor::Watch::readStatus() {
  std::vector<NetworkInterface> interfaces;
  std::vector<DefaultRoute> defaultRoutes;
  std::vector<int> addressed;  // interfaces holding a routable address, once per address
  const bool read =
      dump<ifinfomsg>(RTM_GETLINK,
                      [&](const nlmsghdr& message) { interfaces.push_back(interfaceOf(message)); }) &&
      dump<ifaddrmsg>(RTM_GETADDR,
                      [&](const nlmsghdr& message) {
                        if (auto index = routableAddressInterfaceOf(message)) addressed.push_back(*index);
                      }) &&
      dump<rtmsg>(RTM_GETROUTE, [&](const nlmsghdr& message) {
        if (auto route = defaultRouteOf(message)) defaultRoutes.push_back(std::move(*route));
      });
  if (!read) return std::nullopt;
  for (auto& interface : interfaces) {
    interface.hasRoutableAddress = std::ranges::find(addressed, interface.index) != addressed.end();
  }
  return networkPathStatus(interfaces, defaultRoutes, collectorOnLoopback);
}

void NetlinkPathMonitor::Watch::run() {
  reporter.report(readStatus().value_or(PathStatus::satisfied));
  pollfd watched[] = {{.fd = changes.get(), .events = POLLIN, .revents = 0},
                      {.fd = wakeup.get(), .events = POLLIN, .revents = 0}};
  while (!reporter.stopped()) {
    if (::poll(watched, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;  // nothing left to watch with; the last status stands
    }
    if (watched[1].revents != 0) return;
    // A burst of changes (an interface going down takes its addresses and routes along) is read to
    // its end and answered with one look at the tables.
    bool changed = false;
    for (;;) {
      const long length = ::recv(changes.get(), buffer, sizeof buffer, MSG_DONTWAIT);
      if (length > 0) {
        changed = true;
      } else if (length < 0 && errno == ENOBUFS) {
        changed = true;  // the kernel dropped notifications; the look at the tables covers them
      } else if (length < 0 && errno == EINTR) {
        continue;
      } else if (length < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
        return;
      } else {
        break;
      }
    }
    if (!changed) continue;
    if (const auto status = readStatus()) reporter.report(*status);
  }
}

NetlinkPathMonitor::NetlinkPathMonitor(std::shared_ptr<Watch> watch) : watch_(std::move(watch)) {}

std::expected<std::unique_ptr<NetlinkPathMonitor>, std::error_code> NetlinkPathMonitor::create(
    std::string_view collectorHost) {
  auto changes = openRouteSocket(kWatchedGroups);
  if (!changes) return std::unexpected(changes.error());
  auto queries = openRouteSocket(0);
  if (!queries) return std::unexpected(queries.error());
  if (::setsockopt(queries->get(), SOL_SOCKET, SO_RCVTIMEO, &kDumpPatience, sizeof kDumpPatience) != 0) {
    return std::unexpected(systemError());
  }
  UniqueFd wakeup(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (wakeup.get() < 0) return std::unexpected(systemError());
  return std::unique_ptr<NetlinkPathMonitor>(new NetlinkPathMonitor(
      std::make_shared<Watch>(std::move(*changes), std::move(*queries), std::move(wakeup),
                              !collectorHost.empty() && isLoopbackHost(collectorHost))));
}

NetlinkPathMonitor::~NetlinkPathMonitor() {
  cancel();
  // Still joinable only when destroyed from inside an update: the thread holds the watch and ends
  // once that update returns.
  if (thread_.joinable()) thread_.detach();
}

void NetlinkPathMonitor::start(std::function<void(PathStatus)> update) {
  if (!watch_->reporter.start(std::move(update))) return;
  // A cancel() that slips in before the thread exists stops it before its first update. The reporter
  // is started outside threadMutex_ because an update may take threadMutex_ (by cancelling).
  std::lock_guard lock(threadMutex_);
  thread_ = std::thread([watch = watch_] { watch->run(); });
}

void NetlinkPathMonitor::cancel() {
  watch_->reporter.stop();
  watch_->wake();
  std::thread ending;
  {
    std::lock_guard lock(threadMutex_);
    if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) ending = std::move(thread_);
  }
  if (ending.joinable()) ending.join();
}

}  // namespace verdalune::sessionreplay
