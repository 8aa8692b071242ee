#include "serialize/web_view_translation.h"

#include <type_traits>
#include <utility>

#include "capture/layer_metadata.h"

namespace verdalune::sessionreplay {

std::optional<std::int64_t> IdentifierMap::local(std::int64_t remote) const {
  std::scoped_lock guard(lock_);
  const auto found = remoteIdToLocalIdMap_.find(remote);
  if (found == remoteIdToLocalIdMap_.end()) return std::nullopt;
  return found->second;
}

std::int64_t IdentifierMap::localOrNew(std::int64_t remote) {
  std::scoped_lock guard(lock_);
  const auto [found, inserted] = remoteIdToLocalIdMap_.try_emplace(remote, 0);
  if (inserted) found->second = nextNodeId();
  return found->second;
}

std::size_t IdentifierMap::size() const {
  std::scoped_lock guard(lock_);
  return remoteIdToLocalIdMap_.size();
}

rrweb::Node translateNewNode(const rrweb::Node& node, IdentifierMap& idMap) {
  rrweb::Node translated = node;
  auto visit = [&](auto& self, rrweb::Node& current) -> void {
    std::visit(
        [&](auto& record) {
          record.id = idMap.localOrNew(record.id);
          if (record.rootId) record.rootId = idMap.localOrNew(*record.rootId);
          if constexpr (requires { record.childNodes; }) {
            for (rrweb::Node& child : record.childNodes) self(self, child);
          }
        },
        current.value);
  };
  visit(visit, translated);
  return translated;
}

namespace {

// Rewrites ids in place; the first unknown one fails the whole payload, so nothing half-translated is
// ever written.
class Translator {
 public:
  explicit Translator(WebViewRecordingSession& session) : session_(session) {}

  std::expected<rrweb::IncrementalData, TranslationError> operator()(rrweb::IncrementalData data) {
    std::visit([&](auto& record) { translate(record); }, data.value);
    if (error_) return std::unexpected(std::move(*error_));
    return data;
  }

 private:
  void node(std::int64_t& id) {
    if (error_) return;
    if (auto local = session_.idMap->local(id)) {
      id = *local;
    } else {
      error_ = TranslationError{"unknown node id " + std::to_string(id)};
    }
  }
  void node(std::optional<std::int64_t>& id) {
    if (id) node(*id);
  }
  void style(std::int64_t& id) { id = session_.styleIdMap->localOrNew(id); }
  void style(std::optional<std::int64_t>& id) {
    if (id) style(*id);
  }

  void translate(rrweb::MutationData& mutation) {
    for (auto& text : mutation.texts) node(text.id);
    for (auto& attribute : mutation.attributes) node(attribute.id);
    for (auto& remove : mutation.removes) {
      node(remove.parentId);
      node(remove.id);
    }
    // New nodes first: an add may name as its next sibling a node added later in the same mutation.
    for (auto& add : mutation.adds) add.node = translateNewNode(add.node, *session_.idMap);
    for (auto& add : mutation.adds) {
      node(add.parentId);
      node(add.nextId);
    }
  }
  void translate(rrweb::MouseMoveData& moves) {
    for (auto& position : moves.positions) node(position.id);
  }
  void translate(rrweb::MouseInteractionData& interaction) { node(interaction.id); }
  void translate(rrweb::ScrollData& scroll) { node(scroll.id); }
  void translate(rrweb::ViewportResizeData&) {
    error_ = TranslationError{"a page's viewport is the web view's frame"};
  }
  void translate(rrweb::InputData& input) { node(input.id); }
  void translate(rrweb::MediaInteractionData& media) { node(media.id); }
  void translate(rrweb::StyleSheetRuleData& rule) {
    node(rule.id);
    style(rule.styleId);
  }
  void translate(rrweb::CanvasMutationData& canvas) { node(canvas.id); }
  void translate(rrweb::FontData&) {}
  void translate(rrweb::StyleDeclarationData& declaration) {
    node(declaration.id);
    style(declaration.styleId);
  }
  void translate(rrweb::SelectionData& selection) {
    for (auto& range : selection.ranges) {
      node(range.start);
      node(range.end);
    }
  }
  void translate(rrweb::AdoptedStyleSheetData& adopted) {
    node(adopted.id);
    for (auto& id : adopted.styleIds) style(id);
    if (adopted.styles) {
      for (auto& sheet : *adopted.styles) style(sheet.styleId);
    }
  }
  void translate(rrweb::CustomElementData&) {}

  WebViewRecordingSession& session_;
  std::optional<TranslationError> error_;
};

}  // namespace

std::expected<rrweb::IncrementalData, TranslationError> translate(const rrweb::IncrementalData& data,
                                                                  WebViewRecordingSession& session) {
  return Translator(session)(data);
}

}  // namespace verdalune::sessionreplay
