#include "storage/storage_coordinator.h"

#include <gtest/gtest.h>

#include "common/recording_logger.h"
#include "rrweb/coding.h"
#include "storage/in_memory_storage.h"

namespace verdalune::sessionreplay {
namespace {

using namespace std::chrono_literals;

// Records every block handed over; the test answers them when it likes.
class RecordingUploader final : public BlockUploader {
 public:
  struct Upload {
    BlockIdentity identity;
    EventFetcher fetch;
    ResponseHandler respond;
  };
  void upload(std::string deviceId, std::int64_t sessionId, std::int64_t sequenceNumber,
              EventFetcher eventFetcher, ResponseHandler responseHandler) override {
    uploads.push_back({{std::move(deviceId), sessionId, sequenceNumber},
                       std::move(eventFetcher),
                       std::move(responseHandler)});
  }
  void onConnectivityRestored(std::function<void()> restored) override {
    restoredHandlers.push_back(restored);
  }

  std::vector<BlockIdentity> identities() const {
    std::vector<BlockIdentity> result;
    for (const auto& upload : uploads) result.push_back(upload.identity);
    return result;
  }
  std::vector<Upload> uploads;
  std::vector<std::function<void()>> restoredHandlers;
};

rrweb::Event metaEvent(std::int64_t timestamp, std::string href = "https://example.com") {
  return rrweb::MetaEvent{.timestamp = timestamp, .href = std::move(href), .width = 390, .height = 844};
}

class StorageCoordinatorTest : public testing::Test {
 protected:
  void SetUp() override { start(); }

  // A coordinator over the same store and defaults, as after a restart of the app.
  void start() {
    coordinator_.reset();
    coordinator_ = StorageCoordinator<InMemoryStorage>::make(storage_, uploader_, logger_,
                                                             BlockState("key", defaults_), queue_);
    queue_->runUntilIdle();
  }

