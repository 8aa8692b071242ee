#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "verdalune/platform/contents.h"
#include "verdalune/platform/geometry.h"
#include "verdalune/platform/subscription.h"

// The compositor's layers and the views that own them, as capture reads them.
//
// Threads: everything here is called on the main queue only, except the attachment slot (any thread).
// Ownership: the platform owns layers and views. A shared_ptr handed out keeps the object alive while the
// library holds it, but the library keeps layers and views only for the length of a capture, and
// std::weak_ptr beyond it, so that it never prolongs a layer the application has dropped.
namespace verdalune::sessionreplay::platform {

// Something the library hangs on a platform object (a layer's node id and block state, a web view's
// bridge state). The platform only stores it and releases it with its object.
class Attachment {
 public:
  virtual ~Attachment() = default;
};

// A platform object with one attachment slot for the library. Thread-safe: the slot is guarded by the
// object's own recursive lock, so an `ensure` function may itself read the same object's slot.
class Attachable {
 public:
  virtual ~Attachable() = default;

  // Null when nothing is attached.
  virtual std::shared_ptr<Attachment> attachment() const = 0;

  // Under the object's lock: calls `ensure` with what is attached now (null when nothing), stores what it
  // returns, and returns that. Two threads asking at once are served one after the other, so both see
  // the same attachment.
  virtual std::shared_ptr<Attachment> ensureAttachment(
      const std::function<std::shared_ptr<Attachment>(std::shared_ptr<Attachment> current)>& ensure) = 0;
};

// The attachment of type T on `owner`, attaching make() when the slot is empty or holds something else.
// make() runs under the owner's lock, at most once per call.
template <typename T, typename Make>
std::shared_ptr<T> attachmentOf(Attachable& owner, Make&& make) {
  std::shared_ptr<T> found;
  owner.ensureAttachment([&](std::shared_ptr<Attachment> current) -> std::shared_ptr<Attachment> {
    found = std::dynamic_pointer_cast<T>(current);
    if (!found) found = make();
    return found;
  });
  return found;
}

// The platform layer classes that capture tells apart; a subclass reports the kind of its base.
enum class LayerKind {
  plain,                // any other layer
  gradient,             // a gradient layer
  gpuDrawing,           // a GPU drawing layer, whose frames come from nextDrawableTexture()
  videoPlayer,          // a video player layer
  captureVideoPreview,  // a camera preview layer
  sampleBufferDisplay,  // a layer that displays sample buffers
  synchronizedVideo,    // a layer synchronized to a media timeline
};

// The gradient of a gradient layer.
struct Gradient {
  // Absent when the layer has no colours, or when any element of its list is not a colour: the list
  // is dropped whole, never filtered.
  std::optional<std::vector<Color>> colors;
  std::optional<std::vector<double>> locations;
  Point startPoint;
  Point endPoint;
  std::string type;  // the platform's gradient type name ("axial", "radial", "conic")
  bool operator==(const Gradient&) const = default;
};

// The value of one compositor filter input, in a form that compares by value.
using FilterValue = std::variant<bool, double, std::string, Color, Point, Size, Rect, std::vector<double>>;

// One compositor filter installed on a layer: its name, its type and the inputs it has a value for,
// keyed by input name ("inputRadius", "inputColorMatrix", ...).
struct CompositorFilter {
  std::string name;
  std::string type;
  std::map<std::string, FilterValue> inputs;
  bool operator==(const CompositorFilter&) const = default;
};

// Everything the library records of a layer, read in one call. Colours, paths and strings are values:
// the record stays valid when the layer changes or goes.
struct LayerProperties {
  Rect bounds;
  Point position;
  double zPosition = 0;
  Point anchorPoint{0.5, 0.5};  // unit coordinates
  double anchorPointZ = 0;
  Transform3D transform;
  Transform3D sublayerTransform;
  Rect frame;  // as the platform reports it
  bool isHidden = false;
  bool isDoubleSided = true;
  bool isGeometryFlipped = false;
  bool masksToBounds = false;
  Rect contentsRect = kUnitRect;
  std::string contentsGravity = "resize";
  double contentsScale = 1;
  Rect contentsCenter = kUnitRect;
  bool isOpaque = false;
  std::uint32_t edgeAntialiasingMask = 0xF;
  bool allowsEdgeAntialiasing = false;
  std::optional<Color> backgroundColor;
  double cornerRadius = 0;
  // Bits: 1 min-x/min-y (top left), 2 max-x/min-y (top right), 4 min-x/max-y (bottom left), 8 max-x/max-y.
  std::uint32_t maskedCorners = 0xF;
  std::string cornerCurve = "circular";
  double borderWidth = 0;
  std::optional<Color> borderColor;
  float opacity = 1;
  bool allowsGroupOpacity = true;
  std::optional<Color> shadowColor;
  float shadowOpacity = 0;
  Size shadowOffset{0, -3};
  double shadowRadius = 3;
  std::optional<Path> shadowPath;
  bool contentsAreFlipped = false;
  // The compositing filter when it is a blend-mode name; absent when there is none or when it is a
  // filter object.
  std::optional<std::string> compositingFilter;
  // The layer's "contentsMultiplyColor" value when it is a colour; absent otherwise.
  std::optional<Color> contentsMultiplyColor;
  // Present exactly when the layer is a gradient layer.
  std::optional<Gradient> gradient;
};

// The layer properties whose changes invalidate what the library caches for a layer.
enum class LayerChange { contents, filters, contentsRect, contentsMultiplyColor };

class View;

class Layer : public Attachable {
 public:
  // The runtime class name of the layer object ("CALayer", "_UIVisualEffectBackdropLayer", ...).
  virtual std::string className() const = 0;
  virtual LayerKind kind() const = 0;

