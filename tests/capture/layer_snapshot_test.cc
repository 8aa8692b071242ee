#include "capture/layer_snapshot.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/recording_logger.h"
#include "verdalune/sim/layer.h"
#include "verdalune/sim/platform.h"
#include "verdalune/sim/views.h"
#include "verdalune/sim/web_view.h"

namespace verdalune::sessionreplay {
namespace {

using platform::Color;
using platform::Rect;
using platform::Transform3D;
using sim::SimLayer;

constexpr platform::OsVersion kOs17{17, 0, 0};

Transform3D translation(double x, double y) {
  Transform3D t;
  t.m[12] = x;
  t.m[13] = y;
  return t;
}

Transform3D scale(double factor) {
  Transform3D t;
  t.m[0] = factor;
  t.m[5] = factor;
  return t;
}

TEST(LayerSnapshotTest, PresentationLayerIsReadWhenPresentAndModelOtherwise) {
  auto root = std::make_shared<SimLayer>();
  auto layer = std::make_shared<SimLayer>();
  root->addSublayer(layer);
  layer->setFrame({{10, 20}, {100, 50}});
  layer->setContentsRect({{0, 0}, {0.5, 0.5}});
  RecordingLogger logger;

  EXPECT_EQ(presentationOrModel(layer, &logger), layer) << "never committed: no presentation copy";

  root->commit();
  layer->beginAnimation([](platform::LayerProperties& shown) {
    shown.opacity = 0.25f;
    shown.contentsRect = {{0.5, 0.5}, {0.5, 0.5}};
  });
  auto shown = presentationOrModel(layer, &logger);
  ASSERT_NE(shown, layer);
  const auto snapshot = readLayerSnapshot(*shown, {}, kOs17);
  EXPECT_FLOAT_EQ(snapshot.opacity, 0.25f);
  EXPECT_FLOAT_EQ(readLayerSnapshot(*layer, {}, kOs17).opacity, 1.0f);
  // The model's contents rect ignores the running animation.
  EXPECT_EQ(snapshot.contentsRect, (Rect{{0.5, 0.5}, {0.5, 0.5}}));
  EXPECT_EQ(snapshot.modelContentsRect, (Rect{{0, 0}, {0.5, 0.5}}));
  EXPECT_TRUE(logger.errors().empty());

  // A presentation read that throws is logged, and the model layer read instead.
  layer->setPresentationThrows(true);
  EXPECT_EQ(presentationOrModel(layer, &logger), layer);
  EXPECT_EQ(logger.errors().size(), 1u);
  EXPECT_EQ(presentationOrModel(layer, nullptr), layer) << "no logger is no crash";
}

TEST(LayerSnapshotTest, EmptyBoundsTakeTheRenderBoxHostBoundsOnly) {
  for (const std::string hostClass : {"WKRenderBoxLayer", "CALayer"}) {
    auto host = std::make_shared<SimLayer>(hostClass);
    host->setFrame({{0, 0}, {300, 200}});
    auto layer = std::make_shared<SimLayer>();
    host->addSublayer(layer);
    auto bounds = readLayerSnapshot(*layer, {}, kOs17).bounds;
    if (hostClass == "CALayer") {
      EXPECT_TRUE(bounds.isEmpty()) << "only a render box host lends its bounds";
    } else {
      EXPECT_EQ(bounds.size, (platform::Size{300, 200}));
    }
  }
  auto host = std::make_shared<SimLayer>("WKRenderBoxLayer");
  host->setFrame({{0, 0}, {300, 200}});
  auto sized = std::make_shared<SimLayer>();
  host->addSublayer(sized);
  sized->setFrame({{0, 0}, {40, 30}});
  EXPECT_EQ(readLayerSnapshot(*sized, {}, kOs17).bounds.size, (platform::Size{40, 30}));
}

TEST(LayerSnapshotTest, OwnTransformIsAppliedBeforeTheParentOne) {
  auto layer = std::make_shared<SimLayer>();
  layer->update([](platform::LayerProperties& p) { p.transform = translation(10, 0); });
  EXPECT_EQ(readLayerSnapshot(*layer, Transform3D::identity(), kOs17).transform, translation(10, 0))
      << "a root keeps its own transform";
  // Translate then scale by 2 moves by 20; the other order would move by 10.
  EXPECT_EQ(readLayerSnapshot(*layer, scale(2), kOs17).transform.m[12], 20);
}

TEST(LayerSnapshotTest, WebViewBackgroundFallsBackToUnderPageFromOs15ThenWhite) {
  sim::SimPlatform device;
  auto web = sim::SimViewNode::make<sim::SimWebView>(device.app()->mainQueue());
  web->setScrollViewAdjustedContentInset({44, 0, 34, 0});
  web->setUnderPageBackgroundColor(Color{0, 0, 1, 1});

  auto onOs15 = readLayerSnapshot(*web->layer(), {}, platform::OsVersion{15, 0, 0});
  EXPECT_TRUE(onOs15.isWebView);
  EXPECT_EQ(onOs15.webViewInsets, (platform::EdgeInsets{44, 0, 34, 0}));
  EXPECT_EQ(onOs15.webViewBackgroundColor, (Color{0, 0, 1, 1}));
  EXPECT_EQ(readLayerSnapshot(*web->layer(), {}, platform::OsVersion{14, 8, 0}).webViewBackgroundColor,
            (Color{1, 1, 1, 1}));

  web->setScrollViewBackgroundColor(Color{0, 1, 0, 1});
  EXPECT_EQ(readLayerSnapshot(*web->layer(), {}, kOs17).webViewBackgroundColor, (Color{0, 1, 0, 1}))
      << "the scroll view's own colour comes first";
}

// The comparison of captures trusts fingerprints: a field left out of the fingerprint would be a change
// never recorded.
TEST(LayerSnapshotTest, FingerprintChangesWithEveryField) {
  const std::vector<std::function<void(LayerSnapshot&)>> changes{
      [](auto& s) { s.layerClass = "CAShapeLayer"; },
      [](auto& s) { s.viewClass = "UIView"; },
      [](auto& s) { s.bounds.size.width = 1; },
      [](auto& s) { s.position.y = 1; },
      [](auto& s) { s.zPosition = 1; },
      [](auto& s) { s.anchorPoint.x = 1; },
      [](auto& s) { s.anchorPointZ = 1; },
      [](auto& s) { s.transform.m[12] = 1; },
      [](auto& s) { s.frame.origin.x = 1; },
      [](auto& s) { s.isHidden = true; },
      [](auto& s) { s.isDoubleSided = false; },
      [](auto& s) { s.isGeometryFlipped = true; },
      [](auto& s) { s.masksToBounds = true; },
      [](auto& s) { s.contentsRect.size.height = 1; },
      [](auto& s) { s.modelContentsRect.origin.y = 1; },
      [](auto& s) { s.contentsGravity = "center"; },
      [](auto& s) { s.contentScale = 3; },
      [](auto& s) { s.contentsCenter.size.width = 1; },
      [](auto& s) { s.isOpaque = true; },
      [](auto& s) { s.edgeAntialiasingMask = 15; },
      [](auto& s) { s.allowsEdgeAntialiazing = true; },
      [](auto& s) { s.backgroundColor = Color{}; },
      [](auto& s) { s.cornerRadius = 1; },
      [](auto& s) { s.maskedCorners = 15; },
      [](auto& s) { s.cornerCurve = "continuous"; },
      [](auto& s) { s.borderWidth = 1; },
      [](auto& s) { s.borderColor = Color{}; },
      [](auto& s) { s.opacity = 0.5f; },
      [](auto& s) { s.allowsGroupOpacity = false; },
      [](auto& s) { s.shadowColor = Color{}; },
      [](auto& s) { s.shadowOpacity = 0.5f; },
      [](auto& s) { s.shadowOffset.height = 1; },
      [](auto& s) { s.shadowRadius = 1; },
      [](auto& s) { s.shadowPath = platform::Path{}; },
      [](auto& s) { s.contentsAreFlipped = true; },
      [](auto& s) { s.compositingFilter = "multiplyBlendMode"; },
      [](auto& s) { s.userInterfaceStyle = 2; },
      [](auto& s) { s.gradientColors = std::vector<Color>{}; },
      [](auto& s) { s.gradientLocations = std::vector<double>{}; },
      [](auto& s) { s.gradientStartPoint = platform::Point{}; },
      [](auto& s) { s.gradientEndPoint = platform::Point{}; },
      [](auto& s) { s.gradientType = "radial"; },
      [](auto& s) { s.isWebView = true; },
      [](auto& s) { s.webViewInsets.bottom = 1; },
      [](auto& s) { s.webViewBackgroundColor = Color{}; },
      [](auto& s) { s.contentsMultiplyColor = Color{}; },
      [](auto& s) { s.backgroundColor = Color{.space = platform::ColorSpace::displayP3}; },
      [](auto& s) { s.shadowPath = platform::Path{.elements = {{}}}; },
      [](auto& s) { s.gradientColors = std::vector<Color>{Color{}}; },
  };
  const LayerSnapshot base;
  std::set<std::uint64_t> seen{fingerprintOf(base)};
  for (std::size_t i = 0; i < changes.size(); ++i) {
    LayerSnapshot changed = base;
    changes[i](changed);
    ASSERT_NE(changed, base) << i;
    EXPECT_TRUE(seen.insert(fingerprintOf(changed)).second) << "change " << i;
  }
  LayerSnapshot negativeZero = base;
  negativeZero.position.x = -0.0;
  EXPECT_EQ(fingerprintOf(negativeZero), fingerprintOf(base));  // equal values, equal fingerprints
}

}  // namespace
}  // namespace verdalune::sessionreplay
