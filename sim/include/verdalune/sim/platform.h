#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "verdalune/platform/platform.h"
#include "verdalune/sim/drawing.h"
#include "verdalune/sim/layer.h"
#include "verdalune/sim/views.h"
#include "verdalune/sim/web_view.h"
#include "verdalune/support/clock.h"
#include "verdalune/support/defaults_store.h"
#include "verdalune/support/queue.h"

namespace verdalune::sessionreplay::sim {

// The application the library lives in. By default its main queue is a ManualQueue on a ManualClock, so
// a test decides when main-queue work runs and how time passes.
class SimApplication final : public platform::Application {
 public:
  struct Options {
    std::optional<std::string> bundleIdentifier = "com.verdalune.sim";
    std::optional<std::string> libraryVersion = "0.1.0";
    platform::OsVersion osVersion{17, 4, 0};
    std::int64_t startWallMilliseconds = 1'700'000'000'000;
  };

  SimApplication() : SimApplication(Options{}) {}
  explicit SimApplication(Options options);
  // Over a queue and clock of the host's own (a threaded demo, for instance).
  SimApplication(Options options, std::shared_ptr<Queue> mainQueue, std::shared_ptr<const Clock> clock);
  ~SimApplication() override;

  std::shared_ptr<Queue> mainQueue() override { return mainQueue_; }
  bool isActive() const override { return active_; }
  std::unique_ptr<platform::Subscription> observeActivity(
      std::function<void(platform::ActivityChange)> onChange) override;
  std::optional<std::string> bundleIdentifier() const override { return options_.bundleIdentifier; }
  std::optional<std::string> libraryVersion() const override { return options_.libraryVersion; }
  platform::OsVersion osVersion() const override { return options_.osVersion; }
  std::shared_ptr<DefaultsStore> defaultsStore() override { return defaults_; }
  std::filesystem::path applicationSupportDirectory() const override { return supportDirectory_; }
  std::shared_ptr<const Clock> clock() const override { return clock_; }

  // The manual queue and clock; null when the application was made over the host's own.
  const std::shared_ptr<ManualQueue>& manualQueue() const { return manualQueue_; }
  const std::shared_ptr<ManualClock>& manualClock() const { return manualClock_; }
  // Runs the manual main queue until idle / moves its clock forward, running what comes due.
  std::size_t runUntilIdle();
  std::size_t advance(std::chrono::nanoseconds by);

  // Foreground transitions: changes the state at once and announces it on the main queue.
  void setActive(bool active);

 private:
  struct Observer {
    std::function<void(platform::ActivityChange)> onChange;
    bool cancelled = false;
  };
  class ObserverHandle;

  Options options_;
  std::shared_ptr<ManualClock> manualClock_;
  std::shared_ptr<ManualQueue> manualQueue_;
  std::shared_ptr<Queue> mainQueue_;
  std::shared_ptr<const Clock> clock_;
  std::shared_ptr<InMemoryDefaultsStore> defaults_ = std::make_shared<InMemoryDefaultsStore>();
  std::filesystem::path supportDirectory_;
  bool active_ = true;
  std::shared_ptr<std::vector<std::shared_ptr<Observer>>> observers_ =
      std::make_shared<std::vector<std::shared_ptr<Observer>>>();
};

class SimWindow;

class SimTouchRecognizer final : public platform::TouchRecognizer {
 public:
  SimTouchRecognizer(std::string name, std::function<void(const platform::TouchBatch&)> handler,
                     std::weak_ptr<SimWindow> window)
      : name_(std::move(name)), handler_(std::move(handler)), window_(std::move(window)) {}

  const std::string& name() const override { return name_; }
  bool isAttached() const override { return attached_; }
  void remove() override;

 private:
  friend class SimWindow;

  std::string name_;
  std::function<void(const platform::TouchBatch&)> handler_;
  std::weak_ptr<SimWindow> window_;
  bool attached_ = true;
};

// A window: a root view whose layer is the window's layer, and the recognizers attached to it.
class SimWindow final : public platform::Window, public std::enable_shared_from_this<SimWindow> {
 public:
  // Use make(): the window's recognizers refer back to it.
  SimWindow(std::shared_ptr<platform::Application> application, platform::Rect frame, double scale);
  static std::shared_ptr<SimWindow> make(std::shared_ptr<platform::Application> application,
                                         platform::Rect frame, double scale = 3);
  ~SimWindow() override;

  std::shared_ptr<platform::Layer> layer() const override { return root_->simLayer(); }
  std::shared_ptr<platform::TouchRecognizer> addTouchRecognizer(
      std::string name, std::function<void(const platform::TouchBatch&)> handler) override;
  bool hasTouchRecognizer(std::string_view name) const override;

  const std::shared_ptr<SimView>& rootView() const { return root_; }
  void addSubview(const std::shared_ptr<SimViewNode>& view) { root_->addSubview(view); }

  // The platform delivers one touch callback: queued on the main queue, where every attached recognizer
  // receives the batch, stamped with the monotonic time of the call.
  void touch(platform::TouchPhase phase, std::vector<platform::Point> locations);

 private:
  friend class SimTouchRecognizer;

  std::shared_ptr<platform::Application> application_;
  std::shared_ptr<SimView> root_;
  std::vector<std::shared_ptr<SimTouchRecognizer>> recognizers_;
};

class SimWindowScene final : public platform::WindowScene {
 public:
  SimWindowScene(platform::Rect screenBounds, double screenScale)
      : screenBounds_(screenBounds), screenScale_(screenScale) {}