  virtual LayerProperties properties() const = 0;

  // The installed compositor filters in order. Filters the platform cannot describe as a compositor
  // filter are left out, so a layer whose filters are all of that sort reports none.
  virtual std::vector<CompositorFilter> filters() const = 0;

  // Absent when the layer shows no contents object.
  virtual std::optional<Contents> contents() const = 0;

  // For a GPU drawing layer: the texture of its next drawable. Null for other kinds, and when no drawable
  // is available now. Asking may wait briefly for the producer, as the platform's drawable pool does.
  virtual std::shared_ptr<Texture> nextDrawableTexture() = 0;

  // The copy of the layer as currently shown, animations applied; null when the layer has none (it has
  // never been committed, or it is itself a presentation layer). May throw std::exception, the stand-in
  // for a platform exception; the caller catches it and reads the layer itself.
  virtual std::shared_ptr<Layer> presentationLayer() const = 0;

  // The layer as the application set it: itself for a model layer, the source of a presentation layer.
  // Never null.
  virtual std::shared_ptr<Layer> modelLayer() const = 0;

  // Null for a root layer.
  virtual std::shared_ptr<Layer> superlayer() const = 0;

  // Back to front, the platform's order.
  virtual std::vector<std::shared_ptr<Layer>> sublayers() const = 0;

  // The view this layer draws for; null when the delegate is not a view or there is none.
  virtual std::shared_ptr<View> delegateView() const = 0;

