#include "support/defaults_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/base64.h"

namespace verdalune::sessionreplay {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;
using Found = JsonFileDefaultsStore::Found;

Bytes bytesOf(std::string_view text) {
  return Bytes(text.begin(), text.end());
}

TEST(Base64Test, EncodesAndDecodesTheStandardVectors) {
  const std::pair<std::string_view, std::string_view> vectors[] = {
      {"", ""},
      {"f", "Zg=="},
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="},
      {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"},
  };
  for (const auto& [plain, encoded] : vectors) {
    EXPECT_EQ(base64Encode(bytesOf(plain)), encoded);
    EXPECT_EQ(base64Decode(encoded), bytesOf(plain)) << encoded;
  }
}

TEST(Base64Test, RejectsTextItWouldNeverWrite) {
  for (std::string_view text :
       {"Zg", "Zg=", "Z===", "====", "Zg==Zg==", "=Zg=", "Zm9v\n", "Zm-v", "Zh==", "Zm9="}) {
    EXPECT_EQ(base64Decode(text), std::nullopt) << text;
  }
}

class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string pattern = (fs::temp_directory_path() / "vdl-defaults-XXXXXX").string();
    path_ = ::mkdtemp(pattern.data());
  }
  ~TemporaryFolder() { fs::remove_all(path_); }
  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

std::unique_ptr<JsonFileDefaultsStore> openStore(const fs::path& path, Found expected = Found::file) {
  auto opened = JsonFileDefaultsStore::open(path);
  EXPECT_TRUE(opened.has_value()) << opened.error().message();
  if (!opened) return nullptr;
  EXPECT_EQ(opened->found, expected);
  return std::move(opened->store);
}

Bytes everyByte() {
  Bytes bytes;
  for (int i = 0; i < 256; ++i) bytes.push_back(static_cast<std::uint8_t>(i));
  return bytes;
}

// Values that a careless encoding would bend: the integer extremes, text with NUL, quotes, slashes
// and bytes that are not UTF-8, empty and binary bytes, and a key that needs escaping.
void setEdgeValues(DefaultsStore& store) {
  EXPECT_TRUE(store.set("min", std::numeric_limits<std::int64_t>::min()));
  EXPECT_TRUE(store.set("max", std::numeric_limits<std::int64_t>::max()));
  EXPECT_TRUE(store.set("text", std::string("a\0\"\\/\n\xff\xfe", 8)));
  EXPECT_TRUE(store.set("empty text", std::string()));
  EXPECT_TRUE(store.set("empty bytes", Bytes()));
  EXPECT_TRUE(store.set("bytes", everyByte()));
  EXPECT_TRUE(store.set("com.verdalune.sessionreplay.\"key\"/\x01", std::int64_t{7}));
}

void expectEdgeValues(const DefaultsStore& store) {
  EXPECT_EQ(store.integer("min"), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(store.integer("max"), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(store.string("text"), std::string("a\0\"\\/\n\xff\xfe", 8));
  EXPECT_EQ(store.string("empty text"), std::string());
  EXPECT_EQ(store.bytes("empty bytes"), Bytes());
  EXPECT_EQ(store.bytes("bytes"), everyByte());
  EXPECT_EQ(store.integer("com.verdalune.sessionreplay.\"key\"/\x01"), 7);
}

// The contract every store keeps, run against each implementation.
template <typename Store>
class DefaultsStoreContractTest : public ::testing::Test {
 protected:
  std::unique_ptr<DefaultsStore> makeStore() {
    if constexpr (std::is_same_v<Store, JsonFileDefaultsStore>) {
      return openStore(folder_.path() / "defaults.json", Found::noFile);
    } else {
      return std::make_unique<Store>();
    }
  }

 private:
  TemporaryFolder folder_;
};

using StoreTypes = ::testing::Types<InMemoryDefaultsStore, JsonFileDefaultsStore>;
TYPED_TEST_SUITE(DefaultsStoreContractTest, StoreTypes);

TYPED_TEST(DefaultsStoreContractTest, KeepsTheThreeTypesApart) {
  auto store = this->makeStore();
  ASSERT_TRUE(store->set("s", std::string("42")));
  ASSERT_TRUE(store->set("i", std::int64_t{42}));
  ASSERT_TRUE(store->set("b", bytesOf("42")));

  EXPECT_EQ(store->string("s"), "42");
  EXPECT_EQ(store->integer("s"), std::nullopt);
  EXPECT_EQ(store->bytes("s"), std::nullopt);
  EXPECT_EQ(store->integer("i"), 42);
  EXPECT_EQ(store->string("i"), std::nullopt);
  EXPECT_EQ(store->bytes("i"), std::nullopt);
  EXPECT_EQ(store->bytes("b"), bytesOf("42"));
  EXPECT_EQ(store->string("b"), std::nullopt);
  EXPECT_EQ(store->integer("b"), std::nullopt);

  ASSERT_TRUE(store->set("s", std::int64_t{7}));
  EXPECT_EQ(store->string("s"), std::nullopt) << "a new value replaces the old one whatever its type";
  EXPECT_EQ(store->integer("s"), 7);

  ASSERT_TRUE(store->remove("s"));
  ASSERT_TRUE(store->remove("never set"));
  EXPECT_EQ(store->integer("s"), std::nullopt);
  EXPECT_EQ(store->integer("i"), 42);
}

TYPED_TEST(DefaultsStoreContractTest, ConcurrentWritersAndReadersSeeWholeValues) {
  auto store = this->makeStore();
  {
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&store, t] {
        const std::string key = "writer." + std::to_string(t);
        for (std::int64_t i = 0; i < 10; ++i) {
          EXPECT_TRUE(store->set(key, i));
          EXPECT_EQ(store->integer(key), i);
          EXPECT_LT(store->integer("writer." + std::to_string((t + 1) % 4)).value_or(0), 10);
        }
      });
    }
  }
  for (int t = 0; t < 4; ++t) EXPECT_EQ(store->integer("writer." + std::to_string(t)), 9);
}

