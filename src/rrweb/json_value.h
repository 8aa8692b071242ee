#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace verdalune::sessionreplay::rrweb {

// Any JSON value. Carries the parts of an event whose shape belongs to someone else (custom and
// plugin payloads, element attributes, font descriptors, canvas command arguments) so that what a web
// page sent survives a decode and re-encode unchanged.
//
// Decoding picks the first shape that fits, in the order null, bool, int, double, string, array,
// dictionary: `true` is a bool, `3` (and `3.0`) an int, `3.5` a double. A double written by this
// library with an integral value therefore reads back as an int.
struct JSONValue {
  using Array = std::vector<JSONValue>;
  using Dictionary = std::map<std::string, JSONValue>;

  std::variant<std::string, std::int64_t, double, bool, Array, Dictionary, std::nullptr_t> value;

  JSONValue() : value(nullptr) {}
  JSONValue(std::nullptr_t) : value(nullptr) {}
  JSONValue(std::string text) : value(std::move(text)) {}
  JSONValue(const char* text) : value(std::string(text)) {}
  // Unsigned values above the int64 range wrap; give those as doubles.
  template <std::integral T>
  JSONValue(T number) : value(static_cast<std::int64_t>(number)) {}
  JSONValue(double number) : value(number) {}
  JSONValue(bool flag) : value(flag) {}  // preferred to the template above for bool
  JSONValue(Array items) : value(std::move(items)) {}
  JSONValue(Dictionary members) : value(std::move(members)) {}

  template <typename T>
  [[nodiscard]] bool is() const {
    return std::holds_alternative<T>(value);
  }

  bool operator==(const JSONValue&) const = default;
};

}  // namespace verdalune::sessionreplay::rrweb
