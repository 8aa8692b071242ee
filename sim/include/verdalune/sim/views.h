#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "verdalune/platform/layer.h"
#include "verdalune/sim/layer.h"

namespace verdalune::sessionreplay::sim {

// The part of every simulated view that is not in the platform interface: its layer, frame and
// subviews. Each view owns its layer, whose delegate it is. Main queue only.
class SimViewNode {
 public:
  virtual ~SimViewNode() = default;

  const std::shared_ptr<SimLayer>& simLayer() const { return layer_; }
  platform::Rect frame() const { return frame_; }
  void setFrame(const platform::Rect& frame);
  // Pixels per point of the screen the view is on; views that draw redraw at the new scale.
  void setContentsScale(double scale);

  // A scroll view shows its content from its bounds origin: scrolling moves the origin, not the frame.
  void scrollTo(platform::Point contentOffset);

  void addSubview(const std::shared_ptr<SimViewNode>& view);
  void removeFromSuperview();
  std::vector<std::shared_ptr<platform::View>> subviewList() const;
  // The platform object of this view.
  std::shared_ptr<platform::View> view() const { return self_.lock(); }

  // Makes a view and connects it to its layer; every simulated view is made through this.
  template <typename T, typename... Args>
  static std::shared_ptr<T> make(Args&&... args) {
    auto view = std::make_shared<T>(std::forward<Args>(args)...);
    view->connect(view);
    return view;
  }

 protected:
  SimViewNode(std::string layerClassName, platform::LayerKind layerKind);
  // Paints the view's contents into its layer; views that draw nothing keep the default.
  virtual void redraw() {}

 private:
  void connect(const std::shared_ptr<platform::View>& self);

  std::shared_ptr<SimLayer> layer_;
  std::weak_ptr<platform::View> self_;
  std::weak_ptr<SimViewNode> superview_;
  std::vector<std::shared_ptr<SimViewNode>> subviews_;
  platform::Rect frame_;
};

// The View members every simulated view answers the same way, over the interface class `Base`.
template <typename Base>
class BasicSimView : public Base, public SimViewNode {
 public:
  BasicSimView(std::string className, platform::ViewKind kind, std::string layerClassName = "CALayer",
               platform::LayerKind layerKind = platform::LayerKind::plain)
      : SimViewNode(std::move(layerClassName), layerKind), className_(std::move(className)), kind_(kind) {}

  std::string className() const override { return className_; }
  platform::ViewKind kind() const override { return kind_; }
  std::shared_ptr<platform::Layer> layer() const override { return simLayer(); }
  platform::UserInterfaceStyle userInterfaceStyle() const override { return style_; }
  bool isSecureTextEntry() const override { return false; }
  std::optional<std::string> textContentType() const override { return std::nullopt; }

  void setUserInterfaceStyle(platform::UserInterfaceStyle style) { style_ = style; }

 private:
  std::string className_;
  platform::ViewKind kind_;
  platform::UserInterfaceStyle style_ = platform::UserInterfaceStyle::light;
};

// A view of kind `other` (or another kind with no members of its own). A card, a button background or a
// switch's track is one of these with a fill: the layer's own background colour and corner radius, as
// an application sets them, not a bitmap.
class SimView : public BasicSimView<platform::View> {
 public:
  explicit SimView(std::string className = "UIView", platform::ViewKind kind = platform::ViewKind::other,
                   std::string layerClassName = "CALayer")
      : BasicSimView(std::move(className), kind, std::move(layerClassName)) {}

  // Sets the layer's background colour (none clears it) and corner radius.
  void setFill(std::optional<platform::Color> color, double cornerRadius = 0);
  // Sets the layer's border; a width of 0 removes it.
  void setBorder(double width, std::optional<platform::Color> color);
};

struct TextStyle {
  platform::Color color{0, 0, 0, 1};
  double fontSize = 17;
  std::optional<platform::Color> background;
};

// A label, a text field or a text view: a line of text painted into its layer's contents.
class SimTextView : public BasicSimView<platform::View> {
 public:
  SimTextView(std::string className, platform::ViewKind kind, std::string text, TextStyle style = {});

  const std::string& text() const { return text_; }
  void setText(std::string text);
  void setStyle(TextStyle style);

  // Text inputs only: secure entry shows bullets in place of the characters.
  void setSecureTextEntry(bool secure);
  void setTextContentType(std::optional<std::string> type) { contentType_ = std::move(type); }
  bool isSecureTextEntry() const override { return isInput() && secure_; }
  std::optional<std::string> textContentType() const override {
    return isInput() ? contentType_ : std::nullopt;
  }

