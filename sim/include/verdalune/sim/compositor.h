#pragma once

#include <filesystem>

#include "verdalune/platform/contents.h"
#include "verdalune/sim/platform.h"

// What the simulated screen shows, drawn the way the platform's compositor would draw its layers: the
// picture a replay is compared with.
namespace verdalune::sessionreplay::sim {

// What the device's screen shows now: every window of every connected scene of `device`, back to front,
// at `scale` pixels per point (0: the screen's own scale), as a premultiplied RGBA bitmap of the screen's
// size. Shown layers are drawn as presented (an animation in flight shows its current values). Main queue
// only, where the layers live.
platform::Bitmap composite(const SimPlatform& device, double scale = 0);

// `bitmap` written as a PNG file; false when it cannot be written.
bool writePng(const platform::Bitmap& bitmap, const std::filesystem::path& path);

}  // namespace verdalune::sessionreplay::sim
