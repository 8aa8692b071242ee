#include "storage/storage_coordinator.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>

#include "common/recording_logger.h"
#include "rrweb/coding.h"
#include "storage/in_memory_storage.h"
#include "storage/persistent_storage.h"

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

// The in-memory store, whose streams fail to close while `failClose` is set, as a sync fails on a full disk.
struct FaultyStorage {
  using Block = InMemoryStorage::Block;
  struct OutputStream {
    InMemoryStorage::OutputStream stream;
    std::shared_ptr<bool> failClose;
    StorageResult<void> write(std::span<const std::uint8_t> bytes) const { return stream.write(bytes); }
    StorageResult<void> close() const {
      if (*failClose) return std::unexpected(std::make_error_code(std::errc::io_error));
      return stream.close();
    }
  };
  auto blocks() const { return memory->blocks(); }
  auto identity(const Block& block) const { return memory->identity(block); }
  auto create(const BlockIdentity& identity) const { return memory->create(identity); }
  StorageResult<OutputStream> openOutputStream(const Block& block) const {
    auto stream = memory->openOutputStream(block);
    if (!stream) return std::unexpected(stream.error());
    return OutputStream{std::move(*stream), failClose};
  }
  auto read(const Block& block) const { return memory->read(block); }
  auto size(const Block& block) const { return memory->size(block); }
  auto remove(const Block& block) const { return memory->remove(block); }
  std::string describe(const Block& block) const { return memory->describe(block); }

  std::shared_ptr<InMemoryStorage> memory;
  std::shared_ptr<bool> failClose = std::make_shared<bool>(false);
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
    coordinator_ = StorageCoordinator<FaultyStorage>::make(faulty_, uploader_, logger_,
                                                           BlockState("key", defaults_), queue_);
    queue_->runUntilIdle();
  }

  std::shared_ptr<ManualClock> clock_ = std::make_shared<ManualClock>();
  std::shared_ptr<ManualQueue> queue_ = std::make_shared<ManualQueue>("storage", clock_);
  std::shared_ptr<InMemoryStorage> storage_ = InMemoryStorage::make();
  std::shared_ptr<FaultyStorage> faulty_ = std::make_shared<FaultyStorage>(storage_);
  std::shared_ptr<RecordingUploader> uploader_ = std::make_shared<RecordingUploader>();
  std::shared_ptr<RecordingLogger> logger_ = std::make_shared<RecordingLogger>();
  std::shared_ptr<InMemoryDefaultsStore> defaults_ = std::make_shared<InMemoryDefaultsStore>();
  std::shared_ptr<StorageCoordinator<FaultyStorage>> coordinator_;
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

TEST_F(StorageCoordinatorTest, FailedBlocksGoAgainWhenTheNetworkReturnsButRefusedOnesWaitForARestart) {
  // Session i's block fails with failures[i]: the collector could not be reached, or refused the block.
  const HttpError failures[] = {HttpError::requestFailed, HttpError::payloadTooLarge,
                                HttpError::invalidRequest};
  for (std::int64_t session = 0; session < 3; ++session)
    coordinator_->write(metaEvent(session), "device", session);
  coordinator_->flush();
  queue_->runUntilIdle();
  std::size_t answered = 0;
  const auto networkReturns = [&] {
    for (const auto& restored : uploader_->restoredHandlers) restored();
    queue_->runUntilIdle();
  };
  const auto answerAll = [&] {
    for (; answered < uploader_->uploads.size(); ++answered) {
      const auto& upload = uploader_->uploads[answered];
      upload.respond(failures[upload.identity.sessionId]);
    }
    queue_->runUntilIdle();
  };
  const auto uploadsOf = [&](std::int64_t session) {
    return std::ranges::count(uploader_->identities(), session, &BlockIdentity::sessionId);
  };

  networkReturns();
  EXPECT_EQ(uploader_->uploads.size(), 3u) << "a block is never in two uploads at once";
  answerAll();
  EXPECT_EQ(logger_->errors()[0], "[StorageCoordinator] Failed to upload block device/0/1: requestFailed");
  EXPECT_EQ(storage_->events().size(), 3u) << "failed blocks stay";
  for (int i = 0; i < 2; ++i) {
    networkReturns();
    answerAll();
  }
  EXPECT_EQ(std::vector({uploadsOf(0), uploadsOf(1), uploadsOf(2)}), std::vector<std::ptrdiff_t>({3, 1, 1}));
  start();
  EXPECT_EQ(std::vector({uploadsOf(0), uploadsOf(1), uploadsOf(2)}), std::vector<std::ptrdiff_t>({4, 2, 2}));
}

