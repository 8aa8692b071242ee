#include "verdalune/sim/layer.h"

#include <gtest/gtest.h>

#include <vector>

namespace verdalune::sessionreplay::sim {
namespace {

using platform::Color;
using platform::LayerChange;

TEST(SimLayerTest, PresentationDiffersFromTheModelOnlyWhileAnAnimationRuns) {
  auto parent = std::make_shared<SimLayer>();
  auto layer = std::make_shared<SimLayer>();
  parent->addSublayer(layer);
  layer->setFrame({{10, 20}, {100, 50}});
  EXPECT_EQ(layer->presentationLayer(), nullptr) << "a layer never shown has no presentation copy";

  parent->commit();
  auto still = layer->presentationLayer();
  ASSERT_NE(still, nullptr);
  EXPECT_EQ(still->properties().position, layer->properties().position);
  EXPECT_EQ(still->presentationLayer(), nullptr);
  EXPECT_EQ(still->modelLayer(), layer);

  layer->beginAnimation([](platform::LayerProperties& shown) {
    shown.position.x += 40;
    shown.opacity = 0.5f;
  });
  auto moving = layer->presentationLayer();
  EXPECT_EQ(moving->properties().position.x, layer->properties().position.x + 40);
  EXPECT_EQ(moving->properties().opacity, 0.5f);
  EXPECT_EQ(layer->properties().opacity, 1.0f) << "the model keeps what the application set";
  EXPECT_EQ(moving->properties().frame.origin.x, 50);

  // The presentation tree mirrors the model tree.
  auto presentedParent = parent->presentationLayer();
  ASSERT_EQ(presentedParent->sublayers().size(), 1u);
  EXPECT_EQ(presentedParent->sublayers()[0]->modelLayer(), layer);
  EXPECT_EQ(moving->superlayer()->modelLayer(), parent);

  layer->endAnimation();
  EXPECT_EQ(layer->presentationLayer()->properties().position, layer->properties().position);
}

TEST(SimLayerTest, PresentationCanThrowAsABrokenPlatformLayerDoes) {
  auto layer = std::make_shared<SimLayer>();
  layer->commit();
  layer->setPresentationThrows(true);
  EXPECT_THROW(layer->presentationLayer(), std::exception);
}

TEST(SimLayerTest, FrameIsDerivedFromPositionAnchorAndBounds) {
  SimLayer layer;
  layer.setFrame({{10, 20}, {100, 50}});
  EXPECT_EQ(layer.properties().position, (platform::Point{60, 45}));
  EXPECT_EQ(layer.properties().bounds.size, (platform::Size{100, 50}));
  layer.update([](platform::LayerProperties& p) { p.anchorPoint = {0, 0}; });
  EXPECT_EQ(layer.properties().frame.origin, (platform::Point{60, 45}));
}

TEST(SimLayerTest, ObserversHearTheFourKeysUntilCancelled) {
  auto layer = std::make_shared<SimLayer>();
  std::vector<LayerChange> heard;
  auto subscription = layer->observeChanges([&](LayerChange change) { heard.push_back(change); });

  layer->setContents(std::make_shared<const platform::Bitmap>());
  layer->setFilters({});
  layer->setContentsRect({{0, 0}, {0.5, 0.5}});
  layer->setContentsMultiplyColor(Color{1, 0, 0, 1});
  layer->setBackgroundColor(Color{0, 1, 0, 1});  // not one of the four
  layer->setFrame({{0, 0}, {10, 10}});
  EXPECT_EQ(heard, (std::vector{LayerChange::contents, LayerChange::filters, LayerChange::contentsRect,
                                LayerChange::contentsMultiplyColor}));

  subscription->cancel();
  layer->setContents(std::nullopt);
  EXPECT_EQ(heard.size(), 4u);
  subscription->cancel();  // twice does nothing
}

TEST(SimLayerTest, DestroyingTheHandleStopsDeliveryAndTheHandleDoesNotKeepTheLayer) {
  auto layer = std::make_shared<SimLayer>();
  int calls = 0;
  auto first = layer->observeChanges([&](LayerChange) { ++calls; });
  std::unique_ptr<platform::Subscription> second;
  // An observer that cancels another during a delivery stops that one from hearing it.
  first = layer->observeChanges([&](LayerChange) {
    ++calls;
    second.reset();
  });
  second = layer->observeChanges([&](LayerChange) { calls += 100; });
  layer->setContentsRect(platform::kUnitRect);
  EXPECT_EQ(calls, 1);

  std::weak_ptr<SimLayer> weak = layer;
  layer.reset();
  EXPECT_TRUE(weak.expired());
  first.reset();  // cancelling after the layer is gone is harmless
}

TEST(SimLayerTest, SublayersKeepOrderAndMoveBetweenParents) {
  auto a = std::make_shared<SimLayer>();
  auto b = std::make_shared<SimLayer>();
  auto child1 = std::make_shared<SimLayer>();
  auto child2 = std::make_shared<SimLayer>();
  a->addSublayer(child1);
  a->insertSublayer(child2, 0);
  EXPECT_EQ(a->sublayers(), (std::vector<std::shared_ptr<platform::Layer>>{child2, child1}));
  b->addSublayer(child1);
  EXPECT_EQ(a->sublayers().size(), 1u);
  EXPECT_EQ(child1->superlayer(), b);
}

struct Tag : platform::Attachment {
  int value = 0;
};

TEST(SimLayerTest, AttachmentSlotIsReentrantAndKeepsTheFirstAttachment) {
  SimLayer layer;
  EXPECT_EQ(layer.attachment(), nullptr);
  int made = 0;
  auto make = [&] {
    ++made;
    // The slot's lock is recursive: reading the same slot from inside ensure is allowed.
    EXPECT_EQ(layer.attachment(), nullptr);
    return std::make_shared<Tag>();
  };
  auto first = platform::attachmentOf<Tag>(layer, make);
  auto second = platform::attachmentOf<Tag>(layer, make);
  EXPECT_EQ(first, second);
  EXPECT_EQ(made, 1);
}

TEST(SimLayerTest, GpuDrawingLayerHandsOutItsNextDrawable) {
  SimLayer plain;
  plain.setNextDrawable(solidBitmap(2, 2, Color{1, 0, 0, 1}));
  EXPECT_EQ(plain.nextDrawableTexture(), nullptr);

  SimLayer gpu("CAMetalLayer", platform::LayerKind::gpuDrawing);
  EXPECT_EQ(gpu.nextDrawableTexture(), nullptr) << "no drawable yet";
  gpu.setNextDrawable(solidBitmap(4, 2, Color{0, 0, 1, 1}));
  auto texture = gpu.nextDrawableTexture();
  ASSERT_NE(texture, nullptr);
  auto pixels = texture->readPixels();
  ASSERT_TRUE(pixels);
  EXPECT_EQ(pixels->width, 4u);
  EXPECT_EQ(pixelAt(*pixels, 3, 1), (std::array<std::uint8_t, 4>{0, 0, 255, 255}));

  gpu.setNextDrawable(solidBitmap(4, 2, Color{0, 1, 0, 1}), {.framebufferOnly = true});
  auto next = gpu.nextDrawableTexture();
  EXPECT_NE(next->hash(), texture->hash());
  EXPECT_FALSE(next->readPixels()) << "a framebuffer-only texture cannot be read";
}

}  // namespace
}  // namespace verdalune::sessionreplay::sim
