#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "verdalune/platform/layer.h"
#include "verdalune/sim/drawing.h"

namespace verdalune::sessionreplay::sim {

// The slot every simulated platform object keeps for the library, under its own recursive lock.
class AttachmentSlot {
 public:
  std::shared_ptr<platform::Attachment> get() const;
  std::shared_ptr<platform::Attachment> ensure(
      const std::function<std::shared_ptr<platform::Attachment>(std::shared_ptr<platform::Attachment>)>&
          ensure);

 private:
  mutable std::recursive_mutex mutex_;
  std::shared_ptr<platform::Attachment> attachment_;
};

// A retained compositor layer. The test sets what the application would; the library reads it through
// platform::Layer. Main queue only, except the attachment slot.
//
// A layer has a presentation copy once it has been committed (shown on screen). The copy shows the model
// values, except while the test runs an animation, when it shows the animation's current values.
class SimLayer final : public platform::Layer, public std::enable_shared_from_this<SimLayer> {
 public:
  explicit SimLayer(std::string className = "CALayer", platform::LayerKind kind = platform::LayerKind::plain);

  // platform::Layer
  std::string className() const override { return className_; }
  platform::LayerKind kind() const override { return kind_; }
  platform::LayerProperties properties() const override;
  std::vector<platform::CompositorFilter> filters() const override { return filters_; }
  std::optional<platform::Contents> contents() const override { return contents_; }
  std::shared_ptr<platform::Texture> nextDrawableTexture() override;
  std::shared_ptr<platform::Layer> presentationLayer() const override;
  std::shared_ptr<platform::Layer> modelLayer() const override;
  std::shared_ptr<platform::Layer> superlayer() const override;
  std::vector<std::shared_ptr<platform::Layer>> sublayers() const override;
  std::shared_ptr<platform::View> delegateView() const override { return delegate_.lock(); }
  std::unique_ptr<platform::Subscription> observeChanges(
      std::function<void(platform::LayerChange)> onChange) override;
  std::shared_ptr<platform::Attachment> attachment() const override { return slot_.get(); }
  std::shared_ptr<platform::Attachment> ensureAttachment(
      const std::function<std::shared_ptr<platform::Attachment>(std::shared_ptr<platform::Attachment>)>&
          ensure) override {
    return slot_.ensure(ensure);
  }

  // What the application sets. The frame is derived, as the platform derives it, from bounds, position and
  // anchor point; setting it moves the position and resizes the bounds.
  void setFrame(const platform::Rect& frame);
  void setBackgroundColor(std::optional<platform::Color> color);
  void setHidden(bool hidden);
  void setOpacity(float opacity);
  void setCornerRadius(double radius);
  void setContentsScale(double scale);
  // Any other property, through the whole record.
  void update(const std::function<void(platform::LayerProperties&)>& change);

  // The four observed properties; each set notifies the observers.
  void setContents(std::optional<platform::Contents> contents);
  void setFilters(std::vector<platform::CompositorFilter> filters);
  void setContentsRect(const platform::Rect& rect);
  void setContentsMultiplyColor(std::optional<platform::Color> color);

  void addSublayer(const std::shared_ptr<SimLayer>& layer);
  void insertSublayer(const std::shared_ptr<SimLayer>& layer, std::size_t index);
  void removeFromSuperlayer();
  const std::vector<std::shared_ptr<SimLayer>>& simSublayers() const { return sublayers_; }
  void setDelegate(const std::shared_ptr<platform::View>& view) { delegate_ = view; }

  // Marks this layer and its sublayers as shown, which gives them presentation copies.
  void commit();
  bool isCommitted() const { return committed_; }

  // An animation in flight: until endAnimation(), the presentation copy shows `change` applied to the
  // model values, while the model keeps what the application set.
  void beginAnimation(const std::function<void(platform::LayerProperties&)>& change);
  // A contents transition in flight: until endAnimation(), the presentation copy shows `shown` while the
  // model keeps the contents the application set.
  void beginContentsTransition(std::optional<platform::Contents> shown);
  void endAnimation();
  bool isAnimating() const { return animated_.has_value() || shownContents_.has_value(); }

  // Layers alive in this process, presentation copies included.
  static std::int64_t liveCount() { return LiveCount<SimLayer>::value(); }

  // Makes presentationLayer() throw, as the platform does for a layer in a broken state.
  void setPresentationThrows(bool throws) { presentationThrows_ = throws; }

  // For a GPU drawing layer: the pixels of the next drawable; none makes the pool run dry.
  void setNextDrawable(std::optional<platform::Bitmap> pixels, SimTexture::Options options = {});
  // The pixels the next drawable will show, read without asking the pool for one.
  const std::optional<platform::Bitmap>& pendingDrawable() const { return drawable_; }
  // How many times a drawable was asked for, whether or not the pool had one.
  int drawableRequests() const { return drawableRequests_; }

 private:
  struct Observer {
    std::function<void(platform::LayerChange)> onChange;
    bool cancelled = false;
  };
  class ObserverHandle;

  void notify(platform::LayerChange change);
  platform::LayerProperties withDerivedFrame(platform::LayerProperties properties) const;

  LiveCount<SimLayer> live_;
  std::string className_;
  platform::LayerKind kind_;
  platform::LayerProperties properties_;
  std::vector<platform::CompositorFilter> filters_;
  std::optional<platform::Contents> contents_;
  std::vector<std::shared_ptr<SimLayer>> sublayers_;
  std::weak_ptr<SimLayer> superlayer_;
  std::weak_ptr<platform::View> delegate_;
  std::vector<std::shared_ptr<Observer>> observers_;
  bool committed_ = false;
  std::optional<platform::LayerProperties> animated_;
  std::optional<std::optional<platform::Contents>> shownContents_;  // during a contents transition
  bool presentationThrows_ = false;
  std::optional<platform::Bitmap> drawable_;
  SimTexture::Options drawableOptions_;
  std::shared_ptr<SimTexture> drawableTexture_;
  int drawableRequests_ = 0;
  AttachmentSlot slot_;

  // Set on a presentation copy: the model it was taken from.
  std::weak_ptr<SimLayer> model_;
  bool isPresentation_ = false;
};

// A gradient layer of `frame` whose colours run evenly along its diagonal, top left to bottom right, as a
// header or a banner draws one.
std::shared_ptr<SimLayer> makeDiagonalGradientLayer(const platform::Rect& frame,
                                                    std::vector<platform::Color> colors);

}  // namespace verdalune::sessionreplay::sim
