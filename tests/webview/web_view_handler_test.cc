#include "webview/web_view_handler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "capture/layer_metadata.h"
#include "common/recording_logger.h"
#include "verdalune/sim/platform.h"
#include "verdalune/sim/web_view.h"

namespace verdalune::sessionreplay {
namespace {

using platform::ScriptWorld;
using sim::SimWebView;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Evaluation = SimWebView::Evaluation;

constexpr std::string_view kHandlerName = "vdl_injected_session_replay";

// The recorder inside a guard that skips it when the page has a recorder already, then the driver, all
// written out: a piece dropped or moved changes what every page runs. What the driver does in a real page
// (recording, posting, starting afresh when evaluated again) is the browser web view test's to check.
TEST(InjectedScriptTest, IsTheGuardedRecorderThenTheDriverExactly) {
  const std::string_view recorder = rrwebRecordSource();
  EXPECT_NE(recorder.find("takeFullSnapshot"), std::string_view::npos) << "the recorder, whole";
  EXPECT_EQ(recorder.find("Replayer"), std::string_view::npos) << "the recorder only";

  const std::string expected =
      std::string(
          "if (typeof window.rrweb?.record === 'undefined') {\n"
          "window.rrweb = {...window.rrweb, record: (function(define, module, exports) {\n") +
      std::string(recorder) +
      "\nreturn exports.rrwebRecord.record;\n})(undefined, undefined, {})};"
      "\n}\n\n(function() {\n"
      "    if (typeof window.rrweb?.record === 'undefined') {\n"
      "        throw new Error(\"Unable to access rrweb\");\n"
      "    }\n"
      "    if (typeof window.vdl_injected_recorder === 'undefined') {\n"
      "        window.vdl_injected_recorder = {\n"
      "            stopCurrentRecording: null,\n"
      "            record: function() {\n"
      "                window.vdl_injected_recorder.stopCurrentRecording?.();\n"
      "                window.vdl_injected_recorder.stopCurrentRecording = window.rrweb.record({\n"
      "                    emit(event) {\n"
      "                        const obj = {'event': JSON.stringify(event)};\n"
      "                        window.webkit.messageHandlers.vdl_injected_session_replay"
      ".postMessage(obj);\n"
      "                    },\n"
      "                    inlineStylesheet: false,\n"
      "                    slimDOMOptions: 'all',\n"
      "                    recordAfter: 'load',\n"
      "                });\n"
      "            }\n"
      "        };\n"
      "    }\n"
      "    setTimeout(window.vdl_injected_recorder.record, 0);\n"
      "    return true;\n"
      "})();";
  EXPECT_EQ(WebViewHandler::injectedScript(), expected);
}

// A handler on a simulated device of the given OS version. Its web views have loaded a page (unless made
// without a URL) that answers evaluations with `true` unless a test says otherwise.
class Bridge {
 public:
  explicit Bridge(platform::OsVersion os = {17, 4, 0})
      : app(std::make_shared<sim::SimApplication>(sim::SimApplication::Options{.osVersion = os})),
        logger(std::make_shared<RecordingLogger>()),
        handler(WebViewHandler::make(logger, app)) {
    handler->onWebviewEvent = [this](std::int64_t layerId, std::string event) {
      events.emplace_back(layerId, std::move(event));
    };
  }

  std::shared_ptr<SimWebView> makeWebView(std::optional<std::string> url = "https://example.test/") {
    auto web = sim::SimViewNode::make<SimWebView>(app->mainQueue());
    if (url) web->load(*url);
    web->setResponder([](const std::string&, ScriptWorld) -> Evaluation {
      return platform::ScriptResult{{true}, "1"};
    });
    return web;
  }

  static std::int64_t layerIdOf(const SimWebView& web) { return metadataOf(*web.layer())->id(); }
  void attach(const std::shared_ptr<SimWebView>& web) { handler->attach(web, layerIdOf(*web)); }

