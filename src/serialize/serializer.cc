#include "serialize/serializer.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "capture/layer_metadata.h"
#include "rrweb/coding.h"
#include "serialize/common_subsequence.h"
#include "support/base64.h"

namespace verdalune::sessionreplay {

const std::string_view Serializer::kBaseStyleSheet =
    "body {\n  background-color: black;\n}\n"
    "div::-webkit-scrollbar, div::-webkit-scrollbar-button { display: none; }\n"
    "div {\n  box-sizing: border-box;\n  position: absolute;\n  scrollbar-width: none;\n  "
    "-ms-overflow-style: none;\n}\n"
    "iframe {\n  position: absolute;\n  box-sizing: border-box;\n  border: none;\n}\n";

namespace {

// The two SVG filters that vibrancy effects refer to (url(#vibrancy-light), url(#vibrancy-dark)): each
// maps every colour channel to one value, black on light materials and white on dark ones, keeping
// alpha. Their nodes take fixed ids after the skeleton's, below the first layer id.
constexpr std::int64_t kFirstFilterNodeId = 16;

rrweb::ElementNode svgElement(std::int64_t& id, std::string tag, rrweb::JSONValue::Dictionary attributes,
                              std::vector<rrweb::Node> children = {}) {
  return rrweb::ElementNode{.id = id++,
                            .tagName = std::move(tag),
                            .attributes = std::move(attributes),
                            .childNodes = std::move(children),
                            .isSVG = true};
}

rrweb::Node vibrancyFilters() {
  std::int64_t id = kFirstFilterNodeId;
  auto filter = [&](const char* name, const char* channelValue) {
    std::vector<rrweb::Node> functions;
    for (const char* channel : {"feFuncR", "feFuncG", "feFuncB"}) {
      functions.emplace_back(svgElement(id, channel, {{"type", "discrete"}, {"tableValues", channelValue}}));
    }
    functions.emplace_back(svgElement(id, "feFuncA", {{"type", "discrete"}, {"tableValues", "1"}}));
    auto transfer = svgElement(id, "feComponentTransfer", {}, std::move(functions));
    return rrweb::Node(svgElement(id, "filter", {{"id", name}}, {rrweb::Node(std::move(transfer))}));
  };
  auto svg = svgElement(id, "svg", {{"width", "0"}, {"height", "0"}, {"style", "position: absolute"}});
  auto defs = svgElement(id, "defs", {});
  defs.childNodes.push_back(filter("vibrancy-light", "0"));
  defs.childNodes.push_back(filter("vibrancy-dark", "1"));
  svg.childNodes.emplace_back(std::move(defs));
  return svg;
}

std::string_view mimeType(EncodedImageType type) {
  switch (type) {
    case EncodedImageType::png:
      return "image/png";
    case EncodedImageType::jpeg:
      return "image/jpeg";
    case EncodedImageType::webp:
      return "image/webp";
  }
  return "image/png";
}

std::int64_t millisecondsOf(std::chrono::system_clock::time_point date) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(date.time_since_epoch()).count();
}

rrweb::MouseInteraction interactionOf(TouchEvent::TouchEventType type) {
  switch (type) {
    case TouchEvent::TouchEventType::began:
      return rrweb::MouseInteraction::touchStart;
    case TouchEvent::TouchEventType::ended:
      return rrweb::MouseInteraction::touchEnd;
    case TouchEvent::TouchEventType::cancelled:
      return rrweb::MouseInteraction::touchCancel;
  }
  return rrweb::MouseInteraction::touchEnd;
}

// Whether a node must be written again: its properties, or what the walk added to them. The properties
// are compared by their fingerprints when both nodes have one: most nodes of a capture are unchanged,
// and comparing a kilobyte of properties for each was most of the comparison's time.
bool differs(const LayerTreeNode& previous, const LayerTreeNode& next) {
  if (previous.isBlocked != next.isBlocked || previous.contents != next.contents ||
      !(previous.visualEffect == next.visualEffect)) {
    return true;
  }
  if (previous.fingerprint != 0 && next.fingerprint != 0) return previous.fingerprint != next.fingerprint;
  return !(previous.snapshot == next.snapshot);
}

// The declarations of an inline style, "name:value; name:value", by name; nothing when a name comes
// twice or a value is marked important, which a change of single properties could not say.
std::optional<std::map<std::string_view, std::string_view>> declarations(std::string_view style) {
  std::map<std::string_view, std::string_view> byName;
  int depth = 0;
  std::size_t start = 0;
  for (std::size_t at = 0; at <= style.size(); ++at) {
    if (at < style.size()) {
      if (style[at] == '(') ++depth;
      if (style[at] == ')') --depth;
      if (style[at] != ';' || depth != 0) continue;
    }
    std::string_view declaration = style.substr(start, at - start);
    start = at + 1;
    while (!declaration.empty() && declaration.front() == ' ') declaration.remove_prefix(1);
    if (declaration.empty()) continue;
    const std::size_t colon = declaration.find(':');
    if (colon == std::string_view::npos || declaration.find("!important") != std::string_view::npos) {
      return std::nullopt;
    }
    if (!byName.emplace(declaration.substr(0, colon), declaration.substr(colon + 1)).second)
      return std::nullopt;
  }
  return byName;
}

// The attributes of `now` that differ from `shown`, and null for those it no longer has. A style that
// changed is sent as the properties that changed, false for those gone (the replayer sets them one by
// one): an animation that turns a view changes its transform, not the dozen other properties.
rrweb::JSONValue::Dictionary changedAttributes(const Converter::Attributes& shown,
                                               rrweb::JSONValue::Dictionary now) {
  rrweb::JSONValue::Dictionary changed;
  for (auto& [name, value] : now) {
    const auto before = shown.find(name);
    const std::string* text = std::get_if<std::string>(&value.value);
    if (before != shown.end() && text && *text == before->second) continue;
    if (name == "style" && text && before != shown.end()) {
      const auto was = declarations(before->second);
      const auto is = declarations(*text);
      if (was && is) {
        rrweb::JSONValue::Dictionary properties;
        for (const auto& [property, propertyValue] : *is) {
          const auto old = was->find(property);
          if (old == was->end() || old->second != propertyValue) {
            properties.emplace(std::string(property), std::string(propertyValue));
          }
        }
        for (const auto& [property, ignored] : *was) {
          if (!is->contains(property)) properties.emplace(std::string(property), false);
        }
        changed.emplace(name, std::move(properties));
        continue;
      }
    }
    changed.emplace(name, std::move(value));
  }
  for (const auto& [name, ignored] : shown) {
    if (!now.contains(name)) changed.emplace(name, nullptr);
  }
  return changed;
}
}  // namespace

