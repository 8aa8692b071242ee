#include "capture/layer_contents.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <vector>

#include "capture/layer_metadata.h"
#include "capture/layer_observer.h"
#include "verdalune/sim/platform.h"

namespace verdalune::sessionreplay {
namespace {

using platform::Color;
using platform::LayerKind;
using sim::SimImage;
using sim::SimImageView;
using sim::SimLayer;
using sim::SimSurface;

const Color kRed{1, 0, 0, 1};
const Color kBlue{0, 0, 1, 1};

// A simulated surface that can refuse its locks, and counts the ones it holds so a test sees every
// lock given back.
class GuardedSurface final : public platform::Surface {
 public:
  explicit GuardedSurface(std::shared_ptr<SimSurface> inner) : inner_(std::move(inner)) {}

  bool refuseLocks = false;
  bool keepsProperties = true;
  int heldLocks = 0;

  std::uint32_t id() const override { return inner_->id(); }
  std::uint32_t seed() const override { return inner_->seed(); }
  bool lock(platform::SurfaceAccess access) override {
    if (refuseLocks || !inner_->lock(access)) return false;
    ++heldLocks;
    return true;
  }
  void unlock(platform::SurfaceAccess access) override {
    --heldLocks;
    inner_->unlock(access);
  }
  std::span<const std::byte> bytes() const override { return inner_->bytes(); }
  std::span<std::byte> mutableBytes() override { return inner_->mutableBytes(); }
  std::uint32_t width() const override { return inner_->width(); }
  std::uint32_t height() const override { return inner_->height(); }
  std::size_t bytesPerRow() const override { return inner_->bytesPerRow(); }
  std::size_t allocationSize() const override { return inner_->allocationSize(); }
  std::uint32_t pixelFormat() const override { return inner_->pixelFormat(); }
  std::optional<platform::SurfaceProperties> creationProperties() const override {
    return keepsProperties ? inner_->creationProperties() : std::nullopt;
  }

 private:
  std::shared_ptr<SimSurface> inner_;
};

std::vector<std::byte> bytesOf(const platform::Surface& surface) {
  return {surface.bytes().begin(), surface.bytes().end()};
}

template <typename Case>
Case contentsAs(const std::shared_ptr<LayerContents>& contents) {
  if (!contents) return {};
  auto value = contents->contents();
  const auto* found = std::get_if<Case>(&value);
  return found ? *found : Case{};
}

std::shared_ptr<platform::Surface> copiedSurface(const std::shared_ptr<LayerContents>& contents) {
  auto snapshot = contentsAs<LayerContents::IOSurfaceSnapshot>(contents).snapshot;
  return snapshot ? std::get<std::shared_ptr<platform::Surface>>(snapshot->content()) : nullptr;
}

LayerContents::Metadata frameOf(const platform::Surface& surface) {
  return LayerContents::IOSurfaceMetadata{surface.id(), surface.seed()};
}

class LayerContentsTest : public testing::Test {
 protected:
  std::shared_ptr<LayerContents> read(platform::Layer& layer, std::shared_ptr<LayerContents> cached = nullptr,
                                      bool isKeySnapshot = true) {
    SnapshotContext context{
        isKeySnapshot, snapshotter,
        [this]() -> std::shared_ptr<platform::GpuCommandQueue> { return hasGpu ? queue : nullptr; }};
    return readLayerContents(layer, std::move(cached), context);
  }

