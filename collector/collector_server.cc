#include "collector_server.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <zlib.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <thread>

#include "player_page.h"
#include "request_parsing.h"
#include "support/files.h"
#include "support/json_writer.h"
#include "track_body.h"

namespace verdalune::sessionreplay::collector {
namespace {

using httplib::Request;
using httplib::Response;

constexpr const char* kTrackPath = "/sessions/v2/track";
constexpr const char* kConfigPath = "/config";
// A moved endpoint, for tests of clients that follow redirects: /_control/moved/STATUS/PATH answers
// STATUS (a 3xx) with Location /PATH and the query as it came.
constexpr const char* kMovedRoute = R"(/_control/moved/(3[0-9][0-9])(/.*))";
// The status written to the log for a dropped connection; the client never sees it.
constexpr int kDroppedStatus = 444;
// The request record of the test controls keeps this many of the latest requests, each body cut to this
// length: enough for the largest uploads tests read back, bounded however long a collector runs.
constexpr std::size_t kRecordedRequests = 1000;
constexpr std::size_t kRecordedBodyBytes = 8 * 1024 * 1024;
// Generous, so that connections a client keeps alive and delayed requests never queue behind each other.
// Slow clients cannot hold them all: the connection guard closes connections over its limits.
constexpr std::size_t kWorkerThreads = 32;

// When the request being handled on this worker thread started, for the log line.
thread_local std::optional<std::chrono::steady_clock::time_point> requestStart;

void answerText(Response& response, int status, std::string_view line) {
  response.status = status;
  response.set_content(std::string(line) + "\n", "text/plain");
}

// Pages run only scripts served from here, never inline ones, so text that got into a page from a
// device cannot run as script. Styles may be inline (the page's own, and the ones the player writes for
// a replayed screen) and images may be data: or blob: URLs, which is how replayed screens show.
constexpr const char* kPagePolicy =
    "default-src 'none'; script-src 'self'; style-src 'self' 'unsafe-inline'; img-src 'self' data: blob:; "
    "font-src 'self' data:; connect-src 'self'; frame-src 'self'; base-uri 'none'; form-action 'none'; "
    "frame-ancestors 'none'";
// Long enough for a page opened again soon not to ask; short, since the files keep their paths across
// an npm upgrade. Revalidating with the ETag is cheap either way.
constexpr const char* kAssetCacheControl = "public, max-age=3600";

void answerHtml(Response& response, int status, std::string html) {
  response.status = status;
  response.set_header("Content-Security-Policy", kPagePolicy);
  // Page addresses carry api keys in their query.
  response.set_header("Referrer-Policy", "no-referrer");
  response.set_content(std::move(html), "text/html; charset=utf-8");
}

void answerJson(Response& response, int status, std::string json) {
  response.status = status;
  response.set_content(std::move(json), "application/json");
}

// Builds one JSON document with the library's writer.
template <typename Write>
std::string json(Write&& write) {
  std::string out;
  JsonWriter writer(out);
  write(writer);
  return out;
}

std::string_view rawQuery(const Request& request) {
  const auto question = request.target.find('?');
  return question == std::string::npos ? std::string_view()
                                       : std::string_view(request.target).substr(question + 1);
}

std::optional<std::string> bearerKey(const Request& request) {
  return bearerKeyOf(request.get_header_value("Authorization"));
}

struct Endpoint {
  std::string address;
  int port = 0;
};

// Shuts down this process's TCP connections whose local port is `localPort` and whose peer is `peer`
// (every peer when absent); the HTTP library closes them once its next read or write fails.
void shutDownConnections(int localPort, const std::optional<Endpoint>& peer) {
  for (const auto& connection : connectionsOn(localPort)) {
    if (peer && (connection.port != peer->port || connection.address != peer->address)) continue;
    shutdown(connection.descriptor, SHUT_RDWR);
  }
}

// The most body the HTTP library will read for this request before its handler runs; nothing when it
// reads none. The track handler reads its own body.
std::optional<std::size_t> libraryBodyBytes(const Request& request, std::size_t maxBodyBytes) {
  if (request.path == kTrackPath) return std::nullopt;
  if (request.has_header("Transfer-Encoding")) return maxBodyBytes;
  const auto length = request.get_header_value<std::uint64_t>("Content-Length");
  if (length == 0) return std::nullopt;
  return static_cast<std::size_t>(std::min<std::uint64_t>(length, maxBodyBytes));
}

// Text a client chose, for one log line: control characters and backslashes as \xNN, so that a
// decoded line break cannot start a forged line.
std::string forLog(std::string_view text) {
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F || c == '\\') {
      char escaped[5];
      std::snprintf(escaped, sizeof escaped, "\\x%02X", byte);
      out += escaped;
    } else {
      out += c;
    }
  }
  return out;
}

