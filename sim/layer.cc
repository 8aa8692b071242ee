#include "verdalune/sim/layer.h"

#include <algorithm>

namespace verdalune::sessionreplay::sim {

std::shared_ptr<platform::Attachment> AttachmentSlot::get() const {
  std::lock_guard lock(mutex_);
  return attachment_;
}

std::shared_ptr<platform::Attachment> AttachmentSlot::ensure(
    const std::function<std::shared_ptr<platform::Attachment>(std::shared_ptr<platform::Attachment>)>&
        ensure) {
  std::lock_guard lock(mutex_);
  attachment_ = ensure(attachment_);
  return attachment_;
}

class SimLayer::ObserverHandle final : public platform::Subscription {
 public:
  ObserverHandle(std::weak_ptr<SimLayer> layer, std::shared_ptr<Observer> observer)
      : layer_(std::move(layer)), observer_(std::move(observer)) {}
  ~ObserverHandle() override { cancel(); }

  void cancel() override {
    if (!observer_) return;
    observer_->cancelled = true;
    if (auto layer = layer_.lock()) std::erase(layer->observers_, observer_);
    observer_.reset();
  }

 private:
  std::weak_ptr<SimLayer> layer_;
  std::shared_ptr<Observer> observer_;
};

SimLayer::SimLayer(std::string className, platform::LayerKind kind)
    : className_(std::move(className)), kind_(kind) {
  if (kind_ == platform::LayerKind::gradient) {
    platform::Gradient gradient;
    gradient.startPoint = {0.5, 0};
    gradient.endPoint = {0.5, 1};
    gradient.type = "axial";
    properties_.gradient = gradient;
  }
}

platform::LayerProperties SimLayer::withDerivedFrame(platform::LayerProperties properties) const {
  // The platform reports the frame of an untransformed layer from position, anchor point and bounds size;
  // with a transform, the bounding box of the transformed bounds (scale and translation suffice here).
  const auto& m = properties.transform.m;
  const double width = properties.bounds.size.width * std::abs(m[0]);
  const double height = properties.bounds.size.height * std::abs(m[5]);
  properties.frame = {{properties.position.x - properties.anchorPoint.x * width + m[12],
                       properties.position.y - properties.anchorPoint.y * height + m[13]},
                      {width, height}};
  return properties;
}

platform::LayerProperties SimLayer::properties() const {
  return withDerivedFrame(properties_);
}

void SimLayer::setFrame(const platform::Rect& frame) {
  properties_.bounds.size = frame.size;
  properties_.position = {frame.origin.x + properties_.anchorPoint.x * frame.size.width,
                          frame.origin.y + properties_.anchorPoint.y * frame.size.height};
}

void SimLayer::setBackgroundColor(std::optional<platform::Color> color) {
  properties_.backgroundColor = color;
}
void SimLayer::setHidden(bool hidden) {
  properties_.isHidden = hidden;
}
void SimLayer::setOpacity(float opacity) {
  properties_.opacity = opacity;
}
void SimLayer::setCornerRadius(double radius) {
  properties_.cornerRadius = radius;
}
void SimLayer::setContentsScale(double scale) {
  properties_.contentsScale = scale;
}
void SimLayer::update(const std::function<void(platform::LayerProperties&)>& change) {
  change(properties_);
}

void SimLayer::setContents(std::optional<platform::Contents> contents) {
  contents_ = std::move(contents);
  notify(platform::LayerChange::contents);
}

void SimLayer::setFilters(std::vector<platform::CompositorFilter> filters) {
  filters_ = std::move(filters);
  notify(platform::LayerChange::filters);
}

void SimLayer::setContentsRect(const platform::Rect& rect) {
  properties_.contentsRect = rect;
  notify(platform::LayerChange::contentsRect);
}

void SimLayer::setContentsMultiplyColor(std::optional<platform::Color> color) {
  properties_.contentsMultiplyColor = color;
  notify(platform::LayerChange::contentsMultiplyColor);
}

void SimLayer::notify(platform::LayerChange change) {
  // A copy, so that an observer may cancel itself or another; a cancelled one is skipped.
  const auto observers = observers_;
  for (const auto& observer : observers) {
    if (!observer->cancelled) observer->onChange(change);
  }
}

std::unique_ptr<platform::Subscription> SimLayer::observeChanges(
    std::function<void(platform::LayerChange)> onChange) {
  auto observer = std::make_shared<Observer>(Observer{std::move(onChange)});
  observers_.push_back(observer);
  return std::make_unique<ObserverHandle>(weak_from_this(), std::move(observer));
}

void SimLayer::addSublayer(const std::shared_ptr<SimLayer>& layer) {
  insertSublayer(layer, sublayers_.size());
}

void SimLayer::insertSublayer(const std::shared_ptr<SimLayer>& layer, std::size_t index) {
  layer->removeFromSuperlayer();
  sublayers_.insert(sublayers_.begin() + static_cast<std::ptrdiff_t>(std::min(index, sublayers_.size())),
                    layer);
  layer->superlayer_ = weak_from_this();
  if (committed_) layer->commit();
}

void SimLayer::removeFromSuperlayer() {
  auto parent = superlayer_.lock();
  superlayer_.reset();
  if (!parent) return;
  auto self = shared_from_this();
  std::erase(parent->sublayers_, self);
}

void SimLayer::commit() {
  committed_ = true;
  for (const auto& sublayer : sublayers_) sublayer->commit();
}

void SimLayer::beginAnimation(const std::function<void(platform::LayerProperties&)>& change) {
  animated_ = properties_;
  change(*animated_);
}

void SimLayer::beginContentsTransition(std::optional<platform::Contents> shown) {
  shownContents_ = std::move(shown);
}

void SimLayer::endAnimation() {
  animated_.reset();
  shownContents_.reset();
}

std::shared_ptr<platform::Layer> SimLayer::presentationLayer() const {
  if (presentationThrows_) throw std::runtime_error("presentation layer unavailable");
  if (isPresentation_ || !committed_) return nullptr;
  auto copy = std::make_shared<SimLayer>(className_, kind_);
  copy->properties_ = animated_ ? *animated_ : properties_;
  copy->filters_ = filters_;
  copy->contents_ = shownContents_ ? *shownContents_ : contents_;
  copy->delegate_ = delegate_;
  copy->model_ = std::const_pointer_cast<SimLayer>(shared_from_this());
  copy->isPresentation_ = true;
  return copy;
}

std::shared_ptr<platform::Layer> SimLayer::modelLayer() const {
  if (auto model = model_.lock()) return model;
  return std::const_pointer_cast<SimLayer>(shared_from_this());
}

std::shared_ptr<platform::Layer> SimLayer::superlayer() const {
  if (isPresentation_) {
    auto model = model_.lock();
    auto parent = model ? model->superlayer_.lock() : nullptr;
    if (!parent) return nullptr;
    auto presented = parent->presentationLayer();
    return presented ? presented : parent;
  }
  return superlayer_.lock();
}

std::vector<std::shared_ptr<platform::Layer>> SimLayer::sublayers() const {
  std::vector<std::shared_ptr<platform::Layer>> result;
  if (isPresentation_) {
    // The presentation tree mirrors the model tree, each layer as presented.
    auto model = model_.lock();
    if (!model) return result;
    for (const auto& sublayer : model->sublayers_) {
      auto presented = sublayer->presentationLayer();
      result.push_back(presented ? presented : sublayer);
    }
    return result;
  }
  result.assign(sublayers_.begin(), sublayers_.end());
  return result;
}

void SimLayer::setNextDrawable(std::optional<platform::Bitmap> pixels, SimTexture::Options options) {
  drawable_ = std::move(pixels);
  drawableOptions_ = std::move(options);
  drawableTexture_.reset();
}

std::shared_ptr<platform::Texture> SimLayer::nextDrawableTexture() {
  ++drawableRequests_;
  if (kind_ != platform::LayerKind::gpuDrawing || !drawable_) return nullptr;
  // The pool hands out the same drawable until the producer presents a new frame.
  if (!drawableTexture_) drawableTexture_ = std::make_shared<SimTexture>(*drawable_, drawableOptions_);
  return drawableTexture_;
}

std::shared_ptr<SimLayer> makeDiagonalGradientLayer(const platform::Rect& frame,
                                                    std::vector<platform::Color> colors) {
  auto layer = std::make_shared<SimLayer>("CAGradientLayer", platform::LayerKind::gradient);
  layer->setFrame(frame);
  std::vector<double> locations;
  for (std::size_t i = 0; i < colors.size(); ++i) {
    locations.push_back(colors.size() > 1 ? static_cast<double>(i) / static_cast<double>(colors.size() - 1)
                                          : 0);
  }
  layer->update([&](platform::LayerProperties& p) {
    p.gradient = platform::Gradient{.colors = std::move(colors),
                                    .locations = std::move(locations),
                                    .startPoint = {0, 0},
                                    .endPoint = {1, 1},
                                    .type = "axial"};
  });
  return layer;
}

}  // namespace verdalune::sessionreplay::sim
