#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <zlib.h>

#include <string>
#include <vector>

#include "integration/collector_process.h"
#include "rrweb/events.h"
#include "storage/versioned_event.h"
#include "support/json_writer.h"

namespace verdalune::sessionreplay::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr std::size_t kMaxBody = 64 * 1024;
constexpr const char* kConfig =
    R"({"configs":{"sessionReplay":{"sr_ios_sampling_config":{"capture_enabled":false,"sample_rate":0.25}}}})";

rrweb::Event customEvent(std::int64_t timestamp, std::string tag) {
  // A payload with slashes, quotes, non-ASCII text and a double, which the stored text must keep exactly.
  return rrweb::CustomEvent{
      .timestamp = timestamp,
      .tag = std::move(tag),
      .payload = rrweb::JSONValue::Dictionary{
          {"url", "https://example.com/a?b=\"c\""}, {"text", "caf\xc3\xa9 \xe2\x82\xac"}, {"ratio", 0.1}}};
}

// A packed event as a client stores it, and the JSON text the collector must keep for it.
struct Packed {
  std::string literal;
  std::string json;
};

Packed pack(const rrweb::Event& event) {
  EventPacker packer;
  return {std::string(packer.pack(event).value()), packer.encode(VersionedEvent{event}).value()};
}

std::string compressed(std::string_view json) {
  std::string bytes(compressBound(json.size()), '\0');
  uLongf length = bytes.size();
  compress(reinterpret_cast<Bytef*>(bytes.data()), &length, reinterpret_cast<const Bytef*>(json.data()),
           json.size());
  bytes.resize(length);
  return bytes;
}

// The packed form of any bytes: each byte as the Latin-1 character of that value, in a JSON string.
std::string latin1Literal(std::string_view bytes) {
  std::string utf8;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80) {
      utf8.push_back(c);
    } else {
      utf8.push_back(static_cast<char>(0xC0 | (byte >> 6)));
      utf8.push_back(static_cast<char>(0x80 | (byte & 0x3F)));
    }
  }
  std::string literal;
  appendJsonString(literal, utf8);
  return literal;
}

// {"version":2,"events":[...]} with each packed literal as a string element, escaped once more.
std::string trackBody(const std::vector<std::string>& literals) {
  std::string body = R"({"version":2,"events":[)";
  for (std::size_t i = 0; i < literals.size(); ++i) {
    if (i > 0) body += ",";
    appendJsonString(body, literals[i]);
  }
  return body + "]}";
}

std::string trackBody(const std::vector<Packed>& events) {
  std::vector<std::string> literals;
  for (const auto& event : events) literals.push_back(event.literal);
  return trackBody(literals);
}

std::string trackQuery(std::string_view deviceId, std::int64_t sessionId, std::int64_t sequenceNumber) {
  return "device_id=" + std::string(deviceId) + "&session_id=" + std::to_string(sessionId) +
         "&seq_number=" + std::to_string(sequenceNumber) + "&mobile_translation=false";
}

class CollectorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    collector_ = CollectorProcess::start(
        {.apiKeys = {"test-key", "other-key"}, .configs = {{"test-key", kConfig}}, .maxBodyBytes = kMaxBody});
    ASSERT_NE(collector_, nullptr);
  }

  httplib::Client client() const {
    httplib::Client client(collector_->baseUrl());
    client.set_read_timeout(std::chrono::seconds(10));
    client.set_url_encode(false);
    return client;
  }

  httplib::Result post(const std::string& query, const std::string& body,
                       const std::string& apiKey = "test-key",
                       const std::string& contentType = "application/json") const {
    httplib::Headers headers{{"X-Client-Platform", "ios"}};
    if (!apiKey.empty()) headers.emplace("Authorization", "Bearer " + apiKey);
    return client().Post("/sessions/v2/track?" + query, headers, body, contentType.c_str());
  }

  httplib::Result get(const std::string& path) const { return client().Get(path); }

  std::unique_ptr<CollectorProcess> collector_;
};

void expectAnswer(const httplib::Result& result, int status, std::string_view body) {
  ASSERT_TRUE(result) << httplib::to_string(result.error());
  EXPECT_EQ(result->status, status);
  EXPECT_EQ(result->body, body);
}

