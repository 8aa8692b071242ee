#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <vector>

#include "verdalune/platform/display.h"
#include "verdalune/platform/geometry.h"
#include "verdalune/platform/scene.h"
#include "verdalune/support/clock.h"

namespace verdalune::sessionreplay {

// A touch start, end or cancellation, in the window's coordinates, stamped with the wall-clock time it
// was observed.
struct TouchEvent {
  enum class TouchEventType : std::uint8_t { began = 0, ended = 1, cancelled = 2 };

  platform::Point location;
  std::chrono::system_clock::time_point date;
  TouchEventType type = TouchEventType::began;

  bool operator==(const TouchEvent&) const = default;
};

// One observed move of a touch between its start and its end.
struct TouchMoveEvent {
  platform::Point location;
  std::chrono::system_clock::time_point date;

  bool operator==(const TouchMoveEvent&) const = default;
};

// The passive recognizer the capture attaches to every window it records. It only watches: starts, ends
// and cancellations are reported one by one, and the moves in between are held and delivered as one list
// just before the next of those, so a drag costs one callback at its end rather than one per frame.
// Main queue only.
class VerdaluneSessionReplayGestureRecognizer
    : public std::enable_shared_from_this<VerdaluneSessionReplayGestureRecognizer> {
 public:
  static constexpr std::string_view name = "Verdalune Session Replay Gesture Capture";

  explicit VerdaluneSessionReplayGestureRecognizer(std::shared_ptr<const Clock> clock)
      : clock_(std::move(clock)) {}

  std::function<void(const TouchEvent&)> onTouchEvent;
  std::function<void(std::vector<TouchMoveEvent>)> onTouchMoveEvent;

  // Attaches this recognizer to `window`. The window keeps it until the returned handle is removed.
  std::shared_ptr<platform::TouchRecognizer> attach(platform::Window& window);

  // One platform touch callback.
  void handle(const platform::TouchBatch& batch);

  std::size_t queuedMoveCount() const { return queuedTouchMoves_.size(); }

 private:
  void emit(TouchEvent::TouchEventType type, const platform::TouchBatch& batch);
  std::chrono::system_clock::time_point now() const;

  std::shared_ptr<const Clock> clock_;
  std::vector<TouchMoveEvent> queuedTouchMoves_;
};

}  // namespace verdalune::sessionreplay
