#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "verdalune/platform/layer.h"
#include "verdalune/platform/scene.h"

namespace verdalune::sessionreplay {

// The blur or vibrancy a layer draws with, by the platform's raw style values.
struct VisualEffect {
  enum class Kind : std::uint8_t { noEffect, blur, vibrancy };

  Kind kind = Kind::noEffect;
  int blurStyle = 0;      // blur and vibrancy
  int vibrancyStyle = 0;  // vibrancy only

  static VisualEffect noEffect() { return {}; }
  static VisualEffect blur(int blurStyle) { return {Kind::blur, blurStyle, 0}; }
  static VisualEffect vibrancy(int blurStyle, int vibrancyStyle) {
    return {Kind::vibrancy, blurStyle, vibrancyStyle};
  }

  bool operator==(const VisualEffect&) const = default;
};

// One compositor filter as a comparable value: a list of them is the fingerprint of an effect.
struct Filter {
  std::string name;
  std::string type;
  std::map<std::string, platform::FilterValue> inputs;

  bool operator==(const Filter&) const = default;
};

// Recognises blur and vibrancy layers by the compositor filters the platform installed on them. Main
// queue only.
class VisualEffectParser {
 public:
  // Reads the fingerprint of every effect from a visual-effect view of the platform's own; done once.
  explicit VisualEffectParser(platform::UserInterface& userInterface);

  // The effect whose fingerprint `layer`'s filters are; noEffect when it has none or matches nothing.
  VisualEffect recognise(const platform::Layer& layer) const;

  std::size_t fingerprintCount() const { return fingerprints_.size(); }

 private:
  struct FingerprintHash {
    std::size_t operator()(const std::vector<Filter>& filters) const noexcept;
  };

  std::unordered_map<std::vector<Filter>, VisualEffect, FingerprintHash> fingerprints_;
};

// The Filter records of `layer`'s compositor filters, in order; filters that describe nothing are left out.
std::vector<Filter> filtersOf(const platform::Layer& layer);

}  // namespace verdalune::sessionreplay
