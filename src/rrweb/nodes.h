#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "rrweb/json_value.h"

namespace verdalune::sessionreplay::rrweb {

// The serialized DOM that a full snapshot carries and that mutations add. Each record stores its own
// `type`; the JSON form writes it, and decoding reads it first to pick the record.
//
// Node records cannot give `childNodes` a default member initializer (Node is incomplete there), so
// designated initializers should name it, or g++ warns about the missing field.

enum class NodeType : std::int64_t {
  document = 0,
  documentType = 1,
  element = 2,
  text = 3,
  CDATA = 4,
  comment = 5,
};

// Written as its text: "BackCompat", "CSS1Compat".
enum class CompatMode {
  backCompat,
  css1Compat,
};

struct Node;

struct DocumentNode {
  std::int64_t id = 0;
  std::optional<std::int64_t> rootId{};
  std::optional<bool> isShadowHost{};
  std::optional<bool> isShadow{};
  NodeType type = NodeType::document;
  std::vector<Node> childNodes;
  std::optional<CompatMode> compatMode{};

  bool operator==(const DocumentNode&) const = default;
};

// Carries only the two identifiers of the doctype, not its name.
struct DocumentTypeNode {
  std::int64_t id = 0;
  std::optional<std::int64_t> rootId{};
  std::optional<bool> isShadowHost{};
  std::optional<bool> isShadow{};
  NodeType type = NodeType::documentType;
  std::string publicId{};
  std::string systemId{};

  bool operator==(const DocumentTypeNode&) const = default;
};

struct ElementNode {
  std::int64_t id = 0;
  std::optional<std::int64_t> rootId{};
  std::optional<bool> isShadowHost{};
  std::optional<bool> isShadow{};
  NodeType type = NodeType::element;
  std::string tagName{};
  JSONValue::Dictionary attributes{};
  std::vector<Node> childNodes;
  std::optional<bool> isSVG{};
  std::optional<bool> needBlock{};
  std::optional<bool> isCustom{};

  bool operator==(const ElementNode&) const = default;
};

struct TextNode {
  std::int64_t id = 0;
  std::optional<std::int64_t> rootId{};
  std::optional<bool> isShadowHost{};
  std::optional<bool> isShadow{};
  NodeType type = NodeType::text;
  std::string textContent{};
  std::optional<bool> isStyle{};

  bool operator==(const TextNode&) const = default;
};

struct CdataNode {
  std::int64_t id = 0;
  std::optional<std::int64_t> rootId{};
  std::optional<bool> isShadowHost{};
  std::optional<bool> isShadow{};
  NodeType type = NodeType::CDATA;
  std::string textContent{};

  bool operator==(const CdataNode&) const = default;
};

struct CommentNode {
  std::int64_t id = 0;
  std::optional<std::int64_t> rootId{};
  std::optional<bool> isShadowHost{};
  std::optional<bool> isShadow{};
  NodeType type = NodeType::comment;
  std::string textContent{};

  bool operator==(const CommentNode&) const = default;
};

// One node of any kind. Its JSON form is the carried record's, with no wrapper.
struct Node {
  using Value = std::variant<DocumentNode, DocumentTypeNode, ElementNode, TextNode, CdataNode, CommentNode>;

  Value value;

  Node() = default;
  template <std::convertible_to<Value> Record>
  Node(Record record) : value(std::move(record)) {}

  // The carried record's own `type`.
  [[nodiscard]] NodeType type() const {
    return std::visit([](const auto& record) { return record.type; }, value);
  }

  bool operator==(const Node&) const = default;
};

}  // namespace verdalune::sessionreplay::rrweb
