#include "capture/layer_snapshot.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <exception>
#include <string_view>

#include "verdalune/platform/web_view.h"

// Compiled in, so the library carries no link dependency of its own for it.
#define XXH_INLINE_ALL
#include <xxhash.h>

namespace verdalune::sessionreplay {

namespace {

constexpr platform::Color kOpaqueWhite{1, 1, 1, 1};

// Web content lays itself out in a "RenderBoxLayer" host and leaves its own layers with empty bounds;
// those are drawn at the host's size.
platform::Rect boundsFor(const platform::Layer& layer, const platform::Rect& own) {
  if (!own.isEmpty()) return own;
  auto superlayer = layer.superlayer();
  if (superlayer && superlayer->className().find("RenderBoxLayer") != std::string::npos) {
    return superlayer->properties().bounds;
  }
  return own;
}

// The fields of a snapshot laid end to end in a buffer on the stack, hashed once: cheaper than mixing
// each field into a hash state on its own. Strings and lists go in with their lengths, optional values
// with whether they are there, so no two different snapshots lay out the same bytes.
class FieldBytes {
 public:
  void add(double value) { put(value == 0 ? 0.0 : value); }
  void add(float value) { put(value == 0 ? 0.0f : value); }
  void add(bool value) { put(static_cast<std::uint8_t>(value)); }
  void add(std::uint32_t value) { put(value); }
  void add(int value) { put(value); }
  void add(std::string_view text) {
    put(text.size());
    write(text.data(), text.size());
  }
  void add(const platform::Point& point) { add(point.x), add(point.y); }
  void add(const platform::Size& size) { add(size.width), add(size.height); }
  void add(const platform::Rect& rect) { add(rect.origin), add(rect.size); }
  void add(const platform::EdgeInsets& insets) {
    add(insets.top), add(insets.left), add(insets.bottom), add(insets.right);
  }
  void add(const platform::Transform3D& transform) {
    for (double value : transform.m) add(value);
  }
  void add(const platform::Color& color) {
    add(color.red), add(color.green), add(color.blue), add(color.alpha);
    put(static_cast<std::uint8_t>(color.space));
  }
  void add(const platform::Path& path) {
    put(path.elements.size());
    for (const platform::PathElement& element : path.elements) {
      put(static_cast<std::uint8_t>(element.kind));
      for (const platform::Point& point : element.points) add(point);
    }
  }
  template <typename T>
  void add(const std::vector<T>& values) {
    put(values.size());
    for (const T& value : values) add(value);
  }
  template <typename T>
  void add(const std::optional<T>& value) {
    add(value.has_value());
    if (value) add(*value);
  }

  std::uint64_t hash() const {
    const std::uint64_t hash = XXH3_64bits_withSeed(inline_, used_, spilled_.size());
    return spilled_.empty() ? hash : XXH3_64bits_withSeed(spilled_.data(), spilled_.size(), hash);
  }

 private:
  template <typename T>
  void put(T value) {
    write(&value, sizeof value);
  }
  void write(const void* bytes, std::size_t size) {
    if (used_ + size <= sizeof inline_) {
      std::memcpy(inline_ + used_, bytes, size);
      used_ += size;
    } else {  // long strings and paths: rare
      const auto* begin = static_cast<const char*>(bytes);
      spilled_.insert(spilled_.end(), begin, begin + size);
    }
  }

