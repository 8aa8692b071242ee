#include "facade/remote_config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "integration/collector_process.h"
#include "integration/drive.h"
#include "support/clock.h"
#include "support/defaults_store.h"
#include "support/queue.h"
#include "upload/curl_transport.h"

namespace verdalune::sessionreplay {

// Outcomes in failure messages as their JSON or their log text rather than as bytes.
void PrintTo(const RemoteConfigResult& result, std::ostream* out) {
  if (result) {
    *out << encode(*result).value_or("(unencodable)");
  } else {
    *out << "error: " << describe(result.error());
  }
}

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr char kExampleBody[] =
    R"({"configs":{"sessionReplay":{"sr_ios_privacy_config":{"defaultMaskLevel":"medium"},)"
    R"("sr_ios_sampling_config":{"capture_enabled":true,"sample_rate":0.5}}}})";

const RemoteConfigResponse kExample{SessionReplayConfiguration{
    SessionReplayPrivacyConfiguration{MaskLevel::medium},
    SessionReplaySamplingConfiguration{true, 0.5f},
}};

RemoteConfigResult failed(RemoteConfigError error) {
  return std::unexpected(std::move(error));
}

std::vector<std::uint8_t> bytesOf(std::string_view text) {
  return {text.begin(), text.end()};
}

// ---------------------------------------------------------------------------------------------------
// The records and their JSON

TEST(RemoteConfigCoding, TheExampleBodyDecodesFullyAndEncodesBackToTheSameText) {
  const auto decoded = decodeRemoteConfigResponse(kExampleBody);
  ASSERT_TRUE(decoded.has_value()) << decoded.error().description;
  EXPECT_EQ(*decoded, kExample);
  EXPECT_EQ(encode(kExample), kExampleBody);
}

TEST(RemoteConfigCoding, AbsentNullAndUnknownMembersLeaveTheirPartEmpty) {
  const auto empty = decodeRemoteConfigResponse(R"({"configs":{}})");
  ASSERT_TRUE(empty.has_value());
  EXPECT_EQ(*empty, RemoteConfigResponse{});
  EXPECT_EQ(encode(*empty), R"({"configs":{}})");

  const auto nulls = decodeRemoteConfigResponse(
      R"({"configs":{"sessionReplay":{"sr_ios_privacy_config":null,"sr_ios_sampling_config":null}}})");
  ASSERT_TRUE(nulls.has_value());
  EXPECT_EQ(*nulls, RemoteConfigResponse{SessionReplayConfiguration{}});
  EXPECT_EQ(encode(*nulls), R"({"configs":{"sessionReplay":{}}})");

  // Settings for other platforms and keys we do not know are none of our business; an integral rate
  // is still a rate.
  const auto extras = decodeRemoteConfigResponse(
      R"({"configs":{"analytics":{"x":1},"sessionReplay":{"sr_android_privacy_config":{"defaultMaskLevel":"x"},)"
      R"("sr_ios_sampling_config":{"sample_rate":1,"capture_enabled":false,"later":[]}}},"other":true})");
  ASSERT_TRUE(extras.has_value()) << extras.error().description;
  EXPECT_EQ(*extras, (RemoteConfigResponse{SessionReplayConfiguration{
                         std::nullopt, SessionReplaySamplingConfiguration{false, 1.0f}}}));
}

TEST(RemoteConfigCoding, IncompleteOrMistypedObjectsAreDecodingErrorsNamingTheValue) {
  const std::pair<std::string, std::string> cases[] = {
      {R"({"configs":{"sessionReplay":{"sr_ios_sampling_config":{"sample_rate":0.5}}}})", "capture_enabled"},
      {R"({"configs":{"sessionReplay":{"sr_ios_sampling_config":{"capture_enabled":true}}}})", "sample_rate"},
      {R"({"configs":{"sessionReplay":{"sr_ios_sampling_config":{"capture_enabled":true,"sample_rate":null}}}})",
       "sample_rate"},
      {R"({"configs":{"sessionReplay":{"sr_ios_privacy_config":{}}}})", "defaultMaskLevel"},
      {R"({"configs":{"sessionReplay":{"sr_ios_privacy_config":{"defaultMaskLevel":"strict"}}}})", "strict"},
      {R"({"configs":{"sessionReplay":{"sr_ios_sampling_config":{"capture_enabled":1,"sample_rate":0.5}}}})",
       "capture_enabled"},
      {R"({"configs":{"sessionReplay":{"sr_ios_sampling_config":{"capture_enabled":true,"sample_rate":"0.5"}}}})",
       "sample_rate"},
      {R"({"configs":{"sessionReplay":{"sr_ios_sampling_config":{"capture_enabled":true,"sample_rate":1e300}}}})",
       "sample_rate"},
      {R"({"configs":{"sessionReplay":{"sr_ios_privacy_config":[]}}})", "sr_ios_privacy_config"},
      {R"({"sessionReplay":{}})", "configs"},
      {R"([])", "object"},
      {R"({"configs":{}} trailing)", "JSON"},
      {"", "JSON"},
  };
  for (const auto& [json, named] : cases) {
    const auto decoded = decodeRemoteConfigResponse(json);
    ASSERT_FALSE(decoded.has_value()) << json;
    EXPECT_THAT(decoded.error().description, HasSubstr(named)) << json;
  }
}

// ---------------------------------------------------------------------------------------------------
// Collaborators

// Keeps the error and log lines apart, for the assertions.
class RecordingLogger final : public Logger {
 public:
  void error(std::string_view message) override { record(errors_, message); }
  void warn(std::string_view) override {}
  void log(std::string_view message) override { record(logs_, message); }
  void debug(std::string_view) override {}

