#include "upload/curl_transport.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace verdalune::sessionreplay {

using platform::HttpCompletion;
using platform::HttpRequest;
using platform::HttpResponse;
using platform::TransportError;

namespace {

// The URL-loading codes this transport reports.
constexpr int kUnknown = -1;
constexpr int kCancelled = -999;
constexpr int kBadURL = -1000;
constexpr int kTimedOut = -1001;
constexpr int kUnsupportedURL = -1002;
constexpr int kCannotFindHost = -1003;
constexpr int kCannotConnectToHost = -1004;
constexpr int kNetworkConnectionLost = -1005;
constexpr int kDNSLookupFailed = -1006;
constexpr int kHTTPTooManyRedirects = -1007;
constexpr int kNotConnectedToInternet = -1009;
constexpr int kBadServerResponse = -1011;
constexpr int kCannotDecodeContentData = -1016;
constexpr int kSecureConnectionFailed = -1200;
constexpr int kServerCertificateUntrusted = -1202;
constexpr int kClientCertificateRequired = -1206;

// How long an idle lane sleeps between looks at its queue; send, cancel and destruction wake it
// sooner, and a transfer's idle limit when it comes first, so this only bounds a wait nobody asked to
// cut short.
constexpr int kIdleWaitMilliseconds = 60'000;

// Redirects followed for one request before it fails with "too many redirects".
constexpr long kMaxRedirects = 10;

bool isNetworkUnreachable(long osErrno) {
  return osErrno == ENETUNREACH || osErrno == ENETDOWN;
}

TransportError transportError(CURLcode code, long osErrno, std::string_view detail) {
  return {urlLoadingErrorCode(code, osErrno),
          std::string(detail.empty() ? curl_easy_strerror(code) : detail)};
}

HttpCompletion failed(CURLcode code, long osErrno = 0, std::string_view detail = {}) {
  return {.data = std::nullopt, .response = std::nullopt, .error = transportError(code, osErrno, detail)};
}

bool sameHeaderName(std::string_view a, std::string_view b) {
  return std::ranges::equal(a, b, [](char x, char y) {
    auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    return lower(x) == lower(y);
  });
}

}  // namespace

int urlLoadingErrorCode(CURLcode code, long osErrno) {
  switch (code) {
    case CURLE_COULDNT_RESOLVE_HOST:
      return isNetworkUnreachable(osErrno) ? kNotConnectedToInternet : kCannotFindHost;
    case CURLE_COULDNT_CONNECT:
      return isNetworkUnreachable(osErrno) ? kNotConnectedToInternet : kCannotConnectToHost;
    case CURLE_COULDNT_RESOLVE_PROXY:
      return kDNSLookupFailed;
    // The proxy would not tunnel us through, so the host was never reached.
    case CURLE_PROXY:
      return kCannotConnectToHost;

    // The connection broke while the exchange was under way: reset, closed before the promised body
    // was complete, or an HTTP/2 stream torn down by the peer.
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2_STREAM:
      return kNetworkConnectionLost;
    // A server that accepts the request and closes without a byte of answer is a bad server, not a
    // lost network: the connection was made and the request delivered, so the path works. Calling it
    // "connection lost" would park the upload lane until the path monitor reports a change, and with
    // the network up no change ever comes.
    case CURLE_GOT_NOTHING:
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_HTTP2:
    case CURLE_HTTP3:
      return kBadServerResponse;
    case CURLE_BAD_CONTENT_ENCODING:
      return kCannotDecodeContentData;

    case CURLE_OPERATION_TIMEDOUT:
      return kTimedOut;
    case CURLE_ABORTED_BY_CALLBACK:
      return kCancelled;

    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
      return kServerCertificateUntrusted;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CIPHER:
    case CURLE_USE_SSL_FAILED:
    case CURLE_SSL_SHUTDOWN_FAILED:
      return kSecureConnectionFailed;
    case CURLE_SSL_CLIENTCERT:
      return kClientCertificateRequired;

    case CURLE_URL_MALFORMAT:
      return kBadURL;
    // Mostly a scheme other than http and https. libcurl says the same of an answer that is not HTTP
    // at all (it would be HTTP/0.9, which it refuses); either way the failure is final.
    case CURLE_UNSUPPORTED_PROTOCOL:
      return kUnsupportedURL;
    case CURLE_TOO_MANY_REDIRECTS:
      return kHTTPTooManyRedirects;

    default:
      return kUnknown;
  }
}