// The outcome of comparing two captures, as pointers into them.
struct Serializer::Changes {
  std::vector<const LayerTreeNode*> added;    // parents before children, later siblings first
  std::vector<const LayerTreeNode*> removed;  // each with its whole subtree
  // Each changed pair, the previous node first.
  std::vector<std::pair<const LayerTreeNode*, const LayerTreeNode*>> changed;
};

std::shared_ptr<Serializer> Serializer::make(Options options) {
  return std::shared_ptr<Serializer>(new Serializer(std::move(options)));
}

Serializer::Serializer(Options options)
    : platform_(std::move(options.platform)),
      logger_(std::move(options.logger)),
      storageCoordinator_(std::move(options.storageCoordinator)),
      queue_(std::move(options.queue)),
      webviewMappings_(std::move(options.webviewMappings)),
      href_("ios://" + platform_->application()->bundleIdentifier().value_or("<unknown>")),
      converterContext_(platform_) {
  converterContext_.setImageEffort(options.imageEffort);
}

void Serializer::setDelegate(std::weak_ptr<SerializerDelegate> delegate) {
  delegate_ = std::move(delegate);
}

std::int64_t Serializer::now() const {
  return platform_->application()->clock()->wallMilliseconds();
}

void Serializer::serialize(std::shared_ptr<const Snapshot> snapshot, const std::string& deviceId,
                           std::int64_t sessionId) {
  const std::int64_t timestamp = now();
  queue_->async(
      [weakSelf = weak_from_this(), snapshot = std::move(snapshot), deviceId, sessionId, timestamp] {
        if (auto self = weakSelf.lock()) self->serializeNow(snapshot, deviceId, sessionId, timestamp);
      });
}

