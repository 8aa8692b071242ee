#include <gtest/gtest.h>

#include <limits>

#include "rrweb/coding.h"
#include "storage/versioned_event.h"

namespace verdalune::sessionreplay {
namespace {

rrweb::Event meta(std::string href = "https://example.com/a") {
  return rrweb::MetaEvent{.timestamp = 1700000000000, .href = std::move(href), .width = 390, .height = 844.5};
}

// Text with every byte value, so the compressed stream holds control characters, quotes, backslashes,
// slashes and bytes above 0x7F that the literal must carry.
rrweb::Event noisyEvent(int seed) {
  std::string text;
  std::uint32_t state = 2166136261u ^ static_cast<std::uint32_t>(seed);
  for (int i = 0; i < 4000; ++i) {
    state = state * 1664525u + 1013904223u;
    text.push_back(static_cast<char>(0x20 + (state >> 24) % 0x5F));
  }
  return rrweb::CustomEvent{.timestamp = seed, .tag = "noise", .payload = rrweb::JSONValue(text)};
}

TEST(Packing, WritesOneStringLiteralOfCompressedSortedKeyJson) {
  EventPacker packer;
  const auto packed = packer.pack(meta());
  ASSERT_TRUE(packed.has_value()) << describe(packed.error());
  EXPECT_EQ(packed->front(), '"');
  EXPECT_EQ(packed->back(), '"');
  EXPECT_EQ(packed->find('\n'), std::string::npos);

  const auto json = unpackEvent(*packed);
  ASSERT_TRUE(json.has_value()) << describe(json.error());
  EXPECT_EQ(*json, R"({"data":{"height":844.5,"href":"https:\/\/example.com\/a","width":390},)"
                   R"("timestamp":1700000000000,"type":4,"v":"v1"})");
}

TEST(Packing, EveryCompressedByteSurvivesTheLiteral) {
  EventPacker packer;
  for (int seed = 0; seed < 20; ++seed) {
    const auto event = noisyEvent(seed);
    const std::string packed(packer.pack(event).value());
    ASSERT_EQ(packed.find('\n'), std::string::npos);
    const auto json = unpackEvent(packed);
    ASSERT_TRUE(json.has_value()) << describe(json.error());
    EXPECT_EQ(*json, packer.encode(VersionedEvent{event}).value());
  }
}

TEST(Packing, NumbersJsonCannotHoldFailAsEncodingErrors) {
  EventPacker packer;
  auto event =
      rrweb::MetaEvent{.timestamp = 1, .href = "x", .width = std::numeric_limits<double>::quiet_NaN()};
  const auto packed = packer.pack(event);
  ASSERT_FALSE(packed.has_value());
  EXPECT_TRUE(std::holds_alternative<JsonEncodingError>(packed.error()));
  EXPECT_TRUE(packer.pack(meta()).has_value()) << "the packer stays usable";
}

TEST(Unpacking, RejectsTextThatWasNeverAPackedEvent) {
  EventPacker packer;
  const std::string valid(packer.pack(meta()).value());
  EXPECT_EQ(unpackEvent("{}").error(), UnpackError::notAStringLiteral);
  EXPECT_EQ(unpackEvent(valid.substr(0, valid.size() - 1)).error(), UnpackError::notAStringLiteral);
  EXPECT_EQ(unpackEvent("\"\xe2\x82\xac\"").error(), UnpackError::notLatin1);  // U+20AC
  EXPECT_EQ(unpackEvent("\"x\"").error(), UnpackError::inflateFailed);
  EXPECT_EQ(unpackEvent(valid.substr(0, valid.size() / 2) + "\"").error(), UnpackError::inflateFailed);
}

}  // namespace
}  // namespace verdalune::sessionreplay