// One request. The lane thread owns everything but `cancelled_`, which any thread may set.
class CurlTransport::Task final : public platform::HttpTask {
 public:
  Task(HttpRequest request, std::function<void(HttpCompletion)> completion, std::weak_ptr<Lane> lane)
      : request(std::move(request)), completion_(std::move(completion)), lane_(std::move(lane)) {}

  ~Task() override { release(); }

  void cancel() override;

  void markCancelled() { cancelled_.store(true); }
  [[nodiscard]] bool cancelled() const { return cancelled_.load(); }

  // Calls the completion; the lane makes sure this happens once per task.
  void complete(HttpCompletion completion) {
    release();
    std::exchange(completion_, nullptr)(std::move(completion));
  }

  // Makes the libcurl handle for this request, or says why it could not.
  [[nodiscard]] std::optional<HttpCompletion> prepare();

  // The outcome of the finished transfer.
  [[nodiscard]] HttpCompletion outcome(CURLcode result);

  // How long the lane may wait before this transfer's idle limit runs out; at least 1 ms.
  [[nodiscard]] int millisecondsToIdleLimit() const;

  const HttpRequest request;
  CURL* easy = nullptr;

 private:
  using Clock = std::chrono::steady_clock;

  static size_t collect(char* bytes, size_t size, size_t count, void* task);
  static int progress(void* task, curl_off_t, curl_off_t, curl_off_t, curl_off_t);

  void release() {
    if (easy) curl_easy_cleanup(std::exchange(easy, nullptr));
    if (headers_) curl_slist_free_all(std::exchange(headers_, nullptr));
  }

  std::function<void(HttpCompletion)> completion_;
  std::weak_ptr<Lane> lane_;
  std::atomic<bool> cancelled_{false};
  curl_slist* headers_ = nullptr;
  std::string received_;
  char errorText_[CURL_ERROR_SIZE] = {};
  // The idle limit, seen to by the progress callback on the lane thread: the byte counts last seen,
  // when they last moved, and whether the limit ended the transfer.
  curl_off_t lastReceived_ = 0;
  curl_off_t lastSent_ = 0;
  Clock::time_point lastActivity_;
  bool idledOut_ = false;
};

struct CurlTransport::Lane {
  explicit Lane(CURLM* multi) : multi(multi) {}
  ~Lane() { curl_multi_cleanup(multi); }
  Lane(const Lane&) = delete;
  Lane& operator=(const Lane&) = delete;

  // Cuts short the lane's wait; safe from any thread, and never lost: a wake-up that comes before the
  // lane waits ends its next wait at once.
  void wake() { curl_multi_wakeup(multi); }

  void run();

  // Hands the request to libcurl; the outcome instead when it cannot go out.
  [[nodiscard]] std::optional<HttpCompletion> begin(Task& task);
  // Runs libcurl on the transfer in flight; the outcome once it has finished.
  [[nodiscard]] std::optional<HttpCompletion> advance(Task& task);

  CURLM* const multi;
  std::mutex mutex;
  std::deque<std::shared_ptr<Task>> queue;  // guarded by mutex
  bool stopping = false;                    // guarded by mutex
};

void CurlTransport::Task::cancel() {
  markCancelled();
  // An in-flight transfer notices in its progress callback, which the woken lane runs at once.
  if (auto lane = lane_.lock()) lane->wake();
}

size_t CurlTransport::Task::collect(char* bytes, size_t size, size_t count, void* task) {
  static_cast<Task*>(task)->received_.append(bytes, size * count);
  return size * count;
}

int CurlTransport::Task::progress(void* opaque, curl_off_t, curl_off_t received, curl_off_t,
                                  curl_off_t sent) {
  auto& task = *static_cast<Task*>(opaque);
  if (task.cancelled()) return 1;
  const auto now = Clock::now();
  if (received != task.lastReceived_ || sent != task.lastSent_) {
    task.lastReceived_ = received;
    task.lastSent_ = sent;
    task.lastActivity_ = now;
  } else if (task.request.timeout.count() > 0 && now - task.lastActivity_ >= task.request.timeout) {
    task.idledOut_ = true;
    return 1;
  }
  return 0;
}

int CurlTransport::Task::millisecondsToIdleLimit() const {
  if (request.timeout.count() <= 0) return kIdleWaitMilliseconds;
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(lastActivity_ + request.timeout - Clock::now()).count();
  return static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(left, 1, kIdleWaitMilliseconds));
}

