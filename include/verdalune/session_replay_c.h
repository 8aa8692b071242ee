/* The recorder as a C interface, for hosts that bind from other languages. It is the same object as
 * SessionReplay in verdalune/session_replay.h, reached through an opaque handle; every function may be
 * called from any thread, and none blocks on the main queue. */
#ifndef VERDALUNE_SESSION_REPLAY_C_H
#define VERDALUNE_SESSION_REPLAY_C_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#include <memory>
namespace verdalune::sessionreplay::platform {
class Platform;
}
extern "C" {
#endif

typedef struct vdl_session_replay vdl_session_replay;
/* The device the library runs on. Made from C++ with vdl_platform_wrap (the platform interface is C++),
 * released with vdl_platform_release once the recorders made over it have what they need. */
typedef struct vdl_platform vdl_platform;

enum { VDL_SERVER_ZONE_US = 0, VDL_SERVER_ZONE_EU = 1 };
enum { VDL_MASK_LEVEL_LIGHT = 0, VDL_MASK_LEVEL_MEDIUM = 1, VDL_MASK_LEVEL_CONSERVATIVE = 2 };
enum { VDL_LOG_ERROR = 4, VDL_LOG_WARN = 3, VDL_LOG = 2, VDL_LOG_DEBUG = 1 };

/* Receives every line the library logs; called from the library's threads. */
typedef void (*vdl_log_function)(void* context, int level, const char* message);

typedef struct vdl_session_replay_config {
  const char* api_key;   /* required */
  const char* device_id; /* NULL: no device */
  int64_t session_id;    /* below 1: no session */
  bool opt_out;
  float sample_rate;
  /* web view mappings: mapping_count pairs of texts */
  const char* const* mapping_keys;
  const char* const* mapping_values;
  size_t mapping_count;
  vdl_log_function log; /* NULL: the library stays silent */
  void* log_context;
  int server_zone; /* VDL_SERVER_ZONE_US or _EU */
  int mask_level;  /* VDL_MASK_LEVEL_... */
  bool enable_remote_config;
  const char* server_url; /* NULL: the zone's own */
} vdl_session_replay_config;

/* NULL when the configuration is unusable (no api key, a mask level or zone out of range, no platform);
 * the reason goes to the configuration's log function. */
vdl_session_replay* vdl_session_replay_create(const vdl_session_replay_config* config,
                                              vdl_platform* platform);
/* Releases the host's handle. A started recorder keeps recording until stopped. */
void vdl_session_replay_destroy(vdl_session_replay* replay);

void vdl_session_replay_start(vdl_session_replay* replay);
void vdl_session_replay_stop(vdl_session_replay* replay);
void vdl_session_replay_flush(vdl_session_replay* replay);

void vdl_session_replay_set_opt_out(vdl_session_replay* replay, bool opt_out);
void vdl_session_replay_set_session_id(vdl_session_replay* replay, int64_t session_id);
int64_t vdl_session_replay_session_id(const vdl_session_replay* replay);
/* NULL clears the device. */
void vdl_session_replay_set_device_id(vdl_session_replay* replay, const char* device_id);
void vdl_session_replay_set_sample_rate(vdl_session_replay* replay, float sample_rate);
void vdl_session_replay_set_mask_level(vdl_session_replay* replay, int mask_level);

/* The "<device id>/<session id>" a host attaches to its own events as "[Verdalune] Session Replay ID",
 * written with its terminating NUL into buffer when it fits. Returns the text's length (without the NUL),
 * or 0 when this session is not being recorded. */
size_t vdl_session_replay_id(const vdl_session_replay* replay, char* buffer, size_t size);

void vdl_platform_release(vdl_platform* platform);

#ifdef __cplusplus
}
vdl_platform* vdl_platform_wrap(std::shared_ptr<verdalune::sessionreplay::platform::Platform> platform);
#endif

#endif
