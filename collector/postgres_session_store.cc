#include "postgres_session_store.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <deque>
#include <iterator>
#include <string_view>
#include <utility>

namespace verdalune::sessionreplay::collector {
namespace {

// The schema's versions in order; schema_versions holds the ones applied.
constexpr const char* kMigrations[] = {
    R"sql(
  CREATE TABLE blocks (
    api_key text NOT NULL,
    device_id text NOT NULL,
    session_id bigint NOT NULL,
    seq_number bigint NOT NULL,
    event_count integer NOT NULL,
    received_at timestamptz NOT NULL DEFAULT now(),
    PRIMARY KEY (api_key, device_id, session_id, seq_number)
  );
  -- An event's text is kept as the bytes that were unpacked, whatever their encoding.
  CREATE TABLE events (
    api_key text NOT NULL,
    device_id text NOT NULL,
    session_id bigint NOT NULL,
    seq_number bigint NOT NULL,
    position integer NOT NULL,
    timestamp bigint NOT NULL,
    json bytea NOT NULL,
    PRIMARY KEY (api_key, device_id, session_id, seq_number, position)
  );
  CREATE INDEX events_in_replay_order ON events (api_key, device_id, session_id, timestamp, seq_number, position);
)sql",
    // A session page names the device and session only; its api keys are looked up by them.
    "CREATE INDEX blocks_of_session ON blocks (device_id, session_id);",
};
constexpr int kSchemaVersion = std::size(kMigrations);
// Held by the transaction that migrates, so that collectors starting together migrate one after another.
constexpr std::int64_t kMigrationLock = 0x76646c2d636f6c6c;  // "vdl-coll"

// Type ids of the parameters, from the server's catalog (pg_type); they never change.
constexpr Oid kText = 25, kInt8 = 20, kBytea = 17, kInt8Array = 1016, kByteaArray = 1001;

using Result = std::unique_ptr<PGresult, decltype(&PQclear)>;

void appendBigEndian(std::string& out, std::uint64_t value, int bytes) {
  for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) out += static_cast<char>((value >> shift) & 0xFF);
}

std::string binaryInteger(std::int64_t value) {
  std::string out;
  appendBigEndian(out, static_cast<std::uint64_t>(value), 8);
  return out;
}

// A one-dimensional array in the server's binary format, its elements given in theirs.
std::string binaryArray(Oid elementType, const std::vector<std::string>& elements) {
  std::string out;
  appendBigEndian(out, elements.empty() ? 0 : 1, 4);  // dimensions
  appendBigEndian(out, 0, 4);                         // no nulls
  appendBigEndian(out, elementType, 4);
  if (elements.empty()) return out;
  appendBigEndian(out, elements.size(), 4);
  appendBigEndian(out, 1, 4);  // the first index
  for (const auto& element : elements) {
    appendBigEndian(out, element.size(), 4);
    out += element;
  }
  return out;
}

// Parameters of a statement, every one in binary format, so texts and bytes go as they are.
class Parameters {
 public:
  Parameters& text(std::string_view value) { return add(kText, std::string(value)); }
  Parameters& integer(std::int64_t value) { return add(kInt8, binaryInteger(value)); }
  Parameters& add(Oid type, std::string value) {
    values_.push_back(std::move(value));
    types_.push_back(type);
    return *this;
  }

  Result run(PGconn* connection, const char* sql) const {
    std::vector<const char*> pointers;
    std::vector<int> lengths, formats(values_.size(), 1);
    for (const auto& value : values_) {
      pointers.push_back(value.data());
      lengths.push_back(static_cast<int>(value.size()));
    }
    return Result(PQexecParams(connection, sql, static_cast<int>(values_.size()), types_.data(),
                               pointers.data(), lengths.data(), formats.data(), 1),
                  &PQclear);
  }

 private:
  std::deque<std::string> values_;
  std::vector<Oid> types_;
};

