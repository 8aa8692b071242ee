#include "connection_guard.h"

#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <vector>

namespace verdalune::sessionreplay::collector {
namespace {

// Often enough that a burst of slow connections is cut within a second; the scan is a few system calls
// per open descriptor.
constexpr auto kScanInterval = std::chrono::milliseconds(250);
// A connection over the per-client cap is closed only once it has waited this long for its headers, so
// that a burst of ordinary requests from one address, whose headers arrive at once, is not cut.
constexpr auto kCapGrace = std::chrono::seconds(1);

std::optional<std::pair<std::string, int>> endpointOf(const sockaddr_storage& address, socklen_t length) {
  char host[NI_MAXHOST];
  char service[NI_MAXSERV];
  if (getnameinfo(reinterpret_cast<const sockaddr*>(&address), length, host, sizeof host, service,
                  sizeof service, NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
    return std::nullopt;
  }
  return std::pair{std::string(host), std::atoi(service)};
}

// The client end of a connected socket accepted on `localPort`; nothing for any other descriptor.
std::optional<Peer> peerOf(int descriptor, int localPort) {
  sockaddr_storage local{};
  sockaddr_storage remote{};
  socklen_t localLength = sizeof local;
  socklen_t remoteLength = sizeof remote;
  if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&local), &localLength) != 0 ||
      getpeername(descriptor, reinterpret_cast<sockaddr*>(&remote), &remoteLength) != 0) {
    return std::nullopt;  // not a socket, or the listening one
  }
  const auto localEnd = endpointOf(local, localLength);
  const auto remoteEnd = endpointOf(remote, remoteLength);
  if (!localEnd || !remoteEnd || localEnd->second != localPort) return std::nullopt;
  return Peer{descriptor, remoteEnd->first, remoteEnd->second};
}

std::string keyOf(const std::string& address, int port) {
  return address + " " + std::to_string(port);
}

constexpr const char* kSlowHeaders = "its request headers took too long";

// Whether a request's headers have arrived whole on the connection, unread yet: a look at what waits in
// its receive buffer, which leaves it there for the worker.
bool headersArrived(int descriptor) {
  char buffer[16 * 1024];
  const ssize_t size = recv(descriptor, buffer, sizeof buffer, MSG_PEEK | MSG_DONTWAIT);
  return size > 0 &&
         std::string_view(buffer, static_cast<std::size_t>(size)).find("\r\n\r\n") != std::string_view::npos;
}

}  // namespace

std::vector<Peer> connectionsOn(int localPort) {
  std::vector<Peer> peers;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
    int descriptor = -1;
    const std::string name = entry.path().filename().string();
    if (std::from_chars(name.data(), name.data() + name.size(), descriptor).ec != std::errc{}) continue;
    if (auto peer = peerOf(descriptor, localPort)) peers.push_back(std::move(*peer));
  }
  return peers;
}

void ConnectionGuard::start(int localPort) {
  stop();
  stopping_ = false;
  watchdog_ = std::thread([this, localPort] { watch(localPort); });
}

void ConnectionGuard::stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (watchdog_.joinable()) watchdog_.join();
}

void ConnectionGuard::requestStarted(const std::string& address, int port,
                                     std::optional<std::size_t> libraryBodyBytes) {
  const auto now = Clock::now();
  std::lock_guard lock(mutex_);
  auto [connection, added] = connections_.try_emplace(keyOf(address, port));
  if (added) connection->second.opened = now;
  connection->second.busy = true;
  connection->second.bodyDeadline.reset();
  if (libraryBodyBytes) connection->second.bodyDeadline = now + bodyAllowance(*libraryBodyBytes);
}

void ConnectionGuard::requestEnded(const std::string& address, int port) {
  std::lock_guard lock(mutex_);
  const auto connection = connections_.find(keyOf(address, port));
  if (connection == connections_.end()) return;
  connection->second.busy = false;
  connection->second.bodyDeadline.reset();
  connection->second.waitingSince = Clock::now();
}

