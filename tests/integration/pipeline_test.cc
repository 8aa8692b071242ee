// The whole delivery road: events through a storage coordinator into block files, uploaded by the
// real HTTP client to a real collector, with the app restarted part-way.
#include <gtest/gtest.h>

#include <filesystem>

#include "integration/collector_process.h"
#include "integration/drive.h"
#include "rrweb/coding.h"
#include "storage/persistent_storage.h"
#include "storage/storage_coordinator.h"
#include "upload/curl_transport.h"
#include "upload/path_monitor.h"

namespace verdalune::sessionreplay {
namespace {

class SilentLogger final : public Logger {
 public:
  void error(std::string_view message) override {
    std::fprintf(stderr, "%.*s\n", int(message.size()), message.data());
  }
  void warn(std::string_view) override {}
  void log(std::string_view) override {}
  void debug(std::string_view) override {}
};

// One run of the app: its queues, upload client and coordinator over the shared folder and defaults.
struct Recorder {
  Recorder(const std::string& trackUrl, const std::filesystem::path& folder,
           std::shared_ptr<DefaultsStore> defaults) {
    auto logger = std::make_shared<SilentLogger>();
    uploadClient = UploadClient::make({.apiKey = "test-key", .serverUrl = trackUrl, .logger = logger},
                                      CurlTransport::create().value(), std::make_shared<ManualPathMonitor>(),
                                      std::make_shared<SerialQueue>("com.verdalune.sessionreplay.upload"));
    storage = std::make_shared<PersistentStorage>("test-key", folder);
    coordinator = StorageCoordinator<PersistentStorage>::make(
        storage, uploadClient, logger, BlockState("test-key", std::move(defaults)), storageQueue);
  }

  // Waits until every write queued so far has reached its block file.
  void settle() {
    std::atomic<bool> done = false;
    storageQueue->async([&] { done = true; });
    ASSERT_TRUE(testing::waitUntil([&] { return done.load(); }));
  }

  std::shared_ptr<SerialQueue> storageQueue =
      std::make_shared<SerialQueue>("com.verdalune.sessionreplay.storage");
  std::shared_ptr<UploadClient> uploadClient;
  std::shared_ptr<PersistentStorage> storage;
  std::shared_ptr<StorageCoordinator<PersistentStorage>> coordinator;
};

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
    Recorder first(collector->trackUrl(), folder, defaults);
    for (int i = 0; i < 1800; ++i) {
      first.coordinator->write(event(i), "device-1", 42);
      if (i % 500 == 499) first.coordinator->flush();
    }
    first.settle();
  }  // the app goes away with a block open and uploads perhaps still in flight

  Recorder second(collector->trackUrl(), folder, defaults);
  for (int i = 1800; i < kEvents; ++i) second.coordinator->write(event(i), "device-1", 42);
  second.coordinator->flush();
  second.settle();
  ASSERT_TRUE(testing::waitUntil([&] { return second.storage->blocks().value().empty(); }))
      << "every block is delivered and removed";

  std::vector<std::string> expected;
  EventPacker packer;
  for (int i = 0; i < kEvents; ++i) expected.push_back(packer.encode(VersionedEvent{event(i)}).value());
  EXPECT_EQ(collector->sessionEvents("device-1", 42), expected);
  std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace verdalune::sessionreplay
