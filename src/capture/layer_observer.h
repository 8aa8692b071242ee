#pragma once

#include <memory>
#include <unordered_map>

#include "verdalune/platform/layer.h"
#include "verdalune/platform/subscription.h"

namespace verdalune::sessionreplay {

// Keeps the caches in LayerMetadata honest: when the application sets a layer's contents, contents
// rectangle or multiply colour, the cached contents are dropped; when it sets the filters, the
// recognised visual effect is. Registrations last as long as the observer, across stop and start.
// Main queue only.
class LayerObserver {
 public:
  LayerObserver() = default;
  LayerObserver(const LayerObserver&) = delete;
  LayerObserver& operator=(const LayerObserver&) = delete;
  ~LayerObserver();

  // Registers `layer` once; video layers are never observed (their contents change every frame and are
  // masked anyway).
  void observe(const std::shared_ptr<platform::Layer>& layer);

  // Layers observed now that are still alive.
  std::size_t observedCount() const;

 private:
  struct Registration {
    std::weak_ptr<platform::Layer> layer;
    std::unique_ptr<platform::Subscription> subscription;
  };
  void pruneDeadLayers();

  // Keyed by address; an entry whose layer died may share its address with a newer layer.
  std::unordered_map<const platform::Layer*, Registration> observedLayers_;
  // Registrations of dead layers are swept when the map reaches this size, which then doubles the
  // live count.
  std::size_t pruneAt_ = kMinimumPruneSize;
  static constexpr std::size_t kMinimumPruneSize = 64;
};

}  // namespace verdalune::sessionreplay
