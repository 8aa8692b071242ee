#include "verdalune/sim/compositor.h"

#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <numeric>
#include <vector>

#include "cairo_bitmap.h"
#include "verdalune/sim/drawing.h"
#include "verdalune/sim/layer.h"

namespace verdalune::sessionreplay::sim {

namespace {

using Surface = std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)>;

Surface own(cairo_surface_t* surface) {
  return {surface, &cairo_surface_destroy};
}

void setColor(cairo_t* cr, const platform::Color& color, double alpha = 1) {
  cairo_set_source_rgba(cr, color.red, color.green, color.blue, color.alpha * alpha);
}

// The layer's bounds as a path, its corners rounded where the layer rounds them (bits: 1 top left,
// 2 top right, 4 bottom left, 8 bottom right), inset by `inset` on every side.
void boundsPath(cairo_t* cr, const platform::LayerProperties& p, double inset = 0) {
  const double x = p.bounds.origin.x + inset, y = p.bounds.origin.y + inset;
  const double w = p.bounds.size.width - 2 * inset, h = p.bounds.size.height - 2 * inset;
  const double r = std::max(0.0, std::min({p.cornerRadius - inset, w / 2, h / 2}));
  auto radius = [&](std::uint32_t bit) { return (p.maskedCorners & bit) != 0 ? r : 0.0; };
  cairo_new_sub_path(cr);
  cairo_arc(cr, x + w - radius(2), y + radius(2), radius(2), -M_PI / 2, 0);
  cairo_arc(cr, x + w - radius(8), y + h - radius(8), radius(8), 0, M_PI / 2);
  cairo_arc(cr, x + radius(4), y + h - radius(4), radius(4), M_PI / 2, M_PI);
  cairo_arc(cr, x + radius(1), y + radius(1), radius(1), M_PI, 3 * M_PI / 2);
  cairo_close_path(cr);
}

// ---- blur ----

// One pass of a box blur of `radius` pixels along rows (or columns) of premultiplied ARGB words.
void boxBlurPass(std::vector<std::uint32_t>& pixels, int width, int height, int radius, bool rows) {
  const int lines = rows ? height : width, length = rows ? width : height;
  const auto at = [&](int line, int i) -> std::uint32_t& {
    return rows ? pixels[static_cast<std::size_t>(line) * width + i]
                : pixels[static_cast<std::size_t>(i) * width + line];
  };
  std::vector<std::uint32_t> line(static_cast<std::size_t>(length));
  const int span = 2 * radius + 1;
  for (int l = 0; l < lines; ++l) {
    for (int i = 0; i < length; ++i) line[static_cast<std::size_t>(i)] = at(l, i);
    std::array<int, 4> sum{};
    // Edges repeat their last pixel, as the platform's blur normalizes its edges.
    const auto sample = [&](int i) { return line[static_cast<std::size_t>(std::clamp(i, 0, length - 1))]; };
    for (int i = -radius; i <= radius; ++i) {
      for (int c = 0; c < 4; ++c)
        sum[static_cast<std::size_t>(c)] += static_cast<int>(sample(i) >> (8 * c) & 0xFF);
    }
    for (int i = 0; i < length; ++i) {
      std::uint32_t word = 0;
      for (int c = 0; c < 4; ++c)
        word |= static_cast<std::uint32_t>(sum[static_cast<std::size_t>(c)] / span) << (8 * c);
      at(l, i) = word;
      for (int c = 0; c < 4; ++c) {
        sum[static_cast<std::size_t>(c)] += static_cast<int>(sample(i + radius + 1) >> (8 * c) & 0xFF) -
                                            static_cast<int>(sample(i - radius) >> (8 * c) & 0xFF);
      }
    }
  }
}

// A Gaussian blur of standard deviation `sigma` pixels, approximated by three box blurs.
void blur(cairo_surface_t* surface, double sigma) {
  const int radius = static_cast<int>(std::lround(std::sqrt(4 * sigma * sigma + 1) / 2 - 0.5));
  if (radius < 1) return;
  cairo_surface_flush(surface);
  const int width = cairo_image_surface_get_width(surface), height = cairo_image_surface_get_height(surface);
  const int stride = cairo_image_surface_get_stride(surface);
  unsigned char* data = cairo_image_surface_get_data(surface);
  std::vector<std::uint32_t> pixels(static_cast<std::size_t>(width) * height);
  for (int y = 0; y < height; ++y)
    std::memcpy(&pixels[static_cast<std::size_t>(y) * width], data + y * stride, width * 4);
  for (int pass = 0; pass < 3; ++pass) {
    boxBlurPass(pixels, width, height, radius, true);
    boxBlurPass(pixels, width, height, radius, false);
  }
  for (int y = 0; y < height; ++y)
    std::memcpy(data + y * stride, &pixels[static_cast<std::size_t>(y) * width], width * 4);
  cairo_surface_mark_dirty(surface);
}

// Colour saturation scaled by `amount` (1 keeps it), as the platform's saturate filter does it.
void saturate(cairo_surface_t* surface, double amount) {
  cairo_surface_flush(surface);
  const int width = cairo_image_surface_get_width(surface), height = cairo_image_surface_get_height(surface);
  const int stride = cairo_image_surface_get_stride(surface);
  unsigned char* data = cairo_image_surface_get_data(surface);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      std::uint32_t word;
      std::memcpy(&word, data + y * stride + x * 4, 4);
      const double alpha = word >> 24, r = word >> 16 & 0xFF, g = word >> 8 & 0xFF, b = word & 0xFF;
      const double grey = 0.2126 * r + 0.7152 * g + 0.0722 * b;
      auto channel = [&](double value) {
        return static_cast<std::uint32_t>(std::clamp(grey + (value - grey) * amount, 0.0, alpha));
      };
      word = static_cast<std::uint32_t>(alpha) << 24 | channel(r) << 16 | channel(g) << 8 | channel(b);
      std::memcpy(data + y * stride + x * 4, &word, 4);
    }
  }
  cairo_surface_mark_dirty(surface);
}

