#include "verdalune/session_replay.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <type_traits>
#include <vector>

#include "common/recording_logger.h"
#include "facade/remote_config.h"
#include "integration/collector_process.h"
#include "integration/drive.h"
#include "storage/persistent_storage.h"
#include "storage/versioned_event.h"
#include "verdalune/sim/platform.h"
#include "verdalune/sim/screen_builder.h"

namespace verdalune::sessionreplay {
namespace {

using testing::CollectorProcess;
using testing::driveUntil;

constexpr std::string_view kSessionReplayId = "[Verdalune] Session Replay ID";

std::string configBody(std::string_view level, bool captureEnabled, double sampleRate) {
  return R"({"configs":{"sessionReplay":{"sr_ios_privacy_config":{"defaultMaskLevel":")" +
         std::string(level) + R"("},"sr_ios_sampling_config":{"capture_enabled":)" +
         (captureEnabled ? "true" : "false") + R"(,"sample_rate":)" + std::to_string(sampleRate) + "}}}}";
}

// Every queue of the library is the device's manual main queue, so a test runs everything on its own
// thread and decides when.
class SessionReplayTest : public ::testing::Test {
 protected:
  void SetUp() override { sim::ScreenBuilder(*device).window({0, 0, 390, 844}).build(); }

  std::shared_ptr<SessionReplay> make(std::optional<std::string> deviceId, std::int64_t sessionId,
                                      bool enableRemoteConfig = false,
                                      std::shared_ptr<Logger> withLogger = nullptr,
                                      std::string serverUrl = "http://127.0.0.1:9", bool optOut = false,
                                      float sampleRate = 1.0f) {
    return SessionReplay::make("test-key", std::move(deviceId), sessionId, optOut, sampleRate, {},
                               withLogger ? withLogger : logger, ServerZone::US, MaskLevel::light,
                               enableRemoteConfig, device,
                               {.serverUrl = std::move(serverUrl),
                                .makeQueue = [queue = device->app()->manualQueue()](std::string_view) {
                                  return std::shared_ptr<Queue>(queue);
                                }});
  }
  void run() { device->app()->runUntilIdle(); }
  // A block an earlier launch left for the collector: "device", session 7, number 1.
  PersistentStorage::Block storeBlockOfEarlierLaunch() {
    PersistentStorage storage("test-key", device->app()->applicationSupportDirectory());
    const auto block = storage.create({"device", 7, 1}).value();
    auto stream = storage.openOutputStream(block).value();
    const std::string record =
        std::string(EventPacker().pack(rrweb::MetaEvent{.timestamp = 1}).value()) + "\n";
    EXPECT_TRUE(stream.write({reinterpret_cast<const std::uint8_t*>(record.data()), record.size()}));
    EXPECT_TRUE(stream.close());
    return block;
  }
  std::size_t pending() { return device->app()->manualQueue()->pendingCount(); }
  std::vector<std::string> warnings() {
    std::vector<std::string> found;
    for (const auto& line : logger->lines()) {
      if (line.starts_with("warn: ")) found.push_back(line.substr(6));
    }
    return found;
  }

  std::shared_ptr<sim::SimPlatform> device = std::make_shared<sim::SimPlatform>();
  std::shared_ptr<RecordingLogger> logger = std::make_shared<RecordingLogger>();
};

