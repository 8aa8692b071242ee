#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <fstream>
#include <future>
#include <string>
#include <vector>

#include "integration/collector_process.h"
#include "integration/postgres_server.h"
#include "integration/track_requests.h"
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

  // With the read cookie, as a browser that signed in sends it; a bearer value would be taken for an
  // api key on /config.
  httplib::Result get(const std::string& path) const {
    return client().Get(path, {{"Cookie", "vdl_read=" + collector_->readToken()}});
  }

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
  // Later blocks can arrive first, and timestamps tie across blocks: ties keep block order.
  expectAnswer(post(trackQuery("device", 7, 1), trackBody({c.literal, d.literal})), 200,
               R"({"events":2,"stored":true})");
  expectAnswer(post(first, trackBody({a.literal, b.literal})), 200, R"({"events":2,"stored":true})");
  // A block sent again keeps its first copy; one sent again changed is refused.
  expectAnswer(post(first, trackBody({a.literal, b.literal})), 200, R"({"events":2,"stored":false})");
  expectAnswer(post(first, trackBody({a.literal})), 409,
               "a block with other events is stored under this seq_number\n");

  EXPECT_THAT(collector_->sessionEvents("device", 7), ElementsAre(d.json, b.json, c.json, a.json));
  expectAnswer(get("/sessions/device/7/events"), 200,
               "[" + d.json + "," + b.json + "," + c.json + "," + a.json + "]");
  expectAnswer(get("/sessions"), 200,
               R"([{"block_count":2,"device_id":"device","event_count":4,)"
               R"("first_timestamp":50,"last_timestamp":200,"project":"62af8704","session_id":7}])");
  EXPECT_TRUE(collector_->sessionEvents("device", 8).empty());
  EXPECT_TRUE(collector_->sessionEvents("other-device", 7).empty());

  // The same block identity under another api key is another project's block.
  expectAnswer(post(first, trackBody({a.literal}), "other-key"), 200, kStored);
  expectAnswer(get("/sessions/device/7/events"), 400,
               "the session is stored under several projects; name one with project\n");
  expectAnswer(get("/sessions/device/7/events?project=580843d0"), 200, "[" + a.json + "]");

  // '+' is a plain character in these queries, and a device id may hold any character.
  expectAnswer(
      post("device_id=a%2Fb+c&session_id=3&seq_number=0&mobile_translation=false", trackBody({a.literal})),
      200, kStored);
  EXPECT_THAT(collector_->sessionEvents("a/b+c", 3), ElementsAre(a.json));
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
  const std::string eventsUrl = "/sessions/a/%3Cb%3E%26%22/5/events?project=62af8704";
  EXPECT_THAT(page->body, HasSubstr("data-events-url=\"" + eventsUrl + "\""));
  expectAnswer(get(eventsUrl), 200, "[" + meta.json + "," + last.json + "]");

  const auto index = get("/");
  ASSERT_TRUE(index);
  EXPECT_THAT(index->body, HasSubstr(R"(href="/sessions/a/%3Cb%3E%26%22/5?project=62af8704")"));
}