TEST_F(CollectorTest, RefusesUploadsItCannotAttributeOrRead) {
  const std::string body = trackBody(std::vector<Packed>{pack(customEvent(1, "a"))});
  const std::string query = trackQuery("device", 7, 0);

  expectAnswer(post(query, body, ""), 401, "missing \"Authorization: Bearer KEY\"\n");
  expectAnswer(post(query, body, "stolen-key"), 401, "unknown api key\n");
  expectAnswer(post("device_id=d&session_id=7&mobile_translation=false", body), 400, "missing seq_number\n");
  expectAnswer(post(trackQuery("device", 7, 0) + "&device_id=x", body), 400, "device_id is given twice\n");
  expectAnswer(post("device_id=d&session_id=7x&seq_number=0&mobile_translation=false", body), 400,
               "session_id is not a decimal 64-bit integer\n");
  expectAnswer(post("device_id=d&session_id=7&seq_number=9223372036854775808&mobile_translation=false", body),
               400, "seq_number is not a decimal 64-bit integer\n");
  expectAnswer(post("device_id=d&session_id=7&seq_number=0&mobile_translation=maybe", body), 400,
               "mobile_translation is neither true nor false\n");
  expectAnswer(post(query, body, "test-key", "text/plain"), 400, "Content-Type must be application/json\n");
  expectAnswer(post(query, R"({"version":1,"events":[]})"), 400, "\"version\" must be 2\n");
  expectAnswer(post(query, R"({"version":2,"events":[{}]})"), 400, "event 0 is not a string\n");
  const auto notJson = post(query, "{\"version\":2,");
  ASSERT_TRUE(notJson);
  EXPECT_EQ(notJson->status, 400);
  EXPECT_THAT(notJson->body, HasSubstr("body is not JSON"));
  EXPECT_EQ(std::count(notJson->body.begin(), notJson->body.end(), '\n'), 1) << "one line: " << notJson->body;

  expectAnswer(get("/sessions"), 200, "[]");
  std::vector<int> statuses;
  for (const auto& request : collector_->requests()) statuses.push_back(request.status);
  EXPECT_THAT(statuses, ElementsAre(401, 401, 400, 400, 400, 400, 400, 400, 400, 400, 400));
}

TEST_F(CollectorTest, RefusesBodiesOverTheLimitAndReadsOnesAtIt) {
  const std::string prefix = R"({"version":1,"events":[],"padding":")";
  const std::string atLimit = prefix + std::string(kMaxBody - prefix.size() - 2, 'x') + "\"}";
  ASSERT_EQ(atLimit.size(), kMaxBody);
  expectAnswer(post(trackQuery("device", 1, 0), atLimit), 400, "\"version\" must be 2\n");
  expectAnswer(post(trackQuery("device", 1, 1), atLimit + " "), 413,
               "body larger than " + std::to_string(kMaxBody) + " bytes\n");

  const auto requests = collector_->requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[1].status, 413);
  EXPECT_EQ(requests[1].query, trackQuery("device", 1, 1));

  // The refused body is read past, so a client that keeps its connection can go on using it.
  auto keepAlive = client();
  keepAlive.set_keep_alive(true);
  const httplib::Headers headers{{"Authorization", "Bearer test-key"}};
  expectAnswer(keepAlive.Post("/sessions/v2/track?" + trackQuery("device", 1, 2), headers, atLimit + " ",
                              "application/json"),
               413, "body larger than " + std::to_string(kMaxBody) + " bytes\n");
  expectAnswer(keepAlive.Get("/config?api_key=other-key"), 200, R"({"configs":{}})");
}