TEST_F(SessionReplayTest, RecordsOnlyWithADeviceASessionAndTheForeground) {
  auto replay = make(std::nullopt, 0);
  replay->start();
  run();
  EXPECT_FALSE(replay->isCapturing());

  replay->setDeviceId(std::nullopt);
  EXPECT_EQ(pending(), 0u) << "absent to absent is no change";
  replay->setDeviceId("device");
  EXPECT_EQ(pending(), 1u);
  run();
  EXPECT_FALSE(replay->isCapturing()) << "session 0 is no session";
  EXPECT_TRUE(replay->additionalEventProperties().empty());
  replay->setSessionId(-3);
  run();
  EXPECT_FALSE(replay->isCapturing());

  replay->setSessionId(42);
  run();
  EXPECT_TRUE(replay->isCapturing());
  const std::size_t scheduled = pending();  // the display link's next frame
  replay->setSessionId(42);
  EXPECT_EQ(pending(), scheduled) << "the same session queues nothing and fetches nothing";
  const auto properties = replay->additionalEventProperties();
  ASSERT_EQ(properties.size(), 1u);
  EXPECT_EQ(std::any_cast<std::string>(properties.at(std::string(kSessionReplayId))), "device/42");

  device->app()->setActive(false);
  run();
  EXPECT_FALSE(replay->isCapturing());
  EXPECT_EQ(replay->additionalEventProperties().size(), 1u) << "the background still belongs to the session";
  device->app()->setActive(true);
  run();
  EXPECT_TRUE(replay->isCapturing());

  replay->setSampleRate(0);
  run();
  EXPECT_TRUE(replay->isCapturing()) << "a new sample rate waits for the next decision";
  EXPECT_TRUE(replay->additionalEventProperties().empty());
  replay->setOptOut(true);
  replay->setSampleRate(1);
  run();
  EXPECT_FALSE(replay->isCapturing());
  replay->stop();
  run();
}

TEST_F(SessionReplayTest, KeepsItselfAliveWhileStartedAndStopsCaptureWhenReleased) {
  auto replay = make("device", 7);
  std::weak_ptr<SessionReplay> weak = replay;
  replay->start();
  replay.reset();
  run();
  ASSERT_FALSE(weak.expired());
  EXPECT_TRUE(weak.lock()->isCapturing());
  ASSERT_EQ(device->ui()->displayLinks().size(), 1u);

  weak.lock()->stop();
  run();
  EXPECT_TRUE(weak.expired());
  EXPECT_TRUE(device->ui()->displayLinks().empty()) << "capture stopped with it";
}

TEST_F(SessionReplayTest, LogsItsConfigurationAndTheDefaultLoggerIsSilent) {
  make("device", 7, false, nullptr, "http://127.0.0.1:9", false, 0.1f);
  const std::vector<std::string> expected{
      std::string(43, '-'), "Using parameters:",         "apiKey: test-key",
      "optOut: false",      "captureEnabled: true",      "sampleRate: 0.1",
      "maskLevel: light",   "enableRemoteConfig: false", std::string(43, '-')};
  EXPECT_EQ(warnings(), expected);

  ::testing::internal::CaptureStderr();
  ::testing::internal::CaptureStdout();
  auto quiet = SessionReplay::make("test-key", "device", 7, false, 0.25f, {}, nullptr, ServerZone::EU,
                                   MaskLevel::medium, false, device, {.serverUrl = "http://127.0.0.1:9"});
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}

TEST_F(SessionReplayTest, ACachedConfigurationIsLoggedAsItWasThenApplied) {
  RemoteConfigResponse cached;
  cached.sessionReplayConfiguration = SessionReplayConfiguration{
      .privacyConfiguration = SessionReplayPrivacyConfiguration{MaskLevel::conservative},
      .samplingConfiguration =
          SessionReplaySamplingConfiguration{.captureEnabled = true, .sampleRate = 0.5f}};
  const auto json = encode(cached).value();
  ASSERT_TRUE(device->app()->defaultsStore()->set(RemoteConfig::cacheKey("test-key"),
                                                  std::vector<std::uint8_t>(json.begin(), json.end())));
  auto replay = make("device", 7, true);
  const auto lines = warnings();
  ASSERT_GE(lines.size(), 9u);
  EXPECT_EQ(lines[1], "Using cached remote config:");
  EXPECT_EQ(lines[6], "maskLevel: light") << "the values from before the cache";
  EXPECT_EQ(replay->maskLevel(), MaskLevel::conservative);
  EXPECT_FLOAT_EQ(replay->sampleRate(), 0.5f);
}