  std::vector<std::string> errors() const { return copy(errors_); }
  std::vector<std::string> logs() const { return copy(logs_); }

 private:
  void record(std::vector<std::string>& lines, std::string_view message) {
    std::lock_guard lock(mutex_);
    lines.emplace_back(message);
  }
  std::vector<std::string> copy(const std::vector<std::string>& lines) const {
    std::lock_guard lock(mutex_);
    return lines;
  }

  mutable std::mutex mutex_;
  std::vector<std::string> errors_, logs_;
};

// For fetchers that must not reach the network: counts what it was asked to send and answers nothing.
class UnusedTransport final : public platform::HttpTransport {
 public:
  std::shared_ptr<platform::HttpTask> send(platform::HttpRequest,
                                           std::function<void(platform::HttpCompletion)>) override {
    ++sent;
    return nullptr;
  }
  int sent = 0;
};

// Every completion a fetch delivered, in order. Locked: a fetcher that is gone completes on the
// transport's thread.
class Completions {
 public:
  RemoteConfig::Completion recorder() {
    return [this](RemoteConfigResult result) {
      std::lock_guard lock(mutex_);
      results_.push_back(std::move(result));
    };
  }
  std::vector<RemoteConfigResult> results() const {
    std::lock_guard lock(mutex_);
    return results_;
  }
  std::size_t count() const { return results().size(); }

 private:
  mutable std::mutex mutex_;
  std::vector<RemoteConfigResult> results_;
};

// What a fetcher is built with, the queue a manual one; the transport sends nothing unless a test puts
// a real one in.
struct Rig {
  std::shared_ptr<RecordingLogger> logger = std::make_shared<RecordingLogger>();
  std::shared_ptr<InMemoryDefaultsStore> defaults = std::make_shared<InMemoryDefaultsStore>();
  std::shared_ptr<ManualQueue> queue = std::make_shared<ManualQueue>(
      "com.verdalune.sessionreplay.remoteconfig", std::make_shared<ManualClock>());
  std::shared_ptr<UnusedTransport> unused = std::make_shared<UnusedTransport>();
  std::shared_ptr<platform::HttpTransport> transport = unused;