// The server's message for a result that is not `expected`, on one line.
std::expected<Result, std::string> check(Result result, PGconn* connection, ExecStatusType expected) {
  if (result && PQresultStatus(result.get()) == expected) return result;
  std::string message = result ? PQresultErrorMessage(result.get()) : PQerrorMessage(connection);
  while (!message.empty() && (message.back() == '\n' || message.back() == ' ')) message.pop_back();
  std::ranges::replace(message, '\n', ' ');
  return std::unexpected(message.empty() ? std::string("no answer from the server") : message);
}

std::expected<Result, std::string> command(PGconn* connection, const char* sql) {
  return check(Result(PQexec(connection, sql), &PQclear), connection, PGRES_COMMAND_OK);
}

std::expected<Result, std::string> rows(PGconn* connection, const char* sql,
                                        const Parameters& parameters = {}) {
  return check(parameters.run(connection, sql), connection, PGRES_TUPLES_OK);
}

std::int64_t integerAt(const PGresult* result, int row, int column) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(PQgetvalue(result, row, column));
  std::uint64_t value = 0;
  for (int i = 0; i < 8; ++i) value = value << 8 | bytes[i];
  return static_cast<std::int64_t>(value);
}

std::optional<std::int64_t> optionalIntegerAt(const PGresult* result, int row, int column) {
  if (PQgetisnull(result, row, column)) return std::nullopt;
  return integerAt(result, row, column);
}

std::string textAt(const PGresult* result, int row, int column) {
  return {PQgetvalue(result, row, column), static_cast<std::size_t>(PQgetlength(result, row, column))};
}

std::vector<std::string> firstColumn(const PGresult* result) {
  std::vector<std::string> values;
  for (int row = 0; row < PQntuples(result); ++row) values.push_back(textAt(result, row, 0));
  return values;
}

// Runs `body` in a transaction and commits when it succeeds. The commit's own answer decides: a
// transaction that failed on the way answers COMMIT with a rollback.
template <typename T>
std::expected<T, std::string> inTransaction(PGconn* connection,
                                            const std::function<std::expected<T, std::string>()>& body) {
  if (auto begun = command(connection, "BEGIN"); !begun) return std::unexpected(begun.error());
  auto done = body();
  if (!done) {
    (void)command(connection, "ROLLBACK");
    return done;
  }
  auto committed = command(connection, "COMMIT");
  if (!committed) return std::unexpected(committed.error());
  if (std::string_view(PQcmdStatus(committed->get())) != "COMMIT")
    return std::unexpected(std::string("the transaction was rolled back"));
  return done;
}

std::expected<void, std::string> migrate(PGconn* connection) {
  auto migrated = inTransaction<bool>(connection, [&]() -> std::expected<bool, std::string> {
    if (auto locked =
            rows(connection, "SELECT pg_advisory_xact_lock($1)", Parameters().integer(kMigrationLock));
        !locked)
      return std::unexpected(locked.error());
    if (auto made = command(connection,
                            "CREATE TABLE IF NOT EXISTS schema_versions ("
                            "  version integer PRIMARY KEY, applied_at timestamptz NOT NULL DEFAULT now())");
        !made)
      return std::unexpected(made.error());
    auto version = rows(connection, "SELECT coalesce(max(version), 0)::bigint FROM schema_versions");
    if (!version) return std::unexpected(version.error());
    const std::int64_t current = integerAt(version->get(), 0, 0);
    if (current > kSchemaVersion)
      return std::unexpected("its schema is version " + std::to_string(current) +
                             ", newer than this collector's " + std::to_string(kSchemaVersion));
    for (std::int64_t next = current; next < kSchemaVersion; ++next) {
      if (auto applied = command(connection, kMigrations[next]); !applied)
        return std::unexpected(applied.error());
      auto recorded = check(Parameters().integer(next + 1).run(
                                connection, "INSERT INTO schema_versions (version) VALUES ($1::integer)"),
                            connection, PGRES_COMMAND_OK);
      if (!recorded) return std::unexpected(recorded.error());
    }
    return true;
  });
  if (!migrated) return std::unexpected(migrated.error());
  return {};
}

}  // namespace