constexpr std::string_view kReadCookie = "vdl_read";

// Compares a secret without stopping at the first difference, so that timing tells nothing of it.
bool sameSecret(std::string_view given, std::string_view secret) {
  unsigned char difference = given.size() == secret.size() ? 0 : 1;
  for (std::size_t i = 0; i < given.size(); ++i)
    difference |= static_cast<unsigned char>(given[i] ^ secret[i % std::max<std::size_t>(secret.size(), 1)]);
  return difference == 0;
}

std::optional<std::string_view> cookieValue(std::string_view header, std::string_view name) {
  while (!header.empty()) {
    const auto end = std::min(header.find(';'), header.size());
    std::string_view pair = header.substr(0, end);
    header.remove_prefix(std::min(end + 1, header.size()));
    while (pair.starts_with(' ')) pair.remove_prefix(1);
    if (pair.size() > name.size() && pair.starts_with(name) && pair[name.size()] == '=')
      return pair.substr(name.size() + 1);
  }
  return std::nullopt;
}

// Where to go after signing in: a path on this server only, never another site.
std::string localTarget(std::string_view next) {
  return next.starts_with('/') && !next.starts_with("//") && !next.starts_with("/\\") ? std::string(next)
                                                                                      : "/";
}

std::string lowercase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

bool isLoopback(std::string_view address) {
  return address == "::1" || address.starts_with("127.") || address.starts_with("::ffff:127.");
}

// Headers the HTTP library adds to every request it parses; no client sent them.
bool addedByServer(std::string_view name) {
  return name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" || name == "LOCAL_PORT";
}

// One member of an object, key then value.
void member(JsonWriter& writer, std::string_view name, std::string_view value) {
  writer.plainKey(name);
  writer.string(value);
}
void member(JsonWriter& writer, std::string_view name, std::int64_t value) {
  writer.plainKey(name);
  writer.integer(value);
}
void member(JsonWriter& writer, std::string_view name, const std::optional<std::int64_t>& value) {
  writer.plainKey(name);
  value ? writer.integer(*value) : writer.null();
}

std::string describeRequests(const std::vector<RecordedRequest>& requests) {
  return json([&](JsonWriter& writer) {
    writer.beginArray();
    for (const auto& request : requests) {
      writer.beginObject();
      member(writer, "method", request.method);
      member(writer, "path", request.path);
      member(writer, "query", request.query);
      writer.plainKey("headers");
      writer.beginArray();
      for (const auto& [name, value] : request.headers) {
        writer.beginArray();
        writer.string(name);
        writer.string(value);
        writer.endArray();
      }
      writer.endArray();
      member(writer, "body", request.body);
      member(writer, "status", request.status);
      writer.endObject();
    }
    writer.endArray();
  });
}

std::string describeSessions(const std::vector<SessionSummary>& sessions) {
  return json([&](JsonWriter& writer) {
    writer.beginArray();
    for (const auto& session : sessions) {
      writer.beginObject();
      member(writer, "block_count", session.blockCount);
      member(writer, "device_id", session.deviceId);
      member(writer, "event_count", session.eventCount);
      member(writer, "first_timestamp", session.firstTimestamp);
      member(writer, "last_timestamp", session.lastTimestamp);
      member(writer, "project", projectOf(session.apiKey));
      member(writer, "session_id", session.sessionId);
      writer.endObject();
    }
    writer.endArray();
  });
}

