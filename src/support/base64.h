#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace verdalune::sessionreplay {

// Base64 with the standard alphabet and '=' padding (RFC 4648, section 4), no line breaks.
std::string base64Encode(std::span<const std::uint8_t> bytes);

// The bytes of `text`, or nothing unless it is exactly what base64Encode writes for some bytes: a
// multiple of four characters from the alphabet, padding only at the end, unused bits zero.
std::optional<std::vector<std::uint8_t>> base64Decode(std::string_view text);

}  // namespace verdalune::sessionreplay
