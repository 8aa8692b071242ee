#include "capture/layer_metadata.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "verdalune/sim/layer.h"

namespace verdalune::sessionreplay {
namespace {

using sim::SimLayer;

// In a fresh copy of the test program, whose counter no other test has touched, whatever the order.
TEST(LayerMetadataTest, FirstIdsAre100Then101AndAskingAgainSpendsNoId) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        auto first = std::make_shared<SimLayer>();
        auto second = std::make_shared<SimLayer>();
        auto firstMetadata = metadataOf(*first);
        const bool ok = firstMetadata->id() == 100 && metadataOf(*first) == firstMetadata &&
                        metadataOf(*second)->id() == 101 && nextNodeId() == 102;
        std::exit(ok ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
  auto metadata = metadataOf(*std::make_shared<SimLayer>());
  EXPECT_EQ(metadata->blockStatus, BlockStatus::none);
  EXPECT_EQ(metadata->blockMarkerType, BlockMarkerType::none);
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
