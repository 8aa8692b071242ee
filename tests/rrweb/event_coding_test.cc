#include <gtest/gtest.h>

#include <string>

#include "rrweb/coding.h"
#include "rrweb/coding_checks.h"

namespace verdalune::sessionreplay::rrweb {
namespace {

// Each event encodes to exactly its JSON and decodes back to itself.
TEST(EventCoding, EachEventWritesItsTypeAndItsFieldsUnderData) {
  const std::pair<Event, std::string_view> cases[] = {
      // Content-less events have only timestamp and type.
      {DomContentLoadedEvent{.timestamp = 1700000000123}, R"({"timestamp":1700000000123,"type":0})"},
      {LoadedEvent{.timestamp = -5}, R"({"timestamp":-5,"type":1})"},
      // Integral doubles are written without a fraction; slashes are escaped as the stored form has them.
      {MetaEvent{.timestamp = 10, .href = "https://example.com/a", .width = 390, .height = 844.5},
       R"({"data":{"height":844.5,"href":"https:\/\/example.com\/a","width":390},"timestamp":10,"type":4})"},
      {CustomEvent{.timestamp = 13,
                   .tag = "checkout",
                   .payload = JSONValue::Dictionary{{"z", JSONValue::Array{1, 2.5, true, nullptr, "x"}},
                                                    {"a", JSONValue::Dictionary{}}}},
       R"({"data":{"payload":{"a":{},"z":[1,2.5,true,null,"x"]},"tag":"checkout"},"timestamp":13,"type":5})"},
      {PluginEvent{.timestamp = 14, .plugin = "rrweb/console@1", .payload = "hi"},
       R"({"data":{"payload":"hi","plugin":"rrweb\/console@1"},"timestamp":14,"type":6})"},
      // An incremental snapshot writes the payload itself as data.
      {IncrementalSnapshotEvent{.timestamp = 12, .data = ViewportResizeData{.width = 390, .height = 844}},
       R"({"data":{"height":844,"source":4,"width":390},"timestamp":12,"type":3})"},
  };
  for (const auto& [event, json] : cases) expectCoding(event, json);
}

TEST(EventCoding, FullSnapshotWritesTheTreeAndTheOffsetAsLeftAndTop) {
  const FullSnapshotEvent snapshot{
      .timestamp = 20,
      .node =
          DocumentNode{.id = 1,
                       .childNodes = {DocumentTypeNode{.id = 2, .publicId = "", .systemId = ""},
                                      ElementNode{.id = 3,
                                                  .tagName = "html",
                                                  .attributes = {{"lang", "en"}},
                                                  .childNodes = {TextNode{.id = 4, .textContent = "hi"}}}},
                       .compatMode = CompatMode::css1Compat},
      .initialOffset = {.x = 3, .y = 7}};
  expectCoding(
      Event(snapshot),
      R"({"data":{"initialOffset":{"left":3,"top":7},"node":{"childNodes":[)"
      R"({"id":2,"publicId":"","systemId":"","type":1},)"
      R"({"attributes":{"lang":"en"},"childNodes":[{"id":4,"textContent":"hi","type":3}],"id":3,"tagName":"html","type":2}],)"
      R"("compatMode":"CSS1Compat","id":1,"type":0}},"timestamp":20,"type":2})");
}

TEST(NodeCoding, AbsentOptionalsAreLeftOutAndListsAlwaysWritten) {
  expectCoding(Node(DocumentNode{.id = 1, .childNodes = {}}), R"({"childNodes":[],"id":1,"type":0})");
  expectCoding(Node(ElementNode{.id = 3, .tagName = "div", .childNodes = {}}),
               R"({"attributes":{},"childNodes":[],"id":3,"tagName":"div","type":2})");
  expectCoding(Node(DocumentTypeNode{.id = 2, .publicId = "-//W3C", .systemId = "about:legacy"}),
               R"({"id":2,"publicId":"-\/\/W3C","systemId":"about:legacy","type":1})");
  expectCoding(Node(CdataNode{.id = 6, .textContent = "x<y"}), R"({"id":6,"textContent":"x<y","type":4})");
  expectCoding(Node(CommentNode{.id = 7, .textContent = "note"}),
               R"({"id":7,"textContent":"note","type":5})");
}

TEST(NodeCoding, PresentOptionalsAreWrittenInKeyOrder) {
  expectCoding(
      Node(DocumentNode{.id = 1,
                        .rootId = 9,
                        .isShadowHost = false,
                        .isShadow = true,
                        .childNodes = {},
                        .compatMode = CompatMode::backCompat}),
      R"({"childNodes":[],"compatMode":"BackCompat","id":1,"isShadow":true,"isShadowHost":false,"rootId":9,"type":0})");
  expectCoding(
      Node(ElementNode{.id = 4,
                       .rootId = 1,
                       .isShadowHost = true,
                       .isShadow = false,
                       .tagName = "svg",
                       .attributes = {{"style", "color: red"}, {"data-n", 2}, {"class", "a"}},
                       .childNodes = {TextNode{.id = 5, .textContent = "p {}", .isStyle = true}},
                       .isSVG = true,
                       .needBlock = false,
                       .isCustom = true}),
      R"({"attributes":{"class":"a","data-n":2,"style":"color: red"},)"
      R"("childNodes":[{"id":5,"isStyle":true,"textContent":"p {}","type":3}],)"
      R"("id":4,"isCustom":true,"isSVG":true,"isShadow":false,"isShadowHost":true,"needBlock":false,)"
      R"("rootId":1,"tagName":"svg","type":2})");
  expectCoding(
      Node(TextNode{.id = 8, .rootId = 2, .isShadowHost = false, .isShadow = true, .textContent = ""}),
      R"({"id":8,"isShadow":true,"isShadowHost":false,"rootId":2,"textContent":"","type":3})");
}

TEST(NodeCoding, DecodingAcceptsAnyKeyOrderAndTreatsNullOptionalsAsAbsent) {
  const auto node = decodeNode(R"({"type":3,"textContent":"a","rootId":null,"id":8,"extra":[1,{}]})");
  ASSERT_TRUE(node.has_value()) << explain(node.error());
  EXPECT_TRUE(*node == Node(TextNode{.id = 8, .textContent = "a"}));
  EXPECT_EQ(node->type(), NodeType::text);
}

}  // namespace
}  // namespace verdalune::sessionreplay::rrweb
