#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "rrweb/json_value.h"
#include "rrweb/nodes.h"

namespace verdalune::sessionreplay::rrweb {

// The payloads of incremental snapshots. Every payload record stores its own `source`; the JSON form
// writes it, and decoding reads it first to pick the record. Optional fields are left out of the JSON
// when absent.

enum class IncrementalSource : std::int64_t {
  mutation = 0,
  mouseMove = 1,
  mouseInteraction = 2,
  scroll = 3,
  viewportResize = 4,
  input = 5,
  touchMove = 6,
  mediaInteraction = 7,
  styleSheetRule = 8,
  canvasMutation = 9,
  font = 10,
  log = 11,  // a source code only: no payload record exists for it, and decoding one fails
  drag = 12,
  styleDeclaration = 13,
  selection = 14,
  adoptedStyleSheet = 15,
  customElement = 16,
};

enum class MouseInteraction : std::int64_t {
  mouseUp = 0,
  mouseDown = 1,
  click = 2,
  contextMenu = 3,
  dblClick = 4,
  focus = 5,
  blur = 6,
  touchStart = 7,
  touchMoveDeparted = 8,
  touchEnd = 9,
  touchCancel = 10,
};

enum class PointerType : std::int64_t {
  mouse = 0,
  pen = 1,
  touch = 2,
};

enum class MediaInteraction : std::int64_t {
  play = 0,
  pause = 1,
  seeked = 2,
  volumeChange = 3,
  rateChange = 4,
};

enum class CanvasContext : std::int64_t {
  twoDimensional = 0,
  webGL = 1,
  webGL2 = 2,
};

// Records nested inside payloads.

// `value` absent is left out of the JSON, not written as null.
struct TextMutation {
  std::int64_t id = 0;
  std::optional<std::string> value{};

  bool operator==(const TextMutation&) const = default;
};

struct AttributeMutation {
  std::int64_t id = 0;
  JSONValue::Dictionary attributes{};

  bool operator==(const AttributeMutation&) const = default;
};

struct RemovedNodeMutation {
  std::int64_t parentId = 0;
  std::int64_t id = 0;
  std::optional<bool> isShadow{};

  bool operator==(const RemovedNodeMutation&) const = default;
};

// `nextId` absent (the node is its parent's last child) is left out, not written as null.
struct AddedNodeMutation {
  std::int64_t parentId = 0;
  std::optional<std::int64_t> nextId{};
  Node node{};

  bool operator==(const AddedNodeMutation&) const = default;
};

struct MousePosition {
  double x = 0;
  double y = 0;
  std::int64_t id = 0;
  std::int64_t timeOffset = 0;  // milliseconds

  bool operator==(const MousePosition&) const = default;
};

// `index` is written as a bare number when it holds exactly one element, otherwise as an array.
struct StyleSheetAddRule {
  std::string rule{};
  std::optional<std::vector<std::int64_t>> index{};

  bool operator==(const StyleSheetAddRule&) const = default;
};

// `index` is written as a bare number when it holds exactly one element, otherwise as an array.
struct StyleSheetDeleteRule {
  std::vector<std::int64_t> index{};

  bool operator==(const StyleSheetDeleteRule&) const = default;
};

struct StyleDeclarationSet {
  std::string property{};
  std::optional<std::string> value{};
  std::optional<std::string> priority{};

  bool operator==(const StyleDeclarationSet&) const = default;
};

struct StyleDeclarationRemove {
  std::string property{};

  bool operator==(const StyleDeclarationRemove&) const = default;
};

// An absent argument is written as null: the one place the JSON form holds a null of ours.
struct CanvasMutationCommand {
  std::string property{};
  std::vector<std::optional<JSONValue>> args{};
  std::optional<bool> setter{};

  bool operator==(const CanvasMutationCommand&) const = default;
};

struct SelectionRange {
  std::int64_t start = 0;
  std::int64_t startOffset = 0;
  std::int64_t end = 0;
  std::int64_t endOffset = 0;

  bool operator==(const SelectionRange&) const = default;
};

struct AdoptedStyleSheetStyle {
  std::int64_t styleId = 0;
  std::vector<StyleSheetAddRule> rules{};

  bool operator==(const AdoptedStyleSheetStyle&) const = default;
};

struct CustomElementDataDefine {
  std::string name{};

  bool operator==(const CustomElementDataDefine&) const = default;
};

// Payload records.

struct MutationData {
  IncrementalSource source = IncrementalSource::mutation;
  std::vector<TextMutation> texts{};
  std::vector<AttributeMutation> attributes{};
  std::vector<RemovedNodeMutation> removes{};
  std::vector<AddedNodeMutation> adds{};
  std::optional<bool> isAttachIframe{};

