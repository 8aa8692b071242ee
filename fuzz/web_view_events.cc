// Arbitrary page messages through the web view bridge and into the recording: nothing may crash, and
// no event may be written with a page id that was not translated to a native one.
//
// The input is a list of chunks separated by NUL bytes. A chunk's first byte says what it is: 'C' a
// native capture (the web view shown or, every other time, masked), 'F' a flush, anything else a message
// the page posts, whose body shape the byte picks (a dictionary with the text under "event", with a
// number there, with another key, or a bare text) and whose text is the rest of the chunk.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "capture/layer_metadata.h"
#include "capture/masking.h"
#include "serialize/serializer.h"
#include "verdalune/sim/platform.h"
#include "verdalune/sim/screen_builder.h"
#include "webview/web_view_handler.h"

namespace vdl = verdalune::sessionreplay;
namespace platform = verdalune::sessionreplay::platform;
namespace sim = verdalune::sessionreplay::sim;

namespace {

// Every id a written event names must be one of the recording's own: the skeleton and the layers of the
// capture (below `firstPageId`), or one drawn from the counter since (a translated page id).
class CheckingStorage final : public vdl::StorageCoordinatorProtocol {
 public:
  void write(vdl::rrweb::Event event, std::string, std::int64_t) override {
    auto* incremental = std::get_if<vdl::rrweb::IncrementalSnapshotEvent>(&event.value);
    if (incremental == nullptr) return;
    auto* mutation = std::get_if<vdl::rrweb::MutationData>(&incremental->data.value);
    if (mutation == nullptr) {
      std::visit(
          [&](const auto& record) {
            if constexpr (requires { record.id; }) check(record.id);
          },
          incremental->data.value);
      return;
    }
    for (const auto& add : mutation->adds) {
      check(add.parentId);
      if (add.nextId) check(*add.nextId);
    }
    for (const auto& remove : mutation->removes) check(remove.id);
    for (const auto& attribute : mutation->attributes) check(attribute.id);
    for (const auto& text : mutation->texts) check(text.id);
  }
  void flush() override {}

  void check(std::optional<std::int64_t> id) const {
    if (!id || nativeIds.contains(*id) || *id >= firstPageId) return;
    std::fprintf(stderr, "an untranslated page id was written: %lld\n", static_cast<long long>(*id));
    std::abort();
  }

  std::set<std::int64_t> nativeIds;
  std::int64_t firstPageId = 0;
};

struct Bridge {
  Bridge() {
    screen = sim::ScreenBuilder(*device)
                 .window({{0, 0}, {390, 844}})
                 .webView({{0, 0}, {390, 600}}, "https://example.com")
                 .named("web")
                 .build();
    web = screen.find<sim::SimWebView>("web");
    web->setResponder([](const std::string&, platform::ScriptWorld) {
      return sim::SimWebView::Evaluation(platform::ScriptResult{{true}, "true"});
    });
    vdl::setVdl_isBlocked(*web, false);
    webViewId = vdl::metadataOf(*web->simLayer())->id();
    serializer = vdl::Serializer::make(
        {.platform = device, .storageCoordinator = storage, .queue = device->app()->mainQueue()});
    handler = vdl::WebViewHandler::make(nullptr, device->app());
    handler->onWebviewEvent = [this](std::int64_t layerId, std::string event) {
      serializer->onWebviewEvent(layerId, std::move(event));
    };
    handler->attach(web, webViewId);
    for (std::int64_t id = 10; id < 100; ++id) storage->nativeIds.insert(id);
    storage->nativeIds.insert(webViewId);
    storage->nativeIds.insert(vdl::metadataOf(*screen.window->layer())->id());
    storage->firstPageId = vdl::nextNodeId();
  }

  void capture(bool masked) {
    auto snapshot = std::make_shared<vdl::Snapshot>();
    snapshot->screenSize = {390, 844};
    vdl::LayerTreeNode root;
    root.id = vdl::metadataOf(*screen.window->layer())->id();
    vdl::LayerTreeNode node;
    node.id = webViewId;
    node.parentId = root.id;
    node.isBlocked = masked;
    node.snapshot.isWebView = true;
    root.children.push_back(std::move(node));
    snapshot->windows.push_back(std::move(root));
    serializer->serialize(snapshot, "device", 1);
  }

  std::shared_ptr<sim::SimPlatform> device = std::make_shared<sim::SimPlatform>();
  sim::Screen screen;
  std::shared_ptr<sim::SimWebView> web;
  std::int64_t webViewId = 0;
  std::shared_ptr<CheckingStorage> storage = std::make_shared<CheckingStorage>();
  std::shared_ptr<vdl::Serializer> serializer;
  std::shared_ptr<vdl::WebViewHandler> handler;
  bool masked = false;
};

platform::ScriptValue bodyOf(char shape, std::string text) {
  using platform::ScriptDictionary;
  using platform::ScriptValue;
  switch (static_cast<unsigned char>(shape) % 4) {
    case 0:
      return ScriptValue{ScriptDictionary{{"event", ScriptValue{std::move(text)}}}};
    case 1:
      return ScriptValue{ScriptDictionary{{"event", ScriptValue{static_cast<double>(text.size())}}}};
    case 2:
      return ScriptValue{ScriptDictionary{{"other", ScriptValue{std::move(text)}}}};
    default:
      return ScriptValue{std::move(text)};
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Bridge* bridge = new Bridge();
  std::string_view input(reinterpret_cast<const char*>(data), size);
  bridge->serializer->flush();
  bridge->capture(false);
  while (!input.empty()) {
    const std::size_t end = input.find('\0');
    std::string_view chunk = input.substr(0, end);
    input = end == std::string_view::npos ? std::string_view{} : input.substr(end + 1);
    if (chunk.empty()) continue;
    if (chunk[0] == 'C') {
      bridge->masked = !bridge->masked;
      bridge->capture(bridge->masked);
    } else if (chunk[0] == 'F') {
      bridge->serializer->flush();
    } else {
      bridge->web->postMessage(vdl::WebViewHandler::kMessageHandlerName, platform::ScriptWorld::page,
                               bodyOf(chunk[0], std::string(chunk.substr(1))), "fuzzed body");
    }
    bridge->device->app()->runUntilIdle();
  }
  return 0;
}
