#pragma once

#include <curl/curl.h>

#include <expected>
#include <functional>
#include <memory>
#include <thread>

#include "verdalune/platform/network.h"

namespace verdalune::sessionreplay {

// The URL-loading error code for a failed libcurl transfer: -1009 not connected, -1005 connection
// lost, -1006 DNS lookup failed, -1003 cannot find host, -1004 cannot connect, -1001 timed out,
// -999 cancelled, -1202 certificate untrusted, -1200 secure connection failed, -1011 bad server
// response, -1000 bad URL, -1002 unsupported URL, -1007 too many redirects, -1 for anything else.
// `osErrno` is the transfer's CURLINFO_OS_ERRNO; it only tells "not connected" apart from the
// resolve and connect failures. This is the one place libcurl's codes are translated.
[[nodiscard]] int urlLoadingErrorCode(CURLcode code, long osErrno);

// The HTTP transport on libcurl: one lane, that is one worker thread that runs the requests one at
// a time in the order they were sent, over HTTP or HTTPS with the peer's certificate and host name
// verified.
//
// A request goes out with its method, body and headers exactly as given, in that order; libcurl's
// own "Expect: 100-continue" and default Accept and Content-Type are not added, and a header with an
// empty value is sent empty rather than dropped.
//
// The request's timeout is an idle limit, not a deadline: it bounds the connection (name lookup and
// TLS handshake included) and then every stretch of the exchange in which no byte goes out or comes
// in. A transfer that keeps moving may take as long as it needs, so a large block gets through a slow
// link; one that stalls for the timeout fails with -1001.
//
// Redirects are followed, up to 10 for one request (then -1007), to http and https URLs only (else
// -1002). 307 and 308 repeat the request as it was. 301 and 302 do too, although browsers turn a POST
// into a GET there: a block that arrived at a moved endpoint without its body would be refused, and
// then dropped by its sender. 303 says the request was handled and the answer is elsewhere, so it is
// fetched with a GET without the body. Headers go along to every hop, except that "Authorization" is
// sent only while the host, port and scheme stay those of the request. A 3xx that cannot be followed
// (no Location) comes back as it is.
//
// Each completion is called exactly once, on the lane thread, with either the HTTP status and the
// body (absent when the response had none) or a TransportError whose description is libcurl's
// text. Completions must not throw; they may call send() and cancel() but must not destroy the
// transport unless it is the last thing they do (the lane then winds down on its own).
//
// Thread-safe: send() and the tasks' cancel() may be called from any thread. Destroying the
// transport cancels every request still queued or in flight, each completing with -999 on the lane,
// and waits for the lane to finish.
class CurlTransport final : public platform::HttpTransport {
 public:
  // Fails only when libcurl cannot be initialised, with the error as a transport would report it.
  [[nodiscard]] static std::expected<std::unique_ptr<CurlTransport>, platform::TransportError> create();

  ~CurlTransport() override;
  CurlTransport(const CurlTransport&) = delete;
  CurlTransport& operator=(const CurlTransport&) = delete;

  // Queues the request behind those sent before it. Cancelling the task completes a queued request
  // with -999 without sending it and aborts one in flight with -999; once the request has completed,
  // cancelling does nothing.
  std::shared_ptr<platform::HttpTask> send(platform::HttpRequest request,
                                           std::function<void(platform::HttpCompletion)> completion) override;

 private:
  struct Lane;
  class Task;

  explicit CurlTransport(std::shared_ptr<Lane> lane);

  std::shared_ptr<Lane> lane_;
  std::thread thread_;  // runs lane_->run(); shares the lane so it may outlive the transport
};

}  // namespace verdalune::sessionreplay
