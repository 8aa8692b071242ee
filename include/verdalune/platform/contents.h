#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "verdalune/platform/geometry.h"

// What a layer shows, and the image, surface and GPU objects behind it.
//
// Threads: these objects are read on the main queue during a capture and again on the serializer's
// queue when the images are encoded, so every class here is thread-safe unless it says otherwise.
namespace verdalune::sessionreplay::platform {

// Pixels in memory: 8 bits per channel in RGBA order, rows `bytesPerRow` apart (at least 4 × width).
// Without alpha the fourth byte of each pixel is padding and is ignored. `scale` is pixels per point.
struct Bitmap {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::size_t bytesPerRow = 0;
  bool hasAlpha = true;
  // Colour bytes already multiplied by alpha, as drawing produces them. Meaningless without alpha.
  bool alphaPremultiplied = true;
  double scale = 1;
  std::vector<std::uint8_t> pixels;  // bytesPerRow × height bytes
};

// A surface pixel format as its four-character code ('BGRA' is 0x42475241), the form surfaces report.
constexpr std::uint32_t fourCharCode(std::string_view code) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < 4; ++i)
    value = (value << 8) | static_cast<unsigned char>(i < code.size() ? code[i] : ' ');
  return value;
}

// What a surface was created with; making a surface with the same properties yields a surface of the
// same layout, into which the first one's bytes can be copied whole.
struct SurfaceProperties {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::size_t bytesPerElement = 0;
  std::size_t bytesPerRow = 0;
  std::size_t allocationSize = 0;
  std::uint32_t pixelFormat = 0;
  bool operator==(const SurfaceProperties&) const = default;
};

enum class SurfaceAccess { readOnly, readWrite };

// A block of pixels shared with a producer (a video decoder, the system compositor) that draws into it
// in place.
//
// id() names the surface for its whole life; seed() changes every time the producer modifies it, so
// (id, seed) names one frame. The bytes may be read only between a successful lock() and the matching
// unlock() with the same access, and written only under readWrite; seed() is meaningful under a lock.
// Locks of one surface nest; each successful lock needs one unlock.
class Surface {
 public:
  virtual ~Surface() = default;

  virtual std::uint32_t id() const = 0;
  virtual std::uint32_t seed() const = 0;

  // False when the surface refuses the lock (for writing while another holder reads, for instance).
  [[nodiscard]] virtual bool lock(SurfaceAccess access) = 0;
  virtual void unlock(SurfaceAccess access) = 0;

  // The whole allocation, allocationSize() bytes from the base address.
  virtual std::span<const std::byte> bytes() const = 0;
  virtual std::span<std::byte> mutableBytes() = 0;

  virtual std::uint32_t width() const = 0;
  virtual std::uint32_t height() const = 0;
  virtual std::size_t bytesPerRow() const = 0;
  virtual std::size_t allocationSize() const = 0;
  virtual std::uint32_t pixelFormat() const = 0;

  // The properties the surface was made with; absent when the platform does not have them (a surface
  // whose creator left no record), in which case it cannot be copied.
  virtual std::optional<SurfaceProperties> creationProperties() const = 0;
};

// A GPU texture: the drawable of a GPU drawing layer, or a copy of one.
class Texture {
 public:
  virtual ~Texture() = default;

  // Equal for the same texture object and different for two live ones; how the contents reader knows
  // it saw this drawable before.
  virtual std::uint64_t hash() const = 0;

  // The shareable surface behind the texture; null when it has none (then the texture is copied on the
  // GPU instead of through its surface).
  virtual std::shared_ptr<Surface> surface() const = 0;

  virtual bool isFramebufferOnly() const = 0;
  virtual bool is2D() const = 0;
  virtual std::uint32_t pixelFormat() const = 0;
  virtual std::uint32_t width() const = 0;
  virtual std::uint32_t height() const = 0;