// Gzip at the strongest level, which costs once per file rather than once per request.
std::string gzip(std::string_view text) {
  z_stream stream{};
  deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, 15 + 16, 9, Z_DEFAULT_STRATEGY);
  std::string packed(deflateBound(&stream, text.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(packed.data());
  stream.avail_out = static_cast<uInt>(packed.size());
  deflate(&stream, Z_FINISH);
  packed.resize(stream.total_out);
  deflateEnd(&stream);
  return packed;
}

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// Whether an Accept-Encoding header takes gzip: named (or "*") without q=0.
bool acceptsGzip(std::string_view header) {
  while (!header.empty()) {
    const auto comma = header.find(',');
    const std::string_view item = header.substr(0, comma);
    header = comma == std::string_view::npos ? std::string_view() : header.substr(comma + 1);
    const auto semicolon = item.find(';');
    const std::string_view coding = trimmed(item.substr(0, semicolon));
    if (coding != "gzip" && coding != "x-gzip" && coding != "*") continue;
    if (semicolon == std::string_view::npos) return true;
    const std::string_view parameter = trimmed(item.substr(semicolon + 1));
    if (!parameter.starts_with("q=")) return true;
    return std::strtod(std::string(parameter.substr(2)).c_str(), nullptr) > 0;
  }
  return false;
}

// Whether If-None-Match names `etag` (weak comparison, which is what it takes), or is "*".
bool matchesEtag(std::string_view header, std::string_view etag) {
  const auto opaque = [](std::string_view tag) { return tag.starts_with("W/") ? tag.substr(2) : tag; };
  while (!header.empty()) {
    const auto comma = header.find(',');
    const std::string_view tag = trimmed(header.substr(0, comma));
    if (tag == "*" || opaque(tag) == opaque(etag)) return true;
    header = comma == std::string_view::npos ? std::string_view() : header.substr(comma + 1);
  }
  return false;
}

}  // namespace

struct CollectorServer::Asset {
  std::string identity;
  std::string gzipped;
  // Weak: the same for both encodings, which hold the same content.
  std::string etag;
  std::filesystem::file_time_type modified;
  std::uintmax_t size = 0;

  Asset(std::string text, std::filesystem::file_time_type modifiedAt = {})
      : identity(std::move(text)), gzipped(gzip(identity)), modified(modifiedAt), size(identity.size()) {
    char tag[48];
    std::snprintf(
        tag, sizeof tag, "W/\"%zx-%lx\"", identity.size(),
        crc32(0, reinterpret_cast<const Bytef*>(identity.data()), static_cast<uInt>(identity.size())));
    etag = tag;
  }

  // Answers with the encoding the client takes, or 304 when it holds this version. The body goes out
  // through a content provider of known length, which the HTTP library sends as is: a plain body of a
  // text type it would compress again, for every request.
  void serve(const Request& request, Response& response, const char* contentType,
             std::shared_ptr<const Asset> self) const {
    response.set_header("Cache-Control", kAssetCacheControl);
    response.set_header("ETag", etag);
    response.set_header("Vary", "Accept-Encoding");
    if (matchesEtag(request.get_header_value("If-None-Match"), etag)) {
      response.status = 304;
      return;
    }
    response.status = 200;
    const bool packed = acceptsGzip(request.get_header_value("Accept-Encoding"));
    if (packed) response.set_header("Content-Encoding", "gzip");
    const std::string& body = packed ? gzipped : identity;
    response.set_content_provider(
        body.size(), contentType,
        [self = std::move(self), &body](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
          return sink.write(body.data() + offset, length);
        });
  }
};