  std::shared_ptr<RemoteConfig> fetcher(std::string apiKey,
                                        std::string serverUrl = "https://config.test/config") {
    return RemoteConfig::make(std::move(apiKey), std::move(serverUrl), logger, transport, defaults, queue,
                              ClientInfo{"com.example.app", "1.2.3"});
  }
};

// ---------------------------------------------------------------------------------------------------
// The cache

TEST(RemoteConfigCache, KeepsTheEncodedAnswerUnderTheProjectsOwnKey) {
  Rig offline;
  const auto first = offline.fetcher("key/1");
  const auto second = offline.fetcher("key-2");
  EXPECT_EQ(first->cachedConfiguration(), std::nullopt);

  first->setCachedConfiguration(kExample);
  EXPECT_EQ(offline.defaults->bytes("com.verdalune.sessionreplay.key/1.cached_config"),
            bytesOf(kExampleBody));
  EXPECT_EQ(first->cachedConfiguration(), kExample);
  EXPECT_EQ(offline.fetcher("key/1")->cachedConfiguration(), kExample);  // as in the next launch
  EXPECT_EQ(second->cachedConfiguration(), std::nullopt);

  first->setCachedConfiguration(RemoteConfigResponse{});
  EXPECT_EQ(first->cachedConfiguration(), RemoteConfigResponse{});
}

TEST(RemoteConfigCache, AnEntryThatDoesNotDecodeIsNoCache) {
  Rig offline;
  const auto fetcher = offline.fetcher("key");
  const std::string key = RemoteConfig::cacheKey("key");
  ASSERT_TRUE(
      offline.defaults->set(key, bytesOf(R"({"configs":{"sessionReplay":{"sr_ios_privacy_config":{}}}})")));
  EXPECT_EQ(fetcher->cachedConfiguration(), std::nullopt);
  ASSERT_TRUE(offline.defaults->set(key, std::string(kExampleBody)));  // a string, not bytes
  EXPECT_EQ(fetcher->cachedConfiguration(), std::nullopt);
}

TEST(RemoteConfigCache, AnAnswerThatCannotBeEncodedRemovesTheOldEntry) {
  Rig offline;
  const auto fetcher = offline.fetcher("key");
  fetcher->setCachedConfiguration(kExample);
  RemoteConfigResponse unencodable = kExample;
  unencodable.sessionReplayConfiguration->samplingConfiguration->sampleRate = INFINITY;
  fetcher->setCachedConfiguration(unencodable);
  EXPECT_EQ(offline.defaults->bytes(RemoteConfig::cacheKey("key")), std::nullopt);
  EXPECT_EQ(fetcher->cachedConfiguration(), std::nullopt);
}

// ---------------------------------------------------------------------------------------------------
// Endpoints that make no request

TEST(RemoteConfigEndpoint, AnEndpointThatDoesNotParseFailsEachFetchAndLetsTheNextOneRun) {
  Rig offline;
  const auto fetcher = offline.fetcher("key", "not a url");
  Completions completions;
  fetcher->fetch(3, completions.recorder());
  offline.queue->runUntilIdle();
  EXPECT_FALSE(fetcher->isFetching());
  fetcher->fetch(3, completions.recorder());
  offline.queue->runUntilIdle();

  EXPECT_THAT(completions.results(),
              ElementsAre(failed(HttpError::invalidURL), failed(HttpError::invalidURL)));
  EXPECT_FALSE(fetcher->isFetching());
  EXPECT_EQ(offline.unused->sent, 0);
  EXPECT_THAT(offline.logger->errors(), ElementsAre());  // reported to the caller, not retried
}

TEST(RemoteConfigEndpoint, AnEndpointThatMakesNoUrlFailsOnceAndStopsEveryLaterFetch) {
  Rig offline;
  const auto fetcher = offline.fetcher("key", "example.com/config");  // no scheme
  Completions completions;
  fetcher->fetch(3, completions.recorder());
  offline.queue->runUntilIdle();
  EXPECT_TRUE(fetcher->isFetching());
  fetcher->fetch(3, completions.recorder());
  fetcher->fetch(0, completions.recorder());
  offline.queue->runUntilIdle();

  EXPECT_THAT(completions.results(), ElementsAre(failed(HttpError::invalidURL)));
  EXPECT_TRUE(fetcher->isFetching());
  EXPECT_EQ(offline.queue->pendingCount(), 0u);
  EXPECT_EQ(offline.unused->sent, 0);
}

// ---------------------------------------------------------------------------------------------------
// Fetching from the collection server over HTTP

constexpr char kApiKey[] = "test-key";
constexpr char kFailureLine[] = "[RemoteConfig] Failed to fetch config with error: ";

class RemoteConfigFetch : public ::testing::Test {
 protected:
  // Starts a collector that answers kApiKey's config requests with `body` (without one, with its own
  // {"configs":{}}), and a fetcher on the real transport pointed at it.
  void serve(std::optional<std::string> body = std::nullopt) {
    testing::CollectorProcess::Options options;
    options.apiKeys = {kApiKey};
    if (body) options.configs[kApiKey] = *body;
    collector_ = testing::CollectorProcess::start(std::move(options));
    ASSERT_NE(collector_, nullptr);
    auto transport = CurlTransport::create();
    ASSERT_TRUE(transport.has_value()) << transport.error().description;
    rig_.transport = *std::move(transport);
    fetcher_ = rig_.fetcher(kApiKey, collector_->configUrl());
  }