  sim::SimPlatform device;
  bool canMakeSurfaces = true;
  bool hasGpu = true;
  std::shared_ptr<IOSurfaceSnapshotter> snapshotter = std::make_shared<IOSurfaceSnapshotter>(
      [this](const platform::SurfaceProperties& properties) -> std::shared_ptr<platform::Surface> {
        return canMakeSurfaces ? device.makeSurface(properties) : nullptr;
      });
  std::shared_ptr<sim::SimGpuCommandQueue> queue = std::make_shared<sim::SimGpuCommandQueue>();
};

TEST_F(LayerContentsTest, SurfaceFrameIsCopiedOnceWithThePixelsOfItsCapture) {
  auto surface = SimSurface::bgra(4, 2);
  surface->fill(kRed);
  const auto redBytes = bytesOf(*surface);
  auto layer = std::make_shared<SimLayer>();
  auto other = std::make_shared<SimLayer>();
  layer->setContents(surface);
  other->setContents(surface);

  auto first = read(*layer);
  ASSERT_NE(copiedSurface(first), nullptr);
  EXPECT_EQ(first->metadata, frameOf(*surface));
  EXPECT_EQ(read(*layer, first), first) << "same frame: the cached contents stand";
  auto shared = read(*other);
  EXPECT_EQ(copiedSurface(shared), copiedSurface(first)) << "another layer on the same frame shares the copy";

  surface->fill(kBlue);
  auto second = read(*layer, first);
  ASSERT_NE(copiedSurface(second), nullptr);
  EXPECT_NE(second, first);
  EXPECT_EQ(bytesOf(*copiedSurface(second)), bytesOf(*surface));
  EXPECT_EQ(bytesOf(*copiedSurface(first)), redBytes) << "a copy keeps what was shown at its capture";
  EXPECT_EQ(snapshotter->liveSnapshotCount(), 2u);
  first.reset();
  shared.reset();
  EXPECT_EQ(snapshotter->liveSnapshotCount(), 1u) << "a copy nobody shows leaves the cache";
}

TEST_F(LayerContentsTest, SurfaceThatCannotBeCopiedGivesNothingAndEveryLockIsGivenBack) {
  auto sim = SimSurface::bgra(2, 2);
  auto surface = std::make_shared<GuardedSurface>(sim);
  auto layer = std::make_shared<SimLayer>();
  layer->setContents(std::shared_ptr<platform::Surface>(surface));

  surface->refuseLocks = true;
  EXPECT_EQ(read(*layer), nullptr);
  surface->refuseLocks = false;
  surface->keepsProperties = false;
  EXPECT_EQ(read(*layer), nullptr);
  surface->keepsProperties = true;
  canMakeSurfaces = false;
  EXPECT_EQ(read(*layer), nullptr);
  canMakeSurfaces = true;

  auto copied = read(*layer);
  ASSERT_NE(copied, nullptr);
  EXPECT_EQ(snapshotter->snapshot(*surface), contentsAs<LayerContents::IOSurfaceSnapshot>(copied).snapshot);
  EXPECT_EQ(surface->heldLocks, 0);
}

TEST_F(LayerContentsTest, GpuLayerIsReadOnKeySnapshotsThroughItsSurfaceOrAGpuCopy) {
  auto layer = std::make_shared<SimLayer>("CAMetalLayer", LayerKind::gpuDrawing);
  EXPECT_EQ(read(*layer), nullptr) << "no drawable";
  layer->setNextDrawable(sim::solidBitmap(2, 2, kRed));
  auto copied = read(*layer, nullptr, /*isKeySnapshot=*/false);
  ASSERT_NE(contentsAs<LayerContents::MtlTexture>(copied).texture, nullptr) << "nothing cached: read now";
  const int requests = layer->drawableRequests();
  EXPECT_EQ(read(*layer, copied, false), copied);
  EXPECT_EQ(layer->drawableRequests(), requests) << "between key snapshots no drawable is asked for";
  EXPECT_EQ(read(*layer, copied), copied) << "the same drawable on a key snapshot";
  EXPECT_EQ(queue->copies(), 1);

  auto surface = SimSurface::bgra(2, 2);
  layer->setNextDrawable(sim::solidBitmap(2, 2, kRed), {.surface = surface});
  auto snapshotted = read(*layer, copied);
  ASSERT_NE(copiedSurface(snapshotted), nullptr);
  EXPECT_EQ(snapshotted->metadata, frameOf(*surface));
  layer->setNextDrawable(sim::solidBitmap(2, 2, kRed), {.surface = surface});
  EXPECT_EQ(read(*layer, snapshotted), snapshotted) << "a new drawable over the same frame";
  EXPECT_EQ(queue->copies(), 1);

  layer->setNextDrawable(std::nullopt);
  EXPECT_EQ(read(*layer, snapshotted), snapshotted) << "the pool ran dry: the last frame stands";
  layer->setNextDrawable(sim::solidBitmap(2, 2, kRed), {.framebufferOnly = true});
  EXPECT_EQ(read(*layer), nullptr);
  layer->setNextDrawable(sim::solidBitmap(2, 2, kRed), {.is2D = false});
  EXPECT_EQ(read(*layer), nullptr);
  layer->setNextDrawable(sim::solidBitmap(2, 2, kRed));
  hasGpu = false;
  EXPECT_EQ(read(*layer), nullptr);
}

TEST_F(LayerContentsTest, BitmapIsReusedUntilTheObserverClearsIt) {
  LayerObserver observer;
  auto layer = std::make_shared<SimLayer>();
  auto bitmap = std::make_shared<const platform::Bitmap>(sim::solidBitmap(2, 2, kRed));
  layer->setContents(bitmap);
  observer.observe(layer);
  auto metadata = metadataOf(*layer);
  metadata->contents = read(*layer);
  EXPECT_EQ(contentsAs<LayerContents::CgImage>(metadata->contents).image, bitmap);
  EXPECT_EQ(read(*layer, metadata->contents), metadata->contents);

  auto opaque = std::make_shared<const sim::SimOpaqueContents>("CABackingStore", kBlue);
  layer->setContents(opaque);
  EXPECT_EQ(metadata->contents, nullptr);
  EXPECT_EQ(contentsAs<LayerContents::Unknown>(read(*layer)).contents, opaque);
}

TEST_F(LayerContentsTest, ImageViewGivesItsImageTintedOrHighlighted) {
  using Pixel = std::array<std::uint8_t, 4>;
  const Pixel red{255, 0, 0, 255}, blue{0, 0, 255, 255};
  auto templated = SimImage::fromBitmap(sim::solidBitmap(2, 2, kRed),
                                        {.renderingMode = platform::ImageRenderingMode::alwaysTemplate});
  auto view = sim::SimViewNode::make<SimImageView>(templated);
  const auto layer = view->simLayer();
  LayerObserver observer;
  observer.observe(layer);
  const auto metadata = metadataOf(*layer);
  // As captures read it: the cached contents stand until the layer reports a change.
  const auto capture = [&] {
    metadata->contents = read(*layer, metadata->contents);
    return contentsAs<LayerContents::UiImage>(metadata->contents).image;
  };
  // What the layer itself shows, which is what the screen shows.
  const auto shown = [&] { return std::get<std::shared_ptr<const platform::Bitmap>>(*layer->contents()); };

  EXPECT_EQ(capture(), templated);
  view->setTintColor(kBlue);
  auto tinted = capture();
  ASSERT_NE(tinted.get(), templated.get()) << "the tint reaches the layer";
  EXPECT_EQ(sim::pixelAt(*tinted->bitmap(), 0, 0), blue);
  EXPECT_EQ(sim::pixelAt(*shown(), 0, 0), blue);

  auto original = SimImage::fromBitmap(sim::solidBitmap(2, 2, kRed));
  view->setImage(original);
  view->setHighlighted(true);
  EXPECT_EQ(capture(), original) << "not a template, and no highlighted image to show";
  EXPECT_EQ(sim::pixelAt(*shown(), 0, 0), red);
  auto highlighted = SimImage::fromBitmap(sim::solidBitmap(2, 2, kBlue));
  view->setHighlightedImage(highlighted);
  EXPECT_EQ(capture(), highlighted);
  EXPECT_EQ(sim::pixelAt(*shown(), 0, 0), blue);
  view->setHighlighted(false);
  EXPECT_EQ(capture(), original);

  // A symbol has no bitmap: the view draws it, as a template in the tint, at the screen's scale.
  view->setContentsScale(3);
  view->setImage(SimImage::symbol({20, 10}, kRed));
  ASSERT_NE(capture(), nullptr);
  ASSERT_EQ((std::array{shown()->width, shown()->height}), (std::array{60u, 30u}));
  EXPECT_EQ(shown()->scale, 3);
  EXPECT_EQ(sim::pixelAt(*shown(), 30, 15), blue);
}

TEST(LayerObserverTest, ContentsChangesDropTheContentsAndFilterChangesOnlyTheEffect) {
  auto layer = std::make_shared<SimLayer>();
  auto bare = std::make_shared<SimLayer>();
  LayerObserver observer;
  const auto strongReferences = layer.use_count();
  observer.observe(layer);
  observer.observe(layer);
  observer.observe(bare);
  EXPECT_EQ(layer.use_count(), strongReferences) << "observing never keeps a layer alive";
  EXPECT_EQ(observer.observedCount(), 2u);

  auto metadata = metadataOf(*layer);
  const auto cached = std::make_shared<LayerContents>(LayerContents::CgImage{}, LayerContents::NoMetadata{});
  metadata->contents = cached;
  metadata->visualEffect = VisualEffect::blur(4);
  layer->setFilters({});
  EXPECT_EQ(metadata->contents, cached);
  EXPECT_FALSE(metadata->visualEffect.has_value());

  metadata->visualEffect = VisualEffect::blur(4);
  layer->setContentsRect({{0, 0}, {0.5, 0.5}});
  EXPECT_EQ(metadata->contents, nullptr);
  EXPECT_TRUE(metadata->visualEffect.has_value());
  metadata->contents = cached;
  layer->setContentsMultiplyColor(kRed);
  EXPECT_EQ(metadata->contents, nullptr);

  bare->setContents(std::nullopt);
  EXPECT_EQ(bare->attachment(), nullptr) << "a change gives a layer without metadata none";
}

TEST(LayerObserverTest, VideoLayersAreNeverObserved) {
  LayerObserver observer;
  for (const auto& layer :
       {std::make_shared<SimLayer>("AVPlayerLayer", LayerKind::videoPlayer),
        std::make_shared<SimLayer>("AVCaptureVideoPreviewLayer", LayerKind::captureVideoPreview),
        std::make_shared<SimLayer>("AVSampleBufferDisplayLayer", LayerKind::sampleBufferDisplay),
        std::make_shared<SimLayer>("AVSynchronizedLayer", LayerKind::synchronizedVideo),
        std::make_shared<SimLayer>("WebAVPlayerLayer"),
        std::make_shared<SimLayer>("NSKVONotifying_WebAVPlayerLayer")}) {
    observer.observe(layer);
    metadataOf(*layer)->visualEffect = VisualEffect::noEffect();
    layer->setFilters({});
    EXPECT_TRUE(metadataOf(*layer)->visualEffect.has_value()) << layer->className();
  }
  EXPECT_EQ(observer.observedCount(), 0u);
}

TEST(LayerObserverTest, NewLayerAtADeadLayersAddressIsObservedAndDestructionStopsObserving) {
  // Storage of the test's own, so that the second layer is made at the first one's address.
  alignas(SimLayer) std::byte storage[sizeof(SimLayer)];
  auto makeLayer = [&] {
    return std::shared_ptr<SimLayer>(new (storage) SimLayer(), [](SimLayer* layer) { layer->~SimLayer(); });
  };
  auto observer = std::make_unique<LayerObserver>();
  observer->observe(makeLayer());
  EXPECT_EQ(observer->observedCount(), 0u);

  auto layer = makeLayer();
  ASSERT_EQ(static_cast<void*>(layer.get()), static_cast<void*>(storage));
  observer->observe(layer);
  auto metadata = metadataOf(*layer);
  metadata->visualEffect = VisualEffect::noEffect();
  layer->setFilters({});
  EXPECT_FALSE(metadata->visualEffect.has_value()) << "the newer layer has a registration of its own";

  observer.reset();
  metadata->visualEffect = VisualEffect::noEffect();
  layer->setFilters({});
  EXPECT_TRUE(metadata->visualEffect.has_value()) << "a destroyed observer hears nothing";
}

}  // namespace
}  // namespace verdalune::sessionreplay