// Recordings are pictures of people's screens: only the read token reads them, and the upload keys,
// which a phone app gives away, neither read nor show.
TEST_F(CollectorTest, ReadsOnlyWithTheReadTokenAndNeverShowsUploadKeys) {
  expectAnswer(post(trackQuery("device", 7, 0), trackBody({pack(customEvent(1, "a")).literal})), 200,
               kStored);
  const std::string token = collector_->readToken();
  const auto status = [&](const std::string& path, const httplib::Headers& headers) {
    const auto result = client().Get(path, headers);
    return result ? result->status : 0;
  };
  for (const char* path : {"/", "/sessions", "/sessions/device/7", "/sessions/device/7/events"}) {
    for (const httplib::Headers& headers :
         std::vector<httplib::Headers>{{},
                                       {{"Authorization", "Bearer test-key"}},
                                       {{"Authorization", "Bearer " + token + "x"}},
                                       {{"Cookie", "vdl_read=" + token.substr(1)}},
                                       {{"Cookie", "other=" + token}}}) {
      EXPECT_EQ(status(path, headers), 401) << path << " " << headers.begin()->second;
    }
    EXPECT_EQ(status(path, collector_->readHeaders()), 200) << path;
    const auto answer = get(path);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status, 200) << path;
    EXPECT_THAT(answer->body, ::testing::Not(HasSubstr("test-key"))) << path;
  }
  EXPECT_THAT(get("/")->body, HasSubstr("62af8704"));
  EXPECT_EQ(status("/?token=wrong-token-0000000000", {}), 401);

  // A link with the token signs in, and goes on to the same page without it.
  const auto link = client().Get("/sessions/device/7?project=62af8704&token=" + token);
  ASSERT_TRUE(link);
  EXPECT_EQ(link->status, 303);
  EXPECT_EQ(link->get_header_value("Location"), "/sessions/device/7?project=62af8704");
  const std::string cookie = link->get_header_value("Set-Cookie");
  EXPECT_THAT(cookie, ::testing::StartsWith("vdl_read=" + token + ";"));
  EXPECT_THAT(cookie, HasSubstr("HttpOnly"));
  EXPECT_EQ(status(link->get_header_value("Location"), {{"Cookie", cookie.substr(0, cookie.find(';'))}}),
            200);
  // The form does too, and sends a browser nowhere but this server.
  const auto form = client().Post("/signin", "token=" + token + "&next=%2F%2Fevil.example%2F",
                                  "application/x-www-form-urlencoded");
  ASSERT_TRUE(form);
  EXPECT_EQ(form->status, 303);
  EXPECT_EQ(form->get_header_value("Location"), "/");
  EXPECT_EQ(client().Post("/signin", "token=test-key", "application/x-www-form-urlencoded")->status, 401);

  // Open reads are for a demo on this host only.
  EXPECT_EQ(CollectorProcess::start({.arguments = {"--host", "0.0.0.0", "--open-reads"}}), nullptr);
  auto open = CollectorProcess::start({.arguments = {"--open-reads"}});
  ASSERT_NE(open, nullptr);
  EXPECT_EQ(httplib::Client(open->baseUrl()).Get("/sessions")->status, 200);
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
       {"/sessions/device/8", "/sessions/other/7", "/sessions/device/7?project=580843d0"}) {
    const auto missing = get(path);
    ASSERT_TRUE(missing) << path;
    EXPECT_EQ(missing->status, 404) << path;
    EXPECT_THAT(missing->body, HasSubstr("No such session")) << path;
  }
}

TEST_F(CollectorTest, KeepsItsFilesToItsUserAndServesPagesWithProtectiveHeaders) {
  // A block stored makes SQLite create its journal files beside the database. (A PostgreSQL server
  // keeps its files to its own user.)
  expectAnswer(post(trackQuery("device", 9, 0), trackBody({pack(customEvent(1, "a")).literal})), 200,
               kStored);
  for (const char* name : {"sessions.sqlite3", "sessions.sqlite3-wal", "sessions.sqlite3-shm"}) {
    if (testsStoreInPostgres()) break;
    struct stat status {};
    ASSERT_EQ(stat((collector_->folder() / name).c_str(), &status), 0) << name;
    EXPECT_EQ(status.st_mode & 077, 0u) << name << " is open to others: " << std::oct << status.st_mode;
  }

  // Every answer tells browsers not to guess types; pages also allow only scripts from the collector
  // itself (no inline ones) and send no referrer, which would carry a sign-in token in its query.
  const std::string sessionPage = "/sessions/device/9?project=62af8704";
  for (const char* path : {"/", "/signin", sessionPage.c_str(), "/sessions/device/8", "/sessions",
                           "/no-such-path", "/player/rrweb-player.js", "/player/session.js"}) {
    const auto answer = get(path);
    ASSERT_TRUE(answer) << path;
    EXPECT_EQ(answer->get_header_value("X-Content-Type-Options"), "nosniff") << path;
    if (answer->get_header_value("Content-Type").starts_with("text/html")) {
      EXPECT_EQ(answer->get_header_value("Referrer-Policy"), "no-referrer") << path;
      const std::string policy = answer->get_header_value("Content-Security-Policy");
      EXPECT_THAT(policy, HasSubstr("script-src 'self';")) << path;
      EXPECT_THAT(policy, HasSubstr("default-src 'none'")) << path;
      EXPECT_THAT(answer->body, ::testing::Not(HasSubstr("<script>"))) << path;
    }
  }
}

