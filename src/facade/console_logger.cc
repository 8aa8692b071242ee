#include "facade/console_logger.h"

#include <cstdio>
#include <string>

namespace verdalune::sessionreplay {

std::optional<ConsoleLogger::LogLevel> ConsoleLogger::levelFromRawValue(int rawValue) {
  if (rawValue < static_cast<int>(LogLevel::debug) || rawValue > static_cast<int>(LogLevel::fatal)) {
    return std::nullopt;
  }
  return static_cast<LogLevel>(rawValue);
}

void ConsoleLogger::print(LogLevel severity, std::string_view message) const {
  if (static_cast<int>(level_) > static_cast<int>(severity)) return;
  std::string line;
  line.reserve(message.size() + 1);
  line.append(message);
  line.push_back('\n');
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fflush(stdout);
}

}  // namespace verdalune::sessionreplay
