#include "integration/postgres_server.h"

#include <fcntl.h>
#include <grp.h>
#include <libpq-fe.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/files.h"

namespace verdalune::sessionreplay::testing {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr const char* kUser = "vdl";  // the server's superuser, which every test connects as

// Who the server runs as: the "postgres" user when this process is root, this process's user otherwise.
struct Account {
  uid_t uid;
  gid_t gid;
};

std::optional<Account> serverAccount() {
  if (geteuid() != 0) return Account{geteuid(), getegid()};
  const passwd* entry = getpwnam("postgres");
  if (!entry) return std::nullopt;
  return Account{entry->pw_uid, entry->pw_gid};
}

// Starts `arguments` as `account`, its output appended to `log`. Everything the child runs before exec
// is safe in a forked copy of a process with threads.
pid_t spawnAs(const Account& account, std::vector<std::string> arguments, const std::filesystem::path& log) {
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  const std::string logPath = log.string();
  const bool switchUser = geteuid() == 0;
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid != 0) return pid;
  const int output = open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  if (output < 0) _exit(126);
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  if (switchUser && (setgroups(0, nullptr) != 0 || setgid(account.gid) != 0 || setuid(account.uid) != 0))
    _exit(126);
  // After the user changes, which clears it: the server stops when this process ends, however it ends.
  prctl(PR_SET_PDEATHSIG, SIGINT);
  if (getppid() != parent) _exit(126);
  execv(argv[0], argv.data());
  _exit(127);
}

std::string binary(const char* name) {
  return (std::filesystem::path(VDL_POSTGRES_BIN_DIR) / name).string();
}

// Runs one statement as the superuser; the server's message when it fails.
std::optional<std::string> execute(const std::string& uri, const std::string& sql) {
  PGconn* connection = PQconnectdb(uri.c_str());
  std::optional<std::string> failure;
  if (PQstatus(connection) != CONNECTION_OK) {
    failure = PQerrorMessage(connection);
  } else {
    PGresult* result = PQexec(connection, sql.c_str());
    if (PQresultStatus(result) != PGRES_COMMAND_OK) failure = PQresultErrorMessage(result);
    PQclear(result);
  }
  PQfinish(connection);
  return failure;
}

}  // namespace

std::unique_ptr<PostgresServer> PostgresServer::start() {
  std::string folderTemplate = (std::filesystem::temp_directory_path() / "vdl-postgres-XXXXXX").string();
  if (!mkdtemp(folderTemplate.data())) {
    std::cerr << "postgres: cannot make a temporary folder: " << std::strerror(errno) << "\n";
    return nullptr;
  }
  const std::filesystem::path folder = folderTemplate;
  const auto log = folder / "server.log";
  auto giveUp = [&](const std::string& reason) -> std::unique_ptr<PostgresServer> {
    std::cerr << "postgres: " << reason << "\n" << readWholeFile(log).value_or("") << "\n";
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
    return nullptr;
  };
  const auto account = serverAccount();
  if (!account)
    return giveUp("PostgreSQL refuses to run as root, and there is no user \"postgres\" to run it as");
  if (chown(folder.c_str(), account->uid, account->gid) != 0)
    return giveUp(std::string("cannot hand the folder to the server's user: ") + std::strerror(errno));

  // No sync: a test server's files need not survive a power cut, and initdb's syncs take seconds.
  const pid_t initdb = spawnAs(*account,
                               {binary("initdb"), "--pgdata", (folder / "data").string(), "--username", kUser,
                                "--auth", "trust", "--encoding", "UTF8", "--locale", "C", "--no-sync"},
                               log);
  int status = 0;
  if (initdb < 0 || waitpid(initdb, &status, 0) != initdb || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
    return giveUp("initdb failed");

  // Only the Unix socket in the folder: no port to collide with another server.
  const pid_t pid = spawnAs(*account,
                            {binary("postgres"), "-D", (folder / "data").string(), "-k", folder.string(),
                             "-c", "listen_addresses=", "-c", "max_connections=200"},
                            log);
  if (pid < 0) return giveUp("cannot start the server");
  std::unique_ptr<PostgresServer> server(new PostgresServer(pid, folder));
  const std::string conninfo = "host=" + folder.string() + " user=" + kUser + " dbname=postgres";
  for (const auto deadline = Clock::now() + 20s; PQping(conninfo.c_str()) != PQPING_OK;
       std::this_thread::sleep_for(20ms)) {
    if (waitpid(pid, &status, WNOHANG) == pid) {
      server->pid_ = 0;
      return giveUp("the server ended before accepting connections");
    }
    if (Clock::now() > deadline) return giveUp("the server did not accept connections in time");
  }
  return server;
}

PostgresServer* PostgresServer::shared() {
  static const std::unique_ptr<PostgresServer> server = start();
  return server.get();
}

PostgresServer::~PostgresServer() {
  if (pid_ > 0) {
    kill(pid_, SIGINT);  // a fast shutdown: sessions end, nothing waits for clients
    int status = 0;
    for (const auto deadline = Clock::now() + 10s; waitpid(pid_, &status, WNOHANG) == 0;
         std::this_thread::sleep_for(10ms)) {
      if (Clock::now() > deadline) {
        std::cerr << "postgres did not stop on SIGINT; killing it\n";
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
        break;
      }
    }
  }
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

std::string PostgresServer::createDatabase() {
  const std::string name = "vdl_" + std::to_string(++databases_);
  if (auto failure = execute(uri("postgres"), "CREATE DATABASE " + name))
    throw std::runtime_error("postgres: cannot make a database: " + *failure);
  return uri(name);
}

std::string PostgresServer::uri(const std::string& database) const {
  // The socket's folder goes in the query: a host that is a path cannot be written before the slash.
  return "postgresql:///" + database + "?host=" + folder_.string() + "&user=" + kUser;
}

bool testsStoreInPostgres() {
  const char* store = std::getenv("VDL_TEST_STORE");
  return store && std::string_view(store) == "postgresql";
}

}  // namespace verdalune::sessionreplay::testing
