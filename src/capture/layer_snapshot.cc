#include "capture/layer_snapshot.h"

#include <exception>
#include <string_view>

#include "verdalune/platform/web_view.h"

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

}  // namespace

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
