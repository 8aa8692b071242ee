#include "player_page.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace verdalune::sessionreplay::collector {
namespace {

// Percent-encodes all but the unreserved characters (and '/', when asked).
std::string percentEncode(std::string_view text, bool keepSlash) {
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') || (byte >= '0' && byte <= '9') ||
        c == '-' || c == '.' || c == '_' || c == '~' || (keepSlash && c == '/')) {
      out += c;
    } else {
      char escaped[4];
      std::snprintf(escaped, sizeof escaped, "%%%02X", byte);
      out += escaped;
    }
  }
  return out;
}

std::string durationOf(const SessionSummary& session) {
  if (!session.firstTimestamp || !session.lastTimestamp) return "no events";
  return formatDuration(*session.lastTimestamp - *session.firstTimestamp);
}

// The first event's time as UTC ISO 8601 with milliseconds, "2025-11-22T08:00:00.000Z".
std::string startOf(const SessionSummary& session) {
  if (!session.firstTimestamp) return "no events";
  const std::int64_t milliseconds = *session.firstTimestamp;
  const std::time_t seconds =
      static_cast<std::time_t>(milliseconds / 1000 - (milliseconds % 1000 < 0 ? 1 : 0));
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[80];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900, utc.tm_mon + 1,
                utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                static_cast<int>((milliseconds % 1000 + 1000) % 1000));
  return text;
}

std::string projectQuery(const SessionSummary& session) {
  return "?project=" + projectOf(session.apiKey);
}

std::string pageStart(std::string_view title, std::string_view head = {}) {
  return R"(<!doctype html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<link rel="icon" href="data:,">
<title>)" +
         escapeHtml(title) +
         R"( · vdl-collector</title>
<style>
  body { font-family: system-ui, sans-serif; margin: 16px; color: #222; background: #f5f5f7; }
  dl { display: flex; flex-wrap: wrap; gap: 2px 20px; margin: 8px 0 12px; }
  dl div { display: flex; gap: 6px; }
  dt { color: #666; }
  dd { margin: 0; word-break: break-all; }
  table { border-collapse: collapse; }
  th, td { text-align: left; padding: 4px 12px 4px 0; border-bottom: 1px solid #ddd; word-break: break-all; }
  #status { color: #a00; }
  /* The player's controller spans the player: the timeline takes its whole width but for the two times. */
  #player .rr-timeline { width: 100%; box-sizing: border-box; padding: 0 8px; }
  #player .rr-timeline__time { width: 64px; }
  /* The recorded screen stands out from the rest of the player when their shapes differ. */
  #player .rr-player { background: #dcdce2; }
  #player .replayer-wrapper > iframe { background: #fff; }
  /* On a phone the times go under the timeline, which then spans the player. */
  @media (max-width: 480px) {
    body { margin: 8px; }
    #player .rr-timeline { flex-wrap: wrap; justify-content: space-between; }
    #player .rr-progress { order: -1; flex: 0 0 100%; }
    #player .rr-timeline__time { width: auto; font-size: 13px; }
  }
</style>
)" + std::string(head) +
         "</head>\n<body>\n";
}

constexpr std::string_view kPageEnd = "</body>\n</html>\n";

}  // namespace

// Sizes the player to the window: the replay as large as the room below the page's header allows, in the
// recorded screen's shape, and the player (whose controller spans it) at least wide enough for a usable
// timeline where the window allows; again when the window changes. Plays nothing until asked, and reports
// what happened in body[data-state] ("playing" or "failed") for whoever drives the page.
std::string_view sessionPageScript() {
  return R"(
(async () => {
  const status = document.getElementById('status');
  const target = document.getElementById('player');
  try {
    const response = await fetch(target.dataset.eventsUrl);
    if (!response.ok) throw new Error(`the events answered ${response.status}: ${await response.text()}`);
    const events = await response.json();
    if (events.length < 2) throw new Error(`the player needs at least two events, the session has ${events.length}`);
    if (!window.rrwebPlayer) throw new Error('the player script did not load');
    const meta = events.find((event) => event.type === 4);
    const screen = meta && meta.data.width > 0 && meta.data.height > 0 ? meta.data : { width: 1024, height: 576 };
    status.remove();
    const size = () => {
      const controllerHeight = 80;
      const margin = parseFloat(getComputedStyle(document.body).marginBottom) || 0;
      const roomWidth = target.clientWidth;
      const roomHeight = window.innerHeight - (target.getBoundingClientRect().top + window.scrollY) - controllerHeight - margin;
      const scale = Math.min(roomWidth / screen.width, Math.max(roomHeight, 200) / screen.height);
      return {
        width: Math.floor(Math.min(roomWidth, Math.max(screen.width * scale, 720))),
        height: Math.floor(screen.height * scale),
      };
    };
    const player = new rrwebPlayer.Player({ target, props: { events, ...size(), maxScale: 0, autoPlay: false } });
    let pending = false;
    window.addEventListener('resize', () => {
      if (pending) return;
      pending = true;
      requestAnimationFrame(() => {
        pending = false;
        player.$set(size());
        player.triggerResize();
      });
    });
    window.vdlPlayer = player;
    document.body.dataset.state = 'playing';
  } catch (error) {
    status.textContent = `Cannot play this session: ${error.message}`;
    document.body.dataset.state = 'failed';
  }
})();
)";
}