void Serializer::serializeNow(const std::shared_ptr<const Snapshot>& snapshot, const std::string& deviceId,
                              std::int64_t sessionId, std::int64_t timestamp) {
  std::shared_ptr<const Snapshot> previous = std::exchange(previousSnapshot_, snapshot);
  recording_.emplace(deviceId, sessionId);
  if (!previous) {
    writeFullSnapshot(*snapshot, deviceId, sessionId, timestamp);
  } else {
    writeComparison(*previous, *snapshot, deviceId, sessionId, timestamp);
  }

  // Pages are shown only inside unmasked web view elements of the recorded document: a page whose element
  // went, or was masked, goes with it (its events may still arrive for a while), and waiting pages whose
  // element arrived are shown now.
  webViewElements_.clear();
  auto collect = [&](auto& self, const LayerTreeNode& node) -> void {
    if (node.snapshot.isWebView && !node.isBlocked) webViewElements_.insert(node.id);
    for (const LayerTreeNode& child : node.children) self(self, child);
  };
  for (const LayerTreeNode& root : snapshot->windows) collect(collect, root);
  std::erase_if(activeWebViewRecordingSessionsById_,
                [&](const auto& entry) { return !webViewElements_.contains(entry.first); });
  if (!pendingPages_.empty()) attachPendingPages(timestamp);
}

void Serializer::serializeTouch(const TouchEvent& touch, const std::string& deviceId,
                                std::int64_t sessionId) {
  queue_->async([weakSelf = weak_from_this(), touch, deviceId, sessionId] {
    auto self = weakSelf.lock();
    if (!self || !self->touchable(millisecondsOf(touch.date))) return;
    self->write(rrweb::IncrementalSnapshotEvent{.timestamp = millisecondsOf(touch.date),
                                                .data =
                                                    rrweb::MouseInteractionData{
                                                        .type = interactionOf(touch.type),
                                                        .id = kBodyId,
                                                        .x = touch.location.x,
                                                        .y = touch.location.y,
                                                        .pointerType = rrweb::PointerType::touch,
                                                    }},
                deviceId, sessionId);
  });
}

void Serializer::serializeTouchMoves(std::vector<TouchMoveEvent> moves, const std::string& deviceId,
                                     std::int64_t sessionId) {
  if (moves.empty()) return;
  queue_->async([weakSelf = weak_from_this(), moves = std::move(moves), deviceId, sessionId] {
    auto self = weakSelf.lock();
    // One event at the last move's time; each position says how long before that it was.
    const std::int64_t timestamp = millisecondsOf(moves.back().date);
    if (!self || !self->touchable(millisecondsOf(moves.front().date))) return;
    rrweb::MouseMoveData data{.source = rrweb::IncrementalSource::touchMove};
    data.positions.reserve(moves.size());
    for (const TouchMoveEvent& move : moves) {
      data.positions.push_back({.x = move.location.x,
                                .y = move.location.y,
                                .id = kBodyId,
                                .timeOffset = millisecondsOf(move.date) - timestamp});
    }
    self->write(rrweb::IncrementalSnapshotEvent{.timestamp = timestamp, .data = std::move(data)}, deviceId,
                sessionId);
  });
}

void Serializer::captureStopped() {
  // The next capture opens a new recording for whoever replays from it: a full snapshot, every image again.
  queue_->async([weakSelf = weak_from_this()] {
    if (auto self = weakSelf.lock()) self->reset();
  });
}

void Serializer::onWebviewEvent(std::int64_t layerId, std::string json) {
  const std::int64_t timestamp = now();
  queue_->async([weakSelf = weak_from_this(), layerId, json = std::move(json), timestamp]() mutable {
    auto self = weakSelf.lock();
    if (!self) return;
    for (const auto& [key, value] : self->webviewMappings_) {
      if (key.empty()) continue;
      for (std::size_t at = json.find(key); at != std::string::npos; at = json.find(key, at + value.size())) {
        json.replace(at, key.size(), value);
      }
    }
    auto event = rrweb::decodeEvent(json);
    if (!event) {
      if (self->logger_) self->logger_->error("Failed to decode event: " + event.error().description);
      return;
    }
    self->receivePageEvent(layerId, std::move(*event), timestamp);
  });
}

