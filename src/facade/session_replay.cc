#include "verdalune/session_replay.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <utility>

#include "capture/snapshotter.h"
#include "facade/console_logger.h"
#include "facade/remote_config.h"
#include "facade/sample.h"
#include "serialize/serializer.h"
#include "storage/block_state.h"
#include "storage/persistent_storage.h"
#include "storage/storage_coordinator.h"
#include "upload/curl_transport.h"
#include "upload/path_monitor.h"
#include "upload/upload_client.h"
#include "upload/url.h"
#include "webview/web_view_handler.h"

namespace verdalune::sessionreplay {

namespace {

constexpr int kFetchRetries = 3;
constexpr int kUploadRetries = 3;
constexpr std::chrono::milliseconds kRetryTimeInterval{30'000};
constexpr std::string_view kSessionReplayIdKey = "[Verdalune] Session Replay ID";

std::string serverUrlFor(ServerZone zone) {
  switch (zone) {
    case ServerZone::US:
      return std::string(kUsServerUrl);
    case ServerZone::EU:
      return std::string(kEuServerUrl);
  }
  std::fprintf(stderr, "[SessionReplay] unknown server zone %d\n", static_cast<int>(zone));
  std::abort();
}

}  // namespace

// Everything of the facade. Fields that the setters write from any thread are atomic or under `lock`;
// the rest is written once at construction, or only on the main queue.
class SessionReplayState {
 public:
  std::shared_ptr<platform::Platform> platform;
  std::shared_ptr<platform::Application> application;
  std::shared_ptr<Queue> mainQueue;

  std::string apiKey;
  std::shared_ptr<Logger> logger;
  bool enableRemoteConfig = false;
  std::atomic<float> sampleRate{1};
  std::atomic<MaskLevel> maskLevel{MaskLevel::light};
  std::atomic<bool> optOut{false};
  std::atomic<std::int64_t> sessionId{0};
  mutable std::mutex lock;
  std::optional<std::string> deviceId;                      // under lock
  std::shared_ptr<SessionReplay> selfReferenceWhenStarted;  // under lock
  std::atomic<bool> isStarted{false};
  bool isInForeground = false;  // main queue
  std::atomic<bool> captureEnabled{true};

