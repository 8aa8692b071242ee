// Records a scripted session on the simulated device through the capture and the serializer, and writes
// what the browser tests replay: events.json (the recording, in order) and checkpoints.json (after each
// capture, the index of the last event written so far and the document a fresh recording of that same
// capture would start with).
//
//   vdl_record_scenario OUTPUT_FOLDER
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "capture/snapshotter.h"
#include "common/collecting_storage.h"
#include "rrweb/coding.h"
#include "scenario/device_frames.h"
#include "serialize/serializer.h"
#include "verdalune/sim/drawing.h"
#include "verdalune/sim/layer.h"
#include "verdalune/sim/platform.h"
#include "verdalune/sim/screen_builder.h"

namespace vdl = verdalune::sessionreplay;
namespace platform = verdalune::sessionreplay::platform;
namespace sim = verdalune::sessionreplay::sim;
using verdalune::sessionreplay::CollectingStorage;
using namespace std::chrono_literals;

namespace {

// Passes every capture on, and right behind the serializer's work (on the same queue) notes a checkpoint:
// the events so far and the full snapshot of the same capture from a recording of its own.
class CheckpointingReceiver final : public vdl::CaptureReceiver {
 public:
  CheckpointingReceiver(std::shared_ptr<sim::SimPlatform> device, std::shared_ptr<vdl::Serializer> serializer,
                        std::shared_ptr<CollectingStorage> storage)
      : device_(std::move(device)), serializer_(std::move(serializer)), storage_(std::move(storage)) {}

  void serialize(std::shared_ptr<const vdl::Snapshot> snapshot, const std::string& deviceId,
                 std::int64_t sessionId) override {
    serializer_->serialize(snapshot, deviceId, sessionId);
    device_->app()->mainQueue()->async([this, snapshot] {
      auto fresh = std::make_shared<CollectingStorage>();
      vdl::Serializer::make(
          {.platform = device_, .storageCoordinator = fresh, .queue = device_->app()->mainQueue()})
          ->serializeNow(snapshot, "checkpoint", 0, 0);
      const auto& full = std::get<vdl::rrweb::FullSnapshotEvent>(fresh->events.at(1).value);
      checkpoints.push_back("{\"index\":" + std::to_string(storage_->events.size() - 1) +
                            ",\"node\":" + vdl::rrweb::encode(full.node) + "}");
    });
  }
  void serializeTouch(const vdl::TouchEvent& touch, const std::string& deviceId,
                      std::int64_t sessionId) override {
    serializer_->serializeTouch(touch, deviceId, sessionId);
  }
  void serializeTouchMoves(std::vector<vdl::TouchMoveEvent> moves, const std::string& deviceId,
                           std::int64_t sessionId) override {
    serializer_->serializeTouchMoves(std::move(moves), deviceId, sessionId);
  }
  void captureStopped() override { serializer_->captureStopped(); }

  std::vector<std::string> checkpoints;

 private:
  std::shared_ptr<sim::SimPlatform> device_;
  std::shared_ptr<vdl::Serializer> serializer_;
  std::shared_ptr<CollectingStorage> storage_;
};

class NoWebViews final : public vdl::WebViewAttacher {
 public:
  void attach(const std::shared_ptr<platform::WebView>&, std::int64_t) override {}
  void detach(std::int64_t) override {}
  void detachAll() override {}
};

std::shared_ptr<const sim::SimImage> photo(platform::Color color) {
  sim::Drawing drawing = sim::Drawing::filled(color, 8);
  drawing.text = "Photo";
  drawing.textColor = {1, 1, 1, 1};
  drawing.textInset = 10;
  return sim::SimImage::fromBitmap(sim::draw(drawing, {96, 72}, 2), {.scale = 2});
}

bool writeArray(const std::filesystem::path& path, const std::vector<std::string>& items) {
  std::ofstream out(path, std::ios::binary);
  out << "[";
  for (std::size_t i = 0; i < items.size(); ++i) out << (i ? ",\n" : "\n") << items[i];
  out << "\n]\n";
  return static_cast<bool>(out);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s OUTPUT_FOLDER\n", argv[0]);
    return 2;
  }
  const std::filesystem::path folder = argv[1];
  std::filesystem::create_directories(folder);

  auto device = std::make_shared<sim::SimPlatform>();
  auto app = device->app();
  auto storage = std::make_shared<CollectingStorage>();
  auto serializer =
      vdl::Serializer::make({.platform = device, .storageCoordinator = storage, .queue = app->mainQueue()});
  auto receiver = std::make_shared<CheckpointingReceiver>(device, serializer, storage);
  auto snapshotter = vdl::Snapshotter::make(device, receiver, nullptr, std::make_shared<NoWebViews>());
  auto frames = [&](int count) { app->advance(count * 100ms); };
  // After a few frames of the same screen the last capture shows it, so the replay after the last event
  // written by then must look like it.
  sim::DeviceFrames deviceFrames(folder);
  bool framesTaken = true;
  auto still = [&](const std::string& name) {
    framesTaken = deviceFrames.take(*device, name, storage->events.size() - 1) && framesTaken;
  };

