#include "capture/snapshotter.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/recording_logger.h"
#include "verdalune/sim/drawing.h"
#include "verdalune/sim/platform.h"
#include "verdalune/sim/screen_builder.h"

namespace verdalune::sessionreplay {
namespace {

using namespace std::chrono_literals;
using platform::Rect;
using sim::ScreenBuilder;
using sim::SimLayer;

class RecordingReceiver final : public CaptureReceiver {
 public:
  void serialize(std::shared_ptr<const Snapshot> snapshot, const std::string& deviceId,
                 std::int64_t sessionId) override {
    snapshots.push_back(std::move(snapshot));
    identifiers.emplace_back(deviceId, sessionId);
  }
  void serializeTouch(const TouchEvent& touch, const std::string& deviceId, std::int64_t sessionId) override {
    touches.push_back(touch);
    identifiers.emplace_back(deviceId, sessionId);
  }
  void serializeTouchMoves(std::vector<TouchMoveEvent> moves, const std::string&, std::int64_t) override {
    moveLists.push_back(std::move(moves));
  }
  void captureStopped() override { ++stops; }

  std::vector<std::shared_ptr<const Snapshot>> snapshots;
  std::vector<std::pair<std::string, std::int64_t>> identifiers;
  std::vector<TouchEvent> touches;
  std::vector<std::vector<TouchMoveEvent>> moveLists;
  int stops = 0;
};

class RecordingAttacher final : public WebViewAttacher {
 public:
  void attach(const std::shared_ptr<platform::WebView>&, std::int64_t layerId) override {
    attached.push_back(layerId);
  }
  void detach(std::int64_t layerId) override { detached.push_back(layerId); }
  void detachAll() override { ++detachAlls; }

  std::vector<std::int64_t> attached;
  std::vector<std::int64_t> detached;
  int detachAlls = 0;
};

// Every node of a tree, depth first.
void collect(const LayerTreeNode& node, std::vector<const LayerTreeNode*>& into) {
  into.push_back(&node);
  for (const auto& child : node.children) collect(child, into);
}

const LayerTreeNode* findNode(const Snapshot& snapshot, std::int64_t id) {
  std::vector<const LayerTreeNode*> all;
  for (const auto& root : snapshot.windows) collect(root, all);
  for (const auto* node : all) {
    if (node->id == id) return node;
  }
  return nullptr;
}

std::int64_t idOf(const sim::SimViewNode& view) {
  return metadataOf(*view.simLayer())->id();
}

class SnapshotterTest : public ::testing::Test {
 protected:
  Snapshot captureNow(MaskLevel level = MaskLevel::light) {
    return snapshotter->capture(snapshotter->makeContext(true), level);
  }

