#pragma once

#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace verdalune::sessionreplay {

// The outcome of every HTTP exchange of the library (block uploads and configuration fetches).
// Callers decide retries by the case; see isRetryable.
enum class HttpError {
  invalidURL,
  couldNotEncodeData,
  noMoreRetries,
  offline,
  unknown,
  sslError,
  dnsError,
  connectionFailed,
  cancelled,
  rateLimited,
  payloadTooLarge,
  timeout,
  invalidRequest,
  requestFailed,
  quotaExceeded,
  invalidResponse,
};

// A failure of the transport itself, with its URL-loading error code (-1009 not connected, -1001 timed
// out, ...). Codes the classification does not know are passed through to the caller unchanged.
struct TransportError {
  int code = 0;
  std::string description;

  bool operator==(const TransportError&) const = default;
};

// What the transport hands back when a request completes: the HTTP status, or no HTTP response at all
// (`isHttp` false) for a transport that answered with something else.
struct HttpResponse {
  int statusCode = 0;
  bool isHttp = true;
};

using HttpFailure = std::variant<HttpError, TransportError>;

// Success carries the response body, which may be absent (a 204, say).
using HttpResult = std::expected<std::optional<std::string>, HttpFailure>;

// Turns a completed exchange into success or an error. A transport error decides on its own; the
// response is looked at only when there is none.
[[nodiscard]] HttpResult classify(std::optional<std::string> data, std::optional<HttpResponse> response,
                                  std::optional<TransportError> error);

// The transient failures worth another attempt. `offline` is not among them: uploads park until the
// network returns instead of counting attempts.
[[nodiscard]] bool isRetryable(const HttpFailure& failure);

// The case name ("rateLimited") as it appears in log lines.
[[nodiscard]] std::string_view describe(HttpError error);
// The case name for an HttpError, the transport's own description (or its code) otherwise.
[[nodiscard]] std::string describe(const HttpFailure& failure);

}  // namespace verdalune::sessionreplay
