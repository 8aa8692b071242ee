#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <expected>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <variant>
#include <vector>

#include "upload/http_error.h"
#include "upload/request_headers.h"
#include "verdalune/logger.h"
#include "verdalune/platform/network.h"
#include "verdalune/support/queue.h"

namespace verdalune::sessionreplay {

// Why a block was not delivered: the HTTP outcome, or the block's events could not be read.
using UploadFailure = std::variant<HttpError, platform::TransportError, std::error_code>;
[[nodiscard]] std::string describe(const UploadFailure& failure);

// Reads a block's packed events when its upload starts.
using EventFetcher = std::function<std::expected<std::vector<std::string>, std::error_code>()>;
// Told once how a block's upload ended: nothing for success, or why it failed.
using ResponseHandler = std::function<void(std::optional<UploadFailure>)>;

// What the storage coordinator needs of an uploader: one block at a time, each answered exactly once.
class BlockUploader {
 public:
  virtual ~BlockUploader() = default;
  virtual void upload(std::string deviceId, std::int64_t sessionId, std::int64_t sequenceNumber,
                      EventFetcher eventFetcher, ResponseHandler responseHandler) = 0;
  // `restored` runs (on the uploader's queue) each time the network comes back after being gone.
  virtual void onConnectivityRestored(std::function<void()> restored) = 0;
};

// An operation whose end is signalled by its own work rather than by returning, with its state
// guarded by a lock and every change announced to an observer: first the coming change of the new
// state's key, then of the old one's; then, once stored, the completed change of the old key, then of
// the new one's.
class AsyncOperation {
 public:
  enum class State { ready = 0, executing = 1, finished = 2, cancelled = 3 };
  // Called with a key ("isReady", "isExecuting", "isFinished", "isCancelled") and whether the change
  // is coming (false) or done (true).
  using Observer = std::function<void(std::string_view key, bool done)>;

  virtual ~AsyncOperation() = default;

  [[nodiscard]] bool isReady() const { return state() == State::ready; }
  [[nodiscard]] bool isExecuting() const { return state() == State::executing; }
  [[nodiscard]] bool isFinished() const { return state() == State::finished; }
  // Read from the state, like the others, so an operation that ended as cancelled reports it.
  [[nodiscard]] bool isCancelled() const { return state() == State::cancelled || cancelRequested_; }
  [[nodiscard]] static constexpr bool isAsynchronous() { return true; }

  [[nodiscard]] State state() const;
  void setObserver(Observer observer);

  virtual void start() = 0;
  virtual void cancel() { cancelRequested_ = true; }

 protected:
  void setState(State state);

 private:
  mutable std::mutex lock_;
  State state_ = State::ready;  // guarded by lock_
  Observer observer_;           // set before the operation is started
  std::atomic<bool> cancelRequested_ = false;
};

class UploadClient;

// One block's upload: fetch its events, send them, retry transient failures, report once.
class UploadOperation final : public AsyncOperation, public std::enable_shared_from_this<UploadOperation> {
 public:
  UploadOperation(std::string deviceId, std::int64_t sessionId, std::int64_t sequenceNumber,
                  EventFetcher eventFetcher, ResponseHandler responseHandler,
                  std::weak_ptr<UploadClient> uploadClient);

  void start() override;
  void cancel() override;

 private:
  void send(platform::HttpRequest request, int attemptsLeft);
  void finish(std::optional<UploadFailure> outcome);
  void handleCompletion(const platform::HttpRequest& request, int attemptsLeft,
                        platform::HttpCompletion completion);

