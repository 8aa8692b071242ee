#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "verdalune/platform/geometry.h"

namespace verdalune::sessionreplay {

enum class EncodedImageType : std::uint8_t { png = 0, jpeg = 1, webp = 2 };

// One image as it travels in a recording: the encoded bytes, the hash the serializer names it by, and the
// size it had before it was scaled down for encoding. Immutable once made.
struct EncodedImageData {
  EncodedImageType type = EncodedImageType::webp;
  std::string hash;  // SHA-256 of `data`, 64 upper-case hexadecimal characters
  std::vector<std::uint8_t> data;
  platform::Size originalImageSize;
};

}  // namespace verdalune::sessionreplay
