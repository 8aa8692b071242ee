#include "capture/masking.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "verdalune/sim/layer.h"
#include "verdalune/sim/platform.h"
#include "verdalune/sim/views.h"
#include "verdalune/sim/web_view.h"

namespace verdalune::sessionreplay {
namespace {

namespace contentType = platform::textContentType;
using platform::OsVersion;
using sim::SimLayer;

constexpr OsVersion kOs16{16, 4, 0};
constexpr OsVersion kOs17{17, 0, 0};

bool masked(const sim::SimViewNode& view, MaskLevel level, OsVersion os = kOs17) {
  return isMaskedAutomatically(*view.simLayer(), level, os);
}

TEST(MaskingRuleTest, TextKindsPerLevel) {
  auto label = sim::makeLabel("Name");
  auto field = sim::makeTextField("text");
  auto textView = sim::makeTextView("notes");
  auto plain = sim::SimView::make<sim::SimView>();
  // Label, field, text view, plain view. At light a plain field is not sensitive.
  const std::pair<MaskLevel, std::vector<bool>> cases[] = {
      {MaskLevel::conservative, {true, true, true, false}},
      {MaskLevel::medium, {false, true, true, false}},
      {MaskLevel::light, {false, false, false, false}},
  };
  for (const auto& [level, expected] : cases) {
    EXPECT_EQ((std::vector<bool>{masked(*label, level), masked(*field, level), masked(*textView, level),
                                 masked(*plain, level)}),
              expected)
        << static_cast<int>(level);
  }
}

TEST(MaskingRuleTest, LightMasksSecureEntryAndSensitiveContentTypes) {
  auto secure = sim::makeTextField("pw");
  secure->setSecureTextEntry(true);
  EXPECT_TRUE(masked(*secure, MaskLevel::light));

  for (std::string_view type :
       {contentType::telephoneNumber, contentType::emailAddress, contentType::creditCardNumber,
        contentType::password, contentType::newPassword, contentType::oneTimeCode}) {
    auto field = sim::makeTextView("");
    field->setTextContentType(std::string(type));
    EXPECT_TRUE(masked(*field, MaskLevel::light, kOs16)) << type;
  }
  auto other = sim::makeTextField("");
  other->setTextContentType("street-address");
  EXPECT_FALSE(masked(*other, MaskLevel::light));

  auto label = sim::makeLabel("code");
  label->setTextContentType(std::string(contentType::oneTimeCode));
  EXPECT_FALSE(masked(*label, MaskLevel::light)) << "labels are not text inputs";
}

TEST(MaskingRuleTest, CreditCardDetailTypesOnlyFromOs17) {
  for (std::string_view type :
       {contentType::creditCardName, contentType::creditCardGivenName, contentType::creditCardMiddleName,
        contentType::creditCardFamilyName, contentType::creditCardType, contentType::creditCardExpiration,
        contentType::creditCardSecurityCode, contentType::creditCardExpirationYear,
        contentType::creditCardExpirationMonth}) {
    auto field = sim::makeTextField("");
    field->setTextContentType(std::string(type));
    EXPECT_FALSE(masked(*field, MaskLevel::light, kOs16)) << type;
    EXPECT_TRUE(masked(*field, MaskLevel::light, kOs17)) << type;
    EXPECT_TRUE(masked(*field, MaskLevel::light, OsVersion{18, 1, 0})) << type;
  }
}

TEST(MaskingRuleTest, VideoAndGpuLayersAreMaskedAtEveryLevelAndBareLayersNever) {
  SimLayer video("AVPlayerLayer", platform::LayerKind::videoPlayer);
  SimLayer gpu("CAMetalLayer", platform::LayerKind::gpuDrawing);
  SimLayer bare;
  for (MaskLevel level : {MaskLevel::light, MaskLevel::medium, MaskLevel::conservative}) {
    EXPECT_TRUE(isMaskedAutomatically(video, level, kOs17));
    EXPECT_TRUE(isMaskedAutomatically(gpu, level, kOs17));
    EXPECT_FALSE(isMaskedAutomatically(bare, level, kOs17));
  }
  auto map = sim::SimView::make<sim::SimView>("MKMapView", platform::ViewKind::mapView);
  EXPECT_TRUE(masked(*map, MaskLevel::light));
  sim::SimPlatform device;
  auto web = sim::SimViewNode::make<sim::SimWebView>(device.app()->mainQueue());
  EXPECT_TRUE(masked(*web, MaskLevel::light));
  EXPECT_EQ(effectiveBlockStatus(*web->simLayer(), BlockStatus::unblocked, MaskLevel::light, kOs17),
            BlockStatus::unblocked)
      << "an explicitly unblocked web view is recorded";
}

TEST(MaskingRuleDeathTest, LevelOutsideTheEnumerationStops) {
  auto field = sim::makeTextField("");
  EXPECT_DEATH(masked(*field, static_cast<MaskLevel>(7)), "mask level");
}

TEST(BlockStatusTest, UnblockedAncestorSwitchesTheAutomaticRuleOff) {
  auto field = sim::makeTextField("secret");
  field->setSecureTextEntry(true);
  for (MaskLevel level : {MaskLevel::light, MaskLevel::medium, MaskLevel::conservative}) {
    EXPECT_EQ(effectiveBlockStatus(*field->simLayer(), BlockStatus::unblocked, level, kOs17),
              BlockStatus::unblocked);
    EXPECT_EQ(effectiveBlockStatus(*field->simLayer(), BlockStatus::none, level, kOs17),
              BlockStatus::blocked);
  }
  auto plain = sim::SimView::make<sim::SimView>();
  EXPECT_EQ(effectiveBlockStatus(*plain->simLayer(), BlockStatus::none, MaskLevel::conservative, kOs17),
            BlockStatus::none);
}

TEST(BlockStatusTest, IsBlockedIsReadUpTheLayerChain) {
  auto outer = sim::SimView::make<sim::SimView>();
  auto middle = sim::SimView::make<sim::SimView>();
  auto inner = sim::SimView::make<sim::SimView>();
  outer->addSubview(middle);
  middle->addSubview(inner);

  EXPECT_FALSE(vdl_isBlocked(*inner->view())) << "no explicit status anywhere reads as false";

  setVdl_isBlocked(*outer->view(), true);
  EXPECT_TRUE(vdl_isBlocked(*inner->view())) << "inherited from the grandparent's layer";

  setVdl_isBlocked(*middle->view(), false);
  EXPECT_FALSE(vdl_isBlocked(*inner->view())) << "the nearest explicit status decides the read";
  EXPECT_TRUE(vdl_isBlocked(*outer->view()));

  setVdl_isBlocked(*inner->view(), true);
  EXPECT_TRUE(vdl_isBlocked(*inner->view()));
  EXPECT_EQ(metadataOf(*middle->simLayer())->blockStatus, BlockStatus::unblocked)
      << "false is recorded as unblocked, never back to none";
}

// Bare sibling layers of one parent, in sublayer order.
std::vector<std::shared_ptr<SimLayer>> siblings(int count) {
  std::vector<std::shared_ptr<SimLayer>> layers;
  for (int i = 0; i < count; ++i) layers.push_back(std::make_shared<SimLayer>());
  return layers;
}

void hostMarker(SimLayer& host, BlockMarkerType type, bool isBlocked) {
  auto marker = std::make_shared<SimLayer>();
  markAsBlockMarker(*marker, type, isBlocked);
  host.insertSublayer(marker, 0);
  host.addSublayer(std::make_shared<SimLayer>());
}

std::vector<BlockStatus> walk(const std::vector<std::shared_ptr<SimLayer>>& layers) {
  BlockRangeTracker tracker;
  std::vector<BlockStatus> statuses;
  for (const auto& layer : layers) statuses.push_back(tracker.enter(layer->sublayers()));
  return statuses;
}

TEST(BlockRangeTest, MissingEndMarkerKeepsTheRestOfTheSiblingsInTheRange) {
  auto layers = siblings(3);
  hostMarker(*layers[0], BlockMarkerType::begin, false);
  EXPECT_EQ(walk(layers), (std::vector<BlockStatus>{BlockStatus::unblocked, BlockStatus::unblocked,
                                                    BlockStatus::unblocked}));
}

TEST(BlockRangeTest, MarkerDeeperThanTheFirstSublayerIsNotARangeBoundary) {
  auto layers = siblings(2);
  auto marker = std::make_shared<SimLayer>();
  markAsBlockMarker(*marker, BlockMarkerType::begin, true);
  layers[0]->addSublayer(std::make_shared<SimLayer>());
  layers[0]->addSublayer(marker);
  EXPECT_EQ(walk(layers), (std::vector<BlockStatus>{BlockStatus::none, BlockStatus::none}));
}

}  // namespace
}  // namespace verdalune::sessionreplay