CollectorServer::CollectorServer(ServerSettings settings, SessionStore& database, LogLine log)
    : settings_(std::move(settings)),
      database_(database),
      log_(std::move(log)),
      guard_(settings_.connectionLimits, log_) {
  http_.new_task_queue = [] { return new httplib::ThreadPool(kWorkerThreads); };
  http_.set_payload_max_length(settings_.maxBodyBytes);
  // The socket the library is about to bind, kept for bind() to widen its queue of connections. The
  // connections it accepts inherit TCP_NODELAY: the library writes an answer's headers and body apart,
  // and a client on a kept connection would otherwise wait out its delayed acknowledgement each time.
  http_.set_socket_options([this](int socket) {
    httplib::default_socket_options(socket);
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    listeningSocket_ = socket;
  });

  // The track body is read by its handler, so that it is counted as it arrives, however it is framed or
  // encoded, and never read at all without a key.
  http_.Post(kTrackPath,
             [this](const Request& request, Response& response, const httplib::ContentReader& content) {
               serveTrack(request, response, content);
             });
  http_.Get(kConfigPath, [this](const Request& request, Response& response) {
    serveRecorded(request, request.body, response, &CollectorServer::handleConfig);
  });
  http_.Get("/sessions",
            readable([this](const Request&, Response& response) { handleSessions(response); }, false));
  // The device id is everything between "/sessions/" and the session id, slashes included: the path
  // arrives percent-decoded, so an encoded slash in a device id is a plain one here.
  http_.Get(
      kSessionEventsRoute,
      readable([this](const Request& request, Response& response) { handleSessionEvents(request, response); },
               false));
  // The page of a session. Its path ends in the session id, so it never takes an events path, which the
  // route above is tried for first anyway.
  http_.Get(kSessionPageRoute, readable([this](const Request& request,
                                               Response& response) { handleSessionPage(request, response); },
                                        true));
  http_.Get("/", readable([this](const Request&, Response& response) { handleSessionList(response); }, true));
  http_.Get("/signin", [](const Request& request, Response& response) {
    answerHtml(response, 200, signInPage(request.get_param_value("next"), false));
  });
  http_.Post("/signin",
             [this](const Request& request, Response& response) { handleSignIn(request, response); });
  http_.Get(std::string(kPlayerScriptPath), [this](const Request& request, Response& response) {
    handlePlayerAsset(request, response, "rrweb-player/dist/rrweb-player.umd.cjs",
                      "text/javascript; charset=utf-8");
  });
  http_.Get(std::string(kPlayerStylePath), [this](const Request& request, Response& response) {
    handlePlayerAsset(request, response, "rrweb-player/dist/style.css", "text/css; charset=utf-8");
  });
  sessionScript_ = std::make_shared<const Asset>(std::string(sessionPageScript()));
  http_.Get(std::string(kSessionScriptPath), [this](const Request& request, Response& response) {
    sessionScript_->serve(request, response, "text/javascript; charset=utf-8", sessionScript_);
  });
  // On every answer, error pages included: browsers take each as the type it says it is.
  http_.set_default_headers({{"X-Content-Type-Options", "nosniff"}});

  if (settings_.testControlToken) registerTestControls();

  http_.set_pre_routing_handler([this](const Request& request, Response& response) {
    requestStart = std::chrono::steady_clock::now();
    guard_.requestStarted(request.remote_addr, request.remote_port,
                          libraryBodyBytes(request, settings_.maxBodyBytes));
    if (hostAllowed(request)) return httplib::Server::HandlerResponse::Unhandled;
    answerText(response, 421,
               "this collector does not answer to the host name " + request.get_header_value("Host") +
                   " (see --allowed-host)");
    return httplib::Server::HandlerResponse::Handled;
  });
  // Answers the library's own refusals (a body over the limit, an unknown path) with a reason line too.
  // An upload refused for its size is recorded here, since no handler sees it.
  http_.set_error_handler(
      httplib::Server::HandlerWithResponse([this](const Request& request, Response& response) {
        if (!response.body.empty()) return httplib::Server::HandlerResponse::Unhandled;
        if (response.status == 413) {
          answerText(response, 413, "body larger than " + std::to_string(settings_.maxBodyBytes) + " bytes");
          if (request.path == kTrackPath || request.path == kConfigPath) record(request, request.body, 413);
        } else if (response.status == 404) {
          answerText(response, 404, "no such endpoint: " + request.method + " " + request.path);
        } else {
          answerText(response, response.status, "request failed");
        }
        return httplib::Server::HandlerResponse::Handled;
      }));
  http_.set_logger([this](const Request& request, const Response& response) {
    guard_.requestEnded(request.remote_addr, request.remote_port);
    char duration[32] = "-";
    if (requestStart) {
      const std::chrono::duration<double, std::milli> elapsed =
          std::chrono::steady_clock::now() - *requestStart;
      std::snprintf(duration, sizeof duration, "%.1f ms", elapsed.count());
      requestStart.reset();
    }
    // A refused body was never read; its announced length is what the client tried to send.
    const auto received = request.body.empty() ? request.get_header_value<std::uint64_t>("Content-Length")
                                               : request.body.size();
    log_(forLog(request.method) + " " + forLog(request.path) + " " + std::to_string(response.status) + " " +
         std::to_string(received) + " bytes in, " + std::to_string(response.body.size()) + " out, " +
         duration);
  });
}