TEST_F(CollectorTest, StoresBlocksAndServesTheirEventsInTimestampOrder) {
  const Packed a = pack(customEvent(200, "a"));
  const Packed b = pack(customEvent(100, "b"));
  const Packed c = pack(customEvent(100, "c"));
  const Packed d =
      pack(rrweb::MetaEvent{.timestamp = 50, .href = "https://example.com/", .width = 390, .height = 844});
  // Later blocks can arrive first, and timestamps tie across blocks: ties keep block order.
  expectAnswer(post(trackQuery("device", 7, 1), trackBody({c, d})), 200, R"({"events":2,"stored":true})");
  expectAnswer(post(trackQuery("device", 7, 0), trackBody({a, b})), 200, R"({"events":2,"stored":true})");

  EXPECT_THAT(collector_->sessionEvents("device", 7), ElementsAre(d.json, b.json, c.json, a.json));
  expectAnswer(get("/sessions/device/7/events"), 200,
               "[" + d.json + "," + b.json + "," + c.json + "," + a.json + "]");
  expectAnswer(get("/sessions"), 200,
               R"([{"api_key":"test-key","block_count":2,"device_id":"device","event_count":4,)"
               R"("first_timestamp":50,"last_timestamp":200,"session_id":7}])");
  EXPECT_TRUE(collector_->sessionEvents("device", 8).empty());
  EXPECT_TRUE(collector_->sessionEvents("other-device", 7).empty());
}

TEST_F(CollectorTest, KeepsTheFirstCopyOfABlockSentTwice) {
  const std::string query = trackQuery("device", 7, 0);
  const Packed first = pack(customEvent(1, "first"));
  expectAnswer(post(query, trackBody({first})), 200, R"({"events":1,"stored":true})");
  expectAnswer(post(query, trackBody({first})), 200, R"({"events":1,"stored":false})");
  expectAnswer(post(query, trackBody({pack(customEvent(2, "changed"))})), 200,
               R"({"events":1,"stored":false})");
  EXPECT_THAT(collector_->sessionEvents("device", 7), ElementsAre(first.json));

  // The same block identity under another api key is another project's block.
  expectAnswer(post(query, trackBody({first}), "other-key"), 200, R"({"events":1,"stored":true})");
  expectAnswer(get("/sessions/device/7/events"), 400,
               "the session is stored under several api keys; name one with api_key\n");
  expectAnswer(get("/sessions/device/7/events?api_key=other-key"), 200, "[" + first.json + "]");
}

TEST_F(CollectorTest, OneBadEventRejectsTheWholeBlock) {
  const std::string valid = pack(customEvent(1, "valid")).literal;
  const std::string query = trackQuery("device", 7, 0);
  expectAnswer(post(query, trackBody({valid, R"("x")"})), 400, "event 1 does not unpack: inflateFailed\n");
  expectAnswer(post(query, trackBody({valid, "{}"})), 400, "event 1 does not unpack: notAStringLiteral\n");
  expectAnswer(post(query, trackBody({"\"\xe2\x82\xac\"", valid})), 400,
               "event 0 does not unpack: notLatin1\n");
  const std::string event = R"({"timestamp":1,"type":5,"v":"v1"})";
  const std::string stream = compressed(event);
  ASSERT_EQ(unpackEvent(latin1Literal(stream)), event) << "the helpers pack as clients do";
  expectAnswer(post(query, trackBody({valid, latin1Literal(stream.substr(0, stream.size() / 2))})), 400,
               "event 1 does not unpack: inflateFailed\n");
  expectAnswer(post(query, trackBody({latin1Literal(compressed("[1]"))})), 400,
               "event 0 is not a JSON object\n");
  expectAnswer(post(query, trackBody({latin1Literal(compressed(R"({"timestamp":"1"})"))})), 400,
               "event 0 has no integer \"timestamp\"\n");
  EXPECT_TRUE(collector_->sessionEvents("device", 7).empty());

  // A block refused for its content can be sent again once it is right.
  expectAnswer(post(query, trackBody({valid})), 200, R"({"events":1,"stored":true})");
}