TEST_F(CollectorTest, ServesThePlayerFilesCompressedOnceWithCachingHeaders) {
  struct Case {
    const char* acceptEncoding;
    const char* contentEncoding;
  };
  for (const auto& [accept, encoding] : std::vector<Case>{
           {"gzip, deflate, br", "gzip"}, {"br;q=1, gzip;q=0.5", "gzip"}, {"gzip;q=0, br", ""}, {"", ""}}) {
    for (const char* path : {"/player/rrweb-player.js", "/player/style.css"}) {
      auto http = client();
      http.set_decompress(false);
      const httplib::Headers headers = {{"Accept-Encoding", accept}};
      const auto answer = http.Get(path, headers);
      ASSERT_TRUE(answer) << path;
      EXPECT_EQ(answer->status, 200) << path << " " << accept;
      EXPECT_EQ(answer->get_header_value("Content-Encoding"), encoding) << path << " " << accept;
      EXPECT_EQ(answer->get_header_value_count("Content-Encoding"), *encoding ? 1u : 0u) << path;
      EXPECT_THAT(answer->get_header_value("Cache-Control"), HasSubstr("max-age=")) << path;
      // The body as sent is what was announced, and it unpacks to the file.
      std::string body = answer->body;
      if (*encoding) {
        std::string unpacked(8 << 20, '\0');
        z_stream stream{};
        inflateInit2(&stream, 15 + 16);
        stream.next_in = reinterpret_cast<Bytef*>(body.data());
        stream.avail_in = static_cast<uInt>(body.size());
        stream.next_out = reinterpret_cast<Bytef*>(unpacked.data());
        stream.avail_out = static_cast<uInt>(unpacked.size());
        EXPECT_EQ(inflate(&stream, Z_FINISH), Z_STREAM_END) << path;
        unpacked.resize(stream.total_out);
        inflateEnd(&stream);
        body = unpacked;
      }
      if (std::string_view(path).ends_with(".js")) {
        EXPECT_THAT(body, HasSubstr("rrwebPlayer")) << accept;
      }

      const std::string etag = answer->get_header_value("ETag");
      ASSERT_FALSE(etag.empty()) << path;
      const auto again = http.Get(path, {{"Accept-Encoding", accept}, {"If-None-Match", etag}});
      ASSERT_TRUE(again) << path;
      EXPECT_EQ(again->status, 304) << path << " " << accept;
      EXPECT_EQ(again->body, "") << path;
    }
  }
}

TEST_F(CollectorTest, RefusesIdsAndBlocksThatCannotBeServedBackAsTheyCame) {
  const std::string body = trackBody({pack(customEvent(1, "a")).literal});
  struct Case {
    std::string query;
    std::string body;
    int status;
  };
  for (const auto& [query, caseBody, status] : {
           Case{trackQuery("dev%FFice", 1, 0), body, 400},
           Case{trackQuery("dev%C0%AFice", 1, 0), body, 400},
           Case{trackQuery("dev%00ice", 1, 0), body, 400},
           Case{trackQuery("dev%0Aice", 1, 0), body, 400},
           Case{trackQuery("device", -1, 0), body, 400},
           Case{trackQuery("device", 1, -1), body, 400},
           Case{trackQuery("device", 1, 0), trackBody({}), 400},
           Case{trackQuery("device", 1, 0), body, 200},
           // The same block again, as after a lost answer, and other events under its key.
           Case{trackQuery("device", 1, 0), body, 200},
           Case{trackQuery("device", 1, 0), trackBody({pack(customEvent(2, "b")).literal}), 409},
       }) {
    SCOPED_TRACE(query);
    const auto result = post(query, caseBody);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, status) << result->body;
  }
  const auto sessions = get("/sessions");
  ASSERT_TRUE(sessions);
  // Only the session of "device": no other device id was stored.
  EXPECT_EQ(sessions->body.find(R"("device_id")"), sessions->body.rfind(R"("device_id")"));
  EXPECT_THAT(collector_->sessionEvents("device", 1), ::testing::SizeIs(1));

  // A line break in the path stays in its log line.
  ASSERT_TRUE(get("/x%0AGET%20/forged%20200"));
  EXPECT_THAT(collector_->log(), ::testing::Not(HasSubstr("\nGET /forged")));
}

