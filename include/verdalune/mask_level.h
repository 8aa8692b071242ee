#pragma once

#include <optional>
#include <string_view>

namespace verdalune::sessionreplay {

// How much of the screen is hidden before anything leaves the capture: `light` masks only what is
// always sensitive (secure entry, sensitive content types), `medium` also user-entered text, and
// `conservative` all text.
enum class MaskLevel : int { light = 0, medium = 1, conservative = 2 };

[[nodiscard]] constexpr std::string_view describe(MaskLevel level) {
  switch (level) {
    case MaskLevel::light:
      return "light";
    case MaskLevel::medium:
      return "medium";
    case MaskLevel::conservative:
      return "conservative";
  }
  return "light";
}

[[nodiscard]] constexpr std::optional<MaskLevel> maskLevelNamed(std::string_view text) {
  if (text == "light") return MaskLevel::light;
  if (text == "medium") return MaskLevel::medium;
  if (text == "conservative") return MaskLevel::conservative;
  return std::nullopt;
}

}  // namespace verdalune::sessionreplay