  std::shared_ptr<sim::SimPlatform> device = std::make_shared<sim::SimPlatform>();
  std::shared_ptr<RecordingReceiver> receiver = std::make_shared<RecordingReceiver>();
  std::shared_ptr<RecordingAttacher> webViews = std::make_shared<RecordingAttacher>();
  std::shared_ptr<RecordingLogger> logger = std::make_shared<RecordingLogger>();
  std::shared_ptr<Snapshotter> snapshotter = Snapshotter::make(device, receiver, logger, webViews);
};

TEST_F(SnapshotterTest, StartsOnceAndRestartsWhenAnArgumentChanges) {
  ScreenBuilder(*device).window({0, 0, 390, 844}).label("Hi", {10, 10, 100, 20}).build();
  snapshotter->start("device", 7, MaskLevel::medium);
  snapshotter->start("device", 7, MaskLevel::medium);
  ASSERT_EQ(device->ui()->displayLinks().size(), 1u) << "identical arguments keep the same display link";
  const auto first = device->ui()->displayLinks().front();
  EXPECT_TRUE(first->isRunning());
  EXPECT_DOUBLE_EQ(first->rate(), 10);

  snapshotter->start("device", 7, MaskLevel::conservative);
  EXPECT_EQ(receiver->stops, 1) << "a different mask level is a full stop, then a start";
  EXPECT_EQ(webViews->detachAlls, 1);
  EXPECT_FALSE(first->isRunning());

  device->app()->advance(1s);
  EXPECT_GE(receiver->snapshots.size(), 9u);
  EXPECT_LE(receiver->snapshots.size(), 10u) << "at most ten captures a second";
  EXPECT_EQ(receiver->identifiers.back(), (std::pair<std::string, std::int64_t>{"device", 7}));

  snapshotter->stop();
  snapshotter->stop();
  EXPECT_EQ(receiver->stops, 2) << "stopping twice stops once";
  const auto captured = receiver->snapshots.size();
  device->app()->advance(1s);
  EXPECT_EQ(receiver->snapshots.size(), captured);
}

// Newer systems take a frame rate range (1 to 10, 10 preferred); older ones only frames per second.
TEST_F(SnapshotterTest, AsksForTenFramesASecondTheWayEachSystemTakes) {
  for (const platform::OsVersion os :
       {platform::OsVersion{17, 4, 0}, platform::OsVersion{15, 0, 0}, platform::OsVersion{14, 8, 0}}) {
    auto phone =
        std::make_shared<sim::SimPlatform>(sim::SimPlatform::Options{.application = {.osVersion = os}});
    ScreenBuilder(*phone).window({0, 0, 390, 844}).build();
    auto recorder = Snapshotter::make(phone, receiver, logger, webViews);
    recorder->start("device", 1, MaskLevel::light);
    ASSERT_EQ(phone->ui()->displayLinks().size(), 1u);
    const auto& link = *phone->ui()->displayLinks().front();
    if (os.major >= 15) {
      ASSERT_TRUE(link.preferredFrameRateRange()) << os.major;
      EXPECT_EQ(link.preferredFrameRateRange()->minimum, 1);
      EXPECT_EQ(link.preferredFrameRateRange()->maximum, 10);
      EXPECT_EQ(link.preferredFrameRateRange()->preferred, 10);
      EXPECT_FALSE(link.preferredFramesPerSecond());
    } else {
      EXPECT_EQ(link.preferredFramesPerSecond(), 10);
      EXPECT_FALSE(link.preferredFrameRateRange());
    }
    recorder->stop();
  }
}

TEST_F(SnapshotterTest, KeySnapshotsComeAtMostOnceASecond) {
  // GPU drawing is read on key snapshots only: its drawables count them.
  auto screen = ScreenBuilder(*device).window({0, 0, 390, 844}).build();
  auto gpu = std::make_shared<SimLayer>("CAMetalLayer", platform::LayerKind::gpuDrawing);
  std::static_pointer_cast<SimLayer>(screen.window->layer())->addSublayer(gpu);
  gpu->setFrame({{0, 0}, {20, 20}});
  metadataOf(*gpu)->blockStatus = BlockStatus::unblocked;  // GPU drawing is hidden unless the app shows it
  gpu->setNextDrawable(sim::solidBitmap(2, 2, {1, 0, 0, 1}));
  snapshotter->start("device", 1, MaskLevel::light);
  std::vector<int> keyFrames;
  for (int i = 0; i <= 25; ++i) {
    const double before = snapshotter->lastTimestamp();
    snapshotter->onDisplay({5.0 + i / 10.0, 5.1 + i / 10.0});
    if (snapshotter->lastTimestamp() != before) keyFrames.push_back(i);
  }
  EXPECT_EQ(keyFrames, (std::vector<int>{0, 10, 20})) << "5.0, then the first frames at or after 6.0 and 7.0";
  EXPECT_EQ(receiver->snapshots.size(), 26u) << "every frame is captured, key or not";
  EXPECT_EQ(gpu->drawableRequests(), 3) << "other frames reuse the GPU drawing read on the key one";

  snapshotter->stop();
  EXPECT_DOUBLE_EQ(snapshotter->lastTimestamp(), 7.0) << "stop keeps the last key time";
}

TEST_F(SnapshotterTest, OneRecognizerPerWindowAndNoneLeftAfterStop) {
  auto screen = ScreenBuilder(*device).window({0, 0, 390, 844}).build();
  auto second = sim::SimWindow::make(device->app(), {0, 0, 390, 844});
  auto foreign = second->addTouchRecognizer(std::string(VerdaluneSessionReplayGestureRecognizer::name),
                                            [](const platform::TouchBatch&) {});
  screen.scene->addWindow(second);
  auto alert = sim::SimWindow::make(device->app(), {0, 0, 390, 844});
  screen.scene->addWindow(alert);

  snapshotter->start("device", 3, MaskLevel::light);
  snapshotter->onDisplay({10, 10.1});
  snapshotter->onDisplay({10.1, 10.2});
  EXPECT_TRUE(screen.window->hasTouchRecognizer(VerdaluneSessionReplayGestureRecognizer::name));

  screen.window->touch(platform::TouchPhase::began, {{5, 6}});
  screen.window->touch(platform::TouchPhase::moved, {{7, 8}});
  screen.window->touch(platform::TouchPhase::ended, {{9, 9}});
  device->app()->runUntilIdle();
  ASSERT_EQ(receiver->touches.size(), 2u) << "one recognizer: each touch reported once";
  EXPECT_EQ(receiver->moveLists.size(), 1u);
  EXPECT_EQ(receiver->identifiers.back(), (std::pair<std::string, std::int64_t>{"device", 3}));
  alert->touch(platform::TouchPhase::began, {{1, 2}});
  alert->touch(platform::TouchPhase::ended, {{1, 2}});
  device->app()->runUntilIdle();
  EXPECT_EQ(receiver->touches.size(), 4u) << "touches on every window, not the first one only";

  snapshotter->stop();
  EXPECT_FALSE(screen.window->hasTouchRecognizer(VerdaluneSessionReplayGestureRecognizer::name));
  EXPECT_TRUE(foreign->isAttached()) << "a recognizer someone else installed is theirs to remove";
  screen.window->touch(platform::TouchPhase::began, {{5, 6}});
  device->app()->runUntilIdle();
  EXPECT_EQ(receiver->touches.size(), 4u);
}

TEST_F(SnapshotterTest, WalksEveryLayerWithIdsParentsAndNextSiblings) {
  auto screen = ScreenBuilder(*device)
                    .window({0, 0, 390, 844})
                    .container({0, 0, 390, 400})
                    .named("list")
                    .box({0, 0, 10, 10}, {1, 0, 0, 1})
                    .box({0, 0, 0, 0}, {0, 1, 0, 1})
                    .named("empty")
                    .box({0, 0, 10, 10}, {0, 0, 1, 1})
                    .named("hidden")
                    .end()
                    .build();
  screen.find<sim::SimView>("hidden")->simLayer()->setHidden(true);
  screen.find<sim::SimView>("empty")->simLayer()->setOpacity(0);
  auto list = screen.find<sim::SimView>("list");
  list->simLayer()->beginAnimation([](platform::LayerProperties& shown) {
    shown.opacity = 0.5f;
    shown.sublayerTransform.m[13] = 100;  // the list's contents moved down, as a scroll view does
  });

  auto second = sim::SimWindow::make(device->app(), {0, 0, 390, 844});
  screen.scene->addWindow(second);
  const Snapshot snapshot = captureNow();

  EXPECT_EQ(snapshot.screenSize, (platform::Size{390, 844}));
  ASSERT_EQ(snapshot.windows.size(), 2u);
  EXPECT_EQ(snapshot.windows[0].nextId, metadataOf(*second->layer())->id())
      << "a root's next is the next window";
  EXPECT_FALSE(snapshot.windows[0].parentId);
  EXPECT_FALSE(snapshot.windows[1].nextId);

  const LayerTreeNode* listNode = findNode(snapshot, idOf(*list));
  ASSERT_NE(listNode, nullptr);
  EXPECT_FLOAT_EQ(listNode->snapshot.opacity, 0.5f) << "the presentation layer is read while it animates";
  ASSERT_EQ(listNode->children.size(), 3u) << "hidden, transparent and empty layers are captured too";
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(listNode->children[i].parentId, listNode->id);
    EXPECT_EQ(listNode->children[i].nextId,
              i < 2 ? std::optional(listNode->children[i + 1].id) : std::nullopt);
  }
  EXPECT_TRUE(listNode->children[2].snapshot.isHidden);
  EXPECT_EQ(listNode->children[0].snapshot.transform.m[13] - listNode->snapshot.transform.m[13], 100)
      << "the list's sublayer transform is handed to its children";

