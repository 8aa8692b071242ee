// The collector failing as a host application meets it: the whole recorder on the simulated device, on
// the virtual clock, uploading over real HTTP to a collector process on 127.0.0.1 that goes away, answers
// errors, serves a broken configuration or holds a request open.
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "common/recording_logger.h"
#include "facade/remote_config.h"
#include "integration/collector_process.h"
#include "integration/counted_device.h"
#include "integration/drive.h"
#include "verdalune/session_replay.h"
#include "verdalune/sim/platform.h"
#include "verdalune/sim/screen_builder.h"

namespace verdalune::sessionreplay {
namespace {

using namespace std::chrono_literals;
using testing::CollectorProcess;
using testing::Fault;

std::int64_t seqOf(const testing::ReceivedRequest& request) {
  const auto at = request.query.find("seq_number=");
  return at == std::string::npos ? 0 : std::stoll(request.query.substr(at + 11));
}

// The answers to each block's track requests, by sequence number, over one or more collectors' lives.
std::map<std::int64_t, std::vector<int>> answersBySeq(const std::vector<testing::ReceivedRequest>& requests) {
  std::map<std::int64_t, std::vector<int>> answers;
  for (const auto& request : requests) {
    if (request.path == "/sessions/v2/track") answers[seqOf(request)].push_back(request.status);
  }
  return answers;
}

std::int64_t timestampOf(const std::string& event) {
  rapidjson::Document json;
  json.Parse(event.data(), event.size());
  return json.HasParseError() || !json.HasMember("timestamp") ? 0 : json["timestamp"].GetInt64();
}

// Every queue of the library is the device's manual main queue; a blue square moves once a second, so
// each second of recording is one mutation event stamped on a whole second.
class FaultsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto screen = sim::ScreenBuilder(*device->sim)
                      .window({0, 0, 390, 844})
                      .box({0, 0, 390, 844}, {1, 1, 1, 1})
                      .box({0, 100, 40, 40}, {0, 0.5, 1, 1})
                      .named("ticker")
                      .build();
    ticker = screen.find<sim::SimView>("ticker");
  }
  // A recorder that goes away leaves the end of its capture on the main queue; that work holds the
  // device, which holds the queue, so it must run before the device can go.
  void TearDown() override { ASSERT_TRUE(settle()); }

  std::shared_ptr<SessionReplay> make(const std::string& baseUrl, std::string apiKey = "test-key",
                                      bool enableRemoteConfig = false, std::int64_t sessionId = 7) {
    return SessionReplay::make(std::move(apiKey), "device", sessionId, false, 1.0f, {}, logger,
                               ServerZone::US, MaskLevel::light, enableRemoteConfig, device,
                               {.serverUrl = baseUrl, .makeQueue = [queue = queue](std::string_view) {
                                  return std::shared_ptr<Queue>(queue);
                                }});
  }

  [[nodiscard]] bool settle() { return device->settle(); }

  // `seconds` of virtual time, frame by frame, with the network settled after each frame.
  [[nodiscard]] bool record(int seconds) {
    for (int second = 0; second < seconds; ++second) {
      ++moves;
      ticker->setFrame({static_cast<double>(moves % 300), 100, 40, 40});
      for (int frame = 0; frame < 10; ++frame) {
        queue->advance(100ms);
        if (!settle()) return false;
      }
    }
    return true;
  }

  std::vector<std::string> linesWith(std::string_view text) const {
    std::vector<std::string> found;
    for (const auto& line : logger->lines())
      if (line.find(text) != std::string::npos) found.push_back(line);
    return found;
  }

  std::set<std::string> blocksOnDisk() const {
    std::set<std::string> names;
    std::error_code ignored;
    const auto folder = device->sim->app()->applicationSupportDirectory() / "com.verdalune.sessionreplay";
    for (const auto& entry : std::filesystem::directory_iterator(folder / "test-key", ignored))
      names.insert(entry.path().filename().string());
    return names;
  }

  std::shared_ptr<testing::CountedDevice> device = std::make_shared<testing::CountedDevice>();
  std::shared_ptr<ManualQueue> queue = device->sim->app()->manualQueue();
  std::shared_ptr<RecordingLogger> logger = std::make_shared<RecordingLogger>();
  std::shared_ptr<sim::SimView> ticker;
  int moves = 0;
};

