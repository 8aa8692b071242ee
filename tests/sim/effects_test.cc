#include <gtest/gtest.h>

#include <vector>

#include "verdalune/sim/platform.h"
#include "verdalune/sim/screen_builder.h"

namespace verdalune::sessionreplay::sim {
namespace {

using platform::ScriptWorld;

// Every filter installed under `view`, in subview order.
std::vector<platform::CompositorFilter> installedFilters(const platform::VisualEffectView& view) {
  std::vector<platform::CompositorFilter> all;
  for (const auto& subview : view.subviews()) {
    auto filters = subview->layer()->filters();
    all.insert(all.end(), filters.begin(), filters.end());
  }
  return all;
}

double radiusOf(const platform::VisualEffectView& view) {
  for (const auto& filter : installedFilters(view)) {
    if (filter.type == "gaussianBlur") return std::get<double>(filter.inputs.at("inputRadius"));
  }
  return -1;
}

TEST(SimVisualEffectTest, BlurInstallsBlurAndSaturationOnTheBackdrop) {
  SimPlatform device;
  auto view = device.userInterface()->makeVisualEffectView();
  EXPECT_TRUE(installedFilters(*view).empty());
  view->setBlurEffect(blurStyle::systemThinMaterial);
  auto filters = installedFilters(*view);
  ASSERT_EQ(filters.size(), 3u);
  EXPECT_EQ(filters[0].name, "gaussianBlur");
  EXPECT_GT(std::get<double>(filters[0].inputs.at("inputRadius")), 0);
  EXPECT_EQ(filters[1].type, "colorSaturate");
  EXPECT_GT(std::get<double>(filters[1].inputs.at("inputAmount")), 1);
  EXPECT_EQ(filters[2].type, "colorMatrix") << "the material's tint";
  EXPECT_EQ(view->subviews().back()->className(), "_UIVisualEffectContentView");

  view->setBlurEffect(blurStyle::systemUltraThinMaterial);
  EXPECT_LT(radiusOf(*view), std::get<double>(filters[0].inputs.at("inputRadius")))
      << "thinner materials blur less";
  EXPECT_EQ(view->subviews().size(), 3u) << "replacing the effect does not pile up subviews";

  auto sim = std::dynamic_pointer_cast<SimVisualEffectView>(view);
  sim->setFrame({{0, 0}, {120, 40}});
  for (const auto& subview : view->subviews()) {
    EXPECT_EQ(subview->layer()->properties().bounds.size, (platform::Size{120, 40})) << subview->className();
  }
  EXPECT_GT(radiusOf(*view), 0);
}

TEST(SimVisualEffectTest, StyleOverrideChangesAdaptiveMaterialsOnly) {
  SimPlatform device;
  auto view = device.userInterface()->makeVisualEffectView();
  auto tintOf = [&] { return view->subviews()[1]->layer()->properties().backgroundColor; };
  view->setBlurEffect(blurStyle::systemMaterial);
  const auto light = tintOf();
  view->setOverrideUserInterfaceStyle(platform::UserInterfaceStyle::dark);
  EXPECT_EQ(view->userInterfaceStyle(), platform::UserInterfaceStyle::dark);
  EXPECT_NE(tintOf(), light);
  view->setBlurEffect(blurStyle::extraLight);
  const auto fixed = tintOf();
  view->setOverrideUserInterfaceStyle(platform::UserInterfaceStyle::light);
  EXPECT_EQ(tintOf(), fixed);
}

TEST(SimVisualEffectTest, VibrancyInstallsAColourMatrixPerStyle) {
  SimPlatform device;
  auto view = device.userInterface()->makeVisualEffectView();
  view->setVibrancyEffect(blurStyle::systemMaterial, vibrancyStyle::label);
  auto filters = installedFilters(*view);
  ASSERT_EQ(filters.size(), 1u);
  EXPECT_EQ(filters[0].type, "colorMatrix");
  const auto label = std::get<std::vector<double>>(filters[0].inputs.at("inputColorMatrix"));
  EXPECT_EQ(label.size(), 20u);
  view->setVibrancyEffect(blurStyle::systemMaterial, vibrancyStyle::tertiaryLabel);
  EXPECT_NE(std::get<std::vector<double>>(installedFilters(*view)[0].inputs.at("inputColorMatrix")), label);
}

TEST(SimWebViewTest, PagesPostToHandlersOnTheMainQueueUntilRemoved) {
  SimPlatform device;
  auto screen =
      ScreenBuilder(device).webView({{0, 0}, {390, 600}}, "https://example.test/").named("web").build();
  auto web = screen.find<SimWebView>("web");
  ASSERT_NE(platform::asWebView(web->view()), nullptr);
  EXPECT_EQ(web->url(), "https://example.test/");

  std::vector<platform::ScriptMessage> received;
  web->userContentController()->addScriptMessageHandler(
      "vdl", ScriptWorld::page, [&](const platform::ScriptMessage& m) { received.push_back(m); });
  platform::ScriptValue body{platform::ScriptDictionary{{"type", {std::string("snapshot")}}}};
  EXPECT_FALSE(web->postMessage("vdl", ScriptWorld::defaultClient, body)) << "handlers belong to one world";
  EXPECT_TRUE(web->postMessage("vdl", ScriptWorld::page, body, "{type: snapshot}"));
  EXPECT_TRUE(received.empty());
  device.app()->runUntilIdle();
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0].webView, web->view());
  ASSERT_NE(platform::stringForKey(received[0].body, "type"), nullptr);
  EXPECT_EQ(*platform::stringForKey(received[0].body, "type"), "snapshot");
  EXPECT_EQ(received[0].bodyDescription, "{type: snapshot}");