std::expected<std::unique_ptr<PostgresSessionStore>, std::string> PostgresSessionStore::open(
    const std::string& uri) {
  std::unique_ptr<PostgresSessionStore> store(new PostgresSessionStore(uri));
  auto connection = store->connect();
  if (!connection) return std::unexpected(connection.error());
  auto migrated = migrate(*connection);
  store->giveBack(*connection);
  if (!migrated) return std::unexpected(migrated.error());
  return store;
}

PostgresSessionStore::~PostgresSessionStore() {
  for (PGconn* connection : idle_) PQfinish(connection);
}

std::expected<PGconn*, std::string> PostgresSessionStore::connect() const {
  // The URI comes last, so that what it says overrides these defaults.
  const char* keywords[] = {"application_name", "connect_timeout", "dbname", nullptr};
  const char* values[] = {"vdl-collector", "10", uri_.c_str(), nullptr};
  PGconn* connection = PQconnectdbParams(keywords, values, 1);
  if (PQstatus(connection) != CONNECTION_OK) {
    std::string message = PQerrorMessage(connection);
    PQfinish(connection);
    while (!message.empty() && message.back() == '\n') message.pop_back();
    std::ranges::replace(message, '\n', ' ');
    return std::unexpected(message);
  }
  // An upload is acknowledged once its commit returns, and the device then deletes its copy: the commit
  // must be on disk by then, whatever the server's default.
  // The server's notices (a table that exists already, say) are not the collector's to print.
  if (auto set = command(connection, "SET synchronous_commit = on; SET client_min_messages = warning");
      !set) {
    PQfinish(connection);
    return std::unexpected(set.error());
  }
  return connection;
}

void PostgresSessionStore::giveBack(PGconn* connection) {
  // A connection that broke, or was left inside a transaction, is not handed to the next call.
  if (PQstatus(connection) != CONNECTION_OK || PQtransactionStatus(connection) != PQTRANS_IDLE) {
    PQfinish(connection);
    return;
  }
  std::lock_guard lock(mutex_);
  idle_.push_back(connection);
}

template <typename T>
std::expected<T, std::string> PostgresSessionStore::withConnection(
    const std::function<std::expected<T, std::string>(PGconn*)>& work) {
  for (int attempt = 0;; ++attempt) {
    PGconn* connection = nullptr;
    {
      std::lock_guard lock(mutex_);
      if (!idle_.empty()) {
        connection = idle_.back();
        idle_.pop_back();
      }
    }
    const bool pooled = connection != nullptr;
    if (!pooled) {
      auto made = connect();
      if (!made) return std::unexpected(made.error());
      connection = *made;
    }
    auto done = work(connection);
    const bool broken = PQstatus(connection) != CONNECTION_OK;
    giveBack(connection);
    if (done || !broken || !pooled || attempt > 0) return done;
  }
}

std::expected<SessionStore::Stored, std::string> PostgresSessionStore::storeBlock(
    const BlockKey& key, std::span<const ReceivedEvent> events) {
  auto keyed = [&] {
    Parameters parameters;
    parameters.text(key.apiKey).text(key.deviceId).integer(key.sessionId).integer(key.sequenceNumber);
    return parameters;
  };
  std::vector<std::string> timestamps, texts;
  for (const auto& event : events) {
    timestamps.push_back(binaryInteger(event.timestamp));
    texts.push_back(event.json);
  }
  const std::string timestampArray = binaryArray(kInt8, timestamps);
  const std::string textArray = binaryArray(kBytea, texts);

  return withConnection<Stored>([&](PGconn* connection) {
    return inTransaction<Stored>(connection, [&]() -> std::expected<Stored, std::string> {
      // Another collector storing the same key at this moment makes this insert wait for its commit (and
      // then do nothing) or for its rollback (and then insert).
      auto inserted = rows(connection,
                           "INSERT INTO blocks (api_key, device_id, session_id, seq_number, event_count) "
                           "VALUES ($1, $2, $3, $4, $5::integer) ON CONFLICT DO NOTHING RETURNING 1",
                           keyed().integer(static_cast<std::int64_t>(events.size())));
      if (!inserted) return std::unexpected(inserted.error());
      if (PQntuples(inserted->get()) == 0) {
        auto stored =
            rows(connection,
                 "SELECT json FROM events WHERE api_key = $1 AND device_id = $2 AND session_id = $3 "
                 "AND seq_number = $4 ORDER BY position",
                 keyed());
        if (!stored) return std::unexpected(stored.error());
        const bool same =
            std::ranges::equal(firstColumn(stored->get()), events, {}, {}, &ReceivedEvent::json);
        return same ? Stored::alreadyStored : Stored::conflicting;
      }
      // All the events in one statement: one round trip to the server, however many there are.
      auto added =
          check(keyed()
                    .add(kInt8Array, timestampArray)
                    .add(kByteaArray, textArray)
                    .run(connection,
                         "INSERT INTO events (api_key, device_id, session_id, seq_number, position, "
                         "  timestamp, json) "
                         "SELECT $1, $2, $3, $4, e.position - 1, e.timestamp, e.json "
                         "FROM unnest($5::bigint[], $6::bytea[]) WITH ORDINALITY AS e(timestamp, json, "
                         "  position)"),
                connection, PGRES_COMMAND_OK);
      if (!added) return std::unexpected(added.error());
      return Stored::stored;
    });
  });
}

