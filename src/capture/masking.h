#pragma once

#include "capture/layer_metadata.h"
#include "verdalune/blocking.h"
#include "verdalune/mask_level.h"
#include "verdalune/platform/application.h"
#include "verdalune/platform/layer.h"

namespace verdalune::sessionreplay {

// The automatic rule: whether `layer` must be masked at `level` when neither it nor an ancestor has an
// explicit status. Video, GPU, map and web content is masked at every level because its pixels never
// pass through the text rules. A level outside the enumeration stops the program.
bool isMaskedAutomatically(const platform::Layer& layer, MaskLevel level,
                           const platform::OsVersion& osVersion);

// Whether a text input declares secure entry or a content type that carries personal data. The
// credit-card detail types exist from OS 17.0 on; earlier systems never report them.
bool isSensitiveTextInput(const platform::View& view, const platform::OsVersion& osVersion);

// The status a layer ends with in the walk: its own status combined with the inherited one, and, when
// both are `none`, the automatic rule. Its children inherit the result, so an explicit `unblocked`
// switches the automatic rule off for the whole subtree and `blocked` blocks it regardless of settings
// below.
BlockStatus effectiveBlockStatus(platform::Layer& layer, BlockStatus inherited, MaskLevel level,
                                 const platform::OsVersion& osVersion);

// Follows declarative block ranges across the sublayers of one parent, in sublayer order. A marker view
// is hosted by a sibling, so a range opens at the sibling whose first sublayer is a `begin` marker and
// closes at the one whose first sublayer is an `end` marker. An unclosed range runs to the last sibling.
class BlockRangeTracker {
 public:
  // The range status a sibling inherits, given its sublayers (the walk reads them once, for this and for
  // walking them); call once per sibling, in order.
  BlockStatus enter(const std::vector<std::shared_ptr<platform::Layer>>& siblingSublayers);

 private:
  BlockStatus range_ = BlockStatus::none;
};

}  // namespace verdalune::sessionreplay