void CollectorServer::registerTestControls() {
  http_.Post("/_control/faults",
             local([this](const Request& request, Response& response) { handleFaults(request, response); }));
  http_.Get("/_control/requests",
            local([this](const Request&, Response& response) { handleRequests(response); }));
  // Needs no token: what follows the redirect is the client under test, which knows nothing of it.
  // It only answers a redirect, and records the request.
  const auto moved = local(
      [this](const Request& request, Response& response) {
        const int status = std::stoi(request.matches[1].str());
        std::string location = request.matches[2].str();
        if (const auto query = rawQuery(request); !query.empty()) location += "?" + std::string(query);
        response.set_header("Location", location);
        answerText(response, status, "moved to " + location);
        record(request, request.body, status);
      },
      false);
  http_.Post(kMovedRoute, moved);
  http_.Get(kMovedRoute, moved);
  http_.Post("/_control/reset", local([this](const Request&, Response& response) {
               {
                 std::lock_guard lock(mutex_);
                 requests_.clear();
                 faults_.clear();
               }
               answerJson(response, 200, "{}");
             }));
}

std::expected<int, std::string> CollectorServer::bind(const std::string& host, int port) {
  const int bound = port == 0 ? http_.bind_to_any_port(host) : (http_.bind_to_port(host, port) ? port : -1);
  if (bound <= 0) return std::unexpected("cannot listen on " + host + ":" + std::to_string(port));
  // The library listens with a queue of 5 connections not yet accepted. Behind a load balancer, or when
  // a crowd of phones comes back online, more arrive at once, and the kernel drops the ones over it:
  // their requests end unanswered. Listening again on the bound socket only widens the queue.
  if (::listen(listeningSocket_, SOMAXCONN) != 0)
    return std::unexpected("cannot listen on " + host + ":" + std::to_string(port));
  port_ = bound;
  boundHost_ = lowercase(host);
  return bound;
}

bool CollectorServer::run() {
  guard_.start(port_);
  return http_.listen_after_bind();
}

void CollectorServer::stop() {
  http_.stop();
  guard_.stop();
  shutDownConnections(port_, std::nullopt);
}

httplib::Server::Handler CollectorServer::local(std::function<void(const Request&, Response&)> handle,
                                                bool tokenNeeded) {
  return [this, handle = std::move(handle), tokenNeeded](const Request& request, Response& response) {
    if (!isLoopback(request.remote_addr) && request.remote_addr != request.local_addr)
      return answerText(response, 403, "test controls answer only clients on this host");
    if (tokenNeeded && request.get_header_value("X-Test-Control-Token") != *settings_.testControlToken)
      return answerText(response, 403, "test controls need the X-Test-Control-Token of --test-controls");
    if (tokenNeeded && request.method == "POST" &&
        !isJsonContentType(request.get_header_value("Content-Type")))
      return answerText(response, 415, "test controls take application/json");
    handle(request, response);
  };
}

bool CollectorServer::hostAllowed(const Request& request) const {
  // A client that names no host is no browser, which is what a rebound name would fool.
  if (!request.has_header("Host")) return true;
  std::string host = lowercase(request.get_header_value("Host"));
  // Without the port: after the bracketed IPv6 address, or after the only colon.
  if (host.starts_with('[')) {
    host = host.substr(0, host.find(']') + 1);
  } else if (const auto colon = host.find(':'); colon != std::string::npos) {
    host.resize(colon);
  }
  const auto bracketed = [](const std::string& address) {
    return address.find(':') == std::string::npos ? address : "[" + address + "]";
  };
  return host == "localhost" || host == "127.0.0.1" || host == "[::1]" || host == bracketed(boundHost_) ||
         host == bracketed(lowercase(request.local_addr)) || settings_.allowedHosts.contains(host);
}

bool CollectorServer::mayRead(const Request& request) const {
  if (settings_.openReads) return true;
  if (!settings_.readToken) return false;
  if (const auto bearer = bearerKey(request); bearer && sameSecret(*bearer, *settings_.readToken))
    return true;
  const std::string cookies = request.get_header_value("Cookie");  // a copy, which the view below reads
  const auto cookie = cookieValue(cookies, kReadCookie);
  return cookie && sameSecret(*cookie, *settings_.readToken);
}