// An hour without the collector: each block is tried three times, 30 seconds apart, and kept. Once the
// collector is back on its address, the next delivered block brings every kept one after it.
TEST_F(FaultsTest, AnHourWithoutTheCollectorLosesNothingAndSendsNothingTwice) {
  auto collector = CollectorProcess::start();
  ASSERT_NE(collector, nullptr);
  const int port = collector->port();
  auto replay = make(collector->baseUrl());
  replay->start();
  ASSERT_TRUE(settle());
  ASSERT_TRUE(record(150));
  std::vector<std::string> events = collector->sessionEvents("device", 7);
  auto requests = collector->requests();
  ASSERT_FALSE(events.empty()) << "blocks reach the collector while it is there";

  collector.reset();
  ASSERT_TRUE(record(3600));
  const auto attempts = linesWith("[UploadClient] failed to upload: connectionFailed");
  const auto kept = linesWith("[StorageCoordinator] Failed to upload block device_7_");
  EXPECT_GE(kept.size(), 59u);
  // Three attempts for each block kept; the block under way when the hour ends may have had one or two.
  EXPECT_GE(attempts.size(), 3 * kept.size());
  EXPECT_LE(attempts.size(), 3 * kept.size() + 2);
  for (const auto& line : kept) EXPECT_TRUE(line.ends_with(".replay: connectionFailed")) << line;
  EXPECT_GE(blocksOnDisk().size(), kept.size());

  collector = CollectorProcess::start({.port = port});
  ASSERT_NE(collector, nullptr);
  ASSERT_TRUE(record(90));
  replay->flush();
  ASSERT_TRUE(settle());
  EXPECT_EQ(blocksOnDisk(), std::set<std::string>{}) << "every block delivered and removed";

  for (auto& event : collector->sessionEvents("device", 7)) events.push_back(std::move(event));
  for (auto& request : collector->requests()) requests.push_back(std::move(request));
  std::ranges::sort(events, {}, timestampOf);
  // A Meta event and a full snapshot, then one mutation per second after the first: none missing, none twice.
  ASSERT_EQ(events.size(), static_cast<std::size_t>(moves) + 1);
  for (std::size_t i = 3; i < events.size(); ++i)
    ASSERT_EQ(timestampOf(events[i]) - timestampOf(events[i - 1]), 1000) << "event " << i;
  const auto answers = answersBySeq(requests);
  ASSERT_EQ(answers.rbegin()->first, static_cast<std::int64_t>(answers.size()))
      << "no sequence number skipped";
  for (const auto& [seq, statuses] : answers)
    EXPECT_EQ(std::ranges::count(statuses, 200), 1) << "block " << seq << " delivered once";
  replay->stop();
  ASSERT_TRUE(settle());
}

// A server error is final for that attempt and the block is kept, to go with the next block that is
// delivered; a block the collector finds too large is kept on disk but not offered again while this
// process lives, and the blocks after it are not held up. The next launch offers it again.
TEST_F(FaultsTest, ServerErrorsAreSentAgainLaterAndATooLargeBlockWaitsForTheNextLaunch) {
  auto collector = CollectorProcess::start();
  ASSERT_NE(collector, nullptr);
  auto replay = make(collector->baseUrl());
  replay->start();
  ASSERT_TRUE(settle());
  collector->injectFaults({{.status = 500}});
  ASSERT_TRUE(record(61));  // block 1 closes after a minute and meets the 500
  ASSERT_TRUE(record(40));  // past the retry interval: an answer of 500 is not retried
  EXPECT_EQ(answersBySeq(collector->requests())[1], std::vector<int>{500});
  EXPECT_EQ(linesWith("[UploadClient] failed to upload: requestFailed").size(), 1u);
  EXPECT_EQ(linesWith("[StorageCoordinator] Failed to upload block device_7_1.replay: requestFailed").size(),
            1u);

  ASSERT_TRUE(record(20));  // block 2 is delivered, and block 1 goes after it
  collector->injectFaults({{.status = 413}});
  ASSERT_TRUE(record(60));  // block 3 is too large for the collector
  ASSERT_TRUE(record(60));  // block 4
  auto answers = answersBySeq(collector->requests());
  EXPECT_EQ(answers[1], (std::vector<int>{500, 200}));
  EXPECT_EQ(answers[2], std::vector<int>{200});
  EXPECT_EQ(answers[3], std::vector<int>{413}) << "sent once in this process";
  EXPECT_EQ(answers[4], std::vector<int>{200});
  EXPECT_EQ(linesWith("error: [UploadClient] failed to upload: payloadTooLarge").size(), 1u);
  EXPECT_EQ(
      linesWith("[StorageCoordinator] Failed to upload block device_7_3.replay: payloadTooLarge").size(), 1u);
  EXPECT_TRUE(blocksOnDisk().contains("device_7_3.replay"));
  replay->stop();
  replay.reset();
  ASSERT_TRUE(settle());

  // The next launch over the same device offers what it finds on disk.
  auto next = make(collector->baseUrl());
  ASSERT_TRUE(settle());
  EXPECT_EQ(answersBySeq(collector->requests())[3], (std::vector<int>{413, 200}));
  EXPECT_FALSE(blocksOnDisk().contains("device_7_3.replay"));
  const auto events = collector->sessionEvents("device", 7);
  ASSERT_EQ(events.size(), static_cast<std::size_t>(moves) + 1);
}