  // A message already posted when the handler goes is not delivered.
  EXPECT_TRUE(web->postMessage("vdl", ScriptWorld::page, body));
  web->userContentController()->removeScriptMessageHandler("vdl", ScriptWorld::page);
  device.app()->runUntilIdle();
  EXPECT_EQ(received.size(), 1u);
  EXPECT_FALSE(web->postMessage("vdl", ScriptWorld::page, body));
}

TEST(SimWebViewTest, UserScriptsReachDocumentsLoadedAfterThem) {
  SimPlatform device;
  auto web = SimViewNode::make<SimWebView>(device.app()->mainQueue());
  EXPECT_EQ(web->url(), std::nullopt);
  web->load("https://a.test/");
  const platform::UserScript script{.source = "1", .world = ScriptWorld::page};
  web->userContentController()->addUserScript(script);
  EXPECT_TRUE(web->documentScripts().empty());
  web->load("https://b.test/");
  EXPECT_EQ(web->documentScripts(), std::vector{script});
}

TEST(SimWebViewTest, EvaluationsCompleteOnTheMainQueueWithResultOrError) {
  SimPlatform device;
  auto web = SimViewNode::make<SimWebView>(device.app()->mainQueue());
  std::vector<std::expected<platform::ScriptResult, platform::ScriptError>> outcomes;
  auto record = [&](std::expected<platform::ScriptResult, platform::ScriptError> outcome) {
    outcomes.push_back(outcome);
  };

  web->evaluateJavaScript("void 0", ScriptWorld::unspecified, record);
  web->setResponder([](const std::string& script,
                       ScriptWorld world) -> std::expected<platform::ScriptResult, platform::ScriptError> {
    if (world != ScriptWorld::page) return std::unexpected(platform::ScriptError{"no such world"});
    return platform::ScriptResult{{static_cast<double>(script.size())}, "number"};
  });
  web->evaluateJavaScript("abc", ScriptWorld::page, record);
  web->evaluateJavaScript("abc", ScriptWorld::defaultClient, record);
  EXPECT_TRUE(outcomes.empty());
  device.app()->runUntilIdle();
  ASSERT_EQ(outcomes.size(), 3u);
  EXPECT_TRUE(std::holds_alternative<std::monostate>(outcomes[0]->value.value));
  EXPECT_EQ(std::get<double>(outcomes[1]->value.value), 3);
  EXPECT_EQ(outcomes[2].error().localizedDescription, "no such world");
  EXPECT_EQ(web->evaluatedScripts().size(), 3u);
}

struct Mark : platform::Attachment {};

TEST(SimWebViewTest, HasItsOwnAttachmentSlot) {
  SimPlatform device;
  auto web = SimViewNode::make<SimWebView>(device.app()->mainQueue());
  auto mark = platform::attachmentOf<Mark>(*web, [] { return std::make_shared<Mark>(); });
  EXPECT_EQ(web->attachment(), mark);
  EXPECT_EQ(web->layer()->attachment(), nullptr) << "the view's slot is not its layer's";
}

}  // namespace
}  // namespace verdalune::sessionreplay::sim
