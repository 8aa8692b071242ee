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

// Any text packed as clients pack events: compressed, each byte as the Latin-1 character of that value,
// in a JSON string. `keep` cuts the compressed stream short.
std::string packText(std::string_view text, std::size_t keep = std::string::npos) {
  std::string bytes(compressBound(text.size()), '\0');
  uLongf length = bytes.size();
  compress(reinterpret_cast<Bytef*>(bytes.data()), &length, reinterpret_cast<const Bytef*>(text.data()),
           text.size());
  std::string utf8;
  for (const char c : bytes.substr(0, std::min<std::size_t>(length, keep))) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80) {
      utf8 += c;
    } else {
      utf8 += {static_cast<char>(0xC0 | (byte >> 6)), static_cast<char>(0x80 | (byte & 0x3F))};
    }
  }
  std::string literal;
  appendJsonString(literal, utf8);
  return literal;
}

// {"version":2,"events":[...]} with each packed literal as a string element, escaped once more.
std::string trackBody(const std::vector<std::string>& literals) {
  std::string body = R"({"version":2,"events":[)";
  for (const auto& literal : literals) {
    if (&literal != &literals.front()) body += ",";
    appendJsonString(body, literal);
  }
  return body + "]}";
}

std::string trackQuery(std::string_view deviceId, std::int64_t sessionId, std::int64_t sequenceNumber) {
  return "device_id=" + std::string(deviceId) + "&session_id=" + std::to_string(sessionId) +
         "&seq_number=" + std::to_string(sequenceNumber) + "&mobile_translation=false";
}

constexpr char kStored[] = R"({"events":1,"stored":true})";

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
  const std::string body = trackBody({pack(customEvent(1, "a")).literal});
  const std::string query = trackQuery("device", 7, 0);

  expectAnswer(post(query, body, ""), 401, "missing \"Authorization: Bearer KEY\"\n");
  expectAnswer(post(query, body, "stolen-key"), 401, "unknown api key\n");
  expectAnswer(post("device_id=d&session_id=7&mobile_translation=false", body), 400, "missing seq_number\n");
  expectAnswer(post(query + "&device_id=x", body), 400, "device_id is given twice\n");
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
}

TEST_F(CollectorTest, RefusesBodiesOverTheLimitAndReadsOnesAtIt) {
  const std::string prefix = R"({"version":1,"events":[],"padding":")";
  const std::string atLimit = prefix + std::string(kMaxBody - prefix.size() - 2, 'x') + "\"}";
  expectAnswer(post(trackQuery("device", 1, 0), atLimit), 400, "\"version\" must be 2\n");
  // The refused body is read past, so a client that keeps its connection can go on using it.
  auto keepAlive = client();
  keepAlive.set_keep_alive(true);
  expectAnswer(keepAlive.Post("/sessions/v2/track?" + trackQuery("device", 1, 1),
                              {{"Authorization", "Bearer test-key"}}, atLimit + " ", "application/json"),
               413, "body larger than " + std::to_string(kMaxBody) + " bytes\n");
  expectAnswer(keepAlive.Get("/config?api_key=other-key"), 200, R"({"configs":{}})");

  const auto requests = collector_->requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[1].status, 413);
  EXPECT_EQ(requests[1].query, trackQuery("device", 1, 1));
}

