// The platform headers compile and compose: a small in-memory layer with a presentation copy and a web
// view delegate, a surface as contents, and a script message handler, plus the inline helpers the
// capture code relies on.

#include <gtest/gtest.h>

#include <cstring>
#include <mutex>

#include "verdalune/platform/platform.h"

namespace verdalune::sessionreplay::platform {
namespace {

class FakeSurface final : public Surface {
 public:
  std::uint32_t id() const override { return 7; }
  std::uint32_t seed() const override { return seed_; }
  bool lock(SurfaceAccess) override { return ++locks_ > 0; }
  void unlock(SurfaceAccess) override { --locks_; }
  std::span<const std::byte> bytes() const override { return bytes_; }
  std::span<std::byte> mutableBytes() override { return bytes_; }
  std::uint32_t width() const override { return 1; }
  std::uint32_t height() const override { return 1; }
  std::size_t bytesPerRow() const override { return 4; }
  std::size_t allocationSize() const override { return bytes_.size(); }
  std::uint32_t pixelFormat() const override { return fourCharCode("BGRA"); }
  std::optional<SurfaceProperties> creationProperties() const override { return std::nullopt; }

  int locks_ = 0;
  std::uint32_t seed_ = 1;
  std::vector<std::byte> bytes_ = std::vector<std::byte>(4);
};

class FakeLayer final : public Layer, public std::enable_shared_from_this<FakeLayer> {
 public:
  std::string className() const override { return "CALayer"; }
  LayerKind kind() const override { return LayerKind::plain; }
  LayerProperties properties() const override { return properties_; }
  std::vector<CompositorFilter> filters() const override { return {}; }
  std::optional<Contents> contents() const override { return contents_; }
  std::shared_ptr<Texture> nextDrawableTexture() override { return nullptr; }
  std::shared_ptr<Layer> presentationLayer() const override { return presentation_; }
  std::shared_ptr<Layer> modelLayer() const override {
    if (auto model = model_.lock()) return model;
    return std::const_pointer_cast<FakeLayer>(shared_from_this());
  }
  std::shared_ptr<Layer> superlayer() const override { return nullptr; }
  std::vector<std::shared_ptr<Layer>> sublayers() const override { return {}; }
  std::shared_ptr<View> delegateView() const override { return delegate_.lock(); }
  std::unique_ptr<Subscription> observeChanges(std::function<void(LayerChange)>) override { return nullptr; }

  std::shared_ptr<Attachment> attachment() const override {
    std::scoped_lock lock(mutex_);
    return attachment_;
  }
  std::shared_ptr<Attachment> ensureAttachment(
      const std::function<std::shared_ptr<Attachment>(std::shared_ptr<Attachment>)>& ensure) override {
    std::scoped_lock lock(mutex_);
    attachment_ = ensure(attachment_);
    return attachment_;
  }

  LayerProperties properties_;
  std::optional<Contents> contents_;
  std::shared_ptr<FakeLayer> presentation_;
  std::weak_ptr<FakeLayer> model_;
  std::weak_ptr<View> delegate_;

 private:
  mutable std::recursive_mutex mutex_;
  std::shared_ptr<Attachment> attachment_;  // guarded by mutex_
};

class FakeController final : public UserContentController {
 public:
  void addScriptMessageHandler(std::string name, ScriptWorld,
                               std::function<void(const ScriptMessage&)> handler) override {
    handlers_.emplace_back(std::move(name), std::move(handler));
  }
  void removeScriptMessageHandler(std::string_view name, ScriptWorld) override {
    std::erase_if(handlers_, [&](const auto& entry) { return entry.first == name; });
  }
  void addUserScript(UserScript script) override { scripts_.push_back(std::move(script)); }
  std::vector<UserScript> userScripts() const override { return scripts_; }

  // What a page's postMessage does: hands the body to the handler of that name.
  void post(std::string_view name, const ScriptMessage& message) {
    for (const auto& [handlerName, handler] : handlers_) {
      if (handlerName == name) handler(message);
    }
  }

