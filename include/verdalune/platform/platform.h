#pragma once

#include <memory>
#include <optional>

#include "verdalune/platform/application.h"
#include "verdalune/platform/contents.h"
#include "verdalune/platform/display.h"
#include "verdalune/platform/geometry.h"
#include "verdalune/platform/layer.h"
#include "verdalune/platform/network.h"
#include "verdalune/platform/scene.h"
#include "verdalune/platform/subscription.h"
#include "verdalune/platform/web_view.h"

namespace verdalune::sessionreplay::platform {

// The one object through which the library reaches the device it runs on. The host makes it and hands
// it to the library, which keeps it for its whole life; a real device build implements it over the
// platform's own objects, the simulated device in memory. A test that needs one fault wraps a working
// Platform and overrides the one member it breaks.
//
// The services it hands out are never null unless the member says so, and the same for every call. The
// members themselves may be called from any thread; what each service may do on which thread is written
// on the service.
class Platform {
 public:
  virtual ~Platform() = default;

  virtual std::shared_ptr<Application> application() = 0;
  virtual std::shared_ptr<UserInterface> userInterface() = 0;

  // The HTTP transport the library uploads and fetches with; null to use the library's own, on libcurl.
  virtual std::shared_ptr<HttpTransport> httpTransport() = 0;

  // A new monitor of the network path, one per caller; null to use the library's own.
  virtual std::unique_ptr<PathMonitor> makePathMonitor() = 0;

  // A command queue on the system's default GPU device; null when the device has no GPU. Main queue
  // only; the library makes one when it first meets a GPU drawing layer without a shareable surface.
  virtual std::shared_ptr<GpuCommandQueue> makeGpuCommandQueue() = 0;

  // A new surface with `properties`, its bytes not yet written; null when it cannot be made. Any thread.
  virtual std::shared_ptr<Surface> makeSurface(const SurfaceProperties& properties) = 0;

  // Draws contents the library cannot read itself (see ContentsRenderRequest) into a bitmap of the
  // request's bounds at its contents scale; absent when nothing could be drawn. Any thread: the image side
  // calls it on the serializer's queue.
  virtual std::optional<Bitmap> renderContents(const ContentsRenderRequest& request) = 0;
};

}  // namespace verdalune::sessionreplay::platform
