#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "session_store.h"

namespace verdalune::sessionreplay::collector {

// The HTML pages a person opens in a browser: one session in rrweb's player, and the list of sessions.
// Every stored text (device ids) is escaped; ids in links are percent-encoded.

// Where the page loads the player from; the server answers these paths from rrweb-player's dist folder.
inline constexpr std::string_view kPlayerScriptPath = "/player/rrweb-player.js";
inline constexpr std::string_view kPlayerStylePath = "/player/style.css";
// The session page's own script, served from here: pages run no inline script.
inline constexpr std::string_view kSessionScriptPath = "/player/session.js";

// The script at kSessionScriptPath, which plays the events of the page's #player[data-events-url].
[[nodiscard]] std::string_view sessionPageScript();

[[nodiscard]] std::string escapeHtml(std::string_view text);

// "/sessions/DEVICE/SESSION", the device id percent-encoded except for its slashes, which the route
// takes as part of the id anyway.
[[nodiscard]] std::string sessionPagePath(std::string_view deviceId, std::int64_t sessionId);

// A span of a recording for people: "450 ms", "12 s", "1 min 12 s", "2 h 0 min 5 s".
[[nodiscard]] std::string formatDuration(std::int64_t milliseconds);

// How pages and read-back answers name the project of an api key: the first 8 hex digits of its SHA-256.
// The key itself is never shown, since whoever holds it can upload.
[[nodiscard]] std::string projectOf(std::string_view apiKey);

// The page that fetches the session's events from this server, under its api key, and plays them.
[[nodiscard]] std::string sessionPage(const SessionSummary& session);

// Every session, each linked to its page under its api key (two projects may share device and session ids).
[[nodiscard]] std::string sessionListPage(std::span<const SessionSummary> sessions);

// The form that signs a person in with the read token (POST /signin), then goes on to `next`.
[[nodiscard]] std::string signInPage(std::string_view next, bool refused);

// A page with a title and one line of text, for answers that are not a session.
[[nodiscard]] std::string messagePage(std::string_view title, std::string_view message);

}  // namespace verdalune::sessionreplay::collector
