/* The C interface compiles as C: this file is built by the C compiler into the C interface's test. */
#include "verdalune/session_replay_c.h"

size_t vdl_c_header_check(vdl_session_replay* replay, char* buffer, size_t size) {
  vdl_session_replay_config config = {0};
  config.api_key = "key";
  config.server_zone = VDL_SERVER_ZONE_EU;
  config.mask_level = VDL_MASK_LEVEL_MEDIUM;
  (void)config;
  return vdl_session_replay_id(replay, buffer, size);
}