TEST_F(SessionReplayTest, AFetchedConfigurationChangesTheDecisionOnlyWhenItDiffers) {
  auto collector = CollectorProcess::start({.configs = {{"test-key", configBody("light", true, 1)}}});
  auto replay = make("device", 7, true, nullptr, collector->baseUrl());
  replay->start();
  auto fetches = [&] {
    std::size_t count = 0;
    for (const auto& request : collector->requests()) count += request.path == "/config";
    return count;
  };
  ASSERT_TRUE(
      driveUntil(*device->app()->manualQueue(), [&] { return fetches() == 1 && replay->isCapturing(); }));
  run();
  for (const auto& line : warnings()) EXPECT_NE(line, "Using updated config values:") << "nothing changed";

  collector = CollectorProcess::start({.configs = {{"test-key", configBody("medium", false, 1)}}});
  auto second = make("device", 7, true, nullptr, collector->baseUrl());
  second->start();
  ASSERT_TRUE(driveUntil(*device->app()->manualQueue(), [&] {
    const auto lines = warnings();
    return std::ranges::find(lines, "Using updated config values:") != lines.end();
  }));
  run();
  EXPECT_EQ(second->maskLevel(), MaskLevel::medium);
  EXPECT_FALSE(second->isCapturing()) << "capture switched off remotely";
  replay->stop();
  second->stop();
  run();
}

// Blocks written before the user opted out, or of a session out of sample, never leave the device.
TEST_F(SessionReplayTest, TheRecordingSwitchesReachBlocksOfEarlierLaunches) {
  auto collector = CollectorProcess::start();
  struct Case {
    bool optOut;
    float sampleRate;
    std::size_t uploads;
  };
  for (const auto& [optOut, sampleRate, uploads] :
       {Case{true, 1.0f, 0}, Case{false, 0.0f, 0}, Case{false, 1.0f, 1}}) {
    SCOPED_TRACE(::testing::Message() << "optOut " << optOut << ", sample rate " << sampleRate);
    collector->reset();
    const auto block = storeBlockOfEarlierLaunch();
    auto replay = make("device", 7, false, nullptr, collector->baseUrl(), optOut, sampleRate);
    ASSERT_TRUE(driveUntil(*device->app()->manualQueue(), [&] { return !std::filesystem::exists(block); }));
    EXPECT_EQ(collector->requests().size(), uploads);
  }
}

// The configuration has a lane of its own: while an upload is held open, a fetch still gets through.
TEST_F(SessionReplayTest, TheConfigurationFetchDoesNotWaitBehindAnUpload) {
  auto collector = CollectorProcess::start({.configs = {{"test-key", configBody("light", true, 1)}}});
  auto replay = make("device", 7, true, nullptr, collector->baseUrl());
  const auto answered = [&](std::string_view path, int status) {
    const auto requests = collector->requests();
    return std::ranges::count_if(requests,
                                 [&](const auto& r) { return r.path.ends_with(path) && r.status == status; });
  };
  auto& queue = *device->app()->manualQueue();
  ASSERT_TRUE(driveUntil(queue, [&] { return answered("/config", 200) == 1; }));  // the fetch of the launch

  collector->injectFaults({{.delayMs = 3000}});
  replay->start();
  run();
  device->app()->advance(std::chrono::milliseconds(100));
  replay->flush();
  ASSERT_TRUE(driveUntil(queue, [&] { return answered("/track", 0) == 1; }));
  replay->setSessionId(8);  // asks for the configuration again
  EXPECT_TRUE(driveUntil(
      queue, [&] { return answered("/config", 200) == 2 && answered("/track", 0) == 1; },
      std::chrono::milliseconds(2500)));
  replay->stop();
  run();
}

TEST(SessionReplayDeathTest, AnUnknownZoneStopsTheProcessNamingIt) {
  auto device = std::make_shared<sim::SimPlatform>();
  EXPECT_DEATH(SessionReplay::make("k", "d", 1, false, 1, {}, nullptr, static_cast<ServerZone>(7),
                                   MaskLevel::light, false, device),
               "unknown server zone 7");
}

}  // namespace
}  // namespace verdalune::sessionreplay
