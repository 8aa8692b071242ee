#pragma once

#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "verdalune/platform/geometry.h"
#include "verdalune/platform/layer.h"

// Web views and the script channel into their pages.
//
// Threads: every call is made on the main queue, and every callback (message handlers, evaluation
// completions) arrives there. Ownership: the platform owns web views and their controllers; the library
// refers to a web view it is not reading right now through std::weak_ptr only.
namespace verdalune::sessionreplay::platform {

// Where a script runs. `unspecified` is the call made without a content world, the only form before
// OS 14.0; `page` is the page's own world, where the page's scripts see what it defines.
enum class ScriptWorld { unspecified, page, defaultClient };

enum class UserScriptInjectionTime { atDocumentStart, atDocumentEnd };

// A script the controller injects into every document the web view loads. Two user scripts are the same
// script when every field is equal.
struct UserScript {
  std::string source;
  UserScriptInjectionTime injectionTime = UserScriptInjectionTime::atDocumentStart;
  bool mainFrameOnly = true;
  ScriptWorld world = ScriptWorld::unspecified;
  bool operator==(const UserScript&) const = default;
};

struct ScriptValue;
struct ScriptEntry;
using ScriptArray = std::vector<ScriptValue>;
using ScriptDictionary = std::vector<ScriptEntry>;  // in the order the platform gives

// A value that crossed from a page to native code: what JavaScript posts or returns, as the platform
// converts it (null and undefined are monostate; numbers are doubles).
struct ScriptValue {
  std::variant<std::monostate, bool, double, std::string, ScriptArray, ScriptDictionary> value;
};

struct ScriptEntry {
  std::string key;
  ScriptValue value;
};

// The text under `key` when `value` is a dictionary holding a string there; null in every other case
// (not a dictionary, no such key, a value of another type).
inline const std::string* stringForKey(const ScriptValue& value, std::string_view key) {
  const auto* dictionary = std::get_if<ScriptDictionary>(&value.value);
  if (dictionary == nullptr) return nullptr;
  for (const ScriptEntry& entry : *dictionary) {
    if (entry.key == key) return std::get_if<std::string>(&entry.value.value);
  }
  return nullptr;
}

// What a script evaluation produced, with the platform's description of it for the logs.
struct ScriptResult {
  ScriptValue value;
  std::string description;
};

struct ScriptError {
  std::string localizedDescription;
};

class WebView;

// One message a page posted to a named handler. `webView` is null when the platform no longer knows which
// web view sent it.
struct ScriptMessage {
  std::shared_ptr<WebView> webView;
  ScriptValue body;
  std::string bodyDescription;  // the platform's description of the body, for the logs
};

// The web view's registry of user scripts and script message handlers, shared by every page it loads.
class UserContentController {
 public:
  virtual ~UserContentController() = default;

  // Makes `window.webkit.messageHandlers.<name>.postMessage(body)` in pages of `world` call `handler`, on
  // the main queue, until the handler is removed. The controller keeps `handler` until then, so a handler
  // that refers to its owner holds it weakly. Adding a second handler under a name already taken in that
  // world is a programming error the platform may stop on.
  virtual void addScriptMessageHandler(std::string name, ScriptWorld world,
                                       std::function<void(const ScriptMessage&)> handler) = 0;

  // Removes the handler of `name` in `world`; nothing happens when there is none.
  virtual void removeScriptMessageHandler(std::string_view name, ScriptWorld world) = 0;

  // Injects `script` into documents loaded from now on; documents already loaded are not touched.
  virtual void addUserScript(UserScript script) = 0;

  virtual std::vector<UserScript> userScripts() const = 0;
};

class WebView : public View, public Attachable {
 public:
  // Never null; the same controller for the life of the web view.
  virtual std::shared_ptr<UserContentController> userContentController() const = 0;

  // The URL of the current page; absent before the web view has loaded anything.
  virtual std::optional<std::string> url() const = 0;

  // Runs `script` in the current page in `world` and calls `completion` once, on the main queue, with the
  // script's completion value or the error that stopped it.
  virtual void evaluateJavaScript(
      std::string script, ScriptWorld world,
      std::function<void(std::expected<ScriptResult, ScriptError>)> completion) = 0;

  // What the layer snapshot records of a web view: the scroll view's adjusted content inset and its
  // background colour (absent when it has none), and the colour shown beyond the page's edges (absent
  // before OS 15.0).
  virtual EdgeInsets scrollViewAdjustedContentInset() const = 0;
  virtual std::optional<Color> scrollViewBackgroundColor() const = 0;
  virtual std::optional<Color> underPageBackgroundColor() const = 0;
};

// How capture finds web views: a layer's delegate view of kind webView. Returns that view as a WebView,
// null for any other view and for a null view.
inline std::shared_ptr<WebView> asWebView(const std::shared_ptr<View>& view) {
  if (!view || view->kind() != ViewKind::webView) return nullptr;
  return std::dynamic_pointer_cast<WebView>(view);
}

}  // namespace verdalune::sessionreplay::platform
