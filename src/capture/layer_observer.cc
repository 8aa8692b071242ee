#include "capture/layer_observer.h"

#include <algorithm>
#include <string>

#include "capture/layer_metadata.h"

namespace verdalune::sessionreplay {

namespace {

// Video layers show a new frame every refresh and are masked in any case; observing them would only
// add notification traffic on the main queue.
bool isVideoLayer(const platform::Layer& layer) {
  switch (layer.kind()) {
    case platform::LayerKind::videoPlayer:
    case platform::LayerKind::captureVideoPreview:
    case platform::LayerKind::sampleBufferDisplay:
    case platform::LayerKind::synchronizedVideo:
      return true;
    case platform::LayerKind::plain:
    case platform::LayerKind::gradient:
    case platform::LayerKind::gpuDrawing:
      break;
  }
  // The web view's full-screen video layer is a private class outside the video layer family.
  const std::string className = layer.className();
  return className == "WebAVPlayerLayer" || className == "NSKVONotifying_WebAVPlayerLayer";
}

void clearCaches(const std::weak_ptr<platform::Layer>& weakLayer, platform::LayerChange change) {
  auto layer = weakLayer.lock();
  if (!layer) return;
  // Only an existing attachment matters: a layer without metadata has no cache to clear, and making one
  // here would spend a node id on a layer the walk may never reach.
  auto metadata = std::dynamic_pointer_cast<LayerMetadata>(layer->attachment());
  if (!metadata) return;
  switch (change) {
    case platform::LayerChange::contents:
    case platform::LayerChange::contentsRect:
    case platform::LayerChange::contentsMultiplyColor:
      metadata->contents.reset();
      break;
    case platform::LayerChange::filters:
      metadata->visualEffect.reset();
      break;
  }
}

}  // namespace

LayerObserver::~LayerObserver() {
  for (auto& [address, registration] : observedLayers_) {
    if (registration.subscription) registration.subscription->cancel();
  }
  observedLayers_.clear();
}

void LayerObserver::observe(const std::shared_ptr<platform::Layer>& layer) {
  if (!layer) return;
  if (const auto found = observedLayers_.find(layer.get()); found != observedLayers_.end()) {
    // A live entry under this address is this very layer. A dead one belonged to a layer that was freed
    // and whose memory now holds `layer`, which still needs its own registration.
    if (!found->second.layer.expired()) return;
    observedLayers_.erase(found);
  }
  if (isVideoLayer(*layer)) return;

  if (observedLayers_.size() >= pruneAt_) pruneDeadLayers();
  std::weak_ptr<platform::Layer> weakLayer = layer;
  auto subscription =
      layer->observeChanges([weakLayer](platform::LayerChange change) { clearCaches(weakLayer, change); });
  observedLayers_.emplace(layer.get(), Registration{std::move(weakLayer), std::move(subscription)});
}

std::size_t LayerObserver::observedCount() const {
  return static_cast<std::size_t>(std::ranges::count_if(
      observedLayers_, [](const auto& entry) { return !entry.second.layer.expired(); }));
}

void LayerObserver::pruneDeadLayers() {
  // Cancelling a dead layer's subscription does nothing, but dropping the handle frees its bookkeeping.
  std::erase_if(observedLayers_, [](const auto& entry) { return entry.second.layer.expired(); });
  pruneAt_ = std::max(kMinimumPruneSize, 2 * observedLayers_.size());
}

}  // namespace verdalune::sessionreplay
