#pragma once

#include <string>

#include "verdalune/platform/geometry.h"

// How numbers and colours are written into the CSS of a recording. Pure functions, any thread.
namespace verdalune::sessionreplay::css {

// The shortest text that reads back as exactly `value`, always with a fraction or an exponent, so a
// whole number reads as one ("10.0", "0.5", "-3.0"). No rounding is applied.
//
// Magnitudes from 1e-4 up to (not including) 1e16 are written in plain decimal; smaller and larger ones
// in exponent form with a signed exponent of at least two digits ("1e-05", "1.5e+20"), which is a valid
// CSS number too and keeps a far-off value from becoming hundreds of zeros. Zero is "0.0" (and "-0.0").
// A CSS number has no NaN or infinity: NaN is written "0.0", an infinity as the largest finite value of
// the same sign, which a browser clamps to its own maximum as it would the infinity.
std::string number(double value);

// The same for a 32-bit value, with the shortest text that reads back as the float (0.1f is "0.1").
std::string number(float value);

// A length: number(value) followed by "px".
std::string length(double value);

// A colour as "#RRGGBB" or "#RRGGBBAA" hexadecimal digits, upper case.
//
// The components are taken against sRGB (a display-P3 colour is converted, an extended-sRGB one already
// is), the alpha from the colour itself; each is multiplied by 255 and truncated toward zero. Six digits
// are written only when the truncated alpha is exactly 1 (an alpha of 1/255 up to just under 2/255);
// every other colour, a fully opaque one included, gets eight digits ending in its alpha.
//
// A wide-gamut colour can leave 0...255 after truncation. Two hex digits cannot hold such a value (a
// negative one would print as eight "F"-led digits and make the whole colour invalid), so the written
// byte is the nearest one in range, the colour a browser shows for an out-of-range sRGB colour anyway.
// The six-digit test looks at the alpha before that, so it is unaffected. NaN counts as 0.
std::string color(const platform::Color& color);

}  // namespace verdalune::sessionreplay::css
