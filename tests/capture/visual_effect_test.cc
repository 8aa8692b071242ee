#include "capture/visual_effect.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <vector>

#include "verdalune/sim/layer.h"
#include "verdalune/sim/platform.h"
#include "verdalune/sim/screen_builder.h"
#include "verdalune/sim/views.h"

namespace verdalune::sessionreplay {
namespace {

using platform::CompositorFilter;
using platform::UserInterfaceStyle;
using sim::SimLayer;
using sim::SimVisualEffectView;

constexpr std::array kStyles{UserInterfaceStyle::light, UserInterfaceStyle::dark};

class VisualEffectParserTest : public ::testing::Test {
 protected:
  std::shared_ptr<SimLayer> layerWith(std::vector<CompositorFilter> filters) {
    auto layer = std::make_shared<SimLayer>();
    layer->setFilters(std::move(filters));
    return layer;
  }

  sim::SimPlatform device;
  VisualEffectParser parser{*device.userInterface()};
};

TEST_F(VisualEffectParserTest, FiltersKeepOnlyFingerprintInputsAndDropNamelessFilters) {
  auto layer = layerWith({
      {.name = "", .type = "", .inputs = {{"inputRadius", 30.0}}},
      {.name = "gaussianBlur",
       .type = "gaussianBlur",
       .inputs = {{"inputRadius", 30.0}, {"inputImage", true}}},
      {.name = "opacityPair", .type = "", .inputs = {}},
  });
  const std::vector<Filter> expected{
      {.name = "gaussianBlur", .type = "gaussianBlur", .inputs = {{"inputRadius", 30.0}}},
      {.name = "opacityPair", .type = "", .inputs = {}},
  };
  EXPECT_EQ(filtersOf(*layer), expected);

  EXPECT_EQ(parser.recognise(SimLayer()), VisualEffect::noEffect());
  EXPECT_EQ(parser.recognise(*layerWith({{.name = "", .type = "", .inputs = {{"inputRadius", 30.0}}}})),
            VisualEffect::noEffect())
      << "filters that yield no record are no fingerprint";
  EXPECT_EQ(parser.recognise(*layer), VisualEffect::noEffect());
}

TEST_F(VisualEffectParserTest, RecognisesTheBackdropOfEveryBlurStyleInLightAndDark) {
  sim::ScreenBuilder builder(device);
  for (int style = 0; style <= 20; ++style) {
    builder.blur({{0, 40.0 * style}, {200, 40}}, style).named(std::to_string(style));
  }
  const auto screen = builder.build();

  // The adaptive system materials (6-10) look exactly like their fixed light (11-15) or dark (16-20)
  // twins, and the twin, learnt later, is what they are recognised as: the look is what matters.
  auto resolved = [](int style, UserInterfaceStyle interfaceStyle) {
    if (style < sim::blurStyle::systemUltraThinMaterial || style > sim::blurStyle::systemChromeMaterial)
      return style;
    return style + (interfaceStyle == UserInterfaceStyle::dark ? 10 : 5);
  };
  for (int style = 0; style <= 20; ++style) {
    const auto view = screen.find<SimVisualEffectView>(std::to_string(style));
    for (const auto interfaceStyle : kStyles) {
      view->setOverrideUserInterfaceStyle(interfaceStyle);
      const auto subviews = view->subviews();
      ASSERT_EQ(subviews.size(), 3u);
      EXPECT_EQ(parser.recognise(*subviews[0]->layer()), VisualEffect::blur(resolved(style, interfaceStyle)))
          << "style " << style << (interfaceStyle == UserInterfaceStyle::dark ? " dark" : " light");
      EXPECT_EQ(parser.recognise(*subviews[1]->layer()), VisualEffect::noEffect())
          << "the tint has no filters";
    }
  }
}

TEST_F(VisualEffectParserTest, RecognisesEveryVibrancyStyleInLightAndDark) {
  // Eighteen blur looks (the adaptive materials share theirs with their twins), eight vibrancy matrices
  // over each.
  EXPECT_EQ(parser.fingerprintCount(), 18u + 18u * 8u);

  auto view = sim::SimViewNode::make<SimVisualEffectView>();
  view->setFrame({{0, 0}, {100, 30}});
  for (int vibrancy = 0; vibrancy <= 7; ++vibrancy) {
    for (const auto interfaceStyle : kStyles) {
      view->setOverrideUserInterfaceStyle(interfaceStyle);
      view->setVibrancyEffect(sim::blurStyle::systemMaterial, vibrancy);
      const int twin = interfaceStyle == UserInterfaceStyle::dark ? 18 : 13;
      EXPECT_EQ(parser.recognise(*view->subviews()[0]->layer()), VisualEffect::vibrancy(twin, vibrancy))
          << "vibrancy " << vibrancy << (interfaceStyle == UserInterfaceStyle::dark ? " dark" : " light");
    }
  }
}

TEST_F(VisualEffectParserTest, ReorderedOrChangedFiltersDoNotMatch) {
  auto view = sim::SimViewNode::make<SimVisualEffectView>();
  view->setBlurEffect(sim::blurStyle::systemUltraThinMaterial);
  const auto filters = view->subviews()[0]->layer()->filters();
  ASSERT_EQ(filters.size(), 3u);
  const auto effect = VisualEffect::blur(11);  // the light twin

  auto withIgnoredInput = filters;
  withIgnoredInput[0].inputs.emplace("inputImage", std::string("backdrop"));
  EXPECT_EQ(parser.recognise(*layerWith(withIgnoredInput)), effect) << "inputs outside the fingerprint";

  auto reversed = filters;
  std::ranges::reverse(reversed);
  EXPECT_EQ(parser.recognise(*layerWith(reversed)), VisualEffect::noEffect());

  auto changed = filters;
  changed[0].inputs["inputRadius"] = std::get<double>(changed[0].inputs["inputRadius"]) + 0.5;
  EXPECT_EQ(parser.recognise(*layerWith(changed)), VisualEffect::noEffect());

  auto extra = filters;
  extra[1].inputs.emplace("inputBias", 0.0);
  EXPECT_EQ(parser.recognise(*layerWith(extra)), VisualEffect::noEffect());
}

}  // namespace
}  // namespace verdalune::sessionreplay
