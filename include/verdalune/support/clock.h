#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace verdalune::sessionreplay {

// Where the library reads the time. Components take a Clock instead of asking the OS, so that a test
// can set the wall clock and move time forward without waiting.
//
// Two kinds of time:
// - wallMilliseconds(): milliseconds since the Unix epoch, truncated toward zero. It stamps events and
//   may jump when the user changes the device's time.
// - monotonic(): a point on the steady clock. Only differences between two readings mean anything; it
//   never goes backwards and is what timers and retries measure against.
//
// Implementations are safe to read from any thread.
class Clock {
 public:
  virtual ~Clock() = default;

  virtual std::int64_t wallMilliseconds() const = 0;
  virtual std::chrono::steady_clock::time_point monotonic() const = 0;
};

// The OS clocks: std::chrono::system_clock and std::chrono::steady_clock.
class SystemClock final : public Clock {
 public:
  std::int64_t wallMilliseconds() const override;
  std::chrono::steady_clock::time_point monotonic() const override;
};

// A clock that moves only when told to. Its monotonic time starts at the steady clock's epoch
// (time_point{}), not at the OS's current reading, so tests see the same numbers on every run.
//
// Thread-safe: reads and changes may come from any thread. advance() moves the two kinds of time one
// after the other, so a reader on another thread may see one moved and not yet the other.
class ManualClock final : public Clock {
 public:
  explicit ManualClock(std::int64_t startWallMilliseconds = 0);

  std::int64_t wallMilliseconds() const override;
  std::chrono::steady_clock::time_point monotonic() const override;

  // Moves both kinds of time forward by `by`. Fractions of a millisecond add up in the wall time.
  // A negative duration is ignored: monotonic time never goes back.
  void advance(std::chrono::nanoseconds by);

  // Sets the wall time alone, as when the user changes the device's clock; monotonic time stays.
  void setWallMilliseconds(std::int64_t milliseconds);

 private:
  std::atomic<std::int64_t> wallNanoseconds_;
  std::atomic<std::int64_t> monotonicNanoseconds_{0};
};

}  // namespace verdalune::sessionreplay
