#include "upload/curl_transport.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace verdalune::sessionreplay {
namespace {

using namespace std::chrono_literals;
using platform::HttpCompletion;

// Every wait is bounded by this; none is expected to come near it.
constexpr auto kPatience = 10s;

// A request sent; a second call of its completion would throw on the lane and end the test run.
struct Sent {
  std::shared_ptr<platform::HttpTask> task;
  std::future<HttpCompletion> outcome;

  HttpCompletion await() {
    if (outcome.wait_for(kPatience) == std::future_status::ready) return outcome.get();
    ADD_FAILURE() << "no completion";
    return {};
  }
  int errorCode() {
    const auto completion = await();
    EXPECT_FALSE(completion.response || completion.data);
    return completion.error ? completion.error->code : 0;
  }
};

using Headers = std::vector<std::pair<std::string, std::string>>;

Sent send(CurlTransport& transport, std::string url, std::string method = "GET", std::string body = {},
          Headers headers = {}) {
  auto promise = std::make_shared<std::promise<HttpCompletion>>();
  auto outcome = promise->get_future();
  // "/slow" answers too late for its short timeout, "/trickle" a little at a time for longer than it.
  const std::chrono::milliseconds timeout = url.ends_with("/slow") || url.ends_with("/trickle") ? 400ms : 60s;
  auto task =
      transport.send({std::move(method), std::move(url), std::move(headers), std::move(body), timeout},
                     [promise](HttpCompletion done) { promise->set_value(std::move(done)); });
  return {std::move(task), std::move(outcome)};
}

TEST(UrlLoadingErrorCode, TranslatesEachFamilyOfCurlFailure) {
  // The OS error only qualifies resolving and connecting.
  // clang-format off
  const std::tuple<CURLcode, long, int> cases[] = {
      {CURLE_COULDNT_RESOLVE_HOST, 0, -1003},       {CURLE_COULDNT_RESOLVE_HOST, ENETUNREACH, -1009},
      {CURLE_COULDNT_RESOLVE_PROXY, 0, -1006},      {CURLE_COULDNT_CONNECT, ECONNREFUSED, -1004},
      {CURLE_COULDNT_CONNECT, EHOSTUNREACH, -1004}, {CURLE_COULDNT_CONNECT, ENETUNREACH, -1009},
      {CURLE_COULDNT_CONNECT, ENETDOWN, -1009},     {CURLE_SEND_ERROR, ECONNRESET, -1005},
      {CURLE_RECV_ERROR, ECONNRESET, -1005},        {CURLE_PARTIAL_FILE, 0, -1005},
      {CURLE_GOT_NOTHING, 0, -1011},                {CURLE_WEIRD_SERVER_REPLY, 0, -1011},
      {CURLE_OPERATION_TIMEDOUT, 0, -1001},         {CURLE_OPERATION_TIMEDOUT, ENETUNREACH, -1001},
      {CURLE_ABORTED_BY_CALLBACK, 0, -999},         {CURLE_PEER_FAILED_VERIFICATION, 0, -1202},
      {CURLE_SSL_CACERT_BADFILE, 0, -1202},         {CURLE_SSL_CONNECT_ERROR, 0, -1200},
      {CURLE_URL_MALFORMAT, 0, -1000},              {CURLE_UNSUPPORTED_PROTOCOL, 0, -1002},
      {CURLE_TOO_MANY_REDIRECTS, 0, -1007},         {CURLE_OUT_OF_MEMORY, 0, -1}};
  // clang-format on
  for (const auto& [code, osErrno, expected] : cases) {
    EXPECT_EQ(urlLoadingErrorCode(code, osErrno), expected)
        << curl_easy_strerror(code) << ", errno " << osErrno;
  }
}

// A request as the server received it.
struct Arrival {
  std::string method, path, body, authorization;
  bool operator==(const Arrival&) const = default;
};

// A real HTTP server on 127.0.0.1 in front of one transport. "/status/N" answers with status N, "/held"
// and "/slow" only once the test opens the gate, "/trickle" one byte every 150 ms for 1.5 s,
// "/redirect/N?to=URL" with status N to URL (to itself when no URL is given), any other path at once
// with an empty 200.
class CurlTransportTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto answer = [this](const httplib::Request& request, httplib::Response& response) {
      std::unique_lock lock(mutex_);
      arrivals_.push_back(
          {request.method, request.path, request.body, request.get_header_value("Authorization")});
      maxInFlight_ = std::max(maxInFlight_, ++inFlight_);
      changed_.notify_all();
      if (request.path == "/held" || request.path == "/slow") {
        changed_.wait_for(lock, kPatience, [&] { return open_; });
      }
      --inFlight_;
      if (request.path == "/trickle") {
        response.set_chunked_content_provider("text/plain", [](std::size_t sent, httplib::DataSink& sink) {
          std::this_thread::sleep_for(150ms);
          sink.write("x", 1);
          if (sent + 1 == 10) sink.done();
          return true;
        });
      } else if (request.path.starts_with("/redirect/")) {
        response.status = std::stoi(request.path.substr(10));
        response.set_header("Location",
                            request.has_param("to") ? request.get_param_value("to") : request.target);
      } else if (request.path.starts_with("/status/")) {
        response.status = std::stoi(request.path.substr(8));
        if (response.status != 204) response.set_content("status body", "text/plain");
      }
    };
    server_.Get(".*", answer).Post(".*", answer);
    port_ = server_.bind_to_any_port("127.0.0.1");
    ASSERT_GT(port_, 0);
    listener_ = std::thread([this] { server_.listen_after_bind(); });
    // stop() only stops a server that is already running.
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!server_.is_running() && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    auto transport = CurlTransport::create();
    ASSERT_TRUE(transport.has_value()) << transport.error().description;
    transport_ = std::move(*transport);
  }

  void TearDown() override {
    transport_.reset();
    openGate();
    server_.stop();
    listener_.join();
  }

  std::string url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }
  void openGate() {
    std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  void awaitArrival() {
    std::unique_lock lock(mutex_);
    ASSERT_TRUE(changed_.wait_for(lock, kPatience, [&] { return !arrivals_.empty(); }));
  }
  std::vector<Arrival> arrivals() {
    std::lock_guard lock(mutex_);
    return std::exchange(arrivals_, {});
  }
  std::vector<std::string> paths() {
    std::vector<std::string> paths;
    for (const auto& arrival : arrivals()) paths.push_back(arrival.path);
    return paths;
  }

  httplib::Server server_;
  std::thread listener_;
  int port_ = 0;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Arrival> arrivals_;  // guarded by mutex_, as is everything below
  int inFlight_ = 0;
  int maxInFlight_ = 0;
  bool open_ = false;
  std::unique_ptr<CurlTransport> transport_;
};

