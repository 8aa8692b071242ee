#pragma once

#include <atomic>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "upload/http_error.h"
#include "upload/request_headers.h"
#include "verdalune/logger.h"
#include "verdalune/mask_level.h"
#include "verdalune/platform/network.h"
#include "verdalune/support/defaults_store.h"
#include "verdalune/support/queue.h"

namespace verdalune::sessionreplay {

// The project's session replay settings as the config endpoint sends them and as the cache keeps them:
//
//   {"configs":{"sessionReplay":{"sr_ios_privacy_config":{"defaultMaskLevel":"medium"},
//                                "sr_ios_sampling_config":{"capture_enabled":true,"sample_rate":0.5}}}}
//
// Every level below "configs" may be absent (or null), and then nothing is overridden. An object that is
// present must be complete: the facade applies a privacy or sampling setting as a whole, so an object
// that lacks one of its keys is a decoding error rather than half a setting. Unknown keys are ignored,
// so the server may add settings for other platforms.

struct SessionReplayPrivacyConfiguration {
  MaskLevel defaultMaskLevel = MaskLevel::light;  // "defaultMaskLevel": "light" | "medium" | "conservative"

  bool operator==(const SessionReplayPrivacyConfiguration&) const = default;
};

struct SessionReplaySamplingConfiguration {
  bool captureEnabled = true;  // "capture_enabled"
  float sampleRate = 0;        // "sample_rate"

  bool operator==(const SessionReplaySamplingConfiguration&) const = default;
};

struct SessionReplayConfiguration {
  std::optional<SessionReplayPrivacyConfiguration> privacyConfiguration;    // "sr_ios_privacy_config"
  std::optional<SessionReplaySamplingConfiguration> samplingConfiguration;  // "sr_ios_sampling_config"

  bool operator==(const SessionReplayConfiguration&) const = default;
};

struct RemoteConfigResponse {
  std::optional<SessionReplayConfiguration> sessionReplayConfiguration;  // "configs" -> "sessionReplay"

  bool operator==(const RemoteConfigResponse&) const = default;
};

// A configuration text that cannot be read: not JSON, no "configs" object, a value of the wrong JSON
// type, an incomplete object, an unknown mask level or a sample rate beyond a float. The description
// names the value at fault by its path ("configs.sessionReplay.sr_ios_sampling_config.sample_rate").
struct ConfigDecodingError {
  std::string description;

  bool operator==(const ConfigDecodingError&) const = default;
};

// Why a fetch gave no configuration. The first two cases are an HttpFailure as the classification of
// the exchange produces it (plus HttpError::invalidURL for an unusable endpoint and
// HttpError::invalidResponse for a success without a body); the third is a body that did not decode.
// Only HttpErrors of the retry set are retried.
using RemoteConfigError = std::variant<HttpError, platform::TransportError, ConfigDecodingError>;

// The text that follows "Failed to fetch config with error: " in the log: the HttpError's case name, the
// transport's own description, or the decoding error's description.
[[nodiscard]] std::string describe(const RemoteConfigError& error);

using RemoteConfigResult = std::expected<RemoteConfigResponse, RemoteConfigError>;

// Reads a configuration text (a response body or the cached bytes). Never throws.
[[nodiscard]] std::expected<RemoteConfigResponse, ConfigDecodingError> decodeRemoteConfigResponse(
    std::string_view json);

// The same shape back as JSON, absent objects left out ({"configs":{}} when there is nothing). None
// when a sample rate is not finite, which JSON cannot express.
[[nodiscard]] std::optional<std::string> encode(const RemoteConfigResponse& response);

// Fetches the session replay settings from the zone's config endpoint, keeps the last good answer in the
// defaults store for the next launch, and hands each answer to the caller.
//
// Threads: fetch() and the cache calls may be called from any thread. All fetch bookkeeping (the
// in-flight flag, retries, writing the cache) runs on the queue given at construction, and completions
// are called there; callers move to their own queue themselves.
//
// Queued work and transport callbacks hold the fetcher weakly. A fetch whose fetcher goes away while the
// request is in flight still completes with the exchange's outcome (on the transport's thread), but
// logs nothing, writes no cache and does not retry; work still waiting on the queue when the fetcher
// and its queue go is dropped with them.
class RemoteConfig : public std::enable_shared_from_this<RemoteConfig> {
 public:
  using Completion = std::function<void(RemoteConfigResult)>;

  // `serverUrl` is the zone's config endpoint. `logger` may be null (nothing is logged), and so may
  // `transport` when none could be made (every fetch then fails, logged); the other collaborators must
  // not be.
  [[nodiscard]] static std::shared_ptr<RemoteConfig> make(std::string apiKey, std::string serverUrl,
                                                          std::shared_ptr<Logger> logger,
                                                          std::shared_ptr<platform::HttpTransport> transport,
                                                          std::shared_ptr<DefaultsStore> defaults,
                                                          std::shared_ptr<Queue> queue, ClientInfo client);

  RemoteConfig(const RemoteConfig&) = delete;
  RemoteConfig& operator=(const RemoteConfig&) = delete;

  // The defaults-store key of the cache: "com.verdalune.sessionreplay." + apiKey + ".cached_config".
  // The api key is used verbatim, so each project on a device keeps its own cache.
  [[nodiscard]] static std::string cacheKey(std::string_view apiKey);

  // The last configuration fetched, as saved by an earlier fetch (possibly in an earlier process);
  // none when nothing is cached or the entry does not decode.
  [[nodiscard]] std::optional<RemoteConfigResponse> cachedConfiguration() const;
  // Saves `configuration` as the cache; when it cannot be encoded the old entry is removed instead, so
  // the cache never holds something other than the last answer.
  void setCachedConfiguration(const RemoteConfigResponse& configuration);

  // Asks the endpoint for the configuration, retrying transient failures (HttpErrors of the retry set)
  // up to `retries` more times, at once. `completion` receives the configuration (which may hold
  // nothing) or the last error. While a fetch is in flight, another request is dropped without a
  // completion.
  void fetch(int retries, Completion completion);

  // True while a fetch is in flight; it also stays true for good once the endpoint turned out to make
  // no URL, so that a fetcher with an unusable endpoint stops asking. Safe from any thread.
  [[nodiscard]] bool isFetching() const { return isFetching_.load(); }

 private:
  RemoteConfig(std::string apiKey, std::string serverUrl, std::shared_ptr<Logger> logger,
               std::shared_ptr<platform::HttpTransport> transport, std::shared_ptr<DefaultsStore> defaults,
               std::shared_ptr<Queue> queue, ClientInfo client);

  // On the queue.
  void start(int retries, Completion completion);
  void finish(int retries, Completion completion, RemoteConfigResult outcome);

  const std::string apiKey_;
  const std::string serverUrl_;
  const std::shared_ptr<Logger> logger_;
  const std::shared_ptr<platform::HttpTransport> transport_;
  const std::shared_ptr<DefaultsStore> defaults_;
  const std::shared_ptr<Queue> queue_;
  const ClientInfo client_;
  // Written on queue_ only; atomic so that tests may read it from their own thread.
  std::atomic<bool> isFetching_{false};
};

}  // namespace verdalune::sessionreplay
