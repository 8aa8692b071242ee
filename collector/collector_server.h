#pragma once

#include <httplib.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <expected>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "connection_guard.h"
#include "session_store.h"
#include "track_body.h"

namespace verdalune::sessionreplay::collector {

struct ServerSettings {
  std::set<std::string> apiKeys;
  std::map<std::string, std::string> configs;  // api key -> remote configuration JSON, served as is
  std::size_t maxBodyBytes = 20 * 1024 * 1024;
  InflateLimits inflateLimits;
  // An npm node_modules folder holding rrweb-player, whose script and style the session pages load.
  std::filesystem::path assetsDir;
  // The test controls (/_control/*: faults, the request record, reset, moved endpoints) exist only when
  // this is set, and answer only requests that bear it in X-Test-Control-Token. Without them nothing is
  // recorded.
  std::optional<std::string> testControlToken;
  // Host names (Host header, without the port) the collector answers besides the loopback names and the
  // address a request arrived on; a page on another name reached through DNS rebinding gets 421.
  std::set<std::string> allowedHosts;
  // What reading sessions takes: "Authorization: Bearer TOKEN", or the cookie that signing in with it
  // sets. Without a token nothing reads, unless openReads (loopback demos only) lets everyone.
  std::optional<std::string> readToken;
  bool openReads = false;
  ConnectionLimits connectionLimits;
};

// What the next track or config request meets instead of (or before) normal handling.
struct Fault {
  int status = 0;     // answer with this status and a one-line body, storing nothing
  int delayMs = 0;    // wait this long first
  bool drop = false;  // close the connection without an answer
};

// A track or config request as it arrived, and the status it was answered with (0 while it is being
// handled, and for a dropped connection).
struct RecordedRequest {
  std::string method;
  std::string path;
  std::string query;  // as received, still percent-encoded
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  int status = 0;
};

// The collection service: the track and config endpoints of the wire protocol, the session read-back
// endpoints, the pages that play sessions in rrweb's player, and the test controls (faults, the request
// record, reset).
//
// bind() and run() are called from one thread; stop() from any thread, also while run() blocks. The
// handlers run on the HTTP server's worker threads; requests_ and faults_ are guarded by mutex_.
class CollectorServer {
 public:
  using LogLine = std::function<void(std::string_view line)>;

  CollectorServer(ServerSettings settings, SessionStore& database, LogLine log);

  // Binds the listening socket; the port bound (the system's pick when `port` is 0) or a reason.
  [[nodiscard]] std::expected<int, std::string> bind(const std::string& host, int port);
  // Serves until stop(). False if the server could not run.
  bool run();
  // Stops accepting, and ends the connections that are open, so that clients holding a connection
  // open do not keep run() from returning.
  void stop();

 private:
  // Checks the key, then reads the body within the size limit, then serves it as a recorded request.
  void serveTrack(const httplib::Request& request, httplib::Response& response,
                  const httplib::ContentReader& content);
  void handleTrack(const httplib::Request& request, std::string_view body, httplib::Response& response);
  void handleConfig(const httplib::Request& request, std::string_view body, httplib::Response& response);
  void handleSessions(httplib::Response& response);
  void handleSessionEvents(const httplib::Request& request, httplib::Response& response);
  void handleSessionPage(const httplib::Request& request, httplib::Response& response);
  void handleSessionList(httplib::Response& response);
  void handlePlayerAsset(const httplib::Request& request, httplib::Response& response,
                         const std::filesystem::path& file, const char* contentType);
  void handleFaults(const httplib::Request& request, httplib::Response& response);
  void handleRequests(httplib::Response& response);

  // Records the request, applies the next pending fault, then hands it to `handle` unless the fault
  // answered it.
  using BodyHandler = void (CollectorServer::*)(const httplib::Request&, std::string_view body,
                                                httplib::Response&);
  void serveRecorded(const httplib::Request& request, std::string_view body, httplib::Response& response,
                     BodyHandler handle);
  // The record's number, by which its status is filled in later; nothing when nothing is recorded.
  std::optional<std::uint64_t> record(const httplib::Request& request, std::string_view body, int status);
  void registerTestControls();
  bool hostAllowed(const httplib::Request& request) const;
  bool mayRead(const httplib::Request& request) const;
  // Wraps a read route: a request without the read credential gets 401 (a page offering to sign in,
  // for `page` routes), and one whose query brings the right token= is signed in and sent on without it.
  httplib::Server::Handler readable(std::function<void(const httplib::Request&, httplib::Response&)> handle,
                                    bool page);
  void handleSignIn(const httplib::Request& request, httplib::Response& response);
  // Sets the read cookie and sends the browser on to `next`, a path on this server.
  void signIn(httplib::Response& response, const std::string& next) const;

  // Wraps a test-control handler so that it answers only clients on this host, and, when `tokenNeeded`,
  // only requests bearing the token (with a JSON body, for a POST: a page cannot send that cross-origin
  // without asking first).
  httplib::Server::Handler local(std::function<void(const httplib::Request&, httplib::Response&)> handle,
                                 bool tokenNeeded = true);

  ServerSettings settings_;
  SessionStore& database_;
  LogLine log_;
  httplib::Server http_;
  ConnectionGuard guard_;
  int port_ = 0;
  int listeningSocket_ = -1;  // the listening socket, once bound
  std::string boundHost_;     // lowercase

  // The player files as served, each compressed once: by file, with the file's time and size when read.
  struct Asset;
  std::mutex assetsMutex_;
  std::map<std::filesystem::path, std::shared_ptr<const Asset>> assets_;  // guarded by assetsMutex_
  std::shared_ptr<const Asset> sessionScript_;

  std::mutex mutex_;
  // The latest requests only, under test controls; recorded_ numbers them, so that a handler finds its
  // record again (or learns that it is gone) once it has its status.
  std::deque<RecordedRequest> requests_;  // guarded by mutex_
  std::uint64_t recorded_ = 0;            // guarded by mutex_; how many were ever recorded
  std::deque<Fault> faults_;              // guarded by mutex_
};

}  // namespace verdalune::sessionreplay::collector
