#include "facade/remote_config.h"

#include <rapidjson/document.h>

#include <cstdint>
#include <utility>
#include <vector>

#include "rrweb/coding.h"
#include "support/json_writer.h"
#include "upload/url.h"

namespace verdalune::sessionreplay {
namespace {

using rapidjson::Value;

constexpr char kConfigs[] = "configs";
constexpr char kSessionReplay[] = "sessionReplay";
constexpr char kPrivacy[] = "sr_ios_privacy_config";
constexpr char kDefaultMaskLevel[] = "defaultMaskLevel";
constexpr char kSampling[] = "sr_ios_sampling_config";
constexpr char kCaptureEnabled[] = "capture_enabled";
constexpr char kSampleRate[] = "sample_rate";

template <typename T>
using Decoded = std::expected<T, ConfigDecodingError>;

std::unexpected<ConfigDecodingError> decodingError(std::string description) {
  return std::unexpected(ConfigDecodingError{std::move(description)});
}

std::unexpected<ConfigDecodingError> missing(std::string_view key, const std::string& path) {
  return decodingError("missing \"" + std::string(key) + "\" in " + (path.empty() ? "the response" : path));
}

std::unexpected<ConfigDecodingError> mismatch(std::string_view expected, const std::string& path) {
  return decodingError("expected " + std::string(expected) + " at " + path);
}

std::string pathTo(const std::string& parent, std::string_view key) {
  return parent.empty() ? std::string(key) : parent + "." + std::string(key);
}

// A present member, or null when the key is absent or holds null: null reads as "not sent".
const Value* memberOf(const Value& object, const char* key) {
  const auto found = object.FindMember(key);
  if (found == object.MemberEnd() || found->value.IsNull()) return nullptr;
  return &found->value;
}

Decoded<SessionReplayPrivacyConfiguration> decodePrivacy(const Value& json, const std::string& path) {
  const Value* level = memberOf(json, kDefaultMaskLevel);
  if (!level) return missing(kDefaultMaskLevel, path);
  const std::string levelPath = pathTo(path, kDefaultMaskLevel);
  if (!level->IsString()) return mismatch("a string", levelPath);
  const std::string_view text(level->GetString(), level->GetStringLength());
  const auto parsed = maskLevelNamed(text);
  if (!parsed) return decodingError("unknown mask level \"" + std::string(text) + "\" at " + levelPath);
  return SessionReplayPrivacyConfiguration{*parsed};
}

Decoded<SessionReplaySamplingConfiguration> decodeSampling(const Value& json, const std::string& path) {
  const Value* captureEnabled = memberOf(json, kCaptureEnabled);
  if (!captureEnabled) return missing(kCaptureEnabled, path);
  if (!captureEnabled->IsBool()) return mismatch("a boolean", pathTo(path, kCaptureEnabled));

  const Value* sampleRate = memberOf(json, kSampleRate);
  if (!sampleRate) return missing(kSampleRate, path);
  if (!sampleRate->IsNumber()) return mismatch("a number", pathTo(path, kSampleRate));
  // A number that rounds to a finite float is that float. Beyond that, narrowing is undefined and would
  // not be the rate the server meant. The bound is not the largest float itself: a float's shortest text
  // (what encode() writes, "3.4028235e+38" for the largest) reads back as a double a little above it, and
  // only from halfway to the next power of two does a double round to infinity.
  constexpr double kBeyondFloat = 0x1.ffffffp+127;
  const double rate = sampleRate->GetDouble();
  if (!(rate < kBeyondFloat && rate > -kBeyondFloat)) {
    return decodingError("number out of the range of a float at " + pathTo(path, kSampleRate));
  }
  return SessionReplaySamplingConfiguration{captureEnabled->GetBool(), static_cast<float>(rate)};
}

// The object under `key` decoded by `decode`, none when it is absent.
template <typename Decode>
auto decodeOptional(const Value& parent, const char* key, const std::string& parentPath, Decode decode)
    -> Decoded<std::optional<typename decltype(decode(parent, parentPath))::value_type>> {
  const Value* json = memberOf(parent, key);
  if (!json) return std::nullopt;
  const std::string path = pathTo(parentPath, key);
  if (!json->IsObject()) return mismatch("an object", path);
  auto decoded = decode(*json, path);
  if (!decoded) return std::unexpected(std::move(decoded.error()));
  return *std::move(decoded);
}

Decoded<SessionReplayConfiguration> decodeSessionReplay(const Value& json, const std::string& path) {
  auto privacy = decodeOptional(json, kPrivacy, path, decodePrivacy);
  if (!privacy) return std::unexpected(std::move(privacy.error()));
  auto sampling = decodeOptional(json, kSampling, path, decodeSampling);
  if (!sampling) return std::unexpected(std::move(sampling.error()));
  return SessionReplayConfiguration{*privacy, *sampling};
}

// What one exchange with the endpoint amounts to, before any bookkeeping.
RemoteConfigResult outcomeOf(platform::HttpCompletion exchange) {
  auto body = classify(std::move(exchange.data), exchange.response, std::move(exchange.error));
  if (!body) {
    return std::unexpected(
        std::visit([](auto failure) -> RemoteConfigError { return failure; }, body.error()));
  }
  if (!*body) return std::unexpected(HttpError::invalidResponse);
  auto decoded = decodeRemoteConfigResponse(**body);
  if (!decoded) return std::unexpected(std::move(decoded.error()));
  return *std::move(decoded);
}

bool isRetried(const RemoteConfigError& error) {
  const auto* http = std::get_if<HttpError>(&error);
  return http && isRetryable(HttpFailure(*http));
}

}  // namespace

std::string describe(const RemoteConfigError& error) {
  if (const auto* decoding = std::get_if<ConfigDecodingError>(&error)) return decoding->description;
  if (const auto* http = std::get_if<HttpError>(&error)) return std::string(describe(*http));
  return describe(HttpFailure(std::get<platform::TransportError>(error)));
}

std::expected<RemoteConfigResponse, ConfigDecodingError> decodeRemoteConfigResponse(std::string_view json) {
  // The endpoint is outside our control: parse the way the event decoders parse untrusted text.
  rapidjson::Document document;
  if (const auto parsed = rrweb::parseJson(json, document); !parsed) {
    return decodingError(parsed.error().description);
  }
  if (!document.IsObject()) return mismatch("an object", "the top level");
  const Value* configs = memberOf(document, kConfigs);
  if (!configs) return missing(kConfigs, "");
  if (!configs->IsObject()) return mismatch("an object", kConfigs);
  auto sessionReplay = decodeOptional(*configs, kSessionReplay, kConfigs, decodeSessionReplay);
  if (!sessionReplay) return std::unexpected(std::move(sessionReplay.error()));
  return RemoteConfigResponse{*std::move(sessionReplay)};
}

std::optional<std::string> encode(const RemoteConfigResponse& response) {
  std::string out;
  JsonWriter writer(out);
  writer.beginObject();
  writer.plainKey(kConfigs);
  writer.beginObject();
  if (const auto& sessionReplay = response.sessionReplayConfiguration) {
    writer.plainKey(kSessionReplay);
    writer.beginObject();
    if (const auto& privacy = sessionReplay->privacyConfiguration) {
      writer.plainKey(kPrivacy);
      writer.beginObject();
      writer.plainKey(kDefaultMaskLevel);
      writer.string(describe(privacy->defaultMaskLevel));
      writer.endObject();
    }
    if (const auto& sampling = sessionReplay->samplingConfiguration) {
      writer.plainKey(kSampling);
      writer.beginObject();
      writer.plainKey(kCaptureEnabled);
      writer.boolean(sampling->captureEnabled);
      writer.plainKey(kSampleRate);
      writer.number(sampling->sampleRate);
      writer.endObject();
    }
    writer.endObject();
  }
  writer.endObject();
  writer.endObject();
  if (!writer.ok()) return std::nullopt;
  return out;
}

std::shared_ptr<RemoteConfig> RemoteConfig::make(std::string apiKey, std::string serverUrl,
                                                 std::shared_ptr<Logger> logger,
                                                 std::shared_ptr<platform::HttpTransport> transport,
                                                 std::shared_ptr<DefaultsStore> defaults,
                                                 std::shared_ptr<Queue> queue, ClientInfo client) {
  return std::shared_ptr<RemoteConfig>(
      new RemoteConfig(std::move(apiKey), std::move(serverUrl), std::move(logger), std::move(transport),
                       std::move(defaults), std::move(queue), std::move(client)));
}

RemoteConfig::RemoteConfig(std::string apiKey, std::string serverUrl, std::shared_ptr<Logger> logger,
                           std::shared_ptr<platform::HttpTransport> transport,
                           std::shared_ptr<DefaultsStore> defaults, std::shared_ptr<Queue> queue,
                           ClientInfo client)
    : apiKey_(std::move(apiKey)),
      serverUrl_(std::move(serverUrl)),
      logger_(std::move(logger)),
      transport_(std::move(transport)),
      defaults_(std::move(defaults)),
      queue_(std::move(queue)),
      client_(std::move(client)) {}

std::string RemoteConfig::cacheKey(std::string_view apiKey) {
  return "com.verdalune.sessionreplay." + std::string(apiKey) + ".cached_config";
}

std::optional<RemoteConfigResponse> RemoteConfig::cachedConfiguration() const {
  const auto bytes = defaults_->bytes(cacheKey(apiKey_));
  if (!bytes) return std::nullopt;
  auto decoded = decodeRemoteConfigResponse(
      std::string_view(reinterpret_cast<const char*>(bytes->data()), bytes->size()));
  if (!decoded) return std::nullopt;
  return *std::move(decoded);
}

void RemoteConfig::setCachedConfiguration(const RemoteConfigResponse& configuration) {
  const std::string key = cacheKey(apiKey_);
  // A store that fails to save keeps the change in memory and saves it with its next write; the answer
  // is applied either way, so a failed save changes nothing here.
  if (const auto json = encode(configuration)) {
    (void)defaults_->set(key, std::vector<std::uint8_t>(json->begin(), json->end()));
  } else {
    (void)defaults_->remove(key);
  }
}

void RemoteConfig::fetch(int retries, Completion completion) {
  queue_->async([weak = weak_from_this(), retries, completion = std::move(completion)]() mutable {
    if (const auto self = weak.lock()) self->start(retries, std::move(completion));
  });
}

void RemoteConfig::start(int retries, Completion completion) {
  if (isFetching_) return;
  isFetching_ = true;

  auto components = UrlComponents::parse(serverUrl_);
  if (!components) {
    isFetching_ = false;
    completion(std::unexpected(HttpError::invalidURL));
    return;
  }
  // The api key travels in the query, not in an authorization header; the endpoint reads
  // "config_keys" as a list, hence the key twice.
  components->queryItems = {
      {"api_key", apiKey_},
      {"config_keys", std::string(kSessionReplay) + "." + kPrivacy},
      {"config_keys", std::string(kSessionReplay) + "." + kSampling},
  };
  const auto url = components->url();
  if (!url) {
    // The flag stays set on purpose: an endpoint that parses but makes no URL never will, so this
    // fetcher stops asking for the rest of the process.
    completion(std::unexpected(HttpError::invalidURL));
    return;
  }

  if (!transport_) {
    // No transport could be made: the cached configuration stays what applies.
    finish(0, std::move(completion),
           std::unexpected(RemoteConfigError(platform::TransportError{-1, "no HTTP transport"})));
    return;
  }

  platform::HttpRequest request;
  request.method = "GET";
  request.url = *url;
  request.headers = commonHeaders(client_);
  // The handling is the same whether it runs on our queue or, when the fetcher is already gone, right
  // on the transport's thread; handle() looks again whether the fetcher is still there.
  auto handle = [](const std::weak_ptr<RemoteConfig>& weak, int retries, Completion completion,
                   platform::HttpCompletion exchange) {
    auto outcome = outcomeOf(std::move(exchange));
    if (const auto self = weak.lock()) {
      self->finish(retries, std::move(completion), std::move(outcome));
    } else {
      completion(std::move(outcome));
    }
  };
  transport_->send(std::move(request), [weak = weak_from_this(), retries, completion = std::move(completion),
                                        handle](platform::HttpCompletion exchange) mutable {
    const auto self = weak.lock();
    if (!self) return handle(weak, retries, std::move(completion), std::move(exchange));
    self->queue_->async(
        [weak, retries, completion = std::move(completion), exchange = std::move(exchange),
         handle]() mutable { handle(weak, retries, std::move(completion), std::move(exchange)); });
  });
}

void RemoteConfig::finish(int retries, Completion completion, RemoteConfigResult outcome) {
  if (!outcome) {
    if (logger_)
      logger_->error("[RemoteConfig] Failed to fetch config with error: " + describe(outcome.error()));
    isFetching_ = false;
    if (isRetried(outcome.error()) && retries >= 1) {
      fetch(retries - 1, std::move(completion));
    } else {
      completion(std::move(outcome));
    }
    return;
  }
  if (logger_) logger_->log("[RemoteConfig] Updating cache");
  setCachedConfiguration(*outcome);
  isFetching_ = false;
  completion(std::move(outcome));
}

}  // namespace verdalune::sessionreplay
