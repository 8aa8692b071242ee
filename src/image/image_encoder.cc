#include "image/image_encoder.h"

// jpeglib.h uses FILE without including <stdio.h>.
#include <cstdio>
// clang-format off
#include <jpeglib.h>
// clang-format on
#include <openssl/evp.h>
#include <png.h>
#include <webp/encode.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <csetjmp>
#include <cstring>
#include <limits>
#include <utility>
#include <variant>
#include <vector>

#include "image/rgba_rendering.h"

namespace verdalune::sessionreplay {
namespace {

using platform::Bitmap;
using platform::Size;

// Runs `release` when the scope ends, however it ends.
template <typename Release>
class ScopeExit {
 public:
  explicit ScopeExit(Release release) : release_(std::move(release)) {}
  ~ScopeExit() { release_(); }
  ScopeExit(const ScopeExit&) = delete;
  ScopeExit& operator=(const ScopeExit&) = delete;

 private:
  Release release_;
};

using Bytes = std::vector<std::uint8_t>;

EncodedImageData makeEncoded(EncodedImageType type, Bytes bytes, Size originalImageSize) {
  EncodedImageData result;
  result.type = type;
  result.hash = sha256Hex({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  result.data = std::move(bytes);
  result.originalImageSize = originalImageSize;
  return result;
}

// ---- sizing

// How a contents gravity shows an image in the layer's bounds.
enum class Fit {
  stretch,  // resize: both axes stretched to the bounds
  contain,  // resizeAspect: scaled uniformly to fit inside the bounds
  cover,    // resizeAspectFill: scaled uniformly to fill the bounds
  place,    // center, top, topLeft, ...: drawn at its own size, clipped by the bounds
};

Fit fitOf(std::string_view gravity) {
  static constexpr std::array<std::string_view, 9> kPlacing{
      "center", "top", "bottom", "left", "right", "topLeft", "topRight", "bottomLeft", "bottomRight"};
  if (gravity == "resizeAspect") return Fit::contain;
  if (gravity == "resizeAspectFill") return Fit::cover;
  if (std::ranges::find(kPlacing, gravity) != kPlacing.end()) return Fit::place;
  // "resize" and any value the platform does not know, which it draws as resize.
  return Fit::stretch;
}

// Whole pixels in a length; 0 for anything that is not a positive finite length.
double wholePixels(double length) {
  if (!std::isfinite(length) || length <= 0) return 0;
  return std::round(std::min(length, static_cast<double>(UINT32_MAX)));
}

// The pixels a length of the bounds needs: a fractional pixel counts as a whole one, rounding noise
// does not. At least one pixel, so a layer of zero size still gets an (invisible) image instead of an
// error; no limit at all for a length that is not finite.
double boundsPixels(double length) {
  if (std::isnan(length) || length == std::numeric_limits<double>::infinity()) {
    return std::numeric_limits<double>::infinity();
  }
  return std::max(1.0, std::ceil(length - 1e-6));
}

// Images placed by gravity show at their own size, but only inside the bounds; this much of the bounds
// is kept in pixels, a margin over the part that shows so that a slightly larger image is not scaled.
constexpr double kPlacedImageMargin = 1.2;

// Where a placing gravity puts an image along each axis, as the replay's background-position keywords
// put it: 0 at the start, 0.5 centred, 1 at the end. Absent for the other gravities, and for "right",
// which the replay shows centred at the image's own pixel size.
std::optional<std::pair<double, double>> alignmentOf(std::string_view gravity) {
  if (gravity == "center") return std::pair{0.5, 0.5};
  if (gravity == "top") return std::pair{0.5, 0.0};
  if (gravity == "bottom") return std::pair{0.5, 1.0};
  if (gravity == "left") return std::pair{0.0, 0.5};
  if (gravity == "topLeft") return std::pair{0.0, 0.0};
  if (gravity == "topRight") return std::pair{1.0, 0.0};
  if (gravity == "bottomLeft") return std::pair{0.0, 1.0};
  if (gravity == "bottomRight") return std::pair{1.0, 1.0};
  return std::nullopt;
}

// The pixels [first, last) of an axis of `pixels` pixels that show of an image `length` points long,
// aligned by `alignment` in `bounds` points: the element's background never paints outside it. Widened
// to whole pixels (rounding noise aside), so the kept part, aligned the same way, lands where it was.
std::pair<double, double> visiblePixels(double pixels, double length, double bounds, double alignment) {
  if (!(length > bounds) || !std::isfinite(length) || !std::isfinite(bounds) || bounds < 0) {
    return {0, pixels};
  }
  constexpr double kNoise = 1e-6;
  const double perPoint = pixels / length;
  const double offset = alignment * (bounds - length);  // where the image starts, before the bounds
  const double first = std::clamp(std::floor(-offset * perPoint + kNoise), 0.0, pixels);
  const double last = std::clamp(std::ceil((bounds - offset) * perPoint - kNoise), first, pixels);
  return {first, last == first ? std::min(pixels, first + 1) : last};
}

// ---- WebP

// Whether the picture has at most 256 colours (alpha included), as text, icons and flat shapes do.
// Gives up at the 257th colour, so a photo costs a few rows.
bool hasFewColors(const Bitmap& rgba) {
  constexpr std::size_t kMaxColors = 256;
  constexpr std::size_t kSlots = 1024;  // a power of two, under half full at the limit
  std::array<std::uint32_t, kSlots> slots{};
  std::array<bool, kSlots> used{};
  std::size_t colors = 0;
  for (std::uint32_t y = 0; y < rgba.height; ++y) {
    const std::uint8_t* row = rgba.pixels.data() + y * rgba.bytesPerRow;
    std::uint32_t previous = 0;
    bool first = true;
    for (std::uint32_t x = 0; x < rgba.width; ++x) {
      std::uint32_t color;
      std::memcpy(&color, row + std::size_t{x} * 4, 4);
      if (!first && color == previous) continue;  // runs of one colour are the common case
      first = false;
      previous = color;
      std::size_t slot = (color * 0x9E3779B1u) >> 22;
      while (used[slot] && slots[slot] != color) slot = (slot + 1) & (kSlots - 1);
      if (used[slot]) continue;
      if (++colors > kMaxColors) return false;
      used[slot] = true;
      slots[slot] = color;
    }
  }
  return true;
}

std::expected<Bytes, ImageEncoderError> encodeWebP(const Bitmap& rgba, bool hasAlpha,
                                                   const ImageEffort& effort) {
  // By default the preset at quality 50 with the fastest method: speed and size over fidelity.
  WebPConfig config;
  if (!WebPConfigInit(&config) ||
      !WebPConfigPreset(&config, WEBP_PRESET_DEFAULT, static_cast<float>(effort.quality))) {
    return std::unexpected(ImageEncoderError::invalidConfig);
  }
  config.method = effort.method;
  // A picture of few colours (text, icons, flat shapes) is kept exactly, as a palette: at the fastest
  // method that is about half the time of lossy coding with its separate alpha plane, and fewer bytes
  // for text. Photos and gradients stay lossy.
  config.lossless = hasFewColors(rgba) ? 1 : 0;
  if (config.lossless) {
    config.quality = ImageEffort::kDefaultQuality;
    config.method = 0;
  }
  // The fast alpha filter tries predictors on the alpha plane and, at this method, nearly always keeps
  // none: the same bytes for text, icons and soft shadows, at up to twice the time. Not trying is cheaper.
  config.alpha_filtering = 0;

  WebPMemoryWriter writer;
  WebPMemoryWriterInit(&writer);
  WebPPicture picture;
  bool pictureReady = false;
  const ScopeExit release([&] {
    WebPMemoryWriterClear(&writer);
    if (pictureReady) WebPPictureFree(&picture);
  });

  if (!WebPPictureInit(&picture)) return std::unexpected(ImageEncoderError::couldNotInitializePicture);
  pictureReady = true;
  constexpr std::uint64_t kLimit = std::numeric_limits<std::int32_t>::max();
  if (rgba.width > kLimit || rgba.height > kLimit || rgba.bytesPerRow > kLimit) {
    return std::unexpected(ImageEncoderError::failedImport);
  }
  picture.width = static_cast<int>(rgba.width);
  picture.height = static_cast<int>(rgba.height);
  picture.use_argb = config.lossless;  // imported as it is, not through YUV, for lossless coding
  const int stride = static_cast<int>(rgba.bytesPerRow);
  const bool imported = hasAlpha ? WebPPictureImportRGBA(&picture, rgba.pixels.data(), stride)
                                 : WebPPictureImportRGBX(&picture, rgba.pixels.data(), stride);
  if (!imported) return std::unexpected(ImageEncoderError::failedImport);

  picture.writer = WebPMemoryWrite;
  picture.custom_ptr = &writer;
  if (!WebPEncode(&config, &picture)) return std::unexpected(ImageEncoderError::failedEncode);
  return Bytes(writer.mem, writer.mem + writer.size);
}

// ---- PNG

std::optional<Bytes> encodePng(const Bitmap& rgba) {
  if (rgba.bytesPerRow > static_cast<std::size_t>(INT_MAX)) return std::nullopt;
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  image.width = rgba.width;
  image.height = rgba.height;
  image.format = PNG_FORMAT_RGBA;  // straight alpha, as PNG stores it
  png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(image);
  Bytes bytes(size);
  const int stride = static_cast<int>(rgba.bytesPerRow);  // components of one byte each
  const bool written =
      png_image_write_to_memory(&image, bytes.data(), &size, 0, rgba.pixels.data(), stride, nullptr);
  png_image_free(&image);
  if (!written) return std::nullopt;
  bytes.resize(size);
  return bytes;
}

// ---- JPEG
//
// libjpeg reports errors by calling a function that must not return; it jumps back to compressJpeg,
// which therefore holds no object with a destructor. The bytes grow in a buffer owned by the job.

struct JpegJob {
  jpeg_compress_struct compressor{};
  jpeg_error_mgr errors{};
  jpeg_destination_mgr destination{};
  std::jmp_buf failed{};
  Bytes bytes;
};

JpegJob& jobOf(j_compress_ptr compressor) {
  return *static_cast<JpegJob*>(compressor->client_data);
}

[[noreturn]] void jpegFailed(j_common_ptr compressor) {
  std::longjmp(static_cast<JpegJob*>(compressor->client_data)->failed, 1);
}

void jpegStart(j_compress_ptr compressor) {
  JpegJob& job = jobOf(compressor);
  bool grown = true;
  try {
    job.bytes.resize(64 * 1024);
  } catch (const std::bad_alloc&) {
    grown = false;
  }
  if (!grown) jpegFailed(reinterpret_cast<j_common_ptr>(compressor));
  job.destination.next_output_byte = job.bytes.data();
  job.destination.free_in_buffer = job.bytes.size();
}

// The buffer is full: double it and carry on after what was written.
boolean jpegGrow(j_compress_ptr compressor) {
  JpegJob& job = jobOf(compressor);
  const std::size_t written = job.bytes.size();
  bool grown = true;
  try {
    job.bytes.resize(written * 2);
  } catch (const std::bad_alloc&) {
    grown = false;
  }
  if (!grown) jpegFailed(reinterpret_cast<j_common_ptr>(compressor));
  job.destination.next_output_byte = job.bytes.data() + written;
  job.destination.free_in_buffer = job.bytes.size() - written;
  return TRUE;
}

void jpegFinish(j_compress_ptr compressor) {
  JpegJob& job = jobOf(compressor);
  job.bytes.resize(job.bytes.size() - job.destination.free_in_buffer);
}

bool compressJpeg(JpegJob& job, const Bitmap& rgb, int quality) {
  j_compress_ptr compressor = &job.compressor;
  compressor->err = jpeg_std_error(&job.errors);
  job.errors.error_exit = jpegFailed;
  job.errors.output_message = [](j_common_ptr) {};  // warnings are not worth a line on stderr
  compressor->client_data = &job;
  if (setjmp(job.failed)) {
    jpeg_destroy_compress(compressor);
    return false;
  }
  jpeg_create_compress(compressor);
  compressor->client_data = &job;
  job.destination.init_destination = jpegStart;
  job.destination.empty_output_buffer = jpegGrow;
  job.destination.term_destination = jpegFinish;
  compressor->dest = &job.destination;

  compressor->image_width = rgb.width;
  compressor->image_height = rgb.height;
  compressor->input_components = 4;
  compressor->in_color_space = JCS_EXT_RGBX;  // the fourth byte is skipped
  jpeg_set_defaults(compressor);
  jpeg_set_quality(compressor, quality, TRUE);
  jpeg_start_compress(compressor, TRUE);
  while (compressor->next_scanline < compressor->image_height) {
    JSAMPROW row = const_cast<JSAMPROW>(rgb.pixels.data() + compressor->next_scanline * rgb.bytesPerRow);
    jpeg_write_scanlines(compressor, &row, 1);
  }
  jpeg_finish_compress(compressor);
  jpeg_destroy_compress(compressor);
  return true;
}

std::optional<Bytes> encodeJpeg(const Bitmap& rgb, int quality) {
  JpegJob job;
  if (!compressJpeg(job, rgb, quality)) return std::nullopt;
  return std::move(job.bytes);
}

// ---- rendering and encoding

// The pixels [x0, x1) × [y0, y1) of a well-formed bitmap, a non-empty part of it.
Bitmap cropPixels(const Bitmap& bitmap, double x0, double y0, double x1, double y1) {
  const auto column = static_cast<std::size_t>(x0);
  const auto row = static_cast<std::size_t>(y0);
  Bitmap part{.width = static_cast<std::uint32_t>(x1 - x0),
              .height = static_cast<std::uint32_t>(y1 - y0),
              .bytesPerRow = static_cast<std::size_t>(x1 - x0) * 4,
              .hasAlpha = bitmap.hasAlpha,
              .alphaPremultiplied = bitmap.alphaPremultiplied,
              .scale = bitmap.scale,
              .pixels = {}};
  part.pixels.resize(part.bytesPerRow * part.height);
  for (std::uint32_t y = 0; y < part.height; ++y) {
    const std::uint8_t* from = bitmap.pixels.data() + (row + y) * bitmap.bytesPerRow + column * 4;
    std::copy_n(from, part.bytesPerRow, part.pixels.data() + y * part.bytesPerRow);
  }
  return part;
}

std::expected<EncodedImageData, ImageEncoderError> encodeRendered(const Bitmap& rgba, bool hasAlpha,
                                                                  Size originalImageSize,
                                                                  const ImageEffort& effort) {
  std::expected<Bytes, ImageEncoderError> webp = encodeWebP(rgba, hasAlpha, effort);
  if (webp) return makeEncoded(EncodedImageType::webp, std::move(*webp), originalImageSize);
  // Why WebP failed does not matter to the caller, only whether any image can be made.
  return ImageEncoder::encodeFallback(rgba, hasAlpha, originalImageSize);
}

std::uint32_t toPixelCount(double value) {
  return static_cast<std::uint32_t>(std::clamp(value, 0.0, static_cast<double>(UINT32_MAX)));
}

}  // namespace

std::string_view describe(ImageEncoderError error) {
  switch (error) {
    case ImageEncoderError::couldNotCreateCgContext:
      return "couldNotCreateCgContext";
    case ImageEncoderError::couldNotConvertToUiImage:
      return "couldNotConvertToUiImage";
    case ImageEncoderError::couldNotUnpremultiplyAlpha:
      return "couldNotUnpremultiplyAlpha";
    case ImageEncoderError::couldNotInitializePicture:
      return "couldNotInitializePicture";
    case ImageEncoderError::invalidConfig:
      return "invalidConfig";
    case ImageEncoderError::failedImport:
      return "failedImport";
    case ImageEncoderError::failedEncode:
      return "failedEncode";
  }
  return "unknown";
}

// The sizing rule. A recording is replayed in points, so pixels beyond what the layer shows only cost
// encoding time and bytes:
// - never more pixels than the source has (sourceSize × scale);
// - the layer's pixels are its bounds × the device's scale (deviceScale, else the source's);
// - resize: each axis at most the layer's pixels, since the image is stretched onto the bounds anyway;
// - resizeAspect / resizeAspectFill: scaled uniformly (the replay keeps the aspect ratio, "contain" and
//   "cover") by the factor the layer shows it at, the smaller or the larger of the two axis ratios;
// - placing gravities (center, top, ..., the corners): the image shows at its own size, cut to the
//   bounds, so each axis is at most the layer's pixels × 1.2. A bitmap is cut to the part that shows
//   before this (see encode), so what this scales down is a part finer than the device shows, or a
//   drawn image without a bitmap.
// Every cap keeps at least one pixel.
Size ImageEncoder::targetPixelSize(const ImageGeometry& geometry) {
  const double scale = std::isfinite(geometry.scale) && geometry.scale > 0 ? geometry.scale : 1;
  const Size source{wholePixels(geometry.sourceSize.width * scale),
                    wholePixels(geometry.sourceSize.height * scale)};
  if (source.width == 0 || source.height == 0) return {0, 0};

  const Size bounds = geometry.boundsSize;
  const double device =
      std::isfinite(geometry.deviceScale) && geometry.deviceScale > 0 ? geometry.deviceScale : scale;
  switch (fitOf(geometry.contentsGravity)) {
    case Fit::stretch:
      return {std::min(source.width, boundsPixels(bounds.width * device)),
              std::min(source.height, boundsPixels(bounds.height * device))};
    case Fit::place:
      return {std::min(source.width, boundsPixels(bounds.width * device * kPlacedImageMargin)),
              std::min(source.height, boundsPixels(bounds.height * device * kPlacedImageMargin))};
    case Fit::contain:
    case Fit::cover: {
      const double across = bounds.width / geometry.sourceSize.width;
      const double down = bounds.height / geometry.sourceSize.height;
      const double factor =
          fitOf(geometry.contentsGravity) == Fit::contain ? std::min(across, down) : std::max(across, down);
      if (!(factor < 1)) return source;  // also for a ratio that is not a number
      return {std::max(1.0, std::round(source.width * std::max(factor, 0.0))),
              std::max(1.0, std::round(source.height * std::max(factor, 0.0)))};
    }
  }
  return source;
}

std::expected<EncodedImageData, ImageEncoderError> ImageEncoder::encode(const Bitmap& bitmap, bool hasAlpha,
                                                                        const ImageGeometry& geometry,
                                                                        const ImageEffort& effort) {
  // A placed image larger than the bounds shows only its part inside them: encoding the whole and
  // shrinking it to fit the encoded size would leave the part that shows blurred.
  if (const auto alignment = alignmentOf(geometry.contentsGravity);
      alignment && image::isWellFormed(bitmap)) {
    const Size source = geometry.sourceSize;
    const Size bounds = geometry.boundsSize;
    const auto [x0, x1] = visiblePixels(bitmap.width, source.width, bounds.width, alignment->first);
    const auto [y0, y1] = visiblePixels(bitmap.height, source.height, bounds.height, alignment->second);
    if (x1 - x0 < bitmap.width || y1 - y0 < bitmap.height) {
      ImageGeometry shown = geometry;
      shown.sourceSize = {source.width * (x1 - x0) / bitmap.width, source.height * (y1 - y0) / bitmap.height};
      return encode(cropPixels(bitmap, x0, y0, x1, y1), hasAlpha, shown, effort);
    }
  }
  const Size target = targetPixelSize(geometry);
  // The geometry speaks for the source; the bitmap is what there is to draw from.
  const std::uint32_t width = std::min(toPixelCount(target.width), bitmap.width);
  const std::uint32_t height = std::min(toPixelCount(target.height), bitmap.height);
  const std::optional<Bitmap> rgba = image::renderRGBA(bitmap, width, height, hasAlpha);
  if (!rgba) return std::unexpected(ImageEncoderError::couldNotCreateCgContext);
  return encodeRendered(*rgba, hasAlpha, geometry.sourceSize, effort);
}

std::expected<EncodedImageData, ImageEncoderError> ImageEncoder::encode(const platform::Image& image,
                                                                        bool hasAlpha,
                                                                        const ImageGeometry& geometry,
                                                                        const ImageEffort& effort) {
  if (const std::shared_ptr<const Bitmap> bitmap = image.bitmap()) {
    return encode(*bitmap, hasAlpha, geometry, effort);
  }
  // An image without a bitmap (a symbol) is drawn right at the size it is encoded at, in points at its
  // own scale, so a vector image stays sharp.
  const Size target = targetPixelSize(geometry);
  if (target.width == 0 || target.height == 0)
    return std::unexpected(ImageEncoderError::couldNotCreateCgContext);
  const double scale = std::isfinite(image.scale()) && image.scale() > 0 ? image.scale() : 1;
  const std::optional<Bitmap> drawn = image.draw({target.width / scale, target.height / scale}, !hasAlpha);
  if (!drawn) return std::unexpected(ImageEncoderError::couldNotCreateCgContext);
  return encode(*drawn, hasAlpha, geometry, effort);
}

std::expected<EncodedImageData, ImageEncoderError> ImageEncoder::encodeFallback(const Bitmap& rgba,
                                                                                bool hasAlpha,
                                                                                Size originalImageSize) {
  if (!image::isWellFormed(rgba)) return std::unexpected(ImageEncoderError::couldNotConvertToUiImage);
  constexpr int kJpegQuality = 50;
  std::optional<Bytes> bytes = hasAlpha ? encodePng(rgba) : encodeJpeg(rgba, kJpegQuality);
  if (!bytes || bytes->empty()) return std::unexpected(ImageEncoderError::failedEncode);
  // Labelled png for the JPEG bytes too, on purpose: the replay's browser sniffs the bytes and decodes a
  // JPEG behind an image/png data URL all the same.
  return makeEncoded(EncodedImageType::png, std::move(*bytes), originalImageSize);
}

std::string sha256Hex(std::string_view bytes) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  if (!EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, EVP_sha256(), nullptr)) return {};
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string hex;
  hex.reserve(length * 2);
  for (unsigned int i = 0; i < length; ++i) {
    hex.push_back(kHex[digest[i] >> 4]);
    hex.push_back(kHex[digest[i] & 0xF]);
  }
  return hex;
}

std::optional<Bitmap> bitmapFromSurface(platform::Surface& surface, double scale) {
  if (surface.pixelFormat() != platform::fourCharCode("BGRA")) return std::nullopt;
  if (!surface.lock(platform::SurfaceAccess::readOnly)) return std::nullopt;
  const ScopeExit unlock([&] { surface.unlock(platform::SurfaceAccess::readOnly); });

  const std::uint32_t width = surface.width();
  const std::uint32_t height = surface.height();
  const std::size_t bytesPerRow = surface.bytesPerRow();
  const std::span<const std::byte> bytes = surface.bytes();
  const std::size_t rowBytes = static_cast<std::size_t>(width) * 4;
  if (width == 0 || height == 0 || bytesPerRow < rowBytes || bytes.size() / bytesPerRow < height - 1 ||
      bytes.size() - (height - 1) * bytesPerRow < rowBytes) {
    return std::nullopt;
  }

  Bitmap bitmap{.width = width,
                .height = height,
                .bytesPerRow = rowBytes,
                .hasAlpha = true,
                .alphaPremultiplied = true,
                .scale = std::isfinite(scale) && scale > 0 ? scale : 1,
                .pixels = Bytes(rowBytes * height)};
  bool opaque = true;
  for (std::uint32_t y = 0; y < height; ++y) {
    const auto* in = reinterpret_cast<const std::uint8_t*>(bytes.data() + y * bytesPerRow);
    std::uint8_t* out = bitmap.pixels.data() + y * rowBytes;
    for (std::uint32_t x = 0; x < width; ++x, in += 4, out += 4) {
      out[0] = in[2];
      out[1] = in[1];
      out[2] = in[0];
      out[3] = in[3];
      opaque = opaque && in[3] == 255;
    }
  }
  // Video frames fill every pixel; encoding them without alpha skips an alpha plane nobody sees.
  bitmap.hasAlpha = !opaque;
  return bitmap;
}

std::shared_ptr<const Bitmap> scaledBitmapOf(IOSurfaceSnapshotter::Snapshot& snapshot, double scale) {
  IOSurfaceSnapshotter::Content content = snapshot.content();
  if (auto* bitmap = std::get_if<std::shared_ptr<const Bitmap>>(&content)) return *bitmap;
  const auto& surface = std::get<std::shared_ptr<platform::Surface>>(content);
  if (!surface) return nullptr;
  std::optional<Bitmap> pixels = bitmapFromSurface(*surface, scale);
  if (!pixels) return nullptr;
  auto bitmap = std::make_shared<const Bitmap>(std::move(*pixels));
  // The surface copy goes with this: the snapshot now holds only the bitmap.
  snapshot.replaceContent(bitmap);
  return bitmap;
}

std::shared_ptr<const Bitmap> crop(const std::shared_ptr<const Bitmap>& bitmap, const platform::Rect& rect) {
  if (!bitmap) return nullptr;
  if (rect == platform::kUnitRect) return bitmap;
  // The unit rectangle in pixels, widened to whole pixels (rounding noise aside) and cut to the bitmap.
  constexpr double kNoise = 1e-6;
  const double width = bitmap->width;
  const double height = bitmap->height;
  const double left = width * std::min(rect.origin.x, rect.origin.x + rect.size.width);
  const double right = width * std::max(rect.origin.x, rect.origin.x + rect.size.width);
  const double top = height * std::min(rect.origin.y, rect.origin.y + rect.size.height);
  const double bottom = height * std::max(rect.origin.y, rect.origin.y + rect.size.height);
  if (!std::isfinite(left) || !std::isfinite(right) || !std::isfinite(top) || !std::isfinite(bottom)) {
    return nullptr;
  }
  const double x0 = std::clamp(std::floor(left + kNoise), 0.0, width);
  const double x1 = std::clamp(std::ceil(right - kNoise), 0.0, width);
  const double y0 = std::clamp(std::floor(top + kNoise), 0.0, height);
  const double y1 = std::clamp(std::ceil(bottom - kNoise), 0.0, height);
  if (x1 <= x0 || y1 <= y0 || !image::isWellFormed(*bitmap)) return nullptr;
  return std::make_shared<const Bitmap>(cropPixels(*bitmap, x0, y0, x1, y1));
}

}  // namespace verdalune::sessionreplay
