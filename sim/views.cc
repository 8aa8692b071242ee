#include "verdalune/sim/views.h"

#include <algorithm>

namespace verdalune::sessionreplay::sim {

SimViewNode::SimViewNode(std::string layerClassName, platform::LayerKind layerKind)
    : layer_(std::make_shared<SimLayer>(std::move(layerClassName), layerKind)) {}

void SimViewNode::connect(const std::shared_ptr<platform::View>& self) {
  self_ = self;
  layer_->setDelegate(self);
  redraw();
}

void SimViewNode::setFrame(const platform::Rect& frame) {
  const bool resized = frame.size != frame_.size;
  frame_ = frame;
  layer_->setFrame(frame);
  if (resized) redraw();
}

void SimViewNode::setContentsScale(double scale) {
  if (layer_->properties().contentsScale == scale) return;
  layer_->setContentsScale(scale);
  for (const auto& subview : subviews_) subview->setContentsScale(scale);
  redraw();
}

void SimViewNode::scrollTo(platform::Point contentOffset) {
  layer_->update([&](platform::LayerProperties& properties) { properties.bounds.origin = contentOffset; });
}

void SimViewNode::addSubview(const std::shared_ptr<SimViewNode>& view) {
  view->removeFromSuperview();
  subviews_.push_back(view);
  layer_->addSublayer(view->layer_);
  view->setContentsScale(layer_->properties().contentsScale);
  // The superview link is kept through the view's platform object, which owns this node.
  if (auto self = std::dynamic_pointer_cast<SimViewNode>(self_.lock())) view->superview_ = self;
}

void SimViewNode::removeFromSuperview() {
  layer_->removeFromSuperlayer();
  auto parent = superview_.lock();
  superview_.reset();
  if (!parent) return;
  std::erase_if(parent->subviews_, [&](const auto& subview) { return subview.get() == this; });
}

std::vector<std::shared_ptr<platform::View>> SimViewNode::subviewList() const {
  std::vector<std::shared_ptr<platform::View>> result;
  for (const auto& subview : subviews_) result.push_back(subview->view());
  return result;
}

void SimView::setFill(std::optional<platform::Color> color, double cornerRadius) {
  simLayer()->setBackgroundColor(color);
  simLayer()->setCornerRadius(cornerRadius);
}

void SimView::setBorder(double width, std::optional<platform::Color> color) {
  simLayer()->update([&](platform::LayerProperties& properties) {
    properties.borderWidth = width;
    properties.borderColor = color;
  });
}

SimTextView::SimTextView(std::string className, platform::ViewKind kind, std::string text, TextStyle style)
    : BasicSimView(std::move(className), kind), text_(std::move(text)), style_(style) {}

void SimTextView::setText(std::string text) {
  text_ = std::move(text);
  redraw();
}

void SimTextView::setStyle(TextStyle style) {
  style_ = style;
  redraw();
}

void SimTextView::setSecureTextEntry(bool secure) {
  secure_ = secure;
  redraw();
}

void SimTextView::redraw() {
  const platform::Rect bounds = simLayer()->properties().bounds;
  if (bounds.isEmpty()) return;
  std::string shown = text_;
  if (isSecureTextEntry()) {
    shown.clear();
    for (std::size_t i = 0; i < text_.size(); ++i) shown += "\u2022";
  }
  Drawing drawing = Drawing::filled(style_.background);
  drawing.text = shown;
  drawing.textColor = style_.color;
  drawing.fontSize = style_.fontSize;
  // Text inputs keep their text off the border, as the platform's default insets do.
  drawing.textInset = kind() == platform::ViewKind::label ? 0.0 : 8.0;
  simLayer()->setContents(std::make_shared<const platform::Bitmap>(
      draw(drawing, bounds.size, simLayer()->properties().contentsScale)));
}

std::shared_ptr<SimTextView> makeLabel(std::string text, TextStyle style) {
  return SimViewNode::make<SimTextView>("UILabel", platform::ViewKind::label, std::move(text), style);
}

std::shared_ptr<SimTextView> makeTextField(std::string text, TextStyle style) {
  return SimViewNode::make<SimTextView>("UITextField", platform::ViewKind::textField, std::move(text), style);
}

std::shared_ptr<SimTextView> makeTextView(std::string text, TextStyle style) {
  return SimViewNode::make<SimTextView>("UITextView", platform::ViewKind::textView, std::move(text), style);
}

SimImageView::SimImageView(std::shared_ptr<const platform::Image> image)
    : BasicSimView("UIImageView", platform::ViewKind::imageView) {
  setImage(std::move(image));
}

void SimImageView::setImage(std::shared_ptr<const platform::Image> image) {
  image_ = std::move(image);
  redraw();
}

void SimImageView::setHighlightedImage(std::shared_ptr<const platform::Image> image) {
  highlightedImage_ = std::move(image);
  redraw();
}

void SimImageView::setHighlighted(bool highlighted) {
  highlighted_ = highlighted;
  redraw();
}

void SimImageView::setTintColor(std::optional<platform::Color> tint) {
  tint_ = tint;
  redraw();
}

void SimImageView::redraw() {
  auto image = highlighted_ && highlightedImage_ ? highlightedImage_ : image_;
  if (!image) {
    shown_.reset();
    if (simLayer()->contents()) simLayer()->setContents(std::nullopt);
    return;
  }
  const auto mode = image->renderingMode();
  const bool drawsAsTemplate = mode == platform::ImageRenderingMode::alwaysTemplate ||
                               (mode == platform::ImageRenderingMode::automatic && image->isSymbolImage());
  const std::optional<platform::Color> tint = drawsAsTemplate ? tint_ : std::nullopt;
  const double scale = simLayer()->properties().contentsScale;
  // Only a drawn symbol depends on the scale; a bitmap is shown as it is.
  const Shown shown{image, tint, image->bitmap() ? 0.0 : scale};
  if (shown_ == shown) return;
  shown_ = shown;

  if (tint) {
    if (auto tinted = image->tinted(*tint)) image = std::move(tinted);
  }
  std::shared_ptr<const platform::Bitmap> bitmap = image->bitmap();
  if (!bitmap) {
    // Drawn at the image's own scale, so its size in points is scaled to reach the screen's pixels.
    const platform::Size size = image->size();
    const double factor = scale / image->scale();
    if (auto drawn = image->draw({size.width * factor, size.height * factor}, false)) {
      drawn->scale = scale;
      bitmap = std::make_shared<const platform::Bitmap>(std::move(*drawn));
    }
  }
  if (bitmap) {
    simLayer()->setContents(bitmap);
  } else if (simLayer()->contents()) {
    simLayer()->setContents(std::nullopt);
  }
}

std::shared_ptr<const platform::SymbolConfiguration> SimImageView::resolvedForTraits(
    const platform::SymbolConfiguration& configuration) const {
  // The trait collection contributes the view's style, which a symbol draws with unless told otherwise.
  const SimSymbolConfiguration traits(std::map<std::string, std::string>{
      {"style", userInterfaceStyle() == platform::UserInterfaceStyle::dark ? "dark" : "light"}});
  return traits.combined(configuration);
}

namespace {

struct BlurLook {
  double radius;
  double saturation;
  platform::Color tint;
};

// Every material has its own radius, saturation and tint, as on the device, so each one can be told
// apart by its filters. The adaptive materials (regular, prominent and the five system materials)
// resolve to a light or a dark look by the view's style; the system materials resolve to exactly their
// fixed light (11-15) or dark (16-20) twins.
BlurLook blurLook(int style, bool dark) {
  using namespace blurStyle;
  constexpr double radii[] = {12, 18, 25, 40, 30};
  constexpr double saturations[] = {1.6, 1.8, 1.8, 2.0, 2.2};
  constexpr double lightAlphas[] = {0.2, 0.3, 0.4, 0.55, 0.7};
  constexpr double darkAlphas[] = {0.3, 0.45, 0.55, 0.7, 0.8};
  if (style >= systemUltraThinMaterial && style <= systemChromeMaterial) {
    style += dark ? 10 : 5;
  }
  if (style >= 11 && style <= 15) {
    const int i = style - 11;
    return {radii[i], saturations[i], {1, 1, 1, lightAlphas[i]}};
  }
  if (style >= 16 && style <= 20) {
    const int i = style - 16;
    return {radii[i], saturations[i], {0.1, 0.1, 0.1, darkAlphas[i]}};
  }
  switch (style) {
    case extraLight:
      return {30, 1.8, {1, 1, 1, 0.6}};
    case light:
      return {30, 1.8, {1, 1, 1, 0.3}};
    case blurStyle::dark:
      return {20, 1.8, {0.1, 0.1, 0.1, 0.45}};
    case 3:  // extra dark
      return {20, 1.8, {0.05, 0.05, 0.05, 0.7}};
    case regular:
      return dark ? BlurLook{30, 1.9, {0.1, 0.1, 0.1, 0.5}} : BlurLook{30, 1.9, {1, 1, 1, 0.35}};
    case prominent:
      return dark ? BlurLook{30, 2.0, {0.1, 0.1, 0.1, 0.6}} : BlurLook{30, 2.0, {1, 1, 1, 0.5}};
    default:
      return {30, 1.8, {1, 1, 1, 0.3}};
  }
}

// A 4×5 colour matrix that pulls the backdrop toward the material's tint.
std::vector<double> tintMatrix(const platform::Color& tint) {
  const double keep = 1 - tint.alpha;
  return {keep, 0, 0,    0, tint.red * tint.alpha,  0, keep, 0, 0, tint.green * tint.alpha,
          0,    0, keep, 0, tint.blue * tint.alpha, 0, 0,    0, 1, 0};
}

// A 4×5 colour matrix that draws content in the vibrancy style's grey, keeping its alpha; the grey
// follows the material underneath.
std::vector<double> vibrancyMatrix(int style, const BlurLook& under) {
  const bool darkMaterial = under.tint.red < 0.5;
  const double strength = 1.0 - 0.15 * std::clamp(style, 0, 7);
  const double grey = (darkMaterial ? 0.9 * strength : 0.25 / strength) * (1 - 0.1 * under.tint.alpha) *
                      (1 - 0.002 * under.radius);
  return {0, 0, 0, 0, grey, 0, 0, 0, 0, grey, 0, 0, 0, 0, grey, 0, 0, 0, strength, 0};
}

}  // namespace

SimVisualEffectView::SimVisualEffectView()
    : BasicSimView("UIVisualEffectView", platform::ViewKind::visualEffectView) {
  content_ = make<SimView>("_UIVisualEffectContentView");
}

void SimVisualEffectView::setBlurEffect(int style) {
  blurStyle_ = style;
  vibrancyStyle_.reset();
  layOut();
}

void SimVisualEffectView::setVibrancyEffect(int blur, int vibrancy) {
  blurStyle_ = blur;
  vibrancyStyle_ = vibrancy;
  layOut();
}

void SimVisualEffectView::setOverrideUserInterfaceStyle(platform::UserInterfaceStyle style) {
  override_ = style;
  setUserInterfaceStyle(
      style == platform::UserInterfaceStyle::unspecified ? platform::UserInterfaceStyle::light : style);
  layOut();
}

void SimVisualEffectView::layOut() {
  for (const auto& view : effectViews_) view->removeFromSuperview();
  content_->removeFromSuperview();
  effectViews_.clear();
  const platform::Rect bounds{{0, 0}, frame().size};
  const bool dark = userInterfaceStyle() == platform::UserInterfaceStyle::dark;
  std::vector<platform::CompositorFilter> contentFilters;
  if (blurStyle_ && !vibrancyStyle_) {
    const BlurLook look = blurLook(*blurStyle_, dark);
    // The backdrop layer is what makes the filters apply to what lies behind the view rather than to the
    // layer's own (empty) contents.
    auto backdrop =
        make<SimView>("_UIVisualEffectBackdropView", platform::ViewKind::other, "UICABackdropLayer");
    backdrop->setFrame(bounds);
    backdrop->simLayer()->setFilters({
        {.name = "gaussianBlur",
         .type = "gaussianBlur",
         .inputs = {{"inputRadius", look.radius}, {"inputNormalizeEdges", true}}},
        {.name = "colorSaturate", .type = "colorSaturate", .inputs = {{"inputAmount", look.saturation}}},
        {.name = "colorTint", .type = "colorMatrix", .inputs = {{"inputColorMatrix", tintMatrix(look.tint)}}},
    });
    auto tint = make<SimView>("_UIVisualEffectSubview");
    tint->setFrame(bounds);
    tint->simLayer()->setBackgroundColor(look.tint);
    effectViews_ = {backdrop, tint};
  } else if (blurStyle_ && vibrancyStyle_) {
    contentFilters = {
        {.name = "vibrantColorMatrix",
         .type = "vibrantColorMatrix",
         .inputs = {{"inputColorMatrix", vibrancyMatrix(*vibrancyStyle_, blurLook(*blurStyle_, dark))}}},
    };
  }
  for (const auto& view : effectViews_) addSubview(view);
  if (content_->simLayer()->filters() != contentFilters) content_->simLayer()->setFilters(contentFilters);
  content_->setFrame(bounds);
  addSubview(content_);
}

}  // namespace verdalune::sessionreplay::sim