bool ConnectionGuard::bodyOnTime(std::chrono::steady_clock::time_point headersEnd,
                                 std::size_t received) const {
  return Clock::now() - headersEnd <= bodyAllowance(received);
}

ConnectionGuard::Clock::duration ConnectionGuard::bodyAllowance(std::size_t bytes) const {
  return limits_.headerDeadline + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(
                                      static_cast<double>(bytes) / static_cast<double>(std::max<std::size_t>(
                                                                       limits_.minBodyBytesPerSecond, 1))));
}

void ConnectionGuard::watch(int localPort) {
  std::unique_lock lock(mutex_);
  while (!wake_.wait_for(lock, kScanInterval, [this] { return stopping_; })) {
    lock.unlock();
    const auto peers = connectionsOn(localPort);
    const auto now = Clock::now();
    lock.lock();

    // Forgets closed connections; a descriptor seen for a client end that had another is a new one.
    std::map<std::string, Connection> current;
    for (const auto& peer : peers) {
      const auto key = keyOf(peer.address, peer.port);
      auto known = connections_.extract(key);
      Connection connection =
          known && (known.mapped().descriptor == -1 || known.mapped().descriptor == peer.descriptor)
              ? std::move(known.mapped())
              : Connection{.descriptor = -1,
                           .opened = now,
                           .waitingSince = now,
                           .busy = false,
                           .bodyDeadline = {},
                           .cut = false};
      connection.descriptor = peer.descriptor;
      current.emplace(key, std::move(connection));
    }
    connections_ = std::move(current);

    struct Cut {
      Peer peer;
      const char* reason;
    };
    std::vector<Cut> cuts;
    std::map<std::string, std::vector<Peer>> waitingByAddress;
    std::map<std::string, std::size_t> countByAddress;
    for (const auto& peer : peers) {
      const Connection& connection = connections_.at(keyOf(peer.address, peer.port));
      if (connection.cut) continue;
      ++countByAddress[peer.address];
      if (!connection.busy && now - connection.waitingSince > limits_.headerDeadline) {
        cuts.push_back({peer, kSlowHeaders});
      } else if (connection.busy && connection.bodyDeadline && now > *connection.bodyDeadline) {
        cuts.push_back({peer, "its body arrived too slowly"});
      } else if (!connection.busy && now - connection.waitingSince > kCapGrace) {
        waitingByAddress[peer.address].push_back(peer);
      }
    }
    for (auto& [address, waiting] : waitingByAddress) {
      std::size_t count = countByAddress[address];
      if (count <= limits_.maxConnectionsPerClient) continue;
      std::ranges::sort(waiting, [&](const Peer& a, const Peer& b) {
        return connections_.at(keyOf(a.address, a.port)).opened >
               connections_.at(keyOf(b.address, b.port)).opened;
      });
      for (const auto& peer : waiting) {
        if (count-- <= limits_.maxConnectionsPerClient) break;
        cuts.push_back({peer, "its client holds too many connections"});
      }
    }
    for (const auto& cut : cuts) connections_.at(keyOf(cut.peer.address, cut.peer.port)).cut = true;
    lock.unlock();

    for (const auto& [peer, reason] : cuts) {
      // The descriptor may have been closed and reused since the scan; only the same connection is cut.
      const auto still = peerOf(peer.descriptor, localPort);
      if (!still || still->address != peer.address || still->port != peer.port) continue;
      // Headers that are all in, unread, wait for a worker, not for their client: a crowd of connections
      // queues for the workers, and the ones that sent their request on time are not cut for that.
      if (reason == kSlowHeaders && headersArrived(peer.descriptor)) {
        std::lock_guard relock(mutex_);
        if (auto connection = connections_.find(keyOf(peer.address, peer.port));
            connection != connections_.end())
          connection->second.cut = false;
        continue;
      }
      shutdown(peer.descriptor, SHUT_RDWR);
      if (log_) log_("closed a connection from " + peer.address + ": " + reason);
    }
    lock.lock();
  }
}

}  // namespace verdalune::sessionreplay::collector
