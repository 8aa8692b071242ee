#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace verdalune::sessionreplay {

// An endpoint taken apart so that query items can be set, then put back together. Parsing fails on
// text that is not a URL reference (a space, a control character, a bad percent escape, a bad port);
// putting back together fails for parts that make no URL (a path that does not start with "/" after
// a host, or no scheme). Query item names and values are percent-encoded when the URL is made.
struct UrlComponents {
  std::string scheme;
  std::optional<std::string> host;
  std::optional<int> port;
  std::string path;
  std::vector<std::pair<std::string, std::string>> queryItems;

  [[nodiscard]] static std::optional<UrlComponents> parse(std::string_view text);
  [[nodiscard]] std::optional<std::string> url() const;
};

// Percent-encodes everything but the unreserved characters (letters, digits, "-", ".", "_", "~").
[[nodiscard]] std::string percentEncoded(std::string_view text);

}  // namespace verdalune::sessionreplay
