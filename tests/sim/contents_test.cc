#include <gtest/gtest.h>

#include <variant>

#include "verdalune/sim/platform.h"
#include "verdalune/sim/screen_builder.h"

namespace verdalune::sessionreplay::sim {
namespace {

using platform::Color;

std::shared_ptr<const platform::Bitmap> bitmapContents(const platform::Layer& layer) {
  auto contents = layer.contents();
  if (!contents) return nullptr;
  auto* bitmap = std::get_if<std::shared_ptr<const platform::Bitmap>>(&*contents);
  return bitmap ? *bitmap : nullptr;
}

// Pixels with any coverage inside the rect of pixel columns [x0, x1) and rows [y0, y1).
int paintedPixels(const platform::Bitmap& bitmap, std::uint32_t x0, std::uint32_t y0, std::uint32_t x1,
                  std::uint32_t y1) {
  int count = 0;
  for (std::uint32_t y = y0; y < y1; ++y)
    for (std::uint32_t x = x0; x < x1; ++x) count += pixelAt(bitmap, x, y)[3] != 0;
  return count;
}

TEST(SimContentsTest, LabelBitmapHoldsItsTextInsideItsBounds) {
  SimPlatform device;
  auto screen = ScreenBuilder(device)
                    .window({{0, 0}, {390, 844}}, 2)
                    .label("Hello", {{16, 100}, {200, 30}}, {.color = Color{1, 0, 0, 1}})
                    .named("greeting")
                    .build();
  auto label = screen.find<SimTextView>("greeting");
  ASSERT_NE(label, nullptr);
  auto bitmap = bitmapContents(*label->layer());
  ASSERT_NE(bitmap, nullptr);
  EXPECT_EQ(bitmap->width, 400u);
  EXPECT_EQ(bitmap->height, 60u);
  EXPECT_EQ(bitmap->scale, 2);
  EXPECT_EQ(bitmap->bytesPerRow, 1600u);

  // "Hello" at 17 points covers the left part of the label; the right end stays transparent.
  EXPECT_GT(paintedPixels(*bitmap, 0, 0, 150, 60), 100);
  EXPECT_EQ(paintedPixels(*bitmap, 300, 0, 400, 60), 0);
  // The glyphs are red, premultiplied: no green or blue anywhere.
  for (std::uint32_t y = 0; y < bitmap->height; ++y)
    for (std::uint32_t x = 0; x < bitmap->width; ++x) ASSERT_EQ(pixelAt(*bitmap, x, y)[1], 0);
}

TEST(SimContentsTest, ChangingTheTextRedrawsAndNotifies) {
  auto label = makeLabel("A");
  label->setFrame({{0, 0}, {100, 20}});
  int contentChanges = 0;
  auto subscription = label->layer()->observeChanges(
      [&](platform::LayerChange change) { contentChanges += change == platform::LayerChange::contents; });
  auto before = bitmapContents(*label->layer());
  label->setText("A much longer line");
  auto after = bitmapContents(*label->layer());
  EXPECT_EQ(contentChanges, 1);
  EXPECT_GT(paintedPixels(*after, 0, 0, after->width, after->height),
            paintedPixels(*before, 0, 0, before->width, before->height));
}

TEST(SimContentsTest, SecureFieldShowsBulletsAndDeclaresItself) {
  SimPlatform device;
  auto screen = ScreenBuilder(device)
                    .textField("hunter2", {{0, 0}, {200, 30}}, {.secure = true, .contentType = "password"})
                    .label("hunter2", {{0, 40}, {200, 30}})
                    .build();
  auto field = std::dynamic_pointer_cast<SimTextView>(screen.views[0]);
  auto label = std::dynamic_pointer_cast<SimTextView>(screen.views[1]);
  EXPECT_TRUE(field->isSecureTextEntry());
  EXPECT_EQ(field->textContentType(), "password");
  EXPECT_FALSE(label->isSecureTextEntry()) << "only text inputs have secure entry";
  EXPECT_EQ(label->textContentType(), std::nullopt);
  field->setSecureTextEntry(false);
  auto plain = bitmapContents(*field->layer());
  field->setSecureTextEntry(true);
  auto secure = bitmapContents(*field->layer());
  EXPECT_NE(plain->pixels, secure->pixels);
}

TEST(SimContentsTest, BoxPaintsARoundedRect) {
  SimPlatform device;
  auto screen = ScreenBuilder(device)
                    .window({{0, 0}, {100, 100}}, 1)
                    .box({{0, 0}, {40, 40}}, Color{0, 0, 1, 1}, 10)
                    .build();
  auto bitmap = bitmapContents(*screen.views[0]->simLayer());
  ASSERT_NE(bitmap, nullptr);
  EXPECT_EQ(pixelAt(*bitmap, 20, 20), (std::array<std::uint8_t, 4>{0, 0, 255, 255}));
  EXPECT_EQ(pixelAt(*bitmap, 0, 0)[3], 0) << "the corner is rounded off";
}

TEST(SimContentsTest, ImageViewShowsItsImageBitmap) {
  auto image = SimImage::fromBitmap(solidBitmap(6, 4, Color{0, 1, 0, 1}, 2), {.scale = 2});
  EXPECT_EQ(image->size(), (platform::Size{3, 2}));
  auto view = SimViewNode::make<SimImageView>(image);
  EXPECT_EQ(platform::asImageView(view), view);
  EXPECT_EQ(bitmapContents(*view->layer()), image->bitmap());
  view->setImage(nullptr);
  EXPECT_FALSE(view->layer()->contents());
}

TEST(SimContentsTest, ImagesTintAndDraw) {
  auto image = SimImage::fromBitmap(solidBitmap(2, 2, Color{0, 1, 0, 1}));
  auto tinted = image->tinted(Color{1, 0, 0, 1});
  EXPECT_EQ(pixelAt(*tinted->bitmap(), 0, 0), (std::array<std::uint8_t, 4>{255, 0, 0, 255}));
  auto drawn = image->draw({4, 4}, true);
  ASSERT_TRUE(drawn);
  EXPECT_EQ(drawn->width, 4u);
  EXPECT_FALSE(drawn->hasAlpha);
  EXPECT_EQ(pixelAt(*drawn, 3, 3)[1], 255);

  auto symbol = SimImage::symbol(
      {10, 10}, Color{0, 0, 1, 1},
      std::make_shared<SimSymbolConfiguration>(std::map<std::string, std::string>{{"weight", "bold"}}));
  EXPECT_TRUE(symbol->isSymbolImage());
  EXPECT_EQ(symbol->bitmap(), nullptr);
  auto symbolPixels = symbol->draw({10, 10}, false);
  ASSERT_TRUE(symbolPixels);
  EXPECT_EQ(pixelAt(*symbolPixels, 5, 5)[2], 255);
  auto combined =
      std::dynamic_pointer_cast<const SimSymbolConfiguration>(symbol->symbolConfiguration()->combined(
          SimSymbolConfiguration({{"weight", "light"}, {"scale", "large"}})));
  EXPECT_EQ(combined->settings().at("weight"), "light");
  EXPECT_EQ(combined->settings().at("scale"), "large");
}

TEST(SimContentsTest, SurfaceSeedMovesWhenDrawn) {
  auto surface = SimSurface::bgra(4, 4);
  EXPECT_EQ(surface->allocationSize(), 64u);
  const auto before = surface->seed();
  surface->fill(Color{1, 0, 0, 1});
  EXPECT_NE(surface->seed(), before);
  ASSERT_TRUE(surface->lock(platform::SurfaceAccess::readOnly));
  EXPECT_EQ(static_cast<std::uint8_t>(surface->bytes()[2]), 255) << "BGRA: red is the third byte";
  const auto whileRead = surface->seed();
  EXPECT_FALSE(surface->lock(platform::SurfaceAccess::readWrite)) << "no writer while a reader holds it";
  surface->unlock(platform::SurfaceAccess::readOnly);
  EXPECT_EQ(surface->seed(), whileRead) << "reading does not move the seed";

  ASSERT_TRUE(surface->lock(platform::SurfaceAccess::readWrite));
  surface->mutableBytes()[0] = std::byte{7};
  surface->unlock(platform::SurfaceAccess::readWrite);
  EXPECT_NE(surface->seed(), whileRead);
  EXPECT_NE(SimSurface::bgra(1, 1)->id(), surface->id());
}

TEST(SimContentsTest, PlatformMakesSurfacesCopiesAndRenders) {
  SimPlatform device;
  auto properties = *SimSurface::bgra(8, 2)->creationProperties();
  auto made = device.makeSurface(properties);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(made->creationProperties(), properties);
  EXPECT_EQ(device.makeSurface({}), nullptr);

  auto queue = device.makeGpuCommandQueue();
  ASSERT_NE(queue, nullptr);
  SimTexture source(solidBitmap(3, 3, Color{1, 1, 0, 1}), {});
  auto copy = queue->copy(source);
  ASSERT_NE(copy, nullptr);
  EXPECT_NE(copy->hash(), source.hash());
  EXPECT_EQ(copy->readPixels()->pixels, source.readPixels()->pixels);
  EXPECT_EQ(queue->copy(SimTexture(solidBitmap(1, 1, {}), {.framebufferOnly = true})), nullptr);
  EXPECT_EQ(SimPlatform({.hasGpu = false}).makeGpuCommandQueue(), nullptr);

  platform::ContentsRenderRequest request{
      .contents = std::make_shared<SimOpaqueContents>("CABackingStore", Color{0, 0, 1, 0.5}),
      .backgroundColor = Color{1, 1, 1, 1},
      .bounds = {{0, 0}, {10, 5}},
      .contentsScale = 2};
  auto rendered = device.renderContents(request);
  ASSERT_TRUE(rendered);
  EXPECT_EQ(rendered->width, 20u);
  const auto pixel = pixelAt(*rendered, 10, 5);
  EXPECT_NEAR(pixel[0], 128, 2);
  EXPECT_EQ(pixel[2], 255);
  request.bounds = {};
  EXPECT_FALSE(device.renderContents(request));
}

}  // namespace
}  // namespace verdalune::sessionreplay::sim
