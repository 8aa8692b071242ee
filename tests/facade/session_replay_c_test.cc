#include "verdalune/session_replay_c.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "verdalune/sim/platform.h"
#include "verdalune/sim/screen_builder.h"

extern "C" size_t vdl_c_header_check(vdl_session_replay* replay, char* buffer, size_t size);

namespace {

void collect(void* context, int level, const char* message) {
  static_cast<std::vector<std::string>*>(context)->push_back(std::to_string(level) + " " + message);
}

TEST(SessionReplayCTest, RefusesAnUnusableConfigurationSayingWhy) {
  auto device = std::make_shared<verdalune::sessionreplay::sim::SimPlatform>();
  vdl_platform* platform = vdl_platform_wrap(device);
  std::vector<std::string> lines;
  vdl_session_replay_config config{};
  config.log = collect;
  config.log_context = &lines;
  EXPECT_EQ(vdl_session_replay_create(&config, platform), nullptr);
  config.api_key = "key";
  config.server_zone = 2;
  EXPECT_EQ(vdl_session_replay_create(&config, platform), nullptr);
  EXPECT_EQ(vdl_session_replay_create(nullptr, platform), nullptr);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "4 [SessionReplay] an api key is required");
  vdl_platform_release(platform);
}

TEST(SessionReplayCTest, DrivesTheSameRecorderAsTheCppInterface) {
  auto device = std::make_shared<verdalune::sessionreplay::sim::SimPlatform>();
  verdalune::sessionreplay::sim::ScreenBuilder(*device).window({0, 0, 390, 844}).build();
  vdl_platform* platform = vdl_platform_wrap(device);
  const char* keys[] = {"secret"};
  const char* values[] = {"hidden"};
  vdl_session_replay_config config{};
  config.api_key = "key";
  config.session_id = 5;
  config.sample_rate = 1;
  config.mapping_keys = keys;
  config.mapping_values = values;
  config.mapping_count = 1;
  config.server_zone = VDL_SERVER_ZONE_US;
  config.mask_level = VDL_MASK_LEVEL_CONSERVATIVE;
  config.server_url = "http://127.0.0.1:9";
  vdl_session_replay* replay = vdl_session_replay_create(&config, platform);
  vdl_platform_release(platform);
  ASSERT_NE(replay, nullptr);

  vdl_session_replay_start(replay);
  char buffer[32] = "untouched";
  EXPECT_EQ(vdl_session_replay_id(replay, buffer, sizeof buffer), 0u) << "no device yet";
  vdl_session_replay_set_device_id(replay, "phone");
  EXPECT_EQ(vdl_c_header_check(replay, buffer, sizeof buffer), 7u);
  EXPECT_STREQ(buffer, "phone/5");
  char small[4] = "abc";
  EXPECT_EQ(vdl_session_replay_id(replay, small, sizeof small), 7u)
      << "the length, even when it does not fit";
  EXPECT_STREQ(small, "abc");

  device->app()->runUntilIdle();
  EXPECT_EQ(device->ui()->displayLinks().size(), 1u) << "capturing";
  vdl_session_replay_set_session_id(replay, 9);
  EXPECT_EQ(vdl_session_replay_session_id(replay), 9);
  vdl_session_replay_stop(replay);
  vdl_session_replay_destroy(replay);
  device->app()->runUntilIdle();
  EXPECT_TRUE(device->ui()->displayLinks().empty());
}

}  // namespace
