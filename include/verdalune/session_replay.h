#pragma once

#include <any>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "verdalune/logger.h"
#include "verdalune/mask_level.h"
#include "verdalune/platform/platform.h"
#include "verdalune/support/queue.h"

namespace verdalune::sessionreplay {

// Where recordings go: each zone has its own collection service.
enum class ServerZone : int { US = 0, EU = 1 };

// The hosts of the two zones. A host application may point the library at another base URL (a
// collector on its own machine, for instance) through SessionReplay::Options::serverUrl.
inline constexpr std::string_view kUsServerUrl = "https://replay.verdalune.com";
inline constexpr std::string_view kEuServerUrl = "https://replay.eu.verdalune.com";

class UploadClient;
class RemoteConfig;
class Serializer;
class StorageCoordinatorProtocol;
class Snapshotter;
class WebViewHandler;
class SessionReplayState;
struct RemoteConfigResponse;

// The one object a host application creates: it owns the whole library, keeps the recording parameters,
// and records the screen exactly while it is started, the application is in the foreground, the user has
// not opted out, capture is enabled remotely, there is a device and a session (id 1 or more), and the
// session is in sample.
//
//   auto replay = SessionReplay::make("api-key", "device-1", 42, false, 1.0f, {}, nullptr, ServerZone::US,
//                                     MaskLevel::medium, true, platform);
//   replay->start();
//
// Any thread may call it (the two foreground receivers aside); the recording decision and capture run on the
// platform's main queue. While started it keeps itself alive, so a host may drop its reference; after stop()
// the host's references decide its life.
class SessionReplay : public std::enable_shared_from_this<SessionReplay> {
 public:
  struct Options {
    // Replaces the zone's base URL: uploads go to serverUrl + "/sessions/v2/track", configuration comes
    // from serverUrl + "/config".
    std::optional<std::string> serverUrl;
    // Makes the library's serial queues ("com.verdalune.sessionreplay.renderer", ".storage", ".upload",
    // ".remoteconfig"); by default each is a thread of its own. Tests give manual queues.
    std::function<std::shared_ptr<Queue>(std::string_view label)> makeQueue;
    // How hard the lossy WebP coding of pictures works: libwebp's quality (0 to 100, 50 when absent) and
    // method (0, the fastest and the default, to 6, the smallest). The defaults favour the phone's time
    // over bytes; the bandwidth benchmark prints what other values cost and save. Out-of-range values
    // are logged and the defaults used.
    std::optional<int> imageQuality;
    std::optional<int> imageMethod;
  };

  // A recorder needs its parameters; there is no default one.
  SessionReplay() = delete;
  SessionReplay(const SessionReplay&) = delete;
  SessionReplay& operator=(const SessionReplay&) = delete;

  // A zone other than US and EU stops the process with a message naming the value.
  static std::shared_ptr<SessionReplay> make(std::string apiKey, std::optional<std::string> deviceId,
                                             std::int64_t sessionId, bool optOut, float sampleRate,
                                             std::map<std::string, std::string> webviewMappings,
                                             std::shared_ptr<Logger> logger, ServerZone serverZone,
                                             MaskLevel maskLevel, bool enableRemoteConfig,
                                             std::shared_ptr<platform::Platform> platform,
                                             Options options = {});
  ~SessionReplay();

  void start();
  void stop();
  // Closes the recording so far: its blocks go to the collector, and the next capture starts anew.
  void flush();

  const std::string& apiKey() const;
  const std::shared_ptr<Logger>& logger() const;
  bool enableRemoteConfig() const;

  float sampleRate() const;
  // Takes effect at the next upload and the next recording decision; does not start or stop capture.
  void setSampleRate(float sampleRate);
  MaskLevel maskLevel() const;
  // Takes effect when capture next starts.
  void setMaskLevel(MaskLevel maskLevel);

  bool optOut() const;
  void setOptOut(bool optOut);
  std::int64_t sessionId() const;
  void setSessionId(std::int64_t sessionId);
  std::optional<std::string> deviceId() const;
  void setDeviceId(std::optional<std::string> deviceId);

  // For the host's own analytics events: "[Verdalune] Session Replay ID" → "<device id>/<session id>"
  // while this session is being recorded (foreground or not); empty otherwise.
  std::map<std::string, std::any> additionalEventProperties() const;

  // The application's foreground transitions; the platform's announcements arrive here by themselves.
  // Main queue only, like the announcements: they decide at once.
  void applicationDidBecomeActive();
  void applicationWillResignActive();

  // Whether capture runs now. Main queue.
  bool isCapturing() const;

  // What the recorder holds on to now, for a host's diagnostics: the image rules sent in this recording
  // (one per distinct image), the layers whose changes it observes (each alive and shown at some
  // capture), and the surface frames it keeps copies of. Main queue.
  struct Diagnostics {
    std::size_t sentImages = 0;
    std::size_t observedLayers = 0;
    std::size_t surfaceCopies = 0;
  };
  Diagnostics diagnostics() const;

  struct PassKey {
   private:
    friend class SessionReplay;
    PassKey() = default;
  };
  SessionReplay(PassKey, std::shared_ptr<platform::Platform> platform);

 private:
  void updateRecording();
  void queueUpdate();
  void fetchRemoteConfig();
  bool apply(const RemoteConfigResponse* configuration);
  void logConfiguration(std::string_view heading) const;
  bool inSample() const;

  std::unique_ptr<SessionReplayState> state_;
};

}  // namespace verdalune::sessionreplay
