#include "verdalune/sim/web_view.h"

namespace verdalune::sessionreplay::sim {

void SimUserContentController::addScriptMessageHandler(
    std::string name, platform::ScriptWorld world,
    std::function<void(const platform::ScriptMessage&)> handler) {
  handlers_[{std::move(name), world}] =
      std::make_shared<std::function<void(const platform::ScriptMessage&)>>(std::move(handler));
}

void SimUserContentController::removeScriptMessageHandler(std::string_view name,
                                                          platform::ScriptWorld world) {
  handlers_.erase({std::string(name), world});
}

bool SimUserContentController::hasHandler(std::string_view name, platform::ScriptWorld world) const {
  return handlers_.contains({std::string(name), world});
}

bool SimUserContentController::post(const std::shared_ptr<platform::WebView>& sender, std::string_view name,
                                    platform::ScriptWorld world, platform::ScriptValue body,
                                    std::string bodyDescription) {
  auto found = handlers_.find({std::string(name), world});
  if (found == handlers_.end()) return false;
  // The handler is looked up again when the message is delivered: one removed meanwhile hears nothing.
  std::weak_ptr<std::function<void(const platform::ScriptMessage&)>> handler = found->second;
  std::weak_ptr<platform::WebView> weakSender = sender;
  mainQueue_->async([handler, weakSender, body = std::move(body), description = std::move(bodyDescription)] {
    if (auto call = handler.lock()) (*call)(platform::ScriptMessage{weakSender.lock(), body, description});
  });
  return true;
}

SimWebView::SimWebView(std::shared_ptr<Queue> mainQueue)
    : BasicSimView("WKWebView", platform::ViewKind::webView),
      mainQueue_(std::move(mainQueue)),
      controller_(std::make_shared<SimUserContentController>(mainQueue_)) {}

void SimWebView::load(std::string url) {
  url_ = std::move(url);
  documentScripts_ = controller_->userScripts();
}

void SimWebView::evaluateJavaScript(std::string script, platform::ScriptWorld world,
                                    std::function<void(Evaluation)> completion) {
  evaluated_.emplace_back(script, world);
  Evaluation result = responder_ ? responder_(script, world)
                                 : Evaluation(platform::ScriptResult{platform::ScriptValue{}, "undefined"});
  mainQueue_->async([completion = std::move(completion), result = std::move(result)]() mutable {
    completion(std::move(result));
  });
}

bool SimWebView::postMessage(std::string_view name, platform::ScriptWorld world, platform::ScriptValue body,
                             std::string bodyDescription) {
  return controller_->post(std::dynamic_pointer_cast<platform::WebView>(view()), name, world, std::move(body),
                           std::move(bodyDescription));
}

}  // namespace verdalune::sessionreplay::sim
