#include "convert/converter.h"

#include <algorithm>
#include <cmath>
#include <expected>
#include <numbers>
#include <string_view>
#include <type_traits>
#include <variant>

#include "convert/css_format.h"
#include "convert/visual_effect_filter_mapping.h"
#include "image/image_encoder.h"

namespace verdalune::sessionreplay {

namespace {

using platform::Color;
using platform::Rect;
using Style = std::map<std::string, std::string>;

// maskedCorners bits.
constexpr std::uint32_t kTopLeft = 1;
constexpr std::uint32_t kTopRight = 2;
constexpr std::uint32_t kBottomLeft = 4;
constexpr std::uint32_t kBottomRight = 8;
// Every corner but the top left: the one mask written as a single radius, which then rounds all four.
constexpr std::uint32_t kShortFormMask = kTopRight | kBottomLeft | kBottomRight;

constexpr std::string_view kBlockedColor = "#D6D7DC";
const Color kOpaqueBlack{0, 0, 0, 1};

// A rectangle's extent as the platform reads it: a negative size counts from the other edge.
double minX(const Rect& r) {
  return r.origin.x + std::min(0.0, r.size.width);
}
double minY(const Rect& r) {
  return r.origin.y + std::min(0.0, r.size.height);
}
double width(const Rect& r) {
  return std::fabs(r.size.width);
}
double height(const Rect& r) {
  return std::fabs(r.size.height);
}

std::string joined(const std::vector<std::string>& parts, std::string_view separator) {
  std::string text;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (i > 0) text += separator;
    text += parts[i];
  }
  return text;
}

// The four corner radii in CSS order (top left, top right, bottom right, bottom left); a corner outside
// the mask is square.
std::string cornerRadii(double radius, std::uint32_t mask) {
  auto corner = [&](std::uint32_t bit) { return css::length((mask & bit) != 0 ? radius : 0); };
  return joined({corner(kTopLeft), corner(kTopRight), corner(kBottomRight), corner(kBottomLeft)}, " ");
}

bool isAffine(const platform::Transform3D& t) {
  const auto& m = t.m;
  return m[2] == 0 && m[3] == 0 && m[6] == 0 && m[7] == 0 && m[8] == 0 && m[9] == 0 && m[10] == 1 &&
         m[11] == 0 && m[14] == 0 && m[15] == 1;
}

std::string percent(double unit) {
  return css::number(unit * 100) + "%";
}

// Stop positions are written as 32-bit percentages; the product is taken first, so 0.3 reads "30.0".
std::string stopPercent(double location) {
  return css::number(static_cast<float>(location * 100)) + "%";
}

void writeWebView(const LayerSnapshot& s, Converter::Attributes& attributes, Style& style) {
  attributes["scrolling"] = "no";
  attributes["sandbox"] = "allow-same-origin";
  const platform::EdgeInsets& insets = s.webViewInsets;
  if (insets != platform::EdgeInsets{}) {
    style["padding"] = joined({css::length(insets.top), css::length(insets.right), css::length(insets.bottom),
                               css::length(insets.left)},
                              " ");
  }
}

void writeClipping(const LayerSnapshot& s, Style& style) {
  const Rect& bounds = s.bounds;
  const bool clipsPartOfFrame = bounds.origin != platform::Point{} || width(bounds) != width(s.frame) ||
                                height(bounds) != height(s.frame);
  if (!clipsPartOfFrame) {
    style["overflow"] = "clip";
    return;
  }
  std::string rounding;
  if (s.cornerRadius != 0) rounding = "round " + cornerRadii(s.cornerRadius, s.maskedCorners);
  style["clip-path"] = "xywh(" + css::length(minX(bounds)) + " " + css::length(minY(bounds)) + " " +
                       css::length(width(bounds)) + " " + css::length(height(bounds)) + " " + rounding + ")";
  // A clip path on its own leaves the clipped element in its parent's layer; a transform gives it one
  // of its own, as the platform composites a clipping layer.
  style.try_emplace("transform", "translateZ(0)");
}

void writeTransform(const LayerSnapshot& s, Style& style) {
  const auto& m = s.transform.m;
  const std::string originXY = percent(s.anchorPoint.x) + " " + percent(s.anchorPoint.y);
  if (isAffine(s.transform)) {
    style["transform-origin"] = originXY;
    style["transform"] = "matrix(" +
                         joined({css::number(m[0]), css::number(m[1]), css::number(m[4]), css::number(m[5]),
                                 css::number(m[12]), css::number(m[13])},
                                ", ") +
                         ")";
    return;
  }
  style["transform-origin"] = originXY + " " + css::length(s.anchorPointZ);
  std::vector<std::string> members;
  for (double member : m) members.push_back(css::number(member));
  style["transform"] = "matrix3d(" + joined(members, ", ") + ")";
}

void writeGradient(const LayerSnapshot& s, Style& style) {
  if (!s.gradientType || !s.gradientColors || !s.gradientStartPoint || !s.gradientEndPoint) return;

  std::vector<std::string> stops;
  const std::vector<Color>& colors = *s.gradientColors;
  if (!s.gradientLocations) {
    for (const Color& c : colors) stops.push_back(css::color(c));
  } else {
    const std::vector<double>& locations = *s.gradientLocations;
    for (std::size_t i = 0; i < std::min(colors.size(), locations.size()); ++i) {
      stops.push_back(css::color(colors[i]) + " " + stopPercent(locations[i]));
    }
  }
  const std::string stopList = joined(stops, ", ");

  const platform::Point start = *s.gradientStartPoint;
  const platform::Point end = *s.gradientEndPoint;
  const double dx = end.x - start.x;
  const double dy = end.y - start.y;
  const double w = width(s.bounds);
  const double h = height(s.bounds);
  const std::string at = percent(start.x) + " " + percent(start.y);

  // The linear angle is the normal of the lines of equal colour in the stretched box, hence dx and dy
  // scaled crosswise; the conic angle is the stretched direction itself.
  if (*s.gradientType == "axial") {
    const double angle = std::atan2(dy * w, dx * h) + std::numbers::pi / 2;
    style["background-image"] = "linear-gradient(" + css::number(angle) + "rad, " + stopList + ")";
  } else if (*s.gradientType == "radial") {
    style["background-image"] = "radial-gradient(" + percent(std::fabs(dx)) + " " + percent(std::fabs(dy)) +
                                " at " + at + ", " + stopList + ")";
  } else if (*s.gradientType == "conic") {
    const double angle = std::atan2(dy * h, dx * w) + std::numbers::pi / 2;
    style["background-image"] =
        "conic-gradient(from " + css::number(angle) + "rad at " + at + ", " + stopList + ")";
  }
}

std::optional<std::string_view> blendModeOf(const std::optional<std::string>& compositingFilter) {
  if (!compositingFilter) return std::nullopt;
  if (*compositingFilter == "overlayBlendMode") return "overlay";
  if (*compositingFilter == "plusD") return "plus-darker";
  if (*compositingFilter == "plusL") return "plus-lighter";
  if (*compositingFilter == "multiply") return "multiply";
  return std::nullopt;
}

void writeVisualEffect(const LayerTreeNode& node, Style& style) {
  const VisualEffectCss effect = VisualEffectFilterMapping::css(node.visualEffect);
  if (effect.filter) {
    if (node.snapshot.layerClass.ends_with("BackdropLayer")) {
      style["backdrop-filter"] = *effect.filter;
      style["-webkit-backdrop-filter"] = *effect.filter;
    } else {
      style["filter"] = *effect.filter;
    }
  }
  if (effect.blendMode) {
    style["mix-blend-mode"] = *effect.blendMode;
    // Blending against what is behind needs the element in a compositing layer of its own.
    style["transform"] = "translate3d(0,0,0)";
  }
}

void writeShadow(const LayerSnapshot& s, Style& style) {
  Color shadow = s.shadowColor.value_or(kOpaqueBlack);
  shadow.alpha *= static_cast<double>(s.shadowOpacity);
  style["filter"] = "drop-shadow(" + css::color(shadow) + " " + css::length(s.shadowOffset.width) + " " +
                    css::length(s.shadowOffset.height) + " " + css::length(s.shadowRadius) + ")";
}

// ---- Contents image ----

// What an image kind yields: an encoded image, nothing to show, or a failure to log.
struct EncodeOutcome {
  std::shared_ptr<const EncodedImageData> image;
  std::optional<std::string> failure;  // the log message, prefix included

