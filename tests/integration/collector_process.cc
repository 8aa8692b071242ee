#include "integration/collector_process.h"

#include <fcntl.h>
#include <httplib.h>
#include <rapidjson/document.h>
#include <signal.h>
#include <spawn.h>
#include <strings.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <random>
#include <stdexcept>
#include <thread>

#include "integration/postgres_server.h"
#include "support/files.h"

extern char** environ;

namespace verdalune::sessionreplay::testing {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr std::string_view kListening = "listening on http://127.0.0.1:";

std::string readLog(const std::filesystem::path& folder) {
  return readWholeFile(folder / "collector.log").value_or("");
}

std::string describeWaitStatus(int status) {
  if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return std::string("signal ") + strsignal(WTERMSIG(status));
  return "wait status " + std::to_string(status);
}

void stopProcess(pid_t pid, int lifeline, const std::filesystem::path& folder) {
  close(lifeline);
  kill(pid, SIGTERM);
  int status = 0;
  for (const auto deadline = Clock::now() + 10s; waitpid(pid, &status, WNOHANG) == 0;) {
    if (Clock::now() > deadline) {
      std::cerr << "vdl-collector did not stop on SIGTERM; killing it\n";
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      return;
    }
    std::this_thread::sleep_for(10ms);
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::cerr << "vdl-collector ended with " << describeWaitStatus(status) << "; its log:\n"
              << readLog(folder);
  }
}

// One control exchange with the collector on paths this file has encoded already; throws unless it
// answers 200 (or 404, when that is allowed).
std::string exchange(int port, const httplib::Headers& headers, const std::string& method,
                     const std::string& path, const std::string& body = "", bool allowNotFound = false) {
  httplib::Client client("127.0.0.1", port);
  client.set_connection_timeout(5s);
  client.set_read_timeout(10s);
  client.set_url_encode(false);
  const auto result =
      method == "GET" ? client.Get(path, headers) : client.Post(path, headers, body, "application/json");
  if (result && result->status == 404 && allowNotFound) return "[]";
  if (result && result->status == 200) return result->body;
  throw std::runtime_error("vdl-collector: " + method + " " + path + ": " +
                           (result ? "status " + std::to_string(result->status) + " " + result->body
                                   : httplib::to_string(result.error())));
}

rapidjson::Document parseArray(const std::string& json) {
  rapidjson::Document document;
  document.Parse(json.data(), json.size());
  if (document.HasParseError() || !document.IsArray())
    throw std::runtime_error("vdl-collector: not a JSON array: " + json);
  return document;
}

// 32 hex digits from the system's random source: a token no page could guess.
std::string randomToken() {
  std::random_device random;
  char token[33];
  for (int i = 0; i < 4; ++i) std::snprintf(token + 8 * i, 9, "%08x", random());
  return token;
}

std::string stringOf(const rapidjson::Value& value) {
  return value.IsString() ? std::string(value.GetString(), value.GetStringLength()) : std::string();
}

}  // namespace

std::optional<std::string> ReceivedRequest::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (key.size() == name.size() && strncasecmp(key.data(), name.data(), name.size()) == 0) return value;
  }
  return std::nullopt;
}

std::unique_ptr<CollectorProcess> CollectorProcess::start() {
  return start(Options{});
}

