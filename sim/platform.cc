#include "verdalune/sim/platform.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <system_error>

namespace verdalune::sessionreplay::sim {

namespace {

std::filesystem::path freshSupportDirectory() {
  static std::atomic<int> counter{0};
  std::error_code error;
  std::filesystem::path base = std::filesystem::temp_directory_path(error);
  if (error) base = "/tmp";
  return base / ("vdl-sim-" + std::to_string(::getpid()) + "-" + std::to_string(counter++)) /
         "Application Support";
}

double seconds(std::chrono::steady_clock::time_point time) {
  return std::chrono::duration<double>(time.time_since_epoch()).count();
}

}  // namespace

class SimApplication::ObserverHandle final : public platform::Subscription {
 public:
  ObserverHandle(std::weak_ptr<std::vector<std::shared_ptr<Observer>>> list,
                 std::shared_ptr<Observer> observer)
      : list_(std::move(list)), observer_(std::move(observer)) {}
  ~ObserverHandle() override { cancel(); }
  void cancel() override {
    if (!observer_) return;
    observer_->cancelled = true;
    if (auto list = list_.lock()) std::erase(*list, observer_);
    observer_.reset();
  }

 private:
  std::weak_ptr<std::vector<std::shared_ptr<Observer>>> list_;
  std::shared_ptr<Observer> observer_;
};

SimApplication::SimApplication(Options options)
    : options_(std::move(options)),
      manualClock_(std::make_shared<ManualClock>(options_.startWallMilliseconds)),
      manualQueue_(std::make_shared<ManualQueue>("main", manualClock_)),
      mainQueue_(manualQueue_),
      clock_(manualClock_),
      supportDirectory_(freshSupportDirectory()) {}

SimApplication::SimApplication(Options options, std::shared_ptr<Queue> mainQueue,
                               std::shared_ptr<const Clock> clock)
    : options_(std::move(options)),
      mainQueue_(std::move(mainQueue)),
      clock_(std::move(clock)),
      supportDirectory_(freshSupportDirectory()) {}

SimApplication::~SimApplication() {
  std::error_code ignored;
  std::filesystem::remove_all(supportDirectory_.parent_path(), ignored);
}

std::size_t SimApplication::runUntilIdle() {
  return manualQueue_ ? manualQueue_->runUntilIdle() : 0;
}

std::size_t SimApplication::advance(std::chrono::nanoseconds by) {
  return manualQueue_ ? manualQueue_->advance(by) : 0;
}

std::unique_ptr<platform::Subscription> SimApplication::observeActivity(
    std::function<void(platform::ActivityChange)> onChange) {
  auto observer = std::make_shared<Observer>(Observer{std::move(onChange)});
  observers_->push_back(observer);
  return std::make_unique<ObserverHandle>(observers_, std::move(observer));
}

void SimApplication::setActive(bool active) {
  if (active == active_) return;
  active_ = active;
  const auto change =
      active ? platform::ActivityChange::didBecomeActive : platform::ActivityChange::willResignActive;
  std::weak_ptr<std::vector<std::shared_ptr<Observer>>> list = observers_;
  mainQueue_->async([list, change] {
    auto observers = list.lock();
    if (!observers) return;
    const auto copy = *observers;
    for (const auto& observer : copy) {
      if (!observer->cancelled) observer->onChange(change);
    }
  });
}

void SimTouchRecognizer::remove() {
  if (!attached_) return;
  attached_ = false;
  handler_ = nullptr;
  if (auto window = window_.lock()) {
    std::erase_if(window->recognizers_, [&](const auto& recognizer) { return recognizer.get() == this; });
  }
}

SimWindow::SimWindow(std::shared_ptr<platform::Application> application, platform::Rect frame, double scale)
    : application_(std::move(application)), root_(SimViewNode::make<SimView>("UIWindow")) {
  root_->setContentsScale(scale);
  root_->setFrame(frame);
}

std::shared_ptr<SimWindow> SimWindow::make(std::shared_ptr<platform::Application> application,
                                           platform::Rect frame, double scale) {
  return std::make_shared<SimWindow>(std::move(application), frame, scale);
}

SimWindow::~SimWindow() {
  for (const auto& recognizer : recognizers_) {
    recognizer->attached_ = false;
    recognizer->handler_ = nullptr;
  }
}

std::shared_ptr<platform::TouchRecognizer> SimWindow::addTouchRecognizer(
    std::string name, std::function<void(const platform::TouchBatch&)> handler) {
  auto recognizer =
      std::make_shared<SimTouchRecognizer>(std::move(name), std::move(handler), weak_from_this());
  recognizers_.push_back(recognizer);
  return recognizer;
}

bool SimWindow::hasTouchRecognizer(std::string_view name) const {
  return std::ranges::any_of(recognizers_,
                             [&](const auto& recognizer) { return recognizer->name() == name; });
}

void SimWindow::touch(platform::TouchPhase phase, std::vector<platform::Point> locations) {
  platform::TouchBatch batch{phase, std::move(locations), seconds(application_->clock()->monotonic())};
  application_->mainQueue()->async([weak = weak_from_this(), batch = std::move(batch)] {
    auto window = weak.lock();
    if (!window) return;
    const auto recognizers = window->recognizers_;
    for (const auto& recognizer : recognizers) {
      // A handler that removes another recognizer stops it hearing this batch too.
      if (recognizer->attached_ && recognizer->handler_) {
        auto handler = recognizer->handler_;
        handler(batch);
      }
    }
  });
}

std::vector<std::shared_ptr<platform::Window>> SimWindowScene::windows() const {
  return {windows_.begin(), windows_.end()};
}

SimDisplayLink::SimDisplayLink(std::shared_ptr<Queue> mainQueue, std::shared_ptr<const Clock> clock,
                               int displayMaximumRate,
                               std::function<void(const platform::DisplayFrame&)> onFrame)
    : mainQueue_(std::move(mainQueue)),
      clock_(std::move(clock)),
      displayMaximumRate_(displayMaximumRate),
      onFrame_(std::move(onFrame)) {}

double SimDisplayLink::rate() const {
  double wanted = displayMaximumRate_;
  if (range_) {
    wanted = range_->preferred > 0 ? range_->preferred : (range_->maximum > 0 ? range_->maximum : wanted);
  } else if (framesPerSecond_ && *framesPerSecond_ > 0) {
    wanted = *framesPerSecond_;
  }
  // The display can only show whole divisions of its own rate; it takes the closest, the faster on a tie.
  double best = displayMaximumRate_;
  for (int divisor = 2; divisor <= displayMaximumRate_; ++divisor) {
    const double candidate = static_cast<double>(displayMaximumRate_) / divisor;
    if (std::abs(candidate - wanted) < std::abs(best - wanted)) best = candidate;
  }
  return best;
}

void SimDisplayLink::start() {
  if (running_ || !onFrame_) return;
  running_ = true;
  const auto now = clock_->monotonic();
  nextFrame_ = now;
  scheduleAfter(now);
}

void SimDisplayLink::scheduleAfter(std::chrono::steady_clock::time_point now) {
  const auto interval = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
      std::chrono::duration<double>(1.0 / rate()));
  // The next frame boundary after now; boundaries the queue was late for are skipped.
  do nextFrame_ += interval;
  while (nextFrame_ <= now);
  const auto delay = std::chrono::ceil<std::chrono::milliseconds>(nextFrame_ - now);
  std::weak_ptr<SimDisplayLink> weak = weak_from_this();
  pending_ = mainQueue_->asyncAfter(delay, [weak] {
    if (auto link = weak.lock()) link->fire();
  });
}