httplib::Server::Handler CollectorServer::readable(std::function<void(const Request&, Response&)> handle,
                                                   bool page) {
  return [this, handle = std::move(handle), page](const Request& request, Response& response) {
    // A link with the token in it (the demo prints one) signs in and goes on to the same page without
    // the token, so that it stays out of the address bar and the history.
    const auto items = parseQuery(rawQuery(request));
    const auto token = single(items, "token");
    if (page && token && *token && settings_.readToken && sameSecret(**token, *settings_.readToken)) {
      std::string rest;
      for (const auto& [name, value] : items) {
        if (name == "token") continue;
        rest += (rest.empty() ? "?" : "&") + name + "=" + httplib::detail::encode_query_param(value);
      }
      // The path as it came, still percent-encoded: request.path is decoded.
      return signIn(response, request.target.substr(0, request.target.find('?')) + rest);
    }
    if (mayRead(request)) return handle(request, response);
    if (page) return answerHtml(response, 401, signInPage(request.target, false));
    answerText(response, 401,
               "reading sessions takes \"Authorization: Bearer READ_TOKEN\" (see --read-token)");
  };
}

void CollectorServer::signIn(Response& response, const std::string& next) const {
  response.set_header("Set-Cookie", std::string(kReadCookie) + "=" + *settings_.readToken +
                                        "; Path=/; HttpOnly; SameSite=Strict");
  response.set_header("Location", localTarget(next));
  answerText(response, 303, "signed in");
}

void CollectorServer::handleSignIn(const Request& request, Response& response) {
  const auto form = parseQuery(request.body);
  const auto token = single(form, "token");
  const auto next = single(form, "next");
  const std::string target = next && *next ? **next : "/";
  if (!settings_.readToken || !token || !*token || !sameSecret(**token, *settings_.readToken))
    return answerHtml(response, 401, signInPage(target, true));
  signIn(response, target);
}

std::optional<std::uint64_t> CollectorServer::record(const Request& request, std::string_view body,
                                                     int status) {
  if (!settings_.testControlToken) return std::nullopt;
  RecordedRequest recorded{.method = request.method,
                           .path = request.path,
                           .query = std::string(rawQuery(request)),
                           .headers = {},
                           .body = std::string(body.substr(0, kRecordedBodyBytes)),
                           .status = status};
  // Kept as received, Authorization included: the tests that read the record check what their client
  // sent, and only they (with the token) can read it.
  for (const auto& [name, value] : request.headers) {
    if (!addedByServer(name)) recorded.headers.emplace_back(name, value);
  }
  std::lock_guard lock(mutex_);
  requests_.push_back(std::move(recorded));
  if (requests_.size() > kRecordedRequests) requests_.pop_front();
  return recorded_++;
}

void CollectorServer::serveTrack(const Request& request, Response& response,
                                 const httplib::ContentReader& content) {
  // An unread or partly read body is still on the connection, so it is not used for another request.
  const auto refuse = [&](int status, std::string_view reason) {
    response.set_header("Connection", "close");
    answerText(response, status, reason);
    record(request, {}, status);
  };
  const auto apiKey = bearerKey(request);
  if (!apiKey) return refuse(401, "missing \"Authorization: Bearer KEY\"");
  if (!settings_.apiKeys.contains(*apiKey)) return refuse(401, "unknown api key");

  // Counted after the HTTP library takes off the chunking and any Content-Encoding, piece by piece, so
  // that neither a chunked body nor a small compressed one can grow past the limit in memory.
  std::string body;
  bool tooLarge = false;
  bool tooSlow = false;
  const auto headersEnd = requestStart.value_or(std::chrono::steady_clock::now());
  const bool complete = content([&](const char* data, std::size_t size) {
    if (size > settings_.maxBodyBytes - body.size()) {
      tooLarge = true;
      return false;
    }
    // Checked as each piece arrives: a body that stops altogether meets the library's read timeout.
    if (!guard_.bodyOnTime(headersEnd, body.size() + size)) {
      tooSlow = true;
      return false;
    }
    body.append(data, size);
    return true;
  });
  if (tooLarge || response.status == 413)
    return refuse(413, "body larger than " + std::to_string(settings_.maxBodyBytes) + " bytes");
  if (tooSlow) {
    return refuse(408, "the body arrived slower than " +
                           std::to_string(settings_.connectionLimits.minBodyBytesPerSecond) +
                           " bytes a second");
  }
  if (!complete) return refuse(400, "the body could not be read");
  serveRecorded(request, body, response, &CollectorServer::handleTrack);
}