  std::shared_ptr<sim::SimApplication> app;
  std::shared_ptr<RecordingLogger> logger;
  std::shared_ptr<WebViewHandler> handler;
  std::vector<std::pair<std::int64_t, std::string>> events;
};

platform::UserScript bridgeScript(ScriptWorld world) {
  return {.source = WebViewHandler::injectedScript(), .world = world};
}

TEST(WebViewHandlerTest, AttachInstallsHandlerAndUserScriptAndStartsRecordingTheLoadedPage) {
  Bridge bridge;
  auto web = bridge.makeWebView();
  bridge.attach(web);
  bridge.attach(web);  // the same layer again: already attached

  EXPECT_TRUE(web->controller()->hasHandler(kHandlerName, ScriptWorld::page));
  EXPECT_THAT(web->controller()->userScripts(), ElementsAre(bridgeScript(ScriptWorld::page)));
  EXPECT_THAT(web->evaluatedScripts(),
              ElementsAre(std::pair{WebViewHandler::injectedScript(), ScriptWorld::page}));
  bridge.app->runUntilIdle();
  EXPECT_THAT(bridge.logger->lines(), IsEmpty()) << "true is the one silent result";

  // Before the first load there is no page: the user script starts the recording.
  auto blank = bridge.makeWebView(std::nullopt);
  bridge.attach(blank);
  EXPECT_THAT(blank->evaluatedScripts(), IsEmpty());
  blank->load("https://example.test/first");
  EXPECT_THAT(blank->documentScripts(), ElementsAre(bridgeScript(ScriptWorld::page)));
}

TEST(WebViewHandlerTest, DetachLeavesEverythingInstalledSoReattachOnlyReevaluates) {
  Bridge bridge;
  auto web = bridge.makeWebView();
  bridge.attach(web);
  EXPECT_EQ(bridge.handler->detachWebView(Bridge::layerIdOf(*web)), web);
  EXPECT_EQ(bridge.handler->detachWebView(Bridge::layerIdOf(*web)), nullptr);
  EXPECT_TRUE(web->controller()->hasHandler(kHandlerName, ScriptWorld::page));

  bridge.attach(web);
  EXPECT_EQ(web->controller()->userScripts().size(), 1u);
  EXPECT_EQ(web->evaluatedScripts().size(), 2u);
}

TEST(WebViewHandlerTest, DetachAllRemovesHandlersAndAttachRegistersThemAgain) {
  Bridge bridge;
  auto first = bridge.makeWebView();
  auto second = bridge.makeWebView();
  bridge.attach(first);
  bridge.attach(second);
  bridge.handler->detachAll();

  for (const auto& web : {first, second}) {
    EXPECT_FALSE(web->controller()->hasHandler(kHandlerName, ScriptWorld::page));
    EXPECT_EQ(web->controller()->userScripts().size(), 1u) << "the user script stays";
  }
  bridge.attach(first);
  EXPECT_TRUE(first->controller()->hasHandler(kHandlerName, ScriptWorld::page));
  EXPECT_EQ(first->evaluatedScripts().size(), 2u);
}

TEST(WebViewHandlerTest, Os13WorksWithoutContentWorldsAndLogsUnexpectedResultWithoutValue) {
  Bridge bridge({13, 7, 0});
  auto web = bridge.makeWebView();
  web->setResponder([](const std::string&, ScriptWorld) -> Evaluation {
    return platform::ScriptResult{{}, "undefined"};
  });
  bridge.attach(web);

  EXPECT_TRUE(web->controller()->hasHandler(kHandlerName, ScriptWorld::unspecified));
  EXPECT_THAT(web->controller()->userScripts(), ElementsAre(bridgeScript(ScriptWorld::unspecified)));
  EXPECT_EQ(web->evaluatedScripts().at(0).second, ScriptWorld::unspecified);
  bridge.app->runUntilIdle();
  EXPECT_THAT(bridge.logger->errors(), ElementsAre("Failed to inject script in webview: Unexpected Result"));

  bridge.handler->detachAll();
  EXPECT_FALSE(web->controller()->hasHandler(kHandlerName, ScriptWorld::unspecified));
}

TEST(WebViewHandlerTest, Os17LogsTheDescriptionOfAnUnexpectedResultAndTheErrorText) {
  Bridge bridge;
  auto returnsOne = bridge.makeWebView();
  returnsOne->setResponder([](const std::string&, ScriptWorld) -> Evaluation {
    return platform::ScriptResult{{1.0}, "1"};
  });
  auto throws = bridge.makeWebView();
  throws->setResponder([](const std::string&, ScriptWorld) -> Evaluation {
    return std::unexpected(platform::ScriptError{"Unable to access rrweb"});
  });
  bridge.attach(returnsOne);
  bridge.attach(throws);
  bridge.app->runUntilIdle();
  EXPECT_THAT(bridge.logger->errors(),
              ElementsAre("Failed to inject script in webview: Unexpected Result: 1",
                          "Failed to inject script in webview: Unable to access rrweb"));
}

TEST(WebViewHandlerTest, EventsReachTheSerializerWithTheLayerIdAndOthersAreLogged) {
  Bridge bridge;
  auto web = bridge.makeWebView();
  bridge.attach(web);
  bridge.app->runUntilIdle();

  const std::string event = R"({"type":2,"data":{}})";
  web->postMessage(kHandlerName, ScriptWorld::page, {platform::ScriptDictionary{{"event", {event}}}});
  web->postMessage(kHandlerName, ScriptWorld::page, {platform::ScriptDictionary{{"event", {2.0}}}},
                   "{event = 2;}");
  web->postMessage(kHandlerName, ScriptWorld::page, {std::string("hello")}, "hello");
  bridge.app->runUntilIdle();

  EXPECT_THAT(bridge.events, ElementsAre(std::pair{Bridge::layerIdOf(*web), event}));
  EXPECT_THAT(bridge.logger->errors(), ElementsAre("Received invalid message from webview: {event = 2;}",
                                                   "Received invalid message from webview: hello"));
}

TEST(WebViewHandlerTest, DestructionRemovesHandlersOnTheMainQueue) {
  Bridge bridge;
  auto web = bridge.makeWebView();
  bridge.attach(web);
  // The registered handler must not keep the bridge alive, or this would never destroy it.
  bridge.handler.reset();
  EXPECT_TRUE(web->controller()->hasHandler(kHandlerName, ScriptWorld::page));
  bridge.app->runUntilIdle();
  EXPECT_FALSE(web->controller()->hasHandler(kHandlerName, ScriptWorld::page));
  EXPECT_EQ(web->controller()->userScripts().size(), 1u);
}

}  // namespace
}  // namespace verdalune::sessionreplay