class JsonFileDefaultsStoreTest : public ::testing::Test {
 protected:
  void writeFile(std::string_view text, fs::perms mode = fs::perms::owner_read | fs::perms::owner_write) {
    std::ofstream(file_, std::ios::binary) << text;
    fs::permissions(file_, mode);
  }

  TemporaryFolder folder_;
  const fs::path file_ = folder_.path() / "defaults.json";
};

TEST_F(JsonFileDefaultsStoreTest, ValuesSurviveReopen) {
  auto store = openStore(file_, Found::noFile);
  EXPECT_FALSE(fs::exists(file_)) << "opening alone writes nothing";
  setEdgeValues(*store);
  store.reset();

  auto reopened = openStore(file_);
  expectEdgeValues(*reopened);
}

TEST_F(JsonFileDefaultsStoreTest, ReadsTheLayoutItWrites) {
  writeFile(R"({"format":1,"values":{"n":{"integer":-5},"s":{"string":"x"},"b":{"bytes":"AP8="}}})");
  auto store = openStore(file_);
  EXPECT_EQ(store->integer("n"), -5);
  EXPECT_EQ(store->string("s"), "x");
  EXPECT_EQ(store->bytes("b"), (Bytes{0x00, 0xFF}));
}

TEST_F(JsonFileDefaultsStoreTest, WritesLeaveOnlyTheFileReadableByItsOwner) {
  writeFile(R"({"format":1,"values":{}})",
            fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read | fs::perms::others_read);
  auto store = openStore(file_);
  for (std::int64_t i = 0; i < 5; ++i) ASSERT_TRUE(store->set("n", i));
  ASSERT_TRUE(store->remove("n"));

  std::vector<fs::path> entries(fs::directory_iterator(folder_.path()), fs::directory_iterator());
  EXPECT_EQ(entries, std::vector<fs::path>{file_}) << "no temporary file is left behind";
  struct stat info {};
  ASSERT_EQ(::stat(file_.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
}

TEST_F(JsonFileDefaultsStoreTest, CorruptFileStartsEmptyAndIsReplacedOnTheNextChange) {
  const std::string_view corrupt[] = {
      "",
      R"({"format":1,"values":{}} trailing)",
      R"({"format":2,"values":{}})",
      R"({"format":1,"values":{"k":5}})",
      R"({"format":1,"values":{"k":{"integer":9223372036854775808}}})",
      R"({"format":1,"values":{"k":{"integer":"1"}}})",
      R"({"format":1,"values":{"k":{"bytes":"Zg="}}})",
      R"({"format":1,"values":{"k":{"integer":1,"string":"x"}}})",
      R"({"format":1,"values":{"k":{"integer":1},"k":{"integer":2}}})",
  };
  for (std::string_view text : corrupt) {
    SCOPED_TRACE(text);
    writeFile(text);
    auto store = openStore(file_, Found::corruptFile);
    ASSERT_NE(store, nullptr);
    EXPECT_EQ(store->integer("k"), std::nullopt);
    ASSERT_TRUE(store->set("fresh", std::int64_t{1}));
    store.reset();

    auto reopened = openStore(file_);
    EXPECT_EQ(reopened->integer("fresh"), 1);
  }
}

TEST_F(JsonFileDefaultsStoreTest, OpenFailsOnlyWhenThePathCannotBeRead) {
  fs::create_directory(file_);
  const auto opened = JsonFileDefaultsStore::open(file_);
  ASSERT_FALSE(opened);
  EXPECT_EQ(opened.error(), std::errc::is_a_directory);
}

TEST_F(JsonFileDefaultsStoreTest, FailedWriteIsReportedAndSavedByTheNextWrite) {
  const fs::path folder = folder_.path() / "gone";
  fs::create_directory(folder);
  auto store = openStore(folder / "defaults.json", Found::noFile);
  fs::remove(folder);

  const auto failed = store->set("sequence", std::int64_t{3});
  ASSERT_FALSE(failed);
  EXPECT_EQ(failed.error(), std::errc::no_such_file_or_directory);
  EXPECT_EQ(store->integer("sequence"), 3) << "the change holds in memory";

  fs::create_directory(folder);
  ASSERT_TRUE(store->set("sequence", std::int64_t{3})) << "the same value again must still be written";
  auto reopened = openStore(folder / "defaults.json");
  EXPECT_EQ(reopened->integer("sequence"), 3);
}

}  // namespace
}  // namespace verdalune::sessionreplay
