#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace verdalune::sessionreplay::platform {

// One HTTP request as the library builds it. Headers go out in the order given.
struct HttpRequest {
  std::string method = "GET";
  std::string url;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  std::chrono::milliseconds timeout{60'000};
};

// The HTTP status of a completed exchange; `isHttp` is false for a transport that answered with
// something other than an HTTP response.
struct HttpResponse {
  int statusCode = 0;
  bool isHttp = true;
};

// A failure of the transport itself, with its URL-loading error code: -1009 not connected to the
// internet, -1005 connection lost, -1006 DNS lookup failed, -1003 cannot find host, -1004 cannot
// connect, -1001 timed out, -999 cancelled, -1202 certificate untrusted, -1200 secure connection
// failed, and any other code of that domain (-1011 bad server response, -1000 bad URL, ...).
struct TransportError {
  int code = 0;
  std::string description;

  bool operator==(const TransportError&) const = default;
};

// What a transport hands back when a request ends: a body (possibly empty), a response, or an error.
struct HttpCompletion {
  std::optional<std::string> data;
  std::optional<HttpResponse> response;
  std::optional<TransportError> error;
};

// A request in flight; cancelling it completes it with -999 unless it has already completed.
class HttpTask {
 public:
  virtual ~HttpTask() = default;
  virtual void cancel() = 0;
};

// Sends requests. The completion is called exactly once, on a thread of the transport's own: callers
// hop to their queue themselves. Thread-safe.
class HttpTransport {
 public:
  virtual ~HttpTransport() = default;
  virtual std::shared_ptr<HttpTask> send(HttpRequest request,
                                         std::function<void(HttpCompletion)> completion) = 0;
};

enum class PathStatus { satisfied, unsatisfied, requiresConnection };

// Watches whether the network can be reached. After start, `update` is called once with the current
// status and then on every change, on a thread of the monitor's own. cancel() stops the updates; none
// is delivered once it returns. Thread-safe.
class PathMonitor {
 public:
  virtual ~PathMonitor() = default;
  virtual void start(std::function<void(PathStatus)> update) = 0;
  virtual void cancel() = 0;
};

}  // namespace verdalune::sessionreplay::platform
