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
  fill_ = color;
  cornerRadius_ = cornerRadius;
  redraw();
}

void SimView::redraw() {
  if (!fill_) {
    if (simLayer()->contents()) simLayer()->setContents(std::nullopt);
    return;
  }
  const platform::Rect bounds = simLayer()->properties().bounds;
  if (bounds.isEmpty()) return;
  simLayer()->setContents(std::make_shared<const platform::Bitmap>(
      draw(Drawing::filled(fill_, cornerRadius_), bounds.size, simLayer()->properties().contentsScale)));
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
  if (image_ && image_->bitmap()) {
    simLayer()->setContents(image_->bitmap());
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
  if (blurStyle_ && !vibrancyStyle_) {
    const BlurLook look = blurLook(*blurStyle_, dark);
    auto backdrop = make<SimView>("_UIVisualEffectBackdropView");
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
    auto vibrancy = make<SimView>("_UIVisualEffectSubview");
    vibrancy->setFrame(bounds);
    vibrancy->simLayer()->setFilters({
        {.name = "vibrantColorMatrix",
         .type = "colorMatrix",
         .inputs = {{"inputColorMatrix", vibrancyMatrix(*vibrancyStyle_, blurLook(*blurStyle_, dark))}}},
    });
    effectViews_ = {vibrancy};
  }
  for (const auto& view : effectViews_) addSubview(view);
  content_->setFrame(bounds);
  addSubview(content_);
}

}  // namespace verdalune::sessionreplay::sim