TEST_F(CollectorTest, StoresEachBlockOnceAndServesTheEventsInTimestampOrder) {
  const Packed a = pack(customEvent(200, "a"));
  const Packed b = pack(customEvent(100, "b"));
  const Packed c = pack(customEvent(100, "c"));
  const Packed d =
      pack(rrweb::MetaEvent{.timestamp = 50, .href = "https://example.com/", .width = 390, .height = 844});
  const std::string first = trackQuery("device", 7, 0);
  const std::string notStored = R"({"events":1,"stored":false})";
  // Later blocks can arrive first, and timestamps tie across blocks: ties keep block order.
  expectAnswer(post(trackQuery("device", 7, 1), trackBody({c.literal, d.literal})), 200,
               R"({"events":2,"stored":true})");
  expectAnswer(post(first, trackBody({a.literal, b.literal})), 200, R"({"events":2,"stored":true})");
  // A block sent again, even changed, keeps its first copy.
  expectAnswer(post(first, trackBody({a.literal})), 200, notStored);
  expectAnswer(post(first, trackBody({pack(customEvent(2, "changed")).literal})), 200, notStored);

  EXPECT_THAT(collector_->sessionEvents("device", 7), ElementsAre(d.json, b.json, c.json, a.json));
  expectAnswer(get("/sessions/device/7/events"), 200,
               "[" + d.json + "," + b.json + "," + c.json + "," + a.json + "]");
  expectAnswer(get("/sessions"), 200,
               R"([{"api_key":"test-key","block_count":2,"device_id":"device","event_count":4,)"
               R"("first_timestamp":50,"last_timestamp":200,"session_id":7}])");
  EXPECT_TRUE(collector_->sessionEvents("device", 8).empty());
  EXPECT_TRUE(collector_->sessionEvents("other-device", 7).empty());

  // The same block identity under another api key is another project's block.
  expectAnswer(post(first, trackBody({a.literal}), "other-key"), 200, kStored);
  expectAnswer(get("/sessions/device/7/events"), 400,
               "the session is stored under several api keys; name one with api_key\n");
  expectAnswer(get("/sessions/device/7/events?api_key=other-key"), 200, "[" + a.json + "]");

  // '+' is a plain character in these queries, and a device id may hold any character.
  expectAnswer(
      post("device_id=a%2Fb+c&session_id=-3&seq_number=0&mobile_translation=false", trackBody({a.literal})),
      200, kStored);
  EXPECT_THAT(collector_->sessionEvents("a/b+c", -3), ElementsAre(a.json));
}

TEST_F(CollectorTest, OneBadEventRejectsTheWholeBlock) {
  const std::string valid = pack(customEvent(1, "valid")).literal;
  const std::string query = trackQuery("device", 7, 0);
  const std::string event = R"({"timestamp":1,"type":5,"v":"v1"})";
  ASSERT_EQ(unpackEvent(packText(event)), event) << "the helper packs as clients do";
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{valid, R"("x")"}, "event 1 does not unpack: inflateFailed"},
      {{valid, "{}"}, "event 1 does not unpack: notAStringLiteral"},
      {{"\"\xe2\x82\xac\"", valid}, "event 0 does not unpack: notLatin1"},
      {{valid, packText(event, 10)}, "event 1 does not unpack: inflateFailed"},
      {{packText("[1]")}, "event 0 is not a JSON object"},
      {{packText(R"({"timestamp":"1"})")}, "event 0 has no integer \"timestamp\""},
  };
  for (const auto& [events, answer] : cases) expectAnswer(post(query, trackBody(events)), 400, answer + "\n");
  EXPECT_TRUE(collector_->sessionEvents("device", 7).empty());

  // A block refused for its content can be sent again once it is right.
  expectAnswer(post(query, trackBody({valid})), 200, kStored);
}

