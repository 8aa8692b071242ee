#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "capture/layer_contents.h"
#include "capture/visual_effect.h"
#include "verdalune/logger.h"
#include "verdalune/platform/application.h"
#include "verdalune/platform/geometry.h"
#include "verdalune/platform/layer.h"

namespace verdalune::sessionreplay {

// One layer's properties as read at one capture. A plain value: it holds no platform object, so it can
// travel to the serializer's queue and outlive the layer.
struct LayerSnapshot {
  std::string layerClass;
  std::optional<std::string> viewClass;
  platform::Rect bounds;
  platform::Point position;
  double zPosition = 0;
  platform::Point anchorPoint;
  double anchorPointZ = 0;
  platform::Transform3D transform;
  platform::Rect frame;
  bool isHidden = false;
  bool isDoubleSided = true;
  bool isGeometryFlipped = false;
  bool masksToBounds = false;
  platform::Rect contentsRect;
  platform::Rect modelContentsRect;
  std::string contentsGravity;
  double contentScale = 1;
  platform::Rect contentsCenter;
  bool isOpaque = false;
  std::uint32_t edgeAntialiasingMask = 0;
  // Spelled this way on purpose: it is the name the converter and the recorded events use.
  bool allowsEdgeAntialiazing = false;
  std::optional<platform::Color> backgroundColor;
  double cornerRadius = 0;
  std::uint32_t maskedCorners = 0;
  std::string cornerCurve;
  double borderWidth = 0;
  std::optional<platform::Color> borderColor;
  float opacity = 1;
  bool allowsGroupOpacity = true;
  std::optional<platform::Color> shadowColor;
  float shadowOpacity = 0;
  platform::Size shadowOffset;
  double shadowRadius = 0;
  std::optional<platform::Path> shadowPath;
  bool contentsAreFlipped = false;
  std::optional<std::string> compositingFilter;
  int userInterfaceStyle = 0;  // 0 unspecified, 1 light, 2 dark
  std::optional<std::vector<platform::Color>> gradientColors;
  std::optional<std::vector<double>> gradientLocations;
  std::optional<platform::Point> gradientStartPoint;
  std::optional<platform::Point> gradientEndPoint;
  std::optional<std::string> gradientType;
  bool isWebView = false;
  platform::EdgeInsets webViewInsets;
  std::optional<platform::Color> webViewBackgroundColor;
  std::optional<platform::Color> contentsMultiplyColor;

  bool operator==(const LayerSnapshot&) const = default;
};

// A 64-bit hash of every field of `snapshot`, never 0: equal snapshots have equal fingerprints, and
// snapshots that differ almost surely do not. Zero and negative zero hash alike, as they compare equal.
std::uint64_t fingerprintOf(const LayerSnapshot& snapshot);

// One captured layer and its sublayers. Built once per capture by the tree walk, then never changed.
// What the comparison of two captures reads of every node comes first, the kilobyte of properties
// last: comparing two large trees then reads a cache line a node, not twenty.
struct LayerTreeNode {
  std::int64_t id = 0;
  bool isBlocked = false;
  VisualEffect visualEffect;
  // fingerprintOf(snapshot), set by the walk; 0 when unknown (a node built by hand), which makes the
  // comparison read the properties themselves.
  std::uint64_t fingerprint = 0;
  // Null, and no effect, when the node is blocked: nothing of a masked layer leaves the device.
  std::shared_ptr<LayerContents> contents;
  std::optional<std::int64_t> parentId;
  std::optional<std::int64_t> nextId;
  std::vector<LayerTreeNode> children;
  LayerSnapshot snapshot;
};

// The result of one capture: one root node per window, in the scene's window order.
struct Snapshot {
  platform::Size screenSize;
  std::vector<LayerTreeNode> windows;
};

// Reads `layer` (the presentation copy when the walk chose one) under the transform its parent hands
// down (the identity for a window's root). `osVersion` decides the web view background fallbacks.
// Cannot fail: missing or unexpected values come out absent. The layer's sublayer transform, which the
// walk hands to the children, comes out through `sublayerTransform` from the same read when asked for.
LayerSnapshot readLayerSnapshot(const platform::Layer& layer, const platform::Transform3D& parentTransform,
                                const platform::OsVersion& osVersion,
                                platform::Transform3D* sublayerTransform = nullptr);

// The copy of `layer` as it is shown now, or `layer` itself when it has none. A platform exception from
// the presentation read is logged and the model layer is used, so one odd layer never stops a capture.
std::shared_ptr<platform::Layer> presentationOrModel(const std::shared_ptr<platform::Layer>& layer,
                                                     Logger* logger);

}  // namespace verdalune::sessionreplay
