#include "sqlite_session_store.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace verdalune::sessionreplay::collector {
namespace {

// The schema's versions in order; the file's user_version says how many of them it has. The first one
// also finds the tables of files made before the schema had versions.
constexpr const char* kMigrations[] = {
    R"sql(
  CREATE TABLE IF NOT EXISTS blocks (
    api_key TEXT NOT NULL,
    device_id TEXT NOT NULL,
    session_id INTEGER NOT NULL,
    seq_number INTEGER NOT NULL,
    event_count INTEGER NOT NULL,
    received_at INTEGER NOT NULL DEFAULT (CAST((julianday('now') - 2440587.5) * 86400000 AS INTEGER)),
    PRIMARY KEY (api_key, device_id, session_id, seq_number)
  );
  CREATE TABLE IF NOT EXISTS events (
    api_key TEXT NOT NULL,
    device_id TEXT NOT NULL,
    session_id INTEGER NOT NULL,
    seq_number INTEGER NOT NULL,
    position INTEGER NOT NULL,
    timestamp INTEGER NOT NULL,
    json TEXT NOT NULL,
    PRIMARY KEY (api_key, device_id, session_id, seq_number, position)
  );
  CREATE INDEX IF NOT EXISTS events_in_replay_order
    ON events (api_key, device_id, session_id, timestamp, seq_number, position);
)sql",
    // A session page names the device and session only; its api keys are looked up by them.
    "CREATE INDEX IF NOT EXISTS blocks_of_session ON blocks (device_id, session_id);",
};
constexpr int kSchemaVersion = std::size(kMigrations);

// A prepared statement that finalizes itself; errors carry the connection's message.
class Statement {
 public:
  Statement(sqlite3* connection, const char* sql) : connection_(connection) {
    if (sqlite3_prepare_v2(connection, sql, -1, &statement_, nullptr) != SQLITE_OK) statement_ = nullptr;
  }
  ~Statement() { sqlite3_finalize(statement_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  [[nodiscard]] bool prepared() const { return statement_ != nullptr; }

  // Binds the values to the parameters ?1, ?2, ... in order and clears the previous run.
  template <typename... Values>
  void bindAll(const Values&... values) {
    sqlite3_reset(statement_);
    int index = 0;
    (bind(++index, values), ...);
  }

  // True while there is a row to read; false when done or failed (see failed()).
  bool step() {
    result_ = sqlite3_step(statement_);
    return result_ == SQLITE_ROW;
  }
  [[nodiscard]] bool failed() const { return result_ != SQLITE_ROW && result_ != SQLITE_DONE; }

  [[nodiscard]] std::int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }
  [[nodiscard]] std::optional<std::int64_t> optionalInteger(int column) const {
    if (sqlite3_column_type(statement_, column) == SQLITE_NULL) return std::nullopt;
    return integer(column);
  }
  [[nodiscard]] std::string text(int column) const {
    const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement_, column));
    return bytes ? std::string(bytes, sqlite3_column_bytes(statement_, column)) : std::string();
  }

  [[nodiscard]] std::string error() const { return sqlite3_errmsg(connection_); }

 private:
  void bind(int index, const std::string& value) {
    sqlite3_bind_text(statement_, index, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
  }
  void bind(int index, std::int64_t value) { sqlite3_bind_int64(statement_, index, value); }

  sqlite3* connection_;
  sqlite3_stmt* statement_ = nullptr;
  int result_ = SQLITE_OK;
};

// Runs a query and turns each row into a value; the rows in order, or the connection's error.
template <typename Row, typename... Values>
std::expected<std::vector<Row>, std::string> query(sqlite3* connection, const char* sql,
                                                   Row (*read)(const Statement&), const Values&... values) {
  Statement statement(connection, sql);
  if (!statement.prepared()) return std::unexpected(statement.error());
  statement.bindAll(values...);
  std::vector<Row> rows;
  while (statement.step()) rows.push_back(read(statement));
  if (statement.failed()) return std::unexpected(statement.error());
  return rows;
}

std::string firstText(const Statement& row) {
  return row.text(0);
}

}  // namespace

