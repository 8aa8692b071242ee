#include "session_store.h"

#include "postgres_session_store.h"
#include "sqlite_session_store.h"

namespace verdalune::sessionreplay::collector {

bool isPostgresLocation(const std::string& location) {
  return location.starts_with("postgresql://") || location.starts_with("postgres://");
}

std::expected<std::unique_ptr<SessionStore>, std::string> openSessionStore(const std::string& location) {
  if (isPostgresLocation(location)) return PostgresSessionStore::open(location);
  return SqliteSessionStore::open(location);
}

}  // namespace verdalune::sessionreplay::collector
