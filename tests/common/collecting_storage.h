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
  void write(rrweb::Event event, std::string, std::int64_t) override { events.push_back(std::move(event)); }
  void flush() override { ++flushes; }

  std::vector<rrweb::Event> events;
  int flushes = 0;
};

}  // namespace verdalune::sessionreplay
