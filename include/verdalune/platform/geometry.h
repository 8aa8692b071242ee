#pragma once

#include <array>
#include <cmath>
#include <cstdint>
#include <vector>

// Plain values that cross the platform boundary: geometry, transforms, colours and paths. They are
// copied freely, hold no platform object, and may be read on any thread (a captured layer tree carries
// them from the main queue to the serializer's queue).
namespace verdalune::sessionreplay::platform {

// Geometry is in points, in the coordinate space of the layer or window it was read from.
struct Point {
  double x = 0;
  double y = 0;
  bool operator==(const Point&) const = default;
};

struct Size {
  double width = 0;
  double height = 0;
  bool operator==(const Size&) const = default;
};

struct Rect {
  Point origin;
  Size size;
  bool operator==(const Rect&) const = default;

  // Empty as the platform means it: no area, so a zero width or height counts. A null rect is
  // expressed by the platform as a zero rect and is empty too.
  bool isEmpty() const { return size.width == 0 || size.height == 0; }
};

// The unit rectangle, the full-contents value of contentsRect.
inline constexpr Rect kUnitRect{{0, 0}, {1, 1}};

struct EdgeInsets {
  double top = 0;
  double left = 0;
  double bottom = 0;
  double right = 0;
  bool operator==(const EdgeInsets&) const = default;
};

// A layer's 3D transform, the matrix m11 ... m44 stored row-major (m[0] is m11, m[3] m14, m[12] m41).
// Points are row vectors multiplied on the left, so the translation sits in m41, m42, m43.
struct Transform3D {
  std::array<double, 16> m{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  bool operator==(const Transform3D&) const = default;

  static constexpr Transform3D identity() { return {}; }
  bool isIdentity() const { return *this == Transform3D{}; }
};

// `first` applied, then `then`: the platform's concatenation (first × then), which is how a layer's own
// transform combines with the transform handed down by its parent.
constexpr Transform3D concat(const Transform3D& first, const Transform3D& then) {
  Transform3D result;
  for (int row = 0; row < 4; ++row) {
    for (int column = 0; column < 4; ++column) {
      double sum = 0;
      for (int k = 0; k < 4; ++k) sum += first.m[row * 4 + k] * then.m[k * 4 + column];
      result.m[row * 4 + column] = sum;
    }
  }
  return result;
}

// A 2D affine transform [a b 0; c d 0; tx ty 1], in the same row-vector convention.
struct AffineTransform {
  double a = 1, b = 0, c = 0, d = 1, tx = 0, ty = 0;
  bool operator==(const AffineTransform&) const = default;
};

// The colour space a colour's components are expressed in. Extended sRGB has the sRGB primaries and
// curve but lets components leave 0...1 (wide-gamut colours written against sRGB).
enum class ColorSpace : std::uint8_t { sRGB, extendedSRGB, displayP3 };

// A colour as the platform holds it: red, green, blue in `space`, with straight (not premultiplied)
// alpha in 0...1.
struct Color {
  double red = 0;
  double green = 0;
  double blue = 0;
  double alpha = 1;
  ColorSpace space = ColorSpace::sRGB;
  bool operator==(const Color&) const = default;
};

namespace detail {

// The sRGB transfer curve, extended to negative values by symmetry as extended sRGB does.
inline double srgbToLinear(double value) {
  const double magnitude = std::fabs(value);
  const double linear = magnitude <= 0.04045 ? magnitude / 12.92 : std::pow((magnitude + 0.055) / 1.055, 2.4);
  return std::copysign(linear, value);
}

inline double linearToSrgb(double value) {
  const double magnitude = std::fabs(value);
  const double encoded =
      magnitude <= 0.0031308 ? magnitude * 12.92 : 1.055 * std::pow(magnitude, 1 / 2.4) - 0.055;
  return std::copysign(encoded, value);
}

}  // namespace detail

// The colour with its components expressed against sRGB, tagged extendedSRGB. Components are not
// clamped: a display-P3 colour outside the sRGB gamut comes out below 0 or above 1, and what to do with
// those values is the caller's decision. Alpha is unchanged.
inline Color toExtendedSRGB(const Color& color) {
  if (color.space != ColorSpace::displayP3) {
    Color same = color;
    same.space = ColorSpace::extendedSRGB;
    return same;
  }
  // Display P3 and sRGB share the transfer curve and the white point; only the primaries differ, so the
  // conversion is a matrix between the linear values.
  const double r = detail::srgbToLinear(color.red);
  const double g = detail::srgbToLinear(color.green);
  const double b = detail::srgbToLinear(color.blue);
  return Color{
      .red = detail::linearToSrgb(1.2249401762805598 * r - 0.22494017628055996 * g),
      .green = detail::linearToSrgb(-0.042056954709688163 * r + 1.0420569547096881 * g),
      .blue =
          detail::linearToSrgb(-0.019637554590334432 * r - 0.078636045550631889 * g + 1.0982736001409663 * b),
      .alpha = color.alpha,
      .space = ColorSpace::extendedSRGB,
  };
}

// One element of a path. `points` holds as many points as the kind uses: one for moveTo and lineTo,
// two for quadCurveTo (control, end), three for curveTo (control 1, control 2, end), none for close.
struct PathElement {
  enum class Kind : std::uint8_t { moveTo, lineTo, quadCurveTo, curveTo, closeSubpath };

  Kind kind = Kind::moveTo;
  std::array<Point, 3> points{};
  bool operator==(const PathElement&) const = default;
};

// A path as its elements in drawing order.
struct Path {
  std::vector<PathElement> elements;
  bool operator==(const Path&) const = default;
};

}  // namespace verdalune::sessionreplay::platform
