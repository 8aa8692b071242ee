#include "capture/visual_effect.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

namespace verdalune::sessionreplay {
namespace {

// The inputs that tell effects apart. Anything else a filter carries (images, animation state) is
// either not comparable or differs between two installs of the same effect. Kept sorted for lookup.
constexpr std::array<std::string_view, 37> kInputKeys{
    "inputAddWhite",     "inputAlphaValues",    "inputAmount",         "inputAngle",
    "inputAspectRatio",  "inputBackColor0",     "inputBackColor1",     "inputBackEnabled",
    "inputBias",         "inputBlueValues",     "inputBounds",         "inputColor",
    "inputColor0",       "inputColor1",         "inputColorMap",       "inputColorMatrix",
    "inputDither",       "inputEndAngle",       "inputFrontColor",     "inputFrontEnabled",
    "inputGreenValues",  "inputHSVSpace",       "inputHardEdges",      "inputIntermediateBitDepth",
    "inputLinear",       "inputNormalizeEdges", "inputOverlayOpacity", "inputQuality",
    "inputRadius",       "inputRedValues",      "inputReversed",       "inputScale",
    "inputShadowBounds", "inputShadowColor",    "inputStartAngle",     "inputTime",
    "inputValues",
};
static_assert(std::ranges::is_sorted(kInputKeys));

bool isFingerprintInput(std::string_view key) {
  return std::ranges::binary_search(kInputKeys, key);
}

// Every raw blur style up to the newest material; styles the platform does not know fall back to a
// default look, which the later-wins rule below maps to the newest such style.
constexpr int kBlurStyleCount = 21;
// Vibrancy styles 0 ... 7, label through separator.
constexpr int kVibrancyStyleCount = 8;
// The adaptive materials resolve differently in light and dark, so both looks must be learnt.
// "Unspecified" is left out: it resolves to one of the two, so it would only repeat a fingerprint.
constexpr std::array kInterfaceStyles{platform::UserInterfaceStyle::light,
                                      platform::UserInterfaceStyle::dark};

struct Hasher {
  std::size_t seed = 0;

  void mix(std::size_t value) { seed ^= value + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2); }

  // By bits, so that equal values hash equally; -0.0 == 0.0 must hash alike too.
  void add(double value) {
    mix(std::hash<std::uint64_t>{}(std::bit_cast<std::uint64_t>(value == 0 ? 0.0 : value)));
  }
  void add(bool value) { mix(value ? 1 : 2); }
  void add(std::string_view value) { mix(std::hash<std::string_view>{}(value)); }
  void add(const std::string& value) { add(std::string_view(value)); }
  void add(const platform::Point& value) {
    add(value.x);
    add(value.y);
  }
  void add(const platform::Size& value) {
    add(value.width);
    add(value.height);
  }
  void add(const platform::Rect& value) {
    add(value.origin);
    add(value.size);
  }
  void add(const platform::Color& value) {
    add(value.red);
    add(value.green);
    add(value.blue);
    add(value.alpha);
    mix(static_cast<std::size_t>(value.space));
  }
  void add(const std::vector<double>& values) {
    mix(values.size());
    for (double value : values) add(value);
  }
  void add(const platform::FilterValue& value) {
    mix(value.index());
    std::visit([this](const auto& alternative) { add(alternative); }, value);
  }
};

}  // namespace

std::vector<Filter> filtersOf(const platform::Layer& layer) {
  std::vector<Filter> result;
  for (auto& filter : layer.filters()) {
    // Without a name or a type nothing says what the filter does, so it cannot stand for an effect.
    if (filter.name.empty() && filter.type.empty()) continue;
    Filter record{.name = std::move(filter.name), .type = std::move(filter.type), .inputs = {}};
    for (auto& [key, value] : filter.inputs) {
      if (isFingerprintInput(key)) record.inputs.emplace(key, std::move(value));
    }
    result.push_back(std::move(record));
  }
  return result;
}

VisualEffectParser::VisualEffectParser(platform::UserInterface& userInterface) {
  const auto view = userInterface.makeVisualEffectView();
  std::optional<platform::UserInterfaceStyle> current;
  const auto learn = [&](VisualEffect effect) {
    // Both looks of one effect store the same effect, so their order is free: starting with the style the
    // view already has saves one relayout per effect.
    auto styles = kInterfaceStyles;
    if (current == styles.back()) std::ranges::reverse(styles);
    for (const auto style : styles) {
      if (style != current) {
        view->setOverrideUserInterfaceStyle(style);
        current = style;
      }
      for (const auto& subview : view->subviews()) {
        auto fingerprint = filtersOf(*subview->layer());
        if (!fingerprint.empty()) fingerprints_.insert_or_assign(std::move(fingerprint), effect);
      }
    }
  };
  for (int blurStyle = 0; blurStyle < kBlurStyleCount; ++blurStyle) {
    view->setBlurEffect(blurStyle);
    learn(VisualEffect::blur(blurStyle));
    for (int vibrancyStyle = 0; vibrancyStyle < kVibrancyStyleCount; ++vibrancyStyle) {
      view->setVibrancyEffect(blurStyle, vibrancyStyle);
      learn(VisualEffect::vibrancy(blurStyle, vibrancyStyle));
    }
  }
}

VisualEffect VisualEffectParser::recognise(const platform::Layer& layer) const {
  auto fingerprint = filtersOf(layer);
  if (fingerprint.empty()) return VisualEffect::noEffect();
  const auto found = fingerprints_.find(fingerprint);
  return found == fingerprints_.end() ? VisualEffect::noEffect() : found->second;
}

std::size_t VisualEffectParser::FingerprintHash::operator()(
    const std::vector<Filter>& filters) const noexcept {
  Hasher hasher;
  hasher.mix(filters.size());
  for (const auto& filter : filters) {
    hasher.add(filter.name);
    hasher.add(filter.type);
    hasher.mix(filter.inputs.size());
    for (const auto& [key, value] : filter.inputs) {
      hasher.add(key);
      hasher.add(value);
    }
  }
  return hasher.seed;
}

}  // namespace verdalune::sessionreplay