TEST_F(StorageCoordinatorTest, ASessionThatComesBackWhileItsBlockIsUploadingGoesOnInANewBlock) {
  coordinator_->write(metaEvent(1), "a", 1);
  coordinator_->write(metaEvent(2), "b", 1);  // block 1 of a goes to the uploader
  coordinator_->write(metaEvent(3), "a", 1);
  coordinator_->flush();
  queue_->runUntilIdle();
  EXPECT_EQ(uploader_->identities(), (std::vector<BlockIdentity>{{"a", 1, 1}, {"b", 1, 1}, {"a", 1, 2}}));
  uploader_->uploads[0].respond(std::nullopt);
  queue_->runUntilIdle();
  EXPECT_EQ(packedEventsFromBlock(storage_->read({"a", 1, 2}).value_or("")).size(), 1u)
      << "delivering block 1 took nothing newer with it";

  // Once delivered, a number is still used: the collector keeps the first block it gets under a name.
  for (std::size_t i = 1; i < uploader_->uploads.size(); ++i) uploader_->uploads[i].respond(std::nullopt);
  coordinator_->write(metaEvent(4), "b", 1);
  coordinator_->write(metaEvent(5), "a", 1);
  coordinator_->flush();
  queue_->runUntilIdle();
  EXPECT_EQ(uploader_->identities(),
            (std::vector<BlockIdentity>{{"a", 1, 1}, {"b", 1, 1}, {"a", 1, 2}, {"b", 1, 2}, {"a", 1, 3}}));
}

TEST_F(StorageCoordinatorTest, AfterAFailedCloseTheNextEventOpensANewBlockAndTheOldOneIsKept) {
  coordinator_->write(metaEvent(1), "device", 1);
  queue_->runUntilIdle();
  *faulty_->failClose = true;
  coordinator_->write(metaEvent(2), "device", 2);  // closing session 1's block fails
  queue_->runUntilIdle();
  *faulty_->failClose = false;
  coordinator_->write(metaEvent(3), "device", 2);
  coordinator_->flush();
  queue_->runUntilIdle();

  EXPECT_EQ(logger_->errors().at(0),
            "[StorageCoordinator] Could not close active output stream: Input/output error");
  EXPECT_EQ(uploader_->identities(), (std::vector<BlockIdentity>{{"device", 1, 1}, {"device", 2, 1}}));
  EXPECT_EQ(packedEventsFromBlock(storage_->read({"device", 1, 1}).value_or("")).size(), 1u);
  EXPECT_EQ(packedEventsFromBlock(storage_->read({"device", 2, 1}).value_or("")).size(), 2u);
}

TEST_F(StorageCoordinatorTest, AnEventThatCannotBePackedIsLoggedAndWritesNothing) {
  coordinator_->write(rrweb::MetaEvent{.timestamp = 1, .width = std::nan("")}, "device", 1);
  queue_->runUntilIdle();
  EXPECT_EQ(logger_->errors(), std::vector<std::string>{"[StorageCoordinator] Unable to pack event"});
  EXPECT_TRUE(storage_->events().empty());
  const std::error_code error = make_error_code(StorageCoordinatorError::couldNotPackEvent);
  EXPECT_NE(error.value(), 0);
  EXPECT_EQ(error.message(), "could not pack the event");
}