  const Snapshot again = captureNow();
  EXPECT_EQ(findNode(again, idOf(*list))->children[1].id, listNode->children[1].id) << "ids are stable";
}

// Contents come from the model, and a capture registers every layer it walks with the layer observer, so
// new contents set on the model replace the cached ones at the next capture.
TEST_F(SnapshotterTest, ContentsAreTheModelsAndNewOnesReplaceTheCachedOnes) {
  auto screen =
      ScreenBuilder(*device).window({0, 0, 390, 844}).box({0, 0, 50, 50}, {1, 0, 0, 1}).named("box").build();
  const auto layer = screen.find<sim::SimView>("box")->simLayer();
  auto bitmap = [](platform::Color color) {
    return std::make_shared<const platform::Bitmap>(sim::solidBitmap(2, 2, color));
  };
  auto shownImage = [&] {
    const auto contents = findNode(captureNow(), metadataOf(*layer)->id())->contents;
    if (!contents) return std::shared_ptr<const platform::Bitmap>();
    const LayerContents::Contents read = contents->contents();
    const auto* image = std::get_if<LayerContents::CgImage>(&read);
    return image ? image->image : nullptr;
  };
  const auto model = bitmap({1, 0, 0, 1});
  layer->setContents(model);
  layer->beginContentsTransition(bitmap({0, 1, 0, 1}));
  EXPECT_EQ(shownImage(), model) << "the model's contents, not the transition's";
  layer->endAnimation();

  const auto replaced = bitmap({0, 0, 1, 1});
  layer->setContents(replaced);
  EXPECT_EQ(shownImage(), replaced);
}

TEST_F(SnapshotterTest, APresentationLayerThatThrowsIsLoggedAndTheModelRead) {
  auto screen =
      ScreenBuilder(*device).window({0, 0, 390, 844}).box({0, 0, 50, 50}, {1, 0, 0, 1}).named("box").build();
  auto box = screen.find<sim::SimView>("box");
  box->simLayer()->setPresentationThrows(true);
  const Snapshot snapshot = captureNow();
  ASSERT_NE(findNode(snapshot, idOf(*box)), nullptr);
  ASSERT_EQ(logger->errors().size(), 1u);
  EXPECT_TRUE(
      logger->errors()[0].starts_with("Snapshotter: failed to access presentation layer with exception: "));
}

TEST_F(SnapshotterTest, BlockRangesAmongFourSiblings) {
  auto builder = ScreenBuilder(*device).window({0, 0, 390, 844});
  for (const char* name : {"first", "second", "third", "fourth"}) {
    builder.container({0, 0, 100, 100}).named(name).label(name, {0, 0, 100, 20}).end();
  }
  auto screen = builder.build();
  auto begin = sim::SimViewNode::make<sim::SimView>("VerdaluneBlockBeginMarker");
  auto end = sim::SimViewNode::make<sim::SimView>("VerdaluneBlockEndMarker");
  screen.find<sim::SimView>("second")->simLayer()->insertSublayer(begin->simLayer(), 0);
  screen.find<sim::SimView>("fourth")->simLayer()->insertSublayer(end->simLayer(), 0);
  markAsBlockMarker(*begin->simLayer(), BlockMarkerType::begin, true);
  markAsBlockMarker(*end->simLayer(), BlockMarkerType::end, true);

  const Snapshot snapshot = captureNow(MaskLevel::light);
  std::vector<bool> blocked;
  for (const char* name : {"first", "second", "third", "fourth"}) {
    const LayerTreeNode* node = findNode(snapshot, idOf(*screen.find<sim::SimView>(name)));
    ASSERT_NE(node, nullptr);
    blocked.push_back(node->isBlocked);
    EXPECT_EQ(node->children.back().isBlocked, node->isBlocked) << name << ": the subtree follows";
  }
  EXPECT_EQ(blocked, (std::vector<bool>{false, true, true, false}));
}

TEST_F(SnapshotterTest, ABlockedAncestorWinsAndBlockedNodesCarryNothing) {
  auto screen = ScreenBuilder(*device)
                    .window({0, 0, 390, 844})
                    .container({0, 0, 390, 400})
                    .named("card")
                    .blur({0, 0, 100, 100}, 0)
                    .named("blur")
                    .label("Balance", {0, 0, 80, 20})
                    .named("label")
                    .end()
                    .build();
  auto card = screen.find<sim::SimView>("card");
  auto label = screen.find<sim::SimTextView>("label");
  setVdl_isBlocked(*card->view(), true);
  setVdl_isBlocked(*label->view(), false);

  const Snapshot snapshot = captureNow();
  const LayerTreeNode* labelNode = findNode(snapshot, idOf(*label));
  ASSERT_NE(labelNode, nullptr);
  EXPECT_TRUE(labelNode->isBlocked);
  EXPECT_EQ(labelNode->contents, nullptr) << "a blocked label's pixels never leave the walk";
  EXPECT_EQ(metadataOf(*label->simLayer())->contents, nullptr) << "nor are they cached";
  EXPECT_FALSE(metadataOf(*label->simLayer())->visualEffect);

  setVdl_isBlocked(*card->view(), false);
  const Snapshot unblocked = captureNow();
  EXPECT_NE(findNode(unblocked, idOf(*label))->contents, nullptr);
  bool sawBlur = false;
  std::vector<const LayerTreeNode*> all;
  collect(unblocked.windows[0], all);
  for (const auto* node : all) {
    sawBlur |=
        node->visualEffect == VisualEffect::blur(0) && node->snapshot.layerClass.ends_with("BackdropLayer");
  }
  EXPECT_TRUE(sawBlur) << "the blur view's backdrop layer is recognised, so what lies behind it is blurred";
}

TEST_F(SnapshotterTest, WebViewsMapsAndSvgViewsAreLeavesUnlessUnblocked) {
  auto svg = sim::SimViewNode::make<sim::SimView>("RNSVGSvgView");
  auto path = std::make_shared<SimLayer>("RNSVGPathLayer");
  svg->simLayer()->addSublayer(path);
  auto screen = ScreenBuilder(*device)
                    .window({0, 0, 390, 844})
                    .webView({0, 0, 390, 300}, "https://example.com")
                    .named("masked web")
                    .webView({0, 300, 390, 300}, "https://example.com")
                    .named("web")
                    .map({0, 600, 390, 100})
                    .named("map")
                    .view(svg, {0, 700, 50, 50})
                    .build();
  auto masked = screen.find<sim::SimViewNode>("masked web");
  auto web = screen.find<sim::SimViewNode>("web");
  auto map = screen.find<sim::SimView>("map");
  map->simLayer()->addSublayer(std::make_shared<SimLayer>("MKTileLayer"));
  web->simLayer()->addSublayer(std::make_shared<SimLayer>("WKContentLayer"));
  setVdl_isBlocked(*web->view(), false);

  const Snapshot snapshot = captureNow();
  EXPECT_EQ(webViews->attached, (std::vector<std::int64_t>{idOf(*web)}));
  EXPECT_EQ(webViews->detached, (std::vector<std::int64_t>{idOf(*masked)}));
  EXPECT_TRUE(findNode(snapshot, idOf(*web))->children.empty()) << "pages are recorded by the bridge";
  EXPECT_TRUE(findNode(snapshot, idOf(*masked))->isBlocked);
  EXPECT_TRUE(findNode(snapshot, idOf(*map))->children.empty());
  EXPECT_TRUE(findNode(snapshot, idOf(*svg))->children.empty());

  setVdl_isBlocked(*map->view(), false);
  EXPECT_EQ(findNode(captureNow(), idOf(*map))->children.size(), 1u);
}

TEST_F(SnapshotterTest, NoWindowSceneStillHandsOverAnEmptyCapture) {
  snapshotter->start("device", 1, MaskLevel::light);
  snapshotter->onDisplay({1, 1.1});
  ASSERT_EQ(receiver->snapshots.size(), 1u);
  EXPECT_TRUE(receiver->snapshots[0]->windows.empty());
  EXPECT_EQ(receiver->snapshots[0]->screenSize, (platform::Size{0, 0}));
}

TEST_F(SnapshotterTest, CallbacksHoldTheSnapshotterWeakly) {
  auto screen = ScreenBuilder(*device).window({0, 0, 390, 844}).build();
  snapshotter->start("device", 1, MaskLevel::light);
  snapshotter->onDisplay({1, 1.1});
  std::weak_ptr<Snapshotter> weak = snapshotter;
  snapshotter.reset();
  EXPECT_TRUE(weak.expired());
  screen.window->touch(platform::TouchPhase::began, {{1, 1}});
  device->app()->advance(1s);
  EXPECT_EQ(receiver->snapshots.size(), 1u);
  EXPECT_TRUE(receiver->touches.empty());
}

}  // namespace
}  // namespace verdalune::sessionreplay
