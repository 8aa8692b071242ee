#include "command_line.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <limits>
#include <optional>
#include <string_view>

namespace verdalune::sessionreplay::collector {
namespace {

template <typename Number>
std::optional<Number> parseNumber(std::string_view text, Number low, Number high) {
  Number value{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc{} || end != text.data() + text.size() || value < low || value > high)
    return std::nullopt;
  return value;
}

// The limits that take any positive number of bytes or connections, by option name; null for any other.
std::size_t* positiveLimit(CommandLine& line, std::string_view option) {
  if (option == "--max-body-bytes") return &line.maxBodyBytes;
  if (option == "--max-event-bytes") return &line.maxEventBytes;
  if (option == "--max-block-bytes") return &line.maxBlockBytes;
  if (option == "--min-body-rate") return &line.minBodyBytesPerSecond;
  if (option == "--max-connections-per-client") return &line.maxConnectionsPerClient;
  return nullptr;
}

}  // namespace

std::string defaultAssetsDir() {
  return VDL_NODE_MODULES_DIR;
}

std::string usage() {
  return R"(usage: vdl-collector --api-key KEY [options]

Receives session replay blocks, stores them in SQLite or PostgreSQL, serves them back and plays them in rrweb's player.

  --api-key KEY          accept uploads bearing this key (repeatable; at least one)
  --config KEY=FILE      answer GET /config?api_key=KEY with the contents of FILE (repeatable);
                         keys without one get {"configs":{}}
  --port N               port to listen on; 0 (the default) picks a free one
  --host ADDRESS         address to listen on (default 127.0.0.1)
  --db PATH|URI          where sessions are kept: an SQLite file, for one collector (default
                         vdl-collector.sqlite3 in the working directory), or a PostgreSQL database,
                         postgresql://USER@HOST:PORT/DATABASE, which several collectors may share; a
                         password belongs in PGPASSWORD or ~/.pgpass, not on a command line
  --max-body-bytes N     largest upload body accepted, counted after any Content-Encoding is undone;
                         larger ones get 413 (default 20971520)
  --max-event-bytes N    largest event accepted once inflated; a block holding a larger one gets 413
                         (default 16777216)
  --max-block-bytes N    most that the events of one block may inflate to together; more gets 413
                         (default 67108864)
  --assets DIR           node_modules folder holding rrweb-player, whose script and style the session
                         pages load (default )" +
         defaultAssetsDir() + R"()
  --read-token TOKEN     what reading sessions takes (16 characters or more): "Authorization: Bearer
                         TOKEN", or the cookie that signing in at /signin sets (a link to a page with
                         ?token=TOKEN signs in too). Without it, and without --open-reads, the pages and
                         read-back endpoints answer 401 to everyone; upload keys never read
  --open-reads           let anyone who reaches the collector read every session, for demos on a
                         loopback --host only
  --allowed-host NAME    answer requests for this host name too (repeatable); by default only
                         localhost, 127.0.0.1, [::1] and the address a request arrived on are
                         answered, others get 421, so that a web page cannot reach the collector
                         through a DNS name rebound to it
  --test-controls TOKEN  enable the test controls (/_control/*) for requests from this host that send
                         "X-Test-Control-Token: TOKEN" (16 characters or more), and keep a record of
                         the latest 1000 track and config requests for them; for test harnesses only
  --header-deadline-seconds N
                         close a connection whose request line and headers are not all in N seconds
                         after it opened or its previous answer went out (default 20)
  --min-body-rate N      close a connection whose body averages less than N bytes a second, counted
                         from the header deadline after its headers, with 408 (default 1024)
  --max-connections-per-client N
                         connections one client address may hold; the newest ones waiting for their
                         headers over it are closed (default 16)
  --watch-stdin          stop when standard input reaches its end (ties the server to a parent process)
  --help                 print this text

Prints "listening on http://HOST:PORT" once it accepts connections, then one line per request.
SIGINT and SIGTERM stop it.

Endpoints:
  POST /sessions/v2/track?device_id=&session_id=&seq_number=&mobile_translation=
  GET  /config?api_key=KEY
With the read credential (projects are named by the first 8 hex digits of their key's SHA-256):
  GET  /sessions
  GET  /sessions/DEVICE/SESSION/events[?project=P][&as=text]
  GET  /sessions/DEVICE/SESSION[?project=P]          an HTML page playing the session
  GET  /                                             an HTML list of the sessions, linked to their pages
  GET|POST /signin                                   sets the read cookie from the read token
  GET  /player/rrweb-player.js   GET /player/style.css   the player's files, read from --assets
With --test-controls, from this host only:
  POST /_control/faults   GET /_control/requests   POST /_control/reset   (with the token; POSTs JSON)
  GET|POST /_control/moved/3XX/PATH    answers 3XX with Location /PATH (no token: the client under test
                                       follows it)
)";
}

std::expected<std::variant<CommandLine, HelpRequested>, std::string> parseCommandLine(
    std::span<const char* const> arguments) {
  CommandLine line;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    std::string_view option = arguments[i];
    if (option == "--help" || option == "-h") return HelpRequested{};
    if (option == "--watch-stdin") {
      line.watchStdin = true;
      continue;
    }
    if (option == "--open-reads") {
      line.openReads = true;
      continue;
    }

    std::optional<std::string_view> inlineValue;
    if (const auto equals = option.find('='); option.starts_with("--") && equals != std::string_view::npos) {
      inlineValue = option.substr(equals + 1);
      option = option.substr(0, equals);
    }
    const auto value = [&]() -> std::expected<std::string_view, std::string> {
      if (inlineValue) return *inlineValue;
      if (i + 1 >= arguments.size()) return std::unexpected(std::string(option) + " needs a value");
      return std::string_view(arguments[++i]);
    }();
    if (!value) return std::unexpected(value.error());

    if (option == "--port") {
      const auto port = parseNumber<int>(*value, 0, 65535);
      if (!port) return std::unexpected("--port takes a number from 0 to 65535");
      line.port = *port;
    } else if (option == "--host") {
      line.host = *value;
    } else if (option == "--db") {
      line.database = *value;
    } else if (option == "--api-key") {
      if (value->empty()) return std::unexpected("--api-key must not be empty");
      line.apiKeys.emplace_back(*value);
    } else if (option == "--config") {
      const auto equals = value->find('=');
      if (equals == std::string_view::npos || equals == 0 || equals + 1 == value->size())
        return std::unexpected("--config takes KEY=FILE");
      line.configFiles[std::string(value->substr(0, equals))] = value->substr(equals + 1);
    } else if (option == "--assets") {
      if (value->empty()) return std::unexpected("--assets must not be empty");
      line.assetsDir = *value;
    } else if (option == "--test-controls") {
      if (value->size() < 16)
        return std::unexpected("--test-controls takes a token of 16 characters or more");
      line.testControlToken = *value;
    } else if (option == "--read-token") {
      if (value->size() < 16) return std::unexpected("--read-token takes a token of 16 characters or more");
      // It goes out as a cookie value, which has no room for separators, quotes or spaces.
      if (std::ranges::any_of(
              *value, [](char c) { return c <= ' ' || c > '~' || std::string_view("\",;\\").contains(c); }))
        return std::unexpected(
            "--read-token takes printable characters other than spaces, quotes, commas, "
            "semicolons and backslashes");
      line.readToken = *value;
    } else if (option == "--allowed-host") {
      if (value->empty()) return std::unexpected("--allowed-host must not be empty");
      std::string host(*value);
      for (char& c : host) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      line.allowedHosts.push_back(std::move(host));
    } else if (std::size_t* limit = positiveLimit(line, option)) {
      const auto number = parseNumber<std::size_t>(*value, 1, std::numeric_limits<std::size_t>::max());
      if (!number) return std::unexpected(std::string(option) + " takes a positive number");
      *limit = *number;
    } else if (option == "--header-deadline-seconds") {
      const auto seconds = parseNumber<int>(*value, 1, 24 * 3600);
      if (!seconds) return std::unexpected("--header-deadline-seconds takes a number from 1 to 86400");
      line.headerDeadlineSeconds = *seconds;
    } else {
      return std::unexpected("unknown option " + std::string(option));
    }
  }

  if (line.apiKeys.empty()) return std::unexpected("give at least one --api-key");
  const bool loopback = line.host == "localhost" || line.host == "::1" || line.host.starts_with("127.");
  if (line.openReads && !loopback)
    return std::unexpected("--open-reads lets anyone read every session, so it needs a loopback --host");
  for (const auto& [key, file] : line.configFiles) {
    if (std::find(line.apiKeys.begin(), line.apiKeys.end(), key) == line.apiKeys.end())
      return std::unexpected("--config names " + key + ", which is not an --api-key");
  }
  return line;
}

}  // namespace verdalune::sessionreplay::collector