  std::vector<std::shared_ptr<platform::Window>> windows() const override;
  platform::Rect screenBounds() const override { return screenBounds_; }
  double screenScale() const override { return screenScale_; }

  // Front-most last.
  void addWindow(std::shared_ptr<SimWindow> window) { windows_.push_back(std::move(window)); }
  void removeWindow(const std::shared_ptr<SimWindow>& window) { std::erase(windows_, window); }
  const std::vector<std::shared_ptr<SimWindow>>& simWindows() const { return windows_; }

 private:
  platform::Rect screenBounds_;
  double screenScale_;
  std::vector<std::shared_ptr<SimWindow>> windows_;
};

// A display link on the application's main queue and clock. It fires at the preferred rate, capped by the
// display's maximum, on the display's frame boundaries; frames the main queue was too late for are
// skipped, never queued.
class SimDisplayLink final : public platform::DisplayLink,
                             public std::enable_shared_from_this<SimDisplayLink> {
 public:
  SimDisplayLink(std::shared_ptr<Queue> mainQueue, std::shared_ptr<const Clock> clock, int displayMaximumRate,
                 std::function<void(const platform::DisplayFrame&)> onFrame);
  ~SimDisplayLink() override { invalidate(); }

  void setPreferredFrameRateRange(platform::FrameRateRange range) override { range_ = range; }
  void setPreferredFramesPerSecond(int framesPerSecond) override { framesPerSecond_ = framesPerSecond; }
  void start() override;
  void invalidate() override;

  // The rate it fires at, frames per second.
  double rate() const;
  // What was asked for, and how: the range on newer systems, frames per second on older ones.
  const std::optional<platform::FrameRateRange>& preferredFrameRateRange() const { return range_; }
  std::optional<int> preferredFramesPerSecond() const { return framesPerSecond_; }
  bool isRunning() const { return running_; }

 private:
  void scheduleAfter(std::chrono::steady_clock::time_point now);
  void fire();

  std::shared_ptr<Queue> mainQueue_;
  std::shared_ptr<const Clock> clock_;
  int displayMaximumRate_;
  std::function<void(const platform::DisplayFrame&)> onFrame_;
  std::optional<platform::FrameRateRange> range_;
  std::optional<int> framesPerSecond_;
  bool running_ = false;
  std::chrono::steady_clock::time_point nextFrame_;
  std::shared_ptr<DelayedWork> pending_;
};

class SimUserInterface final : public platform::UserInterface {
 public:
  explicit SimUserInterface(std::shared_ptr<SimApplication> application)
      : application_(std::move(application)) {}

  std::shared_ptr<platform::WindowScene> firstConnectedWindowScene() const override;
  std::shared_ptr<platform::DisplayLink> makeDisplayLink(
      std::function<void(const platform::DisplayFrame&)> onFrame) override;
  std::shared_ptr<platform::VisualEffectView> makeVisualEffectView() override;
  std::shared_ptr<platform::View> makePlainView(std::string className) override;

  // Connected scenes in the platform's order; a null entry is a scene that shows no windows (an external
  // display's).
  void connectScene(std::shared_ptr<SimWindowScene> scene) { scenes_.push_back(std::move(scene)); }
  void disconnectScene(const std::shared_ptr<SimWindowScene>& scene) { std::erase(scenes_, scene); }
  const std::vector<std::shared_ptr<SimWindowScene>>& scenes() const { return scenes_; }

  void setDisplayMaximumRate(int rate) { displayMaximumRate_ = rate; }
  // The links made so far that are still alive.
  std::vector<std::shared_ptr<SimDisplayLink>> displayLinks() const;

 private:
  std::shared_ptr<SimApplication> application_;
  std::vector<std::shared_ptr<SimWindowScene>> scenes_;
  int displayMaximumRate_ = 120;
  std::vector<std::weak_ptr<SimDisplayLink>> links_;
};

// The simulated device as the library sees it.
class SimPlatform final : public platform::Platform {
 public:
  struct Options {
    SimApplication::Options application;
    bool hasGpu = true;
  };

  SimPlatform() : SimPlatform(Options{}) {}
  explicit SimPlatform(Options options);
  // Over an application made by the caller (one on a threaded queue, for instance).
  SimPlatform(std::shared_ptr<SimApplication> application, bool hasGpu = true);

  std::shared_ptr<platform::Application> application() override { return application_; }
  std::shared_ptr<platform::UserInterface> userInterface() override { return ui_; }
  std::shared_ptr<platform::HttpTransport> httpTransport() override { return nullptr; }
  std::unique_ptr<platform::PathMonitor> makePathMonitor() override { return nullptr; }
  std::shared_ptr<platform::GpuCommandQueue> makeGpuCommandQueue() override;
  std::shared_ptr<platform::Surface> makeSurface(const platform::SurfaceProperties& properties) override;
  std::optional<platform::Bitmap> renderContents(const platform::ContentsRenderRequest& request) override;

  const std::shared_ptr<SimApplication>& app() const { return application_; }
  const std::shared_ptr<SimUserInterface>& ui() const { return ui_; }

 private:
  std::shared_ptr<SimApplication> application_;
  std::shared_ptr<SimUserInterface> ui_;
  bool hasGpu_;
};

}  // namespace verdalune::sessionreplay::sim