  // Calls `onChange` whenever one of the four LayerChange properties of this layer is set, until the handle
  // is cancelled or destroyed. Calls come on the thread that set the property (the main queue for the
  // application's own changes). The handle holds the layer weakly.
  virtual std::unique_ptr<Subscription> observeChanges(std::function<void(LayerChange)> onChange) = 0;
};

// The view classes capture tells apart; a subclass reports the kind of its base.
enum class ViewKind {
  label,
  textField,
  textView,
  imageView,  // an ImageView
  mapView,
  webView,           // a WebView (web_view.h)
  visualEffectView,  // a VisualEffectView
  other,
};

// The light/dark setting of a view's trait collection; the raw values are the platform's.
enum class UserInterfaceStyle : int { unspecified = 0, light = 1, dark = 2 };

// The text content type values a text input may declare, as the platform defines them.
namespace textContentType {
inline constexpr std::string_view telephoneNumber = "tel";
inline constexpr std::string_view emailAddress = "email";
inline constexpr std::string_view password = "password";
inline constexpr std::string_view newPassword = "new-password";
inline constexpr std::string_view oneTimeCode = "one-time-code";
inline constexpr std::string_view creditCardNumber = "cc-number";
// Declared by OS 17.0 and later.
inline constexpr std::string_view creditCardName = "cc-name";
inline constexpr std::string_view creditCardGivenName = "cc-given-name";
inline constexpr std::string_view creditCardMiddleName = "cc-additional-name";
inline constexpr std::string_view creditCardFamilyName = "cc-family-name";
inline constexpr std::string_view creditCardType = "cc-type";
inline constexpr std::string_view creditCardExpiration = "cc-exp";
inline constexpr std::string_view creditCardSecurityCode = "cc-csc";
inline constexpr std::string_view creditCardExpirationYear = "cc-exp-year";
inline constexpr std::string_view creditCardExpirationMonth = "cc-exp-month";
}  // namespace textContentType

// A view of the application's UI. A view of kind imageView, webView or visualEffectView is an object
// of the matching subclass, so std::dynamic_pointer_cast to it succeeds.
class View {
 public:
  virtual ~View() = default;

  virtual std::string className() const = 0;
  virtual ViewKind kind() const = 0;

  // The layer that draws the view. Never null.
  virtual std::shared_ptr<Layer> layer() const = 0;

  virtual UserInterfaceStyle userInterfaceStyle() const = 0;

  // True only for a text input that has secure entry and has it on; false for every other view.
  virtual bool isSecureTextEntry() const = 0;

  // The declared text content type of a text input (one of textContentType or the host's own); absent
  // when none is declared or the view takes no text.
  virtual std::optional<std::string> textContentType() const = 0;
};

class ImageView : public View {
 public:
  // Null when the view shows no image.
  virtual std::shared_ptr<const Image> image() const = 0;
  virtual std::shared_ptr<const Image> highlightedImage() const = 0;
  virtual bool isHighlighted() const = 0;

  // Absent when the view has no tint colour.
  virtual std::optional<Color> tintColor() const = 0;

  // Null when the view sets none.
  virtual std::shared_ptr<const SymbolConfiguration> preferredSymbolConfiguration() const = 0;

  // `configuration` resolved against this view's trait collection (its size class, style, weight).
  virtual std::shared_ptr<const SymbolConfiguration> resolvedForTraits(
      const SymbolConfiguration& configuration) const = 0;
};

// A blur or vibrancy view. The library makes its own (UserInterface::makeVisualEffectView) only to read
// which compositor filters the platform installs for each effect; it is never shown.
class VisualEffectView : public View {
 public:
  // Installs the blur effect of `blurStyle`, replacing the current effect. Styles are the platform's raw
  // values.
  virtual void setBlurEffect(int blurStyle) = 0;

  // Installs the vibrancy effect of `vibrancyStyle` for the blur effect of `blurStyle`.
  virtual void setVibrancyEffect(int blurStyle, int vibrancyStyle) = 0;

  virtual void setOverrideUserInterfaceStyle(UserInterfaceStyle style) = 0;

  // The direct subviews, in order, as the current effect and style laid them out.
  virtual std::vector<std::shared_ptr<View>> subviews() const = 0;
};

// `view` as an ImageView when it is one; null otherwise (including for a null view).
inline std::shared_ptr<ImageView> asImageView(const std::shared_ptr<View>& view) {
  if (!view || view->kind() != ViewKind::imageView) return nullptr;
  return std::dynamic_pointer_cast<ImageView>(view);
}

}  // namespace verdalune::sessionreplay::platform