const platform::CompositorFilter* findFilter(const std::vector<platform::CompositorFilter>& filters,
                                             std::string_view type) {
  auto found = std::ranges::find_if(filters, [&](const auto& f) { return f.type == type; });
  return found == filters.end() ? nullptr : &*found;
}

double numberInput(const platform::CompositorFilter& filter, const std::string& key, double fallback) {
  auto found = filter.inputs.find(key);
  if (found == filter.inputs.end()) return fallback;
  const double* value = std::get_if<double>(&found->second);
  return value ? *value : fallback;
}

// The user-space box `rect` covers in the device pixels of `cr`'s target, grown by `margin` pixels.
cairo_rectangle_int_t deviceBox(cairo_t* cr, const platform::Rect& rect, int margin) {
  double left = INFINITY, top = INFINITY, right = -INFINITY, bottom = -INFINITY;
  for (auto [x, y] : {std::pair{0.0, 0.0}, {1.0, 0.0}, {0.0, 1.0}, {1.0, 1.0}}) {
    double dx = rect.origin.x + x * rect.size.width, dy = rect.origin.y + y * rect.size.height;
    cairo_user_to_device(cr, &dx, &dy);
    left = std::min(left, dx), top = std::min(top, dy), right = std::max(right, dx),
    bottom = std::max(bottom, dy);
  }
  return {static_cast<int>(std::floor(left)) - margin, static_cast<int>(std::floor(top)) - margin,
          static_cast<int>(std::ceil(right - left)) + 2 * margin + 1,
          static_cast<int>(std::ceil(bottom - top)) + 2 * margin + 1};
}

