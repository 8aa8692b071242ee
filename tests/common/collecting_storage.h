#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "rrweb/events.h"
#include "storage/storage_coordinator.h"

namespace verdalune::sessionreplay {

// Keeps every event the serializer writes, in order, instead of storing and uploading it. Single thread.
class CollectingStorage final : public StorageCoordinatorProtocol {
 public:
  void write(rrweb::Event event, std::string deviceId, std::int64_t sessionId) override {
    events.push_back(std::move(event));
    identifiers.emplace_back(std::move(deviceId), sessionId);
  }
  void flush() override { ++flushes; }

  std::vector<rrweb::Event> events;
  std::vector<std::pair<std::string, std::int64_t>> identifiers;  // the device and session of each event
  int flushes = 0;
};

}  // namespace verdalune::sessionreplay
