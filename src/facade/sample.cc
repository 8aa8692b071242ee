#include "facade/sample.h"

#include <charconv>
#include <limits>

namespace verdalune::sessionreplay {

bool Sample::isInSample(std::int64_t sessionId, float sampleRate) {
  char text[24];
  auto [end, error] = std::to_chars(text, text + sizeof text, sessionId);
  (void)error;  // 24 characters always hold a 64-bit integer

  // Wrap-around arithmetic is done in unsigned integers, where overflow is defined.
  std::uint64_t hash = 0;
  for (const char* c = text; c != end; ++c) hash = hash * 31 + static_cast<unsigned char>(*c);
  auto h = static_cast<std::int64_t>(hash);
  if (h == std::numeric_limits<std::int64_t>::min()) __builtin_trap();
  if (h < 0) h = -h;

  const auto m = static_cast<std::int64_t>(static_cast<std::uint64_t>(h) * 31);
  const std::int64_t r = m % 100;
  return static_cast<float>(r) / 100.0f < sampleRate;
}

}  // namespace verdalune::sessionreplay