void CollectorServer::serveRecorded(const Request& request, std::string_view body, Response& response,
                                    BodyHandler handle) {
  const auto number = record(request, body, 0);
  Fault fault;
  {
    std::lock_guard lock(mutex_);
    if (!faults_.empty()) {
      fault = faults_.front();
      faults_.pop_front();
    }
  }

  if (fault.delayMs > 0) std::this_thread::sleep_for(std::chrono::milliseconds(fault.delayMs));
  if (fault.drop) {
    // The recorded status stays 0: the client gets no answer at all.
    shutDownConnections(request.local_port, Endpoint{request.remote_addr, request.remote_port});
    return answerText(response, kDroppedStatus, "connection dropped");
  }
  if (fault.status != 0) {
    answerText(response, fault.status, "injected fault: status " + std::to_string(fault.status));
  } else {
    (this->*handle)(request, body, response);
  }

  if (!number) return;
  std::lock_guard lock(mutex_);
  // A reset, or newer requests pushing it out, may have taken this request's record away.
  const std::uint64_t first = recorded_ - requests_.size();
  if (*number >= first) requests_[*number - first].status = response.status;
}

void CollectorServer::handleTrack(const Request& request, std::string_view body, Response& response) {
  const auto apiKey = bearerKey(request);
  if (!apiKey) return answerText(response, 401, "missing \"Authorization: Bearer KEY\"");
  if (!settings_.apiKeys.contains(*apiKey)) return answerText(response, 401, "unknown api key");
  auto key = blockKeyOf(parseQuery(rawQuery(request)), *apiKey);
  if (!key) return answerText(response, 400, key.error());
  if (!isJsonContentType(request.get_header_value("Content-Type")))
    return answerText(response, 400, "Content-Type must be application/json");
  const auto events = decodeTrackBody(body, settings_.inflateLimits);
  if (!events) return answerText(response, events.error().tooLarge ? 413 : 400, events.error().reason);

  const auto stored = database_.storeBlock(*key, *events);
  if (!stored) return answerText(response, 500, "cannot store the block: " + stored.error());
  if (*stored == SessionStore::Stored::conflicting)
    return answerText(response, 409, "a block with other events is stored under this seq_number");
  // "stored" is false for a block that was here already.
  answerJson(response, 200,
             R"({"events":)" + std::to_string(events->size()) + R"(,"stored":)" +
                 (*stored == SessionStore::Stored::stored ? "true" : "false") + "}");
}

void CollectorServer::handleConfig(const Request& request, std::string_view, Response& response) {
  const auto apiKey = single(parseQuery(rawQuery(request)), "api_key");
  if (!apiKey) return answerText(response, 400, apiKey.error());
  if (!*apiKey) return answerText(response, 401, "missing api_key");
  if (!settings_.apiKeys.contains(**apiKey)) return answerText(response, 401, "unknown api key");
  const auto config = settings_.configs.find(**apiKey);
  answerJson(response, 200, config != settings_.configs.end() ? config->second : R"({"configs":{}})");
}

void CollectorServer::handleSessions(Response& response) {
  const auto sessions = database_.sessions();
  if (!sessions) return answerText(response, 500, "cannot read sessions: " + sessions.error());
  answerJson(response, 200, describeSessions(*sessions));
}

void CollectorServer::handleSessionEvents(const Request& request, Response& response) {
  const auto route = sessionRouteOf(request.matches[1].str(), request.matches[2].str());
  if (!route) return answerText(response, 400, route.error());
  const auto& [deviceId, sessionId] = *route;
  const auto query = sessionEventsQueryOf(parseQuery(rawQuery(request)));
  if (!query) return answerText(response, 400, query.error());
  const auto& [project, asText] = *query;

  auto keys = database_.apiKeysOfSession(deviceId, sessionId);
  if (!keys) return answerText(response, 500, "cannot read the session: " + keys.error());
  if (project) std::erase_if(*keys, [&](const std::string& key) { return projectOf(key) != *project; });
  if (keys->empty()) return answerText(response, 404, "no such session");
  if (keys->size() > 1)
    return answerText(response, 400, "the session is stored under several projects; name one with project");

  const auto events = database_.events(keys->front(), deviceId, sessionId);
  if (!events) return answerText(response, 500, "cannot read the session: " + events.error());
  answerJson(response, 200, json([&](JsonWriter& writer) {
               writer.beginArray();
               // The events as stored, byte for byte: as objects for a player, or as strings for
               // tools that compare the stored text itself.
               for (const auto& event : *events) asText ? writer.string(event) : writer.raw(event);
               writer.endArray();
             }));
}