  // Fetches and drives the fetcher's queue until the completion has come.
  RemoteConfigResult fetch(int retries) {
    Completions completions;
    fetcher_->fetch(retries, completions.recorder());
    EXPECT_TRUE(testing::driveUntil(*rig_.queue, [&] { return completions.count() > 0; }));
    const auto results = completions.results();
    EXPECT_EQ(results.size(), 1u);
    return results.empty() ? failed(HttpError::unknown) : results.front();
  }

  std::size_t requestCount() const { return collector_->requests().size(); }

  // The rig shares the transport with the fetcher, as the facade shares it with the upload client, so
  // a fetcher going away does not take the transport (and its requests in flight) with it.
  Rig rig_;
  std::unique_ptr<testing::CollectorProcess> collector_;
  std::shared_ptr<RemoteConfig> fetcher_;
};

TEST_F(RemoteConfigFetch, AsksWithTheApiKeyAndBothConfigKeysInTheQueryAndNoAuthorization) {
  ASSERT_NO_FATAL_FAILURE(serve(kExampleBody));
  EXPECT_EQ(fetch(3), RemoteConfigResult(kExample));

  const auto requests = collector_->requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].method, "GET");
  EXPECT_EQ(requests[0].path, "/config");
  EXPECT_EQ(requests[0].query,
            "api_key=test-key&config_keys=sessionReplay.sr_ios_privacy_config"
            "&config_keys=sessionReplay.sr_ios_sampling_config");
  EXPECT_EQ(requests[0].header("Authorization"), std::nullopt);
  EXPECT_EQ(requests[0].header("X-Client-Bundle-Id"), "com.example.app");
  EXPECT_EQ(requests[0].header("X-Client-Library"), "session-replay-ios/1.2.3");
  EXPECT_EQ(requests[0].header("X-Client-Platform"), "ios");
  EXPECT_FALSE(fetcher_->isFetching());
}

TEST_F(RemoteConfigFetch, AnAnswerIsCachedAndAnEmptyOneReplacesTheOldCache) {
  ASSERT_NO_FATAL_FAILURE(serve());
  fetcher_->setCachedConfiguration(kExample);

  EXPECT_EQ(fetch(3), RemoteConfigResult(RemoteConfigResponse{}));
  EXPECT_THAT(rig_.logger->logs(), ElementsAre("[RemoteConfig] Updating cache"));
  EXPECT_EQ(rig_.defaults->bytes(RemoteConfig::cacheKey(kApiKey)), bytesOf(R"({"configs":{}})"));
  EXPECT_EQ(fetcher_->cachedConfiguration(), RemoteConfigResponse{});
}

TEST_F(RemoteConfigFetch, RateLimitedOnEveryAttemptMakesRetriesPlusOneRequestsThenFails) {
  ASSERT_NO_FATAL_FAILURE(serve(kExampleBody));
  collector_->injectFaults({{.status = 429}, {.status = 429}, {.status = 429}, {.status = 429}});

  EXPECT_EQ(fetch(3), failed(HttpError::rateLimited));
  EXPECT_EQ(requestCount(), 4u);
  const std::string line = std::string(kFailureLine) + "rateLimited";
  EXPECT_THAT(rig_.logger->errors(), ElementsAre(line, line, line, line));
  EXPECT_EQ(fetcher_->cachedConfiguration(), std::nullopt);
  EXPECT_FALSE(fetcher_->isFetching());
}

