#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <expected>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace verdalune::sessionreplay::collector {

// One event of an uploaded block: its JSON text exactly as it was unpacked, and its "timestamp".
struct ReceivedEvent {
  std::int64_t timestamp = 0;
  std::string json;
};

// A block's identity. The api key is part of it: two projects may use the same device and session ids.
struct BlockKey {
  std::string apiKey;
  std::string deviceId;
  std::int64_t sessionId = 0;
  std::int64_t sequenceNumber = 0;
};

struct SessionSummary {
  std::string apiKey;
  std::string deviceId;
  std::int64_t sessionId = 0;
  std::int64_t blockCount = 0;
  std::int64_t eventCount = 0;
  // Absent while the session's blocks hold no events.
  std::optional<std::int64_t> firstTimestamp;
  std::optional<std::int64_t> lastTimestamp;
};

// The sessions the collector has received, in one SQLite file.
//
// Thread-safe: every call takes the one connection's lock, so the server's worker threads may call
// it at any time. Errors are SQLite's messages.
class SessionDatabase {
 public:
  // Opens or creates the file and its tables.
  [[nodiscard]] static std::expected<std::unique_ptr<SessionDatabase>, std::string> open(
      const std::filesystem::path& path);

  ~SessionDatabase();
  SessionDatabase(const SessionDatabase&) = delete;
  SessionDatabase& operator=(const SessionDatabase&) = delete;

  // Stores the block with its events in the order given, in one transaction. A block whose key is
  // stored already is left as it was: clients resend a block whose answer they never saw, which is
  // alreadyStored, while other events under that key are conflicting.
  enum class Stored { stored, alreadyStored, conflicting };
  [[nodiscard]] std::expected<Stored, std::string> storeBlock(const BlockKey& key,
                                                              std::span<const ReceivedEvent> events);

  // Every session, ordered by api key, device id and session id.
  [[nodiscard]] std::expected<std::vector<SessionSummary>, std::string> sessions();

  // The api keys under which blocks of this device's session are stored.
  [[nodiscard]] std::expected<std::vector<std::string>, std::string> apiKeysOfSession(
      const std::string& deviceId, std::int64_t sessionId);

  // The session's event texts in timestamp order; ties keep block order, then the order within a block.
  [[nodiscard]] std::expected<std::vector<std::string>, std::string> events(const std::string& apiKey,
                                                                            const std::string& deviceId,
                                                                            std::int64_t sessionId);

 private:
  explicit SessionDatabase(sqlite3* connection) : connection_(connection) {}

  [[nodiscard]] std::expected<void, std::string> execute(const char* sql);

  std::mutex mutex_;
  sqlite3* connection_;  // guarded by mutex_
};

}  // namespace verdalune::sessionreplay::collector