  const std::string deviceId_;
  const std::int64_t sessionId_;
  const std::int64_t sequenceNumber_;
  EventFetcher eventFetcher_;
  ResponseHandler responseHandler_;
  std::mutex taskLock_;
  std::shared_ptr<platform::HttpTask> uploadTask_;  // guarded by taskLock_
  const std::weak_ptr<UploadClient> uploadClient_;
};

// Sends finished blocks to the track endpoint, one at a time, on its queue
// ("com.verdalune.sessionreplay.upload"): retries transient failures after `retryTimeInterval`
// (`retryCount` attempts in all), holds uploads while the network is unreachable, and skips sending,
// while reporting success, for opted-out, capture-disabled and out-of-sample sessions.
//
// Thread-safe: upload() may be called from any thread; the switches are read when an upload starts.
class UploadClient final : public BlockUploader, public std::enable_shared_from_this<UploadClient> {
 public:
  struct Options {
    std::string apiKey{};
    std::string serverUrl{};
    std::shared_ptr<Logger> logger{};
    bool optOut = false;
    bool captureEnabled = true;
    int retryCount = 3;
    float sampleRate = 1.0f;
    std::chrono::milliseconds retryTimeInterval{30'000};
    std::chrono::milliseconds requestTimeout{60'000};
    ClientInfo client{};
  };

  // Starts watching the network through `pathMonitor` at once. With no `transport` (none could be made),
  // every upload fails at once with a transport error, and its block is kept.
  [[nodiscard]] static std::shared_ptr<UploadClient> make(Options options,
                                                          std::shared_ptr<platform::HttpTransport> transport,
                                                          std::shared_ptr<platform::PathMonitor> pathMonitor,
                                                          std::shared_ptr<Queue> queue);
  ~UploadClient() override;

  void upload(std::string deviceId, std::int64_t sessionId, std::int64_t sequenceNumber,
              EventFetcher eventFetcher, ResponseHandler responseHandler) override;
  void onConnectivityRestored(std::function<void()> restored) override;

  void setOptOut(bool optOut) { optOut_ = optOut; }
  void setCaptureEnabled(bool enabled) { captureEnabled_ = enabled; }
  void setSampleRate(float sampleRate) { sampleRate_ = sampleRate; }

  // The POST of one block: query keys device_id, session_id, seq_number, mobile_translation; the
  // common headers, then "Authorization" and "X-Client-Sample-Rate"; the body
  // {"version":2,"events":[...]} with each packed event as one string.
  [[nodiscard]] std::expected<platform::HttpRequest, HttpError> makeRequest(
      const std::string& deviceId, std::int64_t sessionId, std::int64_t sequenceNumber,
      const std::vector<std::string>& events) const;

  // Whether the lane is held (offline); for tests.
  [[nodiscard]] bool isSuspended() const;

 private:
  friend class UploadOperation;

  UploadClient(Options options, std::shared_ptr<platform::HttpTransport> transport,
               std::shared_ptr<platform::PathMonitor> pathMonitor, std::shared_ptr<Queue> queue);

  // The single-lane operation queue, run on queue_.
  void enqueue(std::shared_ptr<UploadOperation> operation);
  void startNext();
  void setSuspended(bool suspended);
  void holdForOffline();
  void pathChanged(platform::PathStatus status);

  const Options options_;
  std::atomic<bool> optOut_;
  std::atomic<bool> captureEnabled_;
  std::atomic<float> sampleRate_;
  const std::shared_ptr<platform::HttpTransport> transport_;
  const std::shared_ptr<platform::PathMonitor> pathMonitor_;
  const std::shared_ptr<Queue> queue_;

  // Touched on queue_ only.
  std::deque<std::shared_ptr<UploadOperation>> pending_;
  std::shared_ptr<UploadOperation> running_;
  bool suspended_ = false;
  platform::PathStatus pathStatus_ = platform::PathStatus::satisfied;
  std::vector<std::function<void()>> connectivityRestored_;
  std::shared_ptr<DelayedWork> probe_;
  mutable std::mutex suspendedMirrorLock_;
  bool suspendedMirror_ = false;  // guarded by suspendedMirrorLock_
};

// The shortest text that reads back as `rate`, always with a fraction or an exponent ("1.0", "0.5").
[[nodiscard]] std::string sampleRateText(float rate);

}  // namespace verdalune::sessionreplay