// A backdrop layer shows what lies under its bounds, blurred and saturated by its filters: what has been
// drawn so far is read back, filtered, and drawn again inside the layer's shape.
void drawBackdrop(cairo_t* cr, const platform::LayerProperties& p,
                  const platform::CompositorFilter& blurFilter, const platform::CompositorFilter* saturation,
                  double scale) {
  const double sigma = numberInput(blurFilter, "inputRadius", 0) * scale / 2;
  const int margin = static_cast<int>(std::ceil(3 * sigma));
  cairo_surface_t* target = cairo_get_group_target(cr);
  double offsetX = 0, offsetY = 0;
  cairo_surface_get_device_offset(target, &offsetX, &offsetY);
  const cairo_rectangle_int_t box = deviceBox(cr, p.bounds, margin);
  if (box.width <= 0 || box.height <= 0) return;
  Surface copy = own(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, box.width, box.height));
  cairo_t* copier = cairo_create(copy.get());
  cairo_set_source_surface(copier, target, -(box.x + offsetX), -(box.y + offsetY));
  cairo_pattern_set_extend(cairo_get_source(copier), CAIRO_EXTEND_PAD);
  cairo_paint(copier);
  cairo_destroy(copier);
  blur(copy.get(), sigma);
  if (saturation) saturate(copy.get(), numberInput(*saturation, "inputAmount", 1));
  cairo_save(cr);
  boundsPath(cr, p);
  cairo_identity_matrix(cr);
  cairo_set_source_surface(cr, copy.get(), box.x, box.y);
  cairo_fill(cr);
  cairo_restore(cr);
}

// ---- contents ----

// The contents' pixels as a Cairo surface, when they are pixels.
Surface contentsSurface(const SimLayer& layer) {
  if (layer.kind() == platform::LayerKind::gpuDrawing) {
    const auto& drawable = layer.pendingDrawable();
    return drawable ? own(detail::toCairo(*drawable)) : own(nullptr);
  }
  const auto contents = layer.contents();
  if (!contents) return own(nullptr);
  if (const auto* bitmap = std::get_if<std::shared_ptr<const platform::Bitmap>>(&*contents)) {
    return *bitmap ? own(detail::toCairo(**bitmap)) : own(nullptr);
  }
  if (const auto* surface = std::get_if<std::shared_ptr<platform::Surface>>(&*contents)) {
    // 4-byte BGRA in memory is Cairo's ARGB32 on this byte order.
    const auto& source = **surface;
    if (!*surface || source.bytesPerRow() < source.width() * 4u) return own(nullptr);
    Surface copy = own(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, static_cast<int>(source.width()),
                                                  static_cast<int>(source.height())));
    cairo_surface_flush(copy.get());
    unsigned char* data = cairo_image_surface_get_data(copy.get());
    const int stride = cairo_image_surface_get_stride(copy.get());
    const auto bytes = source.bytes();
    for (std::uint32_t y = 0; y < source.height() && (y + 1) * source.bytesPerRow() <= bytes.size(); ++y) {
      std::memcpy(data + y * stride, bytes.data() + y * source.bytesPerRow(), source.width() * 4u);
    }
    cairo_surface_mark_dirty(copy.get());
    return copy;
  }
  return own(nullptr);
}

// Where contents of `size` points go in the layer's bounds, by its gravity.
platform::Rect placed(const platform::LayerProperties& p, platform::Size size) {
  const platform::Rect& b = p.bounds;
  const std::string& g = p.contentsGravity;
  if (g == "resize" || size.width <= 0 || size.height <= 0) return b;
  if (g == "resizeAspect" || g == "resizeAspectFill") {
    const double fit = g == "resizeAspect" ? std::min(b.size.width / size.width, b.size.height / size.height)
                                           : std::max(b.size.width / size.width, b.size.height / size.height);
    size = {size.width * fit, size.height * fit};
  }
  const double horizontal = g.ends_with("Left") || g == "left"     ? 0
                            : g.ends_with("Right") || g == "right" ? 1
                                                                   : 0.5;
  const double vertical = g.starts_with("top") ? 0 : g.starts_with("bottom") ? 1 : 0.5;
  return {{b.origin.x + (b.size.width - size.width) * horizontal,
           b.origin.y + (b.size.height - size.height) * vertical},
          size};
}

