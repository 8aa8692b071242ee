#include "convert/converter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <webp/decode.h>

#include <functional>
#include <map>
#include <optional>
#include <string>

#include "common/recording_logger.h"
#include "convert/visual_effect_filter_mapping.h"
#include "verdalune/sim/drawing.h"

namespace verdalune::sessionreplay {
namespace {

using platform::Color;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsSupersetOf;
using ::testing::Not;
using ::testing::StartsWith;

const Color kRed{1, 0, 0, 1};
const Color kBlue{0, 0, 1, 1};
constexpr std::string_view kBox = "height:40.0px; left:0.0px; top:30.0px; width:100.0px";

// Renders contents only it can draw, recording each request; fails when told to.
class RenderingPlatform final : public platform::Platform {
 public:
  std::shared_ptr<platform::Application> application() override { return nullptr; }
  std::shared_ptr<platform::UserInterface> userInterface() override { return nullptr; }
  std::shared_ptr<platform::HttpTransport> httpTransport() override { return nullptr; }
  std::unique_ptr<platform::PathMonitor> makePathMonitor() override { return nullptr; }
  std::shared_ptr<platform::GpuCommandQueue> makeGpuCommandQueue() override { return nullptr; }
  std::shared_ptr<platform::Surface> makeSurface(const platform::SurfaceProperties&) override {
    return nullptr;
  }
  std::optional<platform::Bitmap> renderContents(const platform::ContentsRenderRequest& request) override {
    requests.push_back(request);
    if (fails) return std::nullopt;
    return sim::solidBitmap(10, 20, kRed);
  }
  bool fails = false;
  std::vector<platform::ContentsRenderRequest> requests;
};

// A 100 × 40 layer whose box is at (0, 30) in its parent, changed by `change`.
LayerTreeNode layer(const std::function<void(LayerSnapshot&)>& change = {}) {
  LayerTreeNode node;
  LayerSnapshot& s = node.snapshot;
  s.layerClass = "CALayer";
  s.position = {50, 50};
  s.anchorPoint = {0.5, 0.5};
  s.bounds = {{0, 0}, {100, 40}};
  s.frame = {{0, 30}, {100, 40}};
  s.contentsRect = s.modelContentsRect = platform::kUnitRect;
  s.contentsGravity = "center";
  s.shadowOffset = {0, -3};
  s.shadowRadius = 3;
  if (change) change(s);
  return node;
}

LayerTreeNode showing(LayerContents::Contents contents,
                      const std::function<void(LayerSnapshot&)>& change = {}) {
  LayerTreeNode node = layer(change);
  node.contents = std::make_shared<LayerContents>(std::move(contents), LayerContents::NoMetadata{});
  return node;
}

std::shared_ptr<const EncodedImageData> encoded(std::string hash, platform::Size size) {
  return std::make_shared<const EncodedImageData>(
      EncodedImageData{.hash = std::move(hash), .data = {1}, .originalImageSize = size});
}

// What the node's contents hold after a conversion: their encoded form, or null.
std::shared_ptr<const EncodedImageData> stored(const LayerTreeNode& node) {
  const LayerContents::Contents contents = node.contents->contents();
  const auto* prehashed = std::get_if<LayerContents::Prehashed>(&contents);
  return prehashed ? prehashed->encodedImageData : nullptr;
}

class ConverterTest : public ::testing::Test {
 protected:
  Converter::Attributes convert(const LayerTreeNode& node) {
    return Converter::convert(node, images, &logger, context);
  }
  std::string style(const LayerTreeNode& node) { return convert(node).at("style"); }
  std::vector<std::string> declarations(const LayerTreeNode& node) {
    std::vector<std::string> found;
    std::string text = style(node) + "; ";
    for (std::size_t start = 0, end; (end = text.find("; ", start)) != std::string::npos; start = end + 2) {
      found.push_back(text.substr(start, end - start));
    }
    return found;
  }

