#pragma once

#include <optional>
#include <string_view>

#include "capture/visual_effect.h"

namespace verdalune::sessionreplay {

// How a blur or vibrancy effect is drawn in a browser. The texts are static, so the views stay valid.
struct VisualEffectCss {
  // The value of "filter", or of the backdrop filters on a backdrop layer. Some texts end with a ";"
  // that belongs to the value as written.
  std::optional<std::string_view> filter;
  // The value of "mix-blend-mode"; vibrancy only.
  std::optional<std::string_view> blendMode;
};

// The CSS of each visual effect by the platform's raw blur and vibrancy styles. Stateless; any thread.
class VisualEffectFilterMapping {
 public:
  // Nothing for noEffect and for styles it does not know.
  static VisualEffectCss css(const VisualEffect& effect);
};

}  // namespace verdalune::sessionreplay
