#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace verdalune::sessionreplay {

// What every request says about the client: the host application's bundle identifier and the
// library's own version text, either of which may be missing.
struct ClientInfo {
  std::optional<std::string> bundleIdentifier;
  std::optional<std::string> libraryVersion;
};

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

// The headers every request of the library carries, in the order they are sent: "Content-Type",
// "Accept", "X-Client-Version", "X-Client-Bundle-Id", "X-Client-Library", "X-Client-Platform".
[[nodiscard]] inline HttpHeaders commonHeaders(const ClientInfo& client) {
  return {
      {"Content-Type", "application/json"},
      {"Accept", "*/*"},
      {"X-Client-Version", "2"},
      {"X-Client-Bundle-Id", client.bundleIdentifier.value_or("")},
      {"X-Client-Library", "session-replay-ios/" + client.libraryVersion.value_or("<unknown>")},
      {"X-Client-Platform", "ios"},
  };
}

}  // namespace verdalune::sessionreplay
