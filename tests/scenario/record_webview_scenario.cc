// Plays the messages a real page posted to the web view bridge into a web view on the simulated device,
// through the bridge, the capture and the serializer, and writes the merged recording for the browser
// test to replay (tests/browser/webview.test.mjs).
//
//   vdl_record_webview_scenario MESSAGES.json OUTPUT_FOLDER
//
// MESSAGES.json is [{"t": ms since the first message, "body": what the page posted}]. The program writes
// OUTPUT_FOLDER/events.json and prints how many events and log lines there were; every log line also goes
// to standard error.
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "capture/masking.h"
#include "capture/snapshotter.h"
#include "common/collecting_storage.h"
#include "rrweb/coding.h"
#include "scenario/device_frames.h"
#include "serialize/serializer.h"
#include "verdalune/sim/platform.h"
#include "verdalune/sim/screen_builder.h"
#include "verdalune/sim/web_view.h"
#include "webview/web_view_handler.h"

namespace vdl = verdalune::sessionreplay;
namespace platform = verdalune::sessionreplay::platform;
namespace sim = verdalune::sessionreplay::sim;
using verdalune::sessionreplay::CollectingStorage;
using namespace std::chrono_literals;

namespace {

class PrintingLogger final : public vdl::Logger {
 public:
  void error(std::string_view message) override { print("error", message); }
  void warn(std::string_view message) override { print("warn", message); }
  void log(std::string_view message) override { print("log", message); }
  void debug(std::string_view message) override { print("debug", message); }
  std::atomic<int> lines = 0;

 private:
  void print(std::string_view level, std::string_view message) {
    ++lines;
    std::fprintf(stderr, "[%.*s] %.*s\n", static_cast<int>(level.size()), level.data(),
                 static_cast<int>(message.size()), message.data());
  }
};

// What the platform hands native code for a posted JavaScript value.
platform::ScriptValue scriptValue(const rapidjson::Value& json) {
  if (json.IsBool()) return {json.GetBool()};
  if (json.IsNumber()) return {json.GetDouble()};
  if (json.IsString()) return {std::string(json.GetString(), json.GetStringLength())};
  if (json.IsArray()) {
    platform::ScriptArray array;
    for (const auto& item : json.GetArray()) array.push_back(scriptValue(item));
    return {std::move(array)};
  }
  if (json.IsObject()) {
    platform::ScriptDictionary dictionary;
    for (const auto& member : json.GetObject()) {
      dictionary.push_back(
          {std::string(member.name.GetString(), member.name.GetStringLength()), scriptValue(member.value)});
    }
    return {std::move(dictionary)};
  }
  return {};
}

struct Message {
  std::chrono::milliseconds at;
  platform::ScriptValue body;
  std::string description;
};

std::vector<Message> readMessages(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  rapidjson::Document document;
  document.Parse(text.data(), text.size());
  std::vector<Message> messages;
  if (document.HasParseError() || !document.IsArray()) return messages;
  for (const auto& item : document.GetArray()) {
    if (!item.IsObject() || !item.HasMember("t") || !item["t"].IsNumber() || !item.HasMember("body"))
      continue;
    // The platform describes a body in its own notation; the JSON text serves the logs as well.
    rapidjson::StringBuffer description;
    rapidjson::Writer<rapidjson::StringBuffer> writer(description);
    item["body"].Accept(writer);
    messages.push_back({std::chrono::milliseconds(static_cast<std::int64_t>(item["t"].GetDouble())),
                        scriptValue(item["body"]), description.GetString()});
  }
  return messages;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s MESSAGES.json OUTPUT_FOLDER\n", argv[0]);
    return 2;
  }
  const auto messages = readMessages(argv[1]);
  if (messages.empty()) {
    std::fprintf(stderr, "%s holds no messages\n", argv[1]);
    return 2;
  }
  const std::filesystem::path folder = argv[2];
  std::filesystem::create_directories(folder);