// Page events take the time they reached the library: the page's clock and the native one may differ,
// and a replay plays events in time order.
void Serializer::receivePageEvent(std::int64_t layerId, rrweb::Event event, std::int64_t timestamp) {
  if (auto* full = std::get_if<rrweb::FullSnapshotEvent>(&event.value)) {
    // A new page, or the same page recording afresh: its document replaces the one shown before.
    activeWebViewRecordingSessionsById_.erase(layerId);
    pendingPages_[layerId] = PendingPage{std::move(full->node), {}};
    attachPendingPages(timestamp);
    return;
  }
  auto* incremental = std::get_if<rrweb::IncrementalSnapshotEvent>(&event.value);
  // Meta, load and custom events of a page tell the native recording nothing.
  if (incremental == nullptr) return;

  if (auto session = activeWebViewRecordingSessionsById_.find(layerId);
      session != activeWebViewRecordingSessionsById_.end()) {
    writePageEvent(session->second, incremental->data, timestamp);
  } else if (auto pending = pendingPages_.find(layerId); pending != pendingPages_.end()) {
    if (pending->second.events.size() >= kMaxPendingPageEvents) {
      pendingPages_.erase(pending);
      dropPage("too many events before its web view was recorded");
      return;
    }
    pending->second.events.push_back(std::move(incremental->data));
  } else {
    dropPage("an event before its page's document");
  }
}

void Serializer::dropPage(std::string_view why) {
  if (logger_) logger_->log(std::string("[Serializer] dropped a web view event: ") + std::string(why));
}

void Serializer::writePageEvent(WebViewRecordingSession& session, const rrweb::IncrementalData& data,
                                std::int64_t timestamp) {
  if (!recording_) return;
  auto translated = translate(data, session);
  if (!translated) {
    dropPage(translated.error().description);
    return;
  }
  write(rrweb::IncrementalSnapshotEvent{.timestamp = timestamp, .data = std::move(*translated)},
        recording_->first, recording_->second);
}

// Shows each waiting page in its web view's element once that element is in the recording: the page's
// document, in native ids, under the element, then the page events that waited with it.
void Serializer::attachPendingPages(std::int64_t timestamp) {
  if (!recording_ || !previousSnapshot_) return;
  for (auto pending = pendingPages_.begin(); pending != pendingPages_.end();) {
    const std::int64_t layerId = pending->first;
    if (!webViewElements_.contains(layerId)) {
      ++pending;
      continue;
    }
    WebViewRecordingSession session{.rootId = layerId};
    rrweb::Node document = translateNewNode(pending->second.document, *session.idMap);
    session.documentId = std::visit([](const auto& record) { return record.id; }, document.value);
    rrweb::MutationData attach{.isAttachIframe = true};
    attach.adds.push_back({.parentId = layerId, .nextId = std::nullopt, .node = std::move(document)});
    write(rrweb::IncrementalSnapshotEvent{.timestamp = timestamp, .data = std::move(attach)},
          recording_->first, recording_->second);
    auto& active = activeWebViewRecordingSessionsById_[layerId] = std::move(session);
    for (const auto& data : pending->second.events) writePageEvent(active, data, timestamp);
    pending = pendingPages_.erase(pending);
  }
}

void Serializer::flush() {
  queue_->async([weakSelf = weak_from_this()] {
    auto self = weakSelf.lock();
    if (!self) return;
    self->activeWebViewRecordingSessionsById_.clear();
    if (auto delegate = self->delegate_.lock()) delegate->serializerDidReset();
    self->reset();
    self->storageCoordinator_->flush();
  });
}

// Touches land on the document's body. A replay plays events in time order, so a touch from before the
// document it would land on (none yet, or one that a flush replaced) is dropped rather than aimed at nothing.
bool Serializer::touchable(std::int64_t timestamp) const {
  return previousSnapshot_ && timestamp >= fullSnapshotTimestamp_;
}

void Serializer::reset() {
  activeWebViewRecordingSessionsById_.clear();
  pendingPages_.clear();
  webViewElements_.clear();
  existingImageIdentifiers_.clear();
  sentImageCount_ = 0;
  previousSnapshot_.reset();
  elementsWithClass_.clear();
}

void Serializer::write(rrweb::Event event, const std::string& deviceId, std::int64_t sessionId) {
  storageCoordinator_->write(std::move(event), deviceId, sessionId);
}