std::string escapeHtml(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string sessionPagePath(std::string_view deviceId, std::int64_t sessionId) {
  return "/sessions/" + percentEncode(deviceId, true) + "/" + std::to_string(sessionId);
}

std::string formatDuration(std::int64_t milliseconds) {
  if (milliseconds < 1000) return std::to_string(std::max<std::int64_t>(milliseconds, 0)) + " ms";
  const std::int64_t seconds = milliseconds / 1000;
  const std::string secondsText = std::to_string(seconds % 60) + " s";
  if (seconds < 60) return secondsText;
  const std::string minutesText = std::to_string(seconds / 60 % 60) + " min " + secondsText;
  if (seconds < 3600) return minutesText;
  return std::to_string(seconds / 3600) + " h " + minutesText;
}

std::string projectOf(std::string_view apiKey) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(apiKey.data(), apiKey.size(), digest, &length, EVP_sha256(), nullptr);
  std::string label;
  for (int i = 0; i < 4; ++i) {
    static constexpr char kHex[] = "0123456789abcdef";
    label += kHex[digest[i] >> 4];
    label += kHex[digest[i] & 0xF];
  }
  return label;
}

std::string sessionPage(const SessionSummary& session) {
  const std::string sessionId = std::to_string(session.sessionId);
  const std::string eventsUrl =
      sessionPagePath(session.deviceId, session.sessionId) + "/events" + projectQuery(session);
  std::string page = pageStart("Session " + sessionId + " of " + session.deviceId,
                               "<link rel=\"stylesheet\" href=\"" + std::string(kPlayerStylePath) + "\">\n");
  page += "<p><a href=\"/\">All sessions</a></p>\n<dl>\n";
  page += "<div><dt>Device</dt><dd id=\"device-id\">" + escapeHtml(session.deviceId) + "</dd></div>\n";
  page += "<div><dt>Session</dt><dd id=\"session-id\">" + sessionId + "</dd></div>\n";
  page += "<div><dt>Started</dt><dd id=\"start-time\">" + startOf(session) + "</dd></div>\n";
  page += "<div><dt>Duration</dt><dd id=\"duration\">" + durationOf(session) + "</dd></div>\n";
  page += "<div><dt>Events</dt><dd id=\"event-count\">" + std::to_string(session.eventCount) +
          "</dd></div>\n</dl>\n";
  page += "<p id=\"status\">Loading the events…</p>\n";
  page += "<div id=\"player\" data-events-url=\"" + escapeHtml(eventsUrl) + "\"></div>\n";
  page += "<script src=\"" + std::string(kPlayerScriptPath) + "\"></script>\n";
  page += "<script src=\"" + std::string(kSessionScriptPath) + "\"></script>\n";
  return page + std::string(kPageEnd);
}

std::string sessionListPage(std::span<const SessionSummary> sessions) {
  std::string page = pageStart("Sessions") + "<h1>Sessions</h1>\n";
  if (sessions.empty()) return page + "<p>No sessions yet.</p>\n" + std::string(kPageEnd);
  page +=
      "<table>\n<tr><th>Device</th><th>Session</th><th>Project</th><th>Events</th><th>Duration</th></tr>\n";
  for (const auto& session : sessions) {
    const std::string link = sessionPagePath(session.deviceId, session.sessionId) + projectQuery(session);
    page += "<tr><td>" + escapeHtml(session.deviceId) + "</td><td><a href=\"" + escapeHtml(link) + "\">" +
            std::to_string(session.sessionId) + "</a></td><td>" + projectOf(session.apiKey) + "</td><td>" +
            std::to_string(session.eventCount) + "</td><td>" + durationOf(session) + "</td></tr>\n";
  }
  return page + "</table>\n" + std::string(kPageEnd);
}

std::string signInPage(std::string_view next, bool refused) {
  return pageStart("Sign in") + "<h1>Sign in</h1>\n<p>" +
         (refused ? "That is not the read token." : "Reading sessions here takes the read token.") +
         "</p>\n<form method=\"post\" action=\"/signin\">\n<input type=\"hidden\" name=\"next\" value=\"" +
         escapeHtml(next) +
         "\">\n<label>Read token <input type=\"password\" name=\"token\" autocomplete=\"current-password\" "
         "autofocus></label>\n<button>Sign in</button>\n</form>\n" +
         std::string(kPageEnd);
}

std::string messagePage(std::string_view title, std::string_view message) {
  return pageStart(title) + "<p><a href=\"/\">All sessions</a></p>\n<h1>" + escapeHtml(title) + "</h1>\n<p>" +
         escapeHtml(message) + "</p>\n" + std::string(kPageEnd);
}

}  // namespace verdalune::sessionreplay::collector