  auto device = std::make_shared<sim::SimPlatform>();
  auto app = device->app();
  auto logger = std::make_shared<PrintingLogger>();
  auto storage = std::make_shared<CollectingStorage>();
  auto serializer = vdl::Serializer::make(
      {.platform = device, .logger = logger, .storageCoordinator = storage, .queue = app->mainQueue()});
  auto handler = vdl::WebViewHandler::make(logger, app);
  handler->onWebviewEvent = [serializer](std::int64_t layerId, std::string event) {
    serializer->onWebviewEvent(layerId, std::move(event));
  };
  auto snapshotter = vdl::Snapshotter::make(device, serializer, logger, handler);

  // A screen with a title over a web view that has loaded its page. Web views are blocked unless the
  // application says otherwise.
  auto screen = sim::ScreenBuilder(*device)
                    .window({0, 0, 390, 844})
                    .box({0, 0, 390, 844}, {0.96, 0.96, 0.98, 1})
                    .label("Order status", {24, 60, 342, 40}, {.fontSize = 28})
                    .webView({0, 120, 390, 600}, "https://shop.example/order")
                    .named("web")
                    .build();
  auto web = screen.find<sim::SimWebView>("web");
  vdl::setVdl_isBlocked(*web, false);
  web->setResponder([](const std::string&, platform::ScriptWorld) -> sim::SimWebView::Evaluation {
    return platform::ScriptResult{.value = {true}, .description = "1"};
  });

  snapshotter->start("device", 1, vdl::MaskLevel::light);
  app->advance(500ms);
  if (web->evaluatedScripts().empty()) std::fprintf(stderr, "the web view was never attached\n");

  // The page's messages, each at its time, with the display link running frame by frame in between.
  // Halfway, the keyboard comes up: the native screen changes around the page, which must stay shown.
  // The native screen around the page is taken before the keyboard comes up and at the end; the page
  // itself is the web recorder's to show.
  sim::DeviceFrames deviceFrames(folder);
  bool framesTaken = true;
  std::chrono::milliseconds elapsed{0};
  for (std::size_t i = 0; i < messages.size(); ++i) {
    const Message& message = messages[i];
    if (i == messages.size() / 2) {
      framesTaken = deviceFrames.take(*device, "before-keyboard", storage->events.size() - 1) && framesTaken;
      web->setFrame({0, 120, 390, 480});
      auto keyboard = sim::SimViewNode::make<sim::SimView>();
      keyboard->setFrame({0, 600, 390, 244});
      keyboard->setFill(platform::Color{0.8, 0.82, 0.86, 1});
      screen.window->addSubview(keyboard);
      screen.window->rootView()->simLayer()->commit();
    }
    while (elapsed < message.at) {
      const auto step = std::min<std::chrono::milliseconds>(100ms, message.at - elapsed);
      app->advance(step);
      elapsed += step;
    }
    if (!web->postMessage(vdl::WebViewHandler::kMessageHandlerName, platform::ScriptWorld::page, message.body,
                          message.description)) {
      std::fprintf(stderr, "no handler took a message at %lld ms\n",
                   static_cast<long long>(message.at.count()));
    }
  }
  app->advance(300ms);
  framesTaken = deviceFrames.take(*device, "keyboard", storage->events.size() - 1) && framesTaken;
  snapshotter->stop();
  app->runUntilIdle();

  std::ofstream out(folder / "events.json", std::ios::binary);
  out << "[";
  for (std::size_t i = 0; i < storage->events.size(); ++i) {
    out << (i ? ",\n" : "\n") << vdl::rrweb::encode(storage->events[i]);
  }
  out << "\n]\n";
  if (!out || !framesTaken || !deviceFrames.write()) {
    std::fprintf(stderr, "could not write to %s\n", folder.c_str());
    return 1;
  }
  std::printf("recorded %zu events from %zu page messages, %d log lines\n", storage->events.size(),
              messages.size(), logger->lines.load());
  return 0;
}
