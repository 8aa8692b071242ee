#pragma once

#include <cstdint>
#include <expected>
#include <memory>
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

// Where the collector keeps the sessions it received: an SQLite file, or a PostgreSQL database that
// several collector processes share.
//
// Thread-safe: the server's worker threads call it at any time. Errors are the database's messages.
class SessionStore {
 public:
  virtual ~SessionStore() = default;

  // Stores the block with its events in the order given, in one transaction, and returns once it is
  // committed: a device deletes its copy when the upload is acknowledged. A block whose key is stored
  // already is left as it was, whoever stored it: clients resend a block whose answer they never saw,
  // which is alreadyStored, while other events under that key are conflicting.
  enum class Stored { stored, alreadyStored, conflicting };
  [[nodiscard]] virtual std::expected<Stored, std::string> storeBlock(
      const BlockKey& key, std::span<const ReceivedEvent> events) = 0;

  // Every session, ordered by api key, device id and session id.
  [[nodiscard]] virtual std::expected<std::vector<SessionSummary>, std::string> sessions() = 0;

  // The api keys under which blocks of this device's session are stored, in order.
  [[nodiscard]] virtual std::expected<std::vector<std::string>, std::string> apiKeysOfSession(
      const std::string& deviceId, std::int64_t sessionId) = 0;

  // The session's event texts in timestamp order; ties keep block order, then the order within a block.
  [[nodiscard]] virtual std::expected<std::vector<std::string>, std::string> events(
      const std::string& apiKey, const std::string& deviceId, std::int64_t sessionId) = 0;
};

// A location that starts with "postgresql://" or "postgres://" is a PostgreSQL connection URI; anything
// else is the path of an SQLite file, made when missing. The schema is made or brought up to date before
// the store is returned.
[[nodiscard]] std::expected<std::unique_ptr<SessionStore>, std::string> openSessionStore(
    const std::string& location);

// Whether openSessionStore takes the location for PostgreSQL.
[[nodiscard]] bool isPostgresLocation(const std::string& location);

}  // namespace verdalune::sessionreplay::collector
