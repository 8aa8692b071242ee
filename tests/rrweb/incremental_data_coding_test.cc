#include <gtest/gtest.h>

#include <optional>

#include "rrweb/coding.h"
#include "rrweb/coding_checks.h"

namespace verdalune::sessionreplay::rrweb {
namespace {

// Each payload encodes to exactly its JSON and decodes back to itself.
TEST(IncrementalDataCoding, EachPayloadWritesItsSourceAndOnlyTheFieldsItHas) {
  const MousePosition position{.x = 1.5, .y = 2, .id = 3, .timeOffset = -16};
  const std::pair<IncrementalData, std::string_view> cases[] = {
      // An absent text value and an absent nextId are left out; a null attribute value (a removed
      // attribute) is a value of the page's own and stays null.
      {MutationData{.texts = {{.id = 1, .value = "a"}, {.id = 2}},
                    .attributes = {{.id = 3, .attributes = {{"class", "x"}, {"hidden", nullptr}}}},
                    .removes = {{.parentId = 4, .id = 5}, {.parentId = 4, .id = 6, .isShadow = true}},
                    .adds = {{.parentId = 4, .nextId = 8, .node = TextNode{.id = 7, .textContent = "t"}},
                             {.parentId = 4, .node = ElementNode{.id = 9, .tagName = "p", .childNodes = {}}}},
                    .isAttachIframe = true},
       R"({"adds":[{"nextId":8,"node":{"id":7,"textContent":"t","type":3},"parentId":4},)"
       R"({"node":{"attributes":{},"childNodes":[],"id":9,"tagName":"p","type":2},"parentId":4}],)"
       R"("attributes":[{"attributes":{"class":"x","hidden":null},"id":3}],"isAttachIframe":true,)"
       R"("removes":[{"id":5,"parentId":4},{"id":6,"isShadow":true,"parentId":4}],"source":0,)"
       R"("texts":[{"id":1,"value":"a"},{"id":2}]})"},
      {MutationData{}, R"({"adds":[],"attributes":[],"removes":[],"source":0,"texts":[]})"},
      // Mouse moves and touch moves share one record but keep their own source.
      {MouseMoveData{.positions = {position}},
       R"({"positions":[{"id":3,"timeOffset":-16,"x":1.5,"y":2}],"source":1})"},
      {MouseMoveData{.source = IncrementalSource::touchMove}, R"({"positions":[],"source":6})"},
      {MouseInteractionData{.type = MouseInteraction::touchEnd,
                            .id = 4,
                            .x = 10.25,
                            .y = 20,
                            .pointerType = PointerType::touch},
       R"({"id":4,"pointerType":2,"source":2,"type":9,"x":10.25,"y":20})"},
      {ScrollData{.id = 1, .x = 0, .y = 120.5}, R"({"id":1,"source":3,"x":0,"y":120.5})"},
      {ViewportResizeData{.width = 390, .height = 844.25}, R"({"height":844.25,"source":4,"width":390})"},
      {SelectionData{.ranges = {{.start = 1, .startOffset = 0, .end = 2, .endOffset = 5}}},
       R"({"ranges":[{"end":2,"endOffset":5,"start":1,"startOffset":0}],"source":14})"},
      {InputData{.id = 5, .text = "****"}, R"({"id":5,"isChecked":false,"source":5,"text":"****"})"},
      {InputData{.id = 5, .text = "", .isChecked = true, .userTriggered = true},
       R"({"id":5,"isChecked":true,"source":5,"text":"","userTriggered":true})"},
      // Single-precision fields are written in the shortest text of the float, not of the double.
      {MediaInteractionData{.type = MediaInteraction::pause,
                            .id = 8,
                            .currentTime = 1.5f,
                            .volume = 0.1f,
                            .muted = false,
                            .loop = true,
                            .playbackRate = 1.25f},
       R"({"currentTime":1.5,"id":8,"loop":true,"muted":false,"playbackRate":1.25,"source":7,"type":1,"volume":0.1})"},
      // A style sheet rule's index is a bare number only when it holds one element.
      {StyleSheetRuleData{.id = 3,
                          .removes = {{.index = {4}}, {.index = {1, 2}}, {.index = {}}},
                          .adds = {{.rule = "a{}", .index = std::vector<std::int64_t>{4}},
                                   {.rule = "b{}", .index = std::vector<std::int64_t>{1, 2}},
                                   {.rule = "c{}", .index = std::vector<std::int64_t>{}},
                                   {.rule = "d{}"}},
                          .replace = "x"},
       R"({"adds":[{"index":4,"rule":"a{}"},{"index":[1,2],"rule":"b{}"},{"index":[],"rule":"c{}"},{"rule":"d{}"}],)"
       R"("id":3,"removes":[{"index":4},{"index":[1,2]},{"index":[]}],"replace":"x","source":8})"},
      {StyleSheetRuleData{.styleId = 2, .replaceSync = "p{}"},
       R"({"adds":[],"removes":[],"replaceSync":"p{}","source":8,"styleId":2})"},
      // A style declaration's index is always a list.
      {StyleDeclarationData{
           .id = 1,
           .index = {0, 2},
           .set = StyleDeclarationSet{.property = "color", .value = "red", .priority = "important"}},
       R"({"id":1,"index":[0,2],"set":{"priority":"important","property":"color","value":"red"},"source":13})"},
      {StyleDeclarationData{
           .styleId = 4, .index = {5}, .remove = StyleDeclarationRemove{.property = "color"}},
       R"({"index":[5],"remove":{"property":"color"},"source":13,"styleId":4})"},
      // Absent canvas arguments are written as null.
      {CanvasMutationData{.id = 9,
                          .type = CanvasContext::webGL2,
                          .commands = {{.property = "fillRect",
                                        .args = {JSONValue(0), std::nullopt, JSONValue("red")},
                                        .setter = true},
                                       {.property = "clear"}}},
       R"({"commands":[{"args":[0,null,"red"],"property":"fillRect","setter":true},{"args":[],"property":"clear"}],)"
       R"("id":9,"source":9,"type":2})"},
      {FontData{.family = "Inter",
                .fontSource = "url(inter.woff2)",
                .buffer = false,
                .descriptors = {{"weight", "700"}, {"style", "italic"}}},
       R"({"buffer":false,"descriptors":{"style":"italic","weight":"700"},"family":"Inter",)"
       R"js("fontSource":"url(inter.woff2)","source":10})js"},
      {AdoptedStyleSheetData{.id = 1,
                             .styles =
                                 std::vector<AdoptedStyleSheetStyle>{
                                     {.styleId = 2, .rules = {{.rule = "a{}", .index = {{0}}}}}},
                             .styleIds = {2}},
       R"({"id":1,"source":15,"styleIds":[2],"styles":[{"rules":[{"index":0,"rule":"a{}"}],"styleId":2}]})"},
      {AdoptedStyleSheetData{.id = 1}, R"({"id":1,"source":15,"styleIds":[]})"},
      {CustomElementData{.define = CustomElementDataDefine{.name = "x-el"}},
       R"({"define":{"name":"x-el"},"source":16})"},
      {CustomElementData{}, R"({"source":16})"},
  };
  for (const auto& [data, json] : cases) expectCoding(data, json);
  EXPECT_FALSE(IncrementalData(MouseMoveData{.source = IncrementalSource::touchMove}) ==
               IncrementalData(MouseMoveData{}));
}

TEST(IncrementalDataCoding, ReadsTheRecordersNullsAndOneElementRuleIndexesBack) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {R"({"source":0,"texts":[{"id":1,"value":null}],"attributes":[],"removes":[],)"
       R"("adds":[{"parentId":4,"nextId":null,"node":{"type":5,"id":2,"textContent":""}}]})",
       R"({"adds":[{"node":{"id":2,"textContent":"","type":5},"parentId":4}],"attributes":[],"removes":[],)"
       R"("source":0,"texts":[{"id":1}]})"},
      {R"({"source":8,"adds":[{"rule":"a","index":[4]}],"removes":[{"index":[7]}]})",
       R"({"adds":[{"index":4,"rule":"a"}],"removes":[{"index":7}],"source":8})"},
  };
  for (const auto& [json, written] : cases) {
    const auto data = decodeIncrementalData(json);
    ASSERT_TRUE(data.has_value()) << explain(data.error());
    EXPECT_EQ(encode(*data), written);
  }
}

}  // namespace
}  // namespace verdalune::sessionreplay::rrweb