// Draws `source`'s part `from` (pixels) into `to` (points).
void drawPart(cairo_t* cr, cairo_surface_t* source, const platform::Rect& from, const platform::Rect& to) {
  if (from.size.width <= 0 || from.size.height <= 0 || to.size.width <= 0 || to.size.height <= 0) return;
  cairo_save(cr);
  cairo_rectangle(cr, to.origin.x, to.origin.y, to.size.width, to.size.height);
  cairo_clip(cr);
  cairo_translate(cr, to.origin.x, to.origin.y);
  cairo_scale(cr, to.size.width / from.size.width, to.size.height / from.size.height);
  cairo_set_source_surface(cr, source, -from.origin.x, -from.origin.y);
  cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_GOOD);
  cairo_pattern_set_extend(cairo_get_source(cr), CAIRO_EXTEND_PAD);
  cairo_paint(cr);
  cairo_restore(cr);
}

void drawContents(cairo_t* cr, const SimLayer& layer, const platform::LayerProperties& p) {
  const auto contents = layer.contents();
  if (contents) {
    if (const auto* opaque = std::get_if<std::shared_ptr<const platform::OpaqueContents>>(&*contents)) {
      if (const auto* sim = dynamic_cast<const SimOpaqueContents*>(opaque->get())) {
        setColor(cr, sim->color());
        boundsPath(cr, p);
        cairo_fill(cr);
      }
      return;
    }
  }
  Surface source = contentsSurface(layer);
  if (!source) return;
  const double width = cairo_image_surface_get_width(source.get());
  const double height = cairo_image_surface_get_height(source.get());
  const platform::Rect& shown = p.contentsRect;
  const platform::Rect part{{shown.origin.x * width, shown.origin.y * height},
                            {shown.size.width * width, shown.size.height * height}};
  const double pointsPerPixel = 1 / std::max(p.contentsScale, 1e-6);
  const platform::Rect to = placed(p, {part.size.width * pointsPerPixel, part.size.height * pointsPerPixel});
  if (p.contentsMultiplyColor) cairo_push_group(cr);

  // The centre of contentsCenter stretches; the parts around it keep their size where they fit.
  const platform::Rect& center = p.contentsCenter;
  const bool nineSlice = center != platform::kUnitRect && p.contentsGravity == "resize";
  if (!nineSlice) {
    drawPart(cr, source.get(), part, to);
  } else {
    const std::array<double, 4> fromX{part.origin.x, part.origin.x + center.origin.x * part.size.width,
                                      part.origin.x + (center.origin.x + center.size.width) * part.size.width,
                                      part.origin.x + part.size.width};
    const std::array<double, 4> fromY{
        part.origin.y, part.origin.y + center.origin.y * part.size.height,
        part.origin.y + (center.origin.y + center.size.height) * part.size.height,
        part.origin.y + part.size.height};
    auto edges = [&](const std::array<double, 4>& from, double start, double length) {
      const double first = (from[1] - from[0]) * pointsPerPixel, last = (from[3] - from[2]) * pointsPerPixel;
      const double fit = std::min(1.0, length / std::max(first + last, 1e-6));
      return std::array<double, 4>{start, start + first * fit, start + length - last * fit, start + length};
    };
    const auto toX = edges(fromX, to.origin.x, to.size.width),
               toY = edges(fromY, to.origin.y, to.size.height);
    for (int row = 0; row < 3; ++row) {
      for (int column = 0; column < 3; ++column) {
        drawPart(
            cr, source.get(),
            {{fromX[column], fromY[row]}, {fromX[column + 1] - fromX[column], fromY[row + 1] - fromY[row]}},
            {{toX[column], toY[row]}, {toX[column + 1] - toX[column], toY[row + 1] - toY[row]}});
      }
    }
  }
  if (p.contentsMultiplyColor) {
    // Multiplying by a colour: the contents' alpha masks a fill of the product.
    cairo_pattern_t* drawn = cairo_pop_group(cr);
    cairo_push_group(cr);
    cairo_set_source(cr, drawn);
    cairo_paint(cr);
    cairo_set_operator(cr, CAIRO_OPERATOR_MULTIPLY);
    setColor(cr, *p.contentsMultiplyColor);
    cairo_mask(cr, drawn);
    cairo_pop_group_to_source(cr);
    cairo_paint(cr);
    cairo_pattern_destroy(drawn);
  }
}

