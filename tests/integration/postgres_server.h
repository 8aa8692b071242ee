#pragma once

#include <sys/types.h>

#include <filesystem>
#include <memory>
#include <string>

namespace verdalune::sessionreplay::testing {

// A PostgreSQL server of its own in a temporary folder, for tests and benchmarks that store into a real
// one: initdb, then the server on a Unix socket in that folder (no port to collide with). Run as root,
// both run as the "postgres" user that Debian's package makes, since PostgreSQL refuses root.
//
// The binaries come from the compile definition VDL_POSTGRES_BIN_DIR. Not thread-safe.
class PostgresServer {
 public:
  // nullptr, with the reason on stderr, when the server does not come up within a few seconds. The
  // server also stops when the calling thread ends without running the destructor, so call it from a
  // thread that outlives the server (the main thread, say).
  static std::unique_ptr<PostgresServer> start();
  // One server for the whole test process, started at the first call; nullptr when it cannot start.
  static PostgresServer* shared();
  ~PostgresServer();  // a fast shutdown, then the folder is removed

  PostgresServer(const PostgresServer&) = delete;
  PostgresServer& operator=(const PostgresServer&) = delete;

  // Makes an empty database and returns its postgresql:// URI; throws std::runtime_error when the server
  // refuses.
  std::string createDatabase();
  // The postgresql:// URI of a database of this server.
  std::string uri(const std::string& database) const;

 private:
  PostgresServer(pid_t pid, std::filesystem::path folder) : pid_(pid), folder_(std::move(folder)) {}

  pid_t pid_;
  std::filesystem::path folder_;
  int databases_ = 0;
};

// Whether the collectors of this test process store into PostgreSQL: VDL_TEST_STORE=postgresql in the
// environment. SQLite otherwise.
bool testsStoreInPostgres();

}  // namespace verdalune::sessionreplay::testing
