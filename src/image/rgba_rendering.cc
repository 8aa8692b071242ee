#include "image/rgba_rendering.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

namespace verdalune::sessionreplay::image {
namespace {

using platform::Bitmap;

constexpr std::uint8_t premultiply(std::uint32_t colour, std::uint32_t alpha) {
  return static_cast<std::uint8_t>((colour * alpha + 127) / 255);
}

std::uint8_t toByte(float value) {
  return static_cast<std::uint8_t>(std::clamp(value + 0.5f, 0.0f, 255.0f));
}

// How the source's bytes are read: its fourth byte is padding when it has no alpha, and its colours are
// multiplied by alpha on the way in when they are stored straight.
struct SourceFormat {
  bool hasAlpha;
  bool straight;

  explicit SourceFormat(const Bitmap& source)
      : hasAlpha(source.hasAlpha), straight(source.hasAlpha && !source.alphaPremultiplied) {}
};

// The same size: no averaging, only the alpha conversions, in integers.
void convertUnscaled(const Bitmap& source, SourceFormat format, bool keepAlpha, Bitmap& target) {
  for (std::uint32_t y = 0; y < source.height; ++y) {
    const std::uint8_t* in = source.pixels.data() + y * source.bytesPerRow;
    std::uint8_t* out = target.pixels.data() + y * target.bytesPerRow;
    for (std::uint32_t x = 0; x < source.width; ++x, in += 4, out += 4) {
      const std::uint32_t alpha = format.hasAlpha ? in[3] : 255;
      for (int c = 0; c < 3; ++c) {
        if (keepAlpha) {
          out[c] = alpha == 0 ? 0 : format.straight || alpha == 255 ? in[c] : unpremultiply(in[c], alpha);
        } else {
          out[c] = format.straight ? premultiply(in[c], alpha) : in[c];
        }
      }
      out[3] = keepAlpha ? static_cast<std::uint8_t>(alpha) : 255;
    }
  }
}

// The source pixels one target pixel covers along one axis, with the share of the target pixel each
// of them fills; the shares of one target pixel add up to 1.
struct Footprint {
  std::uint32_t first = 0;
  std::uint32_t count = 0;
  std::size_t weightsAt = 0;
};

struct Footprints {
  std::vector<Footprint> spans;
  std::vector<float> weights;
};

Footprints footprints(std::uint32_t sourceLength, std::uint32_t targetLength) {
  Footprints result;
  result.spans.reserve(targetLength);
  const double step = static_cast<double>(sourceLength) / targetLength;
  for (std::uint32_t t = 0; t < targetLength; ++t) {
    const double begin = t * step;
    const double end = std::min<double>((t + 1) * step, sourceLength);
    Footprint span{
        .first = static_cast<std::uint32_t>(begin), .count = 0, .weightsAt = result.weights.size()};
    for (std::uint32_t s = span.first; s < end; ++s) {
      const double covered = std::min<double>(s + 1, end) - std::max<double>(s, begin);
      if (covered <= 1e-9) continue;
      if (span.count == 0) span.first = s;
      result.weights.push_back(static_cast<float>(covered / step));
      ++span.count;
    }
    result.spans.push_back(span);
  }
  return result;
}

// Area averaging: rows are summed into one premultiplied float row per target row, then that row is
// averaged across. Every source pixel is read once or twice, whatever the ratio.
void convertScaled(const Bitmap& source, SourceFormat format, bool keepAlpha, Bitmap& target) {
  const Footprints across = footprints(source.width, target.width);
  const Footprints down = footprints(source.height, target.height);
  const std::size_t rowFloats = static_cast<std::size_t>(source.width) * 4;
  std::vector<float> loaded(rowFloats);
  std::vector<float> summed(rowFloats);
  std::uint32_t loadedRow = source.height;  // none yet

  auto load = [&](std::uint32_t row) {
    if (row == loadedRow) return;
    const std::uint8_t* in = source.pixels.data() + row * source.bytesPerRow;
    float* out = loaded.data();
    for (std::uint32_t x = 0; x < source.width; ++x, in += 4, out += 4) {
      const float alpha = format.hasAlpha ? in[3] : 255.0f;
      const float factor = format.straight ? alpha / 255.0f : 1.0f;
      out[0] = in[0] * factor;
      out[1] = in[1] * factor;
      out[2] = in[2] * factor;
      out[3] = alpha;
    }
    loadedRow = row;
  };

  for (std::uint32_t y = 0; y < target.height; ++y) {
    const Footprint& rows = down.spans[y];
    std::fill(summed.begin(), summed.end(), 0.0f);
    for (std::uint32_t r = 0; r < rows.count; ++r) {
      load(rows.first + r);
      const float weight = down.weights[rows.weightsAt + r];
      float* __restrict into = summed.data();
      const float* __restrict from = loaded.data();
      for (std::size_t i = 0; i < rowFloats; ++i) into[i] += from[i] * weight;
    }

    std::uint8_t* out = target.pixels.data() + y * target.bytesPerRow;
    for (std::uint32_t x = 0; x < target.width; ++x, out += 4) {
      const Footprint& columns = across.spans[x];
      float pixel[4] = {0, 0, 0, 0};
      const float* in = summed.data() + static_cast<std::size_t>(columns.first) * 4;
      for (std::uint32_t c = 0; c < columns.count; ++c, in += 4) {
        const float weight = across.weights[columns.weightsAt + c];
        for (int k = 0; k < 4; ++k) pixel[k] += in[k] * weight;
      }
      const std::uint8_t alpha = toByte(pixel[3]);
      for (int k = 0; k < 3; ++k) {
        const std::uint8_t colour = std::min(toByte(pixel[k]), alpha);
        out[k] = keepAlpha ? unpremultiply(colour, alpha) : toByte(pixel[k]);
      }
      out[3] = keepAlpha ? alpha : 255;
    }
  }
}

}  // namespace

bool isWellFormed(const Bitmap& bitmap) {
  if (bitmap.width == 0 || bitmap.height == 0) return false;
  const std::size_t minimumRow = static_cast<std::size_t>(bitmap.width) * 4;
  if (bitmap.bytesPerRow < minimumRow) return false;
  return bitmap.pixels.size() / bitmap.bytesPerRow >= bitmap.height - 1 &&
         bitmap.pixels.size() - (bitmap.height - 1) * bitmap.bytesPerRow >= minimumRow;
}

std::optional<Bitmap> renderRGBA(const Bitmap& source, std::uint32_t width, std::uint32_t height,
                                 bool keepAlpha) {
  if (!isWellFormed(source) || width == 0 || height == 0 || width > source.width || height > source.height) {
    return std::nullopt;
  }
  Bitmap target{.width = width,
                .height = height,
                .bytesPerRow = static_cast<std::size_t>(width) * 4,
                .hasAlpha = keepAlpha,
                .alphaPremultiplied = false,
                .scale = source.scale * width / source.width,
                .pixels = {}};
  target.pixels.resize(target.bytesPerRow * height);
  const SourceFormat format(source);
  if (width == source.width && height == source.height) {
    convertUnscaled(source, format, keepAlpha, target);
  } else {
    convertScaled(source, format, keepAlpha, target);
  }
  return target;
}

}  // namespace verdalune::sessionreplay::image
