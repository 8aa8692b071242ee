#pragma once

// What the simulated screen showed at named moments of a scripted recording, for the browser tests to set
// beside the replay: FOLDER/frames/NAME.png at the screen's scale, and FOLDER/frames.json listing them in
// order, each with the index of the last event written when it was taken.
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "verdalune/sim/compositor.h"

namespace verdalune::sessionreplay::sim {

class DeviceFrames {
 public:
  explicit DeviceFrames(std::filesystem::path folder) : folder_(std::move(folder)) {}

  // The screen as it stands; `lastEventIndex` is the event after which the replay must show it.
  bool take(const SimPlatform& device, const std::string& name, std::size_t lastEventIndex) {
    const auto picture = composite(device);
    const std::string file = "frames/" + name + ".png";
    std::error_code error;
    std::filesystem::create_directories(folder_ / "frames", error);
    if (error || !writePng(picture, folder_ / file)) {
      std::fprintf(stderr, "could not write %s\n", (folder_ / file).c_str());
      return false;
    }
    entries_.push_back("{\"name\":\"" + name + "\",\"file\":\"" + file +
                       "\",\"scale\":" + std::to_string(static_cast<int>(picture.scale)) +
                       ",\"index\":" + std::to_string(lastEventIndex) + "}");
    return true;
  }

  bool write() const {
    std::ofstream out(folder_ / "frames.json", std::ios::binary);
    out << "[";
    for (std::size_t i = 0; i < entries_.size(); ++i) out << (i ? ",\n" : "\n") << entries_[i];
    out << "\n]\n";
    return static_cast<bool>(out);
  }

 private:
  std::filesystem::path folder_;
  std::vector<std::string> entries_;
};

}  // namespace verdalune::sessionreplay::sim
