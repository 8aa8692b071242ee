#include "serialize/serializer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "common/collecting_storage.h"
#include "common/recording_logger.h"
#include "rrweb/coding.h"
#include "serialize/common_subsequence.h"
#include "verdalune/sim/platform.h"

namespace verdalune::sessionreplay {
namespace {

using rrweb::JSONValue;

class RecordingDelegate final : public SerializerDelegate {
 public:
  void serializerDidReset() override { ++resets; }
  int resets = 0;
};

// The elements of a document as the replayer holds them: enough of the DOM to apply mutations the way
// rrweb does (removes, then adds placed before their next sibling, then attributes, null removing one)
// and to compare the result with another document.
class Dom {
 public:
  static std::map<std::string, std::string> declarationsOf(const std::string& style) {
    std::map<std::string, std::string> declarations;
    for (std::size_t start = 0; start < style.size();) {
      std::size_t end = style.find("; ", start);
      if (end == std::string::npos) end = style.size();
      const std::string declaration = style.substr(start, end - start);
      const std::size_t colon = declaration.find(':');
      declarations[declaration.substr(0, colon)] =
          colon == std::string::npos ? "" : declaration.substr(colon + 1);
      start = end + 2;
    }
    return declarations;
  }
  static std::string styleOf(const std::map<std::string, std::string>& declarations) {
    std::string style;
    for (const auto& [name, value] : declarations) style += (style.empty() ? "" : "; ") + name + ":" + value;
    return style;
  }

  struct Element {
    std::string tag;
    std::map<std::string, std::string> attributes;
    std::int64_t parent = 0;
    std::vector<std::int64_t> children;
    bool isText = false;
  };

  explicit Dom(const rrweb::Node& document) { load(document, 0); }

  // Fails the test at the first id the mutation names that does not exist when it is applied.
  void apply(const rrweb::MutationData& mutation) {
    for (const auto& remove : mutation.removes) {
      ASSERT_TRUE(nodes_.contains(remove.id)) << "removing unknown " << remove.id;
      ASSERT_EQ(nodes_.at(remove.id).parent, remove.parentId) << "removing " << remove.id;
      erase(remove.id);
    }
    std::vector<const rrweb::AddedNodeMutation*> pending;
    for (const auto& add : mutation.adds) pending.push_back(&add);
    while (!pending.empty()) {
      std::vector<const rrweb::AddedNodeMutation*> later;
      for (const auto* add : pending) {
        if (!nodes_.contains(add->parentId) || (add->nextId && !nodes_.contains(*add->nextId))) {
          later.push_back(add);
          continue;
        }
        const std::int64_t id = std::visit([](const auto& record) { return record.id; }, add->node.value);
        ASSERT_FALSE(nodes_.contains(id)) << "adding " << id << " twice";
        load(add->node, add->parentId, add->nextId);
      }
      ASSERT_LT(later.size(), pending.size()) << "adds whose parent or next sibling never appears";
      pending = std::move(later);
    }
    for (const auto& change : mutation.attributes) {
      ASSERT_TRUE(nodes_.contains(change.id)) << "attributes of unknown " << change.id;
      auto& attributes = nodes_.at(change.id).attributes;
      for (const auto& [name, value] : change.attributes) {
        if (const auto* text = std::get_if<std::string>(&value.value)) {
          attributes[name] = *text;
        } else if (const auto* properties = std::get_if<rrweb::JSONValue::Dictionary>(&value.value)) {
          ASSERT_EQ(name, "style") << "only a style changes by its properties";
          auto declarations = declarationsOf(attributes[name]);
          for (const auto& [property, set] : *properties) {
            if (const auto* text = std::get_if<std::string>(&set.value)) {
              declarations[property] = *text;
            } else {
              ASSERT_EQ(set, rrweb::JSONValue(false)) << property;
              ASSERT_TRUE(declarations.erase(property)) << "removing " << property << ", which is not there";
            }
          }
          attributes[name] = styleOf(declarations);
        } else {
          attributes.erase(name);
        }
      }
    }
  }

  // The element tree under the body: tags, ids, style and class, in order.
  std::string describe() const {
    std::string out;
    describe(Serializer::kBodyId, out);
    return out;
  }
  std::size_t styleTextNodes() const { return nodes_.at(Serializer::kStyleId).children.size(); }

