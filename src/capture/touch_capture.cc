#include "capture/touch_capture.h"

#include <string>
#include <utility>

namespace verdalune::sessionreplay {

namespace {

// Multi-touch reports the first touch of the delivered set only; a set can arrive empty.
platform::Point firstLocation(const platform::TouchBatch& batch) {
  return batch.locations.empty() ? platform::Point{0, 0} : batch.locations.front();
}

}  // namespace

std::shared_ptr<platform::TouchRecognizer> VerdaluneSessionReplayGestureRecognizer::attach(
    platform::Window& window) {
  // The window keeps the handler, and the handler keeps this recognizer: it lives as long as it is
  // attached, whoever else lets go of it.
  return window.addTouchRecognizer(
      std::string(name),
      [self = shared_from_this()](const platform::TouchBatch& batch) { self->handle(batch); });
}

void VerdaluneSessionReplayGestureRecognizer::handle(const platform::TouchBatch& batch) {
  switch (batch.phase) {
    case platform::TouchPhase::began:
      emit(TouchEvent::TouchEventType::began, batch);
      break;
    case platform::TouchPhase::moved:
      queuedTouchMoves_.push_back({firstLocation(batch), now()});
      break;
    case platform::TouchPhase::ended:
      emit(TouchEvent::TouchEventType::ended, batch);
      break;
    case platform::TouchPhase::cancelled:
      emit(TouchEvent::TouchEventType::cancelled, batch);
      break;
  }
}

void VerdaluneSessionReplayGestureRecognizer::emit(TouchEvent::TouchEventType type,
                                                   const platform::TouchBatch& batch) {
  if (!queuedTouchMoves_.empty()) {
    std::vector<TouchMoveEvent> moves = std::exchange(queuedTouchMoves_, {});
    if (onTouchMoveEvent) onTouchMoveEvent(std::move(moves));
  }
  if (onTouchEvent) onTouchEvent(TouchEvent{firstLocation(batch), now(), type});
}

std::chrono::system_clock::time_point VerdaluneSessionReplayGestureRecognizer::now() const {
  return std::chrono::system_clock::time_point(std::chrono::milliseconds(clock_->wallMilliseconds()));
}

}  // namespace verdalune::sessionreplay
