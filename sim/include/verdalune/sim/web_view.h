#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "verdalune/platform/web_view.h"
#include "verdalune/sim/views.h"
#include "verdalune/support/queue.h"

namespace verdalune::sessionreplay::sim {

class SimWebView;

class SimUserContentController final : public platform::UserContentController {
 public:
  explicit SimUserContentController(std::shared_ptr<Queue> mainQueue) : mainQueue_(std::move(mainQueue)) {}

  void addScriptMessageHandler(std::string name, platform::ScriptWorld world,
                               std::function<void(const platform::ScriptMessage&)> handler) override;
  void removeScriptMessageHandler(std::string_view name, platform::ScriptWorld world) override;
  void addUserScript(platform::UserScript script) override { scripts_.push_back(std::move(script)); }
  std::vector<platform::UserScript> userScripts() const override { return scripts_; }

  bool hasHandler(std::string_view name, platform::ScriptWorld world) const;

  // What a page's postMessage does: queues the handler's call on the main queue. False when no handler
  // of that name is registered in that world (the page's call throws there).
  bool post(const std::shared_ptr<platform::WebView>& sender, std::string_view name,
            platform::ScriptWorld world, platform::ScriptValue body, std::string bodyDescription = "");

 private:
  using Handler = std::shared_ptr<std::function<void(const platform::ScriptMessage&)>>;

  std::shared_ptr<Queue> mainQueue_;
  std::map<std::pair<std::string, platform::ScriptWorld>, Handler, std::less<>> handlers_;
  std::vector<platform::UserScript> scripts_;
};

// A web view whose page is simulated: loading records which user scripts the document got, and the test
// answers script evaluations and posts messages as the page would.
class SimWebView final : public BasicSimView<platform::WebView> {
 public:
  using Evaluation = std::expected<platform::ScriptResult, platform::ScriptError>;
  using Responder = std::function<Evaluation(const std::string& script, platform::ScriptWorld world)>;

  explicit SimWebView(std::shared_ptr<Queue> mainQueue);

  std::shared_ptr<platform::UserContentController> userContentController() const override {
    return controller_;
  }
  std::optional<std::string> url() const override { return url_; }
  void evaluateJavaScript(std::string script, platform::ScriptWorld world,
                          std::function<void(Evaluation)> completion) override;
  platform::EdgeInsets scrollViewAdjustedContentInset() const override { return contentInset_; }
  std::optional<platform::Color> scrollViewBackgroundColor() const override { return scrollBackground_; }
  std::optional<platform::Color> underPageBackgroundColor() const override { return underPage_; }
  std::shared_ptr<platform::Attachment> attachment() const override { return slot_.get(); }
  std::shared_ptr<platform::Attachment> ensureAttachment(
      const std::function<std::shared_ptr<platform::Attachment>(std::shared_ptr<platform::Attachment>)>&
          ensure) override {
    return slot_.ensure(ensure);
  }

  const std::shared_ptr<SimUserContentController>& controller() const { return controller_; }

  // Loads a new document: it gets the user scripts registered so far.
  void load(std::string url);
  const std::vector<platform::UserScript>& documentScripts() const { return documentScripts_; }

  // How evaluations are answered; without a responder a script evaluates to undefined.
  void setResponder(Responder responder) { responder_ = std::move(responder); }
  const std::vector<std::pair<std::string, platform::ScriptWorld>>& evaluatedScripts() const {
    return evaluated_;
  }

  // The page posts `body` to the handler `name` in `world`.
  bool postMessage(std::string_view name, platform::ScriptWorld world, platform::ScriptValue body,
                   std::string bodyDescription = "");

  void setScrollViewAdjustedContentInset(platform::EdgeInsets inset) { contentInset_ = inset; }
  void setScrollViewBackgroundColor(std::optional<platform::Color> color) { scrollBackground_ = color; }
  void setUnderPageBackgroundColor(std::optional<platform::Color> color) { underPage_ = color; }

 private:
  std::shared_ptr<Queue> mainQueue_;
  std::shared_ptr<SimUserContentController> controller_;
  std::optional<std::string> url_;
  std::vector<platform::UserScript> documentScripts_;
  Responder responder_;
  std::vector<std::pair<std::string, platform::ScriptWorld>> evaluated_;
  platform::EdgeInsets contentInset_;
  std::optional<platform::Color> scrollBackground_;
  std::optional<platform::Color> underPage_;
  AttachmentSlot slot_;
};

}  // namespace verdalune::sessionreplay::sim
