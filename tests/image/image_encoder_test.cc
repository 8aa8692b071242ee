#include "image/image_encoder.h"

#include <gtest/gtest.h>
#include <png.h>
#include <webp/decode.h>

#include <cmath>
#include <cstdlib>
#include <cstring>

#include "image/rgba_rendering.h"
#include "verdalune/sim/drawing.h"

namespace verdalune::sessionreplay {
namespace {

using platform::Bitmap;
using platform::Size;

Bitmap bitmapOf(std::uint32_t width, std::uint32_t height, std::array<std::uint8_t, 4> pixel,
                bool hasAlpha = true, bool premultiplied = true) {
  Bitmap bitmap{.width = width,
                .height = height,
                .bytesPerRow = static_cast<std::size_t>(width) * 4,
                .hasAlpha = hasAlpha,
                .alphaPremultiplied = premultiplied,
                .scale = 1,
                .pixels = {}};
  for (std::size_t i = 0; i < std::size_t{width} * height; ++i)
    bitmap.pixels.insert(bitmap.pixels.end(), pixel.begin(), pixel.end());
  return bitmap;
}

ImageGeometry shownAtOwnSize(const Bitmap& bitmap) {
  const Size size{static_cast<double>(bitmap.width), static_cast<double>(bitmap.height)};
  return {.sourceSize = size, .boundsSize = size, .contentsGravity = "resize", .scale = 1};
}

struct Decoded {
  int width = 0;
  int height = 0;
  bool hasAlpha = false;
  std::vector<std::uint8_t> rgba;
  std::array<std::uint8_t, 4> at(int x, int y) const {
    const std::uint8_t* p = rgba.data() + (static_cast<std::size_t>(y) * width + x) * 4;
    return {p[0], p[1], p[2], p[3]};
  }
};

Decoded decodeWebP(const std::vector<std::uint8_t>& data) {
  Decoded decoded;
  WebPBitstreamFeatures features;
  EXPECT_EQ(WebPGetFeatures(data.data(), data.size(), &features), VP8_STATUS_OK);
  decoded.hasAlpha = features.has_alpha;
  std::uint8_t* pixels = WebPDecodeRGBA(data.data(), data.size(), &decoded.width, &decoded.height);
  EXPECT_NE(pixels, nullptr);
  if (pixels) decoded.rgba.assign(pixels, pixels + std::size_t(decoded.width) * decoded.height * 4);
  WebPFree(pixels);
  return decoded;
}

Decoded decodePng(const std::vector<std::uint8_t>& data) {
  Decoded decoded;
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  EXPECT_TRUE(png_image_begin_read_from_memory(&image, data.data(), data.size()));
  image.format = PNG_FORMAT_RGBA;
  decoded.width = static_cast<int>(image.width);
  decoded.height = static_cast<int>(image.height);
  decoded.hasAlpha = true;
  decoded.rgba.resize(PNG_IMAGE_SIZE(image));
  EXPECT_TRUE(png_image_finish_read(&image, nullptr, decoded.rgba.data(), 0, nullptr));
  return decoded;
}

bool startsWith(const std::vector<std::uint8_t>& data, std::initializer_list<std::uint8_t> magic) {
  return data.size() >= magic.size() && std::equal(magic.begin(), magic.end(), data.begin());
}
bool isWebP(const std::vector<std::uint8_t>& data) {
  return data.size() > 12 && std::memcmp(data.data(), "RIFF", 4) == 0 &&
         std::memcmp(data.data() + 8, "WEBP", 4) == 0;
}
bool isPng(const std::vector<std::uint8_t>& data) {
  return startsWith(data, {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'});
}
bool isJpeg(const std::vector<std::uint8_t>& data) {
  return startsWith(data, {0xFF, 0xD8, 0xFF});
}

TEST(ImageEncoderHash, KnownVectorsInUpperCaseHex) {
  EXPECT_EQ(sha256Hex(""), "E3B0C44298FC1C149AFBF4C8996FB92427AE41E4649B934CA495991B7852B855");
  EXPECT_EQ(sha256Hex("abc"), "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD");
  EXPECT_EQ(sha256Hex(std::string_view("a\0b", 3)).size(), 64u);  // bytes, not a C string
  EXPECT_NE(sha256Hex(std::string_view("a\0b", 3)), sha256Hex("a"));
}

TEST(ImageEncoderWebP, AlphaSurvivesOnlyThroughTheRgbaImport) {
  // Half-transparent green, premultiplied.
  const Bitmap translucent = bitmapOf(32, 32, {0, 128, 0, 128});

  const auto withAlpha = ImageEncoder::encode(translucent, true, shownAtOwnSize(translucent));
  ASSERT_TRUE(withAlpha);
  EXPECT_EQ(withAlpha->type, EncodedImageType::webp);
  ASSERT_TRUE(isWebP(withAlpha->data));
  // The hash names the encoded bytes, and the same image always encodes to the same bytes.
  EXPECT_EQ(withAlpha->hash,
            sha256Hex({reinterpret_cast<const char*>(withAlpha->data.data()), withAlpha->data.size()}));
  EXPECT_EQ(ImageEncoder::encode(translucent, true, shownAtOwnSize(translucent))->hash, withAlpha->hash);
  const Decoded kept = decodeWebP(withAlpha->data);
  EXPECT_TRUE(kept.hasAlpha);
  EXPECT_NEAR(kept.at(16, 16)[3], 128, 1);
  EXPECT_NEAR(kept.at(16, 16)[1], 255, 8);  // straight colour, not the premultiplied 128

  const auto withoutAlpha = ImageEncoder::encode(translucent, false, shownAtOwnSize(translucent));
  ASSERT_TRUE(withoutAlpha);
  const Decoded dropped = decodeWebP(withoutAlpha->data);
  EXPECT_FALSE(dropped.hasAlpha);
  EXPECT_EQ(dropped.at(16, 16)[3], 255);
  EXPECT_NEAR(dropped.at(16, 16)[1], 128, 8);  // composited over black
  EXPECT_NE(withAlpha->hash, withoutAlpha->hash);
}

// Text, icons and flat shapes (few colours) are kept exactly; photos and gradients stay lossy.
TEST(ImageEncoderWebP, FewColoursAreKeptExactlyOthersLossy) {
  Bitmap text = bitmapOf(90, 30, {0, 0, 0, 0});
  for (int x = 0; x < 90; ++x) {  // strokes of every coverage in steps, as antialiased text has
    for (int y = 10; y < 20; ++y) {
      const auto a = static_cast<std::uint8_t>(x * 255 / 89);
      std::uint8_t* p = text.pixels.data() + y * text.bytesPerRow + x * 4;
      p[0] = p[1] = p[2] = (x % 3 == 0) ? a : 0;  // black and white ink, premultiplied
      p[3] = a;
    }
  }
  Bitmap photo = bitmapOf(90, 30, {0, 0, 0, 255}, false);
  for (std::size_t i = 0; i < photo.pixels.size(); i += 4) {
    photo.pixels[i] = static_cast<std::uint8_t>(i * 7 % 251);
    photo.pixels[i + 1] = static_cast<std::uint8_t>(i / 4 % 90 * 2);
  }
  for (const auto& [bitmap, lossless] : {std::pair{&text, true}, std::pair{&photo, false}}) {
    const auto encoded = ImageEncoder::encode(*bitmap, bitmap->hasAlpha, shownAtOwnSize(*bitmap));
    ASSERT_TRUE(encoded && isWebP(encoded->data));
    EXPECT_EQ(std::memcmp(encoded->data.data() + 12, "VP8L", 4) == 0, lossless);
  }
  const auto encoded = ImageEncoder::encode(text, true, shownAtOwnSize(text));
  const Decoded decoded = decodeWebP(encoded->data);
  for (int x = 0; x < 90; x += 11) {
    const std::uint8_t* p = text.pixels.data() + 15 * text.bytesPerRow + x * 4;
    const int a = p[3];
    EXPECT_EQ(decoded.at(x, 15)[3], a) << x;
    if (a > 0) {
      EXPECT_EQ(decoded.at(x, 15)[0], (p[0] * 255 + a / 2) / a) << x;
    }
  }
}

TEST(ImageEncoderWebP, DownscaledGradientKeepsItsValues) {
  Bitmap gradient = bitmapOf(400, 200, {0, 0, 0, 255}, false);
  for (std::uint32_t y = 0; y < 200; ++y) {
    for (std::uint32_t x = 0; x < 400; ++x) {
      std::uint8_t* p = gradient.pixels.data() + y * gradient.bytesPerRow + x * 4;
      // Grey, where a lossy codec keeps most detail: brighter to the right and, less, downwards.
      p[0] = p[1] = p[2] = static_cast<std::uint8_t>(x * 180 / 399 + y * 75 / 199);
      p[3] = 7;  // padding, not alpha
    }
  }
  const auto encoded = ImageEncoder::encode(
      gradient, false,
      {.sourceSize = {400, 200}, .boundsSize = {100, 50}, .contentsGravity = "resize", .scale = 1});
  ASSERT_TRUE(encoded);
  EXPECT_EQ(encoded->originalImageSize, (Size{400, 200}));
  const Decoded decoded = decodeWebP(encoded->data);
  ASSERT_EQ(decoded.width, 100);
  ASSERT_EQ(decoded.height, 50);
  for (int y = 5; y < 50; y += 10) {
    for (int x = 5; x < 100; x += 10) {
      const auto got = decoded.at(x, y);
      // The average of the 4 × 4 source pixels behind this one.
      const double want = (4 * x + 1.5) * 180 / 399 + (4 * y + 1.5) * 75 / 199;
      EXPECT_NEAR(got[0], want, 8) << x << "," << y;
      EXPECT_NEAR(got[1], want, 8) << x << "," << y;
      EXPECT_EQ(got[3], 255);
    }
  }
}

TEST(ImageEncoderWebP, ImageWithoutBitmapIsDrawnAtTheTargetSize) {
  const auto symbol = sim::SimImage::symbol({40, 40}, platform::Color{0, 0, 1, 1});
  // A 40-pt symbol in a 20-pt view at 3 pixels a point: drawn at the 60 pixels the view needs.
  const auto encoded =
      ImageEncoder::encode(*symbol, true, {.sourceSize = {40, 40}, .boundsSize = {20, 20}, .scale = 3});
  ASSERT_TRUE(encoded) << describe(encoded.error());
  const Decoded decoded = decodeWebP(encoded->data);
  EXPECT_EQ(decoded.width, 60);
  EXPECT_EQ(decoded.height, 60);
  EXPECT_NEAR(decoded.at(30, 30)[2], 255, 8);
  EXPECT_EQ(encoded->originalImageSize, (Size{40, 40}));
}

TEST(ImageEncoderFallback, LabelsBothPngAndJpegBytesAsPng) {
  const Bitmap rgba = bitmapOf(16, 8, {255, 64, 0, 200}, true, false);
  const auto png = ImageEncoder::encodeFallback(rgba, true, {8, 4});
  ASSERT_TRUE(png);
  EXPECT_EQ(png->type, EncodedImageType::png);
  EXPECT_TRUE(isPng(png->data));
  EXPECT_EQ(png->originalImageSize, (Size{8, 4}));
  EXPECT_EQ(png->hash, sha256Hex({reinterpret_cast<const char*>(png->data.data()), png->data.size()}));
  const Decoded decoded = decodePng(png->data);
  EXPECT_EQ(decoded.width, 16);
  EXPECT_EQ(decoded.at(3, 3), (std::array<std::uint8_t, 4>{255, 64, 0, 200}));  // lossless, straight alpha

  const auto jpeg = ImageEncoder::encodeFallback(rgba, false, {8, 4});
  ASSERT_TRUE(jpeg);
  EXPECT_EQ(jpeg->type, EncodedImageType::png);
  EXPECT_TRUE(isJpeg(jpeg->data));
  EXPECT_EQ(jpeg->data[jpeg->data.size() - 2], 0xFF);  // complete: ends with the end-of-image marker
  EXPECT_EQ(jpeg->data.back(), 0xD9);

  EXPECT_EQ(ImageEncoder::encodeFallback(Bitmap{}, true, {}).error(),
            ImageEncoderError::couldNotConvertToUiImage);
  // Too wide for JPEG: libjpeg's error comes back as a failure instead of ending the process.
  EXPECT_EQ(ImageEncoder::encodeFallback(bitmapOf(70000, 1, {0, 0, 0, 255}), false, {}).error(),
            ImageEncoderError::failedEncode);
}

TEST(ImageEncoderFallback, TakenWhenWebPRefusesTheImage) {
  // Wider than WebP allows, within what PNG and JPEG allow.
  const Bitmap wide = bitmapOf(16384, 2, {0, 0, 100, 100});
  const ImageGeometry geometry{.sourceSize = {16384, 2}, .boundsSize = {16384, 2}, .scale = 1};

  const auto png = ImageEncoder::encode(wide, true, geometry);
  ASSERT_TRUE(png) << describe(png.error());
  EXPECT_EQ(png->type, EncodedImageType::png);
  ASSERT_TRUE(isPng(png->data));
  const Decoded decoded = decodePng(png->data);
  EXPECT_EQ(decoded.width, 16384);
  EXPECT_EQ(decoded.at(9000, 1), (std::array<std::uint8_t, 4>{0, 0, 255, 100}));  // un-premultiplied

  const auto jpeg = ImageEncoder::encode(wide, false, geometry);
  ASSERT_TRUE(jpeg);
  EXPECT_EQ(jpeg->type, EncodedImageType::png);
  EXPECT_TRUE(isJpeg(jpeg->data));
}

TEST(ImageEncoderErrors, NothingToDrawCannotMakeAContext) {
  EXPECT_EQ(ImageEncoder::encode(Bitmap{}, true, {}).error(), ImageEncoderError::couldNotCreateCgContext);
  Bitmap truncated = bitmapOf(10, 10, {1, 2, 3, 255});
  truncated.pixels.resize(truncated.pixels.size() - 1);
  EXPECT_EQ(ImageEncoder::encode(truncated, true, shownAtOwnSize(truncated)).error(),
            ImageEncoderError::couldNotCreateCgContext);
}

TEST(RgbaRendering, UnpremultipliesRoundedAndZeroAlphaToZero) {
  Bitmap source = bitmapOf(4, 1, {0, 0, 0, 0});
  const std::uint8_t pixels[] = {64, 32, 0,  128,  // → 128, 64, 0 (64 × 255 / 128 = 127.5, rounded up)
                                 10, 20, 30, 0,    // malformed premultiplied: no alpha, no colour
                                 1,  2,  3,  3,    // → 85, 170, 255
                                 9,  9,  9,  255};
  std::copy(std::begin(pixels), std::end(pixels), source.pixels.begin());

  const auto straight = image::renderRGBA(source, 4, 1, true);
  ASSERT_TRUE(straight);
  EXPECT_FALSE(straight->alphaPremultiplied);
  const std::vector<std::uint8_t> expected{128, 64, 0, 128, 0, 0, 0, 0, 85, 170, 255, 3, 9, 9, 9, 255};
  EXPECT_EQ(straight->pixels, expected);

  // Without alpha: the premultiplied colours, which is the image over black, and an opaque fourth byte.
  const auto opaque = image::renderRGBA(source, 4, 1, false);
  ASSERT_TRUE(opaque);
  const std::vector<std::uint8_t> overBlack{64, 32, 0, 255, 10, 20, 30, 255, 1, 2, 3, 255, 9, 9, 9, 255};
  EXPECT_EQ(opaque->pixels, overBlack);

  // Straight sources keep their colours; one without alpha reads its fourth byte as padding.
  const auto kept = image::renderRGBA(bitmapOf(1, 1, {200, 100, 50, 128}, true, false), 1, 1, true);
  EXPECT_EQ(kept->pixels, (std::vector<std::uint8_t>{200, 100, 50, 128}));
  const auto padded = image::renderRGBA(bitmapOf(1, 1, {200, 100, 50, 0}, false), 1, 1, true);
  EXPECT_EQ(padded->pixels, (std::vector<std::uint8_t>{200, 100, 50, 255}));
}

TEST(RgbaRendering, AveragesAreasOfPremultipliedColour) {
  // Opaque red beside fully transparent "blue" (premultiplied to nothing): averaged straight, the blue
  // would leak into the edge; premultiplied, the result is red at half coverage.
  Bitmap edge = bitmapOf(2, 1, {0, 0, 0, 0}, true, false);
  const std::uint8_t pixels[] = {255, 0, 0, 255, 0, 0, 255, 0};
  std::copy(std::begin(pixels), std::end(pixels), edge.pixels.begin());
  const auto halved = image::renderRGBA(edge, 1, 1, true);
  ASSERT_TRUE(halved);
  EXPECT_EQ(halved->pixels, (std::vector<std::uint8_t>{255, 0, 0, 128}));

  // A non-integer ratio: 3 → 2 pixels, each target pixel taking 1.5 source pixels.
  Bitmap row = bitmapOf(3, 1, {0, 0, 0, 255}, false);
  row.pixels[0] = 0;
  row.pixels[4] = 90;
  row.pixels[8] = 180;
  const auto twoThirds = image::renderRGBA(row, 2, 1, false);
  ASSERT_TRUE(twoThirds);
  EXPECT_EQ(twoThirds->pixels[0], 30);   // (0 + 90 / 2) / 1.5
  EXPECT_EQ(twoThirds->pixels[4], 150);  // (90 / 2 + 180) / 1.5

  // Rows run with padding at their ends; the target is never larger than the source.
  Bitmap padded = bitmapOf(2, 2, {50, 50, 50, 255});
  padded.bytesPerRow = 12;
  padded.pixels = {50, 50, 50, 255, 50, 50, 50, 255, 0xEE, 0xEE, 0xEE, 0xEE,
                   50, 50, 50, 255, 50, 50, 50, 255, 0xEE, 0xEE, 0xEE, 0xEE};
  const auto quarter = image::renderRGBA(padded, 1, 1, true);
  EXPECT_EQ(quarter->pixels, (std::vector<std::uint8_t>{50, 50, 50, 255}));
  EXPECT_FALSE(image::renderRGBA(padded, 3, 1, true));
}

TEST(ImageEncoderSizing, NeverLargerThanTheSourceNorMuchLargerThanTheLayerShowsIt) {
  auto size = [](Size source, Size bounds, std::string gravity, double scale = 1) {
    return ImageEncoder::targetPixelSize(
        {.sourceSize = source, .boundsSize = bounds, .contentsGravity = std::move(gravity), .scale = scale});
  };
  // A photo shown small is encoded small; a small image shown large keeps its own pixels.
  EXPECT_EQ(size({4000, 3000}, {100, 75}, "resize"), (Size{100, 75}));
  EXPECT_EQ(size({4000, 3000}, {100, 75}, "resize", 3), (Size{300, 225}));
  EXPECT_EQ(size({24, 24}, {300, 300}, "resize", 3), (Size{72, 72}));
  EXPECT_EQ(size({400, 400}, {100.2, 50}, "resize"), (Size{101, 50}));  // a partial pixel counts
  EXPECT_EQ(size({400, 400}, {100, 50}, "bogus"), (Size{100, 50}));     // drawn as resize

  // Uniform scaling by how much the aspect gravities shrink the image.
  EXPECT_EQ(size({400, 200}, {100, 100}, "resizeAspect"), (Size{100, 50}));
  EXPECT_EQ(size({400, 200}, {100, 100}, "resizeAspectFill"), (Size{200, 100}));
  EXPECT_EQ(size({400, 200}, {800, 800}, "resizeAspectFill"), (Size{400, 200}));

  // Placed images keep what shows in the bounds, with a fifth more as a margin.
  EXPECT_EQ(size({1000, 50}, {100, 100}, "center"), (Size{120, 50}));
  EXPECT_EQ(size({110, 110}, {100, 100}, "topLeft"), (Size{110, 110}));
  EXPECT_EQ(size({500, 500}, {100, 100}, "bottomRight", 2), (Size{240, 240}));

  // Degenerate layers still get a pixel; degenerate sources get nothing (and fail to encode).
  EXPECT_EQ(size({400, 200}, {0, 0}, "resize"), (Size{1, 1}));
  EXPECT_EQ(size({400, 200}, {0, 0}, "resizeAspect"), (Size{1, 1}));
  EXPECT_EQ(size({0, 200}, {100, 100}, "resize"), (Size{0, 0}));
  EXPECT_EQ(size({NAN, 200}, {100, 100}, "resize"), (Size{0, 0}));
}

// A placed image reaching past the bounds is encoded as the part the gravity puts inside them: red on its
// left half, green on its right, so the colours at the kept part's ends tell which part it is.
TEST(ImageEncoderCrop, PlacedImagesKeepThePartInsideTheBounds) {
  struct Row {
    std::string gravity;
    Size source;  // points, at `scale` pixels each
    double scale;
    Size bounds;
    Size encoded, shown;
    bool leftRed, rightRed;
  };
  for (const Row& row :
       std::vector<Row>{{"center", {1000, 50}, 1, {100, 100}, {100, 50}, {100, 50}, true, false},
                        {"topRight", {300, 60}, 3, {100, 20}, {300, 60}, {100, 20}, false, false},
                        {"bottomLeft", {300, 60}, 3, {100, 20}, {300, 60}, {100, 20}, true, true},
                        {"top", {80, 300}, 2, {100, 100}, {160, 200}, {80, 100}, true, false},
                        {"right", {1000, 50}, 1, {100, 100}, {120, 50}, {1000, 50}, true, false}}) {
    SCOPED_TRACE(row.gravity);
    const auto width = static_cast<std::uint32_t>(row.source.width * row.scale);
    Bitmap halves =
        bitmapOf(width, static_cast<std::uint32_t>(row.source.height * row.scale), {0, 255, 0, 255});
    for (std::uint32_t y = 0; y < halves.height; ++y)
      for (std::uint32_t x = 0; x < width / 2; ++x)
        std::copy_n(std::array<std::uint8_t, 4>{255, 0, 0, 255}.begin(), 4,
                    &halves.pixels[(y * width + x) * 4]);
    const auto result = ImageEncoder::encode(halves, false,
                                             {.sourceSize = row.source,
                                              .boundsSize = row.bounds,
                                              .contentsGravity = row.gravity,
                                              .scale = row.scale});
    ASSERT_TRUE(result);
    EXPECT_EQ(result->originalImageSize, row.shown);
    const Decoded decoded = decodeWebP(result->data);
    EXPECT_EQ((Size{double(decoded.width), double(decoded.height)}), row.encoded);
    EXPECT_EQ(decoded.at(0, 0)[0] > 128, row.leftRed);
    EXPECT_EQ(decoded.at(decoded.width - 1, 0)[0] > 128, row.rightRed);
  }
}

TEST(ImageEncoderCrop, UnitRectangleToPixels) {
  auto bitmap = std::make_shared<const Bitmap>([] {
    Bitmap b = bitmapOf(4, 2, {0, 0, 0, 255});
    for (std::uint32_t i = 0; i < 8; ++i) b.pixels[i * 4] = static_cast<std::uint8_t>(i);  // red = index
    b.scale = 2;
    return b;
  }());

  EXPECT_EQ(crop(bitmap, platform::kUnitRect), bitmap);  // the same object, no copy

  const auto right = crop(bitmap, {{0.5, 0}, {0.5, 1}});
  ASSERT_TRUE(right);
  EXPECT_EQ(right->width, 2u);
  EXPECT_EQ(right->height, 2u);
  EXPECT_EQ(right->scale, 2);
  EXPECT_EQ(sim::pixelAt(*right, 0, 0)[0], 2);
  EXPECT_EQ(sim::pixelAt(*right, 1, 1)[0], 7);

  // Partial pixels widen to whole ones; 0.1 + 0.2 does not become a fourth pixel.
  EXPECT_EQ(crop(bitmap, {{0.3, 0.5}, {0.2, 0.5}})->width, 1u);
  EXPECT_EQ(crop(bitmap, {{0.1 * 2.5, 0}, {0.2 * 2.5, 1}})->width, 2u);
  // Parts outside are cut off.
  EXPECT_EQ(crop(bitmap, {{0.75, 0}, {1, 1}})->width, 1u);

  EXPECT_EQ(crop(bitmap, {{0, 0}, {0, 1}}), nullptr);
  EXPECT_EQ(crop(bitmap, {{1.5, 0}, {1, 1}}), nullptr);
  EXPECT_EQ(crop(nullptr, {{0, 0}, {0.5, 0.5}}), nullptr);
}

TEST(ImageEncoderSurface, BgraRowsBecomeRgba) {
  auto surface = std::make_shared<sim::SimSurface>(
      platform::SurfaceProperties{.width = 2,
                                  .height = 2,
                                  .bytesPerElement = 4,
                                  .bytesPerRow = 16,  // padded rows
                                  .allocationSize = 32,
                                  .pixelFormat = platform::fourCharCode("BGRA")});
  surface->draw([](std::span<std::byte> bytes) {
    const std::uint8_t pixels[] = {1, 2, 3, 255, 4,  5,  6,  255, 99, 99, 99, 99,  // row 0 and its padding
                                   7, 8, 9, 255, 10, 11, 12, 128};                 // row 1
    std::memcpy(bytes.data(), pixels, 12);
    std::memcpy(bytes.data() + 16, pixels + 12, 8);
  });

  const auto bitmap = bitmapFromSurface(*surface, 3);
  ASSERT_TRUE(bitmap);
  EXPECT_EQ(bitmap->bytesPerRow, 8u);
  EXPECT_EQ(bitmap->scale, 3);
  EXPECT_TRUE(bitmap->alphaPremultiplied);
  EXPECT_EQ(sim::pixelAt(*bitmap, 0, 0), (std::array<std::uint8_t, 4>{3, 2, 1, 255}));
  EXPECT_EQ(sim::pixelAt(*bitmap, 1, 0), (std::array<std::uint8_t, 4>{6, 5, 4, 255}));
  EXPECT_EQ(sim::pixelAt(*bitmap, 0, 1), (std::array<std::uint8_t, 4>{9, 8, 7, 255}));
  EXPECT_EQ(sim::pixelAt(*bitmap, 1, 1), (std::array<std::uint8_t, 4>{12, 11, 10, 128}));
  EXPECT_TRUE(bitmap->hasAlpha);  // not every pixel opaque

  // Every pixel opaque: encoded without an alpha plane. The read lock is released afterwards.
  surface->fill(platform::Color{1, 0, 0, 1});
  const auto opaque = bitmapFromSurface(*surface, 1);
  ASSERT_TRUE(opaque);
  EXPECT_FALSE(opaque->hasAlpha);
  EXPECT_TRUE(surface->lock(platform::SurfaceAccess::readWrite));
  surface->unlock(platform::SurfaceAccess::readWrite);

  sim::SimSurface yuv(platform::SurfaceProperties{.width = 2,
                                                  .height = 2,
                                                  .bytesPerElement = 4,
                                                  .bytesPerRow = 8,
                                                  .allocationSize = 32,
                                                  .pixelFormat = platform::fourCharCode("420v")});
  EXPECT_FALSE(bitmapFromSurface(yuv, 1));
}

TEST(ImageEncoderSurface, SnapshotKeepsTheBitmapInPlaceOfItsSurface) {
  auto surface = sim::SimSurface::bgra(3, 2);
  surface->fill(platform::Color{0, 0, 1, 0.5});
  IOSurfaceSnapshotter::Snapshot snapshot({surface->id(), surface->seed()}, surface);

  const auto bitmap = scaledBitmapOf(snapshot, 2);
  ASSERT_TRUE(bitmap);
  EXPECT_EQ(bitmap->width, 3u);
  EXPECT_EQ(sim::pixelAt(*bitmap, 2, 1), (std::array<std::uint8_t, 4>{0, 0, 255, 128}));
  const IOSurfaceSnapshotter::Content content = snapshot.content();
  const auto* held = std::get_if<std::shared_ptr<const Bitmap>>(&content);
  ASSERT_NE(held, nullptr);
  EXPECT_EQ(*held, bitmap);
  EXPECT_EQ(scaledBitmapOf(snapshot, 2), bitmap);  // read once

  IOSurfaceSnapshotter::Snapshot unreadable({0, 0}, std::shared_ptr<platform::Surface>());
  EXPECT_EQ(scaledBitmapOf(unreadable, 1), nullptr);
}

}  // namespace
}  // namespace verdalune::sessionreplay
