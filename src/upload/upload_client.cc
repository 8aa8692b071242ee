#include "upload/upload_client.h"

#include <cmath>

#include "facade/sample.h"
#include "support/json_writer.h"
#include "upload/url.h"

namespace verdalune::sessionreplay {
namespace {

// The URL-loading code for a failure with no better name.
constexpr int kNoTransport = -1;

std::string_view keyOf(AsyncOperation::State state) {
  switch (state) {
    case AsyncOperation::State::ready:
      return "isReady";
    case AsyncOperation::State::executing:
      return "isExecuting";
    case AsyncOperation::State::finished:
      return "isFinished";
    case AsyncOperation::State::cancelled:
      return "isCancelled";
  }
  return "isReady";
}

}  // namespace

std::string describe(const UploadFailure& failure) {
  if (const auto* error = std::get_if<HttpError>(&failure)) return std::string(describe(*error));
  if (const auto* transport = std::get_if<platform::TransportError>(&failure)) {
    return describe(HttpFailure(*transport));
  }
  return std::get<std::error_code>(failure).message();
}

std::string sampleRateText(float rate) {
  std::string text;
  if (!appendShortestNumber(text, rate)) return std::isnan(rate) ? "nan" : (rate > 0 ? "inf" : "-inf");
  if (text.find_first_of(".e") == std::string::npos) text += ".0";
  return text;
}

// AsyncOperation

AsyncOperation::State AsyncOperation::state() const {
  std::lock_guard lock(lock_);
  return state_;
}

void AsyncOperation::setObserver(Observer observer) {
  observer_ = std::move(observer);
}

void AsyncOperation::setState(State state) {
  std::lock_guard lock(lock_);
  const State old = state_;
  if (observer_) {
    observer_(keyOf(state), false);
    observer_(keyOf(old), false);
  }
  state_ = state;
  if (observer_) {
    observer_(keyOf(old), true);
    observer_(keyOf(state), true);
  }
}

// UploadOperation

UploadOperation::UploadOperation(std::string deviceId, std::int64_t sessionId, std::int64_t sequenceNumber,
                                 EventFetcher eventFetcher, ResponseHandler responseHandler,
                                 std::weak_ptr<UploadClient> uploadClient)
    : deviceId_(std::move(deviceId)),
      sessionId_(sessionId),
      sequenceNumber_(sequenceNumber),
      eventFetcher_(std::move(eventFetcher)),
      responseHandler_(std::move(responseHandler)),
      uploadClient_(std::move(uploadClient)) {}

void UploadOperation::finish(std::optional<UploadFailure> outcome) {
  responseHandler_(std::move(outcome));
  setState(State::finished);
}

void UploadOperation::start() {
  const auto client = uploadClient_.lock();
  if (isCancelled() || !client) return finish(HttpError::cancelled);
  setState(State::executing);

  // The recording switches are applied again here: blocks written before a switch changed must
  // not leave the device either, and they count as delivered so that they are cleaned up.
  if (!client->captureEnabled_ || client->optOut_ || !Sample::isInSample(sessionId_, client->sampleRate_)) {
    return finish(std::nullopt);
  }
  if (!client->transport_) {
    // No transport could be made (libcurl failed to start): the block stays on disk for a launch that has
    // one.
    const platform::TransportError missing{kNoTransport, "no HTTP transport"};
    client->options_.logger->error("[UploadClient] failed to upload: " + describe(HttpFailure(missing)));
    return finish(missing);
  }
  auto events = eventFetcher_();
  if (!events) return finish(events.error());
  auto request = client->makeRequest(deviceId_, sessionId_, sequenceNumber_, *events);
  if (!request) return finish(request.error());
  send(std::move(*request), client->options_.retryCount);
}

void UploadOperation::cancel() {
  AsyncOperation::cancel();
  std::shared_ptr<platform::HttpTask> task;
  {
    std::lock_guard lock(taskLock_);
    task = uploadTask_;
  }
  if (task) task->cancel();
}

void UploadOperation::send(platform::HttpRequest request, int attemptsLeft) {
  const auto client = uploadClient_.lock();
  if (isCancelled() || !client) {
    responseHandler_(HttpError::unknown);
    setState(State::cancelled);
    return;
  }
  client->options_.logger->debug("[UploadClient] uploading " + deviceId_ + "/" + std::to_string(sessionId_) +
                                 "/" + std::to_string(sequenceNumber_));
  std::weak_ptr<UploadClient> weakClient = client;
  auto task = client->transport_->send(request, [self = shared_from_this(), weakClient, request,
                                                 attemptsLeft](platform::HttpCompletion completion) {
    auto handle = [self, request, attemptsLeft, completion = std::move(completion)]() mutable {
      self->handleCompletion(request, attemptsLeft, std::move(completion));
    };
    if (auto client = weakClient.lock()) {
      client->queue_->async(std::move(handle));
    } else {
      handle();
    }
  });
  std::lock_guard lock(taskLock_);
  uploadTask_ = std::move(task);
}

void UploadOperation::handleCompletion(const platform::HttpRequest& request, int attemptsLeft,
                                       platform::HttpCompletion completion) {
  const auto client = uploadClient_.lock();
  const auto logger = client ? client->options_.logger : nullptr;
  auto result = classify(std::move(completion.data), completion.response, std::move(completion.error));
  if (result) {
    if (logger) logger->log("[UploadClient] successfully completed upload");
    return finish(std::nullopt);
  }
  const HttpFailure failure = result.error();
  if (logger) logger->error("[UploadClient] failed to upload: " + describe(failure));

  const auto* error = std::get_if<HttpError>(&failure);
  if (client && error && *error == HttpError::offline) {
    // The same block goes to the back of the lane, which waits for the network; this operation
    // ends without an answer, and the new one gives it.
    client->holdForOffline();
    client->upload(deviceId_, sessionId_, sequenceNumber_, std::move(eventFetcher_),
                   std::move(responseHandler_));
    setState(State::finished);
    return;
  }
  if (client && isRetryable(failure) && attemptsLeft > 1) {
    // The operation stays executing, so the lane stays blocked until this block is settled.
    client->queue_->asyncAfter(
        client->options_.retryTimeInterval,
        [self = shared_from_this(), request, attemptsLeft] { self->send(request, attemptsLeft - 1); });
    return;
  }
  std::visit([this](const auto& reason) { finish(UploadFailure(reason)); }, failure);
}

// UploadClient

std::shared_ptr<UploadClient> UploadClient::make(Options options,
                                                 std::shared_ptr<platform::HttpTransport> transport,
                                                 std::shared_ptr<platform::PathMonitor> pathMonitor,
                                                 std::shared_ptr<Queue> queue) {
  std::shared_ptr<UploadClient> client(
      new UploadClient(std::move(options), std::move(transport), std::move(pathMonitor), std::move(queue)));
  // Make sure the client is complete, and owned, before the monitor can call back into it.
  std::weak_ptr<UploadClient> weakClient = client;
  client->pathMonitor_->start([weakClient](platform::PathStatus status) {
    const auto client = weakClient.lock();
    if (!client) return;
    client->queue_->async([weakClient, status] {
      if (const auto client = weakClient.lock()) client->pathChanged(status);
    });
  });
  return client;
}

UploadClient::UploadClient(Options options, std::shared_ptr<platform::HttpTransport> transport,
                           std::shared_ptr<platform::PathMonitor> pathMonitor, std::shared_ptr<Queue> queue)
    : options_(std::move(options)),
      optOut_(options_.optOut),
      captureEnabled_(options_.captureEnabled),
      sampleRate_(options_.sampleRate),
      transport_(std::move(transport)),
      pathMonitor_(std::move(pathMonitor)),
      queue_(std::move(queue)) {}

UploadClient::~UploadClient() {
  pathMonitor_->cancel();
}

void UploadClient::upload(std::string deviceId, std::int64_t sessionId, std::int64_t sequenceNumber,
                          EventFetcher eventFetcher, ResponseHandler responseHandler) {
  auto operation = std::make_shared<UploadOperation>(std::move(deviceId), sessionId, sequenceNumber,
                                                     std::move(eventFetcher), std::move(responseHandler),
                                                     weak_from_this());
  queue_->async([weakClient = weak_from_this(), operation] {
    if (const auto client = weakClient.lock()) {
      client->enqueue(operation);
    } else {
      operation->start();  // answers `cancelled`: every block hears back once
    }
  });
}

void UploadClient::onConnectivityRestored(std::function<void()> restored) {
  queue_->async([weakClient = weak_from_this(), restored = std::move(restored)]() mutable {
    if (const auto client = weakClient.lock()) client->connectivityRestored_.push_back(std::move(restored));
  });
}

bool UploadClient::isSuspended() const {
  std::lock_guard lock(suspendedMirrorLock_);
  return suspendedMirror_;
}

void UploadClient::enqueue(std::shared_ptr<UploadOperation> operation) {
  operation->setObserver([weakClient = weak_from_this()](std::string_view key, bool done) {
    if (!done || (key != "isFinished" && key != "isCancelled")) return;
    if (const auto client = weakClient.lock()) {
      // Start the next one from the queue, not from inside the ending operation.
      client->queue_->async([weakClient] {
        if (const auto client = weakClient.lock()) {
          client->running_.reset();
          client->startNext();
        }
      });
    }
  });
  pending_.push_back(std::move(operation));
  startNext();
}

void UploadClient::startNext() {
  if (suspended_ || running_ || pending_.empty()) return;
  running_ = std::move(pending_.front());
  pending_.pop_front();
  running_->start();
}

void UploadClient::setSuspended(bool suspended) {
  suspended_ = suspended;
  {
    std::lock_guard lock(suspendedMirrorLock_);
    suspendedMirror_ = suspended;
  }
  if (!suspended) {
    if (probe_) probe_->cancel();
    probe_.reset();
    startNext();
  }
}

void UploadClient::holdForOffline() {
  setSuspended(true);
  // A lost connection while the network monitor still sees a usable path brings no change to wake
  // the lane, so it tries again after the retry interval instead of waiting for one.
  if (pathStatus_ == platform::PathStatus::unsatisfied || probe_) return;
  probe_ = queue_->asyncAfter(options_.retryTimeInterval, [weakClient = weak_from_this()] {
    if (const auto client = weakClient.lock()) {
      client->probe_.reset();
      if (client->pathStatus_ != platform::PathStatus::unsatisfied) client->setSuspended(false);
    }
  });
}

void UploadClient::pathChanged(platform::PathStatus status) {
  const bool wasUnreachable = pathStatus_ == platform::PathStatus::unsatisfied;
  pathStatus_ = status;
  switch (status) {
    case platform::PathStatus::satisfied:
    case platform::PathStatus::requiresConnection:
      setSuspended(false);
      if (wasUnreachable) {
        for (const auto& restored : connectivityRestored_) restored();
      }
      break;
    case platform::PathStatus::unsatisfied:
      setSuspended(true);
      break;
  }
}

std::expected<platform::HttpRequest, HttpError> UploadClient::makeRequest(
    const std::string& deviceId, std::int64_t sessionId, std::int64_t sequenceNumber,
    const std::vector<std::string>& events) const {
  std::string body;
  JsonWriter writer(body);
  writer.beginObject();
  writer.plainKey("version");
  writer.integer(2);
  writer.plainKey("events");
  writer.beginArray();
  for (const auto& event : events) writer.string(event);
  writer.endArray();
  writer.endObject();

  auto components = UrlComponents::parse(options_.serverUrl);
  if (!components) return std::unexpected(HttpError::invalidURL);
  components->queryItems = {
      {"device_id", deviceId},
      {"session_id", std::to_string(sessionId)},
      {"seq_number", std::to_string(sequenceNumber)},
      {"mobile_translation", "false"},
  };
  auto url = components->url();
  if (!url) return std::unexpected(HttpError::invalidURL);

  platform::HttpRequest request;
  request.url = std::move(*url);
  request.headers = commonHeaders(options_.client);
  request.body = std::move(body);
  request.method = "POST";
  request.timeout = options_.requestTimeout;
  request.headers.emplace_back("Authorization", "Bearer " + options_.apiKey);
  request.headers.emplace_back("X-Client-Sample-Rate", sampleRateText(sampleRate_));
  return request;
}

}  // namespace verdalune::sessionreplay