// `size` zero bytes as a gzip stream: about a thousandth of that on the wire.
std::string gzipOfZeros(std::size_t size) {
  z_stream stream{};
  deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, 15 + 16, 9, Z_DEFAULT_STRATEGY);
  const std::string zeros(1 << 20, '\0');
  std::string out(1 << 16, '\0');
  std::string gzip;
  for (std::size_t left = size; left > 0 || stream.avail_in > 0;) {
    const std::size_t piece = std::min(left, zeros.size());
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(zeros.data()));
    stream.avail_in = static_cast<uInt>(piece);
    left -= piece;
    do {
      stream.next_out = reinterpret_cast<Bytef*>(out.data());
      stream.avail_out = static_cast<uInt>(out.size());
      deflate(&stream, left == 0 ? Z_FINISH : Z_NO_FLUSH);
      gzip.append(out.data(), out.size() - stream.avail_out);
    } while (stream.avail_out == 0);
  }
  deflateEnd(&stream);
  return gzip;
}

// The most memory the process has held, from /proc.
// The collector's resident high-water mark; tests compare it with the one right after start, since a
// sanitizer build starts far larger than a release one.
std::size_t peakResidentBytes(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmHWM:")) return std::stoull(line.substr(6)) * 1024;
  }
  return 0;
}

TEST_F(CollectorTest, RefusesBodiesOverTheLimitHoweverTheyArriveWithoutHoldingThem) {
  constexpr std::size_t kInflated = 100 << 20;
  constexpr std::size_t kLimit = 1 << 20;
  const std::string gzip = gzipOfZeros(kInflated);
  ASSERT_LT(gzip.size(), kLimit);
  const auto collector =
      CollectorProcess::start({.apiKeys = {"test-key"}, .configs = {}, .maxBodyBytes = kLimit});
  ASSERT_NE(collector, nullptr);
  const std::size_t startPeak = peakResidentBytes(collector->pid());
  httplib::Client client(collector->baseUrl());
  client.set_read_timeout(std::chrono::seconds(10));
  const std::string chunk(16 * 1024, ' ');
  struct Case {
    const char* name;
    std::string apiKey;
    bool chunked;
    int status;
  };
  for (const auto& [name, apiKey, chunked, status] : {
           Case{"gzip, no key", "", false, 401},
           Case{"gzip, unknown key", "stolen-key", false, 401},
           Case{"gzip", "test-key", false, 413},
           Case{"chunked", "test-key", true, 413},
       }) {
    SCOPED_TRACE(name);
    httplib::Headers headers;
    if (!apiKey.empty()) headers.emplace("Authorization", "Bearer " + apiKey);
    const std::string path = "/sessions/v2/track?" + trackQuery("device", 1, 0);
    const auto send = [&]() -> httplib::Result {
      if (!chunked) {
        headers.emplace("Content-Encoding", "gzip");
        return client.Post(path, headers, gzip, "application/json");
      }
      // Just over the limit, in pieces, so that what the collector leaves unread fits in the socket
      // buffers and this client, which writes all before it reads, gets to read the answer.
      std::size_t sent = 0;
      return client.Post(
          path, headers,
          [&](std::size_t, httplib::DataSink& sink) {
            if (sent >= kLimit + 4 * chunk.size()) {
              sink.done();
            } else {
              sent += chunk.size();
              sink.write(chunk.data(), chunk.size());
            }
            return true;
          },
          "application/json");
    };
    const auto result = send();
    ASSERT_TRUE(result) << httplib::to_string(result.error());
    EXPECT_EQ(result->status, status);
  }
  EXPECT_LT(peakResidentBytes(collector->pid()) - startPeak, kInflated / 4);
  EXPECT_THAT(collector->sessionEvents("device", 1), ::testing::IsEmpty());
}

