#include "capture/masking.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <vector>

namespace verdalune::sessionreplay {

namespace {

namespace contentType = platform::textContentType;

constexpr std::array<std::string_view, 6> kSensitiveTypes{
    contentType::telephoneNumber, contentType::emailAddress, contentType::creditCardNumber,
    contentType::password,        contentType::newPassword,  contentType::oneTimeCode,
};

constexpr std::array<std::string_view, 9> kCreditCardDetailTypes{
    contentType::creditCardName,
    contentType::creditCardGivenName,
    contentType::creditCardMiddleName,
    contentType::creditCardFamilyName,
    contentType::creditCardType,
    contentType::creditCardExpiration,
    contentType::creditCardSecurityCode,
    contentType::creditCardExpirationYear,
    contentType::creditCardExpirationMonth,
};

template <std::size_t N>
bool contains(const std::array<std::string_view, N>& list, std::string_view value) {
  for (std::string_view entry : list) {
    if (entry == value) return true;
  }
  return false;
}

bool isTextInput(platform::ViewKind kind) {
  return kind == platform::ViewKind::textField || kind == platform::ViewKind::textView;
}

}  // namespace

bool isSensitiveTextInput(const platform::View& view, const platform::OsVersion& osVersion) {
  if (view.isSecureTextEntry()) return true;
  const std::optional<std::string> type = view.textContentType();
  if (!type) return false;
  if (contains(kSensitiveTypes, *type)) return true;
  return osVersion.isAtLeast(17) && contains(kCreditCardDetailTypes, *type);
}

bool isMaskedAutomatically(const platform::Layer& layer, MaskLevel level,
                           const platform::OsVersion& osVersion) {
  const platform::LayerKind layerKind = layer.kind();
  if (layerKind == platform::LayerKind::videoPlayer || layerKind == platform::LayerKind::gpuDrawing)
    return true;
  const std::shared_ptr<platform::View> view = layer.delegateView();
  if (!view) return false;
  const platform::ViewKind kind = view->kind();
  if (kind == platform::ViewKind::mapView || kind == platform::ViewKind::webView) return true;
  switch (level) {
    case MaskLevel::conservative:
      return kind == platform::ViewKind::label || isTextInput(kind);
    case MaskLevel::medium:
      return isTextInput(kind);
    case MaskLevel::light:
      return isTextInput(kind) && isSensitiveTextInput(*view, osVersion);
  }
  std::fprintf(stderr, "[Masking] unexpected mask level %d\n", static_cast<int>(level));
  std::abort();
}

BlockStatus effectiveBlockStatus(platform::Layer& layer, BlockStatus inherited, MaskLevel level,
                                 const platform::OsVersion& osVersion) {
  const BlockStatus status = combine(metadataOf(layer)->blockStatus, inherited);
  if (status != BlockStatus::none) return status;
  return isMaskedAutomatically(layer, level, osVersion) ? BlockStatus::blocked : BlockStatus::none;
}

bool vdl_isBlocked(const platform::View& view) {
  for (std::shared_ptr<platform::Layer> layer = view.layer(); layer; layer = layer->superlayer()) {
    switch (metadataOf(*layer)->blockStatus) {
      case BlockStatus::blocked:
        return true;
      case BlockStatus::unblocked:
        return false;
      case BlockStatus::none:
        break;
    }
  }
  return false;
}

void setVdl_isBlocked(const platform::View& view, bool isBlocked) {
  metadataOf(*view.layer())->blockStatus = isBlocked ? BlockStatus::blocked : BlockStatus::unblocked;
}

void markAsBlockMarker(platform::Layer& markerLayer, BlockMarkerType type, bool isBlocked) {
  const auto metadata = metadataOf(markerLayer);
  metadata->blockMarkerType = type;
  metadata->blockStatus = isBlocked ? BlockStatus::blocked : BlockStatus::unblocked;
}

std::shared_ptr<platform::View> makeBlockMarkerView(platform::UserInterface& userInterface,
                                                    BlockMarkerType type, bool isBlocked) {
  auto marker = userInterface.makePlainView("VerdaluneBlockMarkerView");
  markAsBlockMarker(*marker->layer(), type, isBlocked);
  return marker;
}

BlockStatus BlockRangeTracker::enter(const std::vector<std::shared_ptr<platform::Layer>>& sublayers) {
  if (!sublayers.empty()) {
    const auto marker = metadataOf(*sublayers.front());
    if (marker->blockMarkerType == BlockMarkerType::begin) {
      range_ = marker->blockStatus;
    } else if (marker->blockMarkerType == BlockMarkerType::end) {
      range_ = BlockStatus::none;
    }
  }
  return range_;
}

}  // namespace verdalune::sessionreplay