 private:
  void load(const rrweb::Node& node, std::int64_t parent, std::optional<std::int64_t> next = std::nullopt) {
    std::visit(
        [&](const auto& record) {
          Element element;
          element.parent = parent;
          using Record = std::decay_t<decltype(record)>;
          if constexpr (std::is_same_v<Record, rrweb::ElementNode>) {
            element.tag = record.tagName;
            for (const auto& [name, value] : record.attributes) {
              if (const auto* text = std::get_if<std::string>(&value.value)) element.attributes[name] = *text;
            }
          }
          element.isText = std::is_same_v<Record, rrweb::TextNode>;
          nodes_[record.id] = element;
          if (parent != 0) {
            auto& siblings = nodes_.at(parent).children;
            auto at = next ? std::find(siblings.begin(), siblings.end(), *next) : siblings.end();
            siblings.insert(at, record.id);
          }
          if constexpr (requires { record.childNodes; }) {
            for (const auto& child : record.childNodes) load(child, record.id);
          }
        },
        node.value);
  }
  void erase(std::int64_t id) {
    for (std::int64_t child : std::vector(nodes_.at(id).children)) erase(child);
    auto& siblings = nodes_.at(nodes_.at(id).parent).children;
    siblings.erase(std::find(siblings.begin(), siblings.end(), id));
    nodes_.erase(id);
  }
  void describe(std::int64_t id, std::string& out) const {
    const Element& element = nodes_.at(id);
    if (element.isText) return;
    out += "<" + element.tag + " " + std::to_string(id);
    for (const char* name : {"style", "class"}) {
      if (auto found = element.attributes.find(name); found != element.attributes.end()) {
        // Declarations in one order: the replayer appends a property that a change adds.
        const std::string value =
            name == std::string("style") ? styleOf(declarationsOf(found->second)) : found->second;
        out += std::string(" ") + name + "='" + value + "'";
      }
    }
    out += ">";
    for (std::int64_t child : element.children) describe(child, out);
    out += "</" + element.tag + ">";
  }

  std::map<std::int64_t, Element> nodes_;
};

// A layer tree for tests: an id, a horizontal position that stands for all its properties, and
// sublayers.
struct Layer {
  std::int64_t id;
  double x = 0;
  std::vector<Layer> sublayers;
  bool blocked = false;
};

LayerTreeNode nodeOf(const Layer& layer, std::optional<std::int64_t> parentId,
                     std::optional<std::int64_t> nextId) {
  LayerTreeNode node;
  node.id = layer.id;
  node.isBlocked = layer.blocked;
  node.parentId = parentId;
  node.nextId = nextId;
  node.snapshot.layerClass = "CALayer";
  node.snapshot.position = {layer.x, 10};
  node.snapshot.bounds = {{0, 0}, {20, 20}};
  for (std::size_t i = 0; i < layer.sublayers.size(); ++i) {
    node.children.push_back(
        nodeOf(layer.sublayers[i], layer.id,
               i + 1 < layer.sublayers.size() ? std::optional(layer.sublayers[i + 1].id) : std::nullopt));
  }
  return node;
}

std::shared_ptr<const Snapshot> captureOf(const std::vector<Layer>& windows,
                                          platform::Size screen = {390, 844}) {
  auto snapshot = std::make_shared<Snapshot>();
  snapshot->screenSize = screen;
  for (std::size_t i = 0; i < windows.size(); ++i) {
    snapshot->windows.push_back(nodeOf(
        windows[i], std::nullopt, i + 1 < windows.size() ? std::optional(windows[i + 1].id) : std::nullopt));
  }
  return snapshot;
}

class SerializerTest : public ::testing::Test {
 protected:
  std::shared_ptr<Serializer> makeSerializer() {
    return Serializer::make({.platform = device,
                             .logger = logger,
                             .storageCoordinator = storage,
                             .queue = device->app()->mainQueue(),
                             .webviewMappings = {{"__SECRET__", "masked"}}});
  }

  void capture(const std::shared_ptr<const Snapshot>& snapshot) {
    serializer->serialize(snapshot, "device", 42);
    device->app()->runUntilIdle();
  }