// A configuration endpoint that answers garbage, a half setting or an error: the failure is logged, the
// cached configuration stays in force and in the cache, and recording goes on and is delivered.
TEST_F(FaultsTest, ABrokenConfigurationAnswerKeepsTheCachedOneAndRecordingGoesOn) {
  auto collector = CollectorProcess::start(
      {.apiKeys = {"garbage-key", "half-key", "error-key"},
       .configs = {
           {"garbage-key", "<html>Bad gateway</html>"},
           {"half-key",
            R"({"configs":{"sessionReplay":{"sr_ios_sampling_config":{"capture_enabled":false}}}})"}}});
  ASSERT_NE(collector, nullptr);
  RemoteConfigResponse cached;
  cached.sessionReplayConfiguration = SessionReplayConfiguration{
      .privacyConfiguration = SessionReplayPrivacyConfiguration{MaskLevel::conservative},
      .samplingConfiguration = SessionReplaySamplingConfiguration{.captureEnabled = true, .sampleRate = 1}};
  const std::string cachedJson = encode(cached).value();
  const std::vector<std::uint8_t> cachedBytes(cachedJson.begin(), cachedJson.end());

  // The api key, its session, and the error as the log line names it.
  const std::tuple<std::string, std::int64_t, std::string> cases[] = {
      {"garbage-key", 1, "The given data was not valid JSON: Invalid value. (at offset 0)"},
      {"half-key", 2, R"(missing "sample_rate" in configs.sessionReplay.sr_ios_sampling_config)"},
      {"error-key", 3, "requestFailed"},
  };
  for (const auto& [apiKey, session, failure] : cases) {
    SCOPED_TRACE(apiKey);
    const auto defaults = device->sim->app()->defaultsStore();
    ASSERT_TRUE(defaults->set(RemoteConfig::cacheKey(apiKey), cachedBytes));
    if (apiKey == "error-key") collector->injectFaults({{.status = 503}});
    logger = std::make_shared<RecordingLogger>();
    auto replay = make(collector->baseUrl(), apiKey, true, session);
    replay->start();
    ASSERT_TRUE(record(3));
    const auto failures = linesWith("[RemoteConfig] Failed to fetch config with error: ");
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_TRUE(
        failures[0].starts_with("error: [RemoteConfig] Failed to fetch config with error: " + failure))
        << failures[0];
    EXPECT_TRUE(linesWith("Using updated config values:").empty());
    EXPECT_EQ(replay->maskLevel(), MaskLevel::conservative);
    EXPECT_TRUE(replay->isCapturing());
    EXPECT_EQ(defaults->bytes(RemoteConfig::cacheKey(apiKey)), cachedBytes)
        << "the cache keeps the last answer";

    replay->flush();
    ASSERT_TRUE(settle());
    EXPECT_FALSE(collector->sessionEvents("device", session).empty());
    replay->stop();
    ASSERT_TRUE(settle());
  }
}

// While the collector holds an upload open, the main queue goes on: every frame is captured and
// recorded, and nothing on it waits for the answer.
TEST_F(FaultsTest, AStalledCollectorDoesNotHoldUpCapture) {
  auto collector = CollectorProcess::start();
  ASSERT_NE(collector, nullptr);
  auto replay = make(collector->baseUrl());
  replay->start();
  ASSERT_TRUE(settle());
  ASSERT_TRUE(record(2));
  collector->injectFaults({{.delayMs = 5000}});
  replay->flush();
  queue->runUntilIdle();
  ASSERT_TRUE(testing::driveUntil(*queue, [&] { return device->transport->inFlight() == 1; }));

  // The square moves every frame now; each frame that runs while the upload is open is one mutation.
  const std::int64_t heldFrom = device->sim->app()->manualClock()->wallMilliseconds();
  int frames = 0;
  for (; frames < 30 && device->transport->inFlight() == 1; ++frames) {
    ticker->setFrame({static_cast<double>(frames), 300, 40, 40});
    queue->advance(100ms);
  }
  EXPECT_EQ(frames, 30);
  EXPECT_EQ(device->transport->inFlight(), 1) << "the upload was open all along";
  const std::int64_t heldUntil = device->sim->app()->manualClock()->wallMilliseconds();

  ASSERT_TRUE(settle());
  replay->flush();
  ASSERT_TRUE(settle());
  // The flush made the first of them a Meta event and a full snapshot; the others one mutation each.
  std::set<std::int64_t> captured;
  for (const auto& event : collector->sessionEvents("device", 7)) {
    const std::int64_t at = timestampOf(event);
    if (at > heldFrom && at <= heldUntil) captured.insert(at);
  }
  EXPECT_EQ(captured.size(), 30u);
  EXPECT_EQ(answersBySeq(collector->requests())[1], std::vector<int>{200});
  replay->stop();
  ASSERT_TRUE(settle());
}

}  // namespace
}  // namespace verdalune::sessionreplay