  static EncodeOutcome nothing() { return {}; }
};

EncodeOutcome outcomeOf(std::expected<EncodedImageData, ImageEncoderError> result, std::string_view prefix) {
  if (!result) return {nullptr, std::string(prefix) + std::string(describe(result.error()))};
  return {std::make_shared<const EncodedImageData>(std::move(*result)), std::nullopt};
}

ImageGeometry geometryOf(const LayerSnapshot& s, platform::Size sourceSize, double scale) {
  return ImageGeometry{.sourceSize = sourceSize,
                       .boundsSize = {width(s.bounds), height(s.bounds)},
                       .contentsGravity = s.contentsGravity,
                       .scale = scale};
}

platform::Size pixelSizeOf(const platform::Bitmap& bitmap) {
  return {static_cast<double>(bitmap.width), static_cast<double>(bitmap.height)};
}

// The size in points of a bitmap at `scale` pixels per point.
platform::Size pointSizeOf(const platform::Bitmap& bitmap, double scale) {
  const double pointsPerPixel = scale != 0 ? 1 / scale : 1;
  return {bitmap.width * pointsPerPixel, bitmap.height * pointsPerPixel};
}

bool imageHasAlpha(const platform::Image& image) {
  if (const auto bitmap = image.bitmap()) return bitmap->hasAlpha;
  return !image.rendersOpaque();
}

// The ways the converter makes an image from a source, part of what an encoding is cached by.
enum Way : std::uint8_t { kImage = 1, kDrawnImage, kBitmap, kSurface, kTexture, kRendered };

ImageRecipe recipeOf(Way way, const LayerSnapshot& s) {
  return ImageRecipe{.way = way,
                     .hasAlpha = false,
                     .crop = platform::kUnitRect,
                     .boundsSize = {width(s.bounds), height(s.bounds)},
                     .contentsGravity = s.contentsGravity,
                     .scale = 0,
                     .deviceScale = 0};
}

// The image cached for `key`, else the outcome of `encode`, kept for `key` when it is an image. `owner`
// is the object an object source names.
template <typename Encode>
EncodeOutcome encodeOnce(Converter::Context& context, const EncodedImageCache::Key& key,
                         std::weak_ptr<const void> owner, Encode&& encode) {
  if (auto image = context.encodedImages().find(key)) return {std::move(image), std::nullopt};
  context.countEncode();
  EncodeOutcome outcome = std::forward<Encode>(encode)();
  if (outcome.image) context.encodedImages().insert(key, outcome.image, std::move(owner));
  return outcome;
}

// Images are immutable, so the image object names its picture while it lives: a tinted or configured
// image is a new object.
EncodeOutcome encodeUiImage(const LayerContents::UiImage& contents, const LayerSnapshot& s,
                            Converter::Context& context) {
  constexpr std::string_view kPrefix = "[Converter] Error processing UIImage: ";
  const platform::Image& image = *contents.image;
  // A stretchable image is drawn at the layer's size so it arrives stretched; a resizable one is taken
  // to have alpha, as its stretched middle may be clear.
  const bool resizable = image.className().find("Resizable") != std::string::npos;
  const bool hasAlpha = resizable || imageHasAlpha(image);
  const bool drawn = resizable || image.capInsets() != platform::EdgeInsets{};
  ImageRecipe recipe = recipeOf(drawn ? kDrawnImage : kImage, s);
  recipe.hasAlpha = hasAlpha;
  return encodeOnce(context, {ImageSource::object(&image), std::move(recipe)}, contents.image, [&] {
    if (drawn) {
      const platform::Size size{width(s.bounds), height(s.bounds)};
      const std::optional<platform::Bitmap> drawing = image.draw(size, !hasAlpha);
      if (!drawing) {
        return EncodeOutcome{nullptr, std::string(kPrefix) +
                                          std::string(describe(ImageEncoderError::couldNotCreateCgContext))};
      }
      return outcomeOf(ImageEncoder::encode(*drawing, hasAlpha, geometryOf(s, size, drawing->scale),
                                            context.imageEffort()),
                       kPrefix);
    }
    return outcomeOf(ImageEncoder::encode(image, hasAlpha, geometryOf(s, image.size(), image.scale()),
                                          context.imageEffort()),
                     kPrefix);
  });
}

// A bitmap is found by the object first, then by its pixels: every label draws a bitmap of its own,
// and equal texts draw equal pixels.
EncodeOutcome encodeCgImage(const LayerContents::CgImage& contents, const LayerSnapshot& s,
                            Converter::Context& context) {
  ImageRecipe recipe = recipeOf(kBitmap, s);
  recipe.crop = s.modelContentsRect;
  recipe.deviceScale = s.contentScale;
  const EncodedImageCache::Key byObject{ImageSource::object(contents.image.get()), recipe};
  if (auto image = context.encodedImages().find(byObject)) return {std::move(image), std::nullopt};
  EncodeOutcome outcome =
      encodeOnce(context, {ImageSource::pixels(*contents.image), std::move(recipe)}, {}, [&] {
        const auto cropped = crop(contents.image, s.modelContentsRect);
        if (!cropped) return EncodeOutcome::nothing();
        // Shown in the replay at one point per pixel, as always, but encoded with as many pixels as the
        // device shows the layer with, so text in a bitmap stays sharp on a dense screen.
        ImageGeometry geometry = geometryOf(s, pixelSizeOf(*cropped), 1);
        geometry.deviceScale = s.contentScale;
        return outcomeOf(ImageEncoder::encode(*cropped, cropped->hasAlpha, geometry, context.imageEffort()),
                         "[Converter] Error processing CGImage: ");
      });
  if (outcome.image) context.encodedImages().insert(byObject, outcome.image, contents.image);
  return outcome;
}

EncodeOutcome encodeSurface(const LayerContents::IOSurfaceSnapshot& contents, const LayerSnapshot& s,
                            Converter::Context& context) {
  if (!contents.snapshot) return EncodeOutcome::nothing();
  ImageRecipe recipe = recipeOf(kSurface, s);
  recipe.crop = s.contentsRect;
  recipe.scale = s.contentScale;
  const IOSurfaceSnapshotter::Key frame = contents.snapshot->key;
  return encodeOnce(
      context, {ImageSource::surfaceFrame(frame.surfaceID, frame.seed), std::move(recipe)}, {}, [&] {
        const auto cropped = crop(scaledBitmapOf(*contents.snapshot, s.contentScale), s.contentsRect);
        if (!cropped) return EncodeOutcome::nothing();
        return outcomeOf(
            ImageEncoder::encode(*cropped, cropped->hasAlpha,
                                 geometryOf(s, pointSizeOf(*cropped, cropped->scale), cropped->scale),
                                 context.imageEffort()),
            "[Converter] Error processing IOSurface: ");
      });
}

EncodeOutcome encodeTexture(const LayerContents::MtlTexture& contents, const LayerSnapshot& s,
                            Converter::Context& context) {
  // A texture whose pixels cannot be read (framebuffer-only, an unconvertible format) shows nothing
  // rather than failing every capture.
  if (!contents.texture) return EncodeOutcome::nothing();
  const std::optional<platform::Bitmap> pixels = contents.texture->readPixels();
  if (!pixels || pixels->width == 0 || pixels->height == 0) return EncodeOutcome::nothing();
  ImageRecipe recipe = recipeOf(kTexture, s);
  recipe.scale = s.contentScale;
  return encodeOnce(context, {ImageSource::pixels(*pixels), std::move(recipe)}, {}, [&] {
    const double scale = s.contentScale != 0 ? s.contentScale : 1;
    ImageGeometry geometry = geometryOf(s, pointSizeOf(*pixels, s.contentScale), scale);
    // A drawable is always stretched over the whole layer.
    geometry.contentsGravity = "resize";
    return outcomeOf(ImageEncoder::encode(*pixels, pixels->hasAlpha, geometry, context.imageEffort()),
                     "[Converter] Error processing MTLTexture: ");
  });
}

EncodeOutcome encodeUnknown(const LayerContents::Unknown& contents, const LayerSnapshot& s,
                            Converter::Context& context) {
  constexpr std::string_view kPrefix = "[Converter] Error processing unknown contents: ";
  platform::Platform* platform = context.platform();
  if (!platform || !contents.contents) return EncodeOutcome::nothing();
  const Rect bounds{{std::trunc(minX(s.bounds)), std::trunc(minY(s.bounds))},
                    {std::trunc(width(s.bounds)), std::trunc(height(s.bounds))}};
  const platform::ContentsRenderRequest request{.contents = contents.contents,
                                                .backgroundColor = s.backgroundColor,
                                                .bounds = bounds,
                                                .contentsScale = s.contentScale,
                                                .geometryFlipped = s.isGeometryFlipped,
                                                .opaque = s.isOpaque};
  const std::optional<platform::Bitmap> rendered = platform->renderContents(request);
  if (!rendered) {
    return {nullptr,
            std::string(kPrefix) + std::string(describe(ImageEncoderError::couldNotCreateCgContext))};
  }
  // Only the rendering says what these contents look like.
  ImageRecipe recipe = recipeOf(kRendered, s);
  recipe.hasAlpha = !s.isOpaque;
  return encodeOnce(context, {ImageSource::pixels(*rendered), std::move(recipe)}, {}, [&] {
    return outcomeOf(ImageEncoder::encode(*rendered, !s.isOpaque, geometryOf(s, bounds.size, rendered->scale),
                                          context.imageEffort()),
                     kPrefix);
  });
}

// The encoded image of the node's contents, encoding them at most once: under the contents' lock they
// are read and, once encoded, replaced by their encoded form, so a second reader of the same contents
// reuses it instead of encoding again.
EncodeOutcome contentsImage(LayerContents& layerContents, const LayerSnapshot& s,
                            Converter::Context& context) {
  return layerContents.withContents([&](LayerContents::Contents& contents) {
    EncodeOutcome outcome = std::visit(
        [&]<typename Kind>(const Kind& kind) -> EncodeOutcome {
          if constexpr (std::is_same_v<Kind, LayerContents::UiImage>) {
            if (!kind.image) return EncodeOutcome::nothing();
            return encodeUiImage(kind, s, context);
          } else if constexpr (std::is_same_v<Kind, LayerContents::CgImage>) {
            if (!kind.image) return EncodeOutcome::nothing();
            return encodeCgImage(kind, s, context);
          } else if constexpr (std::is_same_v<Kind, LayerContents::IOSurfaceSnapshot>) {
            return encodeSurface(kind, s, context);
          } else if constexpr (std::is_same_v<Kind, LayerContents::MtlTexture>) {
            return encodeTexture(kind, s, context);
          } else if constexpr (std::is_same_v<Kind, LayerContents::Unknown>) {
            return encodeUnknown(kind, s, context);
          } else {
            return {kind.encodedImageData, std::nullopt};
          }
        },
        contents);
    if (outcome.image && !std::holds_alternative<LayerContents::Prehashed>(contents)) {
      contents = LayerContents::Prehashed{outcome.image};
    }
    return outcome;
  });
}

struct Placement {
  std::string size;
  std::string_view position;
};

// How the image sits in the element, after the layer's contents gravity. "right" has no row and falls
// to the last one with every unknown name.
Placement placementOf(std::string_view gravity, platform::Size imageSize) {
  const std::string natural = css::length(imageSize.width) + " " + css::length(imageSize.height);
  if (gravity == "center") return {natural, "center"};
  if (gravity == "top") return {natural, "top"};
  if (gravity == "bottom") return {natural, "bottom"};
  if (gravity == "left") return {natural, "left"};
  if (gravity == "topLeft") return {natural, "top left"};
  if (gravity == "topRight") return {natural, "top right"};
  if (gravity == "bottomLeft") return {natural, "bottom left"};
  if (gravity == "bottomRight") return {natural, "bottom right"};
  if (gravity == "resize") return {"100% 100%", "0% 0%"};
  if (gravity == "resizeAspect") return {"contain", "center"};
  if (gravity == "resizeAspectFill") return {"cover", "0% 0%"};
  return {"auto", "center"};
}

void writeContentsImage(const LayerTreeNode& node, Converter::AdditionalContent& additionalContent,
                        Logger* logger, Converter::Context& context, Style& style,
                        std::vector<std::string>& classes) {
  const LayerSnapshot& s = node.snapshot;
  EncodeOutcome outcome = contentsImage(*node.contents, s, context);
  if (outcome.failure) {
    if (logger) logger->error(*outcome.failure);
    return;
  }
  if (!outcome.image) return;

  std::string className = "bg-" + outcome.image->hash;
  classes.push_back(className);
  const Placement placement = placementOf(s.contentsGravity, outcome.image->originalImageSize);
  style["background-size"] = placement.size;
  style["background-position"] = placement.position;
  style["background-repeat"] = "no-repeat";
  additionalContent.addImage(className, std::move(outcome.image));
}

// Declarations as "name:value", in the order of their texts (so "border-radius:" comes before
// "border:"), joined by "; ".
std::string styleText(const Style& style) {
  std::vector<std::string> declarations;
  declarations.reserve(style.size());
  for (const auto& [name, value] : style) declarations.push_back(name + ":" + value);
  std::sort(declarations.begin(), declarations.end());
  return joined(declarations, "; ");
}

}  // namespace