  // Sign-in: a title, an e-mail field, a password field (masked), a button.
  auto screen = sim::ScreenBuilder(*device)
                    .window({0, 0, 390, 844})
                    .box({0, 0, 390, 844}, {0.96, 0.96, 0.98, 1})
                    .label("Welcome back", {24, 120, 342, 40}, {.fontSize = 28})
                    .textField("alex@example.com", {24, 200, 342, 44}, {.contentType = "email"})
                    .textField("hunter2", {24, 260, 342, 44}, {.secure = true})
                    .box({24, 330, 342, 50}, {0, 0.48, 1, 1}, 12)
                    .named("button")
                    .build();
  snapshotter->start("device", 1, vdl::MaskLevel::light);
  frames(5);
  still("sign-in");
  screen.window->touch(platform::TouchPhase::began, {{190, 355}});
  frames(1);
  screen.window->touch(platform::TouchPhase::ended, {{190, 355}});
  // The button dims while pressed, animated.
  auto button = screen.find<sim::SimView>("button");
  button->simLayer()->beginAnimation([](platform::LayerProperties& shown) { shown.opacity = 0.6f; });
  frames(2);
  button->simLayer()->endAnimation();
  frames(2);

  // Push the feed: a gradient header, cards with photos (one photo shared by several cards), a blurred bar.
  auto feed = sim::SimViewNode::make<sim::SimView>();
  feed->setFrame({0, 0, 390, 844});
  feed->simLayer()->setBackgroundColor(platform::Color{1, 1, 1, 1});
  auto header = sim::makeDiagonalGradientLayer({0, 0, 390, 160}, {{0.35, 0.2, 0.9, 1}, {0.1, 0.6, 1, 1}});
  feed->simLayer()->addSublayer(header);
  auto list = sim::SimViewNode::make<sim::SimView>();
  list->setFrame({0, 160, 390, 684});
  list->simLayer()->update([](platform::LayerProperties& p) { p.masksToBounds = true; });
  feed->addSubview(list);
  const auto sharedPhoto = photo({0.9, 0.4, 0.2, 1});
  std::vector<std::shared_ptr<sim::SimView>> cards;
  std::vector<std::shared_ptr<sim::SimImageView>> cardPhotos;
  for (int i = 0; i < 8; ++i) {
    auto card = sim::SimViewNode::make<sim::SimView>();
    card->setFrame({12, 12 + 120.0 * i, 366, 108});
    card->setFill(platform::Color{1, 1, 1, 1}, 12);
    auto image =
        sim::SimViewNode::make<sim::SimImageView>(i % 3 == 2 ? photo({0.2, 0.6, 0.3, 1}) : sharedPhoto);
    image->setFrame({8, 8, 96, 72});
    card->addSubview(image);
    cardPhotos.push_back(image);
    auto title = sim::makeLabel("Morning run " + std::to_string(i + 1));
    title->setFrame({116, 10, 240, 24});
    card->addSubview(title);
    list->addSubview(card);
    cards.push_back(card);
  }
  // A live preview: a surface its producer draws into in place.
  auto surface = sim::SimSurface::bgra(120, 60);
  surface->fill({0.95, 0.8, 0.1, 1});
  auto preview = std::make_shared<sim::SimLayer>();
  preview->setFrame({240, 90, 120, 60});
  preview->setContents(platform::Contents(std::shared_ptr<platform::Surface>(surface)));
  feed->simLayer()->addSublayer(preview);
  auto bar = sim::SimViewNode::make<sim::SimVisualEffectView>();
  bar->setFrame({0, 0, 390, 90});
  bar->setBlurEffect(sim::blurStyle::systemChromeMaterial);
  feed->addSubview(bar);
  screen.window->addSubview(feed);
  screen.window->rootView()->simLayer()->commit();
  frames(5);
  still("feed");

  // A drag scrolls the list; card colours and a transform animate; a card hides and comes back.
  screen.window->touch(platform::TouchPhase::began, {{200, 600}});
  for (int step = 1; step <= 6; ++step) {
    screen.window->touch(platform::TouchPhase::moved, {{200, 600 - 40.0 * step}});
    list->scrollTo({0, 40.0 * step});
    frames(1);
  }
  screen.window->touch(platform::TouchPhase::ended, {{200, 360}});
  frames(1);
  still("feed-scrolled");
  for (int step = 0; step < 5; ++step) {
    cards[1]->setFill(platform::Color{1, 1 - 0.1 * step, 0.8, 1}, 12);
    cards[2]->simLayer()->update(
        [&](platform::LayerProperties& p) { p.transform.m[0] = p.transform.m[5] = 1 - 0.02 * step; });
    frames(1);
  }
  cards[3]->simLayer()->setHidden(true);
  frames(2);
  cards[3]->simLayer()->setHidden(false);
  // A new photo appears in a card, and a card moves to the end of the list.
  auto late = sim::SimViewNode::make<sim::SimImageView>(photo({0.1, 0.3, 0.8, 1}));
  late->setFrame({300, 8, 60, 60});
  cards[0]->addSubview(late);
  cards[4]->removeFromSuperview();
  list->addSubview(cards[4]);
  frames(3);
  still("feed-changed");

  // New pixels under the same layers: a photo replaced, the preview redrawn in place. A replay that kept the
  // pictures it already had would show the old ones here.
  cardPhotos[3]->setImage(photo({0.1, 0.1, 0.15, 1}));
  surface->fill({0.1, 0.2, 0.6, 1});
  frames(3);
  still("pictures-changed");

  // Pop back to the sign-in screen.
  feed->removeFromSuperview();
  frames(3);
  still("sign-in-again");
  snapshotter->stop();
  app->runUntilIdle();

  std::vector<std::string> events;
  for (const auto& event : storage->events) events.push_back(vdl::rrweb::encode(event));
  if (!writeArray(folder / "events.json", events) ||
      !writeArray(folder / "checkpoints.json", receiver->checkpoints) || !framesTaken ||
      !deviceFrames.write()) {
    std::fprintf(stderr, "could not write to %s\n", folder.c_str());
    return 1;
  }
  std::printf("recorded %zu events and %zu checkpoints into %s\n", events.size(),
              receiver->checkpoints.size(), folder.c_str());
  return 0;
}
