#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "verdalune/support/defaults_store.h"

namespace verdalune::sessionreplay {

// The device, session and sequence number of the block being written, kept in the defaults store so
// that block numbering survives a restart: the first block after a restart continues the numbering
// of the session it belongs to instead of overwriting block 1.
//
// Used from the storage queue only.
class BlockState {
 public:
  BlockState(std::string apiKey, std::shared_ptr<DefaultsStore> defaults);

  [[nodiscard]] std::optional<std::string> currentDeviceId() const;
  void setCurrentDeviceId(const std::string& deviceId);
  [[nodiscard]] std::optional<std::int64_t> currentSessionId() const;
  void setCurrentSessionId(std::int64_t sessionId);

  // The stored number plus one (absent counts as 0), or the first number after it that `inUse` does not
  // claim, stored before it is returned: a session's first block is number 1.
  std::int64_t nextSequenceNumber(const std::function<bool(std::int64_t)>& inUse = {});
  // Removes the stored number, so that the next session starts again at 1.
  void clearSequenceNumber();

 private:
  std::shared_ptr<DefaultsStore> defaults_;
  std::string deviceIdKey_;
  std::string sessionIdKey_;
  std::string sequenceNumberKey_;
};

}  // namespace verdalune::sessionreplay
