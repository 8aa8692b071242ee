#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "verdalune/platform/contents.h"

// Pixels the simulated device draws, and the image, surface and GPU objects that carry them.
namespace verdalune::sessionreplay::sim {

namespace platform = verdalune::sessionreplay::platform;

// Counts the live instances of `Owner`, copies included, as a member of it: what a test reads to see that
// nothing the library was shown is kept after it is gone.
template <typename Owner>
class LiveCount {
 public:
  LiveCount() { ++count_; }
  LiveCount(const LiveCount&) { ++count_; }
  LiveCount& operator=(const LiveCount&) { return *this; }
  ~LiveCount() { --count_; }
  static std::int64_t value() { return count_.load(); }

 private:
  static inline std::atomic<std::int64_t> count_{0};
};

// How a simulated view paints its contents: an optional filled rounded rect behind an optional line of
// text. Everything is in points; the bitmap is made at `scale` pixels per point.
struct Drawing {
  std::optional<platform::Color> fill;
  double cornerRadius = 0;
  std::string text;
  platform::Color textColor{0, 0, 0, 1};
  double fontSize = 17;
  double textInset = 0;  // from the left edge

  static Drawing filled(std::optional<platform::Color> color, double cornerRadius = 0) {
    Drawing drawing;
    drawing.fill = color;
    drawing.cornerRadius = cornerRadius;
    return drawing;
  }
};

// `drawing` painted into a transparent premultiplied RGBA bitmap of `size` points.
platform::Bitmap draw(const Drawing& drawing, platform::Size size, double scale);

// A bitmap of `width` × `height` pixels all of `color` (premultiplied).
platform::Bitmap solidBitmap(std::uint32_t width, std::uint32_t height, const platform::Color& color,
                             double scale = 1);

// The RGBA bytes of the pixel at (x, y).
std::array<std::uint8_t, 4> pixelAt(const platform::Bitmap& bitmap, std::uint32_t x, std::uint32_t y);

// A symbol configuration as named settings ("weight" → "bold"); combining lays the other's on top.
class SimSymbolConfiguration final : public platform::SymbolConfiguration {
 public:
  explicit SimSymbolConfiguration(std::map<std::string, std::string> settings = {})
      : settings_(std::move(settings)) {}
  std::shared_ptr<const platform::SymbolConfiguration> combined(
      const platform::SymbolConfiguration& other) const override;
  const std::map<std::string, std::string>& settings() const { return settings_; }

 private:
  std::map<std::string, std::string> settings_;
};

// An image of the UI layer. Immutable, like the platform's.
class SimImage final : public platform::Image {
 public:
  struct Options {
    double scale = 1;
    platform::EdgeInsets capInsets;
    platform::ImageRenderingMode renderingMode = platform::ImageRenderingMode::automatic;
    std::string className = "UIImage";
  };

  // A bitmap image; its size in points is the bitmap's pixels over the scale.
  static std::shared_ptr<const SimImage> fromBitmap(platform::Bitmap bitmap, Options options);
  static std::shared_ptr<const SimImage> fromBitmap(platform::Bitmap bitmap) {
    return fromBitmap(std::move(bitmap), Options{});
  }
  // A vector symbol: no bitmap; draws as a filled rounded square of `color`.
  static std::shared_ptr<const SimImage> symbol(
      platform::Size size, platform::Color color,
      std::shared_ptr<const SimSymbolConfiguration> configuration = nullptr);

  std::string className() const override { return className_; }
  platform::Size size() const override { return size_; }
  double scale() const override { return scale_; }
  platform::EdgeInsets capInsets() const override { return capInsets_; }
  platform::ImageRenderingMode renderingMode() const override { return renderingMode_; }
  bool isSymbolImage() const override { return isSymbol_; }
  std::shared_ptr<const platform::Bitmap> bitmap() const override { return bitmap_; }
  bool rendersOpaque() const override { return false; }
  std::shared_ptr<const platform::SymbolConfiguration> symbolConfiguration() const override {
    return configuration_;
  }
  std::shared_ptr<const platform::Image> tinted(const platform::Color& tint) const override;
  std::shared_ptr<const platform::Image> configured(
      const platform::SymbolConfiguration& configuration) const override;
  std::optional<platform::Bitmap> draw(platform::Size size, bool opaque) const override;

 private:
  SimImage() = default;

