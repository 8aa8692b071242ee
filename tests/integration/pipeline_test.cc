// The whole delivery road: events through a storage coordinator into block files, uploaded by the
// real HTTP client to a real collector, with the app restarted part-way.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <filesystem>

#include "common/recording_logger.h"
#include "integration/collector_process.h"
#include "integration/drive.h"
#include "integration/recorder.h"
#include "rrweb/coding.h"

namespace verdalune::sessionreplay {
namespace {

using testing::Recorder;

rrweb::Event event(int i) {
  rrweb::MutationData mutation;
  mutation.attributes.push_back(rrweb::AttributeMutation{
      .id = 100 + i % 50,
      .attributes = {{"style", rrweb::JSONValue("left: " + std::to_string(i) + "px; top: 3px")}}});
  return rrweb::IncrementalSnapshotEvent{.timestamp = 1700000000000 + i,
                                         .data = rrweb::IncrementalData(mutation)};
}

TEST(Pipeline, EveryEventReachesTheCollectorExactlyOnceAcrossARestart) {
  auto collector = testing::CollectorProcess::start();
  ASSERT_NE(collector, nullptr);
  const auto folder = std::filesystem::temp_directory_path() / ("vdl-pipeline-" + std::to_string(::getpid()));
  std::filesystem::remove_all(folder);
  auto defaults = std::make_shared<InMemoryDefaultsStore>();
  constexpr int kEvents = 3000;

  {
    Recorder first({.apiKey = "test-key", .serverUrl = collector->trackUrl()}, folder, defaults);
    for (int i = 0; i < 1800; ++i) {
      first.coordinator->write(event(i), "device-1", 42);
      if (i % 500 == 499) first.coordinator->flush();
    }
    ASSERT_TRUE(first.settle());
  }  // the app goes away with a block open and uploads perhaps still in flight

  Recorder second({.apiKey = "test-key", .serverUrl = collector->trackUrl()}, folder, defaults);
  for (int i = 1800; i < kEvents; ++i) second.coordinator->write(event(i), "device-1", 42);
  second.coordinator->flush();
  ASSERT_TRUE(second.settle());
  ASSERT_TRUE(testing::waitUntil([&] { return second.storage->blocks().value().empty(); }))
      << "every block is delivered and removed";

  std::vector<std::string> expected;
  EventPacker packer;
  for (int i = 0; i < kEvents; ++i) expected.push_back(packer.encode(VersionedEvent{event(i)}).value());
  EXPECT_EQ(collector->sessionEvents("device-1", 42), expected);
  std::filesystem::remove_all(folder);
}

// A full disk while blocks are written: writes fail with the system's own error and are logged, the app
// goes on, and once there is room again everything written from then on is delivered; what reached the
// collector before and during the fault is a run of whole events, in order, none twice. The file size
// limit of a child process stands for the full disk. Returns the child's exit code: 0 when all holds.
int recordOnAFullDisk(testing::CollectorProcess& collector, const std::filesystem::path& folder) {
  std::signal(SIGXFSZ, SIG_IGN);  // a write past the limit then fails with EFBIG instead
  rlimit limit{};
  ::getrlimit(RLIMIT_FSIZE, &limit);
  const rlimit full{.rlim_cur = 24 * 1024, .rlim_max = limit.rlim_max};
  ::setrlimit(RLIMIT_FSIZE, &full);
  auto logger = std::make_shared<RecordingLogger>();
  Recorder recorder({.apiKey = "test-key", .serverUrl = collector.trackUrl(), .logger = logger}, folder,
                    std::make_shared<InMemoryDefaultsStore>());
  for (int i = 0; i < 600; ++i) recorder.coordinator->write(event(i), "device-1", 7);
  if (!recorder.settle()) return 1;
  ::setrlimit(RLIMIT_FSIZE, &limit);
  for (int i = 600; i < 800; ++i) recorder.coordinator->write(event(i), "device-1", 7);
  recorder.coordinator->flush();
  if (!recorder.settle()) return 1;
  if (!testing::waitUntil([&] { return recorder.storage->blocks().value().empty(); })) return 2;
  const auto errors = logger->errors();
  if (std::ranges::find(errors, "[StorageCoordinator] Could not write to output stream: File too large") ==
      errors.end()) {
    return 3;
  }
  EventPacker packer;
  const auto received = collector.sessionEvents("device-1", 7);
  std::vector<std::string> expected;
  for (int i = 0; i < 800; ++i) expected.push_back(packer.encode(VersionedEvent{event(i)}).value());
  std::size_t next = 0;
  for (const auto& text : received) {
    while (next < expected.size() && expected[next] != text) ++next;
    if (next == expected.size()) return 4;
    ++next;
  }
  if (received.size() < 200 || !std::equal(expected.end() - 200, expected.end(), received.end() - 200))
    return 5;
  return 0;
}

TEST(PipelineDeathTest, AFullDiskLosesOnlyWhatCouldNotBeWritten) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto collector = testing::CollectorProcess::start();
  ASSERT_NE(collector, nullptr);
  const auto folder =
      std::filesystem::temp_directory_path() / ("vdl-full-disk-" + std::to_string(::getpid()));
  // The death test runs this body again in a fresh process, whose folder is named by its own pid: each
  // process removes its own.
  std::filesystem::remove_all(folder);
  EXPECT_EXIT(
      {
        const int status = recordOnAFullDisk(*collector, folder);
        std::filesystem::remove_all(folder);
        std::exit(status);
      },
      ::testing::ExitedWithCode(0), "");
  std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace verdalune::sessionreplay
