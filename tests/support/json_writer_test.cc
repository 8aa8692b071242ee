#include "support/json_writer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <limits>
#include <map>

namespace verdalune::sessionreplay {
namespace {

// The escaping rule written the slow, obvious way, to hold the fast scanner to.
std::string referenceLiteral(std::string_view value) {
  static const std::map<char, std::string_view> kNamed = {{'"', "\\\""}, {'\\', "\\\\"}, {'/', "\\/"},
                                                          {'\b', "\\b"}, {'\f', "\\f"},  {'\n', "\\n"},
                                                          {'\r', "\\r"}, {'\t', "\\t"}};
  std::string out = "\"";
  for (const char c : value) {
    if (const auto named = kNamed.find(c); named != kNamed.end()) {
      out += named->second;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned char>(c));
      out += escaped;
    } else {
      out.push_back(c);
    }
  }
  return out + "\"";
}

TEST(JsonWriter, EscapesEverySpecialByteAtEveryPositionOfLongAndShortText) {
  // Lengths around the scanner's 8- and 16-byte strides, each special byte at each position.
  const std::string specials = std::string("\"\\/\b\f\n\r\t\x01\x1f", 10) + std::string(1, '\0');
  for (std::size_t length = 0; length <= 40; ++length) {
    for (std::size_t position = 0; position < length; ++position) {
      for (const char special : specials) {
        std::string value(length, 'a');
        value[position] = special;
        std::string out;
        appendJsonString(out, value);
        ASSERT_EQ(out, referenceLiteral(value)) << "length " << length << " at " << position;
      }
    }
  }
  std::string out;
  appendJsonString(out, "caf\xc3\xa9 \x7f \xff");
  EXPECT_EQ(out, "\"caf\xc3\xa9 \x7f \xff\"") << "bytes from 0x7F up pass through";
}

TEST(JsonWriter, SeparatesValuesAndKeys) {
  std::string out;
  JsonWriter writer(out);
  writer.beginObject();
  writer.plainKey("a");
  writer.beginArray();
  writer.integer(-9223372036854775807 - 1);
  writer.boolean(true);
  writer.null();
  writer.beginObject();
  writer.endObject();
  writer.string("x/y");
  writer.endArray();
  writer.key("b\"c");
  writer.raw("{\"r\":1}");
  writer.plainKey("d");
  writer.number(2.5f);
  writer.endObject();
  EXPECT_EQ(out, R"({"a":[-9223372036854775808,true,null,{},"x\/y"],"b\"c":{"r":1},"d":2.5})");
  EXPECT_TRUE(writer.ok());
}

TEST(JsonWriter, NumbersAreShortestExactTextAndNonFiniteOnesFail) {
  const std::pair<double, const char*> doubles[] = {
      {390, "390"}, {0.1, "0.1"},    {1.0 / 3, "0.3333333333333333"},
      {-0.0, "-0"}, {1e21, "1e+21"}, {5e-324, "5e-324"}};
  for (const auto& [value, text] : doubles) {
    std::string out;
    JsonWriter(out).number(value);
    EXPECT_EQ(out, text);
  }
  std::string floatText;
  JsonWriter(floatText).number(0.1f);
  EXPECT_EQ(floatText, "0.1") << "floats are shortest as floats, not widened";

  for (double bad : {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity()}) {
    std::string out;
    JsonWriter writer(out);
    writer.number(bad);
    EXPECT_FALSE(writer.ok());
    EXPECT_EQ(out, "null");
  }
}

}  // namespace
}  // namespace verdalune::sessionreplay
