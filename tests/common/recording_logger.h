#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "verdalune/logger.h"

namespace verdalune::sessionreplay {

// A logger that keeps every line, "level: message", for a test to read. Thread-safe, as the library's
// queues log from their own threads.
class RecordingLogger final : public Logger {
 public:
  void error(std::string_view message) override { add("error", message); }
  void warn(std::string_view message) override { add("warn", message); }
  void log(std::string_view message) override { add("log", message); }
  void debug(std::string_view message) override { add("debug", message); }

  std::vector<std::string> lines() const {
    std::scoped_lock guard(mutex_);
    return lines_;
  }
  // The messages of one level, without the level.
  std::vector<std::string> errors() const { return messages("error"); }
  std::vector<std::string> logs() const { return messages("log"); }

 private:
  void add(std::string_view level, std::string_view message) {
    std::scoped_lock guard(mutex_);
    lines_.push_back(std::string(level) + ": " + std::string(message));
  }
  std::vector<std::string> messages(std::string_view level) const {
    std::vector<std::string> found;
    const std::string prefix = std::string(level) + ": ";
    for (const std::string& line : lines()) {
      if (line.starts_with(prefix)) found.push_back(line.substr(prefix.size()));
    }
    return found;
  }

  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace verdalune::sessionreplay