  std::shared_ptr<UploadClient> uploadClient;
  std::shared_ptr<RemoteConfig> remoteConfig;
  std::shared_ptr<StorageCoordinatorProtocol> storageCoordinator;
  std::shared_ptr<Serializer> serializer;
  std::shared_ptr<WebViewHandler> webViewHandler;
  std::shared_ptr<Snapshotter> snapshotter;
  std::unique_ptr<platform::Subscription> activity;
};

SessionReplay::SessionReplay(PassKey, std::shared_ptr<platform::Platform> platform)
    : state_(std::make_unique<SessionReplayState>()) {
  state_->platform = std::move(platform);
  state_->application = state_->platform->application();
  state_->mainQueue = state_->application->mainQueue();
}

std::shared_ptr<SessionReplay> SessionReplay::make(std::string apiKey, std::optional<std::string> deviceId,
                                                   std::int64_t sessionId, bool optOut, float sampleRate,
                                                   std::map<std::string, std::string> webviewMappings,
                                                   std::shared_ptr<Logger> logger, ServerZone serverZone,
                                                   MaskLevel maskLevel, bool enableRemoteConfig,
                                                   std::shared_ptr<platform::Platform> platform,
                                                   Options options) {
  const std::string serverUrl = options.serverUrl.value_or(serverUrlFor(serverZone));
  auto replay = std::make_shared<SessionReplay>(PassKey{}, platform);
  SessionReplayState& s = *replay->state_;
  s.apiKey = std::move(apiKey);
  s.deviceId = std::move(deviceId);
  s.sessionId = sessionId;
  s.optOut = optOut;
  s.sampleRate = sampleRate;
  // The default logger prints nothing: a library stays quiet unless its host asks.
  s.logger = logger ? std::move(logger) : std::make_shared<ConsoleLogger>(ConsoleLogger::LogLevel::fatal);
  s.maskLevel = maskLevel;
  s.enableRemoteConfig = enableRemoteConfig;

  ImageEffort imageEffort{.quality = options.imageQuality.value_or(ImageEffort::kDefaultQuality),
                          .method = options.imageMethod.value_or(ImageEffort::kDefaultMethod)};
  if (!imageEffort.isValid()) {
    s.logger->warn("[SessionReplay] imageQuality must be 0 to 100 and imageMethod 0 to 6; using " +
                   std::to_string(ImageEffort::kDefaultQuality) + " and " +
                   std::to_string(ImageEffort::kDefaultMethod));
    imageEffort = {};
  }

  auto makeQueue =
      options.makeQueue ? options.makeQueue : [](std::string_view label) -> std::shared_ptr<Queue> {
    return std::make_shared<SerialQueue>(std::string(label));
  };
  const ClientInfo client{s.application->bundleIdentifier(), s.application->libraryVersion()};
  // libcurl's transport runs one request at a time, so the configuration fetch gets a lane of its own:
  // a capture switched off remotely must not wait behind a block's upload. A host's own transport
  // decides its lanes itself.
  std::shared_ptr<platform::HttpTransport> uploadTransport = platform->httpTransport();
  std::shared_ptr<platform::HttpTransport> configTransport = uploadTransport;
  if (!uploadTransport) {
    auto uploads = CurlTransport::create();
    auto configs = CurlTransport::create();
    if (uploads && configs) {
      uploadTransport = std::move(*uploads);
      configTransport = std::move(*configs);
    } else {
      // Both stay null: the upload client and the configuration fetcher then fail each exchange
      // without sending, and the blocks wait on disk for a launch that can send them.
      s.logger->error("[SessionReplay] no HTTP transport: nothing will be uploaded");
    }
  }
  std::shared_ptr<platform::PathMonitor> pathMonitor = platform->makePathMonitor();
  if (!pathMonitor) {
    // A collector on this host is reachable whatever the network does.
    const auto endpoint = UrlComponents::parse(serverUrl);
    if (auto netlink =
            NetlinkPathMonitor::create(endpoint && endpoint->host ? *endpoint->host : std::string())) {
      pathMonitor = std::move(*netlink);
    } else {
      // Without a way to watch the network, uploads are tried as if it were always there.
      pathMonitor = std::make_shared<ManualPathMonitor>();
    }
  }

  s.uploadClient =
      UploadClient::make({.apiKey = s.apiKey,
                          .serverUrl = serverUrl + "/sessions/v2/track",
                          .logger = s.logger,
                          .optOut = optOut,
                          .captureEnabled = true,
                          .retryCount = kUploadRetries,
                          .sampleRate = sampleRate,
                          .retryTimeInterval = kRetryTimeInterval,
                          .client = client},
                         uploadTransport, pathMonitor, makeQueue("com.verdalune.sessionreplay.upload"));
  s.remoteConfig = RemoteConfig::make(s.apiKey, serverUrl + "/config", s.logger, configTransport,
                                      s.application->defaultsStore(),
                                      makeQueue("com.verdalune.sessionreplay.remoteconfig"), client);
  s.storageCoordinator = StorageCoordinator<PersistentStorage>::make(
      std::make_shared<PersistentStorage>(s.apiKey, s.application->applicationSupportDirectory()),
      s.uploadClient, s.logger, BlockState(s.apiKey, s.application->defaultsStore()),
      makeQueue("com.verdalune.sessionreplay.storage"));
  s.serializer = Serializer::make({.platform = platform,
                                   .logger = s.logger,
                                   .storageCoordinator = s.storageCoordinator,
                                   .queue = makeQueue("com.verdalune.sessionreplay.renderer"),
                                   .webviewMappings = std::move(webviewMappings),
                                   .imageEffort = imageEffort});
  s.webViewHandler = WebViewHandler::make(s.logger, s.application);
  s.webViewHandler->onWebviewEvent = [weakSerializer = std::weak_ptr<Serializer>(s.serializer)](
                                         std::int64_t layerId, std::string event) {
    if (auto serializer = weakSerializer.lock()) serializer->onWebviewEvent(layerId, std::move(event));
  };
  s.snapshotter = Snapshotter::make(platform, s.serializer, s.logger, s.webViewHandler);
  s.serializer->setDelegate(s.snapshotter);

  const auto cached = enableRemoteConfig ? s.remoteConfig->cachedConfiguration() : std::nullopt;
  if (cached) {
    // The log shows the values as they stood before the cache is applied.
    replay->logConfiguration("Using cached remote config:");
    replay->apply(&*cached);
  } else {
    replay->logConfiguration("Using parameters:");
  }

  s.mainQueue->async([weakSelf = replay->weak_from_this()] {
    auto self = weakSelf.lock();
    if (!self) return;
    SessionReplayState& state = *self->state_;
    if (state.enableRemoteConfig) self->fetchRemoteConfig();
    state.isInForeground = state.application->isActive();
    self->updateRecording();
    state.activity = state.application->observeActivity([weakSelf](platform::ActivityChange change) {
      auto self = weakSelf.lock();
      if (!self) return;
      if (change == platform::ActivityChange::didBecomeActive) {
        self->applicationDidBecomeActive();
      } else {
        self->applicationWillResignActive();
      }
    });
  });
  return replay;
}

SessionReplay::~SessionReplay() {
  // Capture and the foreground observation live on the main queue: they end there, in a task that keeps
  // only them.
  state_->mainQueue->async([snapshotter = state_->snapshotter,
                            activity = std::shared_ptr<platform::Subscription>(std::move(state_->activity))] {
    snapshotter->stop();
  });
}

void SessionReplay::start() {
  state_->isStarted = true;
  {
    std::scoped_lock guard(state_->lock);
    state_->selfReferenceWhenStarted = shared_from_this();
  }
  queueUpdate();
}

void SessionReplay::stop() {
  state_->isStarted = false;
  std::shared_ptr<SessionReplay> self;
  {
    std::scoped_lock guard(state_->lock);
    // Released outside the lock: it may be the last reference.
    self = std::move(state_->selfReferenceWhenStarted);
  }
  queueUpdate();
}

void SessionReplay::flush() {
  state_->serializer->flush();
}

const std::string& SessionReplay::apiKey() const {
  return state_->apiKey;
}
const std::shared_ptr<Logger>& SessionReplay::logger() const {
  return state_->logger;
}
bool SessionReplay::enableRemoteConfig() const {
  return state_->enableRemoteConfig;
}
float SessionReplay::sampleRate() const {
  return state_->sampleRate;
}
MaskLevel SessionReplay::maskLevel() const {
  return state_->maskLevel;
}
bool SessionReplay::optOut() const {
  return state_->optOut;
}
std::int64_t SessionReplay::sessionId() const {
  return state_->sessionId;
}

std::optional<std::string> SessionReplay::deviceId() const {
  std::scoped_lock guard(state_->lock);
  return state_->deviceId;
}

void SessionReplay::setSampleRate(float sampleRate) {
  state_->sampleRate = sampleRate;
  state_->uploadClient->setSampleRate(sampleRate);
}

void SessionReplay::setMaskLevel(MaskLevel maskLevel) {
  state_->maskLevel = maskLevel;
}

void SessionReplay::setOptOut(bool optOut) {
  if (state_->optOut.exchange(optOut) == optOut) return;
  state_->uploadClient->setOptOut(optOut);
  queueUpdate();
}

void SessionReplay::setSessionId(std::int64_t sessionId) {
  if (state_->sessionId.exchange(sessionId) == sessionId) return;
  state_->mainQueue->async([weakSelf = weak_from_this()] {
    auto self = weakSelf.lock();
    if (!self) return;
    if (self->state_->enableRemoteConfig) self->fetchRemoteConfig();
    self->updateRecording();
  });
}

void SessionReplay::setDeviceId(std::optional<std::string> deviceId) {
  {
    std::scoped_lock guard(state_->lock);
    if (state_->deviceId == deviceId) return;
    state_->deviceId = std::move(deviceId);
  }
  queueUpdate();
}

bool SessionReplay::inSample() const {
  return Sample::isInSample(state_->sessionId, state_->sampleRate);
}

std::map<std::string, std::any> SessionReplay::additionalEventProperties() const {
  const std::optional<std::string> device = deviceId();
  const std::int64_t session = state_->sessionId;
  // Unlike the recording decision this ignores the foreground: a host's event sent from the background
  // still belongs to the recorded session.
  if (!state_->isStarted || state_->optOut || !state_->captureEnabled || !device || session < 1 ||
      !inSample()) {
    return {};
  }
  return {{std::string(kSessionReplayIdKey), std::any(*device + "/" + std::to_string(session))}};
}

void SessionReplay::applicationDidBecomeActive() {
  state_->isInForeground = true;
  updateRecording();
}

void SessionReplay::applicationWillResignActive() {
  state_->isInForeground = false;
  updateRecording();
}

bool SessionReplay::isCapturing() const {
  return state_->snapshotter->isCapturing();
}

SessionReplay::Diagnostics SessionReplay::diagnostics() const {
  return {.sentImages = state_->serializer->sentImageCount(),
          .observedLayers = state_->snapshotter->layerObserver().observedCount(),
          .surfaceCopies = state_->snapshotter->ioSurfaceSnapshotter()->liveSnapshotCount()};
}

void SessionReplay::queueUpdate() {
  state_->mainQueue->async([weakSelf = weak_from_this()] {
    if (auto self = weakSelf.lock()) self->updateRecording();
  });
}

void SessionReplay::updateRecording() {
  SessionReplayState& s = *state_;
  const std::optional<std::string> device = deviceId();
  const bool record = s.isStarted && s.isInForeground && !s.optOut && s.captureEnabled && device &&
                      s.sessionId > 0 && inSample();
  if (record) {
    s.snapshotter->start(*device, s.sessionId, s.maskLevel);
  } else {
    s.snapshotter->stop();
  }
}

void SessionReplay::fetchRemoteConfig() {
  state_->remoteConfig->fetch(
      kFetchRetries, [weakSelf = weak_from_this(), mainQueue = state_->mainQueue](RemoteConfigResult result) {
        mainQueue->async([weakSelf, result = std::move(result)] {
          auto self = weakSelf.lock();
          if (!self || !result) return;
          if (self->apply(&*result)) self->logConfiguration("Using updated config values:");
        });
      });
}

bool SessionReplay::apply(const RemoteConfigResponse* configuration) {
  if (configuration == nullptr || !configuration->sessionReplayConfiguration) return false;
  SessionReplayState& s = *state_;
  const SessionReplayConfiguration& replay = *configuration->sessionReplayConfiguration;
  bool changed = false;
  if (replay.privacyConfiguration) {
    const MaskLevel level = replay.privacyConfiguration->defaultMaskLevel;
    if (level != s.maskLevel) {
      s.maskLevel = level;
      changed = true;
    }
  }
  if (replay.samplingConfiguration) {
    const auto& sampling = *replay.samplingConfiguration;
    if (sampling.sampleRate != s.sampleRate) {
      s.sampleRate = sampling.sampleRate;
      s.uploadClient->setSampleRate(sampling.sampleRate);
      changed = true;
    }
    if (sampling.captureEnabled != s.captureEnabled) {
      s.captureEnabled = sampling.captureEnabled;
      s.uploadClient->setCaptureEnabled(sampling.captureEnabled);
      changed = true;
    }
  }
  if (changed) queueUpdate();
  return changed;
}

void SessionReplay::logConfiguration(std::string_view heading) const {
  const SessionReplayState& s = *state_;
  const auto flag = [](bool value) { return value ? "true" : "false"; };
  const std::string line(43, '-');
  s.logger->warn(line);
  s.logger->warn(heading);
  s.logger->warn("apiKey: " + s.apiKey);
  s.logger->warn(std::string("optOut: ") + flag(s.optOut));
  s.logger->warn(std::string("captureEnabled: ") + flag(s.captureEnabled));
  s.logger->warn("sampleRate: " + sampleRateText(s.sampleRate));
  s.logger->warn("maskLevel: " + std::string(describe(s.maskLevel)));
  s.logger->warn(std::string("enableRemoteConfig: ") + flag(s.enableRemoteConfig));
  s.logger->warn(line);
}

}  // namespace verdalune::sessionreplay