TEST_F(CurlTransportTest, HandsBackStatusAndBody) {
  for (const auto& [status, body] :
       {std::pair{200, "status body"}, {204, ""}, {302, "status body"}, {500, "status body"}}) {
    const auto completion = send(*transport_, url("/status/" + std::to_string(status))).await();
    ASSERT_TRUE(completion.response) << status;
    EXPECT_EQ(completion.response->statusCode, status);
    EXPECT_TRUE(completion.response->isHttp);
    EXPECT_EQ(completion.data, *body ? std::optional<std::string>(body) : std::nullopt) << status;
    EXPECT_FALSE(completion.error) << status;
  }
}

TEST_F(CurlTransportTest, RunsRequestsOneAtATimeInTheOrderSent) {
  // The first request is held at the server until all are queued, so a lane running two at once would
  // show in the server's count.
  std::vector<Sent> sent;
  sent.push_back(send(*transport_, url("/held")));
  awaitArrival();
  for (int i = 0; i < 4; ++i) sent.push_back(send(*transport_, url("/echo/" + std::to_string(i))));
  openGate();
  for (auto& request : sent) EXPECT_TRUE(request.await().response);

  EXPECT_EQ(paths(), (std::vector<std::string>{"/held", "/echo/0", "/echo/1", "/echo/2", "/echo/3"}));
  std::lock_guard lock(mutex_);
  EXPECT_EQ(maxInFlight_, 1);
}

TEST_F(CurlTransportTest, TheTimeoutLimitsSilenceNotTheWholeTransfer) {
  const auto trickled = send(*transport_, url("/trickle")).await();
  EXPECT_FALSE(trickled.error) << trickled.error->description;
  EXPECT_EQ(trickled.data, std::string(10, 'x'));
  EXPECT_EQ(send(*transport_, url("/slow")).errorCode(), -1001);
}

