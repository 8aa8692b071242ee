// Decodes arbitrary bytes as an rrweb event, as the web view bridge does with what a page sends. An
// event that decodes must survive encoding and decoding again unchanged: that is what lets page
// events be re-encoded into the recording without loss.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "rrweb/coding.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  namespace rrweb = verdalune::sessionreplay::rrweb;
  const auto first = rrweb::decodeEvent(std::string_view(reinterpret_cast<const char*>(data), size));
  if (!first) return 0;
  const std::string encoded = rrweb::encode(*first);
  const auto second = rrweb::decodeEvent(encoded);
  if (!second || !(*second == *first)) __builtin_trap();
  return 0;
}
