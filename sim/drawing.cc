#include "verdalune/sim/drawing.h"

#include <cairo.h>
#include <fontconfig/fontconfig.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "cairo_bitmap.h"

namespace verdalune::sessionreplay::sim {

// Cairo paints premultiplied ARGB in native 32-bit words; the platform's bitmaps are RGBA bytes.
platform::Bitmap detail::fromCairo(cairo_surface_t* surface, double scale) {
  cairo_surface_flush(surface);
  const int width = cairo_image_surface_get_width(surface);
  const int height = cairo_image_surface_get_height(surface);
  const int stride = cairo_image_surface_get_stride(surface);
  const unsigned char* data = cairo_image_surface_get_data(surface);
  platform::Bitmap bitmap{.width = static_cast<std::uint32_t>(width),
                          .height = static_cast<std::uint32_t>(height),
                          .bytesPerRow = static_cast<std::size_t>(width) * 4,
                          .hasAlpha = true,
                          .alphaPremultiplied = true,
                          .scale = scale,
                          .pixels = std::vector<std::uint8_t>(static_cast<std::size_t>(width) * height * 4)};
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      std::uint32_t word;
      std::memcpy(&word, data + y * stride + x * 4, 4);
      std::uint8_t* out = bitmap.pixels.data() + (static_cast<std::size_t>(y) * width + x) * 4;
      out[0] = static_cast<std::uint8_t>(word >> 16);
      out[1] = static_cast<std::uint8_t>(word >> 8);
      out[2] = static_cast<std::uint8_t>(word);
      out[3] = static_cast<std::uint8_t>(word >> 24);
    }
  }
  return bitmap;
}

cairo_surface_t* detail::toCairo(const platform::Bitmap& bitmap) {
  cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, static_cast<int>(bitmap.width),
                                                        static_cast<int>(bitmap.height));
  cairo_surface_flush(surface);
  const int stride = cairo_image_surface_get_stride(surface);
  unsigned char* data = cairo_image_surface_get_data(surface);
  for (std::uint32_t y = 0; y < bitmap.height; ++y) {
    for (std::uint32_t x = 0; x < bitmap.width; ++x) {
      const std::uint8_t* in = bitmap.pixels.data() + y * bitmap.bytesPerRow + x * 4;
      std::uint32_t alpha = bitmap.hasAlpha ? in[3] : 255;
      auto premultiply = [&](std::uint8_t value) -> std::uint32_t {
        return bitmap.hasAlpha && !bitmap.alphaPremultiplied ? value * alpha / 255 : value;
      };
      const std::uint32_t word =
          alpha << 24 | premultiply(in[0]) << 16 | premultiply(in[1]) << 8 | premultiply(in[2]);
      std::memcpy(data + y * stride + x * 4, &word, 4);
    }
  }
  cairo_surface_mark_dirty(surface);
  return surface;
}

namespace {

std::uint8_t channel(double value) {
  return static_cast<std::uint8_t>(std::lround(std::clamp(value, 0.0, 1.0) * 255));
}

void roundedRect(cairo_t* cr, double width, double height, double radius) {
  radius = std::min({radius, width / 2, height / 2});
  if (radius <= 0) {
    cairo_rectangle(cr, 0, 0, width, height);
    return;
  }
  cairo_new_sub_path(cr);
  cairo_arc(cr, width - radius, radius, radius, -M_PI / 2, 0);
  cairo_arc(cr, width - radius, height - radius, radius, 0, M_PI / 2);
  cairo_arc(cr, radius, height - radius, radius, M_PI / 2, M_PI);
  cairo_arc(cr, radius, radius, radius, M_PI, 3 * M_PI / 2);
  cairo_close_path(cr);
}

void setColor(cairo_t* cr, const platform::Color& color) {
  cairo_set_source_rgba(cr, color.red, color.green, color.blue, color.alpha);
}

// Cairo and fontconfig keep their font caches for the life of the process; releasing them at exit keeps
// leak checkers quiet about memory that was never lost.
void releaseFontsAtExit() {
  static std::once_flag once;
  std::call_once(once, [] {
    std::atexit([] {
      cairo_debug_reset_static_data();
      FcFini();
    });
  });
}

std::uint32_t pixels(double points, double scale) {
  return static_cast<std::uint32_t>(std::max(0.0, std::ceil(points * scale)));
}

}  // namespace