TEST_F(CurlTransportTest, FailuresThatNeverReachAnAnswerHaveTheirOwnCodes) {
  EXPECT_EQ(send(*transport_, "http://").errorCode(), -1000);
  EXPECT_EQ(send(*transport_, url("/echo").replace(0, 4, "ftp")).errorCode(), -1002);
  // TLS spoken to a server that only speaks plain HTTP: the handshake fails.
  EXPECT_EQ(send(*transport_, url("/echo").replace(0, 4, "https")).errorCode(), -1200);
}

TEST_F(CurlTransportTest, CancelCompletesQueuedRequestsUnsentAndAbortsTheOneInFlight) {
  auto held = send(*transport_, url("/held"));
  awaitArrival();
  auto queued = send(*transport_, url("/echo"), "POST", "never sent");
  queued.task->cancel();
  // Completed although the request ahead of it is still held at the server.
  EXPECT_EQ(queued.errorCode(), -999);
  held.task->cancel();
  EXPECT_EQ(held.errorCode(), -999);

  // Cancelling again, or after completion, completes nothing twice (the promise would throw).
  auto done = send(*transport_, url("/status/200"));
  EXPECT_TRUE(done.await().response);
  held.task->cancel();
  done.task->cancel();
  EXPECT_TRUE(send(*transport_, url("/status/204")).await().response);
  EXPECT_EQ(paths(), (std::vector<std::string>{"/held", "/status/200", "/status/204"}));
}

TEST_F(CurlTransportTest, DestructionCompletesEveryPendingRequestOnce) {
  std::vector<Sent> sent;
  sent.push_back(send(*transport_, url("/held")));
  awaitArrival();
  sent.push_back(send(*transport_, url("/echo")));
  sent.push_back(send(*transport_, url("/echo")));
  transport_.reset();
  for (auto& request : sent) {
    ASSERT_EQ(request.outcome.wait_for(0s), std::future_status::ready);
    EXPECT_EQ(request.errorCode(), -999);
  }
}

// A socket on 127.0.0.1 bound to a free port; listening if asked, refusing connections otherwise.
struct LoopbackSocket {
  explicit LoopbackSocket(bool listening) {
    sockaddr_in address{
        .sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
    socklen_t length = sizeof address;
    EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), length), 0);
    EXPECT_EQ(::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
    if (listening) {
      EXPECT_EQ(::listen(fd, 1), 0);
    }
    url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/track";
  }
  ~LoopbackSocket() { ::close(fd); }

  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::string url;
};

