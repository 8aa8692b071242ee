#include "capture/layer_metadata.h"

#include <cstdio>
#include <cstdlib>
#include <limits>
#include <mutex>

namespace verdalune::sessionreplay {

std::int64_t nextNodeId() {
  // Starts below 100 so the first id handed out is 100; ids under 100 are never produced.
  static std::mutex lock;
  static std::int64_t counter = 99;
  std::scoped_lock guard(lock);
  if (counter == std::numeric_limits<std::int64_t>::max()) {
    std::fputs("[LayerMetadata] node id counter overflowed\n", stderr);
    std::abort();
  }
  return ++counter;
}

std::shared_ptr<LayerMetadata> metadataOf(platform::Layer& layer) {
  return platform::attachmentOf<LayerMetadata>(layer, [] { return std::make_shared<LayerMetadata>(); });
}

}  // namespace verdalune::sessionreplay