  std::shared_ptr<ManualClock> clock_ = std::make_shared<ManualClock>();
  std::shared_ptr<ManualQueue> queue_ = std::make_shared<ManualQueue>("storage", clock_);
  std::shared_ptr<InMemoryStorage> storage_ = InMemoryStorage::make();
  std::shared_ptr<RecordingUploader> uploader_ = std::make_shared<RecordingUploader>();
  std::shared_ptr<RecordingLogger> logger_ = std::make_shared<RecordingLogger>();
  std::shared_ptr<InMemoryDefaultsStore> defaults_ = std::make_shared<InMemoryDefaultsStore>();
  std::shared_ptr<StorageCoordinator<InMemoryStorage>> coordinator_;
};

TEST_F(StorageCoordinatorTest, ABlockClosesOnFlushAndIsRemovedOnceDelivered) {
  for (int i = 0; i < 3; ++i) coordinator_->write(metaEvent(i), "device", 7);
  coordinator_->flush();
  queue_->runUntilIdle();

  ASSERT_EQ(uploader_->identities(), (std::vector<BlockIdentity>{{"device", 7, 1}}));
  const auto events = uploader_->uploads[0].fetch();
  ASSERT_TRUE(events.has_value());
  ASSERT_EQ(events->size(), 3u);
  EXPECT_EQ(rrweb::decodeEvent(unpackEvent((*events)[2]).value()).value(), metaEvent(2));

  uploader_->uploads[0].respond(std::nullopt);
  queue_->runUntilIdle();
  EXPECT_TRUE(storage_->events().empty());
  EXPECT_EQ(logger_->logs().back(), "[StorageCoordinator] Successfully uploaded block device/7/1");
}

TEST_F(StorageCoordinatorTest, NumberingRestartsForANewSessionAndSurvivesARestart) {
  coordinator_->write(metaEvent(1), "device", 1);
  coordinator_->flush();
  coordinator_->write(metaEvent(2), "device", 1);
  coordinator_->write(metaEvent(3), "device", 2);  // a new session closes block 2 of session 1
  queue_->runUntilIdle();
  start();  // the app restarts while block 1 of session 2 is open
  coordinator_->write(metaEvent(4), "device", 2);
  coordinator_->flush();
  queue_->runUntilIdle();

  EXPECT_EQ(uploader_->identities(), (std::vector<BlockIdentity>{
                                         {"device", 1, 1},
                                         {"device", 1, 2},  // closed while running
                                         // At the restart, every stored block in order: the two whose
                                         // uploads died with the old process, and the open one.
                                         {"device", 1, 1},
                                         {"device", 1, 2},
                                         {"device", 2, 1},
                                         {"device", 2, 2},  // numbering went on
                                     }));
}

TEST_F(StorageCoordinatorTest, ABlockIsNeverInTwoUploadsAtOnce) {
  coordinator_->write(metaEvent(1), "device", 1);
  coordinator_->flush();
  queue_->runUntilIdle();
  coordinator_->uploadStoredBlocks();
  for (const auto& restored : uploader_->restoredHandlers) restored();
  queue_->runUntilIdle();
  ASSERT_EQ(uploader_->uploads.size(), 1u);

  uploader_->uploads[0].respond(HttpError::requestFailed);
  queue_->runUntilIdle();
  EXPECT_EQ(logger_->errors().back(),
            "[StorageCoordinator] Failed to upload block device/1/1: requestFailed");
  ASSERT_EQ(storage_->events().size(), 1u) << "a failed block stays";
  for (const auto& restored : uploader_->restoredHandlers) restored();
  queue_->runUntilIdle();
  EXPECT_EQ(uploader_->uploads.size(), 2u) << "and is offered again when the network returns";
}

TEST_F(StorageCoordinatorTest, StoredBlocksAreOfferedInOrderAndUnreadableOnesRemoved) {
  // Left by earlier runs, in no particular order.
  for (const BlockIdentity& identity :
       {BlockIdentity{"b", 1, 2}, BlockIdentity{"a", 9, 1}, BlockIdentity{"b", 1, 1}}) {
    (void)storage_->create(identity);
  }
  start();
  EXPECT_EQ(uploader_->identities(), (std::vector<BlockIdentity>{{"a", 9, 1}, {"b", 1, 1}, {"b", 1, 2}}));
}

TEST_F(StorageCoordinatorTest, ABlockClosesSixtySecondsAfterItOpened) {
  coordinator_->write(metaEvent(1), "device", 1);
  queue_->runUntilIdle();
  queue_->advance(59s);
  coordinator_->write(metaEvent(2), "device", 1);
  queue_->advance(999ms);
  EXPECT_TRUE(uploader_->uploads.empty());
  queue_->advance(1ms);
  ASSERT_EQ(uploader_->uploads.size(), 1u);
  EXPECT_EQ(uploader_->uploads[0].fetch()->size(), 2u);

  coordinator_->write(metaEvent(3), "device", 1);
  coordinator_->flush();
  queue_->advance(120s);
  EXPECT_EQ(uploader_->uploads.size(), 2u) << "a flushed block's timer is cancelled";
}

TEST_F(StorageCoordinatorTest, ABlockHoldsAsManyRecordsAsFitInEightMillionBytes) {
  const rrweb::Event event = metaEvent(1);
  const std::size_t recordSize = EventPacker().pack(event).value().size() + 1;
  const std::size_t fit = StorageCoordinator<InMemoryStorage>::kMaxBlockBytes / recordSize;
  for (std::size_t i = 0; i <= fit; ++i) coordinator_->write(event, "device", 1);
  queue_->runUntilIdle();

  ASSERT_EQ(uploader_->identities(), (std::vector<BlockIdentity>{{"device", 1, 1}}));
  EXPECT_EQ(storage_->read({"device", 1, 1}).value().size(), fit * recordSize);
  EXPECT_EQ(storage_->read({"device", 1, 2}).value().size(), recordSize);
}

TEST_F(StorageCoordinatorTest, ARecordLargerThanABlockIsWrittenAloneInAFreshOne) {
  std::string noise;
  std::uint32_t state = 1;
  for (int i = 0; i < 9'000'000; ++i) {
    state = state * 1664525u + 1013904223u;
    noise.push_back(static_cast<char>('!' + (state >> 24) % 90));
  }
  coordinator_->write(metaEvent(1), "device", 1);
  coordinator_->write(rrweb::CustomEvent{.timestamp = 2, .tag = "big", .payload = rrweb::JSONValue(noise)},
                      "device", 1);
  coordinator_->write(metaEvent(3), "device", 1);
  queue_->runUntilIdle();

  EXPECT_EQ(uploader_->identities(), (std::vector<BlockIdentity>{{"device", 1, 1}, {"device", 1, 2}}));
  EXPECT_GT(storage_->read({"device", 1, 2}).value().size(),
            StorageCoordinator<InMemoryStorage>::kMaxBlockBytes);
  EXPECT_EQ(packedEventsFromBlock(storage_->read({"device", 1, 2}).value()).size(), 1u);
}

}  // namespace
}  // namespace verdalune::sessionreplay
