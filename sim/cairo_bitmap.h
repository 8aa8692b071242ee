#pragma once

#include <cairo.h>

#include "verdalune/platform/contents.h"

// The platform's RGBA bitmaps to and from Cairo's image surfaces, for the sim's drawing and compositing.
namespace verdalune::sessionreplay::sim::detail {

// The surface's pixels as a premultiplied RGBA bitmap of `scale` pixels per point.
platform::Bitmap fromCairo(cairo_surface_t* surface, double scale);
// A new ARGB32 surface holding `bitmap`, premultiplied; the caller destroys it.
cairo_surface_t* toCairo(const platform::Bitmap& bitmap);

}  // namespace verdalune::sessionreplay::sim::detail