std::expected<std::vector<SessionSummary>, std::string> PostgresSessionStore::sessions() {
  return withConnection<std::vector<SessionSummary>>([](PGconn* connection)
                                                         -> std::expected<std::vector<SessionSummary>,
                                                                          std::string> {
    auto result = rows(
        connection,
        "SELECT b.api_key, b.device_id, b.session_id, count(*)::bigint, sum(b.event_count)::bigint, "
        "  (SELECT min(timestamp) FROM events e WHERE e.api_key = b.api_key AND e.device_id = b.device_id "
        "     AND e.session_id = b.session_id), "
        "  (SELECT max(timestamp) FROM events e WHERE e.api_key = b.api_key AND e.device_id = b.device_id "
        "     AND e.session_id = b.session_id) "
        "FROM blocks b GROUP BY b.api_key, b.device_id, b.session_id "
        "ORDER BY b.api_key COLLATE \"C\", b.device_id COLLATE \"C\", b.session_id");
    if (!result) return std::unexpected(result.error());
    std::vector<SessionSummary> summaries;
    const PGresult* table = result->get();
    for (int row = 0; row < PQntuples(table); ++row) {
      summaries.push_back({.apiKey = textAt(table, row, 0),
                           .deviceId = textAt(table, row, 1),
                           .sessionId = integerAt(table, row, 2),
                           .blockCount = integerAt(table, row, 3),
                           .eventCount = integerAt(table, row, 4),
                           .firstTimestamp = optionalIntegerAt(table, row, 5),
                           .lastTimestamp = optionalIntegerAt(table, row, 6)});
    }
    return summaries;
  });
}

std::expected<std::vector<std::string>, std::string> PostgresSessionStore::apiKeysOfSession(
    const std::string& deviceId, std::int64_t sessionId) {
  return withConnection<std::vector<std::string>>(
      [&](PGconn* connection) -> std::expected<std::vector<std::string>, std::string> {
        auto result =
            rows(connection,
                 "SELECT DISTINCT api_key COLLATE \"C\" FROM blocks WHERE device_id = $1 AND session_id = $2 "
                 "ORDER BY 1",
                 Parameters().text(deviceId).integer(sessionId));
        if (!result) return std::unexpected(result.error());
        return firstColumn(result->get());
      });
}

std::expected<std::vector<std::string>, std::string> PostgresSessionStore::events(const std::string& apiKey,
                                                                                  const std::string& deviceId,
                                                                                  std::int64_t sessionId) {
  return withConnection<std::vector<std::string>>(
      [&](PGconn* connection) -> std::expected<std::vector<std::string>, std::string> {
        auto result =
            rows(connection,
                 "SELECT json FROM events WHERE api_key = $1 AND device_id = $2 AND session_id = $3 "
                 "ORDER BY timestamp, seq_number, position",
                 Parameters().text(apiKey).text(deviceId).integer(sessionId));
        if (!result) return std::unexpected(result.error());
        return firstColumn(result->get());
      });
}

}  // namespace verdalune::sessionreplay::collector
