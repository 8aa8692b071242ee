#include "storage/block_state.h"

namespace verdalune::sessionreplay {

BlockState::BlockState(std::string apiKey, std::shared_ptr<DefaultsStore> defaults)
    : defaults_(std::move(defaults)),
      deviceIdKey_("com.verdalune.sessionreplay." + apiKey + ".current_device_id"),
      sessionIdKey_("com.verdalune.sessionreplay." + apiKey + ".current_session_id"),
      sequenceNumberKey_("com.verdalune.sessionreplay." + apiKey + ".current_seq_num") {}

// A failed write of the defaults file keeps the value in memory and is saved by the next write, so
// block state never stops recording; the calls below ignore it on purpose.

std::optional<std::string> BlockState::currentDeviceId() const {
  return defaults_->string(deviceIdKey_);
}

void BlockState::setCurrentDeviceId(const std::string& deviceId) {
  (void)defaults_->set(deviceIdKey_, deviceId);
}

std::optional<std::int64_t> BlockState::currentSessionId() const {
  return defaults_->integer(sessionIdKey_);
}

void BlockState::setCurrentSessionId(std::int64_t sessionId) {
  (void)defaults_->set(sessionIdKey_, sessionId);
}

std::int64_t BlockState::nextSequenceNumber(const std::function<bool(std::int64_t)>& inUse) {
  std::int64_t next = defaults_->integer(sequenceNumberKey_).value_or(0) + 1;
  while (inUse && inUse(next)) ++next;
  (void)defaults_->set(sequenceNumberKey_, next);
  return next;
}

void BlockState::clearSequenceNumber() {
  (void)defaults_->remove(sequenceNumberKey_);
}

}  // namespace verdalune::sessionreplay
