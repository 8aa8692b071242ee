#include "capture/layer_metadata.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "verdalune/sim/layer.h"

namespace verdalune::sessionreplay {
namespace {

using sim::SimLayer;

// Runs first in this binary (gtest keeps declaration order), so the counter is still untouched.
TEST(LayerMetadataTest, FirstIdsAre100Then101AndAskingAgainSpendsNoId) {
  auto first = std::make_shared<SimLayer>();
  auto second = std::make_shared<SimLayer>();
  auto firstMetadata = metadataOf(*first);
  EXPECT_EQ(firstMetadata->id(), 100);
  EXPECT_EQ(metadataOf(*first), firstMetadata) << "the same object, not a new one";
  EXPECT_EQ(metadataOf(*second)->id(), 101);
  EXPECT_EQ(nextNodeId(), 102) << "the node id counter is shared with metadata";
  EXPECT_EQ(firstMetadata->blockStatus, BlockStatus::none);
  EXPECT_EQ(firstMetadata->blockMarkerType, BlockMarkerType::none);
}

TEST(LayerMetadataTest, ForeignAttachmentIsReplaced) {
  struct Other : platform::Attachment {};
  auto layer = std::make_shared<SimLayer>();
  layer->ensureAttachment([](auto) { return std::make_shared<Other>(); });
  auto metadata = metadataOf(*layer);
  ASSERT_NE(metadata, nullptr);
  EXPECT_EQ(layer->attachment(), metadata);
}

TEST(LayerMetadataTest, ConcurrentCallersNeverShareOrDuplicateAnId) {
  constexpr int kThreads = 8;
  constexpr int kLayersPerThread = 200;
  auto shared = std::make_shared<SimLayer>();
  std::vector<std::vector<std::int64_t>> ids(kThreads);
  std::vector<std::shared_ptr<LayerMetadata>> sharedSeen(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      sharedSeen[t] = metadataOf(*shared);
      for (int i = 0; i < kLayersPerThread; ++i) {
        auto layer = std::make_shared<SimLayer>();
        ids[t].push_back(metadataOf(*layer)->id());
        ids[t].push_back(nextNodeId());
      }
    });
  }
  for (auto& thread : threads) thread.join();

  std::set<std::int64_t> all{sharedSeen[0]->id()};
  std::size_t count = 1;
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(sharedSeen[t], sharedSeen[0]) << "one metadata object per layer";
    all.insert(ids[t].begin(), ids[t].end());
    count += ids[t].size();
  }
  EXPECT_EQ(all.size(), count) << "an id was handed out twice";
  EXPECT_GE(*all.begin(), 100);
}

}  // namespace
}  // namespace verdalune::sessionreplay