void drawGradient(cairo_t* cr, const platform::LayerProperties& p) {
  const auto& gradient = *p.gradient;
  if (!gradient.colors || gradient.colors->empty()) return;
  const auto& b = p.bounds;
  auto point = [&](platform::Point unit) {
    return platform::Point{b.origin.x + unit.x * b.size.width, b.origin.y + unit.y * b.size.height};
  };
  const auto start = point(gradient.startPoint), end = point(gradient.endPoint);
  cairo_pattern_t* pattern = gradient.type == "radial"
                                 ? cairo_pattern_create_radial(start.x, start.y, 0, start.x, start.y,
                                                               std::hypot(end.x - start.x, end.y - start.y))
                                 : cairo_pattern_create_linear(start.x, start.y, end.x, end.y);
  const auto& colors = *gradient.colors;
  for (std::size_t i = 0; i < colors.size(); ++i) {
    const double offset = gradient.locations && i < gradient.locations->size() ? (*gradient.locations)[i]
                          : colors.size() == 1                                 ? 0
                                               : static_cast<double>(i) / (colors.size() - 1);
    cairo_pattern_add_color_stop_rgba(pattern, offset, colors[i].red, colors[i].green, colors[i].blue,
                                      colors[i].alpha);
  }
  cairo_set_source(cr, pattern);
  boundsPath(cr, p);
  cairo_fill(cr);
  cairo_pattern_destroy(pattern);
}

void drawShadow(cairo_t* cr, const platform::LayerProperties& p, double scale) {
  cairo_push_group(cr);
  cairo_translate(cr, p.shadowOffset.width, p.shadowOffset.height);
  setColor(cr, p.shadowColor.value_or(platform::Color{0, 0, 0, 1}), p.shadowOpacity);
  boundsPath(cr, p);
  cairo_fill(cr);
  cairo_pattern_t* shadow = cairo_pop_group(cr);
  cairo_surface_t* pixels = nullptr;
  if (cairo_pattern_get_surface(shadow, &pixels) == CAIRO_STATUS_SUCCESS &&
      cairo_surface_get_type(pixels) == CAIRO_SURFACE_TYPE_IMAGE) {
    blur(pixels, p.shadowRadius * scale / 2);
  }
  cairo_set_source(cr, shadow);
  cairo_paint(cr);
  cairo_pattern_destroy(shadow);
}

// ---- the tree ----

// `p`'s coordinates in its superlayer's: position and anchor point place the bounds, the transform turns
// them about the anchor point, and the bounds origin shifts what the layer holds.
void enterLayer(cairo_t* cr, const platform::LayerProperties& p) {
  const double anchorX = p.anchorPoint.x * p.bounds.size.width,
               anchorY = p.anchorPoint.y * p.bounds.size.height;
  cairo_translate(cr, p.position.x, p.position.y);
  const auto& m = p.transform.m;
  cairo_matrix_t transform;
  cairo_matrix_init(&transform, m[0], m[1], m[4], m[5], m[12], m[13]);
  cairo_transform(cr, &transform);
  cairo_translate(cr, -anchorX - p.bounds.origin.x, -anchorY - p.bounds.origin.y);
}

void applySublayerTransform(cairo_t* cr, const platform::LayerProperties& p) {
  if (p.sublayerTransform.isIdentity()) return;
  const double centerX = p.bounds.origin.x + p.anchorPoint.x * p.bounds.size.width;
  const double centerY = p.bounds.origin.y + p.anchorPoint.y * p.bounds.size.height;
  const auto& m = p.sublayerTransform.m;
  cairo_matrix_t transform;
  cairo_matrix_init(&transform, m[0], m[1], m[4], m[5], m[12], m[13]);
  cairo_translate(cr, centerX, centerY);
  cairo_transform(cr, &transform);
  cairo_translate(cr, -centerX, -centerY);
}

