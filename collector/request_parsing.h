#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "session_store.h"

// The collector's readers of what a client sends besides the upload body (see track_body.h): query
// strings, header values, the path parts of the session routes and the fault list of the test controls.
// They touch neither the HTTP server nor the database, so they can be exercised on arbitrary bytes.
// Errors are one-line reasons for the client.
namespace verdalune::sessionreplay::collector {

using QueryItems = std::vector<std::pair<std::string, std::string>>;

// One query name or value percent-decoded: "%XY" is the byte 0xXY and "%uXXXX" the UTF-8 encoding of
// U+XXXX (nothing for a surrogate); a '%' that starts neither stays as it is, and so does '+', since the
// clients encode query items the way URL components do, which leaves '+' alone.
[[nodiscard]] std::string decodeQueryComponent(std::string_view text);

// Query items in order, percent-decoded. Empty items ("a=1&&b=2") are skipped; an item without '='
// has an empty value.
[[nodiscard]] QueryItems parseQuery(std::string_view query);

// The one value of `name`; absent when not given, an error when given twice.
[[nodiscard]] std::expected<std::optional<std::string>, std::string> single(const QueryItems& items,
                                                                            std::string_view name);

// A decimal 64-bit integer, nothing before or after it; `name` is what the error calls it.
[[nodiscard]] std::expected<std::int64_t, std::string> parseInt64(std::string_view text,
                                                                  std::string_view name);

// The key of an uploaded block: the track query's device_id (not empty), session_id and seq_number
// (decimal 64-bit integers) and mobile_translation ("true" or "false"), each given exactly once.
[[nodiscard]] std::expected<BlockKey, std::string> blockKeyOf(const QueryItems& query, std::string apiKey);

// The key of an "Authorization: Bearer KEY" header value (the scheme in any case); none for another
// scheme or an empty key.
[[nodiscard]] std::optional<std::string> bearerKeyOf(std::string_view authorization);

// Whether a Content-Type value names application/json, whatever parameters follow.
[[nodiscard]] bool isJsonContentType(std::string_view contentType);

// The session a session route names: the device id is the path between "/sessions/" and the session id
// as the route matched it, the session id its last number.
struct SessionRoute {
  std::string deviceId;
  std::int64_t sessionId = 0;
};
// The routes, as patterns the HTTP server matches whole paths against; group 1 is the device id, group 2
// the session id.
inline constexpr const char* kSessionEventsRoute = R"(/sessions/(.+)/(-?[0-9]+)/events)";
inline constexpr const char* kSessionPageRoute = R"(/sessions/(.+)/(-?[0-9]+))";
[[nodiscard]] std::expected<SessionRoute, std::string> sessionRouteOf(std::string_view deviceId,
                                                                      std::string_view sessionText);

// The query of the session events route: the project to read the session under (needed only when
// several projects stored the same session) and whether the events go out as strings ("as=text").
struct SessionEventsQuery {
  std::optional<std::string> project;  // as the pages name it
  bool asText = false;
};
[[nodiscard]] std::expected<SessionEventsQuery, std::string> sessionEventsQueryOf(const QueryItems& query);

// One entry of the fault list the test controls take, [{"status":503},{"delay_ms":200,"drop":true}]:
// each member optional, none other allowed.
// A delay holds one of the server's worker threads, so it is bounded.
inline constexpr int kMaxFaultDelayMs = 60'000;
struct FaultRequest {
  int status = 0;   // 100-599, or 0 for none
  int delayMs = 0;  // 0 to kMaxFaultDelayMs
  bool drop = false;
};
[[nodiscard]] std::expected<std::vector<FaultRequest>, std::string> parseFaults(std::string_view body);

}  // namespace verdalune::sessionreplay::collector
