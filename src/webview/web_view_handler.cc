#include "webview/web_view_handler.h"

#include <utility>
#include <vector>

#include "capture/layer_metadata.h"

namespace verdalune::sessionreplay {
namespace {

constexpr std::string_view kInjectFailure = "Failed to inject script in webview: ";

// What the bridge keeps on a web view: whether its controller has our message handler. It rides in the
// web view's own slot, not its layer's, and lives as long as the web view.
class WebViewMetadata final : public platform::Attachment {
 public:
  bool hasAttachedScriptMessageHandler = false;
};

std::shared_ptr<WebViewMetadata> webViewMetadataOf(platform::WebView& webView) {
  return platform::attachmentOf<WebViewMetadata>(webView, [] { return std::make_shared<WebViewMetadata>(); });
}

// Content worlds exist from OS 14.0; before that every call goes without one.
platform::ScriptWorld scriptWorldFor(const platform::Application& application) {
  return application.osVersion().isAtLeast(14) ? platform::ScriptWorld::page
                                               : platform::ScriptWorld::unspecified;
}

platform::UserScript userScriptFor(platform::ScriptWorld world) {
  return platform::UserScript{.source = WebViewHandler::injectedScript(),
                              .injectionTime = platform::UserScriptInjectionTime::atDocumentStart,
                              .mainFrameOnly = true,
                              .world = world};
}

// Undoes the handler registration of attach, leaving the user script: pages keep a recorder that has
// nobody to post to until a later attach registers the handler again.
void removeMessageHandler(platform::WebView& webView, platform::ScriptWorld world) {
  webView.userContentController()->removeScriptMessageHandler(WebViewHandler::kMessageHandlerName, world);
  webViewMetadataOf(webView)->hasAttachedScriptMessageHandler = false;
}

// Runs the injected script in the current page, which restarts the page's recording. Only failures are
// logged; the logger is held rather than the handler, so a late completion still reports.
void evaluateScript(platform::WebView& webView, platform::ScriptWorld world, std::shared_ptr<Logger> logger) {
  webView.evaluateJavaScript(
      WebViewHandler::injectedScript(), world,
      [logger = std::move(logger),
       world](std::expected<platform::ScriptResult, platform::ScriptError> outcome) {
        if (!logger) return;
        if (!outcome.has_value()) {
          logger->error(std::string(kInjectFailure) + outcome.error().localizedDescription);
          return;
        }
        const bool* flag = std::get_if<bool>(&outcome->value.value);
        if (flag != nullptr && *flag) return;
        // The evaluation without a content world gives no description worth logging.
        if (world == platform::ScriptWorld::unspecified) {
          logger->error(std::string(kInjectFailure) + "Unexpected Result");
        } else {
          logger->error(std::string(kInjectFailure) + "Unexpected Result: " + outcome->description);
        }
      });
}

}  // namespace

std::shared_ptr<WebViewHandler> WebViewHandler::make(std::shared_ptr<Logger> logger,
                                                     std::shared_ptr<platform::Application> application) {
  return std::shared_ptr<WebViewHandler>(new WebViewHandler(std::move(logger), std::move(application)));
}

WebViewHandler::WebViewHandler(std::shared_ptr<Logger> logger,
                               std::shared_ptr<platform::Application> application)
    : logger_(std::move(logger)), application_(std::move(application)) {}

WebViewHandler::~WebViewHandler() {
  std::vector<std::weak_ptr<platform::WebView>> webViews;
  {
    std::scoped_lock guard(attachedWebViewsLock_);
    for (const auto& [layerId, webView] : attachedWebViewsById_) webViews.push_back(webView);
    attachedWebViewsById_.clear();
  }
  if (webViews.empty()) return;
  // Web views are touched on the main queue only, and this handler may be going on another thread.
  application_->mainQueue()->async([webViews = std::move(webViews), world = scriptWorldFor(*application_)] {
    for (const auto& weakWebView : webViews) {
      if (auto webView = weakWebView.lock()) removeMessageHandler(*webView, world);
    }
  });
}

const std::string& WebViewHandler::injectedScript() {
  // The recorder is defined only when the page has none. The driver object is made once per page; each
  // evaluation stops the recording it started before and starts a new one, so rrweb sends a fresh full
  // snapshot. The completion value is true, which attach takes as success.
  //
  // The recorder bundle is UMD: on a page with a module loader it would hand itself to `define` and set no
  // global. Run with `define` and `module` undefined and a private `exports`, it always takes its CommonJS
  // branch, whatever the page has, and the record function is put where the driver looks for it.
  static const std::string script = [] {
    const std::string_view pieces[] = {
        "if (typeof window.rrweb?.record === 'undefined') {\n",
        "window.rrweb = {...window.rrweb, record: (function(define, module, exports) {\n",
        rrwebRecordSource(),
        "\nreturn exports.rrwebRecord.record;\n})(undefined, undefined, {})};",
        "\n}\n\n(function() {\n"
        "    if (typeof window.rrweb?.record === 'undefined') {\n"
        "        throw new Error(\"Unable to access rrweb\");\n"
        "    }\n"
        "    if (typeof window.",
        kRecorderObjectName,
        " === 'undefined') {\n"
        "        window.",
        kRecorderObjectName,
        " = {\n"
        "            stopCurrentRecording: null,\n"
        "            record: function() {\n"
        "                window.",
        kRecorderObjectName,
        ".stopCurrentRecording?.();\n"
        "                window.",
        kRecorderObjectName,
        ".stopCurrentRecording = window.rrweb.record({\n"
        "                    emit(event) {\n"
        "                        const obj = {'event': JSON.stringify(event)};\n"
        "                        window.webkit.messageHandlers.",
        kMessageHandlerName,
        ".postMessage(obj);\n"
        "                    },\n"
        "                    inlineStylesheet: false,\n"
        "                    slimDOMOptions: 'all',\n"
        "                    recordAfter: 'load',\n"
        "                });\n"
        "            }\n"
        "        };\n"
        "    }\n"
        "    setTimeout(window.",
        kRecorderObjectName,
        ".record, 0);\n"
        "    return true;\n"
        "})();",
    };
    std::string text;
    for (std::string_view piece : pieces) text += piece;
    return text;
  }();
  return script;
}

void WebViewHandler::attach(const std::shared_ptr<platform::WebView>& webView, std::int64_t layerId) {
  {
    std::scoped_lock guard(attachedWebViewsLock_);
    auto& entry = attachedWebViewsById_[layerId];
    // An entry whose web view is gone counts as absent, as in a map with weak values.
    if (!entry.expired()) return;
    entry = webView;
  }

  const platform::ScriptWorld world = scriptWorldFor(*application_);
  auto metadata = webViewMetadataOf(*webView);
  auto controller = webView->userContentController();

  if (!metadata->hasAttachedScriptMessageHandler) {
    std::weak_ptr<WebViewHandler> weakSelf = weak_from_this();
    controller->addScriptMessageHandler(std::string(kMessageHandlerName), world,
                                        [weakSelf](const platform::ScriptMessage& message) {
                                          if (auto self = weakSelf.lock()) self->receive(message);
                                        });
    metadata->hasAttachedScriptMessageHandler = true;
  }

  const platform::UserScript userScript = userScriptFor(world);
  for (const platform::UserScript& installed : controller->userScripts()) {
    if (installed == userScript) {
      evaluateScript(*webView, world, logger_);
      return;
    }
  }
  controller->addUserScript(userScript);
  // Without a URL nothing is loaded yet; the user script runs when the first document starts.
  if (webView->url().has_value()) evaluateScript(*webView, world, logger_);
}

void WebViewHandler::detach(std::int64_t layerId) {
  detachWebView(layerId);
}

std::shared_ptr<platform::WebView> WebViewHandler::detachWebView(std::int64_t layerId) {
  std::scoped_lock guard(attachedWebViewsLock_);
  auto found = attachedWebViewsById_.find(layerId);
  if (found == attachedWebViewsById_.end()) return nullptr;
  auto webView = found->second.lock();
  attachedWebViewsById_.erase(found);
  return webView;
}

void WebViewHandler::detachAll() {
  std::vector<std::shared_ptr<platform::WebView>> webViews;
  {
    std::scoped_lock guard(attachedWebViewsLock_);
    for (const auto& [layerId, weakWebView] : attachedWebViewsById_) {
      if (auto webView = weakWebView.lock()) webViews.push_back(std::move(webView));
    }
    attachedWebViewsById_.clear();
  }
  const platform::ScriptWorld world = scriptWorldFor(*application_);
  for (const auto& webView : webViews) removeMessageHandler(*webView, world);
}

void WebViewHandler::receive(const platform::ScriptMessage& message) {
  if (!message.webView) return;
  const std::int64_t layerId = metadataOf(*message.webView->layer())->id();
  if (const std::string* event = platform::stringForKey(message.body, "event")) {
    if (onWebviewEvent) onWebviewEvent(layerId, *event);
    return;
  }
  if (logger_) logger_->error("Received invalid message from webview: " + message.bodyDescription);
}

}  // namespace verdalune::sessionreplay