TEST_F(RemoteConfigFetch, TransientFailuresAreRetriedAtOnceUntilAnAnswerComes) {
  ASSERT_NO_FATAL_FAILURE(serve(kExampleBody));
  collector_->injectFaults({{.status = 429}, {.status = 408}});

  EXPECT_EQ(fetch(3), RemoteConfigResult(kExample));
  EXPECT_EQ(requestCount(), 3u);
  EXPECT_THAT(rig_.logger->errors(),
              ElementsAre(std::string(kFailureLine) + "rateLimited", std::string(kFailureLine) + "timeout"));
  EXPECT_EQ(fetcher_->cachedConfiguration(), kExample);
}

TEST_F(RemoteConfigFetch, AServerErrorIsFinal) {
  ASSERT_NO_FATAL_FAILURE(serve(kExampleBody));
  collector_->injectFaults({{.status = 500}});

  EXPECT_EQ(fetch(3), failed(HttpError::requestFailed));
  EXPECT_EQ(requestCount(), 1u);
  EXPECT_THAT(rig_.logger->errors(), ElementsAre(std::string(kFailureLine) + "requestFailed"));
}

TEST_F(RemoteConfigFetch, AnUndecodableAnswerIsLoggedNotRetriedAndLeavesTheCache) {
  ASSERT_NO_FATAL_FAILURE(serve(R"({"configs":{"sessionReplay":{"sr_ios_privacy_config":{}}}})"));
  fetcher_->setCachedConfiguration(kExample);

  const std::string description =
      R"(missing "defaultMaskLevel" in configs.sessionReplay.sr_ios_privacy_config)";
  EXPECT_EQ(fetch(3), failed(ConfigDecodingError{description}));
  EXPECT_EQ(requestCount(), 1u);
  EXPECT_THAT(rig_.logger->errors(), ElementsAre(kFailureLine + description));
  EXPECT_THAT(rig_.logger->logs(), ElementsAre());
  EXPECT_EQ(fetcher_->cachedConfiguration(), kExample);
  EXPECT_FALSE(fetcher_->isFetching());
}

TEST_F(RemoteConfigFetch, AFetchAskedForWhileOneIsInFlightIsDropped) {
  ASSERT_NO_FATAL_FAILURE(serve(kExampleBody));
  Completions first, second;
  fetcher_->fetch(3, first.recorder());
  fetcher_->fetch(3, second.recorder());
  ASSERT_TRUE(testing::driveUntil(*rig_.queue, [&] { return first.count() > 0; }));
  rig_.queue->runUntilIdle();

  EXPECT_THAT(first.results(), ElementsAre(RemoteConfigResult(kExample)));
  EXPECT_EQ(second.count(), 0u);
  EXPECT_EQ(rig_.queue->pendingCount(), 0u);
  EXPECT_EQ(requestCount(), 1u);
}

TEST_F(RemoteConfigFetch, AFetcherGoneWhileItsRequestIsInFlightStillCompletesButKeepsNothing) {
  ASSERT_NO_FATAL_FAILURE(serve(kExampleBody));
  Completions completions;
  fetcher_->fetch(3, completions.recorder());
  rig_.queue->runUntilIdle();  // the request is out
  fetcher_.reset();

  ASSERT_TRUE(testing::driveUntil(*rig_.queue, [&] { return completions.count() > 0; }));
  EXPECT_THAT(completions.results(), ElementsAre(RemoteConfigResult(kExample)));
  EXPECT_THAT(rig_.logger->logs(), ElementsAre());
  EXPECT_EQ(rig_.defaults->bytes(RemoteConfig::cacheKey(kApiKey)), std::nullopt);
}

}  // namespace
}  // namespace verdalune::sessionreplay
