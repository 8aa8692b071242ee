#pragma once

#include <gtest/gtest.h>

#include <concepts>
#include <expected>
#include <string>
#include <string_view>

#include "rrweb/coding.h"

namespace verdalune::sessionreplay::rrweb {

template <typename T>
std::expected<T, DecodeError> decodeAs(std::string_view json) {
  if constexpr (std::same_as<T, Event>) return decodeEvent(json);
  if constexpr (std::same_as<T, Node>) return decodeNode(json);
  if constexpr (std::same_as<T, IncrementalData>) return decodeIncrementalData(json);
  if constexpr (std::same_as<T, JSONValue>) return decodeJSONValue(json);
}

inline std::string explain(const DecodeError& error) {
  return std::string(describe(error.kind)) + " at \"" + error.path + "\": " + error.description;
}

// `value` encodes to exactly `json`, and `json` decodes back to `value`.
template <typename T>
void expectCoding(const T& value, std::string_view json) {
  EXPECT_EQ(encode(value), json);
  const auto decoded = decodeAs<T>(json);
  ASSERT_TRUE(decoded.has_value()) << explain(decoded.error()) << "\n  in " << json;
  EXPECT_TRUE(*decoded == value) << "decoded value differs from the encoded one: " << json;
}

// `json` fails to decode as a T with `kind`, at `path`.
template <typename T>
void expectFailure(std::string_view json, DecodeError::Kind kind, std::string_view path) {
  const auto decoded = decodeAs<T>(json);
  ASSERT_FALSE(decoded.has_value()) << "decoded although it should not: " << json;
  EXPECT_EQ(describe(decoded.error().kind), describe(kind)) << explain(decoded.error());
  EXPECT_EQ(decoded.error().path, path) << explain(decoded.error());
}

}  // namespace verdalune::sessionreplay::rrweb