 protected:
  void redraw() override;

 private:
  bool isInput() const { return kind() != platform::ViewKind::label; }

  std::string text_;
  TextStyle style_;
  bool secure_ = false;
  std::optional<std::string> contentType_;
};

std::shared_ptr<SimTextView> makeLabel(std::string text, TextStyle style = {});
std::shared_ptr<SimTextView> makeTextField(std::string text, TextStyle style = {});
std::shared_ptr<SimTextView> makeTextView(std::string text, TextStyle style = {});

class SimImageView final : public BasicSimView<platform::ImageView> {
 public:
  explicit SimImageView(std::shared_ptr<const platform::Image> image = nullptr);

  std::shared_ptr<const platform::Image> image() const override { return image_; }
  std::shared_ptr<const platform::Image> highlightedImage() const override { return highlightedImage_; }
  bool isHighlighted() const override { return highlighted_; }
  std::optional<platform::Color> tintColor() const override { return tint_; }
  std::shared_ptr<const platform::SymbolConfiguration> preferredSymbolConfiguration() const override {
    return preferredConfiguration_;
  }
  std::shared_ptr<const platform::SymbolConfiguration> resolvedForTraits(
      const platform::SymbolConfiguration& configuration) const override;

  // Each of these changes what the view shows, so each sets the layer's contents anew, as the platform's
  // image view does: the highlighted image while highlighted (when there is one), a template in the tint
  // colour, a symbol drawn at the screen's scale.
  void setImage(std::shared_ptr<const platform::Image> image);
  void setHighlightedImage(std::shared_ptr<const platform::Image> image);
  void setHighlighted(bool highlighted);
  void setTintColor(std::optional<platform::Color> tint);
  void setPreferredSymbolConfiguration(std::shared_ptr<const platform::SymbolConfiguration> configuration) {
    preferredConfiguration_ = std::move(configuration);
  }

 protected:
  // A symbol has no pixels of its own: a new scale draws it again.
  void redraw() override;

 private:
  // What the contents were last made from, so that a change of nothing shown leaves the layer alone.
  struct Shown {
    std::shared_ptr<const platform::Image> image;
    std::optional<platform::Color> tint;
    double scale = 0;
    bool operator==(const Shown&) const = default;
  };

  std::shared_ptr<const platform::Image> image_;
  std::shared_ptr<const platform::Image> highlightedImage_;
  bool highlighted_ = false;
  std::optional<platform::Color> tint_;
  std::shared_ptr<const platform::SymbolConfiguration> preferredConfiguration_;
  std::optional<Shown> shown_;
};

// Raw style values of the platform's blur and vibrancy effects that the simulated device knows.
namespace blurStyle {
inline constexpr int extraLight = 0, light = 1, dark = 2, regular = 4, prominent = 5;
inline constexpr int systemUltraThinMaterial = 6, systemThinMaterial = 7, systemMaterial = 8,
                     systemThickMaterial = 9, systemChromeMaterial = 10;
}  // namespace blurStyle
namespace vibrancyStyle {
inline constexpr int label = 0, secondaryLabel = 1, tertiaryLabel = 2, quaternaryLabel = 3, fill = 4,
                     secondaryFill = 5, tertiaryFill = 6, separator = 7;
}  // namespace vibrancyStyle

// A blur or vibrancy view, laid out as the platform lays one out. A blur puts a backdrop view first, whose
// backdrop layer blurs what lies behind the view through its filters, then a subview of the material's
// tint, then the content view. A vibrancy effect has the content view only, and its layer carries the
// colour matrix, so that what is put into it is drawn vibrant.
class SimVisualEffectView final : public BasicSimView<platform::VisualEffectView> {
 public:
  SimVisualEffectView();

  void setBlurEffect(int blurStyle) override;
  void setVibrancyEffect(int blurStyle, int vibrancyStyle) override;
  void setOverrideUserInterfaceStyle(platform::UserInterfaceStyle style) override;
  std::vector<std::shared_ptr<platform::View>> subviews() const override { return subviewList(); }

  const std::shared_ptr<SimView>& contentView() const { return content_; }

 protected:
  // The effect's subviews follow the view's size.
  void redraw() override { layOut(); }

 private:
  void layOut();

  std::optional<int> blurStyle_;
  std::optional<int> vibrancyStyle_;
  platform::UserInterfaceStyle override_ = platform::UserInterfaceStyle::unspecified;
  std::shared_ptr<SimView> content_;
  std::vector<std::shared_ptr<SimView>> effectViews_;
};

}  // namespace verdalune::sessionreplay::sim
