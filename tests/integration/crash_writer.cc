// vdl_crash_writer FOLDER DEVICE SESSION FIRST COUNT [SERVER_URL]
//
// An app that records events numbered FIRST..FIRST+COUNT-1 into block files under FOLDER, as the library
// does: through a storage coordinator on its own queue, uploading closed blocks to SERVER_URL (an
// unreachable address when absent). Block numbering lives in FOLDER/block-state.json, so a restart over the
// same folder continues it. It is meant to be killed at any moment.
//
// After each event it prints "written <n>" once the record has been appended to its block file: from then
// on the event is the library's to deliver, whatever happens to this process. It sleeps a little between
// events and now and then flushes, so blocks close and open while it runs.
//
// Once every event is written (at once with COUNT 0, which only delivers what earlier runs left) it flushes
// and waits for the folder to empty: exit 0 when it did, 3 when blocks are still there after a few seconds.
#include <sys/prctl.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include "integration/recorder.h"

namespace vsr = verdalune::sessionreplay;

namespace {

// Nothing is listening on the discard port of the loopback: every upload fails to connect.
constexpr const char* kUnreachableUrl = "http://127.0.0.1:9/sessions/v2/track";

vsr::rrweb::Event numberedEvent(std::int64_t number) {
  return vsr::rrweb::CustomEvent{.timestamp = 1'700'000'000'000 + number,
                                 .tag = "crash-writer",
                                 .payload = vsr::rrweb::JSONValue("event-" + std::to_string(number))};
}

bool parseInteger(const char* text, std::int64_t& value) {
  char* end = nullptr;
  value = std::strtoll(text, &end, 10);
  return *text != '\0' && *end == '\0';
}

}  // namespace

int main(int argc, char** argv) {
  std::int64_t sessionId = 0, first = 0, count = 0;
  if ((argc != 6 && argc != 7) || !parseInteger(argv[3], sessionId) || !parseInteger(argv[4], first) ||
      !parseInteger(argv[5], count) || count < 0) {
    std::fprintf(stderr, "usage: vdl_crash_writer FOLDER DEVICE SESSION FIRST COUNT [SERVER_URL]\n");
    return 2;
  }
  // A test that dies takes its writer with it.
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  const std::filesystem::path folder = argv[1];
  const std::string deviceId = argv[2];
  const std::string serverUrl = argc == 7 ? argv[6] : kUnreachableUrl;

  std::filesystem::create_directories(folder);
  auto opened = vsr::JsonFileDefaultsStore::open(folder / "block-state.json");
  if (!opened) {
    std::fprintf(stderr, "cannot open the block state: %s\n", opened.error().message().c_str());
    return 2;
  }
  vsr::testing::Recorder recorder({.apiKey = "test-key",
                                   .serverUrl = serverUrl,
                                   .retryTimeInterval = std::chrono::milliseconds(20),
                                   .requestTimeout = std::chrono::milliseconds(1000)},
                                  folder, std::move(opened->store));
  const auto& coordinator = recorder.coordinator;
  const auto& storage = recorder.storage;

  std::mt19937 random(static_cast<std::uint32_t>(first * 7919 + sessionId));
  for (std::int64_t number = first; number < first + count; ++number) {
    coordinator->write(numberedEvent(number), deviceId, sessionId);
    if (!recorder.settle()) return 4;  // the record is in its block file now
    std::printf("written %lld\n", static_cast<long long>(number));
    std::fflush(stdout);
    if (random() % 16 == 0) coordinator->flush();
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 1500));
  }
  coordinator->flush();
  if (!recorder.settle()) return 4;

  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  const auto folderIsEmpty = [&] {
    const auto blocks = storage->blocks();
    return blocks && blocks->empty();
  };
  bool empty = folderIsEmpty();
  while (!empty && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    empty = folderIsEmpty();
  }
  std::fflush(stdout);
  std::fflush(stderr);
  // Uploads may still be under way on other threads; the process ends as an app would, without waiting.
  std::_Exit(empty ? 0 : 3);
}
