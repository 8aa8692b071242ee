#include "convert/visual_effect_filter_mapping.h"

namespace verdalune::sessionreplay {

namespace {

// Blur styles by raw value: 0 to 5 the classic frosted glasses (extra light, light, dark, extra dark,
// regular, prominent), 6 to 10 the adaptive materials from ultra thin to chrome, 11 to 15 the same
// materials always light, 16 to 20 always dark.
constexpr int kFirstAdaptiveMaterial = 6;
constexpr int kFirstLightMaterial = 11;
constexpr int kFirstDarkMaterial = 16;
constexpr int kLastDarkMaterial = 20;

// An adaptive material looks like its light twin on a light screen, the look the page starts from; the
// recording has no interface style of its own to switch to the dark twin with.
int lightTwinOfAdaptive(int blurStyle) {
  return blurStyle - kFirstAdaptiveMaterial + kFirstLightMaterial;
}

std::optional<std::string_view> blurFilter(int blurStyle) {
  if (blurStyle >= kFirstAdaptiveMaterial && blurStyle < kFirstLightMaterial) {
    return blurFilter(lightTwinOfAdaptive(blurStyle));
  }
  switch (blurStyle) {
    // Extra dark (3) is the dark glass (2) with a deeper tint that a blurred, saturated backdrop already
    // approximates; both take the same text.
    case 0:
    case 2:
    case 3:
    case 4:
    case 5:
      return "blur(20px) saturate(1.8);";
    case 1:
      return "blur(30px) saturate(1.8);";
    case 11:
      return "invert(0.16) invert() brightness(0.92) invert() saturate(1.1) brightness(1.12) blur(22.5px)";
    case 12:
      return "invert(0.2) invert() brightness(0.75) invert() saturate(1.35) brightness(1.12) blur(29.5px)";
    case 13:
      return "invert(0.32) invert() brightness(0.48) invert() saturate(1.5) brightness(1.1) blur(29.5px)";
    case 14:
      return "invert(0.38) invert() brightness(0.22) invert() saturate(1.5) brightness(1.045) blur(45px)";
    case 15:
      return "invert(0.34) invert() brightness(0.2) invert() saturate(1.1) brightness(1.1) blur(22.5px)";
    case 16:
      return "brightness(0.76) invert(0.12) saturate(1.1) blur(22.5px)";
    case 17:
      return "brightness(0.48) invert(0.14) saturate(1.35) blur(29.5px)";
    case 18:
      return "brightness(0.26) invert(0.16) saturate(1.5) blur(29.5px)";
    case 19:
      return "brightness(0.08) invert(0.12) saturate(1.5) blur(29.5px)";
    case 20:
      return "brightness(0.4) invert(0.18) saturate(2) brightness(0.9) blur(22.5px)";
    default:
      return std::nullopt;
  }
}

// Vibrant content over a material: a flat colour (the page's vibrancy filters) at the strength of the
// vibrancy style, blended so it darkens a light material and lightens a dark one. The light scale has
// no 0.6 step: a secondary label on a dark material needs more presence than on a light one.
std::optional<std::string_view> lightMaterialVibrancy(int vibrancyStyle) {
  switch (vibrancyStyle) {
    case 0:
      return "url(#vibrancy-light)";
    case 1:
    case 4:
      return "opacity(0.4) url(#vibrancy-light)";
    case 2:
      return "opacity(0.25) url(#vibrancy-light)";
    case 3:
      return "opacity(0.15) url(#vibrancy-light)";
    case 5:
    case 7:
      return "opacity(0.2) url(#vibrancy-light)";
    case 6:
      return "opacity(0.07) url(#vibrancy-light)";
    default:
      return std::nullopt;
  }
}

std::optional<std::string_view> darkMaterialVibrancy(int vibrancyStyle) {
  switch (vibrancyStyle) {
    case 0:
      return "url(#vibrancy-dark)";
    case 1:
      return "opacity(0.6) url(#vibrancy-dark)";
    case 2:
      return "opacity(0.25) url(#vibrancy-dark)";
    case 3:
      return "opacity(0.15) url(#vibrancy-dark)";
    case 4:
      return "opacity(0.4) url(#vibrancy-dark)";
    case 5:
    case 7:
      return "opacity(0.2) url(#vibrancy-dark)";
    case 6:
      return "opacity(0.07) url(#vibrancy-dark)";
    default:
      return std::nullopt;
  }
}

// Vibrancy over the classic glasses has one strength whatever the vibrancy style: the content is burnt
// into the light glasses and dodged out of the dark ones.
VisualEffectCss classicGlassVibrancy(int blurStyle) {
  switch (blurStyle) {
    case 0:
    case 1:
      return {"saturate(4) brightness(0.1) invert(0.1)", "color-burn"};
    // Extra dark is dodged like dark: the backdrop under both is near black.
    case 2:
    case 3:
      return {"saturate(4) brightness(0.5) invert(0.3)", "color-dodge"};
    // Regular is a greyer glass than light; the burn is lifted and softened so the content does not go
    // black on it.
    case 4:
      return {"saturate(4) brightness(0.1) invert(0.2) opacity(0.8)", "color-burn"};
    // Prominent is the whitest glass; the deepest burn, softened, keeps the content as dark as on light.
    case 5:
      return {"saturate(4) brightness(0.05) invert(0.05) opacity(0.8)", "color-burn"};
    default:
      return {};
  }
}

VisualEffectCss vibrancyCss(int blurStyle, int vibrancyStyle) {
  if (blurStyle >= kFirstAdaptiveMaterial && blurStyle < kFirstLightMaterial) {
    return vibrancyCss(lightTwinOfAdaptive(blurStyle), vibrancyStyle);
  }
  if (blurStyle >= kFirstLightMaterial && blurStyle < kFirstDarkMaterial) {
    auto filter = lightMaterialVibrancy(vibrancyStyle);
    if (!filter) return {};
    return {filter, "plus-darker"};
  }
  if (blurStyle >= kFirstDarkMaterial && blurStyle <= kLastDarkMaterial) {
    auto filter = darkMaterialVibrancy(vibrancyStyle);
    if (!filter) return {};
    return {filter, "plus-lighter"};
  }
  return classicGlassVibrancy(blurStyle);
}

}  // namespace

VisualEffectCss VisualEffectFilterMapping::css(const VisualEffect& effect) {
  switch (effect.kind) {
    case VisualEffect::Kind::noEffect:
      return {};
    case VisualEffect::Kind::blur:
      return {blurFilter(effect.blurStyle), std::nullopt};
    case VisualEffect::Kind::vibrancy:
      return vibrancyCss(effect.blurStyle, effect.vibrancyStyle);
  }
  return {};
}

}  // namespace verdalune::sessionreplay
