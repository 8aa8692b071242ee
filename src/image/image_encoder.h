#pragma once

#include <expected>
#include <memory>
#include <string>
#include <string_view>

#include "capture/layer_contents.h"
#include "image/encoded_image_data.h"
#include "verdalune/platform/contents.h"
#include "verdalune/platform/geometry.h"
#include "verdalune/platform/platform.h"

namespace verdalune::sessionreplay {

enum class ImageEncoderError {
  couldNotCreateCgContext,
  couldNotConvertToUiImage,
  couldNotUnpremultiplyAlpha,
  couldNotInitializePicture,
  invalidConfig,
  failedImport,
  failedEncode,
};

std::string_view describe(ImageEncoderError error);

// Where an image will be shown: what decides the pixel size it is encoded at. An image is never encoded
// larger than its source, and never much larger than the layer shows it on the device.
struct ImageGeometry {
  platform::Size sourceSize;  // the source's size in points; becomes the encoded image's originalImageSize
  platform::Size boundsSize;  // the layer's bounds, points
  std::string contentsGravity = "resize";
  double scale = 1;        // pixels per point of the source
  double deviceScale = 0;  // pixels per point the layer is shown at; 0 takes `scale`
};

// How hard lossy WebP works: libwebp's quality (0...100) and method (0 fastest ... 6 smallest). Pictures
// of few colours are coded losslessly at the fastest method whatever this says.
struct ImageEffort {
  static constexpr int kDefaultQuality = 50;
  static constexpr int kDefaultMethod = 0;
  int quality = kDefaultQuality;
  int method = kDefaultMethod;
  bool operator==(const ImageEffort&) const = default;
  bool isValid() const { return quality >= 0 && quality <= 100 && method >= 0 && method <= 6; }
};

// Turns layer contents into compact image bytes and a content hash, on the serializer's queue: WebP through
// libwebp (lossy, or exact for pictures of few colours), PNG when WebP fails. Thread-safe; keeps no state.
class ImageEncoder {
 public:
  // The pixel size an image of `geometry` is encoded at.
  static platform::Size targetPixelSize(const ImageGeometry& geometry);

  // Each draws its source into an RGBA buffer of the target size (flipped when the source's origin is at
  // the bottom) and encodes it. An image placed by a gravity (center, top, the corners, ...) that reaches
  // past the bounds is first cut to the part inside them, which is what shows; originalImageSize is then
  // that part's size, and the gravity still puts it where the whole image put it. `hasAlpha` chooses the RGBA
  // import (alpha kept, un-premultiplied) or the RGBX import (alpha ignored).
  static std::expected<EncodedImageData, ImageEncoderError> encode(const platform::Bitmap& bitmap,
                                                                   bool hasAlpha,
                                                                   const ImageGeometry& geometry,
                                                                   const ImageEffort& effort = {});
  static std::expected<EncodedImageData, ImageEncoderError> encode(const platform::Image& image,
                                                                   bool hasAlpha,
                                                                   const ImageGeometry& geometry,
                                                                   const ImageEffort& effort = {});

  // The fallback alone (PNG with alpha, JPEG at quality 0.5 without; labelled png either way), for tests.
  static std::expected<EncodedImageData, ImageEncoderError> encodeFallback(const platform::Bitmap& rgba,
                                                                           bool hasAlpha,
                                                                           platform::Size originalImageSize);
};

// SHA-256 of `bytes` as 64 upper-case hexadecimal characters.
std::string sha256Hex(std::string_view bytes);

// The pixels of a private surface copy as an RGBA bitmap (surfaces hold BGRA); absent for a format it
// cannot read. `scale` is the layer's contents scale.
std::optional<platform::Bitmap> bitmapFromSurface(platform::Surface& surface, double scale);

// Brings a surface snapshot up to date for encoding: a snapshot still holding its private surface has it
// replaced, under the snapshot's lock, by the bitmap of its pixels, so the copy's memory goes and the next
// encoding reads the bitmap. Returns the bitmap; null when the surface cannot be read.
std::shared_ptr<const platform::Bitmap> scaledBitmapOf(IOSurfaceSnapshotter::Snapshot& snapshot,
                                                       double scale);

// The part of `bitmap` inside the unit rectangle `rect`: the bitmap itself for the unit rectangle, null
// when the part is empty.
std::shared_ptr<const platform::Bitmap> crop(const std::shared_ptr<const platform::Bitmap>& bitmap,
                                             const platform::Rect& rect);

}  // namespace verdalune::sessionreplay
