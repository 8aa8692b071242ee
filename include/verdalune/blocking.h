#pragma once

#include <cstdint>
#include <memory>

#include "verdalune/platform/layer.h"
#include "verdalune/platform/scene.h"

namespace verdalune::sessionreplay {

// What an application sets on its own views to hide them from the recording, or to show them. Main
// queue, like the views themselves.

// The explicit setting of a view. Reading walks up from the view's layer: the first layer with a setting
// decides, and none anywhere up to the root reads as false. Writing true blocks the view and everything in
// it whatever is set below; writing false switches the automatic masking of the mask level off for the
// whole subtree (an ancestor's true still wins). There is no way back to "no setting".
[[nodiscard]] bool vdl_isBlocked(const platform::View& view);
void setVdl_isBlocked(const platform::View& view, bool isBlocked);

// Whether a marker view opens or closes a block range.
enum class BlockMarkerType : std::uint8_t { none = 0, begin = 1, end = 2 };

// Block ranges hide or show a run of sibling views without a common container, as declarative UI lays
// them out: a range opens at the sibling whose first subview is a `begin` marker and closes at the one
// whose first subview is an `end` marker; every sibling from the opening one up to, not including, the
// closing one is blocked (or unblocked, for `isBlocked` false). A range that is never closed runs to the
// last sibling.
//
// A marker is a plain "VerdaluneBlockMarkerView" of zero frame made through the platform; the host places
// it as the first subview of the sibling.
[[nodiscard]] std::shared_ptr<platform::View> makeBlockMarkerView(platform::UserInterface& userInterface,
                                                                  BlockMarkerType type, bool isBlocked);
// Makes the layer of a marker view the host made itself a marker.
void markAsBlockMarker(platform::Layer& markerLayer, BlockMarkerType type, bool isBlocked);

}  // namespace verdalune::sessionreplay
