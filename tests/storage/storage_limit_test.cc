#include <gtest/gtest.h>

#include <set>

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

TEST(StorageLimitTest, OfflineBlocksAreCappedByDroppingTheOldestSessionsFirst) {
  auto clock = std::make_shared<ManualClock>();
  auto queue = std::make_shared<ManualQueue>("storage", clock);
  auto storage = InMemoryStorage::make();
  auto logger = std::make_shared<RecordingLogger>();
  auto defaults = std::make_shared<InMemoryDefaultsStore>();
  constexpr std::uint64_t kLimit = 3'000;
  auto coordinator = StorageCoordinator<InMemoryStorage>::make(
      storage, std::make_shared<FailingUploader>(), logger, BlockState("key", defaults), queue, kLimit);
  // Text zlib cannot shrink much, so every block is about a kilobyte.
  std::string noise;
  for (std::uint32_t seed = 7; noise.size() < 1'200;) {
    seed = seed * 1'103'515'245u + 12'345u;
    noise.push_back(static_cast<char>('a' + (seed >> 16) % 26));
  }
  const rrweb::Event event = rrweb::MetaEvent{.timestamp = 1, .href = noise};
  // Sessions 1 to 4, two blocks each, oldest first.
  for (std::int64_t session = 1; session <= 4; ++session) {
    for (int block = 0; block < 2; ++block) {
      coordinator->write(event, "device", session);
      coordinator->flush();
    }
  }
  coordinator->write(event, "device", 5);
  queue->runUntilIdle();

  std::uint64_t total = 0;
  std::set<std::int64_t> sessions;
  const auto blocks = storage->blocks().value();
  for (const auto& block : blocks) {
    total += storage->size(block).value();
    if (block.sessionId != 5) sessions.insert(block.sessionId);
  }
  EXPECT_LE(total, kLimit + storage->size(BlockIdentity{"device", 5, 1}).value()) << "the open block aside";
  ASSERT_FALSE(sessions.empty());
  EXPECT_EQ(*sessions.begin(), *sessions.rbegin())
      << "only the newest closed session is left, whole or in part";
  EXPECT_EQ(*sessions.begin(), 4);
  bool logged = false;
  for (const auto& line : logger->errors()) {
    logged |= line.starts_with("[StorageCoordinator] Stored blocks exceed 3000 bytes: dropped ") &&
              line.ends_with(" block of session device/1");
  }
  EXPECT_TRUE(logged);
}

}  // namespace
}  // namespace verdalune::sessionreplay
