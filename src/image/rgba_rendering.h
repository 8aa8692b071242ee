#pragma once

#include <cstdint>
#include <optional>

#include "verdalune/platform/contents.h"

// Drawing a source bitmap into the buffer the image codecs read: tightly packed RGBA at the size the
// image is encoded at. Internal to the image encoder; a header of its own so its arithmetic can be tested
// exactly, without a lossy codec in between.
namespace verdalune::sessionreplay::image {

// Whether `bitmap`'s rows fit in its pixel buffer, `bytesPerRow` apart, 4 bytes a pixel.
bool isWellFormed(const platform::Bitmap& bitmap);

// `source` scaled to `width` × `height` pixels, which must not exceed the source's: each target pixel is
// the area average of the source pixels it covers, computed on premultiplied colours so transparent
// pixels do not bleed their colour into their neighbours. Bitmap rows run top to bottom, so nothing is
// flipped.
//
// With `keepAlpha` the result carries straight (un-premultiplied) colours: each colour × 255 / alpha,
// rounded, and 0 where alpha is 0. Without it the colours are those composited over black and the
// fourth byte is 255. Absent for an empty size, a malformed source or a target larger than the source.
std::optional<platform::Bitmap> renderRGBA(const platform::Bitmap& source, std::uint32_t width,
                                           std::uint32_t height, bool keepAlpha);

// The straight colour of a premultiplied channel: round(colour × 255 / alpha), 0 for alpha 0, at most 255.
constexpr std::uint8_t unpremultiply(std::uint32_t colour, std::uint32_t alpha) {
  if (alpha == 0) return 0;
  const std::uint32_t straight = (colour * 255 + alpha / 2) / alpha;
  return static_cast<std::uint8_t>(straight > 255 ? 255 : straight);
}

}  // namespace verdalune::sessionreplay::image