  std::string className_ = "UIImage";
  platform::Size size_;
  double scale_ = 1;
  platform::EdgeInsets capInsets_;
  platform::ImageRenderingMode renderingMode_ = platform::ImageRenderingMode::automatic;
  bool isSymbol_ = false;
  platform::Color symbolColor_;
  std::shared_ptr<const platform::Bitmap> bitmap_;
  std::shared_ptr<const platform::SymbolConfiguration> configuration_;
};

// A shared surface in memory. Its seed moves on every drawing and on every unlock after writing, as a
// producer's modifications move it.
class SimSurface final : public platform::Surface {
 public:
  explicit SimSurface(const platform::SurfaceProperties& properties, bool keepsProperties = true);

  // A 4-byte BGRA surface of `width` × `height` pixels.
  static std::shared_ptr<SimSurface> bgra(std::uint32_t width, std::uint32_t height);

  std::uint32_t id() const override { return id_; }
  std::uint32_t seed() const override { return seed_.load(); }
  bool lock(platform::SurfaceAccess access) override;
  void unlock(platform::SurfaceAccess access) override;
  std::span<const std::byte> bytes() const override { return {bytes_.data(), bytes_.size()}; }
  std::span<std::byte> mutableBytes() override { return {bytes_.data(), bytes_.size()}; }
  std::uint32_t width() const override { return properties_.width; }
  std::uint32_t height() const override { return properties_.height; }
  std::size_t bytesPerRow() const override { return properties_.bytesPerRow; }
  std::size_t allocationSize() const override { return properties_.allocationSize; }
  std::uint32_t pixelFormat() const override { return properties_.pixelFormat; }
  std::optional<platform::SurfaceProperties> creationProperties() const override;

  // The producer draws: `paint` writes the bytes in place, then the seed moves.
  void draw(const std::function<void(std::span<std::byte>)>& paint);
  // Every pixel of a 4-byte surface set to `color` in the surface's channel order.
  void fill(const platform::Color& color);

  // Surfaces alive in this process: the producers' and the copies made through SimPlatform::makeSurface.
  static std::int64_t liveCount() { return LiveCount<SimSurface>::value(); }

 private:
  LiveCount<SimSurface> live_;
  const platform::SurfaceProperties properties_;
  const bool keepsProperties_;
  const std::uint32_t id_;
  std::atomic<std::uint32_t> seed_{1};
  std::mutex mutex_;
  int readers_ = 0;
  int writers_ = 0;
  std::vector<std::byte> bytes_;
};

// A GPU texture whose pixels are a bitmap in memory.
class SimTexture final : public platform::Texture {
 public:
  struct Options {
    bool framebufferOnly = false;
    bool is2D = true;
    std::uint32_t pixelFormat = 80;  // 8-bit BGRA, normalized
    std::shared_ptr<platform::Surface> surface;
  };
  SimTexture(platform::Bitmap pixels, Options options);

  std::uint64_t hash() const override { return hash_; }
  std::shared_ptr<platform::Surface> surface() const override { return options_.surface; }
  bool isFramebufferOnly() const override { return options_.framebufferOnly; }
  bool is2D() const override { return options_.is2D; }
  std::uint32_t pixelFormat() const override { return options_.pixelFormat; }
  std::uint32_t width() const override { return pixels_.width; }
  std::uint32_t height() const override { return pixels_.height; }
  std::optional<platform::Bitmap> readPixels() const override;

  const platform::Bitmap& pixels() const { return pixels_; }
  const Options& options() const { return options_; }

 private:
  const std::uint64_t hash_;
  const platform::Bitmap pixels_;
  const Options options_;
};

class SimGpuCommandQueue final : public platform::GpuCommandQueue {
 public:
  std::shared_ptr<platform::Texture> copy(const platform::Texture& source) override;
  int copies() const { return copies_; }

 private:
  int copies_ = 0;
};

// Contents of a private kind: the platform renders them as a rounded rect of `color`.
class SimOpaqueContents final : public platform::OpaqueContents {
 public:
  SimOpaqueContents(std::string className, platform::Color color)
      : className_(std::move(className)), color_(color) {}
  std::string className() const override { return className_; }
  const platform::Color& color() const { return color_; }

 private:
  std::string className_;
  platform::Color color_;
};

}  // namespace verdalune::sessionreplay::sim