 private:
  std::vector<std::pair<std::string, std::function<void(const ScriptMessage&)>>> handlers_;
  std::vector<UserScript> scripts_;
};

class FakeWebView final : public WebView {
 public:
  std::string className() const override { return "WKWebView"; }
  ViewKind kind() const override { return ViewKind::webView; }
  std::shared_ptr<Layer> layer() const override { return layer_; }
  UserInterfaceStyle userInterfaceStyle() const override { return UserInterfaceStyle::dark; }
  bool isSecureTextEntry() const override { return false; }
  std::optional<std::string> textContentType() const override { return std::nullopt; }
  std::shared_ptr<Attachment> attachment() const override { return nullptr; }
  std::shared_ptr<Attachment> ensureAttachment(
      const std::function<std::shared_ptr<Attachment>(std::shared_ptr<Attachment>)>& ensure) override {
    return ensure(nullptr);
  }
  std::shared_ptr<UserContentController> userContentController() const override { return controller_; }
  std::optional<std::string> url() const override { return std::nullopt; }
  void evaluateJavaScript(std::string, ScriptWorld,
                          std::function<void(std::expected<ScriptResult, ScriptError>)> completion) override {
    completion(ScriptResult{ScriptValue{true}, "1"});
  }
  EdgeInsets scrollViewAdjustedContentInset() const override { return {}; }
  std::optional<Color> scrollViewBackgroundColor() const override { return std::nullopt; }
  std::optional<Color> underPageBackgroundColor() const override { return std::nullopt; }

