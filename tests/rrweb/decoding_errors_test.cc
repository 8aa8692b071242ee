#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <string>
#include <string_view>

#include "rrweb/coding.h"
#include "rrweb/coding_checks.h"

namespace verdalune::sessionreplay::rrweb {
namespace {

using Kind = DecodeError::Kind;

// A chain of `depth` nested elements inside a document, as a full snapshot event.
std::string snapshotOfDepth(int depth) {
  std::string json = R"({"type":2,"timestamp":1,"data":{"initialOffset":{"left":0,"top":0},"node":)";
  for (int i = 0; i < depth; ++i) {
    json += R"({"type":2,"id":)" + std::to_string(i) + R"(,"tagName":"div","attributes":{},"childNodes":[)";
  }
  json += R"({"type":3,"id":-1,"textContent":""})";
  for (int i = 0; i < depth; ++i) json += "]}";
  return json + "}}";
}

TEST(DecodingErrors, TextThatIsNotOneJsonValue) {
  using namespace std::literals;
  for (std::string_view json : {""sv, "{"sv, "{\"type\":1,\"timestamp\":1} x"sv, "[1,]"sv, "\xFF"sv,
                                "{\"type\":1,\"timestamp\":1}\0{}"sv}) {
    expectFailure<Event>(json, Kind::dataCorrupted, "");
  }
  EXPECT_TRUE(decodeEvent(" {\"type\":1,\"timestamp\":1}\n").has_value());
}

TEST(DecodingErrors, EventTypeMustBeAKnownNumber) {
  expectFailure<Event>(R"({"type":7,"timestamp":1})", Kind::dataCorrupted, "type");
  expectFailure<Event>(R"({"type":-1,"timestamp":1})", Kind::dataCorrupted, "type");
  expectFailure<Event>(R"({"type":"1","timestamp":1})", Kind::typeMismatch, "type");
  expectFailure<Event>(R"({"type":1.5,"timestamp":1})", Kind::typeMismatch, "type");
  expectFailure<Event>(R"({"timestamp":1})", Kind::keyNotFound, "type");
  expectFailure<Event>(R"([{"type":1,"timestamp":1}])", Kind::typeMismatch, "");
}

TEST(DecodingErrors, MissingAndNullRequiredValues) {
  expectFailure<Event>(R"({"type":3,"timestamp":1})", Kind::keyNotFound, "data");
  expectFailure<Event>(R"({"type":1})", Kind::keyNotFound, "timestamp");
  expectFailure<Event>(R"({"type":1,"timestamp":null})", Kind::valueNotFound, "timestamp");
  expectFailure<Event>(R"({"type":5,"timestamp":1,"data":{"tag":"t"}})", Kind::keyNotFound, "data.payload");
  // A payload may be null itself: that is a value of the page's.
  EXPECT_TRUE(decodeEvent(R"({"type":5,"timestamp":1,"data":{"tag":"t","payload":null}})").has_value());
}

TEST(DecodingErrors, PathLeadsToTheFailingNode) {
  const std::string prefix = R"({"type":2,"timestamp":1,"data":{"initialOffset":{"left":0,"top":0},"node":)";
  expectFailure<Event>(
      prefix + R"({"type":0,"id":1,"childNodes":[{"type":5,"id":2,"textContent":""},{"type":6,"id":3}]}}})",
      Kind::dataCorrupted, "data.node.childNodes[1].type");
  expectFailure<Event>(prefix + R"({"type":0,"id":1,"childNodes":[{"type":3,"textContent":""}]}}})",
                       Kind::keyNotFound, "data.node.childNodes[0].id");
  expectFailure<Event>(prefix + R"({"type":0,"id":1,"childNodes":{}}}})", Kind::typeMismatch,
                       "data.node.childNodes");
  expectFailure<Event>(prefix + R"({"type":0,"id":1,"childNodes":[],"compatMode":"Quirks"}}})",
                       Kind::dataCorrupted, "data.node.compatMode");
  expectFailure<Event>(R"({"type":2,"timestamp":1,"data":{"node":{"type":0,"id":1,"childNodes":[]}}})",
                       Kind::keyNotFound, "data.initialOffset");
  expectFailure<Node>(R"({"type":2,"id":1,"tagName":"a","attributes":[],"childNodes":[]})",
                      Kind::typeMismatch, "attributes");
}

TEST(DecodingErrors, IntegersMustBeExactAndFitInt64) {
  const auto node = [](const std::string& id) { return R"({"type":5,"textContent":"","id":)" + id + "}"; };
  expectFailure<Node>(node("3.5"), Kind::typeMismatch, "id");
  expectFailure<Node>(node("\"3\""), Kind::typeMismatch, "id");
  expectFailure<Node>(node("9223372036854775808"), Kind::typeMismatch, "id");
  expectFailure<Node>(node("-1e19"), Kind::typeMismatch, "id");
  expectFailure<Node>(node("true"), Kind::typeMismatch, "id");
  const auto integral = decodeNode(node("3.0"));
  ASSERT_TRUE(integral.has_value()) << explain(integral.error());
  EXPECT_EQ(std::get<CommentNode>(integral->value).id, 3);
}

TEST(DecodingErrors, PayloadSourcesAndEnumerations) {
  expectFailure<IncrementalData>(R"({"positions":[]})", Kind::keyNotFound, "source");
  expectFailure<IncrementalData>(R"({"source":17})", Kind::dataCorrupted, "source");
  expectFailure<IncrementalData>(R"({"source":2,"type":11,"id":1})", Kind::dataCorrupted, "type");
  expectFailure<IncrementalData>(R"({"source":2,"type":1,"id":1,"pointerType":3})", Kind::dataCorrupted,
                                 "pointerType");
  expectFailure<IncrementalData>(R"({"source":7,"type":5,"id":1})", Kind::dataCorrupted, "type");
  expectFailure<IncrementalData>(R"({"source":9,"type":3,"id":1,"commands":[]})", Kind::dataCorrupted,
                                 "type");
  expectFailure<IncrementalData>(R"({"source":7,"type":0,"id":1,"volume":1e39})", Kind::typeMismatch,
                                 "volume");
  expectFailure<IncrementalData>(R"({"source":8,"adds":[],"removes":[{"index":"1"}]})", Kind::typeMismatch,
                                 "removes[0].index");
  expectFailure<IncrementalData>(R"({"source":8,"adds":[{"rule":"a","index":2.5}],"removes":[]})",
                                 Kind::typeMismatch, "adds[0].index");
  expectFailure<IncrementalData>(R"({"source":8,"adds":[],"removes":[{}]})", Kind::keyNotFound,
                                 "removes[0].index");
}

TEST(DecodingErrors, LogPayloadFailsWithoutStopping) {
  expectFailure<IncrementalData>(R"({"source":11,"level":"log","payload":[]})", Kind::dataCorrupted,
                                 "source");
  expectFailure<Event>(R"({"type":3,"timestamp":1,"data":{"source":11}})", Kind::dataCorrupted,
                       "data.source");
}

TEST(DecodingErrors, DeepNestingFailsWithoutExhaustingTheStack) {
  EXPECT_TRUE(decodeEvent(snapshotOfDepth(kMaxNestingDepth - 2)).has_value());
  expectFailure<Event>(snapshotOfDepth(kMaxNestingDepth + 1), Kind::dataCorrupted, [] {
    std::string path = "data.node";
    for (int i = 0; i < kMaxNestingDepth; ++i) path += ".childNodes[0]";
    return path;
  }());
  expectFailure<Event>(snapshotOfDepth(100000), Kind::dataCorrupted, [] {
    std::string path = "data.node";
    for (int i = 0; i < kMaxNestingDepth; ++i) path += ".childNodes[0]";
    return path;
  }());

  const std::string deepArray = std::string(200000, '[') + std::string(200000, ']');
  const auto payload =
      decodeEvent(R"({"type":5,"timestamp":1,"data":{"tag":"t","payload":)" + deepArray + "}}");
  ASSERT_FALSE(payload.has_value());
  EXPECT_EQ(payload.error().kind, Kind::dataCorrupted);
}

TEST(DecodingErrors, AlreadyParsedDocumentsDecodeTheSame) {
  rapidjson::Document document;
  ASSERT_TRUE(
      parseJson(
          R"({"event":{"type":4,"timestamp":2,"data":{"href":"a","width":1,"height":2}},"bad":{"type":9}})",
          document)
          .has_value());
  const auto event = decodeEvent(document["event"]);
  ASSERT_TRUE(event.has_value()) << explain(event.error());
  EXPECT_TRUE(*event == Event(MetaEvent{.timestamp = 2, .href = "a", .width = 1, .height = 2}));
  const auto node = decodeNode(document["bad"]);
  ASSERT_FALSE(node.has_value());
  EXPECT_EQ(node.error().kind, Kind::dataCorrupted);

  // A document parsed elsewhere may hold numbers JSON text cannot.
  document.Parse<rapidjson::kParseNanAndInfFlag>("[1, NaN]");
  const auto value = decodeJSONValue(document);
  ASSERT_FALSE(value.has_value());
  EXPECT_EQ(value.error().kind, Kind::typeMismatch);
  EXPECT_EQ(value.error().path, "[1]");
}

TEST(DecodingErrors, KindsHaveStableNames) {
  EXPECT_EQ(describe(Kind::dataCorrupted), "dataCorrupted");
  EXPECT_EQ(describe(Kind::keyNotFound), "keyNotFound");
  EXPECT_EQ(describe(Kind::typeMismatch), "typeMismatch");
  EXPECT_EQ(describe(Kind::valueNotFound), "valueNotFound");
}

}  // namespace
}  // namespace verdalune::sessionreplay::rrweb
