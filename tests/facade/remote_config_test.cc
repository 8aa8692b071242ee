#include "facade/remote_config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "common/recording_logger.h"
#include "integration/collector_process.h"
#include "integration/drive.h"
#include "upload/curl_transport.h"
#include "verdalune/support/clock.h"
#include "verdalune/support/defaults_store.h"
#include "verdalune/support/queue.h"

namespace verdalune::sessionreplay {

// Outcomes in failure messages as their JSON or their log text rather than as bytes.
void PrintTo(const RemoteConfigResult& result, std::ostream* out) {
  *out << (result ? encode(*result).value_or("(unencodable)") : "error: " + describe(result.error()));
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
constexpr char kIncompleteBody[] = R"({"configs":{"sessionReplay":{"sr_ios_privacy_config":{}}}})";

RemoteConfigResult failed(RemoteConfigError error) {
  return std::unexpected(std::move(error));
}

std::vector<std::uint8_t> bytesOf(std::string_view text) {
  return {text.begin(), text.end()};
}

std::string withReplay(std::string_view members) {
  return R"({"configs":{"sessionReplay":{)" + std::string(members) + "}}}";
}

TEST(RemoteConfigCoding, DecodesWhatItKnowsAndEncodesBackLeavingAbsentPartsOut) {
  const std::tuple<std::string, RemoteConfigResponse, std::string> cases[] = {
      {kExampleBody, kExample, kExampleBody},
      {R"({"configs":{}})", {}, R"({"configs":{}})"},
      {withReplay(R"("sr_ios_privacy_config":null,"sr_ios_sampling_config":null)"),
       {SessionReplayConfiguration{}},
       R"({"configs":{"sessionReplay":{}}})"},
      // Other platforms' settings and unknown keys are ignored; an integral rate is still a rate.
      {R"({"configs":{"analytics":{"x":1},"sessionReplay":{"sr_android_privacy_config":{"defaultMaskLevel":"x"},)"
       R"("sr_ios_sampling_config":{"sample_rate":1,"capture_enabled":false,"later":[]}}},"other":true})",
       {SessionReplayConfiguration{std::nullopt, SessionReplaySamplingConfiguration{false, 1.0f}}},
       withReplay(R"("sr_ios_sampling_config":{"capture_enabled":false,"sample_rate":1})")},
  };
  for (const auto& [json, expected, encoded] : cases) {
    const auto decoded = decodeRemoteConfigResponse(json);
    ASSERT_TRUE(decoded.has_value()) << json << ": " << decoded.error().description;
    EXPECT_EQ(*decoded, expected) << json;
    EXPECT_EQ(encode(*decoded), encoded);
  }
}

TEST(RemoteConfigCoding, IncompleteOrMistypedObjectsAreDecodingErrorsNamingTheValue) {
  const std::pair<std::string, std::string> cases[] = {
      {withReplay(R"("sr_ios_sampling_config":{"sample_rate":0.5})"), "capture_enabled"},
      {withReplay(R"("sr_ios_sampling_config":{"capture_enabled":true})"), "sample_rate"},
      {withReplay(R"("sr_ios_sampling_config":{"capture_enabled":true,"sample_rate":null})"), "sample_rate"},
      {kIncompleteBody, "defaultMaskLevel"},
      {withReplay(R"("sr_ios_privacy_config":{"defaultMaskLevel":"strict"})"), "strict"},
      {withReplay(R"("sr_ios_sampling_config":{"capture_enabled":true,"sample_rate":"0.5"})"), "sample_rate"},
      {withReplay(R"("sr_ios_sampling_config":{"capture_enabled":true,"sample_rate":1e300})"), "sample_rate"},
      {withReplay(R"("sr_ios_privacy_config":[])"), "sr_ios_privacy_config"},
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

// What a fetch handed over, in order. Locked: a fetcher that is gone completes on the transport's thread.
class Completions {
 public:
  std::vector<RemoteConfigResult> all() const {
    std::lock_guard lock(mutex_);
    return results_;
  }
  std::size_t count() const { return all().size(); }
  RemoteConfig::Completion recorder() {
    return [this](RemoteConfigResult result) {
      std::lock_guard lock(mutex_);
      results_.push_back(std::move(result));
    };
  }

 private:
  mutable std::mutex mutex_;
  std::vector<RemoteConfigResult> results_;
};

constexpr char kFailureLine[] = "error: [RemoteConfig] Failed to fetch config with error: ";

// One collector for the suite: "test-key" is answered with the example, "empty-key" with the
// collector's own {"configs":{}}, "bad-key" with an object that does not decode. Each fetcher gets a
// fresh logger, store and manual queue, and the real transport, shared as the facade shares it with the
// upload client so a fetcher going away does not take the transport (and its requests) with it.
class RemoteConfigTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    collector_ = testing::CollectorProcess::start(
        {.apiKeys = {"test-key", "empty-key", "bad-key"},
         .configs = {{"test-key", kExampleBody}, {"bad-key", kIncompleteBody}},
         .maxBodyBytes = std::nullopt});
  }
  static void TearDownTestSuite() { collector_.reset(); }

  void SetUp() override {
    ASSERT_NE(collector_, nullptr);
    auto transport = CurlTransport::create();
    ASSERT_TRUE(transport.has_value()) << transport.error().description;
    transport_ = *std::move(transport);
    ASSERT_NO_FATAL_FAILURE(start("test-key"));
  }

  void start(std::string apiKey, std::optional<std::string> url = std::nullopt) {
    collector_->reset();
    logger_ = std::make_shared<RecordingLogger>();
    defaults_ = std::make_shared<InMemoryDefaultsStore>();
    queue_ = std::make_shared<ManualQueue>("com.verdalune.sessionreplay.remoteconfig",
                                           std::make_shared<ManualClock>());
    fetcher_ = fetcher(std::move(apiKey), url.value_or(collector_->configUrl()));
  }
  std::shared_ptr<RemoteConfig> fetcher(std::string apiKey, std::string url) {
    return RemoteConfig::make(std::move(apiKey), std::move(url), logger_, transport_, defaults_, queue_,
                              ClientInfo{"com.example.app", "1.2.3"});
  }

  // Fetches and drives the fetcher's queue until the only completion has come.
  RemoteConfigResult fetch(int retries) {
    Completions completions;
    fetcher_->fetch(retries, completions.recorder());
    EXPECT_TRUE(testing::driveUntil(*queue_, [&] { return completions.count() > 0; }));
    const auto results = completions.all();
    EXPECT_EQ(results.size(), 1u);
    EXPECT_FALSE(fetcher_->isFetching());
    return results.empty() ? failed(HttpError::unknown) : results.front();
  }

  std::size_t requestCount() const { return collector_->requests().size(); }

  inline static std::unique_ptr<testing::CollectorProcess> collector_;
  std::shared_ptr<platform::HttpTransport> transport_;
  std::shared_ptr<RecordingLogger> logger_;
  std::shared_ptr<InMemoryDefaultsStore> defaults_;
  std::shared_ptr<ManualQueue> queue_;
  std::shared_ptr<RemoteConfig> fetcher_;
};

TEST_F(RemoteConfigTest, CacheKeepsTheLastAnswerUnderTheProjectsOwnKeyAndNothingItCannotRead) {
  const auto first = fetcher("key/1", "");
  EXPECT_EQ(first->cachedConfiguration(), std::nullopt);
  first->setCachedConfiguration(kExample);
  EXPECT_EQ(defaults_->bytes("com.verdalune.sessionreplay.key/1.cached_config"), bytesOf(kExampleBody));
  EXPECT_EQ(fetcher("key/1", "")->cachedConfiguration(), kExample);  // as in the next launch
  EXPECT_EQ(fetcher("key-2", "")->cachedConfiguration(), std::nullopt);

  // An answer that cannot be encoded removes the old entry.
  RemoteConfigResponse unencodable = kExample;
  unencodable.sessionReplayConfiguration->samplingConfiguration->sampleRate = INFINITY;
  first->setCachedConfiguration(unencodable);
  const std::string key = RemoteConfig::cacheKey("key/1");
  EXPECT_EQ(defaults_->bytes(key), std::nullopt);

  // An entry that does not decode, or is not bytes, is no cache.
  ASSERT_TRUE(defaults_->set(key, bytesOf(kIncompleteBody)));
  EXPECT_EQ(first->cachedConfiguration(), std::nullopt);
  ASSERT_TRUE(defaults_->set(key, std::string(kExampleBody)));
  EXPECT_EQ(first->cachedConfiguration(), std::nullopt);
}

TEST_F(RemoteConfigTest, WithoutATransportAFetchFailsOnceAndIsLogged) {
  transport_ = nullptr;
  fetcher_ = fetcher("test-key", collector_->configUrl());
  const auto result = fetch(3);
  ASSERT_FALSE(result.has_value());
  EXPECT_EQ(describe(result.error()), "no HTTP transport");
  EXPECT_THAT(logger_->lines(), ElementsAre(std::string(kFailureLine) + "no HTTP transport"));
}

TEST_F(RemoteConfigTest, AnUnparsableUrlFailsEachFetchButOneWithoutSchemeStopsEveryLaterFetch) {
  Completions unparsable, noScheme;
  const auto notAUrl = fetcher("test-key", "not a url");
  const auto schemeless = fetcher("test-key", "example.com/config");
  for (int i = 0; i < 2; ++i) {
    notAUrl->fetch(3, unparsable.recorder());
    schemeless->fetch(i == 0 ? 3 : 0, noScheme.recorder());
    queue_->runUntilIdle();
    EXPECT_FALSE(notAUrl->isFetching());
    EXPECT_TRUE(schemeless->isFetching());
  }
  EXPECT_THAT(unparsable.all(), ElementsAre(failed(HttpError::invalidURL), failed(HttpError::invalidURL)));
  EXPECT_THAT(noScheme.all(), ElementsAre(failed(HttpError::invalidURL)));
  EXPECT_EQ(queue_->pendingCount(), 0u);
  EXPECT_EQ(requestCount(), 0u);
  EXPECT_THAT(logger_->lines(), ElementsAre());  // reported to the caller, not retried
}

TEST_F(RemoteConfigTest, OneRequestForTwoBackToBackFetchesWithTheKeysInTheQueryAndNoAuthorization) {
  Completions first, second;
  fetcher_->fetch(3, first.recorder());
  fetcher_->fetch(3, second.recorder());  // dropped while the first is in flight
  ASSERT_TRUE(testing::driveUntil(*queue_, [&] { return first.count() > 0; }));
  queue_->runUntilIdle();
  EXPECT_THAT(first.all(), ElementsAre(RemoteConfigResult(kExample)));
  EXPECT_EQ(second.count(), 0u);
  EXPECT_EQ(queue_->pendingCount(), 0u);

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
}

TEST_F(RemoteConfigTest, RetriesOnlyTransientFailuresAndCachesOnlyAnswers) {
  const std::string missingMask =
      R"(missing "defaultMaskLevel" in configs.sessionReplay.sr_ios_privacy_config)";
  const RemoteConfigResponse old{SessionReplayConfiguration{}};
  const testing::Fault rateLimited{.status = 429};
  // The api key, the faults its requests meet, the outcome, the requests made and the failures logged.
  const std::tuple<std::string, std::vector<testing::Fault>, RemoteConfigResult, std::size_t,
                   std::vector<std::string>>
      cases[] = {
          // An empty answer is an answer: it replaces the old cache.
          {"empty-key", {}, RemoteConfigResponse{}, 1, {}},
          {"test-key", {rateLimited, {.status = 408}}, kExample, 3, {"rateLimited", "timeout"}},
          {"test-key", std::vector(4, rateLimited), failed(HttpError::rateLimited), 4,
           std::vector<std::string>(4, "rateLimited")},
          {"test-key", {{.status = 500}}, failed(HttpError::requestFailed), 1, {"requestFailed"}},
          {"bad-key", {}, failed(ConfigDecodingError{missingMask}), 1, {missingMask}},
      };
  for (const auto& [apiKey, faults, result, requests, failures] : cases) {
    SCOPED_TRACE(apiKey + " after " + std::to_string(faults.size()) + " faults");
    start(apiKey);
    fetcher_->setCachedConfiguration(old);
    collector_->injectFaults(faults);

    EXPECT_EQ(fetch(3), result);
    EXPECT_EQ(requestCount(), requests);
    std::vector<std::string> lines;
    for (const auto& failure : failures) lines.push_back(kFailureLine + failure);
    if (result) lines.push_back("log: [RemoteConfig] Updating cache");
    EXPECT_EQ(logger_->lines(), lines);
    EXPECT_EQ(fetcher_->cachedConfiguration(), result.value_or(old));
  }
}

TEST_F(RemoteConfigTest, AFetcherGoneWhileItsRequestIsInFlightStillCompletesButKeepsNothing) {
  // The answer waits, so that the fetcher is surely gone before it arrives.
  collector_->injectFaults({{.status = 0, .delayMs = 200, .drop = false}});
  Completions completions;
  fetcher_->fetch(3, completions.recorder());
  queue_->runUntilIdle();  // the request is out
  fetcher_.reset();

  ASSERT_TRUE(testing::driveUntil(*queue_, [&] { return completions.count() > 0; }));
  EXPECT_THAT(completions.all(), ElementsAre(RemoteConfigResult(kExample)));
  EXPECT_THAT(logger_->lines(), ElementsAre());
  EXPECT_EQ(defaults_->bytes(RemoteConfig::cacheKey("test-key")), std::nullopt);
}

}  // namespace
}  // namespace verdalune::sessionreplay