void SimDisplayLink::fire() {
  if (!running_) return;
  const auto now = clock_->monotonic();
  const auto interval = std::chrono::duration<double>(1.0 / rate()).count();
  const platform::DisplayFrame frame{seconds(now), seconds(now) + interval};
  auto onFrame = onFrame_;
  onFrame(frame);
  if (running_) scheduleAfter(now);
}

void SimDisplayLink::invalidate() {
  running_ = false;
  onFrame_ = nullptr;
  if (pending_) pending_->cancel();
  pending_.reset();
}

std::shared_ptr<platform::WindowScene> SimUserInterface::firstConnectedWindowScene() const {
  if (scenes_.empty() || !scenes_.front() || scenes_.front()->simWindows().empty()) return nullptr;
  return scenes_.front();
}

std::shared_ptr<platform::DisplayLink> SimUserInterface::makeDisplayLink(
    std::function<void(const platform::DisplayFrame&)> onFrame) {
  auto link = std::make_shared<SimDisplayLink>(application_->mainQueue(), application_->clock(),
                                               displayMaximumRate_, std::move(onFrame));
  std::erase_if(links_, [](const auto& weak) { return weak.expired(); });
  links_.push_back(link);
  return link;
}

std::vector<std::shared_ptr<SimDisplayLink>> SimUserInterface::displayLinks() const {
  std::vector<std::shared_ptr<SimDisplayLink>> result;
  for (const auto& weak : links_) {
    if (auto link = weak.lock()) result.push_back(link);
  }
  return result;
}