TEST_F(CollectorTest, AppliesFaultsInOrderToTrackAndConfigRequests) {
  // Lists it cannot apply are refused whole, leaving no fault behind.
  for (const char* faults : {R"([{"status":0}])", R"([{"delay":5}])", R"({"status":500})",
                             R"([{"status":500},{"drop":"yes"}])", R"([{"delay_ms":60001}])"}) {
    const auto result =
        client().Post("/_control/faults", collector_->controlHeaders(), faults, "application/json");
    EXPECT_TRUE(result && result->status == 400) << faults;
  }
  collector_->injectFaults(
      {{.status = 429}, {.delayMs = 200}, {.drop = true}, {.status = 500, .delayMs = 10}});
  // Reads of stored sessions take no fault.
  expectAnswer(get("/sessions"), 200, "[]");

  std::vector<Packed> blocks;
  for (int i = 0; i < 5; ++i) blocks.push_back(pack(customEvent(i, "block " + std::to_string(i))));
  const auto upload = [&](int i) { return post(trackQuery("device", 7, i), trackBody({blocks[i].literal})); };
  expectAnswer(upload(0), 429, "injected fault: status 429\n");
  expectAnswer(upload(1), 200, kStored);
  const auto dropped = upload(2);
  EXPECT_FALSE(dropped) << "answered " << dropped->status;
  expectAnswer(get("/config?api_key=test-key"), 500, "injected fault: status 500\n");
  expectAnswer(upload(4), 200, kStored);

  EXPECT_THAT(collector_->sessionEvents("device", 7), ElementsAre(blocks[1].json, blocks[4].json));
  std::vector<std::string> seen;
  for (const auto& request : collector_->requests())
    seen.push_back(request.path + " " + std::to_string(request.status));
  EXPECT_THAT(seen, ElementsAre("/sessions/v2/track 429", "/sessions/v2/track 200", "/sessions/v2/track 0",
                                "/config 500", "/sessions/v2/track 200"));

  // A reset forgets pending faults and the record, not the sessions.
  collector_->injectFaults({{.status = 503}});
  collector_->reset();
  expectAnswer(get("/config?api_key=other-key"), 200, R"({"configs":{}})");
  EXPECT_EQ(collector_->requests().size(), 1u);
  EXPECT_EQ(collector_->sessionEvents("device", 7).size(), 2u);
}

TEST_F(CollectorTest, AnswersTheConfigurationOfEachKey) {
  expectAnswer(get("/config?api_key=test-key&config_keys=a&config_keys=b"), 200, kConfig);
  expectAnswer(get("/config?api_key=other-key"), 200, R"({"configs":{}})");
  expectAnswer(get("/config?api_key=stolen-key"), 401, "unknown api key\n");
  expectAnswer(get("/config"), 401, "missing api_key\n");
}

