#pragma once

#include <cstddef>
#include <expected>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

namespace verdalune::sessionreplay::collector {

// The node_modules folder of the source tree the collector was built from.
[[nodiscard]] std::string defaultAssetsDir();

struct CommandLine {
  std::string host = "127.0.0.1";
  int port = 0;                                    // 0: the system picks a free port
  std::string database = "vdl-collector.sqlite3";  // a file path, or a postgresql:// URI
  std::vector<std::string> apiKeys;
  std::map<std::string, std::string> configFiles;  // api key -> remote configuration JSON file
  std::size_t maxBodyBytes = 20 * 1024 * 1024;
  std::size_t maxEventBytes = 16 * 1024 * 1024;
  std::size_t maxBlockBytes = 64 * 1024 * 1024;
  std::string assetsDir = defaultAssetsDir();  // node_modules, holding rrweb-player
  bool watchStdin = false;
  std::optional<std::string> testControlToken;  // --test-controls: the routes exist only with it
  std::vector<std::string> allowedHosts;        // lowercase
  std::optional<std::string> readToken;
  bool openReads = false;  // only on a loopback address
  int headerDeadlineSeconds = 20;
  std::size_t maxConnectionsPerClient = 16;
  std::size_t minBodyBytesPerSecond = 1024;
};

struct HelpRequested {};

// The arguments after the program name. Each option takes its value as the next argument or after
// '='. An error is a one-line reason.
[[nodiscard]] std::expected<std::variant<CommandLine, HelpRequested>, std::string> parseCommandLine(
    std::span<const char* const> arguments);

[[nodiscard]] std::string usage();

}  // namespace verdalune::sessionreplay::collector
