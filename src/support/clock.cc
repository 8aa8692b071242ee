#include "verdalune/support/clock.h"

namespace verdalune::sessionreplay {
namespace {

constexpr std::int64_t kNanosecondsPerMillisecond = 1'000'000;

}  // namespace

std::int64_t SystemClock::wallMilliseconds() const {
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch).count();
}

std::chrono::steady_clock::time_point SystemClock::monotonic() const {
  return std::chrono::steady_clock::now();
}

ManualClock::ManualClock(std::int64_t startWallMilliseconds)
    : wallNanoseconds_(startWallMilliseconds * kNanosecondsPerMillisecond) {}

std::int64_t ManualClock::wallMilliseconds() const {
  // Integer division truncates toward zero, as duration_cast does for the system clock.
  return wallNanoseconds_.load() / kNanosecondsPerMillisecond;
}

std::chrono::steady_clock::time_point ManualClock::monotonic() const {
  const std::chrono::nanoseconds sinceOrigin(monotonicNanoseconds_.load());
  return std::chrono::steady_clock::time_point(
      std::chrono::duration_cast<std::chrono::steady_clock::duration>(sinceOrigin));
}

void ManualClock::advance(std::chrono::nanoseconds by) {
  if (by.count() <= 0) return;
  monotonicNanoseconds_.fetch_add(by.count());
  wallNanoseconds_.fetch_add(by.count());
}

void ManualClock::setWallMilliseconds(std::int64_t milliseconds) {
  wallNanoseconds_.store(milliseconds * kNanosecondsPerMillisecond);
}

}  // namespace verdalune::sessionreplay