TEST_F(CollectorTest, ServesASessionPageThatLoadsThePlayerAndTheEvents) {
  // The device id holds a slash and the characters HTML gives meaning to.
  const Packed meta =
      pack(rrweb::MetaEvent{.timestamp = 1000, .href = "https://example.com/", .width = 390, .height = 844});
  const Packed last = pack(customEvent(73'500, "last"));
  expectAnswer(post("device_id=a%2F%3Cb%3E%26%22&session_id=5&seq_number=0&mobile_translation=false",
                    trackBody({meta.literal, last.literal})),
               200, R"({"events":2,"stored":true})");

  const auto page = get("/sessions/a/%3Cb%3E%26%22/5");
  ASSERT_TRUE(page);
  EXPECT_EQ(page->status, 200);
  EXPECT_THAT(page->get_header_value("Content-Type"), HasSubstr("text/html"));
  EXPECT_THAT(page->body, HasSubstr(">a/&lt;b&gt;&amp;&quot;</dd>"));
  EXPECT_THAT(page->body, ::testing::Not(HasSubstr("<b>")));
  EXPECT_THAT(page->body, HasSubstr(R"(<dd id="duration">1 min 12 s</dd>)"));
  EXPECT_THAT(page->body, HasSubstr(R"(<dd id="event-count">2</dd>)"));
  EXPECT_THAT(page->body, HasSubstr(R"(<script src="/player/rrweb-player.js">)"));
  EXPECT_THAT(page->body, HasSubstr(R"(href="/player/style.css")"));
  // The address the page fetches its events from answers them.
  const std::string eventsUrl = "/sessions/a/%3Cb%3E%26%22/5/events?api_key=test-key";
  EXPECT_THAT(page->body, HasSubstr("data-events-url=\"" + eventsUrl + "\""));
  expectAnswer(get(eventsUrl), 200, "[" + meta.json + "," + last.json + "]");

  const auto index = get("/");
  ASSERT_TRUE(index);
  EXPECT_THAT(index->body, HasSubstr(R"(href="/sessions/a/%3Cb%3E%26%22/5?api_key=test-key")"));
}

TEST_F(CollectorTest, ServesThePlayerFilesAndAnswersUnknownSessionsWithNotFound) {
  const auto script = get("/player/rrweb-player.js");
  ASSERT_TRUE(script);
  EXPECT_EQ(script->status, 200);
  EXPECT_THAT(script->get_header_value("Content-Type"), HasSubstr("text/javascript"));
  EXPECT_THAT(script->body, HasSubstr("rrwebPlayer"));
  const auto style = get("/player/style.css");
  ASSERT_TRUE(style);
  EXPECT_EQ(style->status, 200);
  EXPECT_THAT(style->get_header_value("Content-Type"), HasSubstr("text/css"));

  expectAnswer(post(trackQuery("device", 7, 0), trackBody({pack(customEvent(1, "a")).literal})), 200,
               kStored);
  for (const char* path :
       {"/sessions/device/8", "/sessions/other/7", "/sessions/device/7?api_key=other-key"}) {
    const auto missing = get(path);
    ASSERT_TRUE(missing) << path;
    EXPECT_EQ(missing->status, 404) << path;
    EXPECT_THAT(missing->body, HasSubstr("No such session")) << path;
  }
}

// A page in any browser on this host can post to the collector, and a name it controls can be rebound to
// 127.0.0.1: the test controls need their run's token and JSON, and other host names are not served.
TEST_F(CollectorTest, ServesTestControlsOnlyToItsHarnessAndOnlyItsOwnHostNames) {
  const auto post = [&](const httplib::Headers& headers, const char* type) {
    const auto result = client().Post("/_control/faults", headers, R"([{"status":503}])", type);
    return result ? result->status : 0;
  };
  EXPECT_EQ(post({}, "text/plain"), 403);
  EXPECT_EQ(post({{"X-Test-Control-Token", "guessed-token-00000000"}}, "application/json"), 403);
  EXPECT_EQ(post(collector_->controlHeaders(), "text/plain"), 415);
  EXPECT_TRUE(collector_->requests().empty()) << "the refused lists left no fault behind";

  const auto configFor = [&](const std::string& host) {
    const auto result = client().Get("/config?api_key=test-key", {{"Host", host}});
    return result ? result->status : 0;
  };
  const std::string port = ":" + std::to_string(collector_->port());
  EXPECT_EQ(configFor("rebind.attacker.example" + port), 421);
  EXPECT_EQ(configFor("127.0.0.1.attacker.example"), 421);
  for (const std::string& host : {"LOCALHOST" + port, "127.0.0.1" + port, std::string("localhost")})
    EXPECT_EQ(configFor(host), 200) << host;

  auto plain =
      CollectorProcess::start({.testControls = false, .arguments = {"--allowed-host", "Replay.Example"}});
  ASSERT_NE(plain, nullptr);
  httplib::Client other(plain->baseUrl());
  for (const char* path : {"/_control/requests", "/_control/moved/307/config"})
    EXPECT_EQ(other.Get(path)->status, 404) << path;
  EXPECT_EQ(other.Post("/_control/faults", plain->controlHeaders(), "[]", "application/json")->status, 404);
  EXPECT_EQ(other.Get("/config?api_key=test-key", {{"Host", "replay.example"}})->status, 200);
}

TEST_F(CollectorTest, RecordsOnlyTheLatestRequests) {
  httplib::Client keepAlive(collector_->baseUrl());
  keepAlive.set_keep_alive(true);
  for (int i = 0; i <= 1000; ++i)
    ASSERT_EQ(keepAlive.Get("/config?api_key=test-key&n=" + std::to_string(i))->status, 200);
  const auto requests = collector_->requests();
  ASSERT_EQ(requests.size(), 1000u);
  EXPECT_EQ(requests.front().query, "api_key=test-key&n=1");
  EXPECT_EQ(requests.back().status, 200);
}

TEST(CollectorProcessStart, ReportsACollectorThatCannotStart) {
  EXPECT_EQ(CollectorProcess::start({.apiKeys = {}, .configs = {}, .maxBodyBytes = std::nullopt}), nullptr);
}

}  // namespace
}  // namespace verdalune::sessionreplay::testing