void Converter::AdditionalContent::addImage(const std::string& className,
                                            std::shared_ptr<const EncodedImageData> image) {
  // Keyed by class name: an image met again keeps its first place and takes the latest value.
  for (auto& entry : images_) {
    if (entry.first == className) {
      entry.second = std::move(image);
      return;
    }
  }
  images_.emplace_back(className, std::move(image));
}

Converter::Attributes Converter::convert(const LayerTreeNode& node, AdditionalContent& additionalContent,
                                         Logger* logger, Context& context) {
  const LayerSnapshot& s = node.snapshot;
  Attributes attributes;
  Style style;
  std::vector<std::string> classes;

  if (s.isWebView) writeWebView(s, attributes, style);

  // Placement comes from position and anchor, not from the frame, which a transform distorts.
  style["left"] = css::length(s.position.x - s.anchorPoint.x * width(s.bounds));
  style["top"] = css::length(s.position.y - s.anchorPoint.y * height(s.bounds));
  style["width"] = css::length(width(s.bounds));
  style["height"] = css::length(height(s.bounds));

  // Children are positioned in the layer's own space, which a bounds origin (a scroll offset) shifts.
  if (s.bounds.origin != platform::Point{}) {
    style["margin-left"] = css::length(-s.bounds.origin.x);
    style["margin-top"] = css::length(-s.bounds.origin.y);
  }

  if (s.masksToBounds) writeClipping(s, style);

  if (s.opacity != 1) style["opacity"] = css::number(s.opacity);

  if (s.cornerRadius != 0) {
    style["border-radius"] = s.maskedCorners == kShortFormMask ? css::length(s.cornerRadius)
                                                               : cornerRadii(s.cornerRadius, s.maskedCorners);
  }

  if (!s.transform.isIdentity()) writeTransform(s, style);

  // A blocked node keeps its shape but shows a plain placeholder: nothing it draws leaves the device.
  if (node.isBlocked) {
    style["background-color"] = kBlockedColor;
    attributes["style"] = styleText(style);
    return attributes;
  }

  if (s.isHidden) style["visibility"] = "hidden";

  if (s.borderWidth > 0) {
    style["border"] =
        css::length(s.borderWidth) + " solid " + css::color(s.borderColor.value_or(kOpaqueBlack));
  }

  writeGradient(s, style);

  if (auto blendMode = blendModeOf(s.compositingFilter)) style["mix-blend-mode"] = *blendMode;

  if (s.isWebView && s.webViewBackgroundColor) {
    style["background-color"] = css::color(*s.webViewBackgroundColor);
  } else if (s.backgroundColor) {
    style["background-color"] = css::color(*s.backgroundColor);
  }

  writeVisualEffect(node, style);

  if (s.shadowOpacity > 0) writeShadow(s, style);

  if (node.contents && !s.isHidden && s.opacity > 0) {
    writeContentsImage(node, additionalContent, logger, context, style, classes);
  }

  if (!classes.empty()) attributes["class"] = joined(classes, " ");
  attributes["style"] = styleText(style);
  return attributes;
}

}  // namespace verdalune::sessionreplay
