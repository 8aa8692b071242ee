#include "capture/layer_contents.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <utility>

namespace verdalune::sessionreplay {

namespace {

template <typename... Cases>
struct Overloaded : Cases... {
  using Cases::operator()...;
};
// clang does not deduce aggregate templates by itself yet.
template <typename... Cases>
Overloaded(Cases...) -> Overloaded<Cases...>;

// Holds a surface lock for one scope, so that every way out of a read gives the lock back.
class SurfaceLock {
 public:
  SurfaceLock(platform::Surface& surface, platform::SurfaceAccess access)
      : surface_(surface), access_(access), locked_(surface.lock(access)) {}
  ~SurfaceLock() {
    if (locked_) surface_.unlock(access_);
  }
  SurfaceLock(const SurfaceLock&) = delete;
  SurfaceLock& operator=(const SurfaceLock&) = delete;

  explicit operator bool() const { return locked_; }

 private:
  platform::Surface& surface_;
  const platform::SurfaceAccess access_;
  const bool locked_;
};

// The surface's seed, which only means something under a lock; absent when the surface refuses one.
std::optional<std::uint32_t> currentSeed(platform::Surface& surface) {
  SurfaceLock lock(surface, platform::SurfaceAccess::readOnly);
  if (!lock) return std::nullopt;
  return surface.seed();
}

// Whether `cached` was copied from the frame `surface` shows now.
bool showsCurrentFrame(const LayerContents& cached, platform::Surface& surface) {
  const auto* metadata = std::get_if<LayerContents::IOSurfaceMetadata>(&cached.metadata);
  if (metadata == nullptr || metadata->surfaceID != surface.id()) return false;
  return currentSeed(surface) == metadata->seed;
}

std::shared_ptr<LayerContents> snapshotContents(platform::Surface& surface, const SnapshotContext& context) {
  if (!context.ioSurfaceSnapshotter) return nullptr;
  auto snapshot = context.ioSurfaceSnapshotter->snapshot(surface);
  if (!snapshot) return nullptr;
  const LayerContents::IOSurfaceMetadata metadata{snapshot->key.surfaceID, snapshot->key.seed};
  return std::make_shared<LayerContents>(LayerContents::IOSurfaceSnapshot{std::move(snapshot)}, metadata);
}

// A GPU copy of a drawable without a shareable surface: the producer reuses its drawables, so the
// pixels must be taken before the next frame lands in them.
std::shared_ptr<LayerContents> copyTextureContents(const platform::Texture& texture,
                                                   const SnapshotContext& context) {
  // A framebuffer-only texture cannot be a blit source, and only whole 2D textures are copied.
  if (texture.isFramebufferOnly() || !texture.is2D()) return nullptr;
  auto queue = context.getMTLCommandQueue ? context.getMTLCommandQueue() : nullptr;
  if (!queue) return nullptr;
  auto copy = queue->copy(texture);
  if (!copy) return nullptr;
  return std::make_shared<LayerContents>(LayerContents::MtlTexture{std::move(copy)},
                                         LayerContents::MtlTextureMetadata{texture.hash()});
}

std::shared_ptr<LayerContents> readDrawable(platform::Layer& layer, std::shared_ptr<LayerContents> cached,
                                            const SnapshotContext& context) {
  // Asking for a drawable can stall on the producer, and GPU layers redraw all the time; between key
  // snapshots the previous frame stands in.
  if (!context.isKeySnapshot && cached) return cached;
  auto texture = layer.nextDrawableTexture();
  if (!texture) return cached;
  auto surface = texture->surface();

  if (cached) {
    if (surface && showsCurrentFrame(*cached, *surface)) return cached;
    const auto* copied = std::get_if<LayerContents::MtlTextureMetadata>(&cached->metadata);
    if (copied != nullptr && copied->hash == texture->hash()) return cached;
  }

  if (surface) return snapshotContents(*surface, context);
  return copyTextureContents(*texture, context);
}

// The image an image view shows, as it draws it: the highlighted image while highlighted, template
// images in the tint colour, symbols with the view's configuration resolved for its traits.
std::shared_ptr<const platform::Image> displayedImage(const platform::ImageView& view) {
  std::shared_ptr<const platform::Image> image;
  if (view.isHighlighted()) image = view.highlightedImage();
  if (!image) image = view.image();
  if (!image) return nullptr;

  if (const auto tint = view.tintColor()) {
    const auto mode = image->renderingMode();
    const bool drawsAsTemplate = mode == platform::ImageRenderingMode::alwaysTemplate ||
                                 (mode == platform::ImageRenderingMode::automatic && image->isSymbolImage());
    if (drawsAsTemplate) {
      if (auto tinted = image->tinted(*tint)) image = std::move(tinted);
    }
  }

  if (auto configuration = image->symbolConfiguration()) {
    if (auto preferred = view.preferredSymbolConfiguration()) {
      if (auto combined = configuration->combined(*preferred)) configuration = std::move(combined);
    }
    if (auto resolved = view.resolvedForTraits(*configuration)) {
      if (auto configured = image->configured(*resolved)) image = std::move(configured);
    }
  }
  return image;
}

std::shared_ptr<LayerContents> readBitmap(platform::Layer& layer,
                                          const std::shared_ptr<const platform::Bitmap>& bitmap) {
  // An image view's bitmap lacks what the view adds when it draws (tint, symbol configuration), so
  // the view's own image is kept instead.
  if (auto imageView = platform::asImageView(layer.delegateView())) {
    if (auto image = displayedImage(*imageView)) {
      return std::make_shared<LayerContents>(LayerContents::UiImage{std::move(image)},
                                             LayerContents::NoMetadata{});
    }
  }
  return std::make_shared<LayerContents>(LayerContents::CgImage{bitmap}, LayerContents::NoMetadata{});
}

}  // namespace

std::shared_ptr<IOSurfaceSnapshotter::Snapshot> IOSurfaceSnapshotter::snapshot(platform::Surface& surface) {
  SurfaceLock sourceLock(surface, platform::SurfaceAccess::readOnly);
  if (!sourceLock) return nullptr;

  const Key key{surface.id(), surface.seed()};
  if (const auto found = snapshots_.find(key); found != snapshots_.end()) {
    if (auto live = found->second.lock()) return live;
  }

  const auto properties = surface.creationProperties();
  if (!properties || !makeSurface_) return nullptr;
  auto copy = makeSurface_(*properties);
  if (!copy) return nullptr;

  {
    SurfaceLock copyLock(*copy, platform::SurfaceAccess::readWrite);
    if (!copyLock) return nullptr;
    const auto source = surface.bytes();
    const auto destination = copy->mutableBytes();
    const std::size_t size = surface.allocationSize();
    // A copy shorter than the source would show a torn frame; better none.
    if (source.size() < size || destination.size() < size) return nullptr;
    if (size > 0) std::memcpy(destination.data(), source.data(), size);
  }

  auto snapshot = std::make_shared<Snapshot>(key, Content{std::move(copy)});
  if (snapshots_.size() >= pruneAt_) pruneDeadEntries();
  snapshots_.insert_or_assign(key, snapshot);
  return snapshot;
}

std::size_t IOSurfaceSnapshotter::liveSnapshotCount() {
  pruneDeadEntries();
  return snapshots_.size();
}

void IOSurfaceSnapshotter::pruneDeadEntries() {
  std::erase_if(snapshots_, [](const auto& entry) { return entry.second.expired(); });
  pruneAt_ = std::max(kMinimumPruneSize, 2 * snapshots_.size());
}

std::shared_ptr<LayerContents> readLayerContents(platform::Layer& layer,
                                                 std::shared_ptr<LayerContents> cached,
                                                 const SnapshotContext& context) {
  // A GPU drawing layer's frames are in its drawables, not in its contents.
  if (layer.kind() == platform::LayerKind::gpuDrawing) return readDrawable(layer, std::move(cached), context);

  auto contents = layer.contents();
  if (!contents) return nullptr;
  return std::visit(
      Overloaded{
          [&](const std::shared_ptr<platform::Surface>& surface) -> std::shared_ptr<LayerContents> {
            if (!surface) return nullptr;
            // Surfaces change in place, so the cache holds only while the frame is the same.
            if (cached && showsCurrentFrame(*cached, *surface)) return cached;
            return snapshotContents(*surface, context);
          },
          // Bitmaps and other contents objects are immutable; the layer observer drops the cache
          // when the application sets new ones.
          [&](const std::shared_ptr<const platform::Bitmap>& bitmap) -> std::shared_ptr<LayerContents> {
            if (!bitmap) return nullptr;
            if (cached) return cached;
            return readBitmap(layer, bitmap);
          },
          [&](const std::shared_ptr<const platform::OpaqueContents>& opaque)
              -> std::shared_ptr<LayerContents> {
            if (!opaque) return nullptr;
            if (cached) return cached;
            return std::make_shared<LayerContents>(LayerContents::Unknown{opaque},
                                                   LayerContents::NoMetadata{});
          },
      },
      *contents);
}

}  // namespace verdalune::sessionreplay
