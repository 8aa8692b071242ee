#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>

#include "integration/drive.h"
#include "upload/curl_transport.h"
#include "upload/path_monitor.h"
#include "verdalune/platform/platform.h"
#include "verdalune/sim/platform.h"

namespace verdalune::sessionreplay::testing {

// The library's own libcurl transport, counting the exchanges under way so that a test knows when the
// network has answered everything it was asked.
class CountingTransport final : public platform::HttpTransport {
 public:
  std::shared_ptr<platform::HttpTask> send(
      platform::HttpRequest request, std::function<void(platform::HttpCompletion)> completion) override {
    ++*inFlight_;
    return curl_->send(std::move(request), [inFlight = inFlight_, completion = std::move(completion)](
                                               platform::HttpCompletion done) {
      completion(std::move(done));
      --*inFlight;
    });
  }
  int inFlight() const { return *inFlight_; }

 private:
  std::shared_ptr<platform::HttpTransport> curl_ = CurlTransport::create().value();
  std::shared_ptr<std::atomic<int>> inFlight_ = std::make_shared<std::atomic<int>>(0);
};

// The simulated device with that transport and a network path that is always there: the faults here
// are the collector's own.
class CountedDevice final : public platform::Platform {
 public:
  std::shared_ptr<platform::Application> application() override { return sim->application(); }
  std::shared_ptr<platform::UserInterface> userInterface() override { return sim->userInterface(); }
  std::shared_ptr<platform::HttpTransport> httpTransport() override { return transport; }
  std::unique_ptr<platform::PathMonitor> makePathMonitor() override {
    return std::make_unique<ManualPathMonitor>();
  }
  std::shared_ptr<platform::GpuCommandQueue> makeGpuCommandQueue() override {
    return sim->makeGpuCommandQueue();
  }
  std::shared_ptr<platform::Surface> makeSurface(const platform::SurfaceProperties& properties) override {
    return sim->makeSurface(properties);
  }
  std::optional<platform::Bitmap> renderContents(const platform::ContentsRenderRequest& request) override {
    return sim->renderContents(request);
  }

  // Runs the main queue until every exchange under way has been answered and the answers handled.
  [[nodiscard]] bool settle() {
    ManualQueue& queue = *sim->app()->manualQueue();
    return driveUntil(queue, [&] { return transport->inFlight() == 0 && queue.runUntilIdle() == 0; });
  }

  std::shared_ptr<sim::SimPlatform> sim = std::make_shared<sim::SimPlatform>();
  std::shared_ptr<CountingTransport> transport = std::make_shared<CountingTransport>();
};

}  // namespace verdalune::sessionreplay::testing
