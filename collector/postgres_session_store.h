#pragma once

#include <libpq-fe.h>

#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "session_store.h"

namespace verdalune::sessionreplay::collector {

// The sessions the collector has received, in a PostgreSQL database that any number of collector
// processes share: a block's key is unique in the table itself, so whichever process stores it first
// keeps it, and the others find it there.
//
// Each call borrows a connection of its own from a pool that grows to the number of calls at once, so
// the server's workers do not wait for each other here.
class PostgresSessionStore final : public SessionStore {
 public:
  // Connects to `uri` (a postgresql:// connection URI), and makes or brings up to date the schema; two
  // collectors starting at once take turns.
  [[nodiscard]] static std::expected<std::unique_ptr<PostgresSessionStore>, std::string> open(
      const std::string& uri);

  ~PostgresSessionStore() override;
  PostgresSessionStore(const PostgresSessionStore&) = delete;
  PostgresSessionStore& operator=(const PostgresSessionStore&) = delete;

  [[nodiscard]] std::expected<Stored, std::string> storeBlock(const BlockKey& key,
                                                              std::span<const ReceivedEvent> events) override;
  [[nodiscard]] std::expected<std::vector<SessionSummary>, std::string> sessions() override;
  [[nodiscard]] std::expected<std::vector<std::string>, std::string> apiKeysOfSession(
      const std::string& deviceId, std::int64_t sessionId) override;
  [[nodiscard]] std::expected<std::vector<std::string>, std::string> events(const std::string& apiKey,
                                                                            const std::string& deviceId,
                                                                            std::int64_t sessionId) override;

 private:
  explicit PostgresSessionStore(std::string uri) : uri_(std::move(uri)) {}

  // Runs `work` on a pooled connection. A pooled connection the server has closed meanwhile (a restart,
  // an idle timeout) fails its first call; then the work runs once more on a new connection, which is
  // safe for every call here, storing included, since a block stored twice is stored once.
  template <typename T>
  std::expected<T, std::string> withConnection(
      const std::function<std::expected<T, std::string>(PGconn*)>& work);

  [[nodiscard]] std::expected<PGconn*, std::string> connect() const;
  void giveBack(PGconn* connection);

  std::string uri_;
  std::mutex mutex_;
  std::vector<PGconn*> idle_;  // guarded by mutex_
};

}  // namespace verdalune::sessionreplay::collector
