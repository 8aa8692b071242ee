#include "verdalune/support/defaults_store.h"

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
#include <variant>
#include <vector>

#include "support/base64.h"

namespace verdalune::sessionreplay {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;
using Found = JsonFileDefaultsStore::Found;
using Value = std::variant<std::int64_t, std::string, Bytes>;

Bytes bytesOf(std::string_view text) {
  return Bytes(text.begin(), text.end());
}

TEST(Base64Test, EncodesTheStandardVectorsAndRejectsTextItWouldNeverWrite) {
  // The standard vectors: the prefixes of "foobar".
  const std::string_view encoded[] = {"", "Zg==", "Zm8=", "Zm9v", "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"};
  for (std::size_t length = 0; length < std::size(encoded); ++length) {
    const Bytes plain = bytesOf(std::string_view("foobar").substr(0, length));
    EXPECT_EQ(base64Encode(plain), encoded[length]);
    EXPECT_EQ(base64Decode(encoded[length]), plain) << encoded[length];
  }
  for (std::string_view text :
       {"Zg", "Zg=", "Z===", "====", "Zg==Zg==", "=Zg=", "Zm9v\n", "Zm-v", "Zh==", "Zm9="}) {
    EXPECT_EQ(base64Decode(text), std::nullopt) << text;
  }
}

// The value under `key` whatever its type; a key that reads as more than one type fails the test.
std::optional<Value> read(const DefaultsStore& store, std::string_view key) {
  std::vector<Value> found;
  if (auto value = store.integer(key)) found.emplace_back(*value);
  if (auto value = store.string(key)) found.emplace_back(*value);
  if (auto value = store.bytes(key)) found.emplace_back(*value);
  EXPECT_LE(found.size(), 1u) << key << " reads as more than one type";
  return found.empty() ? std::nullopt : std::optional(found.front());
}

bool write(DefaultsStore& store, std::string_view key, const Value& value) {
  return std::visit([&](const auto& v) { return store.set(key, v).has_value(); }, value);
}

std::unique_ptr<JsonFileDefaultsStore> openStore(const fs::path& path, Found expected = Found::file) {
  auto opened = JsonFileDefaultsStore::open(path);
  EXPECT_TRUE(opened.has_value()) << opened.error().message();
  if (!opened) return nullptr;
  EXPECT_EQ(opened->found, expected);
  return std::move(opened->store);
}

// A fresh folder for the store's file.
class JsonFileDefaultsStoreTest : public ::testing::Test {
 protected:
  JsonFileDefaultsStoreTest() {
    std::string pattern = (fs::temp_directory_path() / "vdl-defaults-XXXXXX").string();
    folder_ = ::mkdtemp(pattern.data());
    file_ = folder_ / "defaults.json";
  }
  ~JsonFileDefaultsStoreTest() override { fs::remove_all(folder_); }

  void writeFile(std::string_view text, fs::perms mode = fs::perms::owner_read | fs::perms::owner_write) {
    std::ofstream(file_, std::ios::binary) << text;
    fs::permissions(file_, mode);
  }

