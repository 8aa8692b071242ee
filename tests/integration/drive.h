#pragma once

#include <chrono>
#include <functional>
#include <thread>

#include "verdalune/support/queue.h"

namespace verdalune::sessionreplay::testing {

// Runs `queue` until `done` holds. Work arrives from other threads too (the HTTP transport answers on
// its own), so between empty runs it waits a moment of real time; false once `limit` has passed.
// Virtual time does not move: delays are the test's to advance.
inline bool driveUntil(ManualQueue& queue, const std::function<bool()>& done,
                       std::chrono::milliseconds limit = std::chrono::seconds(20)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (queue.runUntilIdle() > 0) continue;
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// The same for work on real queues: waits until `done` holds, polling; false once `limit` has passed.
inline bool waitUntil(const std::function<bool()>& done,
                      std::chrono::milliseconds limit = std::chrono::seconds(30)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace verdalune::sessionreplay::testing
