#pragma once

#include <cstdint>

namespace verdalune::sessionreplay {

// Decides from the session id alone whether a session belongs to the recorded fraction. The answer
// must be the same in every process and on every device, because recording and upload both ask.
struct Sample {
  // A Java-style string hash of the decimal session id, scaled into (-1, 1) and compared with
  // `sampleRate` in single precision. A hash of INT64_MIN has no absolute value and stops the process,
  // exactly as the platform's checked arithmetic does; the ids that would reach it are not guarded.
  [[nodiscard]] static bool isInSample(std::int64_t sessionId, float sampleRate);
};

}  // namespace verdalune::sessionreplay