  // The document a fresh recording would start with for `snapshot`.
  Dom fullSnapshotOf(const std::shared_ptr<const Snapshot>& snapshot) {
    auto otherStorage = std::make_shared<CollectingStorage>();
    auto fresh = Serializer::make({.platform = device,
                                   .logger = logger,
                                   .storageCoordinator = otherStorage,
                                   .queue = device->app()->mainQueue(),
                                   .webviewMappings = {}});
    fresh->serializeNow(snapshot, "device", 42, 0);
    return Dom(std::get<rrweb::FullSnapshotEvent>(otherStorage->events.at(1).value).node);
  }

  std::shared_ptr<sim::SimPlatform> device = std::make_shared<sim::SimPlatform>();
  std::shared_ptr<RecordingLogger> logger = std::make_shared<RecordingLogger>();
  std::shared_ptr<CollectingStorage> storage = std::make_shared<CollectingStorage>();
  std::shared_ptr<Serializer> serializer = makeSerializer();
};

TEST(CommonSubsequenceTest, AsLongAsTheTableAndMadeOfMatchingIncreasingPairs) {
  std::mt19937 random(7);
  for (int round = 0; round < 300; ++round) {
    std::vector<std::int64_t> pool(12);
    std::iota(pool.begin(), pool.end(), 100);
    std::shuffle(pool.begin(), pool.end(), random);
    std::vector<std::int64_t> previous(pool.begin(), pool.begin() + random() % 12);
    std::shuffle(pool.begin(), pool.end(), random);
    std::vector<std::int64_t> next(pool.begin(), pool.begin() + random() % 12);

    std::vector<std::vector<int>> table(previous.size() + 1, std::vector<int>(next.size() + 1));
    for (std::size_t i = previous.size(); i-- > 0;) {
      for (std::size_t j = next.size(); j-- > 0;) {
        table[i][j] =
            previous[i] == next[j] ? table[i + 1][j + 1] + 1 : std::max(table[i + 1][j], table[i][j + 1]);
      }
    }
    const auto pairs = longestCommonSubsequence(previous, next);
    ASSERT_EQ(static_cast<int>(pairs.size()), table[0][0]);
    for (std::size_t k = 0; k < pairs.size(); ++k) {
      ASSERT_EQ(previous[pairs[k].first], next[pairs[k].second]);
      if (k > 0) {
        ASSERT_TRUE(pairs[k].first > pairs[k - 1].first && pairs[k].second > pairs[k - 1].second);
      }
    }
  }
}

TEST_F(SerializerTest, FirstCaptureIsMetaAndAFullSnapshotOfTheFixedSkeleton) {
  capture(captureOf({{100, 0, {{101, 5}, {102, 6}}}, {103}}));
  ASSERT_EQ(storage->events.size(), 2u);
  const auto& meta = std::get<rrweb::MetaEvent>(storage->events[0].value);
  EXPECT_EQ(meta.href, "ios://com.verdalune.sim");
  EXPECT_EQ(meta.width, 390);
  EXPECT_EQ(meta.height, 844);
  EXPECT_EQ(storage->identifiers[1], (std::pair<std::string, std::int64_t>{"device", 42}));

  const auto& full = std::get<rrweb::FullSnapshotEvent>(storage->events[1].value);
  EXPECT_EQ(full.timestamp, meta.timestamp);
  const auto& document = std::get<rrweb::DocumentNode>(full.node.value);
  EXPECT_EQ(document.id, 10);
  const auto& html = std::get<rrweb::ElementNode>(document.childNodes.at(0).value);
  const auto& head = std::get<rrweb::ElementNode>(html.childNodes.at(0).value);
  const auto& body = std::get<rrweb::ElementNode>(html.childNodes.at(1).value);
  const auto& style = std::get<rrweb::ElementNode>(head.childNodes.at(0).value);
  const auto& sheet = std::get<rrweb::TextNode>(style.childNodes.at(0).value);
  EXPECT_EQ((std::vector<std::int64_t>{html.id, head.id, sheet.id}), (std::vector<std::int64_t>{11, 12, 13}));
  // No images, no rules: the base sheet alone, written out here so that a change to it shows.
  EXPECT_EQ(sheet.textContent,
            "body {\n  background-color: black;\n}\n"
            "div::-webkit-scrollbar, div::-webkit-scrollbar-button { display: none; }\n"
            "div {\n  box-sizing: border-box;\n  position: absolute;\n  scrollbar-width: none;\n  "
            "-ms-overflow-style: none;\n}\n"
            "iframe {\n  position: absolute;\n  box-sizing: border-box;\n  border: none;\n}\n");
  const std::string encoded = rrweb::encode(full.node);
  EXPECT_NE(encoded.find("\"id\":\"vibrancy-light\""), std::string::npos);
  EXPECT_NE(encoded.find("\"id\":\"vibrancy-dark\""), std::string::npos);
  ASSERT_EQ(body.childNodes.size(), 3u) << "the filters, then the two windows";
  const auto& window = std::get<rrweb::ElementNode>(body.childNodes[1].value);
  EXPECT_EQ(window.id, 100);
  EXPECT_EQ(window.tagName, "div");
  EXPECT_EQ(window.childNodes.size(), 2u);
}

TEST_F(SerializerTest, AnUnchangedCaptureWritesNothingAndAResizeComesFirst) {
  capture(captureOf({{100, 0, {{101}}}}));
  capture(captureOf({{100, 0, {{101}}}}));
  EXPECT_EQ(storage->events.size(), 2u);

  capture(captureOf({}, {844, 390}));
  ASSERT_EQ(storage->events.size(), 4u);
  const auto& resize = std::get<rrweb::IncrementalSnapshotEvent>(storage->events[2].value);
  const auto& viewport = std::get<rrweb::ViewportResizeData>(resize.data.value);
  EXPECT_EQ(viewport.width, 844);
  const auto& removal = std::get<rrweb::MutationData>(
      std::get<rrweb::IncrementalSnapshotEvent>(storage->events[3].value).data.value);
  ASSERT_EQ(removal.removes.size(), 1u) << "the window goes; its sublayer goes with it";
  EXPECT_EQ(removal.removes[0].parentId, Serializer::kBodyId);
}

// Random edits of a layer tree, each captured: applying the recorded mutation to the replayed document
// must give exactly the document a fresh recording of the same capture starts with.
TEST_F(SerializerTest, EveryMutationLeadsToTheFullSnapshotOfTheSameCapture) {
  std::mt19937 random(11);
  std::int64_t nextId = 1000;
  std::vector<Layer> windows{{nextId++, 0, {}}, {nextId++, 0, {}}};
  auto allLayers = [&](auto& self, std::vector<Layer>& list,
                       std::vector<std::vector<Layer>*>& lists) -> void {
    lists.push_back(&list);
    for (auto& layer : list) self(self, layer.sublayers, lists);
  };
  capture(captureOf(windows));
  Dom replayed(std::get<rrweb::FullSnapshotEvent>(storage->events.at(1).value).node);

  for (int step = 0; step < 150; ++step) {
    for (int edit = 0; edit < 1 + static_cast<int>(random() % 4); ++edit) {
      std::vector<std::vector<Layer>*> lists;
      for (auto& window : windows) allLayers(allLayers, window.sublayers, lists);
      auto& list = *lists[random() % lists.size()];
      switch (random() % 5) {
        case 0:
        case 1:  // a new layer, sometimes with a sublayer of its own
          list.insert(list.begin() + static_cast<long>(random() % (list.size() + 1)),
                      Layer{nextId++, 1,
                            random() % 2 ? std::vector<Layer>{} : std::vector<Layer>{{nextId++, 2, {}}}});
          break;
        case 2:  // one goes
          if (!list.empty()) list.erase(list.begin() + static_cast<long>(random() % list.size()));
          break;
        case 3:  // one moves to another place or another parent
          if (!list.empty()) {
            const auto from = random() % list.size();
            Layer moved = list[from];
            list.erase(list.begin() + static_cast<long>(from));
            std::vector<std::vector<Layer>*> targets;
            for (auto& window : windows) allLayers(allLayers, window.sublayers, targets);
            auto& target = *targets[random() % targets.size()];
            target.insert(target.begin() + static_cast<long>(random() % (target.size() + 1)),
                          std::move(moved));
          }
          break;
        default:  // one changes, or gets blocked
          if (!list.empty()) {
            auto& layer = list[random() % list.size()];
            if (random() % 3 == 0) {
              layer.blocked = !layer.blocked;
            } else {
              layer.x += 1;
            }
          }
      }
    }
    const std::size_t before = storage->events.size();
    auto snapshot = captureOf(windows);
    capture(snapshot);
    for (std::size_t i = before; i < storage->events.size(); ++i) {
      const auto& event = std::get<rrweb::IncrementalSnapshotEvent>(storage->events[i].value);
      replayed.apply(std::get<rrweb::MutationData>(event.data.value));
      if (HasFatalFailure()) return;
    }
    ASSERT_EQ(replayed.describe(), fullSnapshotOf(snapshot).describe()) << "step " << step;
  }
}

TEST_F(SerializerTest, TouchesBecomeTouchInteractionsAndMovePositions) {
  const std::int64_t start = device->app()->clock()->wallMilliseconds();
  const auto at = [&](std::int64_t ms) {
    return std::chrono::system_clock::time_point(std::chrono::milliseconds(start + ms - 1'000));
  };
  serializer->serializeTouch({{1, 2}, at(1'000), TouchEvent::TouchEventType::began}, "device", 42);
  device->app()->runUntilIdle();
  EXPECT_TRUE(storage->events.empty()) << "no document yet, nothing to touch";

  capture(captureOf({{100}}));
  serializer->serializeTouch({{1, 2}, at(999), TouchEvent::TouchEventType::ended}, "device", 42);
  serializer->serializeTouch({{1, 2}, at(1'000), TouchEvent::TouchEventType::began}, "device", 42);
  serializer->serializeTouchMoves({{{3, 4}, at(1'050)}, {{5, 6}, at(1'100)}}, "device", 42);
  serializer->serializeTouch({{5, 6}, at(1'120), TouchEvent::TouchEventType::cancelled}, "device", 42);
  device->app()->runUntilIdle();
  ASSERT_EQ(storage->events.size(), 5u);

  const auto& began = std::get<rrweb::IncrementalSnapshotEvent>(storage->events[2].value);
  EXPECT_EQ(began.timestamp, start) << "a touch from before the document was dropped";
  const auto& interaction = std::get<rrweb::MouseInteractionData>(began.data.value);
  EXPECT_EQ(interaction.type, rrweb::MouseInteraction::touchStart);
  EXPECT_EQ(interaction.id, Serializer::kBodyId);
  EXPECT_EQ(interaction.pointerType, rrweb::PointerType::touch);

  const auto& moved = std::get<rrweb::IncrementalSnapshotEvent>(storage->events[3].value);
  EXPECT_EQ(moved.timestamp, start + 100);
  const auto& positions = std::get<rrweb::MouseMoveData>(moved.data.value);
  EXPECT_EQ(positions.source, rrweb::IncrementalSource::touchMove);
  ASSERT_EQ(positions.positions.size(), 2u);
  EXPECT_EQ(positions.positions[0].timeOffset, -50);
  EXPECT_EQ(positions.positions[1].timeOffset, 0);
  EXPECT_EQ(std::get<rrweb::MouseInteractionData>(
                std::get<rrweb::IncrementalSnapshotEvent>(storage->events[4].value).data.value)
                .type,
            rrweb::MouseInteraction::touchCancel);
}

TEST_F(SerializerTest, ImagesAreSentOnceAndAgainAfterAFlush) {
  auto image = std::make_shared<EncodedImageData>(EncodedImageData{.type = EncodedImageType::webp,
                                                                   .hash = std::string(64, 'A'),
                                                                   .data = {1, 2, 3},
                                                                   .originalImageSize = {4, 4}});
  auto contents =
      std::make_shared<LayerContents>(LayerContents::Prehashed{image}, LayerContents::NoMetadata{});
  auto withImages = [&](std::vector<std::int64_t> ids) {
    auto snapshot = std::const_pointer_cast<Snapshot>(captureOf({{100, 0, {{101}, {102}, {103}}}}));
    for (auto& child : snapshot->windows[0].children) {
      if (std::ranges::find(ids, child.id) != ids.end()) child.contents = contents;
    }
    return std::shared_ptr<const Snapshot>(snapshot);
  };
  auto delegate = std::make_shared<RecordingDelegate>();
  serializer->setDelegate(delegate);

  capture(withImages({101, 102}));
  const std::string rule = ".bg-" + image->hash + " { background: url(data:image/webp;base64,AQID)  }";
  const auto& full = std::get<rrweb::FullSnapshotEvent>(storage->events.at(1).value);
  const std::string expectedSheet = std::string(Serializer::kBaseStyleSheet) + rule;
  EXPECT_NE(rrweb::encode(full.node).find(rrweb::encode(JSONValue(expectedSheet))), std::string::npos)
      << "one rule for two layers";
  Dom replayed(full.node);
  EXPECT_NE(replayed.describe().find("<div 101 style='"), std::string::npos);

  capture(withImages({103}));
  const auto& mutation = std::get<rrweb::MutationData>(
      std::get<rrweb::IncrementalSnapshotEvent>(storage->events.at(2).value).data.value);
  EXPECT_TRUE(mutation.adds.empty()) << "the rule is in the sheet already";
  replayed.apply(mutation);
  EXPECT_EQ(replayed.describe(), fullSnapshotOf(withImages({103})).describe())
      << "classes that went are removed";

  serializer->flush();
  device->app()->runUntilIdle();
  EXPECT_EQ(storage->flushes, 1);
  EXPECT_EQ(delegate->resets, 1);
  capture(withImages({103}));
  ASSERT_EQ(storage->events.size(), 5u) << "a flush starts a new recording";
  EXPECT_NE(
      rrweb::encode(std::get<rrweb::FullSnapshotEvent>(storage->events[4].value).node).find(image->hash),
      std::string::npos)
      << "with its rules again";
}

// A page as the injected recorder sends it: a document (1) with <html> (2) holding an <input> (3).
constexpr std::string_view kPageSnapshot =
    R"({"type":2,"timestamp":1,"data":{"node":{"type":0,"id":1,"childNodes":[{"type":2,"id":2,"tagName":"html",)"
    R"("attributes":{},"childNodes":[{"type":2,"id":3,"tagName":"input","attributes":{},"childNodes":[]}]}]},)"
    R"("initialOffset":{"top":0,"left":0}}})";
constexpr std::string_view kPageInput =
    R"({"type":3,"timestamp":2,"data":{"source":5,"id":3,"text":"__SECRET__ and __SECRET__","isChecked":false}})";

TEST_F(SerializerTest, PagesAreAttachedUnderTheirWebViewInNativeIds) {
  auto withWebView = [](bool blocked) {
    auto snapshot = std::const_pointer_cast<Snapshot>(captureOf({{100, 0, {{500}}}}));
    snapshot->windows[0].children[0].snapshot.isWebView = true;
    snapshot->windows[0].children[0].isBlocked = blocked;
    return std::shared_ptr<const Snapshot>(snapshot);
  };
  serializer->onWebviewEvent(500, std::string(kPageInput));
  serializer->onWebviewEvent(500, std::string(kPageSnapshot));
  serializer->onWebviewEvent(500, std::string(kPageInput));
  device->app()->runUntilIdle();
  EXPECT_TRUE(storage->events.empty()) << "no web view element yet: the page waits";
  EXPECT_EQ(logger->logs().size(), 1u) << "the event from before any document is dropped";

  capture(withWebView(true));
  EXPECT_EQ(storage->events.size(), 2u) << "a masked web view never shows its page";
  capture(withWebView(false));
  ASSERT_EQ(storage->events.size(), 5u) << "the changed element, the page's document, the input that waited";

  Dom replayed(std::get<rrweb::FullSnapshotEvent>(storage->events[1].value).node);
  replayed.apply(std::get<rrweb::MutationData>(
      std::get<rrweb::IncrementalSnapshotEvent>(storage->events[2].value).data.value));
  const auto& attach = std::get<rrweb::MutationData>(
      std::get<rrweb::IncrementalSnapshotEvent>(storage->events[3].value).data.value);
  EXPECT_EQ(attach.isAttachIframe, true);
  ASSERT_EQ(attach.adds.size(), 1u);
  EXPECT_EQ(attach.adds[0].parentId, 500);
  const auto& document = std::get<rrweb::DocumentNode>(attach.adds[0].node.value);
  const auto& html = std::get<rrweb::ElementNode>(document.childNodes.at(0).value);
  const auto inputId = std::get<rrweb::ElementNode>(html.childNodes.at(0).value).id;
  EXPECT_GE(document.id, 100) << "page ids are drawn from the native counter";
  EXPECT_NE(inputId, 3);

  const auto& input = std::get<rrweb::InputData>(
      std::get<rrweb::IncrementalSnapshotEvent>(storage->events[4].value).data.value);
  EXPECT_EQ(input.id, inputId);
  EXPECT_EQ(input.text, "masked and masked") << "every occurrence of a mapping key is replaced";

  serializer->onWebviewEvent(500, R"({"type":3,"timestamp":3,"data":{"source":2,"type":2,"id":77}})");
  serializer->onWebviewEvent(500, R"({"type":3,"timestamp":3,"data":{"source":4,"width":1,"height":1}})");
  device->app()->runUntilIdle();
  EXPECT_EQ(storage->events.size(), 5u) << "an unknown id and a page viewport change are dropped";
  EXPECT_EQ(logger->logs().size(), 3u);

  // A flush starts a new recording: the old page document is gone until the page sends a new one.
  serializer->flush();
  capture(withWebView(false));
  serializer->onWebviewEvent(500, std::string(kPageInput));
  device->app()->runUntilIdle();
  EXPECT_EQ(storage->events.size(), 7u) << "Meta and full snapshot only";
}

TEST(WebViewTranslationTest, NewNodesGetNewIdsAndKnownOnesTheirOwn) {
  WebViewRecordingSession session{.rootId = 500};
  const std::int64_t body = session.idMap->localOrNew(5);
  rrweb::MutationData mutation;
  mutation.adds.push_back({.parentId = 5, .nextId = 9, .node = rrweb::TextNode{.id = 8}});
  mutation.adds.push_back({.parentId = 5, .nextId = std::nullopt, .node = rrweb::TextNode{.id = 9}});
  mutation.attributes.push_back({.id = 5});
  auto translated = translate(rrweb::IncrementalData(mutation), session);
  ASSERT_TRUE(translated);
  const auto& result = std::get<rrweb::MutationData>(translated->value);
  EXPECT_EQ(result.adds[0].parentId, body);
  EXPECT_EQ(result.adds[0].nextId, session.idMap->local(9)) << "a next sibling added in the same mutation";
  EXPECT_EQ(result.attributes[0].id, body);

  rrweb::StyleSheetRuleData rule{.id = 5, .styleId = 1};
  const auto first =
      std::get<rrweb::StyleSheetRuleData>(translate(rrweb::IncrementalData(rule), session)->value);
  const auto again =
      std::get<rrweb::StyleSheetRuleData>(translate(rrweb::IncrementalData(rule), session)->value);
  EXPECT_EQ(first.styleId, again.styleId);
  EXPECT_NE(first.styleId, 1);

  rrweb::SelectionData selection{.ranges = {{.start = 5, .end = 6}}};
  EXPECT_FALSE(translate(rrweb::IncrementalData(selection), session)) << "node 6 was never shown";
}

TEST_F(SerializerTest, WebViewEventsAreMappedBeforeDecodingAndBadOnesLogged) {
  serializer->onWebviewEvent(100, "not json __SECRET__");
  device->app()->runUntilIdle();
  ASSERT_EQ(logger->errors().size(), 1u);
  EXPECT_TRUE(logger->errors()[0].starts_with("Failed to decode event: "));

  auto bundleless = std::make_shared<sim::SimPlatform>(
      sim::SimPlatform::Options{.application = {.bundleIdentifier = std::nullopt}});
  auto other = Serializer::make({.platform = bundleless,
                                 .logger = logger,
                                 .storageCoordinator = storage,
                                 .queue = bundleless->app()->mainQueue(),
                                 .webviewMappings = {}});
  other->serializeNow(captureOf({}), "device", 1, 0);
  EXPECT_EQ(std::get<rrweb::MetaEvent>(storage->events.at(0).value).href, "ios://<unknown>");
}

}  // namespace
}  // namespace verdalune::sessionreplay