void drawLayer(cairo_t* cr, const SimLayer& model, double scale) {
  // The screen shows the presentation copy of a shown layer; its sublayers are the model's.
  const auto presented =
      std::dynamic_pointer_cast<const SimLayer>(model.isCommitted() ? model.presentationLayer() : nullptr);
  const SimLayer& shown = presented ? *presented : model;
  const platform::LayerProperties p = shown.properties();
  if (p.isHidden || p.opacity <= 0) return;

  cairo_save(cr);
  enterLayer(cr, p);
  const bool group = p.opacity < 1;
  if (group) cairo_push_group(cr);

  const auto filters = shown.filters();
  const auto* blurFilter = findFilter(filters, "gaussianBlur");
  const bool backdrop = blurFilter && shown.className().ends_with("BackdropLayer");
  const bool blursItself = blurFilter && !backdrop;
  if (blursItself) cairo_push_group(cr);

  if (p.shadowOpacity > 0) drawShadow(cr, p, scale);
  if (backdrop) drawBackdrop(cr, p, *blurFilter, findFilter(filters, "colorSaturate"), scale);
  if (p.backgroundColor) {
    setColor(cr, *p.backgroundColor);
    boundsPath(cr, p);
    cairo_fill(cr);
  }
  if (p.gradient) drawGradient(cr, p);
  if (p.masksToBounds) {
    boundsPath(cr, p);
    cairo_clip(cr);
  }
  drawContents(cr, model, p);

  cairo_save(cr);
  applySublayerTransform(cr, p);
  std::vector<std::shared_ptr<SimLayer>> sublayers = model.simSublayers();
  std::ranges::stable_sort(sublayers, {}, [](const auto& layer) { return layer->properties().zPosition; });
  for (const auto& sublayer : sublayers) drawLayer(cr, *sublayer, scale);
  cairo_restore(cr);

  if (p.borderWidth > 0) {
    cairo_reset_clip(cr);
    setColor(cr, p.borderColor.value_or(platform::Color{0, 0, 0, 1}));
    cairo_set_line_width(cr, p.borderWidth);
    boundsPath(cr, p, p.borderWidth / 2);
    cairo_stroke(cr);
  }
  if (blursItself) {
    cairo_pattern_t* drawn = cairo_pop_group(cr);
    cairo_surface_t* pixels = nullptr;
    if (cairo_pattern_get_surface(drawn, &pixels) == CAIRO_STATUS_SUCCESS) {
      blur(pixels, numberInput(*blurFilter, "inputRadius", 0) * scale / 2);
    }
    cairo_set_source(cr, drawn);
    cairo_paint(cr);
    cairo_pattern_destroy(drawn);
  }
  if (group) {
    cairo_pop_group_to_source(cr);
    cairo_paint_with_alpha(cr, p.opacity);
  }
  cairo_restore(cr);
}

}  // namespace

platform::Bitmap composite(const SimPlatform& device, double scale) {
  const auto& scenes = device.ui()->scenes();
  platform::Rect screen{{0, 0}, {390, 844}};
  double screenScale = 3;
  for (const auto& scene : scenes) {
    if (scene) {
      screen = scene->screenBounds();
      screenScale = scene->screenScale();
      break;
    }
  }
  if (scale <= 0) scale = screenScale;
  Surface target = own(cairo_image_surface_create(CAIRO_FORMAT_ARGB32,
                                                  static_cast<int>(std::lround(screen.size.width * scale)),
                                                  static_cast<int>(std::lround(screen.size.height * scale))));
  cairo_t* cr = cairo_create(target.get());
  cairo_scale(cr, scale, scale);
  cairo_translate(cr, -screen.origin.x, -screen.origin.y);
  for (const auto& scene : scenes) {
    if (!scene) continue;
    for (const auto& window : scene->simWindows()) drawLayer(cr, *window->rootView()->simLayer(), scale);
  }
  cairo_destroy(cr);
  return detail::fromCairo(target.get(), scale);
}

bool writePng(const platform::Bitmap& bitmap, const std::filesystem::path& path) {
  Surface surface = own(detail::toCairo(bitmap));
  return cairo_surface_write_to_png(surface.get(), path.c_str()) == CAIRO_STATUS_SUCCESS;
}

}  // namespace verdalune::sessionreplay::sim