rrweb::ElementNode Serializer::element(const LayerTreeNode& node, Converter::AdditionalContent& images,
                                       bool withChildren) {
  Converter::Attributes attributes = Converter::convert(node, images, logger_.get(), converterContext_);
  if (attributes.contains("class")) {
    elementsWithClass_.insert(node.id);
  } else {
    elementsWithClass_.erase(node.id);
  }
  rrweb::ElementNode element{.id = node.id,
                             .tagName = node.snapshot.isWebView ? "iframe" : "div",
                             .attributes = {},
                             .childNodes = {}};
  for (auto& [name, value] : attributes) element.attributes.emplace(name, rrweb::JSONValue(std::move(value)));
  if (withChildren) {
    element.childNodes.reserve(node.children.size());
    for (const LayerTreeNode& child : node.children)
      element.childNodes.emplace_back(this->element(child, images, true));
  }
  return element;
}

std::vector<std::string> Serializer::newImageRules(const Converter::AdditionalContent& images) {
  std::vector<std::string> rules;
  for (const auto& [className, image] : images.images()) {
    if (!existingImageIdentifiers_.insert(className).second) continue;
    sentImageCount_ = existingImageIdentifiers_.size();
    const std::string data = base64Encode(image->data);
    std::string rule;
    rule.reserve(className.size() + data.size() + 48);
    rule.append(".").append(className).append(" { background: url(data:").append(mimeType(image->type));
    rule.append(";base64,").append(data).append(")  }");
    rules.push_back(std::move(rule));
  }
  return rules;
}

void Serializer::writeFullSnapshot(const Snapshot& snapshot, const std::string& deviceId,
                                   std::int64_t sessionId, std::int64_t timestamp) {
  elementsWithClass_.clear();
  Converter::AdditionalContent images;
  std::vector<rrweb::Node> bodyChildren;
  bodyChildren.reserve(snapshot.windows.size() + 1);
  bodyChildren.push_back(vibrancyFilters());
  for (const LayerTreeNode& root : snapshot.windows) bodyChildren.emplace_back(element(root, images, true));

  std::string styleText(kBaseStyleSheet);
  const std::vector<std::string> rules = newImageRules(images);
  for (std::size_t i = 0; i < rules.size(); ++i) {
    if (i > 0) styleText.push_back('\n');
    styleText.append(rules[i]);
  }

  rrweb::ElementNode style{
      .id = kStyleId,
      .tagName = "style",
      .attributes = {},
      .childNodes = {rrweb::TextNode{.id = kStyleTextId, .textContent = std::move(styleText)}}};
  rrweb::ElementNode head{
      .id = kHeadId, .tagName = "head", .attributes = {}, .childNodes = {std::move(style)}};
  rrweb::ElementNode body{
      .id = kBodyId, .tagName = "body", .attributes = {}, .childNodes = std::move(bodyChildren)};
  rrweb::ElementNode html{
      .id = kHtmlId, .tagName = "html", .attributes = {}, .childNodes = {std::move(head), std::move(body)}};
  rrweb::DocumentNode document{.id = kDocumentId, .childNodes = {std::move(html)}};

  fullSnapshotTimestamp_ = timestamp;
  write(rrweb::MetaEvent{.timestamp = timestamp,
                         .href = href_,
                         .width = snapshot.screenSize.width,
                         .height = snapshot.screenSize.height},
        deviceId, sessionId);
  write(
      rrweb::FullSnapshotEvent{.timestamp = timestamp, .node = std::move(document), .initialOffset = {0, 0}},
      deviceId, sessionId);
}

