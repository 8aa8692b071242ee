#include "convert/css_format.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <random>

namespace verdalune::sessionreplay::css {
namespace {

using platform::Color;
using platform::ColorSpace;

TEST(CssNumber, WholeNumbersKeepAFractionAndNothingIsRounded) {
  EXPECT_EQ(number(10.0), "10.0");
  EXPECT_EQ(number(0.5), "0.5");
  EXPECT_EQ(number(-3.0), "-3.0");
  EXPECT_EQ(number(0.0), "0.0");
  EXPECT_EQ(number(-0.0), "-0.0");
  EXPECT_EQ(number(123.456), "123.456");
  EXPECT_EQ(number(0.1 + 0.2), "0.30000000000000004");
  EXPECT_EQ(length(10), "10.0px");
  EXPECT_EQ(length(-0.25), "-0.25px");
}

TEST(CssNumber, ExponentFormOnlyOutsideThePlainRange) {
  EXPECT_EQ(number(0.0001), "0.0001");
  EXPECT_EQ(number(0.00001), "1e-05");
  EXPECT_EQ(number(-1.5e-7), "-1.5e-07");
  EXPECT_EQ(number(1e15), "1000000000000000.0");
  EXPECT_EQ(number(1e16), "1e+16");
  EXPECT_EQ(number(1.25e20), "1.25e+20");
  EXPECT_EQ(number(5e-324), "5e-324");
}

TEST(CssNumber, FloatsUseTheirOwnShortestDigitsAndNonFiniteValuesStayValidNumbers) {
  EXPECT_EQ(number(0.1f), "0.1");
  EXPECT_EQ(number(50.0f), "50.0");
  EXPECT_EQ(number(1.0f / 3.0f), "0.33333334");
  EXPECT_EQ(number(std::numeric_limits<double>::quiet_NaN()), "0.0");
  EXPECT_EQ(number(std::numeric_limits<double>::infinity()), "1.7976931348623157e+308");
  EXPECT_EQ(number(-std::numeric_limits<float>::infinity()), "-3.4028235e+38");
}

TEST(CssNumber, EveryTextReadsBackAsTheSameDouble) {
  std::mt19937_64 random(7);
  std::uniform_int_distribution<int> exponent(-12, 20);
  std::uniform_real_distribution<double> mantissa(-10, 10);
  for (int i = 0; i < 20000; ++i) {
    const double value = std::ldexp(mantissa(random), exponent(random) * 3);
    const std::string text = number(value);
    ASSERT_TRUE(text.find_first_of(".e") != std::string::npos) << text;
    ASSERT_EQ(std::strtod(text.c_str(), nullptr), value) << text;
  }
}

TEST(CssColor, TruncatesAndWritesAlphaUnlessItTruncatesToOne) {
  EXPECT_EQ(color({1, 1, 1, 1}), "#FFFFFFFF");
  EXPECT_EQ(color({1, 0, 0, 1.5 / 255}), "#FF0000");
  EXPECT_EQ(color({1, 0, 0, 0.5 / 255}), "#FF000000");
  EXPECT_EQ(color({1, 0, 0, 2.0 / 255}), "#FF000002");
  EXPECT_EQ(color({0.999, 0.5, 0.0039, 0.5}), "#FE7F007F");
  EXPECT_EQ(color({0, 0, 0, 0}), "#00000000");
}

TEST(CssColor, WideGamutColoursAreConvertedThenKeptInTwoDigits) {
  EXPECT_EQ(color({0.8, 0.3, 0.3, 1, ColorSpace::displayP3}), "#DD3F46FF");
  // Out of the sRGB gamut: red above 1, green and blue below 0 after conversion.
  EXPECT_EQ(color({1, 0, 0, 1, ColorSpace::displayP3}), "#FF0000FF");
  EXPECT_EQ(color({0.2, 0.6, 0.4, 1, ColorSpace::displayP3}), "#009B61FF");
  EXPECT_EQ(color({-0.5, 1.7, 0.25, 1, ColorSpace::extendedSRGB}), "#00FF3FFF");
  EXPECT_EQ(color({0.25, 0.5, 0.75, 4, ColorSpace::extendedSRGB}), "#3F7FBFFF");
  EXPECT_EQ(color({std::numeric_limits<double>::quiet_NaN(), 1e300, -1e300, 1}), "#00FF00FF");
}

}  // namespace
}  // namespace verdalune::sessionreplay::css
