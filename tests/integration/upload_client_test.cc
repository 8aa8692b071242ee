#include "upload/upload_client.h"

#include <gtest/gtest.h>

#include <mutex>

#include "common/recording_logger.h"
#include "integration/collector_process.h"
#include "integration/drive.h"
#include "storage/versioned_event.h"
#include "support/json_writer.h"
#include "upload/curl_transport.h"
#include "upload/path_monitor.h"

namespace verdalune::sessionreplay {
namespace {

using namespace std::chrono_literals;
using testing::CollectorProcess;
using testing::driveUntil;

// Packed events as the storage layer returns them: JSON string literals of compressed JSON.
std::vector<std::string> packedEvents() {
  EventPacker packer;
  std::vector<std::string> events;
  for (std::int64_t timestamp : {1, 2}) {
    events.emplace_back(
        packer.pack(rrweb::MetaEvent{.timestamp = timestamp, .href = "h", .width = 1, .height = 2}).value());
  }
  return events;
}
const std::vector<std::string> kEvents = packedEvents();

class UploadClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    collector_ = CollectorProcess::start();
    ASSERT_NE(collector_, nullptr);
  }

  std::shared_ptr<UploadClient> makeClient(UploadClient::Options options = {}, bool withTransport = true) {
    options.apiKey = "test-key";
    if (options.serverUrl.empty()) options.serverUrl = collector_->trackUrl();
    options.logger = logger_;
    options.client = {.bundleIdentifier = "com.example.app", .libraryVersion = "1.2.3"};
    if (options.requestTimeout == 60'000ms) options.requestTimeout = 10s;
    std::shared_ptr<platform::HttpTransport> transport;
    if (withTransport) transport = CurlTransport::create().value();
    return UploadClient::make(options, transport, monitor_, queue_);
  }

  // Hands one block to the client; its answer lands in `outcome`.
  void upload(UploadClient& client, std::int64_t sessionId = 1700000000000) {
    client.upload(
        "device-1", sessionId, 3, [] { return kEvents; },
        [this](std::optional<UploadFailure> failure) {
          ++answers_;
          outcome_ = std::move(failure);
        });
  }

  bool answered() {
    return driveUntil(*queue_, [this] { return answers_ > 0; });
  }
  std::size_t requestCount() const { return collector_->requests().size(); }

  std::unique_ptr<CollectorProcess> collector_;
  std::shared_ptr<ManualClock> clock_ = std::make_shared<ManualClock>();
  std::shared_ptr<ManualQueue> queue_ = std::make_shared<ManualQueue>("upload", clock_);
  std::shared_ptr<ManualPathMonitor> monitor_ = std::make_shared<ManualPathMonitor>();
  std::shared_ptr<RecordingLogger> logger_ = std::make_shared<RecordingLogger>();
  int answers_ = 0;
  std::optional<UploadFailure> outcome_;
};

TEST_F(UploadClientTest, SendsTheBlockWithItsQueryHeadersAndBodyAsBuilt) {
  auto client = makeClient({.sampleRate = 0.5f});
  upload(*client, 1);  // session 1 is in sample at 0.5 (its fraction is 0.19)
  ASSERT_TRUE(answered());
  EXPECT_EQ(outcome_, std::nullopt);

  const auto requests = collector_->requests();
  ASSERT_EQ(requests.size(), 1u);
  const auto& request = requests[0];
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.path, "/sessions/v2/track");
  EXPECT_EQ(request.query, "device_id=device-1&session_id=1&seq_number=3&mobile_translation=false");
  EXPECT_EQ(request.header("Authorization"), "Bearer test-key");
  EXPECT_EQ(request.header("Content-Type"), "application/json");
  EXPECT_EQ(request.header("Accept"), "*/*");
  EXPECT_EQ(request.header("X-Client-Version"), "2");
  EXPECT_EQ(request.header("X-Client-Bundle-Id"), "com.example.app");
  EXPECT_EQ(request.header("X-Client-Library"), "session-replay-ios/1.2.3");
  EXPECT_EQ(request.header("X-Client-Platform"), "ios");
  EXPECT_EQ(request.header("X-Client-Sample-Rate"), "0.5");
  std::string body = R"({"version":2,"events":[)";
  appendJsonString(body, kEvents[0]);
  body += ",";
  appendJsonString(body, kEvents[1]);
  EXPECT_EQ(request.body, body + "]}");
  EXPECT_EQ(request.status, 200);
  const auto lines = logger_->lines();
  EXPECT_EQ(lines.front(), "debug: [UploadClient] uploading device-1/1/3");
  EXPECT_EQ(lines.back(), "log: [UploadClient] successfully completed upload");
}

TEST_F(UploadClientTest, ABlockSentToAMovedEndpointArrivesOnceWithItsBody) {
  for (const int status : {301, 308}) {
    collector_->reset();
    answers_ = 0;
    auto client = makeClient({.serverUrl = collector_->movedUrl(status, "/sessions/v2/track")});
    const std::int64_t sessionId = 1700000000000 + status;
    upload(*client, sessionId);
    ASSERT_TRUE(answered());
    EXPECT_EQ(outcome_, std::nullopt) << status;

    const auto requests = collector_->requests();
    ASSERT_EQ(requests.size(), 2u) << status;
    EXPECT_EQ(requests[0].status, status);
    EXPECT_EQ(requests[1].method, "POST") << status;
    EXPECT_EQ(requests[1].path, "/sessions/v2/track");
    EXPECT_EQ(requests[1].query, requests[0].query);
    EXPECT_EQ(requests[1].header("Authorization"), "Bearer test-key");
    EXPECT_EQ(requests[1].body, requests[0].body);
    EXPECT_EQ(requests[1].status, 200) << status;
    EXPECT_EQ(collector_->sessionEvents("device-1", sessionId).size(), kEvents.size()) << status;
  }
}