  fs::path folder_, file_;
};

// The contract every store keeps, run against each implementation.
template <typename Store>
class DefaultsStoreContractTest : public JsonFileDefaultsStoreTest {
 protected:
  std::unique_ptr<DefaultsStore> makeStore() {
    if constexpr (std::is_same_v<Store, JsonFileDefaultsStore>) {
      return openStore(file_, Found::noFile);
    } else {
      return std::make_unique<Store>();
    }
  }
};

using StoreTypes = ::testing::Types<InMemoryDefaultsStore, JsonFileDefaultsStore>;
TYPED_TEST_SUITE(DefaultsStoreContractTest, StoreTypes);

TYPED_TEST(DefaultsStoreContractTest, KeepsTheThreeTypesApart) {
  auto store = this->makeStore();
  ASSERT_TRUE(store->set("s", std::string("42")));
  ASSERT_TRUE(store->set("i", std::int64_t{42}));
  ASSERT_TRUE(store->set("b", bytesOf("42")));
  EXPECT_EQ(read(*store, "s"), Value(std::string("42")));
  EXPECT_EQ(read(*store, "i"), Value(std::int64_t{42}));
  EXPECT_EQ(read(*store, "b"), Value(bytesOf("42")));

  // A new value replaces the old one whatever its type.
  ASSERT_TRUE(store->set("s", std::int64_t{7}));
  EXPECT_EQ(read(*store, "s"), Value(std::int64_t{7}));
  ASSERT_TRUE(store->remove("s"));
  ASSERT_TRUE(store->remove("never set"));
  EXPECT_EQ(read(*store, "s"), std::nullopt);
  EXPECT_EQ(read(*store, "i"), Value(std::int64_t{42}));
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

TEST_F(JsonFileDefaultsStoreTest, ValuesSurviveReopen) {
  Bytes everyByte;
  for (int i = 0; i < 256; ++i) everyByte.push_back(static_cast<std::uint8_t>(i));
  // Values a careless encoding would bend: the integer extremes, text with NUL, quotes, slashes and bytes
  // that are not UTF-8, empty and binary bytes, and a key that needs escaping.
  const std::pair<std::string, Value> values[] = {
      {"min", std::numeric_limits<std::int64_t>::min()},
      {"max", std::numeric_limits<std::int64_t>::max()},
      {"text", std::string("a\0\"\\/\n\xff\xfe", 8)},
      {"empty text", std::string()},
      {"empty bytes", Bytes()},
      {"bytes", everyByte},
      {"com.verdalune.sessionreplay.\"key\"/\x01", std::int64_t{7}},
  };
  auto store = openStore(file_, Found::noFile);
  EXPECT_FALSE(fs::exists(file_)) << "opening alone writes nothing";
  for (const auto& [key, value] : values) EXPECT_TRUE(write(*store, key, value)) << key;
  store.reset();

  auto reopened = openStore(file_);
  for (const auto& [key, value] : values) EXPECT_EQ(read(*reopened, key), value) << key;
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

  const std::vector<fs::path> entries{fs::directory_iterator(folder_), fs::directory_iterator()};
  EXPECT_EQ(entries, std::vector<fs::path>{file_}) << "no temporary file is left behind";
  struct stat info {};
  ASSERT_EQ(::stat(file_.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
}

TEST_F(JsonFileDefaultsStoreTest, CorruptFileStartsEmptyAndIsReplacedOnTheNextChange) {
  for (std::string_view text : {
           "",
           R"({"format":1,"values":{}} trailing)",
           R"({"format":2,"values":{}})",
           R"({"format":1,"values":{"k":5}})",
           R"({"format":1,"values":{"k":{"integer":9223372036854775808}}})",
           R"({"format":1,"values":{"k":{"integer":"1"}}})",
           R"({"format":1,"values":{"k":{"bytes":"Zg="}}})",
           R"({"format":1,"values":{"k":{"integer":1,"string":"x"}}})",
           R"({"format":1,"values":{"k":{"integer":1},"k":{"integer":2}}})",
       }) {
    SCOPED_TRACE(text);
    writeFile(text);
    auto store = openStore(file_, Found::corruptFile);
    ASSERT_NE(store, nullptr);
    EXPECT_EQ(read(*store, "k"), std::nullopt);
    ASSERT_TRUE(store->set("fresh", std::int64_t{1}));
    store.reset();
    EXPECT_EQ(openStore(file_)->integer("fresh"), 1);
  }
}

TEST_F(JsonFileDefaultsStoreTest, FailuresAreReportedAndAFailedWriteIsSavedByTheNextOne) {
  fs::create_directory(file_);
  const auto unreadable = JsonFileDefaultsStore::open(file_);
  ASSERT_FALSE(unreadable);
  EXPECT_EQ(unreadable.error(), std::errc::is_a_directory);

  const fs::path folder = folder_ / "gone";
  fs::create_directory(folder);
  auto store = openStore(folder / "defaults.json", Found::noFile);
  fs::remove(folder);

  const auto failed = store->set("sequence", std::int64_t{3});
  ASSERT_FALSE(failed);
  EXPECT_EQ(failed.error(), std::errc::no_such_file_or_directory);
  EXPECT_EQ(store->integer("sequence"), 3) << "the change holds in memory";

  fs::create_directory(folder);
  ASSERT_TRUE(store->set("sequence", std::int64_t{3})) << "the same value again must still be written";
  EXPECT_EQ(openStore(folder / "defaults.json")->integer("sequence"), 3);
}

}  // namespace
}  // namespace verdalune::sessionreplay