void CollectorServer::handleSessionPage(const Request& request, Response& response) {
  const auto route = sessionRouteOf(request.matches[1].str(), request.matches[2].str());
  if (!route) return answerHtml(response, 400, messagePage("Bad session id", route.error()));
  const auto& [deviceId, sessionId] = *route;
  const auto project = single(parseQuery(rawQuery(request)), "project");
  if (!project) return answerHtml(response, 400, messagePage("Bad query", project.error()));

  const auto sessions = database_.sessions();
  if (!sessions) return answerHtml(response, 500, messagePage("Cannot read the sessions", sessions.error()));
  std::vector<SessionSummary> matching;
  for (const auto& session : *sessions) {
    if (session.deviceId == deviceId && session.sessionId == sessionId &&
        (!*project || projectOf(session.apiKey) == **project)) {
      matching.push_back(session);
    }
  }
  if (matching.empty()) {
    return answerHtml(response, 404,
                      messagePage("No such session", "No session " + std::to_string(sessionId) +
                                                         " of device " + deviceId + " is stored here."));
  }
  // Two projects recorded the same ids: the list links each one under its project.
  if (matching.size() > 1) return answerHtml(response, 400, sessionListPage(matching));

  answerHtml(response, 200, sessionPage(matching.front()));
}

void CollectorServer::handleSessionList(Response& response) {
  const auto sessions = database_.sessions();
  if (!sessions) return answerHtml(response, 500, messagePage("Cannot read the sessions", sessions.error()));
  answerHtml(response, 200, sessionListPage(*sessions));
}

void CollectorServer::handlePlayerAsset(const Request& request, Response& response,
                                        const std::filesystem::path& file, const char* contentType) {
  // The file's time and size are looked at on every request, so that an npm install while the collector
  // runs needs no restart; it is read and compressed again only when they changed.
  const std::filesystem::path path = settings_.assetsDir / file;
  std::error_code error;
  const auto modified = std::filesystem::last_write_time(path, error);
  const auto size = error ? 0 : std::filesystem::file_size(path, error);
  std::shared_ptr<const Asset> asset;
  if (!error) {
    std::lock_guard lock(assetsMutex_);
    if (const auto known = assets_.find(file);
        known != assets_.end() && known->second->modified == modified && known->second->size == size) {
      asset = known->second;
    }
  }
  if (!asset && !error) {
    // Compressed outside the lock; two first requests at once both compress, and either result serves.
    auto contents = readWholeFile(path);
    if (contents) {
      asset = std::make_shared<const Asset>(std::move(*contents), modified);
      std::lock_guard lock(assetsMutex_);
      assets_[file] = asset;
    } else {
      error = contents.error();
    }
  }
  if (!asset) {
    return answerText(response, 404,
                      "cannot read " + path.string() + " (" + error.message() +
                          "); install the npm packages (scripts/install-deps.sh) or point --assets at a "
                          "node_modules folder holding rrweb-player");
  }
  asset->serve(request, response, contentType, asset);
}

void CollectorServer::handleFaults(const Request& request, Response& response) {
  const auto requested = parseFaults(request.body);
  if (!requested) return answerText(response, 400, requested.error());
  std::vector<Fault> faults;
  for (const auto& fault : *requested)
    faults.push_back(Fault{.status = fault.status, .delayMs = fault.delayMs, .drop = fault.drop});
  std::size_t pending = 0;
  {
    std::lock_guard lock(mutex_);
    faults_.insert(faults_.end(), faults.begin(), faults.end());
    pending = faults_.size();
  }
  answerJson(response, 200, R"({"pending":)" + std::to_string(pending) + "}");
}

void CollectorServer::handleRequests(Response& response) {
  std::vector<RecordedRequest> requests;
  {
    std::lock_guard lock(mutex_);
    requests.assign(requests_.begin(), requests_.end());
  }
  answerJson(response, 200, describeRequests(requests));
}

}  // namespace verdalune::sessionreplay::collector