TEST_F(CollectorTest, AppliesFaultsInOrderToTrackAndConfigRequests) {
  collector_->injectFaults(
      {{.status = 429}, {.delayMs = 200}, {.drop = true}, {.status = 500, .delayMs = 10}});
  // Reads of stored sessions take no fault.
  expectAnswer(get("/sessions"), 200, "[]");

  std::vector<Packed> blocks;
  for (int i = 0; i < 5; ++i) blocks.push_back(pack(customEvent(i, "block " + std::to_string(i))));
  expectAnswer(post(trackQuery("device", 7, 0), trackBody({blocks[0]})), 429, "injected fault: status 429\n");
  expectAnswer(post(trackQuery("device", 7, 1), trackBody({blocks[1]})), 200,
               R"({"events":1,"stored":true})");
  const auto dropped = post(trackQuery("device", 7, 2), trackBody({blocks[2]}));
  EXPECT_FALSE(dropped) << "answered " << dropped->status;
  const auto failed = client().Get("/config?api_key=test-key");
  expectAnswer(failed, 500, "injected fault: status 500\n");
  expectAnswer(post(trackQuery("device", 7, 4), trackBody({blocks[4]})), 200,
               R"({"events":1,"stored":true})");

  EXPECT_THAT(collector_->sessionEvents("device", 7), ElementsAre(blocks[1].json, blocks[4].json));
  std::vector<std::pair<std::string, int>> seen;
  for (const auto& request : collector_->requests()) seen.emplace_back(request.path, request.status);
  EXPECT_THAT(seen, ElementsAre(std::pair<std::string, int>{"/sessions/v2/track", 429},
                                std::pair<std::string, int>{"/sessions/v2/track", 200},
                                std::pair<std::string, int>{"/sessions/v2/track", 0},
                                std::pair<std::string, int>{"/config", 500},
                                std::pair<std::string, int>{"/sessions/v2/track", 200}));

  // A reset forgets pending faults and the record, not the sessions.
  collector_->injectFaults({{.status = 503}});
  collector_->reset();
  expectAnswer(client().Get("/config?api_key=other-key"), 200, R"({"configs":{}})");
  EXPECT_EQ(collector_->requests().size(), 1u);
  EXPECT_EQ(collector_->sessionEvents("device", 7).size(), 2u);
}

TEST_F(CollectorTest, RefusesFaultsItCannotApply) {
  const auto refused = [&](const std::string& faults) {
    const auto result = client().Post("/_control/faults", faults, "application/json");
    return result && result->status == 400;
  };
  EXPECT_TRUE(refused(R"([{"status":0}])"));
  EXPECT_TRUE(refused(R"([{"delay":5}])"));
  EXPECT_TRUE(refused(R"({"status":500})"));
  EXPECT_TRUE(refused(R"([{"status":500},{"drop":"yes"}])"));
  // None of the refused lists left a fault behind.
  expectAnswer(client().Get("/config?api_key=other-key"), 200, R"({"configs":{}})");
}

TEST_F(CollectorTest, AnswersTheConfigurationOfEachKey) {
  expectAnswer(get("/config?api_key=test-key&config_keys=a&config_keys=b"), 200, kConfig);
  expectAnswer(get("/config?api_key=other-key"), 200, R"({"configs":{}})");
  expectAnswer(get("/config?api_key=stolen-key"), 401, "unknown api key\n");
  expectAnswer(get("/config"), 401, "missing api_key\n");
}

TEST_F(CollectorTest, RecordsRequestsAsTheyArrived) {
  // '+' is a plain character in these queries, and a device id may hold any character.
  const std::string query = "device_id=a%2Fb+c&session_id=-3&seq_number=0&mobile_translation=false";
  const Packed event = pack(customEvent(1, "x"));
  expectAnswer(post(query, trackBody({event})), 200, R"({"events":1,"stored":true})");
  EXPECT_THAT(collector_->sessionEvents("a/b+c", -3), ElementsAre(event.json));

  const auto requests = collector_->requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].method, "POST");
  EXPECT_EQ(requests[0].path, "/sessions/v2/track");
  EXPECT_EQ(requests[0].query, query);
  EXPECT_EQ(requests[0].body, trackBody({event}));
  EXPECT_EQ(requests[0].header("x-client-platform"), "ios");
  EXPECT_EQ(requests[0].header("AUTHORIZATION"), "Bearer test-key");
  EXPECT_EQ(requests[0].header("X-Client-Version"), std::nullopt);
  EXPECT_EQ(requests[0].header("REMOTE_ADDR"), std::nullopt) << "added by the server, not sent";
}

TEST(CollectorProcessStart, ReportsACollectorThatCannotStart) {
  EXPECT_EQ(CollectorProcess::start({.apiKeys = {}, .configs = {}, .maxBodyBytes = std::nullopt}), nullptr);
}

}  // namespace
}  // namespace verdalune::sessionreplay::testing
