#pragma once

#include <expected>
#include <string>
#include <string_view>
#include <vector>

#include "session_database.h"

namespace verdalune::sessionreplay::collector {

// Reads an uploaded block, {"version":2,"events":[...]}, into its events.
//
// Each element of "events" is a packed event exactly as the client stored it: the text of a JSON
// string literal, quotes included. So the element's string value is parsed a second time, its
// characters taken as Latin-1 bytes and inflated, and the result must be a JSON object with an
// integer "timestamp". One bad event fails the whole block, since a half-stored block would replay
// as a session with a hole in it. The error is a one-line reason for the client.
[[nodiscard]] std::expected<std::vector<ReceivedEvent>, std::string> decodeTrackBody(std::string_view body);

}  // namespace verdalune::sessionreplay::collector
