#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "capture/layer_contents.h"
#include "capture/layer_observer.h"
#include "capture/layer_snapshot.h"
#include "capture/masking.h"
#include "capture/touch_capture.h"
#include "capture/visual_effect.h"
#include "verdalune/logger.h"
#include "verdalune/mask_level.h"
#include "verdalune/platform/platform.h"

namespace verdalune::sessionreplay {

// Where captures go: the serializer, which turns them into recorded events on its own queue. Called on
// the main queue; implementations only queue the work.
class CaptureReceiver {
 public:
  virtual ~CaptureReceiver() = default;

  virtual void serialize(std::shared_ptr<const Snapshot> snapshot, const std::string& deviceId,
                         std::int64_t sessionId) = 0;
  virtual void serializeTouch(const TouchEvent& touch, const std::string& deviceId,
                              std::int64_t sessionId) = 0;
  virtual void serializeTouchMoves(std::vector<TouchMoveEvent> moves, const std::string& deviceId,
                                   std::int64_t sessionId) = 0;
  // Capture ended: the next capture starts a recording afresh.
  virtual void captureStopped() = 0;
};

// Told by the serializer when it starts its recording afresh (after a flush), so that capture can follow:
// pages inside web views are asked for a fresh document of their own.
class SerializerDelegate {
 public:
  virtual ~SerializerDelegate() = default;
  // Any thread.
  virtual void serializerDidReset() = 0;
};

// Who records the pages inside web views: the capture says which web views are shown unmasked (attach)
// and which are not (detach), under the id of the web view's layer. Main queue only.
class WebViewAttacher {
 public:
  virtual ~WebViewAttacher() = default;

  virtual void attach(const std::shared_ptr<platform::WebView>& webView, std::int64_t layerId) = 0;
  virtual void detach(std::int64_t layerId) = 0;
  virtual void detachAll() = 0;
};

// Drives capture: while a recording session is active it is called on every display refresh (at most
// ten a second), walks the windows of the first connected scene into a Snapshot, masking on the way
// down, attaches the touch recognizer to every window it captures, and hands each capture and touch to
// the receiver with the session's identifiers. Main queue only.
class Snapshotter : public SerializerDelegate, public std::enable_shared_from_this<Snapshotter> {
 public:
  static std::shared_ptr<Snapshotter> make(std::shared_ptr<platform::Platform> platform,
                                           std::shared_ptr<CaptureReceiver> serializer,
                                           std::shared_ptr<Logger> logger,
                                           std::shared_ptr<WebViewAttacher> webViewHandler);

  Snapshotter(const Snapshotter&) = delete;
  Snapshotter& operator=(const Snapshotter&) = delete;
  ~Snapshotter() override;

  // Begins capture, or restarts it when any of the three differs from the active session's; the same
  // three again change nothing.
  void start(std::string deviceId, std::int64_t sessionId, MaskLevel maskLevel);
  // Ends capture: web views detached, recognizers removed, display link invalidated, receiver told.
  void stop();
  bool isCapturing() const { return activeSession_.has_value(); }

  // A new recording has no page documents: web views are detached, so the next capture attaches them
  // again and their pages start recording afresh.
  void serializerDidReset() override;

  // The display-refresh callback.
  void onDisplay(const platform::DisplayFrame& frame);

  // One capture of the screen as it is now. Public for the benchmark and for tests that walk a screen
  // without a display link; the display callback is the one caller during a recording.
  Snapshot capture(const SnapshotContext& context, MaskLevel maskLevel);

  // The context of one capture: key or not, with this snapshotter's surface cache and GPU queue.
  SnapshotContext makeContext(bool isKeySnapshot);

  double lastTimestamp() const { return lastTimestamp_; }
  const LayerObserver& layerObserver() const { return layerObserver_; }
  const std::shared_ptr<IOSurfaceSnapshotter>& ioSurfaceSnapshotter() const { return ioSurfaceSnapshotter_; }

 private:
  struct Session {
    std::shared_ptr<platform::DisplayLink> displayLink;
    std::string deviceId;
    std::int64_t sessionId = 0;
    MaskLevel maskLevel = MaskLevel::light;
  };

  struct Walk {
    const SnapshotContext& context;
    MaskLevel maskLevel;
    platform::OsVersion osVersion;
  };

  Snapshotter(std::shared_ptr<platform::Platform> platform, std::shared_ptr<CaptureReceiver> serializer,
              std::shared_ptr<Logger> logger, std::shared_ptr<WebViewAttacher> webViewHandler);

  // Fills `node` (a default node in its final place) from `layer` and its subtree. `sublayers` are the
  // layer's sublayers when the caller has already read them.
  void walk(const std::shared_ptr<platform::Layer>& layer, const Walk& walk,
            std::optional<std::int64_t> parentId, std::optional<std::int64_t> nextId, BlockStatus inherited,
            const platform::Transform3D& parentTransform,
            std::optional<std::vector<std::shared_ptr<platform::Layer>>> sublayers, LayerTreeNode& node);
  void walkSublayers(std::vector<std::shared_ptr<platform::Layer>> sublayers, const Walk& walk,
                     LayerTreeNode& node, BlockStatus status, const platform::Transform3D& sublayerTransform);
  void attachRecognizer(platform::Window& window);
  std::shared_ptr<platform::GpuCommandQueue> gpuCommandQueue();
  const VisualEffectParser& visualEffectParser();

  std::shared_ptr<platform::Platform> platform_;
  std::shared_ptr<platform::Application> application_;
  std::shared_ptr<platform::UserInterface> userInterface_;
  LayerObserver layerObserver_;
  std::shared_ptr<CaptureReceiver> serializer_;
  std::shared_ptr<Logger> logger_;
  std::shared_ptr<WebViewAttacher> webViewHandler_;
  std::shared_ptr<IOSurfaceSnapshotter> ioSurfaceSnapshotter_;
  std::optional<std::shared_ptr<platform::GpuCommandQueue>> mtlCommandQueue_;  // null inside: no GPU
  std::unique_ptr<VisualEffectParser> visualEffectParser_;                     // built at first need
  std::optional<Session> activeSession_;
  std::vector<std::shared_ptr<platform::TouchRecognizer>> gestureRecognizers_;
  double lastTimestamp_ = 0;
};

}  // namespace verdalune::sessionreplay