  bool operator==(const MutationData&) const = default;
};

// Also the payload of touchMove and drag: `source` says which of the three it is.
struct MouseMoveData {
  IncrementalSource source = IncrementalSource::mouseMove;
  std::vector<MousePosition> positions{};

  bool operator==(const MouseMoveData&) const = default;
};

struct MouseInteractionData {
  IncrementalSource source = IncrementalSource::mouseInteraction;
  MouseInteraction type = MouseInteraction::mouseUp;
  std::int64_t id = 0;
  std::optional<double> x{};
  std::optional<double> y{};
  std::optional<PointerType> pointerType{};

  bool operator==(const MouseInteractionData&) const = default;
};

struct ScrollData {
  IncrementalSource source = IncrementalSource::scroll;
  std::int64_t id = 0;
  double x = 0;
  double y = 0;

  bool operator==(const ScrollData&) const = default;
};

struct ViewportResizeData {
  IncrementalSource source = IncrementalSource::viewportResize;
  double width = 0;
  double height = 0;

  bool operator==(const ViewportResizeData&) const = default;
};

struct InputData {
  IncrementalSource source = IncrementalSource::input;
  std::int64_t id = 0;
  std::string text{};
  bool isChecked = false;
  std::optional<bool> userTriggered{};

  bool operator==(const InputData&) const = default;
};

struct MediaInteractionData {
  IncrementalSource source = IncrementalSource::mediaInteraction;
  MediaInteraction type = MediaInteraction::play;
  std::int64_t id = 0;
  std::optional<float> currentTime{};
  std::optional<float> volume{};
  std::optional<bool> muted{};
  std::optional<bool> loop{};
  std::optional<float> playbackRate{};

  bool operator==(const MediaInteractionData&) const = default;
};

struct StyleSheetRuleData {
  IncrementalSource source = IncrementalSource::styleSheetRule;
  std::optional<std::int64_t> id{};
  std::optional<std::int64_t> styleId{};
  std::vector<StyleSheetDeleteRule> removes{};
  std::vector<StyleSheetAddRule> adds{};
  std::optional<std::string> replace{};
  std::optional<std::string> replaceSync{};

  bool operator==(const StyleSheetRuleData&) const = default;
};

struct CanvasMutationData {
  IncrementalSource source = IncrementalSource::canvasMutation;
  std::int64_t id = 0;
  CanvasContext type = CanvasContext::twoDimensional;
  std::vector<CanvasMutationCommand> commands{};

  bool operator==(const CanvasMutationData&) const = default;
};

struct FontData {
  IncrementalSource source = IncrementalSource::font;
  std::string family{};
  std::string fontSource{};
  bool buffer = false;
  JSONValue::Dictionary descriptors{};

  bool operator==(const FontData&) const = default;
};

// `index` here is always an array, unlike the style sheet rules' index.
struct StyleDeclarationData {
  IncrementalSource source = IncrementalSource::styleDeclaration;
  std::optional<std::int64_t> id{};
  std::optional<std::int64_t> styleId{};
  std::vector<std::int64_t> index{};
  std::optional<StyleDeclarationSet> set{};
  std::optional<StyleDeclarationRemove> remove{};

  bool operator==(const StyleDeclarationData&) const = default;
};

struct SelectionData {
  IncrementalSource source = IncrementalSource::selection;
  std::vector<SelectionRange> ranges{};

  bool operator==(const SelectionData&) const = default;
};

struct AdoptedStyleSheetData {
  IncrementalSource source = IncrementalSource::adoptedStyleSheet;
  std::int64_t id = 0;
  std::optional<std::vector<AdoptedStyleSheetStyle>> styles{};
  std::vector<std::int64_t> styleIds{};

  bool operator==(const AdoptedStyleSheetData&) const = default;
};

struct CustomElementData {
  IncrementalSource source = IncrementalSource::customElement;
  std::optional<CustomElementDataDefine> define{};

  bool operator==(const CustomElementData&) const = default;
};

// One incremental payload of any source but `log`. Its JSON form is the carried record's, with no
// wrapper. mouseMove, touchMove and drag all carry a MouseMoveData and are told apart by its `source`.
struct IncrementalData {
  using Value =
      std::variant<MutationData, MouseMoveData, MouseInteractionData, ScrollData, ViewportResizeData,
                   InputData, MediaInteractionData, StyleSheetRuleData, CanvasMutationData, FontData,
                   StyleDeclarationData, SelectionData, AdoptedStyleSheetData, CustomElementData>;

  Value value;

  IncrementalData() = default;
  template <std::convertible_to<Value> Record>
  IncrementalData(Record record) : value(std::move(record)) {}

  // The carried record's own `source`.
  [[nodiscard]] IncrementalSource source() const {
    return std::visit([](const auto& record) { return record.source; }, value);
  }

  bool operator==(const IncrementalData&) const = default;
};

}  // namespace verdalune::sessionreplay::rrweb
