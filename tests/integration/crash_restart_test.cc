// An app killed at a random write, perhaps in the middle of a record, and started again over the same
// folder: every event it reported written reaches the collector exactly once, whatever the uploads met.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "integration/collector_process.h"
#include "storage/persistent_storage.h"
#include "storage/versioned_event.h"

extern char** environ;

namespace verdalune::sessionreplay {
namespace {

using Clock = std::chrono::steady_clock;

// A vdl_crash_writer child with its standard output on a pipe.
struct Writer {
  pid_t pid = -1;
  int output = -1;
};

Writer spawnWriter(const std::filesystem::path& folder, const std::string& device, std::int64_t session,
                   std::int64_t first, std::int64_t count, const std::optional<std::string>& url) {
  std::vector<std::string> args{VDL_CRASH_WRITER_PATH,   folder.string(),       device,
                                std::to_string(session), std::to_string(first), std::to_string(count)};
  if (url) args.push_back(*url);
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  int out[2];
  if (::pipe2(out, O_CLOEXEC) != 0) return {};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, (folder.string() + ".log").c_str(),
                                   O_WRONLY | O_CREAT | O_APPEND, 0600);
  Writer writer;
  const int spawned = posix_spawn(&writer.pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(out[1]);
  if (spawned != 0) {
    ::close(out[0]);
    return {};
  }
  writer.output = out[0];
  return writer;
}

// Reads "written <n>" lines until `lines` of them have come; the last number read, or nothing when the
// writer ended or stalled first.
std::optional<std::int64_t> readWritten(const Writer& writer, int lines) {
  std::string buffer;
  std::optional<std::int64_t> last;
  const auto deadline = Clock::now() + std::chrono::seconds(10);
  while (lines > 0 && Clock::now() < deadline) {
    pollfd ready{.fd = writer.output, .events = POLLIN, .revents = 0};
    if (::poll(&ready, 1, 100) <= 0) continue;
    char chunk[256];
    const ssize_t got = ::read(writer.output, chunk, sizeof chunk);
    if (got <= 0) return std::nullopt;
    buffer.append(chunk, static_cast<std::size_t>(got));
    for (std::size_t end; lines > 0 && (end = buffer.find('\n')) != std::string::npos;) {
      const std::string line = buffer.substr(0, end);
      buffer.erase(0, end + 1);
      if (!line.starts_with("written ")) continue;
      last = std::stoll(line.substr(8));
      --lines;
    }
  }
  return lines == 0 ? last : std::nullopt;
}

int reap(Writer& writer) {
  int status = 0;
  ::waitpid(writer.pid, &status, 0);
  ::close(writer.output);
  return status;
}

// Runs a writer to its end; its exit code, or -1 when it had to be killed after `limit`.
int runToEnd(Writer writer, std::chrono::seconds limit) {
  const auto deadline = Clock::now() + limit;
  int status = 0;
  while (::waitpid(writer.pid, &status, WNOHANG) == 0) {
    if (Clock::now() > deadline) {
      ::kill(writer.pid, SIGKILL);
      reap(writer);
      return -1;
    }
    char drain[256];
    pollfd ready{.fd = writer.output, .events = POLLIN, .revents = 0};
    if (::poll(&ready, 1, 20) > 0) (void)::read(writer.output, drain, sizeof drain);
  }
  ::close(writer.output);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::vector<std::filesystem::path> blockFiles(const std::filesystem::path& folder) {
  auto blocks = PersistentStorage("test-key", folder).blocks();
  return blocks ? *blocks : std::vector<std::filesystem::path>{};
}

// The event's number from its stored JSON ("event-<n>" in its payload).
std::optional<std::int64_t> numberOf(const std::string& json) {
  const auto at = json.find("\"event-");
  if (at == std::string::npos) return std::nullopt;
  return std::stoll(json.substr(at + 7));
}

// Appends the start of a packed record, without its line feed, to the newest block: what a write cut off
// by the crash leaves. False when no block is left to append to.
bool tearNewestBlock(const std::filesystem::path& folder, std::int64_t number, std::mt19937& random) {
  const auto blocks = blockFiles(folder);
  std::optional<std::filesystem::path> newest;
  std::int64_t highest = -1;
  for (const auto& block : blocks) {
    const auto identity = parseBlockFileName(block.filename().string());
    if (identity && identity->sequenceNumber > highest) {
      highest = identity->sequenceNumber;
      newest = block;
    }
  }
  if (!newest) return false;
  EventPacker packer;
  const std::string record(
      packer
          .pack(rrweb::CustomEvent{.timestamp = 1'700'000'000'000 + number,
                                   .tag = "crash-writer",
                                   .payload = rrweb::JSONValue("event-" + std::to_string(number))})
          .value());
  // Anything from the opening quote alone to the whole literal without its line feed.
  const std::size_t length = 1 + random() % record.size();
  std::ofstream(*newest, std::ios::app | std::ios::binary) << record.substr(0, length);
  return true;
}

TEST(CrashRestart, EveryWrittenEventReachesTheCollectorExactlyOnce) {
  constexpr int kRounds = 5;
  constexpr int kCrashesPerRound = 2;
  constexpr std::int64_t kEventsPerRun = 1000;  // numbers of run r: r*kEventsPerRun + [0, kEventsPerRun)
  constexpr std::int64_t kTornNumbers = 900'000;
  for (int round = 0; round < kRounds; ++round) {
    const unsigned seed = 20261122u + static_cast<unsigned>(round);
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    auto collector = testing::CollectorProcess::start();
    ASSERT_NE(collector, nullptr);
    const auto folder = std::filesystem::temp_directory_path() /
                        ("vdl-crash-" + std::to_string(::getpid()) + "-" + std::to_string(round));
    std::filesystem::remove_all(folder);
    const std::string device = "device-" + std::to_string(round);
    const std::int64_t session = 1'700'000'000 + round;

    std::vector<std::int64_t> written;  // reported written: must arrive once
    std::vector<std::int64_t> torn;     // cut short on disk: must never arrive
    for (int run = 0; run < kCrashesPerRound; ++run) {
      // Uploads fail all the time with no server, or part of the time with a faulty collector: refused,
      // dropped, slower than the client waits (stored, yet sent again), or rate limited.
      std::optional<std::string> url;
      if (random() % 3 != 0) {
        url = collector->trackUrl();
        const testing::Fault kinds[] = {
            {.status = 500}, {.drop = true}, {.delayMs = 1200}, {.status = 429}, {}, {}};
        std::vector<testing::Fault> faults;
        for (int i = 0; i < 12; ++i) faults.push_back(kinds[random() % 6]);
        collector->injectFaults(faults);
      }
      const std::int64_t first = run * kEventsPerRun;
      const int killAt = 1 + static_cast<int>(random() % 300);
      Writer writer = spawnWriter(folder, device, session, first, kEventsPerRun, url);
      ASSERT_GT(writer.pid, 0);
      const auto last = readWritten(writer, killAt);
      ::kill(writer.pid, SIGKILL);
      reap(writer);
      ASSERT_EQ(last, first + killAt - 1) << "the writer stopped before its " << killAt << "th event";
      for (std::int64_t n = first; n <= *last; ++n) written.push_back(n);
      // Numbers past every run's range stand for records the crash cut short.
      const std::int64_t tornNumber = kTornNumbers + run;
      if (random() % 2 == 0 && tearNewestBlock(folder, tornNumber, random)) torn.push_back(tornNumber);
      collector->reset();
    }

    // Started again with the collector working: it delivers what the runs before left.
    for (int attempt = 0; attempt < 3 && !blockFiles(folder).empty(); ++attempt) {
      (void)runToEnd(spawnWriter(folder, device, session, 0, 0, collector->trackUrl()),
                     std::chrono::seconds(8));
    }
    ASSERT_TRUE(blockFiles(folder).empty()) << "blocks left undelivered in " << folder;

    std::map<std::int64_t, int> arrived;
    for (const auto& json : collector->sessionEvents(device, session)) {
      const auto number = numberOf(json);
      ASSERT_TRUE(number) << "not an event of the writer: " << json;
      ++arrived[*number];
    }
    for (const auto& [number, times] : arrived) {
      EXPECT_EQ(times, 1) << "event " << number << " arrived " << times << " times";
      EXPECT_TRUE((number >= 0 && number < kCrashesPerRound * kEventsPerRun) || number >= kTornNumbers)
          << "event " << number << " was never written";
    }
    for (const auto number : written)
      EXPECT_EQ(arrived.count(number), 1u) << "written event " << number << " is lost";
    for (const auto number : torn)
      EXPECT_EQ(arrived.count(number), 0u) << "torn event " << number << " arrived";
    if (!HasFailure()) {
      std::filesystem::remove_all(folder);
      std::filesystem::remove(folder.string() + ".log");
    }
  }
}

}  // namespace
}  // namespace verdalune::sessionreplay
