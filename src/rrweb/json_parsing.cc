#include <locale.h>  // newlocale, locale_t (POSIX)
#include <stdlib.h>  // strtod_l

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <system_error>

#if defined(__APPLE__)
#include <xlocale.h>
#endif

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include "rrweb/coding.h"

namespace verdalune::sessionreplay::rrweb {
namespace {

// Numbers arrive as text and are converted here rather than by RapidJSON: its full-precision
// conversion (1.1.0) reads outside its power table for long numbers with a large negative exponent
// ("1.0000000000000000000000000000001e-330") and returns wrong values for others
// ("0.00000000000000000000000000000000000001e-300" became -2.5e294). Page input reaches this parser.
constexpr unsigned kParseFlags = rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag |
                                 rapidjson::kParseNumbersAsStringsFlag | rapidjson::kParseStopWhenDoneFlag;

// strtod in the "C" locale, whatever locale the host application set: JSON's decimal point is '.'.
double parseDouble(const std::string& text) {
  static const locale_t cLocale = newlocale(LC_ALL_MASK, "C", locale_t{});
  return cLocale != locale_t{} ? strtod_l(text.c_str(), nullptr, cLocale)
                               : std::strtod(text.c_str(), nullptr);
}

// Hands the parser's events on to the document, turning each number's text into an integer when it is
// one that fits 64 bits, else into the nearest double.
class DocumentBuilder {
 public:
  using Ch = char;

  explicit DocumentBuilder(rapidjson::Document& document) : document_(document) {}

  // Set when a number is beyond the range of a double.
  bool numberTooBig = false;

  bool RawNumber(const char* text, rapidjson::SizeType length, bool /*copy*/) {
    const std::string_view number(text, length);
    if (number.find_first_of(".eE") == std::string_view::npos) {
      std::int64_t integer = 0;
      if (parsesWhole(number, integer)) return document_.Int64(integer);
      std::uint64_t unsignedInteger = 0;
      if (parsesWhole(number, unsignedInteger)) return document_.Uint64(unsignedInteger);
    }
    const double value = parseDouble(std::string(number));
    if (!std::isfinite(value)) {
      numberTooBig = true;
      return false;
    }
    return document_.Double(value);
  }

  bool Null() { return document_.Null(); }
  bool Bool(bool value) { return document_.Bool(value); }
  bool Int(int value) { return document_.Int(value); }
  bool Uint(unsigned value) { return document_.Uint(value); }
  bool Int64(std::int64_t value) { return document_.Int64(value); }
  bool Uint64(std::uint64_t value) { return document_.Uint64(value); }
  bool Double(double value) { return document_.Double(value); }
  bool String(const char* text, rapidjson::SizeType length, bool copy) {
    return document_.String(text, length, copy);
  }
  bool StartObject() { return document_.StartObject(); }
  bool Key(const char* text, rapidjson::SizeType length, bool copy) {
    return document_.Key(text, length, copy);
  }
  bool EndObject(rapidjson::SizeType members) { return document_.EndObject(members); }
  bool StartArray() { return document_.StartArray(); }
  bool EndArray(rapidjson::SizeType elements) { return document_.EndArray(elements); }

 private:
  template <typename Integer>
  static bool parsesWhole(std::string_view text, Integer& out) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
    return error == std::errc{} && end == text.data() + text.size();
  }

  rapidjson::Document& document_;
};

DecodeError notJson(std::string_view reason, std::size_t offset) {
  return DecodeError{DecodeError::Kind::dataCorrupted,
                     "The given data was not valid JSON: " + std::string(reason) + " (at offset " +
                         std::to_string(offset) + ")",
                     ""};
}

}  // namespace

std::expected<void, DecodeError> parseJson(std::string_view json, rapidjson::Document& document) {
  rapidjson::MemoryStream stream(json.data(), json.size());
  rapidjson::Reader reader;
  rapidjson::ParseResult result;
  bool numberTooBig = false;
  auto parse = [&](rapidjson::Document& target) {
    DocumentBuilder builder(target);
    result = reader.Parse<kParseFlags>(stream, builder);
    numberTooBig = builder.numberTooBig;
    return !result.IsError();
  };
  document.Populate(parse);
  if (numberTooBig)
    return std::unexpected(notJson("Number too big to be stored in double.", result.Offset()));
  if (result.IsError())
    return std::unexpected(notJson(rapidjson::GetParseError_En(result.Code()), result.Offset()));
  for (std::size_t i = stream.Tell(); i < json.size(); ++i) {
    if (json[i] != ' ' && json[i] != '\t' && json[i] != '\n' && json[i] != '\r') {
      return std::unexpected(notJson("The document root must not be followed by other values.", i));
    }
  }
  return {};
}

}  // namespace verdalune::sessionreplay::rrweb