  std::shared_ptr<FakeLayer> layer_ = std::make_shared<FakeLayer>();
  std::shared_ptr<FakeController> controller_ = std::make_shared<FakeController>();
};

struct NodeAttachment : Attachment {
  explicit NodeAttachment(int id) : id(id) {}
  int id;
};
struct OtherAttachment : Attachment {};

TEST(PlatformInterface, LayerReachesItsPresentationModelDelegateAndSurfaceContents) {
  auto webView = std::make_shared<FakeWebView>();
  const std::shared_ptr<FakeLayer>& layer = webView->layer_;
  layer->delegate_ = webView;
  layer->presentation_ = std::make_shared<FakeLayer>();
  layer->presentation_->model_ = layer;
  layer->presentation_->properties_.opacity = 0.5f;
  auto surface = std::make_shared<FakeSurface>();
  layer->contents_ = Contents{surface};

  const std::shared_ptr<Layer> shown = layer->presentationLayer();
  ASSERT_NE(shown, nullptr);
  EXPECT_EQ(shown->properties().opacity, 0.5f);
  EXPECT_EQ(shown->modelLayer(), layer);
  EXPECT_EQ(layer->modelLayer(), layer);

  const std::shared_ptr<View> delegate = layer->delegateView();
  EXPECT_EQ(asWebView(delegate), webView);
  EXPECT_EQ(asImageView(delegate), nullptr);
  EXPECT_EQ(asWebView(nullptr), nullptr);

  const auto contents = layer->contents();
  ASSERT_TRUE(contents.has_value());
  const auto* held = std::get_if<std::shared_ptr<Surface>>(&*contents);
  ASSERT_NE(held, nullptr);
  ASSERT_TRUE((*held)->lock(SurfaceAccess::readOnly));
  EXPECT_EQ((*held)->id(), 7u);
  EXPECT_EQ((*held)->pixelFormat(), 0x42475241u);
  (*held)->unlock(SurfaceAccess::readOnly);
  EXPECT_EQ(surface->locks_, 0);
}

TEST(PlatformInterface, AttachmentOfKeepsOneObjectAndReplacesAForeignOne) {
  FakeLayer layer;
  int made = 0;
  auto make = [&] { return std::make_shared<NodeAttachment>(100 + made++); };

  const auto first = attachmentOf<NodeAttachment>(layer, make);
  const auto second = attachmentOf<NodeAttachment>(layer, make);
  EXPECT_EQ(first, second);
  EXPECT_EQ(first->id, 100);
  EXPECT_EQ(made, 1);

  layer.ensureAttachment([](auto) { return std::make_shared<OtherAttachment>(); });
  const auto replaced = attachmentOf<NodeAttachment>(layer, make);
  EXPECT_EQ(replaced->id, 101);
  EXPECT_EQ(layer.attachment(), replaced);
}

TEST(PlatformInterface, ScriptMessagesReachTheHandlerAndOnlyStringEventsAreRead) {
  auto webView = std::make_shared<FakeWebView>();
  std::vector<std::string> events;
  int invalid = 0;
  webView->userContentController()->addScriptMessageHandler(
      "vdl_injected_session_replay", ScriptWorld::page, [&](const ScriptMessage& message) {
        if (const std::string* event = stringForKey(message.body, "event")) {
          events.push_back(*event);
        } else {
          ++invalid;
        }
      });

  const ScriptDictionary good{{"event", ScriptValue{std::string(R"({"type":2})")}}};
  const ScriptDictionary number{{"event", ScriptValue{4.0}}};
  const ScriptDictionary otherKey{{"evt", ScriptValue{std::string("x")}}};
  webView->controller_->post("vdl_injected_session_replay", {webView, ScriptValue{good}, ""});
  webView->controller_->post("vdl_injected_session_replay", {webView, ScriptValue{number}, ""});
  webView->controller_->post("vdl_injected_session_replay", {webView, ScriptValue{otherKey}, ""});
  webView->controller_->post("vdl_injected_session_replay", {webView, ScriptValue{std::string("event")}, ""});
  webView->controller_->post("another_handler", {webView, ScriptValue{good}, ""});

  EXPECT_EQ(events, std::vector<std::string>{R"({"type":2})"});
  EXPECT_EQ(invalid, 3);

  webView->userContentController()->removeScriptMessageHandler("vdl_injected_session_replay",
                                                               ScriptWorld::page);
  webView->controller_->post("vdl_injected_session_replay", {webView, ScriptValue{good}, ""});
  EXPECT_EQ(events.size(), 1u);
}

TEST(PlatformValues, ConcatAppliesTheFirstTransformBeforeTheSecond) {
  Transform3D translate;
  translate.m[12] = 10;  // m41
  Transform3D scale;
  scale.m[0] = scale.m[5] = scale.m[10] = 2;

  EXPECT_EQ(concat(translate, scale).m[12], 20);  // moved, then the move scaled
  EXPECT_EQ(concat(scale, translate).m[12], 10);  // scaled, then moved
  EXPECT_EQ(concat(translate, Transform3D::identity()), translate);
  EXPECT_TRUE(concat(Transform3D::identity(), Transform3D::identity()).isIdentity());
}

TEST(PlatformValues, DisplayP3ColoursConvertToUnclampedSRGB) {
  const Color red =
      toExtendedSRGB({.red = 1, .green = 0, .blue = 0, .alpha = 0.5, .space = ColorSpace::displayP3});
  EXPECT_NEAR(red.red, 1.0931, 1e-3);
  EXPECT_NEAR(red.green, -0.2267, 1e-3);
  EXPECT_NEAR(red.blue, -0.1501, 1e-3);
  EXPECT_EQ(red.alpha, 0.5);
  EXPECT_EQ(red.space, ColorSpace::extendedSRGB);

  const Color white = toExtendedSRGB({.red = 1, .green = 1, .blue = 1, .space = ColorSpace::displayP3});
  EXPECT_NEAR(white.red, 1, 1e-9);
  EXPECT_NEAR(white.green, 1, 1e-9);
  EXPECT_NEAR(white.blue, 1, 1e-9);

  const Color srgb{.red = 0.2, .green = 0.4, .blue = 0.6, .alpha = 1, .space = ColorSpace::sRGB};
  const Color same = toExtendedSRGB(srgb);
  EXPECT_EQ(same.red, 0.2);
  EXPECT_EQ(same.blue, 0.6);
  EXPECT_EQ(same.space, ColorSpace::extendedSRGB);
}

TEST(PlatformValues, OsVersionGatesCompareMajorThenMinor) {
  EXPECT_TRUE((OsVersion{15, 0, 0}.isAtLeast(15)));
  EXPECT_TRUE((OsVersion{17, 0, 1}.isAtLeast(17)));
  EXPECT_TRUE((OsVersion{16, 0, 0}.isAtLeast(15, 4)));
  EXPECT_FALSE((OsVersion{14, 8, 0}.isAtLeast(15)));
  EXPECT_FALSE((OsVersion{15, 3, 9}.isAtLeast(15, 4)));
}

}  // namespace
}  // namespace verdalune::sessionreplay::platform