platform::Bitmap draw(const Drawing& drawing, platform::Size size, double scale) {
  cairo_surface_t* surface =
      cairo_image_surface_create(CAIRO_FORMAT_ARGB32, static_cast<int>(pixels(size.width, scale)),
                                 static_cast<int>(pixels(size.height, scale)));
  cairo_t* cr = cairo_create(surface);
  cairo_scale(cr, scale, scale);
  if (drawing.fill) {
    setColor(cr, *drawing.fill);
    roundedRect(cr, size.width, size.height, drawing.cornerRadius);
    cairo_fill(cr);
  }
  if (!drawing.text.empty()) {
    releaseFontsAtExit();
    cairo_select_font_face(cr, "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(cr, drawing.fontSize);
    cairo_font_extents_t font;
    cairo_font_extents(cr, &font);
    // Centred vertically on the line, as a single-line label lays its text out.
    const double baseline = (size.height - (font.ascent + font.descent)) / 2 + font.ascent;
    setColor(cr, drawing.textColor);
    cairo_move_to(cr, drawing.textInset, baseline);
    cairo_show_text(cr, drawing.text.c_str());
  }
  cairo_destroy(cr);
  platform::Bitmap bitmap = detail::fromCairo(surface, scale);
  cairo_surface_destroy(surface);
  return bitmap;
}

platform::Bitmap solidBitmap(std::uint32_t width, std::uint32_t height, const platform::Color& color,
                             double scale) {
  platform::Bitmap bitmap{.width = width,
                          .height = height,
                          .bytesPerRow = static_cast<std::size_t>(width) * 4,
                          .scale = scale,
                          .pixels = std::vector<std::uint8_t>(static_cast<std::size_t>(width) * 4 * height)};
  const std::array<std::uint8_t, 4> pixel{channel(color.red * color.alpha),
                                          channel(color.green * color.alpha),
                                          channel(color.blue * color.alpha), channel(color.alpha)};
  for (std::size_t i = 0; i < bitmap.pixels.size(); i += 4)
    std::copy(pixel.begin(), pixel.end(), bitmap.pixels.begin() + i);
  return bitmap;
}

std::array<std::uint8_t, 4> pixelAt(const platform::Bitmap& bitmap, std::uint32_t x, std::uint32_t y) {
  const std::uint8_t* at = bitmap.pixels.data() + y * bitmap.bytesPerRow + x * 4;
  return {at[0], at[1], at[2], at[3]};
}

std::shared_ptr<const platform::SymbolConfiguration> SimSymbolConfiguration::combined(
    const platform::SymbolConfiguration& other) const {
  auto settings = settings_;
  if (const auto* sim = dynamic_cast<const SimSymbolConfiguration*>(&other)) {
    for (const auto& [key, value] : sim->settings()) settings[key] = value;
  }
  return std::make_shared<SimSymbolConfiguration>(std::move(settings));
}

std::shared_ptr<const SimImage> SimImage::fromBitmap(platform::Bitmap bitmap, Options options) {
  std::shared_ptr<SimImage> image(new SimImage);
  image->className_ = options.className;
  image->scale_ = options.scale;
  image->size_ = {bitmap.width / options.scale, bitmap.height / options.scale};
  image->capInsets_ = options.capInsets;
  image->renderingMode_ = options.renderingMode;
  image->bitmap_ = std::make_shared<const platform::Bitmap>(std::move(bitmap));
  return image;
}

std::shared_ptr<const SimImage> SimImage::symbol(
    platform::Size size, platform::Color color, std::shared_ptr<const SimSymbolConfiguration> configuration) {
  std::shared_ptr<SimImage> image(new SimImage);
  image->className_ = "UIImage";
  image->size_ = size;
  image->isSymbol_ = true;
  image->symbolColor_ = color;
  image->renderingMode_ = platform::ImageRenderingMode::alwaysTemplate;
  image->configuration_ = std::move(configuration);
  return image;
}

std::shared_ptr<const platform::Image> SimImage::tinted(const platform::Color& tint) const {
  std::shared_ptr<SimImage> image(new SimImage(*this));
  image->symbolColor_ = tint;
  if (bitmap_) {
    // A template keeps only its shape: every pixel takes the tint at the pixel's own coverage.
    platform::Bitmap recoloured = *bitmap_;
    for (std::size_t y = 0; y < recoloured.height; ++y) {
      for (std::size_t x = 0; x < recoloured.width; ++x) {
        std::uint8_t* at = recoloured.pixels.data() + y * recoloured.bytesPerRow + x * 4;
        const double coverage = (recoloured.hasAlpha ? at[3] / 255.0 : 1.0) * tint.alpha;
        at[0] = channel(tint.red * coverage);
        at[1] = channel(tint.green * coverage);
        at[2] = channel(tint.blue * coverage);
        at[3] = channel(coverage);
      }
    }
    recoloured.hasAlpha = true;
    recoloured.alphaPremultiplied = true;
    image->bitmap_ = std::make_shared<const platform::Bitmap>(std::move(recoloured));
  }
  return image;
}

std::shared_ptr<const platform::Image> SimImage::configured(
    const platform::SymbolConfiguration& configuration) const {
  std::shared_ptr<SimImage> image(new SimImage(*this));
  if (const auto* sim = dynamic_cast<const SimSymbolConfiguration*>(&configuration)) {
    image->configuration_ = std::make_shared<SimSymbolConfiguration>(sim->settings());
  }
  return image;
}

std::optional<platform::Bitmap> SimImage::draw(platform::Size size, bool opaque) const {
  if (size.width <= 0 || size.height <= 0) return std::nullopt;
  const std::uint32_t width = pixels(size.width, scale_);
  const std::uint32_t height = pixels(size.height, scale_);
  cairo_surface_t* target =
      cairo_image_surface_create(CAIRO_FORMAT_ARGB32, static_cast<int>(width), static_cast<int>(height));
  cairo_t* cr = cairo_create(target);
  if (opaque) {
    cairo_set_source_rgb(cr, 0, 0, 0);
    cairo_paint(cr);
  }
  if (bitmap_) {
    cairo_surface_t* source = detail::toCairo(*bitmap_);
    cairo_scale(cr, static_cast<double>(width) / bitmap_->width,
                static_cast<double>(height) / bitmap_->height);
    cairo_set_source_surface(cr, source, 0, 0);
    // Scaling samples beyond the edge pixels; padding keeps the edges their own colour.
    cairo_pattern_set_extend(cairo_get_source(cr), CAIRO_EXTEND_PAD);
    cairo_paint(cr);
    cairo_surface_destroy(source);
  } else {
    cairo_scale(cr, scale_, scale_);
    setColor(cr, symbolColor_);
    roundedRect(cr, size.width, size.height, std::min(size.width, size.height) / 4);
    cairo_fill(cr);
  }
  cairo_destroy(cr);
  platform::Bitmap bitmap = detail::fromCairo(target, scale_);
  cairo_surface_destroy(target);
  bitmap.hasAlpha = !opaque;
  return bitmap;
}

namespace {
std::atomic<std::uint32_t> nextSurfaceId{1};
std::atomic<std::uint64_t> nextTextureHash{0x7e57u};
}  // namespace

SimSurface::SimSurface(const platform::SurfaceProperties& properties, bool keepsProperties)
    : properties_(properties),
      keepsProperties_(keepsProperties),
      id_(nextSurfaceId++),
      bytes_(properties.allocationSize) {}

std::shared_ptr<SimSurface> SimSurface::bgra(std::uint32_t width, std::uint32_t height) {
  return std::make_shared<SimSurface>(platform::SurfaceProperties{
      .width = width,
      .height = height,
      .bytesPerElement = 4,
      .bytesPerRow = static_cast<std::size_t>(width) * 4,
      .allocationSize = static_cast<std::size_t>(width) * 4 * height,
      .pixelFormat = platform::fourCharCode("BGRA"),
  });
}

bool SimSurface::lock(platform::SurfaceAccess access) {
  std::lock_guard lock(mutex_);
  if (access == platform::SurfaceAccess::readWrite) {
    if (readers_ > 0) return false;
    ++writers_;
  } else {
    ++readers_;
  }
  return true;
}

void SimSurface::unlock(platform::SurfaceAccess access) {
  std::lock_guard lock(mutex_);
  if (access == platform::SurfaceAccess::readWrite) {
    if (writers_ > 0 && --writers_ == 0) ++seed_;
  } else if (readers_ > 0) {
    --readers_;
  }
}

std::optional<platform::SurfaceProperties> SimSurface::creationProperties() const {
  if (!keepsProperties_) return std::nullopt;
  return properties_;
}

void SimSurface::draw(const std::function<void(std::span<std::byte>)>& paint) {
  std::lock_guard lock(mutex_);
  paint(std::span<std::byte>(bytes_.data(), bytes_.size()));
  ++seed_;
}

void SimSurface::fill(const platform::Color& color) {
  const std::array<std::byte, 4> pixel{std::byte{channel(color.blue)}, std::byte{channel(color.green)},
                                       std::byte{channel(color.red)}, std::byte{channel(color.alpha)}};
  draw([&](std::span<std::byte> bytes) {
    if (properties_.bytesPerElement != 4) return;
    for (std::uint32_t y = 0; y < properties_.height; ++y) {
      for (std::uint32_t x = 0; x < properties_.width; ++x) {
        std::copy(pixel.begin(), pixel.end(), bytes.begin() + y * properties_.bytesPerRow + x * 4);
      }
    }
  });
}

SimTexture::SimTexture(platform::Bitmap pixels, Options options)
    : hash_(nextTextureHash++), pixels_(std::move(pixels)), options_(std::move(options)) {}

std::optional<platform::Bitmap> SimTexture::readPixels() const {
  if (options_.framebufferOnly) return std::nullopt;
  return pixels_;
}

std::shared_ptr<platform::Texture> SimGpuCommandQueue::copy(const platform::Texture& source) {
  const auto* sim = dynamic_cast<const SimTexture*>(&source);
  if (sim == nullptr || sim->isFramebufferOnly() || !sim->is2D()) return nullptr;
  ++copies_;
  return std::make_shared<SimTexture>(
      sim->pixels(), SimTexture::Options{.pixelFormat = sim->pixelFormat(), .surface = nullptr});
}

}  // namespace verdalune::sessionreplay::sim
