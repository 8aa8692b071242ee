#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <expected>
#include <filesystem>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "session_store.h"

namespace verdalune::sessionreplay::collector {

// The sessions the collector has received, in one SQLite file: the embedded store, for one collector
// process.
//
// Every call takes the one connection's lock.
class SqliteSessionStore final : public SessionStore {
 public:
  // Opens or creates the file, and makes or brings up to date its tables.
  [[nodiscard]] static std::expected<std::unique_ptr<SqliteSessionStore>, std::string> open(
      const std::filesystem::path& path);

  ~SqliteSessionStore() override;
  SqliteSessionStore(const SqliteSessionStore&) = delete;
  SqliteSessionStore& operator=(const SqliteSessionStore&) = delete;

  [[nodiscard]] std::expected<Stored, std::string> storeBlock(const BlockKey& key,
                                                              std::span<const ReceivedEvent> events) override;
  [[nodiscard]] std::expected<std::vector<SessionSummary>, std::string> sessions() override;
  [[nodiscard]] std::expected<std::vector<std::string>, std::string> apiKeysOfSession(
      const std::string& deviceId, std::int64_t sessionId) override;
  [[nodiscard]] std::expected<std::vector<std::string>, std::string> events(const std::string& apiKey,
                                                                            const std::string& deviceId,
                                                                            std::int64_t sessionId) override;

 private:
  explicit SqliteSessionStore(sqlite3* connection) : connection_(connection) {}

  [[nodiscard]] std::expected<void, std::string> execute(const char* sql);
  [[nodiscard]] std::expected<void, std::string> migrate();

  std::mutex mutex_;
  sqlite3* connection_;  // guarded by mutex_
};

}  // namespace verdalune::sessionreplay::collector
