#pragma once

#include <cstdint>
#include <expected>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <variant>
#include <vector>

namespace verdalune::sessionreplay {

// The platform's store of small persisted values (block state, the cached remote configuration).
//
// A key holds one value of one type: a string, a 64-bit integer or bytes. Setting a key replaces its
// value whatever the type was; a typed getter finds nothing when the key holds another type.
//
// set() and remove() report a failure to persist the change as an error value (errno values, generic
// category). The change still holds in memory for the rest of the process: a failed write means "not
// durable yet", and the next successful write saves it.
//
// Implementations are thread-safe.
class DefaultsStore {
 public:
  using Result = std::expected<void, std::error_code>;

  virtual ~DefaultsStore() = default;

  virtual std::optional<std::string> string(std::string_view key) const = 0;
  virtual std::optional<std::int64_t> integer(std::string_view key) const = 0;
  virtual std::optional<std::vector<std::uint8_t>> bytes(std::string_view key) const = 0;

  [[nodiscard]] virtual Result set(std::string_view key, std::string value) = 0;
  [[nodiscard]] virtual Result set(std::string_view key, std::int64_t value) = 0;
  [[nodiscard]] virtual Result set(std::string_view key, std::vector<std::uint8_t> value) = 0;
  [[nodiscard]] virtual Result remove(std::string_view key) = 0;
};

// A store that keeps values in memory only; its changes always succeed. It is also the in-memory half
// of the file store, which saves the values after each change.
class InMemoryDefaultsStore : public DefaultsStore {
 public:
  using Value = std::variant<std::string, std::int64_t, std::vector<std::uint8_t>>;
  using Values = std::map<std::string, Value, std::less<>>;

  InMemoryDefaultsStore() = default;

  std::optional<std::string> string(std::string_view key) const override;
  std::optional<std::int64_t> integer(std::string_view key) const override;
  std::optional<std::vector<std::uint8_t>> bytes(std::string_view key) const override;

  Result set(std::string_view key, std::string value) override;
  Result set(std::string_view key, std::int64_t value) override;
  Result set(std::string_view key, std::vector<std::uint8_t> value) override;
  Result remove(std::string_view key) override;

 protected:
  explicit InMemoryDefaultsStore(Values values) : values_(std::move(values)) {}

 private:
  // Called after every change that needs saving, with mutex_ held, so saves happen one at a time
  // and in the order of the changes.
  virtual Result persist(const Values& values);

  template <typename T>
  std::optional<T> get(std::string_view key) const;
  Result change(std::string_view key, std::optional<Value> value);

  mutable std::mutex mutex_;
  Values values_;         // guarded by mutex_
  bool unsaved_ = false;  // guarded by mutex_; the last persist() failed
};

// A store kept in one JSON file, read once when opened and rewritten whole on every change: written to
// a temporary file in the same folder, flushed to disk, renamed over the file, and the folder flushed,
// so that a crash leaves either the old file or the new one. The file is readable by its owner only
// (mode 0600). The folder must exist.
//
// The file holds {"format":1,"values":{KEY:{TYPE:VALUE},...}}, TYPE being "string", "integer" (a JSON
// integer) or "bytes" (base64 text), so that each key names its type and no reading can mistake one
// type for another.
class JsonFileDefaultsStore final : public InMemoryDefaultsStore {
 public:
  // What open() found at the path.
  enum class Found {
    file,         // a valid file; its values are loaded
    noFile,       // nothing yet; the store starts empty
    corruptFile,  // not a file of this store; the store starts empty and replaces it on the next change
  };

  struct Opened {
    std::unique_ptr<JsonFileDefaultsStore> store;
    Found found;
  };

  // Fails only when the file exists but cannot be read (permissions, a folder at the path, I/O).
  [[nodiscard]] static std::expected<Opened, std::error_code> open(std::filesystem::path path);

  const std::filesystem::path& path() const { return path_; }

 private:
  JsonFileDefaultsStore(std::filesystem::path path, Values values);

  Result persist(const Values& values) override;

  const std::filesystem::path path_;
};

}  // namespace verdalune::sessionreplay