// Takes one connection, reads one request and answers it with raw bytes, then closes the connection
// or resets it. Returns the request as it arrived, byte for byte.
std::future<std::string> serveOnce(const LoopbackSocket& socket, std::string answer, bool reset) {
  return std::async(std::launch::async, [fd = socket.fd, answer = std::move(answer), reset] {
    pollfd waiting{.fd = fd, .events = POLLIN, .revents = 0};
    if (::poll(&waiting, 1, std::chrono::milliseconds(kPatience).count()) != 1) return std::string();
    const int connection = ::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
    const timeval patience{.tv_sec = std::chrono::seconds(kPatience).count(), .tv_usec = 0};
    ::setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    std::string request;
    std::size_t expected = std::string::npos;
    char chunk[64 * 1024];
    for (long received = 1; received > 0 && request.size() < expected;) {
      received = ::recv(connection, chunk, sizeof chunk, 0);
      if (received > 0) request.append(chunk, received);
      const auto headEnd = request.find("\r\n\r\n");
      const auto lengthAt = request.find("Content-Length: ");
      if (headEnd == std::string::npos) continue;
      expected = headEnd + 4 + (lengthAt < headEnd ? std::stoul(request.substr(lengthAt + 16)) : 0);
    }
    (void)!::send(connection, answer.data(), answer.size(), MSG_NOSIGNAL);
    const linger abortive{.l_onoff = 1, .l_linger = 0};
    if (reset) ::setsockopt(connection, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
    ::close(connection);
    return request;
  });
}

TEST_F(CurlTransportTest, SendsMethodBodyAndHeadersAsGivenInOrderWithNothingAddedOrDropped) {
  const Headers headers = {{"X-Client-Platform", "ios"},
                           {"Content-Type", "application/json"},
                           {"X-Client-Bundle-Id", ""},
                           {"Accept", "*/*"}};
  // The POST body is large enough for libcurl to ask "Expect: 100-continue" unless told not to.
  for (const auto& [method, body] : {std::pair<std::string, std::string>{"POST", std::string(2 << 20, 'x')},
                                     {"PUT", "put body"},
                                     {"DELETE", ""},
                                     {"GET", ""}}) {
    LoopbackSocket socket(true);
    auto wire = serveOnce(socket, "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok", false);
    EXPECT_EQ(send(*transport_, socket.url, method, body, headers).await().data, "ok") << method;

    ASSERT_EQ(wire.wait_for(kPatience), std::future_status::ready);
    const auto request = wire.get();
    const auto head = request.substr(0, request.find("\r\n\r\n") + 2);
    EXPECT_TRUE(head.starts_with(method + " /track HTTP/1.1\r\n")) << head;
    std::size_t previous = 0;
    for (const auto& [name, value] : headers) {
      const auto at = head.find("\r\n" + name + ":" + (value.empty() ? "" : " " + value) + "\r\n");
      ASSERT_NE(at, std::string::npos) << name << " missing from\n" << head;
      EXPECT_GT(at, previous) << name << " out of order in\n" << head;
      previous = at;
      EXPECT_EQ(at, head.rfind("\r\n" + name + ":")) << name << " sent twice in\n" << head;
    }
    EXPECT_EQ(head.find("Expect:"), std::string::npos) << head;
    EXPECT_EQ(request.substr(head.size() + 2), body) << method;
  }
}

TEST_F(CurlTransportTest, BrokenConnectionsAreLostAndRefusedOnesCannotConnect) {
  const std::tuple<const char*, std::string, bool, int> cases[] = {
      {"closed without an answer", "", false, -1011},
      {"reset after the request", "", true, -1005},
      {"closed mid-body", "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\npartial", false, -1005},
  };
  for (const auto& [name, answer, reset, expected] : cases) {
    LoopbackSocket socket(true);
    auto served = serveOnce(socket, answer, reset);
    EXPECT_EQ(send(*transport_, socket.url).errorCode(), expected) << name;
  }
  // Bound but not listening: the kernel refuses, and no other process can take the port meanwhile.
  LoopbackSocket refusing(false);
  const auto refused = send(*transport_, refusing.url).await();
  ASSERT_TRUE(refused.error);
  EXPECT_EQ(refused.error->code, -1004);
  EXPECT_NE(refused.error->description, "");
}

TEST_F(CurlTransportTest, FollowsRedirectsKeepingTheBlockUnlessToldToSeeOther) {
  const Headers authorized = {{"Authorization", "Bearer key"}};
  for (const auto& [status, expected] : {std::pair{301, Arrival{"POST", "/echo", "block", "Bearer key"}},
                                         {302, {"POST", "/echo", "block", "Bearer key"}},
                                         {303, {"GET", "/echo", "", "Bearer key"}},
                                         {307, {"POST", "/echo", "block", "Bearer key"}},
                                         {308, {"POST", "/echo", "block", "Bearer key"}}}) {
    const auto path = "/redirect/" + std::to_string(status);
    const auto completion = send(*transport_, url(path + "?to=/echo"), "POST", "block", authorized).await();
    ASSERT_TRUE(completion.response) << status;
    EXPECT_EQ(completion.response->statusCode, 200) << status;
    EXPECT_EQ(arrivals(), (std::vector<Arrival>{{"POST", path, "block", "Bearer key"}, expected})) << status;
  }

  // A loop ends after ten redirects; a scheme other than HTTP(S) is not followed.
  EXPECT_EQ(send(*transport_, url("/redirect/302")).errorCode(), -1007);
  EXPECT_EQ(arrivals().size(), 11u);
  EXPECT_EQ(send(*transport_, url("/redirect/308?to=ftp://127.0.0.1/x")).errorCode(), -1002);

  // The api key stays with the host it was meant for.
  LoopbackSocket elsewhere(true);
  auto wire = serveOnce(elsewhere, "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n", false);
  const Headers headers = {{"Authorization", "Bearer key"}, {"X-Client-Platform", "ios"}};
  EXPECT_TRUE(
      send(*transport_, url("/redirect/308?to=" + elsewhere.url), "POST", "block", headers).await().response);
  ASSERT_EQ(wire.wait_for(kPatience), std::future_status::ready);
  const auto request = wire.get();
  EXPECT_TRUE(request.starts_with("POST /track HTTP/1.1\r\n")) << request;
  EXPECT_NE(request.find("\r\nX-Client-Platform: ios\r\n"), std::string::npos) << request;
  EXPECT_EQ(request.find("Authorization"), std::string::npos) << request;
  EXPECT_TRUE(request.ends_with("\r\n\r\nblock")) << request;
}

}  // namespace
}  // namespace verdalune::sessionreplay
