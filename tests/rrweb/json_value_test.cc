#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "rrweb/coding.h"
#include "rrweb/coding_checks.h"

namespace verdalune::sessionreplay::rrweb {
namespace {

JSONValue decoded(std::string_view json) {
  auto value = decodeJSONValue(json);
  EXPECT_TRUE(value.has_value()) << explain(value.error());
  return value.value_or(JSONValue("<failed>"));
}

TEST(JSONValueCoding, DecodingPicksTheFirstShapeThatFits) {
  EXPECT_EQ(decoded("null"), JSONValue(nullptr));
  EXPECT_EQ(decoded("true"), JSONValue(true));
  EXPECT_EQ(decoded("1"), JSONValue(1));
  EXPECT_EQ(decoded("1.5"), JSONValue(1.5));
  EXPECT_EQ(decoded(R"("1")"), JSONValue("1"));
  EXPECT_TRUE(decoded("false").is<bool>());
  EXPECT_TRUE(decoded("0").is<std::int64_t>());
}

TEST(JSONValueCoding, NumbersThatHoldAnInt64ExactlyAreInts) {
  EXPECT_EQ(decoded("3.0"), JSONValue(3));
  EXPECT_EQ(decoded("1e2"), JSONValue(100));
  EXPECT_EQ(decoded("-9223372036854775808"), JSONValue(std::numeric_limits<std::int64_t>::min()));
  EXPECT_EQ(decoded("9223372036854775807"), JSONValue(std::numeric_limits<std::int64_t>::max()));
  EXPECT_EQ(decoded("9223372036854775808"), JSONValue(9223372036854775808.0));
  EXPECT_EQ(decoded("1e300"), JSONValue(1e300));
  EXPECT_EQ(decoded("-0.5"), JSONValue(-0.5));
}

TEST(JSONValueCoding, NumbersReadAsTheNearestDouble) {
  // Inputs that RapidJSON's own conversion misreads or reads out of bounds for.
  EXPECT_EQ(decoded("0.00000000000000000000000000000000000001e-280"), JSONValue(1e-318));
  EXPECT_EQ(decoded("1.0000000000000000000000000000001e-320"),
            JSONValue(1.0000000000000000000000000000001e-320));
  EXPECT_EQ(decoded("1.0000000000000000000000000000001e-330"), JSONValue(0));
  EXPECT_EQ(decoded("2.4703282292062328e-324"), JSONValue(5e-324));
  EXPECT_EQ(decoded("0.1000000000000000055511151231257827021181583404541015625"), JSONValue(0.1));
  expectFailure<JSONValue>("1e309", DecodeError::Kind::dataCorrupted, "");
  expectFailure<JSONValue>("[-2e400]", DecodeError::Kind::dataCorrupted, "");
}

TEST(JSONValueCoding, ContainersRoundTripWithSortedKeys) {
  expectCoding(JSONValue(JSONValue::Dictionary{{"b", JSONValue::Dictionary{}},
                                               {"a", JSONValue::Array{1, 2.5, "x/y", false, nullptr}},
                                               {"B", JSONValue::Array{}}}),
               R"({"B":[],"a":[1,2.5,"x\/y",false,null],"b":{}})");
  expectCoding(JSONValue(-7), "-7");
  expectCoding(JSONValue(0.1), "0.1");
  expectCoding(JSONValue(nullptr), "null");
}

TEST(JSONValueCoding, TextKeepsEveryByte) {
  // NUL and other control characters are escaped; everything from U+0080 on stays raw UTF-8.
  const std::string text("a\0b\n\xC3\xA9\xF0\x9F\x98\x80", 10);
  EXPECT_EQ(decoded(R"("a\u0000b\n\u00e9\ud83d\ude00")"), JSONValue(text));
  expectCoding(JSONValue(text), "\"a\\u0000b\\n\xC3\xA9\xF0\x9F\x98\x80\"");
}

TEST(JSONValueCoding, LaterDuplicateKeysWin) {
  EXPECT_EQ(decoded(R"({"a":1,"a":2})"), JSONValue(JSONValue::Dictionary{{"a", 2}}));
}

TEST(JSONValueCoding, TextThatCannotBeWrittenBackIsRefused) {
  // A lone surrogate escape has no UTF-8 form.
  expectFailure<JSONValue>(R"(["ok","\udc00"])", DecodeError::Kind::dataCorrupted, "[1]");
  expectFailure<JSONValue>(R"({"\udfff":1})", DecodeError::Kind::dataCorrupted, "");
  expectFailure<JSONValue>(R"("\ud800")", DecodeError::Kind::dataCorrupted, "");
}

}  // namespace
}  // namespace verdalune::sessionreplay::rrweb
