#pragma once

#include <optional>

#include "verdalune/logger.h"

namespace verdalune::sessionreplay {

// The library's own logger: prints each message alone on a line of standard output, with no prefix,
// level name or timestamp. A message is printed when its severity is at least the logger's level;
// there is no fatal message, so a logger at `fatal` prints nothing, which is why the facade's default
// logger is silent.
//
// Thread-safe: each message and its newline go out in one write.
class ConsoleLogger final : public Logger {
 public:
  enum class LogLevel : int { fatal = 5, error = 4, warn = 3, log = 2, debug = 1 };

  // The level with that raw value; none for 0, negative numbers and numbers above 5.
  [[nodiscard]] static std::optional<LogLevel> levelFromRawValue(int rawValue);

  ConsoleLogger() = delete;
  explicit ConsoleLogger(LogLevel level) : level_(level) {}

  [[nodiscard]] LogLevel level() const { return level_; }

  void error(std::string_view message) override { print(LogLevel::error, message); }
  void warn(std::string_view message) override { print(LogLevel::warn, message); }
  void log(std::string_view message) override { print(LogLevel::log, message); }
  void debug(std::string_view message) override { print(LogLevel::debug, message); }

 private:
  void print(LogLevel severity, std::string_view message) const;

  LogLevel level_;
};

}  // namespace verdalune::sessionreplay