// Files left in the blocks folder by earlier runs: blocks are offered in order, and a file whose name is
// no block's is removed with its log line.
TEST_F(StorageCoordinatorTest, StoredBlocksAreOfferedInOrderAndUnreadableOnesRemoved) {
  const auto root =
      std::filesystem::temp_directory_path() / ("vdl-coordinator-" + std::to_string(::getpid()));
  std::filesystem::remove_all(root);
  auto files = std::make_shared<PersistentStorage>("key", root);
  for (const BlockIdentity& identity :
       {BlockIdentity{"b", 1, 2}, BlockIdentity{"a", 9, 1}, BlockIdentity{"b", 1, 1}}) {
    ASSERT_TRUE(files->openOutputStream(files->create(identity).value()).value().close());
  }
  std::ofstream(files->folder() / "notes.txt") << "not a block";

  auto coordinator = StorageCoordinator<PersistentStorage>::make(files, uploader_, logger_,
                                                                 BlockState("key", defaults_), queue_);
  queue_->runUntilIdle();
  EXPECT_EQ(uploader_->identities(), (std::vector<BlockIdentity>{{"a", 9, 1}, {"b", 1, 1}, {"b", 1, 2}}));
  EXPECT_FALSE(std::filesystem::exists(files->folder() / "notes.txt"));
  EXPECT_EQ(
      logger_->errors(),
      std::vector<std::string>{"[StorageCoordinator] Unable to retrieve info for block notes.txt, removing"});
  coordinator.reset();
  std::filesystem::remove_all(root);
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

// Letters that zlib cannot shrink much.
std::string noise(std::size_t length, std::uint32_t seed) {
  std::string text;
  for (std::uint32_t state = seed; text.size() < length;) {
    state = state * 1664525u + 1013904223u;
    text.push_back(static_cast<char>('a' + (state >> 24) % 26));
  }
  return text;
}

// A meta event whose record (packed, with its line feed) is exactly `size` bytes: its href is noise of
// a length searched for (the record grows with it, if not by one byte each time), under seeds tried in turn.
rrweb::Event eventOfRecordSize(std::size_t size) {
  auto recordOf = [](const rrweb::Event& event) { return EventPacker().pack(event).value().size() + 1; };
  for (std::uint32_t seed = 1;; ++seed) {
    std::size_t shortest = 0, longest = size;  // the first length whose record is at least `size`
    while (shortest < longest) {
      const std::size_t middle = (shortest + longest) / 2;
      if (recordOf(metaEvent(1, noise(middle, seed))) < size) {
        shortest = middle + 1;
      } else {
        longest = middle;
      }
    }
    const rrweb::Event event = metaEvent(1, noise(shortest, seed));
    if (recordOf(event) == size) return event;
  }
}

// An event that brings the block to exactly 8,000,000 bytes goes in; one byte more opens a new block.
TEST_F(StorageCoordinatorTest, ABlockHoldsEightMillionBytesAndNotOneMore) {
  const rrweb::Event filler = metaEvent(1, noise(10'000, 7));  // few records, as fast under sanitizers
  const std::size_t fillerSize = EventPacker().pack(filler).value().size() + 1;
  const std::size_t limit = StorageCoordinator<InMemoryStorage>::kMaxBlockBytes;
  const std::size_t fillers = (limit - 2000) / fillerSize;
  const std::size_t rest = limit - fillers * fillerSize;
  for (const std::int64_t session : {1, 2}) {
    for (std::size_t i = 0; i < fillers; ++i) coordinator_->write(filler, "device", session);
    coordinator_->write(eventOfRecordSize(session == 1 ? rest : rest + 1), "device", session);
  }
  coordinator_->flush();
  queue_->runUntilIdle();

  EXPECT_EQ(storage_->size({"device", 1, 1}).value(), limit);
  EXPECT_EQ(uploader_->identities(),
            (std::vector<BlockIdentity>{{"device", 1, 1}, {"device", 2, 1}, {"device", 2, 2}}));
  EXPECT_EQ(storage_->size({"device", 2, 2}).value(), rest + 1);
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
