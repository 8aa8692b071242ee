#pragma once

#include <string_view>

namespace verdalune::sessionreplay {

// Where every diagnostic of the library goes. A host passes its own implementation to SessionReplay;
// when it passes none, the library stays silent.
//
// The library calls a logger from its own queues as well as from the main thread, so implementations
// must be thread-safe. Messages carry their own component prefix ("[UploadClient] ...").
class Logger {
 public:
  virtual ~Logger() = default;

  virtual void error(std::string_view message) = 0;
  virtual void warn(std::string_view message) = 0;
  virtual void log(std::string_view message) = 0;
  virtual void debug(std::string_view message) = 0;
};

}  // namespace verdalune::sessionreplay