  std::shared_ptr<RenderingPlatform> platform = std::make_shared<RenderingPlatform>();
  Converter::Context context{platform};
  Converter::AdditionalContent images;
  RecordingLogger logger;
};

TEST_F(ConverterTest, PlacesTheBoxByPositionAndAnchorAndSortsDeclarationsByTheirWholeText) {
  EXPECT_EQ(convert(layer([](LayerSnapshot& s) {
              s.frame = {{-500, -500}, {1, 1}};
              s.backgroundColor = kRed;
            })),
            (Converter::Attributes{{"style", "background-color:#FF0000FF; " + std::string(kBox)}}));
  // "border-radius:" sorts before "border:", "transform-origin:" before "transform:".
  EXPECT_EQ(style(layer([](LayerSnapshot& s) {
              s.borderWidth = 2;
              s.cornerRadius = 4;
              s.maskedCorners = 15;
              s.transform.m[0] = s.transform.m[5] = 2;
            })),
            "border-radius:4.0px 4.0px 4.0px 4.0px; border:2.0px solid #000000FF; height:40.0px; left:0.0px; "
            "top:30.0px; transform-origin:50.0% 50.0%; transform:matrix(2.0, 0.0, 0.0, 2.0, 0.0, 0.0); "
            "width:100.0px");
}

TEST_F(ConverterTest, CornerRadiusTakesTheShortFormOnlyForMask14) {
  for (const auto& [mask, expected] :
       std::vector<std::pair<std::uint32_t, std::string>>{{15, "8.0px 8.0px 8.0px 8.0px"},
                                                          {14, "8.0px"},
                                                          {3, "8.0px 8.0px 0.0px 0.0px"},
                                                          {8, "0.0px 0.0px 8.0px 0.0px"}}) {
    EXPECT_THAT(declarations(layer([mask](LayerSnapshot& s) {
                  s.cornerRadius = 8;
                  s.maskedCorners = mask;
                })),
                Contains("border-radius:" + expected));
  }
}

TEST_F(ConverterTest, AffineTransformsWriteMatrixAndOthersMatrix3dWithADepthOrigin) {
  EXPECT_THAT(
      declarations(layer([](LayerSnapshot& s) {
        s.anchorPoint = {0.25, 1};
        s.transform.m = {0, 1, 0, 0, -1, 0, 0, 0, 0, 0, 1, 0, 5, -7, 0, 1};
      })),
      IsSupersetOf({"transform:matrix(0.0, 1.0, -1.0, 0.0, 5.0, -7.0)", "transform-origin:25.0% 100.0%"}));
  EXPECT_THAT(
      declarations(layer([](LayerSnapshot& s) {
        s.anchorPointZ = 3;
        s.transform.m[11] = -0.002;
      })),
      IsSupersetOf({"transform:matrix3d(1.0, 0.0, 0.0, 0.0, 0.0, 1.0, 0.0, 0.0, 0.0, 0.0, 1.0, -0.002, 0.0, "
                    "0.0, 0.0, 1.0)",
                    "transform-origin:50.0% 50.0% 3.0px"}));
}

TEST_F(ConverterTest, ClipsWithOverflowUnlessTheBoundsShowOnlyPartOfTheFrame) {
  EXPECT_EQ(style(layer([](LayerSnapshot& s) { s.masksToBounds = true; })),
            "height:40.0px; left:0.0px; overflow:clip; top:30.0px; width:100.0px");
  EXPECT_THAT(declarations(layer([](LayerSnapshot& s) {
                s.masksToBounds = true;
                s.bounds.origin.y = 10;
              })),
              IsSupersetOf({"margin-top:-10.0px", "clip-path:xywh(0.0px 10.0px 100.0px 40.0px )",
                            "transform:translateZ(0)"}));
  // Scaled up, so the frame differs: a rounded clip, and the layer's own transform instead of translateZ.
  EXPECT_THAT(declarations(layer([](LayerSnapshot& s) {
                s.masksToBounds = true;
                s.frame.size = {200, 80};
                s.cornerRadius = 6;
                s.maskedCorners = 3;
                s.transform.m[0] = s.transform.m[5] = 2;
              })),
              IsSupersetOf({"clip-path:xywh(0.0px 0.0px 100.0px 40.0px round 6.0px 6.0px 0.0px 0.0px)",
                            "transform:matrix(2.0, 0.0, 0.0, 2.0, 0.0, 0.0)"}));
}

TEST_F(ConverterTest, WebViewsGetIframeAttributesAndABlockedOneOnlyItsShapeAndThePlaceholder) {
  auto webView = [](LayerSnapshot& s) {
    s.isWebView = true;
    s.webViewInsets = {.top = 1, .left = 2, .bottom = 3, .right = 4};
    s.backgroundColor = kRed;
    s.webViewBackgroundColor = kBlue;
    s.opacity = 0.5f;
    s.isHidden = true;
    s.borderWidth = 3;
    s.shadowOpacity = 1;
    s.compositingFilter = "multiply";
  };
  EXPECT_EQ(
      style(layer(webView)),
      "background-color:#0000FFFF; border:3.0px solid #000000FF; filter:drop-shadow(#000000FF 0.0px -3.0px "
      "3.0px); height:40.0px; left:0.0px; mix-blend-mode:multiply; opacity:0.5; padding:1.0px 4.0px 3.0px "
      "2.0px; top:30.0px; visibility:hidden; width:100.0px");

  LayerTreeNode blocked = showing(LayerContents::Prehashed{encoded("AB", {4, 4})}, webView);
  blocked.isBlocked = true;
  blocked.visualEffect = VisualEffect::blur(0);
  EXPECT_EQ(convert(blocked),
            (Converter::Attributes{{"scrolling", "no"},
                                   {"sandbox", "allow-same-origin"},
                                   {"style",
                                    "background-color:#D6D7DC; height:40.0px; left:0.0px; opacity:0.5; "
                                    "padding:1.0px 4.0px 3.0px 2.0px; top:30.0px; width:100.0px"}}));
  EXPECT_TRUE(images.empty());
}

TEST_F(ConverterTest, GradientsPairStopsAndScaleTheirAnglesByTheBoxInOppositeWays) {
  auto gradient = [](std::string type, platform::Point end,
                     std::optional<std::vector<double>> locations = {}) {
    return layer([=](LayerSnapshot& s) {
      s.gradientType = type;
      s.gradientColors = std::vector<Color>{kRed, Color{0, 1, 0, 1}, kBlue};
      s.gradientLocations = locations;
      s.gradientStartPoint = platform::Point{0, 0};
      s.gradientEndPoint = end;
    });
  };
  const std::string stops = "#FF0000FF, #00FF00FF, #0000FFFF)";
  EXPECT_THAT(
      declarations(gradient("axial", {0, 1}, std::vector<double>{0, 0.3})),
      Contains("background-image:linear-gradient(3.141592653589793rad, #FF0000FF 0.0%, #00FF00FF 30.0%)"));
  EXPECT_THAT(declarations(gradient("axial", {1, 1})),
              Contains("background-image:linear-gradient(2.761086276477428rad, " + stops));
  EXPECT_THAT(declarations(gradient("conic", {1, 1})),
              Contains("background-image:conic-gradient(from 1.9513027039072615rad at 0.0% 0.0%, " + stops));
  EXPECT_THAT(
      declarations(gradient("radial", {-0.5, 0.25}, std::vector<double>{0.25, 0.5, 1, 1})),
      Contains("background-image:radial-gradient(50.0% 25.0% at 0.0% 0.0%, #FF0000FF 25.0%, #00FF00FF 50.0%, "
               "#0000FFFF 100.0%)"));
  EXPECT_EQ(style(gradient("cone", {1, 1})), kBox);
}

TEST_F(ConverterTest, EffectsFilterTheBackdropOrTheLayerAndAShadowTakesOverTheFilter) {
  for (const std::string filter : {"destIn", "Multiply"}) {
    EXPECT_EQ(style(layer([&](LayerSnapshot& s) { s.compositingFilter = filter; })), kBox);
  }
  LayerTreeNode backdrop = layer([](LayerSnapshot& s) { s.layerClass = "_UIVisualEffectBackdropLayer"; });
  backdrop.visualEffect = VisualEffect::blur(1);
  EXPECT_EQ(style(backdrop),
            "-webkit-backdrop-filter:blur(30px) saturate(1.8);; backdrop-filter:blur(30px) "
            "saturate(1.8);; " +
                std::string(kBox));

  // Vibrancy's blend mode replaces the compositing filter's, its transform the layer's own.
  LayerTreeNode vibrant = layer([](LayerSnapshot& s) {
    s.compositingFilter = "plusL";
    s.transform.m[0] = 2;
  });
  vibrant.visualEffect = VisualEffect::vibrancy(12, 1);
  EXPECT_EQ(
      style(vibrant),
      "filter:opacity(0.4) url(#vibrancy-light); height:40.0px; left:0.0px; mix-blend-mode:plus-darker; "
      "top:30.0px; transform-origin:50.0% 50.0%; transform:translate3d(0,0,0); width:100.0px");

  LayerTreeNode shadowed = layer([](LayerSnapshot& s) {
    s.shadowOpacity = 0.5f;
    s.shadowColor = Color{0, 0, 0, 0.5};
  });
  shadowed.visualEffect = VisualEffect::blur(0);
  EXPECT_THAT(declarations(shadowed), Contains("filter:drop-shadow(#0000003F 0.0px -3.0px 3.0px)"));
}

// Every row of the tables, written out: a look changed by mistake in one row shows up here.
TEST(VisualEffectFilterMapping, EveryBlurAndVibrancyStyleHasItsLook) {
  auto css = VisualEffectFilterMapping::css;
  const char* const kGlass = "blur(20px) saturate(1.8);";
  const std::map<int, std::string> blur = {
      {0, kGlass},
      {1, "blur(30px) saturate(1.8);"},
      {2, kGlass},
      {3, kGlass},
      {4, kGlass},
      {5, kGlass},
      {11, "invert(0.16) invert() brightness(0.92) invert() saturate(1.1) brightness(1.12) blur(22.5px)"},
      {12, "invert(0.2) invert() brightness(0.75) invert() saturate(1.35) brightness(1.12) blur(29.5px)"},
      {13, "invert(0.32) invert() brightness(0.48) invert() saturate(1.5) brightness(1.1) blur(29.5px)"},
      {14, "invert(0.38) invert() brightness(0.22) invert() saturate(1.5) brightness(1.045) blur(45px)"},
      {15, "invert(0.34) invert() brightness(0.2) invert() saturate(1.1) brightness(1.1) blur(22.5px)"},
      {16, "brightness(0.76) invert(0.12) saturate(1.1) blur(22.5px)"},
      {17, "brightness(0.48) invert(0.14) saturate(1.35) blur(29.5px)"},
      {18, "brightness(0.26) invert(0.16) saturate(1.5) blur(29.5px)"},
      {19, "brightness(0.08) invert(0.12) saturate(1.5) blur(29.5px)"},
      {20, "brightness(0.4) invert(0.18) saturate(2) brightness(0.9) blur(22.5px)"}};
  // Vibrancy on the light and the dark materials, by vibrancy style 0 to 7: the same strengths but for
  // style 1, which the light scale has no 0.6 step for.
  // clang-format off
  const std::vector<std::string> light = {"", "opacity(0.4) ", "opacity(0.25) ", "opacity(0.15) ",
                                          "opacity(0.4) ", "opacity(0.2) ", "opacity(0.07) ", "opacity(0.2) "};
  // clang-format on
  std::vector<std::string> dark = light;
  dark[1] = "opacity(0.6) ";
  // Vibrancy on the classic glasses, whatever the vibrancy style.
  using Look = std::pair<std::optional<std::string>, std::optional<std::string>>;  // filter, blend mode
  const std::map<int, Look> classic = {
      {0, {"saturate(4) brightness(0.1) invert(0.1)", "color-burn"}},
      {1, {"saturate(4) brightness(0.1) invert(0.1)", "color-burn"}},
      {2, {"saturate(4) brightness(0.5) invert(0.3)", "color-dodge"}},
      {3, {"saturate(4) brightness(0.5) invert(0.3)", "color-dodge"}},
      {4, {"saturate(4) brightness(0.1) invert(0.2) opacity(0.8)", "color-burn"}},
      {5, {"saturate(4) brightness(0.05) invert(0.05) opacity(0.8)", "color-burn"}}};

  for (int style = 0; style <= 21; ++style) {
    // The adaptive materials (6 to 10) look like their light twins (11 to 15).
    const int looksLike = style >= 6 && style <= 10 ? style + 5 : style;
    const auto row = blur.find(looksLike);
    EXPECT_EQ(css(VisualEffect::blur(style)).filter,
              row == blur.end() ? std::nullopt : std::optional<std::string_view>(row->second))
        << "blur style " << style;
    EXPECT_EQ(css(VisualEffect::blur(style)).blendMode, std::nullopt) << "blur style " << style;
    for (int vibrancy = 0; vibrancy <= 8; ++vibrancy) {
      const auto got = css(VisualEffect::vibrancy(style, vibrancy));
      Look expected;
      if (vibrancy <= 7 && looksLike >= 11 && looksLike <= 15) {
        expected = {light[vibrancy] + "url(#vibrancy-light)", "plus-darker"};
      } else if (vibrancy <= 7 && looksLike >= 16 && looksLike <= 20) {
        expected = {dark[vibrancy] + "url(#vibrancy-dark)", "plus-lighter"};
      } else if (classic.contains(looksLike)) {
        expected = classic.at(looksLike);
      }
      EXPECT_EQ(got.filter, expected.first) << "blur style " << style << ", vibrancy " << vibrancy;
      EXPECT_EQ(got.blendMode, expected.second) << "blur style " << style << ", vibrancy " << vibrancy;
    }
  }
  EXPECT_FALSE(css(VisualEffect::noEffect()).filter || css(VisualEffect::noEffect()).blendMode);
}

TEST_F(ConverterTest, EncodedImagesArePlacedByTheGravityTableAndOnlyOnVisibleLayers) {
  const auto image = encoded("C0FFEE", {24, 12});
  for (const auto& [gravity, size, position] : std::vector<std::tuple<std::string, std::string, std::string>>{
           {"center", "24.0px 12.0px", "center"},
           {"bottomLeft", "24.0px 12.0px", "bottom left"},
           {"resize", "100% 100%", "0% 0%"},
           {"resizeAspect", "contain", "center"},
           {"resizeAspectFill", "cover", "0% 0%"},
           {"right", "auto", "center"}}) {
    const auto attributes = convert(
        showing(LayerContents::Prehashed{image}, [&](LayerSnapshot& s) { s.contentsGravity = gravity; }));
    EXPECT_EQ(attributes.at("class"), "bg-C0FFEE");
    EXPECT_EQ(attributes.at("style"), "background-position:" + position +
                                          "; background-repeat:no-repeat; background-size:" + size + "; " +
                                          std::string(kBox));
  }
  ASSERT_EQ(images.images().size(), 1u);
  EXPECT_EQ(images.images()[0], std::make_pair(std::string("bg-C0FFEE"), image));

  EXPECT_FALSE(convert(showing(LayerContents::Prehashed{image}, [](LayerSnapshot& s) {
                 s.isHidden = true;
               })).contains("class"));
  EXPECT_FALSE(convert(showing(LayerContents::Prehashed{image}, [](LayerSnapshot& s) {
                 s.opacity = 0;
               })).contains("class"));
}

TEST_F(ConverterTest, BitmapContentsAreCroppedThenEncodedOnceForEveryLayerSharingThem) {
  LayerTreeNode node =
      showing(LayerContents::CgImage{std::make_shared<platform::Bitmap>(sim::solidBitmap(40, 20, kRed))},
              [](LayerSnapshot& s) {
                s.modelContentsRect = {{0.5, 0}, {0.5, 1}};
              });
  const auto first = convert(node);
  const auto image = stored(node);
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(first.at("class"), "bg-" + image->hash);
  EXPECT_THAT(first.at("style"), HasSubstr("background-size:20.0px 20.0px"));

  LayerTreeNode sharing = layer();
  sharing.contents = node.contents;
  EXPECT_EQ(convert(sharing).at("class"), first.at("class"));
  EXPECT_EQ(stored(sharing), image);
  ASSERT_EQ(images.images().size(), 1u);
  EXPECT_EQ(images.images()[0].second, image);
}

// A picture is encoded once however many layers show it, each with contents of its own: the same
// image object, the same surface frame, equal pixels in bitmaps of their own. A new image object, a new
// frame, other pixels or another size on screen are encoded again.
TEST_F(ConverterTest, APictureShownByManyLayersIsEncodedOnce) {
  auto encodesFor = [&](const std::vector<LayerTreeNode>& nodes) {
    const std::size_t before = context.encodeCount();
    for (const LayerTreeNode& node : nodes) EXPECT_TRUE(convert(node).contains("class"));
    return context.encodeCount() - before;
  };
  auto photo = [] { return sim::SimImage::fromBitmap(sim::solidBitmap(10, 10, kRed)); };
  auto frame = [](std::uint32_t seed) {
    return LayerContents::IOSurfaceSnapshot{std::make_shared<IOSurfaceSnapshotter::Snapshot>(
        IOSurfaceSnapshotter::Key{7, seed},
        std::make_shared<const platform::Bitmap>(sim::solidBitmap(8, 4, kRed)))};
  };
  auto bitmap = [](Color color) {
    return LayerContents::CgImage{std::make_shared<const platform::Bitmap>(sim::solidBitmap(40, 20, color))};
  };
  const auto shared = photo();
  std::vector<LayerTreeNode> nodes;
  for (int i = 0; i < 3; ++i) {
    nodes.push_back(showing(LayerContents::UiImage{shared}));
    nodes.push_back(showing(frame(1)));
    nodes.push_back(showing(bitmap(kRed)));
  }
  EXPECT_EQ(encodesFor(nodes), 3u);
  EXPECT_EQ(stored(nodes[0]), stored(nodes[3]));
  EXPECT_EQ(stored(nodes[2]), stored(nodes[8]));

  EXPECT_EQ(encodesFor({showing(LayerContents::UiImage{photo()}), showing(frame(2)), showing(bitmap(kBlue)),
                        showing(LayerContents::UiImage{shared},
                                [](LayerSnapshot& s) {
                                  s.bounds.size = {5, 5};
                                })}),
            4u);
}

// Bitmaps shown in the replay at a point per pixel are encoded with the pixels the device shows (bounds ×
// contents scale, not more than the bitmap has); placed ones larger than a clipped layer only with the
// part inside it, shown at that part's size where the whole put it.
TEST_F(ConverterTest, BitmapsAreEncodedAtTheDeviceScaleAndPlacedOnesCutToWhatShows) {
  struct Row {
    std::uint32_t width, height;
    platform::Size bounds;
    std::string gravity;
    int encodedWidth, encodedHeight;
    std::string size;
  };
  for (const Row& row : std::vector<Row>{{300, 60, {100, 20}, "resize", 300, 60, "100% 100%"},
                                         {1200, 240, {100, 20}, "resize", 300, 60, "100% 100%"},
                                         {1000, 50, {100, 100}, "center", 100, 50, "100.0px 50.0px"},
                                         {1000, 50, {100, 100}, "bottomRight", 100, 50, "100.0px 50.0px"},
                                         {300, 300, {100, 100}, "topLeft", 100, 100, "100.0px 100.0px"},
                                         {40, 20, {100, 100}, "center", 40, 20, "40.0px 20.0px"}}) {
    SCOPED_TRACE(row.gravity + " " + std::to_string(row.width));
    LayerTreeNode node = showing(LayerContents::CgImage{std::make_shared<platform::Bitmap>(
                                     sim::solidBitmap(row.width, row.height, kRed))},
                                 [&](LayerSnapshot& s) {
                                   s.bounds.size = s.frame.size = row.bounds;
                                   s.masksToBounds = true;
                                   s.contentScale = 3;
                                   s.contentsGravity = row.gravity;
                                 });
    EXPECT_THAT(declarations(node), Contains("background-size:" + row.size));
    const auto image = stored(node);
    ASSERT_NE(image, nullptr);
    int width = 0, height = 0;
    ASSERT_TRUE(WebPGetInfo(image->data.data(), image->data.size(), &width, &height));
    EXPECT_EQ(std::pair(width, height), std::pair(row.encodedWidth, row.encodedHeight));
  }
}

TEST_F(ConverterTest, StretchableImagesAreRedrawnAtTheLayerSize) {
  auto image = [](sim::SimImage::Options options) {
    return LayerContents::UiImage{sim::SimImage::fromBitmap(sim::solidBitmap(10, 10, kRed), options)};
  };
  EXPECT_THAT(declarations(showing(image({}))), Contains("background-size:10.0px 10.0px"));
  EXPECT_THAT(declarations(showing(image({.capInsets = {.top = 2}}))),
              Contains("background-size:100.0px 40.0px"));
  EXPECT_THAT(declarations(showing(image({.className = "_UIResizableImage"}))),
              Contains("background-size:100.0px 40.0px"));

  // Nothing can be drawn at a zero size: logged, and no image.
  LayerTreeNode flat =
      showing(image({.capInsets = {.top = 2}}), [](LayerSnapshot& s) { s.bounds.size = {}; });
  EXPECT_FALSE(convert(flat).contains("class"));
  EXPECT_THAT(logger.errors(), ElementsAre(StartsWith("[Converter] Error processing UIImage: ")));
}

TEST_F(ConverterTest, TexturesAndSurfacesArePlacedAtTheirPointSize) {
  auto texture = [](sim::SimTexture::Options options) {
    return LayerContents::MtlTexture{
        std::make_shared<sim::SimTexture>(sim::solidBitmap(20, 10, kRed), options)};
  };
  EXPECT_THAT(declarations(showing(texture({}), [](LayerSnapshot& s) { s.contentScale = 2; })),
              Contains("background-size:10.0px 5.0px"));
  EXPECT_THAT(declarations(showing(texture({}), [](LayerSnapshot& s) { s.contentScale = 0; })),
              Contains("background-size:20.0px 10.0px"));
  EXPECT_FALSE(convert(showing(texture({.framebufferOnly = true}))).contains("class"));

  auto snapshot = std::make_shared<IOSurfaceSnapshotter::Snapshot>(
      IOSurfaceSnapshotter::Key{1, 1},
      std::make_shared<const platform::Bitmap>(sim::solidBitmap(8, 4, kRed, 2)));
  EXPECT_THAT(declarations(showing(LayerContents::IOSurfaceSnapshot{snapshot},
                                   [](LayerSnapshot& s) { s.contentScale = 2; })),
              Contains("background-size:4.0px 2.0px"));
  EXPECT_TRUE(logger.errors().empty());
}

TEST_F(ConverterTest, UnknownContentsAreRenderedByThePlatformInWholePointBounds) {
  const auto opaque = std::make_shared<sim::SimOpaqueContents>("_UIPrivateContents", kRed);
  LayerTreeNode node = showing(LayerContents::Unknown{opaque}, [](LayerSnapshot& s) {
    s.bounds = {{0.7, -1.5}, {10.9, 20.2}};
    s.backgroundColor = kBlue;
    s.contentScale = 3;
    s.isGeometryFlipped = s.isOpaque = true;
  });
  EXPECT_TRUE(convert(node).contains("class"));
  ASSERT_EQ(platform->requests.size(), 1u);
  const platform::ContentsRenderRequest& request = platform->requests[0];
  EXPECT_EQ(request.contents, opaque);
  EXPECT_EQ(request.bounds, (platform::Rect{{0, -1}, {10, 20}}));
  EXPECT_EQ(request.backgroundColor, kBlue);
  EXPECT_EQ(request.contentsScale, 3);
  EXPECT_TRUE(request.geometryFlipped && request.opaque);

  platform->fails = true;
  LayerTreeNode failing = showing(LayerContents::Unknown{opaque});
  EXPECT_EQ(style(failing), kBox);
  EXPECT_THAT(logger.errors(), ElementsAre(StartsWith("[Converter] Error processing unknown contents: ")));
  EXPECT_EQ(stored(failing), nullptr);
}

}  // namespace
}  // namespace verdalune::sessionreplay