std::unique_ptr<CollectorProcess> CollectorProcess::start(Options options) {
  std::string folderTemplate = (std::filesystem::temp_directory_path() / "vdl-collector-XXXXXX").string();
  if (!mkdtemp(folderTemplate.data())) {
    std::cerr << "vdl-collector: cannot make a temporary folder: " << std::strerror(errno) << "\n";
    return nullptr;
  }
  const std::filesystem::path folder = folderTemplate;
  auto giveUp = [&](const std::string& reason) -> std::unique_ptr<CollectorProcess> {
    std::cerr << "vdl-collector: " << reason << "\n";
    std::filesystem::remove_all(folder);
    return nullptr;
  };

  std::string database;
  if (options.database) {
    database = *options.database;
  } else if (!testsStoreInPostgres()) {
    database = (folder / "sessions.sqlite3").string();
  } else {
    PostgresServer* server = PostgresServer::shared();
    if (!server) return giveUp("no PostgreSQL server to store into");
    try {
      database = server->createDatabase();
    } catch (const std::runtime_error& error) {
      return giveUp(error.what());
    }
  }
  const std::string token = randomToken();
  std::vector<std::string> arguments{
      VDL_COLLECTOR_PATH, "--port",       std::to_string(options.port.value_or(0)), "--db",
      database,           "--watch-stdin"};
  if (options.testControls) arguments.insert(arguments.end(), {"--test-controls", token});
  const std::string readToken = randomToken();
  arguments.insert(arguments.end(), {"--read-token", readToken});
  arguments.insert(arguments.end(), options.arguments.begin(), options.arguments.end());
  for (const auto& key : options.apiKeys) arguments.insert(arguments.end(), {"--api-key", key});
  for (const auto& [key, json] : options.configs) {
    const auto file = folder / ("config-" + std::to_string(arguments.size()) + ".json");
    std::ofstream(file, std::ios::binary) << json;
    arguments.insert(arguments.end(), {"--config", key + "=" + file.string()});
  }
  if (options.maxBodyBytes)
    arguments.insert(arguments.end(), {"--max-body-bytes", std::to_string(*options.maxBodyBytes)});

  // The collector reads its standard input until it ends; the write end stays here (and only here:
  // close-on-exec), so the collector stops when this process ends, however it ends.
  int lifeline[2];
  if (pipe2(lifeline, O_CLOEXEC) != 0) return giveUp("cannot make a pipe");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, lifeline[0], STDIN_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, (folder / "collector.log").c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  pid_t pid = 0;
  const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(lifeline[0]);
  if (spawned != 0) {
    close(lifeline[1]);
    return giveUp(std::string("cannot start ") + VDL_COLLECTOR_PATH + ": " + std::strerror(spawned));
  }

  // Up once its first line, which names the port, is complete.
  for (const auto deadline = Clock::now() + 10s;; std::this_thread::sleep_for(10ms)) {
    const std::string log = readLog(folder);
    if (log.starts_with(kListening) && log.find('\n') != std::string::npos) {
      const int port = std::atoi(log.c_str() + kListening.size());
      return std::unique_ptr<CollectorProcess>(
          new CollectorProcess(pid, lifeline[1], folder, port, token, readToken));
    }
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) {
      close(lifeline[1]);
      return giveUp("ended with " + describeWaitStatus(status) + " before listening; its log:\n" + log);
    }
    if (Clock::now() > deadline) {
      stopProcess(pid, lifeline[1], folder);
      return giveUp("did not start listening in time; its log:\n" + log);
    }
  }
}

std::string CollectorProcess::log() const {
  return readLog(folder_);
}

void CollectorProcess::kill() {
  if (killed_) return;
  ::kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  close(lifeline_);
  killed_ = true;
}

CollectorProcess::~CollectorProcess() {
  if (!killed_) stopProcess(pid_, lifeline_, folder_);
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

std::string CollectorProcess::baseUrl() const {
  return "http://127.0.0.1:" + std::to_string(port_);
}
std::string CollectorProcess::trackUrl() const {
  return baseUrl() + "/sessions/v2/track";
}
std::string CollectorProcess::configUrl() const {
  return baseUrl() + "/config";
}

httplib::Headers CollectorProcess::readHeaders() const {
  return {{"Authorization", "Bearer " + readToken_}};
}

httplib::Headers CollectorProcess::controlHeaders() const {
  return {{"X-Test-Control-Token", testControlToken_}};
}

std::string CollectorProcess::movedUrl(int status, const std::string& path) const {
  return baseUrl() + "/_control/moved/" + std::to_string(status) + path;
}

void CollectorProcess::injectFaults(const std::vector<Fault>& faults) {
  // The collector refuses status 0, so a fault without a status leaves the member out.
  std::string json = "[";
  for (const auto& fault : faults) {
    if (json.size() > 1) json += ',';
    json += R"({"delay_ms":)";
    json += std::to_string(fault.delayMs);
    json += R"(,"drop":)";
    json += fault.drop ? "true" : "false";
    if (fault.status) {
      json += R"(,"status":)";
      json += std::to_string(fault.status);
    }
    json += '}';
  }
  exchange(port_, controlHeaders(), "POST", "/_control/faults", json + "]");
}

std::vector<ReceivedRequest> CollectorProcess::requests() const {
  std::vector<ReceivedRequest> requests;
  const auto document = parseArray(exchange(port_, controlHeaders(), "GET", "/_control/requests"));
  for (const auto& entry : document.GetArray()) {
    std::vector<std::pair<std::string, std::string>> headers;
    for (const auto& header : entry["headers"].GetArray())
      headers.emplace_back(stringOf(header[0]), stringOf(header[1]));
    requests.push_back({stringOf(entry["method"]), stringOf(entry["path"]), stringOf(entry["query"]),
                        std::move(headers), stringOf(entry["body"]), entry["status"].GetInt()});
  }
  return requests;
}

void CollectorProcess::reset() {
  exchange(port_, controlHeaders(), "POST", "/_control/reset");
}

std::vector<std::string> CollectorProcess::sessionEvents(const std::string& deviceId,
                                                         std::int64_t sessionId) const {
  const std::string path = "/sessions/" + httplib::detail::encode_query_param(deviceId) + "/" +
                           std::to_string(sessionId) + "/events?as=text";
  const auto document = parseArray(exchange(port_, readHeaders(), "GET", path, "", true));
  std::vector<std::string> events;
  for (const auto& event : document.GetArray()) events.push_back(stringOf(event));
  return events;
}

}  // namespace verdalune::sessionreplay::testing