  // The texture's pixels; absent when they cannot be read (a framebuffer-only texture, a format the
  // platform cannot convert). The image side calls it on the serializer's queue.
  virtual std::optional<Bitmap> readPixels() const = 0;
};

// The GPU queue the library copies drawables with. Main queue only.
class GpuCommandQueue {
 public:
  virtual ~GpuCommandQueue() = default;

  // A new 2D texture with the same format and size, readable and writable by shaders and without
  // mipmaps, holding a copy of the whole of `source`; the call blocks until the GPU has finished the
  // copy. Null when the copy cannot be made (framebuffer-only or not 2D, no memory). Only textures of
  // this platform are accepted.
  virtual std::shared_ptr<Texture> copy(const Texture& source) = 0;
};

// A symbol configuration of the platform's image system (weight, scale, point size, palette): opaque to
// the library, which only combines and applies them.
class SymbolConfiguration {
 public:
  virtual ~SymbolConfiguration() = default;

  // This configuration with `other` applied on top of it.
  virtual std::shared_ptr<const SymbolConfiguration> combined(const SymbolConfiguration& other) const = 0;
};

// How an image view draws an image: as it is, or as a template coloured by the view's tint. The raw
// values are the platform's.
enum class ImageRenderingMode : int { automatic = 0, alwaysOriginal = 1, alwaysTemplate = 2 };

// An image object of the platform's UI layer, as image views show it: a bitmap or a vector symbol with
// a scale, stretch insets and a rendering mode. Immutable; every change makes a new image.
class Image {
 public:
  virtual ~Image() = default;

  // The runtime class name; resizable images carry "Resizable" in it.
  virtual std::string className() const = 0;

  virtual Size size() const = 0;  // points
  virtual double scale() const = 0;
  virtual EdgeInsets capInsets() const = 0;
  virtual ImageRenderingMode renderingMode() const = 0;
  virtual bool isSymbolImage() const = 0;

  // The bitmap behind the image; null for an image without one (a symbol, a drawing recorded for later).
  // Its hasAlpha is what the image's alpha information says.
  virtual std::shared_ptr<const Bitmap> bitmap() const = 0;

  // For an image without a bitmap: whether the format it renders with is opaque.
  virtual bool rendersOpaque() const = 0;

  // Null when the image has no symbol configuration of its own.
  virtual std::shared_ptr<const SymbolConfiguration> symbolConfiguration() const = 0;

  // The image drawn as a template in `tint`.
  virtual std::shared_ptr<const Image> tinted(const Color& tint) const = 0;

  // The image with `configuration` in place of its own.
  virtual std::shared_ptr<const Image> configured(const SymbolConfiguration& configuration) const = 0;

  // The image drawn into a new bitmap of `size` points at the image's scale, stretched by its cap insets;
  // `opaque` selects a format without alpha. Absent when drawing fails.
  virtual std::optional<Bitmap> draw(Size size, bool opaque) const = 0;
};

// A contents object of a kind the library does not read (a private platform type). The library keeps it
// and later asks the platform to render it (Platform::renderContents).
class OpaqueContents {
 public:
  virtual ~OpaqueContents() = default;
  virtual std::string className() const = 0;
};

// What a layer's `contents` property holds, when it holds something: a bitmap image, a shared surface,
// or an object of another kind. A GPU drawing layer's frames are not here; they come from
// Layer::nextDrawableTexture.
using Contents = std::variant<std::shared_ptr<const Bitmap>, std::shared_ptr<Surface>,
                              std::shared_ptr<const OpaqueContents>>;

// A fresh layer to render once, for contents the library cannot read itself: `contents` shown in
// `bounds` over `backgroundColor`, at `contentsScale`, flipped when `geometryFlipped`.
struct ContentsRenderRequest {
  std::shared_ptr<const OpaqueContents> contents;
  std::optional<Color> backgroundColor;
  Rect bounds;
  double contentsScale = 1;
  bool geometryFlipped = false;
  bool opaque = false;  // render without alpha
};

}  // namespace verdalune::sessionreplay::platform
