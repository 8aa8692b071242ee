#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace verdalune::sessionreplay::collector {

// One TCP connection of this process: its descriptor and the client's end.
struct Peer {
  int descriptor = -1;
  std::string address;
  int port = 0;
};

// This process's connections accepted on `localPort`. The HTTP library keeps its sockets to itself, so
// they are found among the process's open descriptors.
[[nodiscard]] std::vector<Peer> connectionsOn(int localPort);

// How long and how many connections a client may hold before the collector closes them.
struct ConnectionLimits {
  // From a connection's start, or the end of its previous request, to the end of the request's headers.
  std::chrono::seconds headerDeadline{20};
  // Connections from one address at once; the newest idle ones over it are closed.
  std::size_t maxConnectionsPerClient = 16;
  // The least a body must average once headerDeadline has passed since its headers: a phone on a
  // slow link sends a full block well above it, a client that trickles bytes to hold a worker does not.
  std::size_t minBodyBytesPerSecond = 1024;
};

// Keeps slow or numerous connections from holding every worker of the HTTP server.
//
// The HTTP library's timeouts bound each read, not a request, so a client that sends a byte every few
// seconds holds a worker for as long as it likes; and it has no hook when it accepts a connection, so
// there is no place to count or refuse one there. Instead a watchdog thread looks at the process's
// connections on the server's port a few times a second (the library keeps its sockets to itself, so
// they are found among the open descriptors) and shuts down the ones over a limit; the worker reading
// one then fails its read and moves on. The server tells it when a request's headers are in
// (requestStarted) and when its answer is out (requestEnded), which is all it needs to know whether a
// connection waits on its client. A track body, which its handler reads itself, is timed there with
// bodyOnTime; a body the library reads gets a deadline from its announced length.
//
// requestStarted, requestEnded and bodyOnTime may be called from any thread.
class ConnectionGuard {
 public:
  using LogLine = std::function<void(std::string_view line)>;

  ConnectionGuard(ConnectionLimits limits, LogLine log) : limits_(limits), log_(std::move(log)) {}
  ~ConnectionGuard() { stop(); }
  ConnectionGuard(const ConnectionGuard&) = delete;
  ConnectionGuard& operator=(const ConnectionGuard&) = delete;

  // Starts watching the connections accepted on `localPort`; stop() ends that, and may be called twice.
  void start(int localPort);
  void stop();

  // `libraryBodyBytes`: the length of a body the HTTP library reads before the handler runs (the most
  // it may be, when it is chunked); nothing when there is none, or the handler reads it.
  void requestStarted(const std::string& address, int port, std::optional<std::size_t> libraryBodyBytes);
  void requestEnded(const std::string& address, int port);
  // Whether `received` body bytes by now, for headers that were in at `headersEnd`, are fast enough.
  bool bodyOnTime(std::chrono::steady_clock::time_point headersEnd, std::size_t received) const;

 private:
  using Clock = std::chrono::steady_clock;
  struct Connection {
    int descriptor = -1;  // -1 until the watchdog has seen it
    Clock::time_point opened;
    Clock::time_point waitingSince;  // for its next request's headers, when not busy
    bool busy = false;               // between the end of a request's headers and the end of its answer
    std::optional<Clock::time_point> bodyDeadline;  // for a body the library reads
    // Shut down, but still open until the worker holding it (or the next free one, for a connection
    // still queued) sees that: no longer counted, and not cut again.
    bool cut = false;
  };

  void watch(int localPort);
  Clock::duration bodyAllowance(std::size_t bytes) const;

  const ConnectionLimits limits_;
  const LogLine log_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::map<std::string, Connection> connections_;  // by "address port" of the client
  std::thread watchdog_;
};

}  // namespace verdalune::sessionreplay::collector