std::optional<HttpCompletion> CurlTransport::Task::prepare() {
  easy = curl_easy_init();
  if (!easy) return failed(CURLE_FAILED_INIT);

  bool hasAccept = false;
  bool hasContentType = false;
  bool hasExpect = false;
  for (const auto& [name, value] : request.headers) {
    hasAccept = hasAccept || sameHeaderName(name, "Accept");
    hasContentType = hasContentType || sameHeaderName(name, "Content-Type");
    hasExpect = hasExpect || sameHeaderName(name, "Expect");
    // libcurl reads "Name:" as "remove this header" and "Name;" as "send it empty".
    const std::string line = value.empty() ? name + ";" : name + ": " + value;
    curl_slist* appended = curl_slist_append(headers_, line.c_str());
    if (!appended) return failed(CURLE_OUT_OF_MEMORY);
    headers_ = appended;
  }
  // An empty "Name:" removes what libcurl would otherwise add on its own.
  for (auto [given, removal] : {std::pair{hasAccept, "Accept:"}, std::pair{hasContentType, "Content-Type:"},
                                std::pair{hasExpect, "Expect:"}}) {
    if (given) continue;
    curl_slist* appended = curl_slist_append(headers_, removal);
    if (!appended) return failed(CURLE_OUT_OF_MEMORY);
    headers_ = appended;
  }

  CURLcode code = CURLE_OK;
  auto set = [&](CURLoption option, auto value) {
    if (code == CURLE_OK) code = curl_easy_setopt(easy, option, value);
  };
  set(CURLOPT_URL, request.url.c_str());
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  set(CURLOPT_FOLLOWLOCATION, 1L);
  set(CURLOPT_MAXREDIRS, kMaxRedirects);
  set(CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  // A POST stays a POST, body and all, through 301 and 302 as it does through 307 and 308; only 303
  // turns it into a GET.
  set(CURLOPT_POSTREDIR, static_cast<long>(CURL_REDIR_POST_301 | CURL_REDIR_POST_302));
  // Never hand the credentials to a host, port or scheme other than the one the request named.
  set(CURLOPT_UNRESTRICTED_AUTH, 0L);
  set(CURLOPT_SSL_VERIFYPEER, 1L);
  set(CURLOPT_SSL_VERIFYHOST, 2L);
  // Threads and signals do not mix; libcurl's resolver times out without SIGALRM when told so.
  set(CURLOPT_NOSIGNAL, 1L);
  // The timeout bounds the connection (name lookup and TLS included) and then every silence of the
  // exchange (the progress callback watches those), never the whole transfer: a large block on a slow
  // but working link must get through.
  set(CURLOPT_CONNECTTIMEOUT_MS,
      static_cast<long>(std::max<std::chrono::milliseconds::rep>(request.timeout.count(), 0)));
  set(CURLOPT_HTTPHEADER, headers_);
  set(CURLOPT_ERRORBUFFER, errorText_);
  set(CURLOPT_WRITEFUNCTION, &Task::collect);
  set(CURLOPT_WRITEDATA, static_cast<void*>(this));
  set(CURLOPT_NOPROGRESS, 0L);
  set(CURLOPT_XFERINFOFUNCTION, &Task::progress);
  set(CURLOPT_XFERINFODATA, static_cast<void*>(this));
  if (request.method == "HEAD") {
    set(CURLOPT_NOBODY, 1L);
  } else if (request.method == "GET" && request.body.empty()) {
    set(CURLOPT_HTTPGET, 1L);
  } else {
    // The size goes first: without it libcurl would take the body for a C string.
    set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
    set(CURLOPT_POSTFIELDS, request.body.data());
    if (request.method != "POST") set(CURLOPT_CUSTOMREQUEST, request.method.c_str());
  }
  if (code != CURLE_OK) return failed(code);
  lastActivity_ = Clock::now();
  return std::nullopt;
}

HttpCompletion CurlTransport::Task::outcome(CURLcode result) {
  if (idledOut_) {
    const auto limit = std::to_string(request.timeout.count());
    return failed(CURLE_OPERATION_TIMEDOUT, 0, "No data sent or received for " + limit + " milliseconds");
  }
  if (result != CURLE_OK) {
    long osErrno = 0;
    curl_easy_getinfo(easy, CURLINFO_OS_ERRNO, &osErrno);
    return failed(result, osErrno, errorText_);
  }
  long status = 0;
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
  HttpCompletion completion{.data = std::nullopt,
                            .response = HttpResponse{.statusCode = static_cast<int>(status), .isHttp = true},
                            .error = std::nullopt};
  if (!received_.empty()) completion.data = std::move(received_);
  return completion;
}

std::optional<HttpCompletion> CurlTransport::Lane::begin(Task& task) {
  if (auto unprepared = task.prepare()) return unprepared;
  if (const CURLMcode code = curl_multi_add_handle(multi, task.easy); code != CURLM_OK) {
    return failed(CURLE_FAILED_INIT, 0, curl_multi_strerror(code));
  }
  return std::nullopt;
}

std::optional<HttpCompletion> CurlTransport::Lane::advance(Task& task) {
  int running = 0;
  if (const CURLMcode code = curl_multi_perform(multi, &running); code != CURLM_OK) {
    curl_multi_remove_handle(multi, task.easy);
    return failed(CURLE_FAILED_INIT, 0, curl_multi_strerror(code));
  }
  int queued = 0;
  while (const CURLMsg* message = curl_multi_info_read(multi, &queued)) {
    if (message->msg != CURLMSG_DONE || message->easy_handle != task.easy) continue;
    const CURLcode result = message->data.result;
    curl_multi_remove_handle(multi, task.easy);
    return task.outcome(result);
  }
  return std::nullopt;
}

void CurlTransport::Lane::run() {
  std::shared_ptr<Task> current;  // the request in flight, if any
  for (;;) {
    std::vector<std::shared_ptr<Task>> dropped;
    bool stop = false;
    {
      std::lock_guard lock(mutex);
      stop = stopping;
      const auto kept = std::stable_partition(queue.begin(), queue.end(),
                                              [&](const auto& task) { return !stop && !task->cancelled(); });
      dropped.assign(std::make_move_iterator(kept), std::make_move_iterator(queue.end()));
      queue.erase(kept, queue.end());
      if (!current && !queue.empty()) {
        current = std::move(queue.front());
        queue.pop_front();
      }
    }
    // Completions run outside the lock so that they may send and cancel.
    for (auto& task : dropped) task->complete(failed(CURLE_ABORTED_BY_CALLBACK));
    if (current && !current->easy) {
      if (auto refused = begin(*current)) {
        std::exchange(current, nullptr)->complete(std::move(*refused));
        continue;
      }
    }
    if (!current) {
      if (stop) return;
      curl_multi_poll(multi, nullptr, 0, kIdleWaitMilliseconds, nullptr);
      continue;
    }
    if (stop) current->markCancelled();
    if (auto done = advance(*current)) {
      std::exchange(current, nullptr)->complete(std::move(*done));
      continue;
    }
    curl_multi_poll(multi, nullptr, 0, current->millisecondsToIdleLimit(), nullptr);
  }
}

CurlTransport::CurlTransport(std::shared_ptr<Lane> lane)
    : lane_(std::move(lane)), thread_([lane = lane_] { lane->run(); }) {}

CurlTransport::~CurlTransport() {
  {
    std::lock_guard lock(lane_->mutex);
    lane_->stopping = true;
  }
  lane_->wake();
  // Destroyed from one of its own completions: the lane holds its own reference and winds down after
  // that completion returns.
  if (thread_.get_id() == std::this_thread::get_id()) {
    thread_.detach();
  } else {
    thread_.join();
  }
}

std::expected<std::unique_ptr<CurlTransport>, TransportError> CurlTransport::create() {
  // Once per process, never undone: other threads may still be using libcurl when this one ends.
  static const CURLcode initialised = curl_global_init(CURL_GLOBAL_DEFAULT);
  if (initialised != CURLE_OK) return std::unexpected(transportError(initialised, 0, {}));
  CURLM* multi = curl_multi_init();
  if (!multi) return std::unexpected(transportError(CURLE_OUT_OF_MEMORY, 0, {}));
  return std::unique_ptr<CurlTransport>(new CurlTransport(std::make_shared<Lane>(multi)));
}

std::shared_ptr<platform::HttpTask> CurlTransport::send(HttpRequest request,
                                                        std::function<void(HttpCompletion)> completion) {
  auto task = std::make_shared<Task>(std::move(request), std::move(completion), lane_);
  {
    std::lock_guard lock(lane_->mutex);
    lane_->queue.push_back(task);
  }
  lane_->wake();
  return task;
}

}  // namespace verdalune::sessionreplay
