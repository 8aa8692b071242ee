#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "capture/snapshotter.h"
#include "verdalune/logger.h"
#include "verdalune/platform/application.h"
#include "verdalune/platform/web_view.h"

namespace verdalune::sessionreplay {

// The rrweb recorder bundle built into the library (@rrweb/record's UMD build, record only), as rrweb ships
// it.
std::string_view rrwebRecordSource();

// Records the pages inside web views: installs rrweb's recorder and a small driver into each attached web
// view's pages and hands every event they post, with the id of the web view's layer, to `onWebviewEvent`.
// Main queue only, except that the attached set is guarded by its own lock.
class WebViewHandler final : public WebViewAttacher, public std::enable_shared_from_this<WebViewHandler> {
 public:
  static constexpr std::string_view kMessageHandlerName = "vdl_injected_session_replay";
  static constexpr std::string_view kRecorderObjectName = "vdl_injected_recorder";

  // `application` gives the OS version (content worlds from 14.0) and the main queue.
  static std::shared_ptr<WebViewHandler> make(std::shared_ptr<Logger> logger,
                                              std::shared_ptr<platform::Application> application);
  ~WebViewHandler() override;

  // The script injected into pages: the recorder (unless the page has one) and the driver, which stops
  // any recording it started before and starts a new one. Built once.
  static const std::string& injectedScript();

  // Receives every valid event: the web view's layer id and the event's JSON text. Set before attaching.
  std::function<void(std::int64_t layerId, std::string event)> onWebviewEvent;

  void attach(const std::shared_ptr<platform::WebView>& webView, std::int64_t layerId) override;
  void detach(std::int64_t layerId) override;
  void detachAll() override;

  // The web view attached under `layerId` before, now detached; null when there was none.
  std::shared_ptr<platform::WebView> detachWebView(std::int64_t layerId);

  // The platform's script message callback.
  void receive(const platform::ScriptMessage& message);

 private:
  WebViewHandler(std::shared_ptr<Logger> logger, std::shared_ptr<platform::Application> application);

  std::shared_ptr<Logger> logger_;
  std::shared_ptr<platform::Application> application_;
  std::mutex attachedWebViewsLock_;
  std::map<std::int64_t, std::weak_ptr<platform::WebView>> attachedWebViewsById_;
};

}  // namespace verdalune::sessionreplay
