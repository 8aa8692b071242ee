#include "verdalune/sim/screen_builder.h"

#include <algorithm>

namespace verdalune::sessionreplay::sim {

ScreenBuilder& ScreenBuilder::window(platform::Rect frame, double scale) {
  screen_.scene = std::make_shared<SimWindowScene>(frame, scale);
  screen_.window = SimWindow::make(platform_.app(), frame, scale);
  screen_.scene->addWindow(screen_.window);
  return *this;
}

void ScreenBuilder::ensureWindow() {
  if (!screen_.window) window({{0, 0}, {390, 844}});
}

ScreenBuilder& ScreenBuilder::view(std::shared_ptr<SimViewNode> view, platform::Rect frame) {
  ensureWindow();
  view->setContentsScale(screen_.scene->screenScale());
  view->setFrame(frame);
  if (parents_.empty()) {
    screen_.window->addSubview(view);
  } else {
    parents_.back()->addSubview(view);
  }
  screen_.views.push_back(std::move(view));
  return *this;
}

ScreenBuilder& ScreenBuilder::container(platform::Rect frame, std::optional<platform::Color> background) {
  auto container = SimViewNode::make<SimView>();
  container->simLayer()->setBackgroundColor(background);
  view(container, frame);
  parents_.push_back(std::move(container));
  return *this;
}

ScreenBuilder& ScreenBuilder::end() {
  if (!parents_.empty()) parents_.pop_back();
  return *this;
}

ScreenBuilder& ScreenBuilder::layer(std::shared_ptr<SimLayer> layer, platform::Rect frame) {
  ensureWindow();
  layer->setContentsScale(screen_.scene->screenScale());
  layer->setFrame(frame);
  const auto& parent = parents_.empty() ? screen_.window->rootView() : parents_.back();
  parent->simLayer()->addSublayer(layer);
  screen_.layers.push_back(std::move(layer));
  return *this;
}

ScreenBuilder& ScreenBuilder::label(std::string text, platform::Rect frame, TextStyle style) {
  return view(makeLabel(std::move(text), style), frame);
}

ScreenBuilder& ScreenBuilder::textField(std::string text, platform::Rect frame, TextFieldOptions options) {
  auto field = makeTextField(std::move(text), options.style);
  field->setSecureTextEntry(options.secure);
  field->setTextContentType(std::move(options.contentType));
  return view(std::move(field), frame);
}

ScreenBuilder& ScreenBuilder::textView(std::string text, platform::Rect frame, TextStyle style) {
  return view(makeTextView(std::move(text), style), frame);
}

ScreenBuilder& ScreenBuilder::image(std::shared_ptr<const platform::Image> image, platform::Rect frame) {
  return view(SimViewNode::make<SimImageView>(std::move(image)), frame);
}

ScreenBuilder& ScreenBuilder::box(platform::Rect frame, platform::Color fill, double cornerRadius) {
  auto box = SimViewNode::make<SimView>();
  view(box, frame);
  box->setFill(fill, cornerRadius);
  return *this;
}

ScreenBuilder& ScreenBuilder::map(platform::Rect frame) {
  auto map = SimViewNode::make<SimView>("MKMapView", platform::ViewKind::mapView);
  view(map, frame);
  map->setFill(platform::Color{0.85, 0.92, 0.82, 1});
  return *this;
}

ScreenBuilder& ScreenBuilder::webView(platform::Rect frame, std::optional<std::string> url) {
  auto web = SimViewNode::make<SimWebView>(platform_.app()->mainQueue());
  if (url) web->load(*url);
  return view(std::move(web), frame);
}

ScreenBuilder& ScreenBuilder::blur(platform::Rect frame, int style) {
  auto effect = SimViewNode::make<SimVisualEffectView>();
  view(effect, frame);
  effect->setBlurEffect(style);
  return *this;
}

ScreenBuilder& ScreenBuilder::named(std::string name) {
  if (!screen_.views.empty()) screen_.named[std::move(name)] = screen_.views.back();
  return *this;
}

Screen ScreenBuilder::build() {
  ensureWindow();
  parents_.clear();
  const auto& scenes = platform_.ui()->scenes();
  if (std::find(scenes.begin(), scenes.end(), screen_.scene) == scenes.end())
    platform_.ui()->connectScene(screen_.scene);
  screen_.window->rootView()->simLayer()->commit();
  return std::move(screen_);
}

}  // namespace verdalune::sessionreplay::sim