TEST(CollectorInflateLimits, RefusesEventsThatInflatePastTheirLimitsWithoutHoldingThem) {
  const auto collector = CollectorProcess::start(
      {.apiKeys = {"test-key"},
       .configs = {},
       .maxBodyBytes = 1 << 20,
       .port = std::nullopt,
       .arguments = {"--max-event-bytes", "1000000", "--max-block-bytes", "1500000"}});
  ASSERT_NE(collector, nullptr);
  const std::size_t startPeak = peakResidentBytes(collector->pid());
  httplib::Client client(collector->baseUrl());
  client.set_read_timeout(std::chrono::seconds(10));
  // An event of about `size` bytes once inflated.
  const auto event = [](std::size_t size) {
    return packText(R"({"timestamp":1,"pad":")" + std::string(size, 'x') + "\"}");
  };
  struct Case {
    std::vector<std::size_t> sizes;
    int status;
    std::string answer;
  };
  std::int64_t sequenceNumber = 0;
  for (const auto& [sizes, status, answer] : {
           Case{{900'000}, 200, kStored},
           Case{{2'000'000}, 413, "event 0 inflates to more than 1000000 bytes\n"},
           Case{{900'000, 900'000}, 413, "the events inflate to more than 1500000 bytes\n"},
           Case{{100'000'000}, 413, "event 0 inflates to more than 1000000 bytes\n"},
       }) {
    std::vector<std::string> literals;
    for (const auto size : sizes) literals.push_back(event(size));
    expectAnswer(client.Post("/sessions/v2/track?" + trackQuery("device", 1, sequenceNumber++),
                             {{"Authorization", "Bearer test-key"}}, trackBody(literals), "application/json"),
                 status, answer);
  }
  EXPECT_LT(peakResidentBytes(collector->pid()) - startPeak, 50'000'000u);
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

// A connection from `source` (in 127.0.0.0/8) that has begun a request whose headers never end; -1 when
// it cannot connect.
int slowConnection(const char* source, int port) {
  const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {}, .sin_zero = {}};
  inet_pton(AF_INET, source, &address.sin_addr);
  const bool bound = bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
  constexpr std::string_view start = "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Slow: ";
  if (!bound || connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      send(socket, start.data(), start.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(start.size())) {
    close(socket);
    return -1;
  }
  return socket;
}

// More connections than the collector has workers, each sending a header byte a second (well within the
// library's read timeout), while a client on another address asks for its configuration. Many from one
// address meet the cap per client; a few from each of several addresses meet the deadline for headers.
TEST(CollectorSlowClients, StillAnswersOthersWhileSlowClientsHoldMoreConnectionsThanItHasWorkers) {
  constexpr int kSlowConnections = 40;
  for (const bool oneAddress : {true, false}) {
    SCOPED_TRACE(oneAddress ? "all from one address" : "from four addresses");
    const auto collector = CollectorProcess::start(
        {.arguments = oneAddress ? std::vector<std::string>{}
                                 : std::vector<std::string>{"--header-deadline-seconds", "2"}});
    ASSERT_NE(collector, nullptr);
    std::vector<int> slow;
    for (int i = 0; i < kSlowConnections; ++i) {
      const std::string source = "127.0.0." + std::to_string(oneAddress ? 2 : 2 + i % 4);
      slow.push_back(slowConnection(source.c_str(), collector->port()));
      ASSERT_NE(slow.back(), -1) << source;
    }

    auto answer = std::async(std::launch::async, [&] {
      httplib::Client client(collector->baseUrl());
      client.set_read_timeout(std::chrono::seconds(15));
      return client.Get("/config?api_key=test-key");
    });
    for (int second = 0; second < 20 && answer.wait_for(std::chrono::seconds(1)) != std::future_status::ready;
         ++second) {
      for (const int socket : slow) send(socket, "x", 1, MSG_NOSIGNAL);
    }
    const auto result = answer.get();
    for (const int socket : slow) close(socket);
    ASSERT_TRUE(result) << httplib::to_string(result.error()) << collector->log();
    EXPECT_EQ(result->status, 200);
  }
}

}  // namespace
}  // namespace verdalune::sessionreplay::testing
