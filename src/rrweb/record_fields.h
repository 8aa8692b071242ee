#pragma once

// Internal to the rrweb coders: each record's JSON keys, listed once for the encoder and the decoder.
//
// `fields(visitor, record)` hands every key of a record with its member to the visitor, in byte-wise
// ascending key order, because the encoder writes the keys in the order it is given them and the stored
// form is sorted. The visitor decides what a call means:
//   field(key, member)         a value; a std::optional member is left out when absent
//   numberOrList(key, member)  a list of integers written as a bare number when it holds exactly one
//   object(key, fn)            a nested object whose keys fn(visitor) visits
// `record` is const when encoding and mutable when decoding.

#include <concepts>
#include <cstdint>
#include <optional>
#include <string_view>
#include <type_traits>

#include "rrweb/events.h"

namespace verdalune::sessionreplay::rrweb::detail {

// R is one of Ts, const or not.
template <typename R, typename... Ts>
concept Self = (std::same_as<std::remove_const_t<R>, Ts> || ...);

// Events. The content-less kinds have only "timestamp" and "type"; the others nest their fields under
// "data", except IncrementalSnapshotEvent whose payload is itself the "data" object.

template <typename V>
void fields(V& v, Self<DomContentLoadedEvent, LoadedEvent> auto& e) {
  v.field("timestamp", e.timestamp);
  v.field("type", e.type);
}

template <typename V>
void fields(V& v, Self<IncrementalSnapshotEvent> auto& e) {
  v.field("data", e.data);
  v.field("timestamp", e.timestamp);
  v.field("type", e.type);
}

template <typename V, typename E, typename DataFields>
void eventWithData(V& v, E& e, DataFields&& dataFields) {
  v.object("data", dataFields);
  v.field("timestamp", e.timestamp);
  v.field("type", e.type);
}

template <typename V>
void fields(V& v, Self<FullSnapshotEvent> auto& e) {
  eventWithData(v, e, [&](V& data) {
    data.field("initialOffset", e.initialOffset);
    data.field("node", e.node);
  });
}

template <typename V>
void fields(V& v, Self<MetaEvent> auto& e) {
  eventWithData(v, e, [&](V& data) {
    data.field("height", e.height);
    data.field("href", e.href);
    data.field("width", e.width);
  });
}

template <typename V>
void fields(V& v, Self<CustomEvent> auto& e) {
  eventWithData(v, e, [&](V& data) {
    data.field("payload", e.payload);
    data.field("tag", e.tag);
  });
}

template <typename V>
void fields(V& v, Self<PluginEvent> auto& e) {
  eventWithData(v, e, [&](V& data) {
    data.field("payload", e.payload);
    data.field("plugin", e.plugin);
  });
}

template <typename V>
void fields(V& v, Self<Point> auto& p) {
  v.field("left", p.x);
  v.field("top", p.y);
}

// Nodes.

template <typename V>
void fields(V& v, Self<DocumentNode> auto& n) {
  v.field("childNodes", n.childNodes);
  v.field("compatMode", n.compatMode);
  v.field("id", n.id);
  v.field("isShadow", n.isShadow);
  v.field("isShadowHost", n.isShadowHost);
  v.field("rootId", n.rootId);
  v.field("type", n.type);
}

template <typename V>
void fields(V& v, Self<DocumentTypeNode> auto& n) {
  v.field("id", n.id);
  v.field("isShadow", n.isShadow);
  v.field("isShadowHost", n.isShadowHost);
  v.field("publicId", n.publicId);
  v.field("rootId", n.rootId);
  v.field("systemId", n.systemId);
  v.field("type", n.type);
}

template <typename V>
void fields(V& v, Self<ElementNode> auto& n) {
  v.field("attributes", n.attributes);
  v.field("childNodes", n.childNodes);
  v.field("id", n.id);
  v.field("isCustom", n.isCustom);
  v.field("isSVG", n.isSVG);
  v.field("isShadow", n.isShadow);
  v.field("isShadowHost", n.isShadowHost);
  v.field("needBlock", n.needBlock);
  v.field("rootId", n.rootId);
  v.field("tagName", n.tagName);
  v.field("type", n.type);
}

template <typename V>
void fields(V& v, Self<TextNode> auto& n) {
  v.field("id", n.id);
  v.field("isShadow", n.isShadow);
  v.field("isShadowHost", n.isShadowHost);
  v.field("isStyle", n.isStyle);
  v.field("rootId", n.rootId);
  v.field("textContent", n.textContent);
  v.field("type", n.type);
}

// CDATA and comment nodes have the same keys.
template <typename V>
void fields(V& v, Self<CdataNode, CommentNode> auto& n) {
  v.field("id", n.id);
  v.field("isShadow", n.isShadow);
  v.field("isShadowHost", n.isShadowHost);
  v.field("rootId", n.rootId);
  v.field("textContent", n.textContent);
  v.field("type", n.type);
}

// Incremental payloads.

template <typename V>
void fields(V& v, Self<MutationData> auto& d) {
  v.field("adds", d.adds);
  v.field("attributes", d.attributes);
  v.field("isAttachIframe", d.isAttachIframe);
  v.field("removes", d.removes);
  v.field("source", d.source);
  v.field("texts", d.texts);
}

template <typename V>
void fields(V& v, Self<MouseMoveData> auto& d) {
  v.field("positions", d.positions);
  v.field("source", d.source);
}

template <typename V>
void fields(V& v, Self<MouseInteractionData> auto& d) {
  v.field("id", d.id);
  v.field("pointerType", d.pointerType);
  v.field("source", d.source);
  v.field("type", d.type);
  v.field("x", d.x);
  v.field("y", d.y);
}

template <typename V>
void fields(V& v, Self<ScrollData> auto& d) {
  v.field("id", d.id);
  v.field("source", d.source);
  v.field("x", d.x);
  v.field("y", d.y);
}

template <typename V>
void fields(V& v, Self<ViewportResizeData> auto& d) {
  v.field("height", d.height);
  v.field("source", d.source);
  v.field("width", d.width);
}

template <typename V>
void fields(V& v, Self<InputData> auto& d) {
  v.field("id", d.id);
  v.field("isChecked", d.isChecked);
  v.field("source", d.source);
  v.field("text", d.text);
  v.field("userTriggered", d.userTriggered);
}

template <typename V>
void fields(V& v, Self<MediaInteractionData> auto& d) {
  v.field("currentTime", d.currentTime);
  v.field("id", d.id);
  v.field("loop", d.loop);
  v.field("muted", d.muted);
  v.field("playbackRate", d.playbackRate);
  v.field("source", d.source);
  v.field("type", d.type);
  v.field("volume", d.volume);
}

template <typename V>
void fields(V& v, Self<StyleSheetRuleData> auto& d) {
  v.field("adds", d.adds);
  v.field("id", d.id);
  v.field("removes", d.removes);
  v.field("replace", d.replace);
  v.field("replaceSync", d.replaceSync);
  v.field("source", d.source);
  v.field("styleId", d.styleId);
}

template <typename V>
void fields(V& v, Self<CanvasMutationData> auto& d) {
  v.field("commands", d.commands);
  v.field("id", d.id);
  v.field("source", d.source);
  v.field("type", d.type);
}

template <typename V>
void fields(V& v, Self<FontData> auto& d) {
  v.field("buffer", d.buffer);
  v.field("descriptors", d.descriptors);
  v.field("family", d.family);
  v.field("fontSource", d.fontSource);
  v.field("source", d.source);
}

template <typename V>
void fields(V& v, Self<StyleDeclarationData> auto& d) {
  v.field("id", d.id);
  v.field("index", d.index);
  v.field("remove", d.remove);
  v.field("set", d.set);
  v.field("source", d.source);
  v.field("styleId", d.styleId);
}

template <typename V>
void fields(V& v, Self<SelectionData> auto& d) {
  v.field("ranges", d.ranges);
  v.field("source", d.source);
}

template <typename V>
void fields(V& v, Self<AdoptedStyleSheetData> auto& d) {
  v.field("id", d.id);
  v.field("source", d.source);
  v.field("styleIds", d.styleIds);
  v.field("styles", d.styles);
}

template <typename V>
void fields(V& v, Self<CustomElementData> auto& d) {
  v.field("define", d.define);
  v.field("source", d.source);
}

// Records nested in payloads.

template <typename V>
void fields(V& v, Self<TextMutation> auto& m) {
  v.field("id", m.id);
  v.field("value", m.value);
}

template <typename V>
void fields(V& v, Self<AttributeMutation> auto& m) {
  v.field("attributes", m.attributes);
  v.field("id", m.id);
}

template <typename V>
void fields(V& v, Self<RemovedNodeMutation> auto& m) {
  v.field("id", m.id);
  v.field("isShadow", m.isShadow);
  v.field("parentId", m.parentId);
}

template <typename V>
void fields(V& v, Self<AddedNodeMutation> auto& m) {
  v.field("nextId", m.nextId);
  v.field("node", m.node);
  v.field("parentId", m.parentId);
}

template <typename V>
void fields(V& v, Self<MousePosition> auto& p) {
  v.field("id", p.id);
  v.field("timeOffset", p.timeOffset);
  v.field("x", p.x);
  v.field("y", p.y);
}

template <typename V>
void fields(V& v, Self<StyleSheetAddRule> auto& r) {
  v.numberOrList("index", r.index);
  v.field("rule", r.rule);
}

template <typename V>
void fields(V& v, Self<StyleSheetDeleteRule> auto& r) {
  v.numberOrList("index", r.index);
}

template <typename V>
void fields(V& v, Self<StyleDeclarationSet> auto& s) {
  v.field("priority", s.priority);
  v.field("property", s.property);
  v.field("value", s.value);
}

template <typename V>
void fields(V& v, Self<StyleDeclarationRemove> auto& r) {
  v.field("property", r.property);
}

template <typename V>
void fields(V& v, Self<CanvasMutationCommand> auto& c) {
  v.field("args", c.args);
  v.field("property", c.property);
  v.field("setter", c.setter);
}

template <typename V>
void fields(V& v, Self<SelectionRange> auto& r) {
  v.field("end", r.end);
  v.field("endOffset", r.endOffset);
  v.field("start", r.start);
  v.field("startOffset", r.startOffset);
}

template <typename V>
void fields(V& v, Self<AdoptedStyleSheetStyle> auto& s) {
  v.field("rules", s.rules);
  v.field("styleId", s.styleId);
}

template <typename V>
void fields(V& v, Self<CustomElementDataDefine> auto& d) {
  v.field("name", d.name);
}

// A struct coded as an object of its fields above.
struct AnyVisitor {};
template <typename T>
concept Record = requires(AnyVisitor& v, T& record) {
  fields(v, record);
};

// Enumerations coded as their integer raw values: the type's name for messages and its last case (all
// start at 0 and have no gaps).
struct EnumInfo {
  std::string_view name;
  std::int64_t last;
};
constexpr EnumInfo enumInfo(EventType) {
  return {"EventType", 6};
}
constexpr EnumInfo enumInfo(NodeType) {
  return {"NodeType", 5};
}
constexpr EnumInfo enumInfo(IncrementalSource) {
  return {"IncrementalSource", 16};
}
constexpr EnumInfo enumInfo(MouseInteraction) {
  return {"MouseInteraction", 10};
}
constexpr EnumInfo enumInfo(PointerType) {
  return {"PointerType", 2};
}
constexpr EnumInfo enumInfo(MediaInteraction) {
  return {"MediaInteraction", 4};
}
constexpr EnumInfo enumInfo(CanvasContext) {
  return {"CanvasContext", 2};
}

template <typename E>
concept IntegerEnum = std::is_enum_v<E> && requires(E e) {
  enumInfo(e);
};

constexpr std::string_view rawValue(CompatMode mode) {
  return mode == CompatMode::backCompat ? "BackCompat" : "CSS1Compat";
}

}  // namespace verdalune::sessionreplay::rrweb::detail
