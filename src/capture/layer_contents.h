#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <variant>

#include "image/encoded_image_data.h"
#include "verdalune/platform/contents.h"
#include "verdalune/platform/layer.h"
#include "verdalune/platform/platform.h"

namespace verdalune::sessionreplay {

// Private copies of shared surfaces, one per frame. A producer draws into its surface in place, so a
// capture copies the bytes it saw; the copy is keyed by (surface id, seed) so that one frame is copied
// once however many layers or captures show it.
//
// Main queue only, except Snapshot's content, which the image side replaces under the snapshot's lock.
class IOSurfaceSnapshotter {
 public:
  struct Key {
    std::uint32_t surfaceID = 0;
    std::uint32_t seed = 0;
    bool operator==(const Key&) const = default;
  };

  // The copied frame: first a private surface, later (once the image side has scaled it) a bitmap that
  // replaces the surface so the copy's memory goes.
  using Content = std::variant<std::shared_ptr<platform::Surface>, std::shared_ptr<const platform::Bitmap>>;

  class Snapshot {
   public:
    Snapshot(Key key, Content content) : key(key), content_(std::move(content)) {}

    const Key key;

    Content content() const {
      std::scoped_lock guard(lock_);
      return content_;
    }
    void replaceContent(Content content) {
      std::scoped_lock guard(lock_);
      content_ = std::move(content);
    }

   private:
    mutable std::mutex lock_;
    Content content_;
  };

  // `makeSurface` makes the private surfaces (Platform::makeSurface).
  explicit IOSurfaceSnapshotter(
      std::function<std::shared_ptr<platform::Surface>(const platform::SurfaceProperties&)> makeSurface)
      : makeSurface_(std::move(makeSurface)) {}

  // The copy of the frame `surface` shows now; null when the surface refuses a read lock, keeps no
  // creation properties, or no surface can be made for the copy.
  std::shared_ptr<Snapshot> snapshot(platform::Surface& surface);

  // How many live copies the cache holds; entries of copies nobody uses any more are dropped on the way.
  std::size_t liveSnapshotCount();

 private:
  struct KeyHash {
    std::size_t operator()(const Key& key) const noexcept {
      return std::hash<std::uint64_t>{}((std::uint64_t{key.surfaceID} << 32) | key.seed);
    }
  };

  void pruneDeadEntries();

  std::function<std::shared_ptr<platform::Surface>(const platform::SurfaceProperties&)> makeSurface_;
  // Values held weakly: a copy lives as long as some LayerContents shows it.
  std::unordered_map<Key, std::weak_ptr<Snapshot>, KeyHash> snapshots_;
  // Dead entries are swept when the map reaches this size, which then doubles the live count, so the
  // sweeps cost O(1) per insertion.
  std::size_t pruneAt_ = kMinimumPruneSize;
  static constexpr std::size_t kMinimumPruneSize = 32;
};

// What one capture hands down the walk to the contents reader.
struct SnapshotContext {
  // At most once a second; only then are GPU drawing layers read again.
  bool isKeySnapshot = false;
  std::shared_ptr<IOSurfaceSnapshotter> ioSurfaceSnapshotter;
  // The GPU command queue, made on first request; null when the device has no GPU or the snapshotter
  // is gone.
  std::function<std::shared_ptr<platform::GpuCommandQueue>()> getMTLCommandQueue;
};

// What a layer shows, as read at a capture and kept in the layer's metadata until the application
// changes it. Shared with the serializer's queue, which may replace the contents with their encoded form
// (so the next capture that shows the same contents needs no encoding).
class LayerContents {
 public:
  // An image view's image, tinted and configured as the view shows it.
  struct UiImage {
    std::shared_ptr<const platform::Image> image;
  };
  struct CgImage {
    std::shared_ptr<const platform::Bitmap> image;
  };
  struct IOSurfaceSnapshot {
    std::shared_ptr<IOSurfaceSnapshotter::Snapshot> snapshot;
  };
  struct MtlTexture {
    std::shared_ptr<platform::Texture> texture;
  };
  // Contents of a kind the library cannot read; the platform renders them when they are encoded.
  struct Unknown {
    std::shared_ptr<const platform::OpaqueContents> contents;
  };
  struct Prehashed {
    std::shared_ptr<const EncodedImageData> encodedImageData;
  };
  using Contents = std::variant<UiImage, CgImage, IOSurfaceSnapshot, MtlTexture, Unknown, Prehashed>;

  // What decides reuse at the next capture.
  struct NoMetadata {
    bool operator==(const NoMetadata&) const = default;
  };
  struct IOSurfaceMetadata {
    std::uint32_t surfaceID = 0;
    std::uint32_t seed = 0;
    bool operator==(const IOSurfaceMetadata&) const = default;
  };
  struct MtlTextureMetadata {
    std::uint64_t hash = 0;
    bool operator==(const MtlTextureMetadata&) const = default;
  };
  using Metadata = std::variant<NoMetadata, IOSurfaceMetadata, MtlTextureMetadata>;

  LayerContents(Contents contents, Metadata metadata) : metadata(metadata), contents_(std::move(contents)) {}

  const Metadata metadata;

  Contents contents() const {
    std::scoped_lock guard(lock_);
    return contents_;
  }
  void replaceContents(Contents contents) {
    std::scoped_lock guard(lock_);
    contents_ = std::move(contents);
  }
  // Runs `use` with the contents under the lock, so a reader and the writer of the encoded form do not
  // both encode the same image.
  template <typename Use>
  decltype(auto) withContents(Use&& use) {
    std::scoped_lock guard(lock_);
    return std::forward<Use>(use)(contents_);
  }

 private:
  mutable std::mutex lock_;
  Contents contents_;
};

// The contents of `layer` (the model layer, never its presentation copy) for this capture: `cached`
// itself when it still shows what the layer shows, new contents otherwise, null when the layer shows
// nothing or its contents cannot be read. Main queue only.
std::shared_ptr<LayerContents> readLayerContents(platform::Layer& layer,
                                                 std::shared_ptr<LayerContents> cached,
                                                 const SnapshotContext& context);

}  // namespace verdalune::sessionreplay
