#pragma once

#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "verdalune/platform/network.h"

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

using platform::HttpResponse;
using platform::TransportError;

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
