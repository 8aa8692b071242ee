#include "convert/css_format.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>
#include <string_view>

namespace verdalune::sessionreplay::css {

namespace {

// Plain decimal covers the decimal exponents from -4 to 15: every length, coordinate and percentage a
// screen produces, with room to spare.
constexpr int kSmallestPlainExponent = -4;
constexpr int kLargestPlainExponent = 15;

template <typename T>
std::string format(T value) {
  if (std::isnan(value)) return "0.0";
  if (std::isinf(value)) value = std::copysign(std::numeric_limits<T>::max(), value);

  // Scientific form gives the shortest round-trip digits and the decimal exponent in one go
  // ("-1.25e+02"); the plain form is laid out from them.
  char buffer[64];
  const auto [end, error] =
      std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::scientific);
  if (error != std::errc{}) return "0.0";
  const std::string_view scientific(buffer, static_cast<std::size_t>(end - buffer));

  const std::size_t e = scientific.find('e');
  int exponent = 0;
  std::from_chars(scientific.data() + e + (scientific[e + 1] == '+' ? 2 : 1),
                  scientific.data() + scientific.size(), exponent);

  const bool negative = scientific.front() == '-';
  std::string digits;
  for (char c : scientific.substr(negative ? 1 : 0, e - (negative ? 1 : 0))) {
    if (c != '.') digits.push_back(c);
  }

  if (value != 0 && (exponent < kSmallestPlainExponent || exponent > kLargestPlainExponent)) {
    // to_chars already writes the exponent signed and with at least two digits; a lone digit gets no ".".
    return std::string(scientific);
  }

  std::string text = negative ? "-" : "";
  if (exponent < 0) {
    text += "0.";
    text.append(static_cast<std::size_t>(-exponent - 1), '0');
    text += digits;
    return text;
  }
  const auto integerDigits = static_cast<std::size_t>(exponent) + 1;
  if (digits.size() <= integerDigits) {
    text += digits;
    text.append(integerDigits - digits.size(), '0');
    text += ".0";
  } else {
    text.append(digits, 0, integerDigits);
    text += '.';
    text.append(digits, integerDigits);
  }
  return text;
}

// ×255 truncated toward zero, as a whole number that fits an int whatever the component was.
long truncatedByte(double component) {
  if (std::isnan(component)) return 0;
  return static_cast<long>(std::clamp(component * 255, -1e9, 1e9));
}

}  // namespace

std::string number(double value) {
  return format(value);
}

std::string number(float value) {
  return format(value);
}

std::string length(double value) {
  return format(value) + "px";
}

std::string color(const platform::Color& color) {
  const platform::Color srgb = platform::toExtendedSRGB(color);
  const long alpha = truncatedByte(color.alpha);
  auto byte = [](long value) { return static_cast<unsigned>(std::clamp(value, 0L, 255L)); };

  char text[10];
  if (alpha == 1) {
    std::snprintf(text, sizeof text, "#%02X%02X%02X", byte(truncatedByte(srgb.red)),
                  byte(truncatedByte(srgb.green)), byte(truncatedByte(srgb.blue)));
  } else {
    std::snprintf(text, sizeof text, "#%02X%02X%02X%02X", byte(truncatedByte(srgb.red)),
                  byte(truncatedByte(srgb.green)), byte(truncatedByte(srgb.blue)), byte(alpha));
  }
  return text;
}

}  // namespace verdalune::sessionreplay::css