std::shared_ptr<platform::VisualEffectView> SimUserInterface::makeVisualEffectView() {
  return SimViewNode::make<SimVisualEffectView>();
}

std::shared_ptr<platform::View> SimUserInterface::makePlainView(std::string className) {
  return SimViewNode::make<SimView>(std::move(className));
}

SimPlatform::SimPlatform(Options options)
    : SimPlatform(std::make_shared<SimApplication>(std::move(options.application)), options.hasGpu) {}

SimPlatform::SimPlatform(std::shared_ptr<SimApplication> application, bool hasGpu)
    : application_(std::move(application)),
      ui_(std::make_shared<SimUserInterface>(application_)),
      hasGpu_(hasGpu) {}

std::shared_ptr<platform::GpuCommandQueue> SimPlatform::makeGpuCommandQueue() {
  if (!hasGpu_) return nullptr;
  return std::make_shared<SimGpuCommandQueue>();
}

std::shared_ptr<platform::Surface> SimPlatform::makeSurface(const platform::SurfaceProperties& properties) {
  if (properties.width == 0 || properties.height == 0 ||
      properties.allocationSize < properties.bytesPerRow * properties.height) {
    return nullptr;
  }
  return std::make_shared<SimSurface>(properties);
}

std::optional<platform::Bitmap> SimPlatform::renderContents(const platform::ContentsRenderRequest& request) {
  if (request.bounds.isEmpty() || request.contentsScale <= 0) return std::nullopt;
  std::optional<platform::Color> contentsColor;
  if (const auto* sim = dynamic_cast<const SimOpaqueContents*>(request.contents.get()))
    contentsColor = sim->color();
  // The background first, then the contents over it, the way a fresh layer composites them.
  platform::Bitmap bitmap =
      request.backgroundColor
          ? draw(Drawing::filled(request.backgroundColor), request.bounds.size, request.contentsScale)
          : draw(Drawing{}, request.bounds.size, request.contentsScale);
  if (contentsColor) {
    const platform::Bitmap over =
        draw(Drawing::filled(contentsColor), request.bounds.size, request.contentsScale);
    for (std::size_t i = 0; i + 3 < bitmap.pixels.size(); i += 4) {
      const unsigned alpha = over.pixels[i + 3];
      for (std::size_t c = 0; c < 4; ++c) {
        bitmap.pixels[i + c] =
            static_cast<std::uint8_t>(over.pixels[i + c] + bitmap.pixels[i + c] * (255 - alpha) / 255);
      }
    }
  }
  bitmap.hasAlpha = !request.opaque;
  return bitmap;
}

}  // namespace verdalune::sessionreplay::sim
