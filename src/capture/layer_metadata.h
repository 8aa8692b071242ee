#pragma once

#include <compare>
#include <cstdint>
#include <memory>
#include <optional>

#include "capture/layer_contents.h"
#include "capture/visual_effect.h"
#include "verdalune/blocking.h"
#include "verdalune/platform/layer.h"

namespace verdalune::sessionreplay {

// An explicit block setting. Ordered: combining two statuses takes the greater, so `blocked` anywhere
// above a layer wins over an `unblocked` below it.
enum class BlockStatus : std::uint8_t { none = 0, unblocked = 1, blocked = 2 };

constexpr std::strong_ordering operator<=>(BlockStatus lhs, BlockStatus rhs) {
  return static_cast<std::uint8_t>(lhs) <=> static_cast<std::uint8_t>(rhs);
}

constexpr BlockStatus combine(BlockStatus lhs, BlockStatus rhs) {
  return lhs < rhs ? rhs : lhs;
}

// The next node id of this process. Layers, serialized nodes and web view nodes all draw from this one
// counter, so an id names one thing for the whole life of the process. The first id is 100.
std::int64_t nextNodeId();

// What the library keeps on a platform layer between captures. It rides in the layer's attachment slot,
// so it lives exactly as long as the layer and the layer's id stays stable across captures.
class LayerMetadata final : public platform::Attachment {
 public:
  LayerMetadata() : id_(nextNodeId()) {}

  std::int64_t id() const { return id_; }

  // Written by the application (vdl_isBlocked) and by marker views, read by the tree walk. A single
  // byte, so the walk reads it without taking the layer's lock.
  BlockStatus blockStatus = BlockStatus::none;
  BlockMarkerType blockMarkerType = BlockMarkerType::none;

  // Caches of the capture walk, main queue only; the layer observer clears them when the application
  // changes what they were read from.
  std::shared_ptr<LayerContents> contents;
  std::optional<VisualEffect> visualEffect;

 private:
  const std::int64_t id_;
};

// The metadata of `layer`, created and attached on first use. Serialised by the layer's own lock, so
// callers on different threads get the same object and no id is spent twice.
std::shared_ptr<LayerMetadata> metadataOf(platform::Layer& layer);

}  // namespace verdalune::sessionreplay