  char inline_[1024];
  std::size_t used_ = 0;
  std::vector<char> spilled_;
};

}  // namespace

std::uint64_t fingerprintOf(const LayerSnapshot& s) {
  FieldBytes bytes;
  bytes.add(s.layerClass), bytes.add(s.viewClass), bytes.add(s.bounds), bytes.add(s.position);
  bytes.add(s.zPosition), bytes.add(s.anchorPoint), bytes.add(s.anchorPointZ), bytes.add(s.transform);
  bytes.add(s.frame), bytes.add(s.isHidden), bytes.add(s.isDoubleSided), bytes.add(s.isGeometryFlipped);
  bytes.add(s.masksToBounds), bytes.add(s.contentsRect), bytes.add(s.modelContentsRect);
  bytes.add(s.contentsGravity), bytes.add(s.contentScale), bytes.add(s.contentsCenter), bytes.add(s.isOpaque);
  bytes.add(s.edgeAntialiasingMask), bytes.add(s.allowsEdgeAntialiazing), bytes.add(s.backgroundColor);
  bytes.add(s.cornerRadius), bytes.add(s.maskedCorners), bytes.add(s.cornerCurve), bytes.add(s.borderWidth);
  bytes.add(s.borderColor), bytes.add(s.opacity), bytes.add(s.allowsGroupOpacity), bytes.add(s.shadowColor);
  bytes.add(s.shadowOpacity), bytes.add(s.shadowOffset), bytes.add(s.shadowRadius), bytes.add(s.shadowPath);
  bytes.add(s.contentsAreFlipped), bytes.add(s.compositingFilter), bytes.add(s.userInterfaceStyle);
  bytes.add(s.gradientColors), bytes.add(s.gradientLocations), bytes.add(s.gradientStartPoint);
  bytes.add(s.gradientEndPoint), bytes.add(s.gradientType), bytes.add(s.isWebView),
      bytes.add(s.webViewInsets);
  bytes.add(s.webViewBackgroundColor), bytes.add(s.contentsMultiplyColor);
  return std::max<std::uint64_t>(bytes.hash(), 1);
}

LayerSnapshot readLayerSnapshot(const platform::Layer& layer, const platform::Transform3D& parentTransform,
                                const platform::OsVersion& osVersion,
                                platform::Transform3D* sublayerTransform) {
  const platform::LayerProperties p = layer.properties();
  if (sublayerTransform != nullptr) *sublayerTransform = p.sublayerTransform;
  const std::shared_ptr<platform::View> view = layer.delegateView();

  LayerSnapshot s;
  s.layerClass = layer.className();
  if (view) s.viewClass = view->className();
  s.bounds = boundsFor(layer, p.bounds);
  s.position = p.position;
  s.zPosition = p.zPosition;
  s.anchorPoint = p.anchorPoint;
  s.anchorPointZ = p.anchorPointZ;
  s.transform = platform::concat(p.transform, parentTransform);
  s.frame = p.frame;
  s.isHidden = p.isHidden;
  s.isDoubleSided = p.isDoubleSided;
  s.isGeometryFlipped = p.isGeometryFlipped;
  s.masksToBounds = p.masksToBounds;
  s.contentsRect = p.contentsRect;
  // The application's own value, without a running animation of the rect.
  auto model = layer.modelLayer();
  s.modelContentsRect = model ? model->properties().contentsRect : p.contentsRect;
  s.contentsGravity = p.contentsGravity;
  s.contentScale = p.contentsScale;
  s.contentsCenter = p.contentsCenter;
  s.isOpaque = p.isOpaque;
  s.edgeAntialiasingMask = p.edgeAntialiasingMask;
  s.allowsEdgeAntialiazing = p.allowsEdgeAntialiasing;
  s.backgroundColor = p.backgroundColor;
  s.cornerRadius = p.cornerRadius;
  s.maskedCorners = p.maskedCorners;
  s.cornerCurve = p.cornerCurve;
  s.borderWidth = p.borderWidth;
  s.borderColor = p.borderColor;
  s.opacity = p.opacity;
  s.allowsGroupOpacity = p.allowsGroupOpacity;
  s.shadowColor = p.shadowColor;
  s.shadowOpacity = p.shadowOpacity;
  s.shadowOffset = p.shadowOffset;
  s.shadowRadius = p.shadowRadius;
  s.shadowPath = p.shadowPath;
  s.contentsAreFlipped = p.contentsAreFlipped;
  s.compositingFilter = p.compositingFilter;
  s.userInterfaceStyle = view ? static_cast<int>(view->userInterfaceStyle()) : 0;
  if (p.gradient && layer.kind() == platform::LayerKind::gradient) {
    s.gradientColors = p.gradient->colors;
    s.gradientLocations = p.gradient->locations;
    s.gradientStartPoint = p.gradient->startPoint;
    s.gradientEndPoint = p.gradient->endPoint;
    s.gradientType = p.gradient->type;
  }
  if (view && view->kind() == platform::ViewKind::webView) {
    if (auto webView = std::dynamic_pointer_cast<platform::WebView>(view)) {
      s.isWebView = true;
      s.webViewInsets = webView->scrollViewAdjustedContentInset();
      std::optional<platform::Color> background = webView->scrollViewBackgroundColor();
      if (!background && osVersion.isAtLeast(15)) background = webView->underPageBackgroundColor();
      s.webViewBackgroundColor = background.value_or(kOpaqueWhite);
    }
  }
  s.contentsMultiplyColor = p.contentsMultiplyColor;
  return s;
}

std::shared_ptr<platform::Layer> presentationOrModel(const std::shared_ptr<platform::Layer>& layer,
                                                     Logger* logger) {
  try {
    if (auto shown = layer->presentationLayer()) return shown;
  } catch (const std::exception& error) {
    if (logger != nullptr) {
      logger->error(std::string("Snapshotter: failed to access presentation layer with exception: ") +
                    error.what());
    }
  }
  return layer;
}

}  // namespace verdalune::sessionreplay
