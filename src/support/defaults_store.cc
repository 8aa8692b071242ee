#include "verdalune/support/defaults_store.h"

#include <fcntl.h>
#include <rapidjson/document.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "support/base64.h"
#include "support/files.h"
#include "support/json_writer.h"

namespace verdalune::sessionreplay {
namespace {

using Result = DefaultsStore::Result;
using Value = InMemoryDefaultsStore::Value;
using Values = InMemoryDefaultsStore::Values;

constexpr std::int64_t kFormat = 1;
constexpr std::string_view kStringTag = "string";
constexpr std::string_view kIntegerTag = "integer";
constexpr std::string_view kBytesTag = "bytes";

std::string_view view(const rapidjson::Value& string) {
  return {string.GetString(), string.GetStringLength()};
}

// Anything short of a file this store wrote (a value of an unknown type, a duplicate key, a newer
// format) makes the whole file corrupt rather than half-read: the caller hears of it once, at open,
// instead of finding some keys silently missing.
std::optional<Values> parseValues(std::string_view text) {
  rapidjson::Document document;
  document.Parse(text.data(), text.size());
  if (document.HasParseError() || !document.IsObject()) return std::nullopt;
  const auto format = document.FindMember("format");
  if (format == document.MemberEnd() || !format->value.IsInt64() || format->value.GetInt64() != kFormat) {
    return std::nullopt;
  }
  const auto entries = document.FindMember("values");
  if (entries == document.MemberEnd() || !entries->value.IsObject()) return std::nullopt;

  Values values;
  for (const auto& entry : entries->value.GetObject()) {
    if (!entry.value.IsObject() || entry.value.MemberCount() != 1) return std::nullopt;
    const auto& [tag, typed] = *entry.value.MemberBegin();
    Value value;
    if (view(tag) == kStringTag && typed.IsString()) {
      value = std::string(view(typed));
    } else if (view(tag) == kIntegerTag && typed.IsInt64()) {
      value = std::int64_t{typed.GetInt64()};
    } else if (view(tag) == kBytesTag && typed.IsString()) {
      std::optional<std::vector<std::uint8_t>> bytes = base64Decode(view(typed));
      if (!bytes) return std::nullopt;
      value = std::move(*bytes);
    } else {
      return std::nullopt;
    }
    if (!values.emplace(std::string(view(entry.name)), std::move(value)).second) return std::nullopt;
  }
  return values;
}

std::string serializeValues(const Values& values) {
  std::string out;
  JsonWriter writer(out);
  writer.beginObject();
  writer.key("format");
  writer.integer(kFormat);
  writer.key("values");
  writer.beginObject();
  for (const auto& [key, value] : values) {
    writer.key(key);
    writer.beginObject();
    if (const auto* string = std::get_if<std::string>(&value)) {
      writer.key(kStringTag);
      writer.string(*string);
    } else if (const auto* integer = std::get_if<std::int64_t>(&value)) {
      writer.key(kIntegerTag);
      writer.integer(*integer);
    } else {
      writer.key(kBytesTag);
      writer.string(base64Encode(std::get<std::vector<std::uint8_t>>(value)));
    }
    writer.endObject();
  }
  writer.endObject();
  writer.endObject();
  out.push_back('\n');
  return out;
}

// Replaces the file so that a crash at any point leaves the old contents or the new, never a mix:
// the new text is made durable under a temporary name, renamed over the file, and the rename made
// durable by flushing the folder.
Result replaceFile(const std::filesystem::path& path, std::string_view contents) {
  std::string temporaryPath = path.string() + ".XXXXXX";
  int fd = ::mkostemp(temporaryPath.data(), O_CLOEXEC);
  if (fd < 0) return std::unexpected(systemError());
  const auto fail = [&](int error) -> Result {
    if (fd >= 0) ::close(fd);
    ::unlink(temporaryPath.c_str());
    return std::unexpected(systemError(error));
  };

  if (::fchmod(fd, 0600) != 0) return fail(errno);
  for (std::size_t written = 0; written < contents.size();) {
    const ssize_t count = ::write(fd, contents.data() + written, contents.size() - written);
    if (count < 0) {
      if (errno == EINTR) continue;
      return fail(errno);
    }
    written += static_cast<std::size_t>(count);
  }
  if (::fsync(fd) != 0) return fail(errno);
  const int closed = ::close(fd);
  fd = -1;
  if (closed != 0) return fail(errno);
  if (::rename(temporaryPath.c_str(), path.c_str()) != 0) return fail(errno);
  return syncFolder(path.parent_path());
}

}  // namespace

template <typename T>
std::optional<T> InMemoryDefaultsStore::get(std::string_view key) const {
  std::lock_guard lock(mutex_);
  const auto found = values_.find(key);
  if (found == values_.end()) return std::nullopt;
  if (const T* value = std::get_if<T>(&found->second)) return *value;
  return std::nullopt;
}

std::optional<std::string> InMemoryDefaultsStore::string(std::string_view key) const {
  return get<std::string>(key);
}

std::optional<std::int64_t> InMemoryDefaultsStore::integer(std::string_view key) const {
  return get<std::int64_t>(key);
}

std::optional<std::vector<std::uint8_t>> InMemoryDefaultsStore::bytes(std::string_view key) const {
  return get<std::vector<std::uint8_t>>(key);
}

Result InMemoryDefaultsStore::set(std::string_view key, std::string value) {
  return change(key, Value(std::move(value)));
}

Result InMemoryDefaultsStore::set(std::string_view key, std::int64_t value) {
  return change(key, Value(value));
}

Result InMemoryDefaultsStore::set(std::string_view key, std::vector<std::uint8_t> value) {
  return change(key, Value(std::move(value)));
}

Result InMemoryDefaultsStore::remove(std::string_view key) {
  return change(key, std::nullopt);
}

Result InMemoryDefaultsStore::persist(const Values&) {
  return {};
}

Result InMemoryDefaultsStore::change(std::string_view key, std::optional<Value> value) {
  std::lock_guard lock(mutex_);
  const auto found = values_.find(key);
  const bool unchanged = value ? found != values_.end() && found->second == *value : found == values_.end();
  // Writers such as the block state set the same values again and again; skip the disk then, unless
  // an earlier change is still waiting to be saved.
  if (unchanged && !unsaved_) return {};
  if (!value) {
    if (found != values_.end()) values_.erase(found);
  } else if (found != values_.end()) {
    found->second = std::move(*value);
  } else {
    values_.emplace(std::string(key), std::move(*value));
  }
  Result saved = persist(values_);
  unsaved_ = !saved;
  return saved;
}

JsonFileDefaultsStore::JsonFileDefaultsStore(std::filesystem::path path, Values values)
    : InMemoryDefaultsStore(std::move(values)), path_(std::move(path)) {}

std::expected<JsonFileDefaultsStore::Opened, std::error_code> JsonFileDefaultsStore::open(
    std::filesystem::path path) {
  auto text = readWholeFile(path);
  if (!text && text.error() != std::errc::no_such_file_or_directory) return std::unexpected(text.error());
  Found found = Found::noFile;
  Values values;
  if (text) {
    std::optional<Values> parsed = parseValues(*text);
    found = parsed ? Found::file : Found::corruptFile;
    if (parsed) values = std::move(*parsed);
  }
  std::unique_ptr<JsonFileDefaultsStore> store(new JsonFileDefaultsStore(std::move(path), std::move(values)));
  return Opened{std::move(store), found};
}

Result JsonFileDefaultsStore::persist(const Values& values) {
  return replaceFile(path_, serializeValues(values));
}

}  // namespace verdalune::sessionreplay
