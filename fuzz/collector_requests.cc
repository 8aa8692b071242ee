// Feeds arbitrary bytes to every reader of what a client sends the collector: as an upload body, a
// query string, an Authorization or Content-Type value, a fault list and a session route path. Nothing
// may crash, a query must read back the same after its items are percent-encoded again, and a fault
// that is accepted must be one the server can act on.
#include <cstddef>
#include <cstdint>
#include <regex>
#include <string>
#include <string_view>

#include "request_parsing.h"
#include "track_body.h"

namespace collector = verdalune::sessionreplay::collector;

namespace {

// Every byte as %XY, so that nothing in the text is taken as a separator or an escape.
std::string percentEncoded(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    out += {'%', kHex[byte >> 4], kHex[byte & 0xF]};
  }
  return out;
}

// The route patterns run through the standard library's backtracking matcher, which is slow on long
// paths; the short ones already cover every way our code reads a match.
constexpr std::size_t kMaxRoutedPath = 256;

void route(const std::regex& pattern, std::string_view path) {
  std::match_results<std::string_view::const_iterator> match;
  if (!std::regex_match(path.begin(), path.end(), match, pattern)) return;
  (void)collector::sessionRouteOf(std::string_view(match[1].first, match[1].second),
                                  std::string_view(match[2].first, match[2].second));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);

  (void)collector::decodeTrackBody(text);
  (void)collector::bearerKeyOf(text);
  (void)collector::isJsonContentType(text);

  const auto items = collector::parseQuery(text);
  (void)collector::blockKeyOf(items, "api-key");
  (void)collector::sessionEventsQueryOf(items);
  std::string reencoded;
  for (const auto& [name, value] : items) {
    // An empty item is skipped, so an item with an empty name keeps its '=' to stay one.
    reencoded += percentEncoded(name) + "=" + percentEncoded(value) + "&";
  }
  if (collector::parseQuery(reencoded) != items) __builtin_trap();

  if (const auto faults = collector::parseFaults(text)) {
    for (const auto& fault : *faults) {
      if ((fault.status != 0 && (fault.status < 100 || fault.status > 599)) || fault.delayMs < 0)
        __builtin_trap();
    }
  }

  if (size <= kMaxRoutedPath) {
    static const std::regex events(collector::kSessionEventsRoute);
    static const std::regex page(collector::kSessionPageRoute);
    route(events, text);
    route(page, text);
  }
  return 0;
}
