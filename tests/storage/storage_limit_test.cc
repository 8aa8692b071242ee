#include <gtest/gtest.h>

#include "common/recording_logger.h"
#include "storage/in_memory_storage.h"
#include "storage/storage_coordinator.h"
#include "upload/http_error.h"

namespace verdalune::sessionreplay {
namespace {

// The collector is unreachable: every upload fails at once, and the blocks stay on the device.
class FailingUploader final : public BlockUploader {
 public:
  void upload(std::string, std::int64_t, std::int64_t, EventFetcher, ResponseHandler respond) override {
    respond(UploadFailure(std::make_error_code(std::errc::host_unreachable)));
  }
  void onConnectivityRestored(std::function<void()>) override {}
};

TEST(StorageLimitTest, OfflineBlocksAreCappedByDroppingWholeSessionsOldestFirstButNeverTheOneRecording) {
  auto clock = std::make_shared<ManualClock>();
  auto queue = std::make_shared<ManualQueue>("storage", clock);
  auto storage = InMemoryStorage::make();
  auto logger = std::make_shared<RecordingLogger>();
  auto defaults = std::make_shared<InMemoryDefaultsStore>();
  // Text zlib cannot shrink much, so every block is about a kilobyte.
  std::string noise;
  for (std::uint32_t seed = 7; noise.size() < 1'200;) {
    seed = seed * 1'103'515'245u + 12'345u;
    noise.push_back(static_cast<char>('a' + (seed >> 16) % 26));
  }
  const rrweb::Event event = rrweb::MetaEvent{.timestamp = 1, .href = noise};
  const std::uint64_t block = EventPacker().pack(event).value().size() + 1;
  const std::uint64_t limit = block * 5 / 2;  // two blocks fit, three do not
  auto coordinator = StorageCoordinator<InMemoryStorage>::make(
      storage, std::make_shared<FailingUploader>(), logger, BlockState("key", defaults), queue, limit);
  // Closed sessions 1 and 2 of two blocks each, then four blocks of session 3, which goes on.
  for (const std::int64_t session : {1, 1, 2, 2, 3, 3, 3, 3}) {
    coordinator->write(event, "device", session);
    coordinator->flush();
  }
  queue->runUntilIdle();

  EXPECT_EQ(
      storage->blocks().value(),
      (std::vector<BlockIdentity>{{"device", 3, 1}, {"device", 3, 2}, {"device", 3, 3}, {"device", 3, 4}}))
      << "a session is dropped whole or not at all, and the one being recorded stays even past the cap";
  const std::string dropped = "[StorageCoordinator] Stored blocks exceed " + std::to_string(limit) +
                              " bytes: dropped " + std::to_string(2 * block) +
                              " bytes in 2 blocks of session ";
  auto errors = logger->errors();
  std::erase_if(errors, [](const std::string& line) { return !line.contains("exceed"); });
  EXPECT_EQ(errors, (std::vector<std::string>{dropped + "device/1", dropped + "device/2"}));
}

}  // namespace
}  // namespace verdalune::sessionreplay