std::expected<std::unique_ptr<SqliteSessionStore>, std::string> SqliteSessionStore::open(
    const std::filesystem::path& path) {
  sqlite3* connection = nullptr;
  const int opened = sqlite3_open_v2(
      path.c_str(), &connection, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  if (opened != SQLITE_OK) {
    std::string message = connection ? sqlite3_errmsg(connection) : sqlite3_errstr(opened);
    sqlite3_close(connection);
    return std::unexpected(path.string() + ": " + message);
  }
  std::unique_ptr<SqliteSessionStore> database(new SqliteSessionStore(connection));
  // Write-ahead logging lets the session listing read while a block is being stored. A stored block is
  // acknowledged to the device, which then deletes its copy, so every commit is synced before the answer
  // goes out (FULL): NORMAL could lose the last acknowledged blocks on a power loss, with no copy left.
  if (auto ready = database->execute("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL;"); !ready)
    return std::unexpected(path.string() + ": " + ready.error());
  if (auto ready = database->migrate(); !ready) return std::unexpected(path.string() + ": " + ready.error());
  return database;
}

SqliteSessionStore::~SqliteSessionStore() {
  sqlite3_close(connection_);
}

std::expected<void, std::string> SqliteSessionStore::execute(const char* sql) {
  char* message = nullptr;
  if (sqlite3_exec(connection_, sql, nullptr, nullptr, &message) == SQLITE_OK) return {};
  std::string error = message ? message : sqlite3_errmsg(connection_);
  sqlite3_free(message);
  return std::unexpected(error);
}

std::expected<void, std::string> SqliteSessionStore::migrate() {
  std::lock_guard lock(mutex_);
  if (auto begun = execute("BEGIN IMMEDIATE"); !begun) return begun;
  auto apply = [&]() -> std::expected<void, std::string> {
    auto version = query<std::int64_t>(
        connection_, "PRAGMA user_version", +[](const Statement& row) { return row.integer(0); });
    if (!version) return std::unexpected(version.error());
    const std::int64_t current = version->empty() ? 0 : version->front();
    if (current > kSchemaVersion)
      return std::unexpected("its schema is version " + std::to_string(current) +
                             ", newer than this collector's " + std::to_string(kSchemaVersion));
    for (std::int64_t next = current; next < kSchemaVersion; ++next) {
      if (auto applied = execute(kMigrations[next]); !applied) return applied;
    }
    return execute(("PRAGMA user_version = " + std::to_string(kSchemaVersion)).c_str());
  };
  auto applied = apply();
  if (auto ended = execute(applied ? "COMMIT" : "ROLLBACK"); !ended && applied) return ended;
  return applied;
}

std::expected<SqliteSessionStore::Stored, std::string> SqliteSessionStore::storeBlock(
    const BlockKey& key, std::span<const ReceivedEvent> events) {
  std::lock_guard lock(mutex_);
  if (auto begun = execute("BEGIN IMMEDIATE"); !begun) return std::unexpected(begun.error());
  auto store = [&]() -> std::expected<Stored, std::string> {
    Statement block(connection_,
                    "INSERT OR IGNORE INTO blocks (api_key, device_id, session_id, seq_number, event_count) "
                    "VALUES (?1, ?2, ?3, ?4, ?5)");
    if (!block.prepared()) return std::unexpected(block.error());
    block.bindAll(key.apiKey, key.deviceId, key.sessionId, key.sequenceNumber,
                  static_cast<std::int64_t>(events.size()));
    block.step();
    if (block.failed()) return std::unexpected(block.error());
    if (sqlite3_changes(connection_) == 0) {
      auto stored =
          query<std::string>(connection_,
                             "SELECT json FROM events WHERE api_key = ?1 AND device_id = ?2 "
                             "AND session_id = ?3 AND seq_number = ?4 ORDER BY position",
                             &firstText, key.apiKey, key.deviceId, key.sessionId, key.sequenceNumber);
      if (!stored) return std::unexpected(stored.error());
      const bool same = std::ranges::equal(*stored, events, {}, {}, &ReceivedEvent::json);
      return same ? Stored::alreadyStored : Stored::conflicting;
    }

    Statement event(
        connection_,
        "INSERT INTO events (api_key, device_id, session_id, seq_number, position, timestamp, json) "
        "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)");
    if (!event.prepared()) return std::unexpected(event.error());
    for (std::size_t i = 0; i < events.size(); ++i) {
      event.bindAll(key.apiKey, key.deviceId, key.sessionId, key.sequenceNumber, static_cast<std::int64_t>(i),
                    events[i].timestamp, events[i].json);
      event.step();
      if (event.failed()) return std::unexpected(event.error());
    }
    return Stored::stored;
  };
  auto stored = store();
  if (auto ended = execute(stored ? "COMMIT" : "ROLLBACK"); !ended && stored)
    return std::unexpected(ended.error());
  return stored;
}

std::expected<std::vector<SessionSummary>, std::string> SqliteSessionStore::sessions() {
  std::lock_guard lock(mutex_);
  return query<SessionSummary>(
      connection_,
      "SELECT b.api_key, b.device_id, b.session_id, COUNT(*), SUM(b.event_count), "
      "  (SELECT MIN(timestamp) FROM events e WHERE e.api_key = b.api_key AND e.device_id = b.device_id "
      "     AND e.session_id = b.session_id), "
      "  (SELECT MAX(timestamp) FROM events e WHERE e.api_key = b.api_key AND e.device_id = b.device_id "
      "     AND e.session_id = b.session_id) "
      "FROM blocks b GROUP BY b.api_key, b.device_id, b.session_id "
      "ORDER BY b.api_key, b.device_id, b.session_id",
      +[](const Statement& row) {
        return SessionSummary{.apiKey = row.text(0),
                              .deviceId = row.text(1),
                              .sessionId = row.integer(2),
                              .blockCount = row.integer(3),
                              .eventCount = row.integer(4),
                              .firstTimestamp = row.optionalInteger(5),
                              .lastTimestamp = row.optionalInteger(6)};
      });
}

std::expected<std::vector<std::string>, std::string> SqliteSessionStore::apiKeysOfSession(
    const std::string& deviceId, std::int64_t sessionId) {
  std::lock_guard lock(mutex_);
  return query<std::string>(connection_,
                            "SELECT DISTINCT api_key FROM blocks WHERE device_id = ?1 AND session_id = ?2 "
                            "ORDER BY api_key",
                            &firstText, deviceId, sessionId);
}

std::expected<std::vector<std::string>, std::string> SqliteSessionStore::events(const std::string& apiKey,
                                                                                const std::string& deviceId,
                                                                                std::int64_t sessionId) {
  std::lock_guard lock(mutex_);
  return query<std::string>(
      connection_,
      "SELECT json FROM events WHERE api_key = ?1 AND device_id = ?2 AND session_id = ?3 "
      "ORDER BY timestamp, seq_number, position",
      &firstText, apiKey, deviceId, sessionId);
}

}  // namespace verdalune::sessionreplay::collector
