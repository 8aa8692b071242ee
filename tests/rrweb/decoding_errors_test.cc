#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <initializer_list>
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

struct Failure {
  std::string json;
  Kind kind;
  std::string path;
};

template <typename T>
void expectFailures(std::initializer_list<Failure> failures) {
  for (const auto& [json, kind, path] : failures) {
    SCOPED_TRACE(json);
    expectFailure<T>(json, kind, path);
  }
}

TEST(DecodingErrors, EventsFailWithTheKindAndPathOfTheBadValue) {
  const std::string snapshot =
      R"({"type":2,"timestamp":1,"data":{"initialOffset":{"left":0,"top":0},"node":)";
  using namespace std::literals;
  expectFailures<Event>({
      // Text that is not one JSON value.
      {"", Kind::dataCorrupted, ""},
      {"{", Kind::dataCorrupted, ""},
      {R"({"type":1,"timestamp":1} x)", Kind::dataCorrupted, ""},
      {"\xFF", Kind::dataCorrupted, ""},
      {std::string("{\"type\":1,\"timestamp\":1}\0{}"sv), Kind::dataCorrupted, ""},
      {R"({"type":7,"timestamp":1})", Kind::dataCorrupted, "type"},
      {R"({"type":"1","timestamp":1})", Kind::typeMismatch, "type"},
      {R"({"timestamp":1})", Kind::keyNotFound, "type"},
      {R"([{"type":1,"timestamp":1}])", Kind::typeMismatch, ""},
      {R"({"type":1,"timestamp":null})", Kind::valueNotFound, "timestamp"},
      {R"({"type":5,"timestamp":1,"data":{"tag":"t"}})", Kind::keyNotFound, "data.payload"},
      {R"({"type":3,"timestamp":1,"data":{"source":11}})", Kind::dataCorrupted, "data.source"},
      {snapshot +
           R"({"type":0,"id":1,"childNodes":[{"type":5,"id":2,"textContent":""},{"type":6,"id":3}]}}})",
       Kind::dataCorrupted, "data.node.childNodes[1].type"},
      {snapshot + R"({"type":0,"id":1,"childNodes":[{"type":3,"textContent":""}]}}})", Kind::keyNotFound,
       "data.node.childNodes[0].id"},
      {snapshot + R"({"type":0,"id":1,"childNodes":{}}}})", Kind::typeMismatch, "data.node.childNodes"},
      {snapshot + R"({"type":0,"id":1,"childNodes":[],"compatMode":"Quirks"}}})", Kind::dataCorrupted,
       "data.node.compatMode"},
  });
  // A payload may be null itself: that is a value of the page's. White space around the value is fine.
  EXPECT_TRUE(decodeEvent(R"({"type":5,"timestamp":1,"data":{"tag":"t","payload":null}})").has_value());
  EXPECT_TRUE(decodeEvent(" {\"type\":1,\"timestamp\":1}\n").has_value());
}

TEST(DecodingErrors, IntegersMustBeExactAndFitInt64) {
  const auto node = [](const std::string& id) { return R"({"type":5,"textContent":"","id":)" + id + "}"; };
  expectFailures<Node>({
      {node("3.5"), Kind::typeMismatch, "id"},
      {node("\"3\""), Kind::typeMismatch, "id"},
      {node("9223372036854775808"), Kind::typeMismatch, "id"},
      {node("-1e19"), Kind::typeMismatch, "id"},
      {R"({"type":2,"id":1,"tagName":"a","attributes":[],"childNodes":[]})", Kind::typeMismatch,
       "attributes"},
  });
  const auto integral = decodeNode(node("3.0"));
  ASSERT_TRUE(integral.has_value()) << explain(integral.error());
  EXPECT_EQ(std::get<CommentNode>(integral->value).id, 3);
}

TEST(DecodingErrors, PayloadSourcesAndEnumerations) {
  expectFailures<IncrementalData>({
      {R"({"positions":[]})", Kind::keyNotFound, "source"},
      {R"({"source":17})", Kind::dataCorrupted, "source"},
      {R"({"source":11,"level":"log","payload":[]})", Kind::dataCorrupted, "source"},
      {R"({"source":2,"type":1,"id":1,"pointerType":3})", Kind::dataCorrupted, "pointerType"},
      {R"({"source":7,"type":0,"id":1,"volume":1e39})", Kind::typeMismatch, "volume"},
      {R"({"source":8,"adds":[{"rule":"a","index":2.5}],"removes":[]})", Kind::typeMismatch, "adds[0].index"},
      {R"({"source":8,"adds":[],"removes":[{}]})", Kind::keyNotFound, "removes[0].index"},
  });
}

TEST(DecodingErrors, DeepNestingFailsWithoutExhaustingTheStack) {
  EXPECT_TRUE(decodeEvent(snapshotOfDepth(kMaxNestingDepth - 2)).has_value());
  std::string path = "data.node";
  for (int i = 0; i < kMaxNestingDepth; ++i) path += ".childNodes[0]";
  expectFailure<Event>(snapshotOfDepth(kMaxNestingDepth + 1), Kind::dataCorrupted, path);
  expectFailure<Event>(snapshotOfDepth(100000), Kind::dataCorrupted, path);

  const std::string deepArray = std::string(200000, '[') + std::string(200000, ']');
  const auto payload =
      decodeEvent(R"({"type":5,"timestamp":1,"data":{"tag":"t","payload":)" + deepArray + "}}");
  ASSERT_FALSE(payload.has_value());
  EXPECT_EQ(payload.error().kind, Kind::dataCorrupted);
}

TEST(DecodingErrors, AlreadyParsedDocumentsDecodeTheSame) {
  rapidjson::Document document;
  const std::string json = R"({"event":{"type":4,"timestamp":2,"data":{"href":"a","width":1,"height":2}},)"
                           R"("bad":{"type":9}})";
  ASSERT_TRUE(parseJson(json, document).has_value());
  const auto event = decodeEvent(document["event"]);
  ASSERT_TRUE(event.has_value()) << explain(event.error());
  EXPECT_TRUE(*event == Event(MetaEvent{.timestamp = 2, .href = "a", .width = 1, .height = 2}));
  const auto node = decodeNode(document["bad"]);
  EXPECT_TRUE(!node && node.error().kind == Kind::dataCorrupted);

  // A document parsed elsewhere may hold numbers JSON text cannot.
  document.Parse<rapidjson::kParseNanAndInfFlag>("[1, NaN]");
  const auto value = decodeJSONValue(document);
  ASSERT_FALSE(value.has_value());
  EXPECT_EQ(value.error().kind, Kind::typeMismatch);
  EXPECT_EQ(value.error().path, "[1]");
}

}  // namespace
}  // namespace verdalune::sessionreplay::rrweb
