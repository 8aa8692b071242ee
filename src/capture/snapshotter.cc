#include "capture/snapshotter.h"

#include <utility>

#include "verdalune/platform/web_view.h"

namespace verdalune::sessionreplay {

namespace {

// At most one capture a second refreshes GPU drawing layers; the rest reuse what those showed.
constexpr double kKeySnapshotInterval = 1.0;
constexpr int kFramesPerSecond = 10;

// A React Native SVG view draws its whole picture into its own layer; its sublayers are bookkeeping, so
// the view is recorded as one leaf.
constexpr std::string_view kSvgViewClass = "RNSVGSvgView";

}  // namespace

std::shared_ptr<Snapshotter> Snapshotter::make(std::shared_ptr<platform::Platform> platform,
                                               std::shared_ptr<CaptureReceiver> serializer,
                                               std::shared_ptr<Logger> logger,
                                               std::shared_ptr<WebViewAttacher> webViewHandler) {
  return std::shared_ptr<Snapshotter>(new Snapshotter(std::move(platform), std::move(serializer),
                                                      std::move(logger), std::move(webViewHandler)));
}

Snapshotter::Snapshotter(std::shared_ptr<platform::Platform> platform,
                         std::shared_ptr<CaptureReceiver> serializer, std::shared_ptr<Logger> logger,
                         std::shared_ptr<WebViewAttacher> webViewHandler)
    : platform_(std::move(platform)),
      application_(platform_->application()),
      userInterface_(platform_->userInterface()),
      serializer_(std::move(serializer)),
      logger_(std::move(logger)),
      webViewHandler_(std::move(webViewHandler)) {
  std::weak_ptr<platform::Platform> weakPlatform = platform_;
  ioSurfaceSnapshotter_ = std::make_shared<IOSurfaceSnapshotter>(
      [weakPlatform](const platform::SurfaceProperties& properties) -> std::shared_ptr<platform::Surface> {
        auto platform = weakPlatform.lock();
        return platform ? platform->makeSurface(properties) : nullptr;
      });
}

Snapshotter::~Snapshotter() {
  // The display link and the recognizers hold this object only weakly; what they still hold goes with
  // them. Nothing is told to the receiver: the owner stops capture before letting go.
  if (activeSession_ && activeSession_->displayLink) activeSession_->displayLink->invalidate();
  for (const auto& recognizer : gestureRecognizers_) recognizer->remove();
}

void Snapshotter::start(std::string deviceId, std::int64_t sessionId, MaskLevel maskLevel) {
  if (activeSession_) {
    if (activeSession_->deviceId == deviceId && activeSession_->sessionId == sessionId &&
        activeSession_->maskLevel == maskLevel) {
      return;
    }
    stop();
  }
  std::weak_ptr<Snapshotter> weakSelf = weak_from_this();
  auto displayLink = userInterface_->makeDisplayLink([weakSelf](const platform::DisplayFrame& frame) {
    if (auto self = weakSelf.lock()) self->onDisplay(frame);
  });
  if (application_->osVersion().isAtLeast(15)) {
    displayLink->setPreferredFrameRateRange({1, kFramesPerSecond, kFramesPerSecond});
  } else {
    displayLink->setPreferredFramesPerSecond(kFramesPerSecond);
  }
  activeSession_ = Session{displayLink, std::move(deviceId), sessionId, maskLevel};
  displayLink->start();
}

void Snapshotter::stop() {
  if (!activeSession_) return;
  webViewHandler_->detachAll();
  for (const auto& recognizer : gestureRecognizers_) {
    if (recognizer->isAttached()) recognizer->remove();
  }
  gestureRecognizers_.clear();
  activeSession_->displayLink->invalidate();
  activeSession_.reset();
  serializer_->captureStopped();
}

void Snapshotter::serializerDidReset() {
  application_->mainQueue()->async([weakSelf = weak_from_this()] {
    auto self = weakSelf.lock();
    if (self && self->activeSession_) self->webViewHandler_->detachAll();
  });
}

void Snapshotter::onDisplay(const platform::DisplayFrame& frame) {
  if (!activeSession_) return;
  const bool isKeySnapshot = frame.timestamp - lastTimestamp_ >= kKeySnapshotInterval;
  if (isKeySnapshot) lastTimestamp_ = frame.timestamp;
  const SnapshotContext context = makeContext(isKeySnapshot);
  auto snapshot = std::make_shared<const Snapshot>(capture(context, activeSession_->maskLevel));
  // The receiver may stop capture from inside (it does not today), so the identifiers are read first.
  const Session& session = *activeSession_;
  serializer_->serialize(std::move(snapshot), session.deviceId, session.sessionId);
}

SnapshotContext Snapshotter::makeContext(bool isKeySnapshot) {
  std::weak_ptr<Snapshotter> weakSelf = weak_from_this();
  return SnapshotContext{
      .isKeySnapshot = isKeySnapshot,
      .ioSurfaceSnapshotter = ioSurfaceSnapshotter_,
      .getMTLCommandQueue = [weakSelf]() -> std::shared_ptr<platform::GpuCommandQueue> {
        auto self = weakSelf.lock();
        return self ? self->gpuCommandQueue() : nullptr;
      },
  };
}

std::shared_ptr<platform::GpuCommandQueue> Snapshotter::gpuCommandQueue() {
  if (!mtlCommandQueue_) mtlCommandQueue_ = platform_->makeGpuCommandQueue();
  return *mtlCommandQueue_;
}

const VisualEffectParser& Snapshotter::visualEffectParser() {
  if (!visualEffectParser_) visualEffectParser_ = std::make_unique<VisualEffectParser>(*userInterface_);
  return *visualEffectParser_;
}

Snapshot Snapshotter::capture(const SnapshotContext& context, MaskLevel maskLevel) {
  Snapshot snapshot;
  const std::shared_ptr<platform::WindowScene> scene = userInterface_->firstConnectedWindowScene();
  if (!scene) return snapshot;
  const Walk walkState{context, maskLevel, application_->osVersion()};
  const std::vector<std::shared_ptr<platform::Window>> windows = scene->windows();
  // Nodes are built where they will stay: a node is over a kilobyte, and a large screen's tree does not
  // fit the processor's caches, so moving each one into place would cost as much as reading it.
  snapshot.windows.resize(windows.size());
  for (std::size_t i = 0; i < windows.size(); ++i) {
    attachRecognizer(*windows[i]);
    std::optional<std::int64_t> nextId;
    if (i + 1 < windows.size()) nextId = metadataOf(*windows[i + 1]->layer())->id();
    walk(windows[i]->layer(), walkState, std::nullopt, nextId, BlockStatus::none,
         platform::Transform3D::identity(), std::nullopt, snapshot.windows[i]);
  }
  snapshot.screenSize = scene->screenBounds().size;
  return snapshot;
}

void Snapshotter::attachRecognizer(platform::Window& window) {
  const std::string name(VerdaluneSessionReplayGestureRecognizer::name);
  if (window.hasTouchRecognizer(name)) return;
  auto recognizer = std::make_shared<VerdaluneSessionReplayGestureRecognizer>(application_->clock());
  std::weak_ptr<Snapshotter> weakSelf = weak_from_this();
  recognizer->onTouchEvent = [weakSelf](const TouchEvent& touch) {
    auto self = weakSelf.lock();
    if (!self || !self->activeSession_) return;
    self->serializer_->serializeTouch(touch, self->activeSession_->deviceId, self->activeSession_->sessionId);
  };
  recognizer->onTouchMoveEvent = [weakSelf](std::vector<TouchMoveEvent> moves) {
    auto self = weakSelf.lock();
    if (!self || !self->activeSession_) return;
    self->serializer_->serializeTouchMoves(std::move(moves), self->activeSession_->deviceId,
                                           self->activeSession_->sessionId);
  };
  gestureRecognizers_.push_back(recognizer->attach(window));
}

void Snapshotter::walk(const std::shared_ptr<platform::Layer>& layer, const Walk& state,
                       std::optional<std::int64_t> parentId, std::optional<std::int64_t> nextId,
                       BlockStatus inherited, const platform::Transform3D& parentTransform,
                       std::optional<std::vector<std::shared_ptr<platform::Layer>>> sublayers,
                       LayerTreeNode& node) {
  const std::shared_ptr<LayerMetadata> metadata = metadataOf(*layer);
  BlockStatus status = combine(metadata->blockStatus, inherited);
  if (status == BlockStatus::none && isMaskedAutomatically(*layer, state.maskLevel, state.osVersion)) {
    status = BlockStatus::blocked;
  }
  layerObserver_.observe(layer);

  node.id = metadata->id();
  node.isBlocked = status == BlockStatus::blocked;
  node.parentId = parentId;
  node.nextId = nextId;
  platform::Transform3D sublayerTransform;
  node.snapshot = readLayerSnapshot(*presentationOrModel(layer, logger_.get()), parentTransform,
                                    state.osVersion, &sublayerTransform);
  node.fingerprint = fingerprintOf(node.snapshot);
  if (!node.isBlocked) {
    // Contents come from the model layer: a presentation copy shows the same contents object, and the
    // cache and its observation belong to the model.
    metadata->contents = readLayerContents(*layer, std::move(metadata->contents), state.context);
    node.contents = metadata->contents;
    if (!metadata->visualEffect) metadata->visualEffect = visualEffectParser().recognise(*layer);
    node.visualEffect = *metadata->visualEffect;
  }

  const std::shared_ptr<platform::View> view = layer->delegateView();
  const platform::ViewKind kind = view ? view->kind() : platform::ViewKind::other;
  if (kind == platform::ViewKind::webView) {
    // Web content is recorded only inside web views the application explicitly unblocked; the page is
    // recorded by the bridge, so the web view's own layers are never walked.
    auto webView = std::dynamic_pointer_cast<platform::WebView>(view);
    if (status == BlockStatus::unblocked && webView) {
      webViewHandler_->attach(webView, node.id);
    } else {
      webViewHandler_->detach(node.id);
    }
    return;
  }
  if (kind == platform::ViewKind::mapView && status != BlockStatus::unblocked) return;
  if (view && kind == platform::ViewKind::other && view->className() == kSvgViewClass) return;

  walkSublayers(sublayers ? std::move(*sublayers) : layer->sublayers(), state, node, status,
                sublayerTransform);
}

void Snapshotter::walkSublayers(std::vector<std::shared_ptr<platform::Layer>> sublayers, const Walk& state,
                                LayerTreeNode& node, BlockStatus status,
                                const platform::Transform3D& sublayerTransform) {
  node.children.resize(sublayers.size());
  BlockRangeTracker ranges;
  for (std::size_t i = 0; i < sublayers.size(); ++i) {
    // The sibling's own sublayers say whether it hosts a marker; read once, they are walked next.
    std::vector<std::shared_ptr<platform::Layer>> hosted = sublayers[i]->sublayers();
    const BlockStatus range = ranges.enter(hosted);
    std::optional<std::int64_t> nextId;
    if (i + 1 < sublayers.size()) nextId = metadataOf(*sublayers[i + 1])->id();
    walk(sublayers[i], state, node.id, nextId, combine(range, status), sublayerTransform, std::move(hosted),
         node.children[i]);
  }
}

}  // namespace verdalune::sessionreplay
