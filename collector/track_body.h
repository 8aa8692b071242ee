#pragma once

#include <cstddef>
#include <expected>
#include <string>
#include <string_view>
#include <vector>

#include "session_store.h"

namespace verdalune::sessionreplay::collector {

// How far the events of one block may inflate: each one, and all of them together.
struct InflateLimits {
  std::size_t maxEventBytes = 16 * 1024 * 1024;
  std::size_t maxBlockBytes = 64 * 1024 * 1024;
};

// Why a block was refused: `tooLarge` when it would inflate past a limit, a bad block otherwise.
struct TrackBodyError {
  std::string reason;
  bool tooLarge = false;
};

// Reads an uploaded block, {"version":2,"events":[...]}, into its events.
//
// Each element of "events" is a packed event exactly as the client stored it: the text of a JSON
// string literal, quotes included. So the element's string value is parsed a second time, its
// characters taken as Latin-1 bytes and inflated, and the result must be a JSON object with an
// integer "timestamp". One bad event fails the whole block, since a half-stored block would replay
// as a session with a hole in it, and so does a block without events. The reason is one line for the
// client.
[[nodiscard]] std::expected<std::vector<ReceivedEvent>, TrackBodyError> decodeTrackBody(
    std::string_view body, const InflateLimits& limits = {});

}  // namespace verdalune::sessionreplay::collector
