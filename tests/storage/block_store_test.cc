#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <limits>

#include "storage/in_memory_storage.h"
#include "storage/persistent_storage.h"

namespace verdalune::sessionreplay {
namespace {

namespace fs = std::filesystem;

std::span<const std::uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

unsigned permissions(const fs::path& path) {
  struct stat status {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 0777;
}

class PersistentStorageTest : public testing::Test {
 protected:
  void SetUp() override {
    root_ = fs::temp_directory_path() / ("vdl-storage-" + std::to_string(::getpid()) + "-" +
                                         testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(root_);
  }
  void TearDown() override { fs::remove_all(root_); }

  fs::path root_;
};

TEST_F(PersistentStorageTest, BlocksAreFilesNamedByIdentityInPrivateFolders) {
  PersistentStorage storage("api-key", root_ / "Application Support");
  const auto block = storage.create({"device-1", 1700000000000, 3});
  ASSERT_TRUE(block.has_value());
  EXPECT_EQ(
      *block,
      root_ / "Application Support/com.verdalune.sessionreplay/api-key/device-1_1700000000000_3.replay");
  EXPECT_EQ(storage.describe(*block), "device-1_1700000000000_3.replay");

  auto stream = storage.openOutputStream(*block);
  ASSERT_TRUE(stream.has_value());
  ASSERT_TRUE(stream->write(bytesOf("\"a\"\n")).has_value());
  ASSERT_TRUE(stream->write(bytesOf("\"b\"\n")).has_value());
  ASSERT_TRUE(stream->close().has_value());

  EXPECT_EQ(permissions(*block), 0600u);
  EXPECT_EQ(permissions(storage.folder()), 0700u);
  EXPECT_EQ(permissions(storage.folder().parent_path()), 0700u);
  EXPECT_EQ(storage.read(*block).value(), "\"a\"\n\"b\"\n");
  EXPECT_EQ(storage.identity(*block).value(), (BlockIdentity{"device-1", 1700000000000, 3}));
}

TEST_F(PersistentStorageTest, ReopeningABlockAppendsToIt) {
  PersistentStorage storage("key", root_);
  const auto block = storage.create({"d", 1, 1}).value();
  for (std::string_view record : {"\"1\"\n", "\"2\"\n"}) {
    auto stream = storage.openOutputStream(block).value();
    ASSERT_TRUE(stream.write(bytesOf(record)).has_value());
  }  // the destructor closes
  EXPECT_EQ(packedEventsFromBlock(storage.read(block).value()), (std::vector<std::string>{"\"1\"", "\"2\""}));
}

TEST_F(PersistentStorageTest, ListsEveryFileAndRemovesThem) {
  PersistentStorage storage("key", root_);
  EXPECT_TRUE(storage.blocks().value().empty()) << "no folder yet is no blocks";
  for (std::int64_t sequence : {2, 1}) {
    auto block = storage.create({"d", 5, sequence}).value();
    ASSERT_TRUE(storage.openOutputStream(block).value().close().has_value());
  }
  std::ofstream(storage.folder() / "stray.txt") << "x";

  const auto blocks = storage.blocks().value();
  ASSERT_EQ(blocks.size(), 3u);
  EXPECT_EQ(storage.identity(blocks[0]).value().sequenceNumber, 1);
  EXPECT_EQ(storage.identity(blocks[2]).error(), make_error_code(StorageError::unreadableName));

  for (const auto& block : blocks) EXPECT_TRUE(storage.remove(block).has_value());
  EXPECT_TRUE(storage.blocks().value().empty());
  EXPECT_EQ(storage.remove(blocks[0]).error(), std::errc::no_such_file_or_directory);
  EXPECT_EQ(storage.read(blocks[0]).error(), std::errc::no_such_file_or_directory);
}

TEST_F(PersistentStorageTest, AnyDeviceIdOrApiKeyNamesABlockInsideTheKeysFolderAndReadsBack) {
  const fs::path library = root_ / "com.verdalune.sessionreplay";
  const char* keys[] = {"key", ".", "..", "../escape", "a/b"};
  const char* devices[] = {"../../x", "user/42", "..", ".", "a_b_1", "two words", "gr\xc3\xbc\xc3\x9f",
                           "50%",     "a%41"};
  for (const char* key : keys) {
    PersistentStorage storage(key, root_);
    EXPECT_EQ(storage.folder().parent_path(), library) << key;
    for (std::int64_t sequence = 1; const char* device : devices) {
      const auto block = storage.create({device, -3, sequence++});
      ASSERT_TRUE(block.has_value()) << key << " " << device;
      ASSERT_TRUE(storage.openOutputStream(*block).value().close().has_value()) << key << " " << device;
    }
    std::vector<BlockIdentity> listed;
    const auto blocks = storage.blocks().value();
    for (const auto& block : blocks) listed.push_back(storage.identity(block).value());
    std::ranges::sort(listed, {}, &BlockIdentity::sequenceNumber);
    ASSERT_EQ(listed.size(), std::size(devices)) << key;
    for (std::size_t i = 0; i < listed.size(); ++i) {
      EXPECT_EQ(listed[i], (BlockIdentity{devices[i], -3, static_cast<std::int64_t>(i) + 1}));
    }
  }
  EXPECT_EQ(std::distance(fs::directory_iterator(library), fs::directory_iterator()), std::ssize(keys));
  EXPECT_EQ(std::distance(fs::recursive_directory_iterator(root_), fs::recursive_directory_iterator()),
            1 + std::ssize(keys) * (1 + std::ssize(devices)))
      << "nothing outside the keys' folders";
  EXPECT_EQ(PersistentStorage("", root_).create({"d", 1, 1}).error(),
            make_error_code(StorageError::invalidFolderName));
}

TEST_F(PersistentStorageTest, AKeysFolderFromBeforeNamesWereEncodedIsStillUsed) {
  fs::create_directories(root_ / "com.verdalune.sessionreplay" / "k+y=");
  std::ofstream(root_ / "com.verdalune.sessionreplay" / "k+y=" / "d_1_1.replay") << "\"a\"\n";
  EXPECT_EQ(PersistentStorage("k+y=", root_).blocks().value().size(), 1u);
}

TEST(BlockFileNames, ParseBackToTheirIdentityAndNothingElseParses) {
  const BlockIdentity identities[] = {
      {"ABC-123", 1700000000000, 1},
      {"device_with_underscores", -5, 42},
      {"d", 0, std::numeric_limits<std::int64_t>::max()},
  };
  for (const auto& identity : identities) {
    EXPECT_EQ(parseBlockFileName(blockFileName(identity)).value(), identity) << blockFileName(identity);
  }
  EXPECT_EQ(blockFileName({"../u/42", 1, 2}), "..%2Fu%2F42_1_2.replay");
  // Names from before device ids were encoded read as they always did.
  for (const char* device : {"device_with_underscores", "two words", "a%41", "100%", "caf\xc3\xa9"}) {
    const std::string name = std::string(device) + "_1_2.replay";
    EXPECT_EQ(parseBlockFileName(name).value(), (BlockIdentity{device, 1, 2})) << name;
  }
  // Without three parsable parts a name is unreadable.
  for (const char* name : {"d_1.replay", "d_1_2", "d_1_2.txt", "_1_2.replay", "d_x_2.replay", "d_1_2x.replay",
                           "d_1_.replay", "d__2.replay", "d_1_99999999999999999999.replay", "replay"}) {
    EXPECT_EQ(parseBlockFileName(name).error(), make_error_code(StorageError::unreadableName)) << name;
  }
}

TEST(BlockReading, KeepsWholeRecordsInOrderAndSkipsTornOrBrokenOnes) {
  const std::string bytes =
      "\"first\"\n"
      "\n"                        // empty record
      "\"caf\xc3\xa9 \\\" x\"\n"  // UTF-8 and an escaped quote inside
      "\"bad \xff utf8\"\n"       // not UTF-8
      "\"half\"\"of\"\n"          // two literals run together: a torn write followed by a new one
      "\"last\"\n"
      "\"torn by a cra";  // no line feed: the process died mid-write
  EXPECT_EQ(packedEventsFromBlock(bytes),
            (std::vector<std::string>{"\"first\"", "\"caf\xc3\xa9 \\\" x\"", "\"last\""}));
  EXPECT_TRUE(packedEventsFromBlock("").empty());
  EXPECT_TRUE(packedEventsFromBlock("\"x\\\"\n").empty()) << "closing quote escaped";
}

// The coordinator tests run on this store and cover its happy path; here, what they never meet.
TEST(InMemoryStorage, MissingBlocksAndStreamsOfAGoneStoreFail) {
  auto storage = InMemoryStorage::make();
  EXPECT_EQ(storage->read({"d", 7, 1}).error(), make_error_code(StorageError::notFound));
  const auto block = storage->create({"d", 1, 1}).value();
  auto stream = storage->openOutputStream(block).value();
  EXPECT_TRUE(storage->remove(block).has_value());
  EXPECT_EQ(storage->remove(block).error(), make_error_code(StorageError::notFound));
  storage.reset();
  EXPECT_EQ(stream.write(bytesOf("x")).error(), make_error_code(StorageError::deallocated));
}

}  // namespace
}  // namespace verdalune::sessionreplay
