#pragma once

#include <httplib.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace verdalune::sessionreplay::testing {

// A track or config request as the collector received it.
struct ReceivedRequest {
  std::string method, path, query;  // query: the raw query string, still percent-encoded
  // In header-name order (the server does not keep arrival order), names as the client spelled them.
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  int status = 0;  // the answer's status; 0 while still being handled, or when the connection was dropped

  // The first value of the header, its name compared without regard to case.
  std::optional<std::string> header(std::string_view name) const;
};

// What one upcoming track or config request meets. A status answers with that status, storing nothing;
// a delay waits before handling normally (or before the status); drop closes the connection unanswered.
// A default Fault handles its request normally, so it skips one request in a list.
struct Fault {
  int status = 0;
  int delayMs = 0;
  bool drop = false;
};

// A vdl-collector process on 127.0.0.1 with its own database, for tests that upload for real.
//
// The calls that talk to the running collector throw std::runtime_error when it does not answer as
// expected, so a test fails at the call instead of on a confusing empty result. Not thread-safe.
class CollectorProcess {
 public:
  struct Options {
    std::vector<std::string> apiKeys{"test-key"};
    std::map<std::string, std::string> configs{};  // api key -> JSON text, written to temp files
    std::optional<std::size_t> maxBodyBytes{};
    // A fixed port, for a collector that comes back where an earlier one was; a free one by default.
    std::optional<int> port{};
    // Off: started without --test-controls, so the calls that use them throw.
    bool testControls = true;
    std::vector<std::string> arguments{};  // more options for the command line
    // Where it stores (--db): by default a fresh SQLite file in its folder, or a fresh database of the
    // shared PostgreSQL server when testsStoreInPostgres().
    std::optional<std::string> database{};
  };

  // Starts the binary (path from the compile definition VDL_COLLECTOR_PATH) on `port` (a free one when
  // none is given) with a fresh database in a temporary folder; nullptr (with the reason on stderr) if it
  // fails to come up within a few seconds. The collector also stops when this process ends without running
  // the destructor. (Two overloads rather than a default argument: Options is not complete until the class
  // is.)
  static std::unique_ptr<CollectorProcess> start();
  static std::unique_ptr<CollectorProcess> start(Options options);
  ~CollectorProcess();  // SIGTERM, waits, removes the temporary folder

  // Ends the collector at once with SIGKILL, as a crash or an out-of-memory kill would.
  void kill();

  CollectorProcess(const CollectorProcess&) = delete;
  CollectorProcess& operator=(const CollectorProcess&) = delete;

  int port() const { return port_; }
  // The temporary folder of the collector's log, and of its database (sessions.sqlite3) when that is SQLite.
  const std::filesystem::path& folder() const { return folder_; }
  pid_t pid() const { return pid_; }
  std::string log() const;        // what the collector printed: its listening line, then one line per request
  std::string baseUrl() const;    // "http://127.0.0.1:PORT"
  std::string trackUrl() const;   // baseUrl() + "/sessions/v2/track"
  std::string configUrl() const;  // baseUrl() + "/config"
  // An endpoint that answers `status` (a 3xx) with Location `path` and the query, recorded as a request.
  std::string movedUrl(int status, const std::string& path) const;
  // What reading sessions takes: the read token this run started the collector with, as a bearer value.
  const std::string& readToken() const { return readToken_; }
  httplib::Headers readHeaders() const;
  // What the test-control calls send: X-Test-Control-Token with this run's token.
  httplib::Headers controlHeaders() const;

  // Appends to the faults pending; each later track or config request takes the first one left.
  void injectFaults(const std::vector<Fault>& faults);
  // Every track and config request since the start or the last reset, in arrival order.
  std::vector<ReceivedRequest> requests() const;
  // Forgets the recorded requests and the pending faults; stored sessions stay.
  void reset();
  // The stored events of one session as JSON texts, in timestamp order; empty when nothing is stored.
  std::vector<std::string> sessionEvents(const std::string& deviceId, std::int64_t sessionId) const;

 private:
  CollectorProcess(pid_t pid, int lifeline, std::filesystem::path folder, int port, std::string token,
                   std::string readToken)
      : pid_(pid),
        lifeline_(lifeline),
        folder_(std::move(folder)),
        port_(port),
        testControlToken_(std::move(token)),
        readToken_(std::move(readToken)) {}

  pid_t pid_;
  int lifeline_;  // the write end of the collector's standard input; closing it stops the collector
  bool killed_ = false;
  std::filesystem::path folder_;
  int port_;
  std::string testControlToken_;  // the collector runs with --test-controls and this
  std::string readToken_;         // and with --read-token and this
};

}  // namespace verdalune::sessionreplay::testing