TEST_F(UploadClientTest, RateLimitingIsRetriedAfterTheRetryInterval) {
  collector_->injectFaults({{.status = 429}});
  auto client = makeClient();
  upload(*client);
  ASSERT_TRUE(driveUntil(*queue_, [&] { return logger_->lines().size() >= 2; }));
  EXPECT_EQ(logger_->lines()[1], "error: [UploadClient] failed to upload: rateLimited");
  queue_->advance(29s);
  EXPECT_EQ(requestCount(), 1u);
  EXPECT_EQ(answers_, 0);

  queue_->advance(1s);
  ASSERT_TRUE(answered());
  EXPECT_EQ(outcome_, std::nullopt);
  EXPECT_EQ(requestCount(), 2u);
}

TEST_F(UploadClientTest, TimeOutsAreTriedThreeTimesThenReported) {
  collector_->injectFaults({{.delayMs = 3000}, {.delayMs = 3000}, {.delayMs = 3000}});
  auto client = makeClient({.requestTimeout = 300ms});
  upload(*client);
  for (int attempt = 1; attempt <= 2; ++attempt) {
    ASSERT_TRUE(driveUntil(*queue_, [&] {
      const auto lines = logger_->lines();
      return std::count(lines.begin(), lines.end(),
                        "error: [UploadClient] failed to upload: connectionFailed") == attempt;
    }));
    EXPECT_EQ(answers_, 0);
    queue_->advance(30s);
  }
  ASSERT_TRUE(answered());
  EXPECT_EQ(outcome_, UploadFailure(HttpError::connectionFailed));
  EXPECT_TRUE(testing::waitUntil([&] { return requestCount() == 3; }));
}

TEST_F(UploadClientTest, UploadsWaitWhileOfflineAndGoOutWhenTheNetworkReturns) {
  auto client = makeClient();
  queue_->runUntilIdle();
  monitor_->set(platform::PathStatus::unsatisfied);
  upload(*client);
  queue_->runUntilIdle();
  EXPECT_TRUE(client->isSuspended());
  queue_->advance(10min);
  EXPECT_EQ(requestCount(), 0u);
  EXPECT_EQ(answers_, 0);

  monitor_->set(platform::PathStatus::satisfied);
  ASSERT_TRUE(answered());
  EXPECT_EQ(outcome_, std::nullopt);
  EXPECT_EQ(requestCount(), 1u);
}

// A refused block and a connection closed without an answer are reported at once and not sent again: the
// block waits for a later pass.
TEST_F(UploadClientTest, ABadRequestOrALostAnswerIsReportedNotRetried) {
  for (const testing::Fault& fault : {testing::Fault{.status = 400}, testing::Fault{.drop = true}}) {
    collector_->reset();
    collector_->injectFaults({fault});
    answers_ = 0;
    auto client = makeClient();
    upload(*client);
    ASSERT_TRUE(answered());
    ASSERT_TRUE(outcome_.has_value());
    if (fault.drop) {
      const auto* transport = std::get_if<platform::TransportError>(&*outcome_);
      ASSERT_NE(transport, nullptr);
      EXPECT_EQ(transport->code, -1011);  // bad server response
    } else {
      EXPECT_EQ(outcome_, UploadFailure(HttpError::invalidRequest));
    }
    queue_->advance(120s);
    EXPECT_EQ(requestCount(), 1u);
    EXPECT_EQ(answers_, 1);
  }
}

// Opted out, out of sample or with capture switched off: nothing is sent and the block counts as delivered.
TEST_F(UploadClientTest, SessionsThatAreNotRecordedSendNothingAndCountAsDelivered) {
  for (const UploadClient::Options& options :
       {UploadClient::Options{.optOut = true}, UploadClient::Options{.sampleRate = 0.0f},
        UploadClient::Options{.captureEnabled = false}}) {
    answers_ = 0;
    auto client = makeClient(options);
    upload(*client, 1);
    ASSERT_TRUE(answered());
    EXPECT_EQ(outcome_, std::nullopt);
  }
  EXPECT_EQ(requestCount(), 0u);
}

// libcurl may fail to start; the client then answers every block at once, and the block is kept.
TEST_F(UploadClientTest, WithoutATransportEachUploadFailsWithoutSending) {
  auto client = makeClient({}, false);
  upload(*client);
  ASSERT_TRUE(answered());
  ASSERT_TRUE(outcome_.has_value());
  EXPECT_EQ(describe(*outcome_), "no HTTP transport");
  EXPECT_EQ(logger_->lines(),
            std::vector<std::string>{"error: [UploadClient] failed to upload: no HTTP transport"});
}

TEST(UploadRequest, AnEndpointThatIsNotAUrlFailsAsInvalidUrl) {
  auto transport = std::shared_ptr<platform::HttpTransport>(CurlTransport::create().value());
  auto queue = std::make_shared<ManualQueue>("upload", std::make_shared<ManualClock>());
  for (const char* endpoint : {"not a url", "no-scheme.example/track"}) {
    auto client = UploadClient::make(
        {.apiKey = "k", .serverUrl = endpoint, .logger = std::make_shared<RecordingLogger>()}, transport,
        std::make_shared<ManualPathMonitor>(), queue);
    EXPECT_EQ(client->makeRequest("d", 1, 1, {}).error(), HttpError::invalidURL) << endpoint;
  }
  EXPECT_EQ(sampleRateText(1.0f), "1.0");
  EXPECT_EQ(sampleRateText(0.1f), "0.1");
  EXPECT_EQ(sampleRateText(1e-5f), "1e-05");
}

}  // namespace
}  // namespace verdalune::sessionreplay