void Serializer::compare(const std::vector<LayerTreeNode>& previous, const std::vector<LayerTreeNode>& next,
                         Changes& changes) {
  // Most sibling lists are the same layers as before: pair them in place, with nothing to allocate.
  const bool sameLayers =
      previous.size() == next.size() &&
      std::equal(previous.begin(), previous.end(), next.begin(),
                 [](const LayerTreeNode& a, const LayerTreeNode& b) { return a.id == b.id; });
  if (sameLayers) {
    for (std::size_t i = 0; i < next.size(); ++i) {
      if (differs(previous[i], next[i])) changes.changed.emplace_back(&previous[i], &next[i]);
      compare(previous[i].children, next[i].children, changes);
    }
    return;
  }

  std::vector<std::int64_t> previousIds(previous.size());
  std::vector<std::int64_t> nextIds(next.size());
  for (std::size_t i = 0; i < previous.size(); ++i) previousIds[i] = previous[i].id;
  for (std::size_t j = 0; j < next.size(); ++j) nextIds[j] = next[j].id;
  const auto pairs = longestCommonSubsequence(previousIds, nextIds);

  std::vector<bool> previousPaired(previous.size());
  std::vector<bool> nextPaired(next.size());
  for (const auto& [i, j] : pairs) {
    previousPaired[i] = true;
    nextPaired[j] = true;
  }
  for (std::size_t i = 0; i < previous.size(); ++i) {
    if (!previousPaired[i]) changes.removed.push_back(&previous[i]);
  }
  // Later siblings first, each node before its descendants: every add then finds its parent and its
  // next sibling already in place, and the replayer never has to hold an add back.
  auto addSubtree = [&](auto& self, const LayerTreeNode& node) -> void {
    changes.added.push_back(&node);
    for (auto child = node.children.rbegin(); child != node.children.rend(); ++child) self(self, *child);
  };
  for (std::size_t j = next.size(); j > 0; --j) {
    if (!nextPaired[j - 1]) addSubtree(addSubtree, next[j - 1]);
  }
  for (const auto& [i, j] : pairs) {
    if (differs(previous[i], next[j])) changes.changed.emplace_back(&previous[i], &next[j]);
    compare(previous[i].children, next[j].children, changes);
  }
}

void Serializer::forgetClasses(const LayerTreeNode& node) {
  elementsWithClass_.erase(node.id);
  for (const LayerTreeNode& child : node.children) forgetClasses(child);
}

void Serializer::writeComparison(const Snapshot& previous, const Snapshot& snapshot,
                                 const std::string& deviceId, std::int64_t sessionId,
                                 std::int64_t timestamp) {
  if (previous.screenSize.width != snapshot.screenSize.width ||
      previous.screenSize.height != snapshot.screenSize.height) {
    write(
        rrweb::IncrementalSnapshotEvent{
            .timestamp = timestamp,
            .data = rrweb::ViewportResizeData{.width = snapshot.screenSize.width,
                                              .height = snapshot.screenSize.height}},
        deviceId, sessionId);
  }

  Changes changes;
  compare(previous.windows, snapshot.windows, changes);
  if (changes.added.empty() && changes.removed.empty() && changes.changed.empty()) return;

  rrweb::MutationData mutation;
  for (const LayerTreeNode* node : changes.removed) {
    forgetClasses(*node);
    mutation.removes.push_back({.parentId = node->parentId.value_or(kBodyId), .id = node->id});
  }
  Converter::AdditionalContent images;
  mutation.adds.reserve(changes.added.size());
  for (const LayerTreeNode* node : changes.added) {
    mutation.adds.push_back({.parentId = node->parentId.value_or(kBodyId),
                             .nextId = node->nextId,
                             .node = element(*node, images, false)});
  }
  mutation.attributes.reserve(changes.changed.size());
  for (const auto& [before, node] : changes.changed) {
    // What the replay shows now is the previous node's conversion; only what differs from it is sent.
    // Its images were sent with it, and anything wrong with it was logged then.
    Converter::AdditionalContent shownImages;
    const Converter::Attributes shown = Converter::convert(*before, shownImages, nullptr, converterContext_);
    rrweb::ElementNode updated = element(*node, images, false);
    rrweb::JSONValue::Dictionary changed = changedAttributes(shown, std::move(updated.attributes));
    if (!changed.empty()) mutation.attributes.push_back({.id = node->id, .attributes = std::move(changed)});
  }
  if (mutation.adds.empty() && mutation.removes.empty() && mutation.attributes.empty()) return;
  for (std::string& rule : newImageRules(images)) {
    mutation.adds.push_back({.parentId = kStyleId,
                             .nextId = std::nullopt,
                             .node = rrweb::TextNode{.id = nextNodeId(), .textContent = std::move(rule)}});
  }
  write(rrweb::IncrementalSnapshotEvent{.timestamp = timestamp, .data = std::move(mutation)}, deviceId,
        sessionId);
}

}  // namespace verdalune::sessionreplay
