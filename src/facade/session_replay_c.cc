#include "verdalune/session_replay_c.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "verdalune/session_replay.h"

using verdalune::sessionreplay::Logger;
using verdalune::sessionreplay::MaskLevel;
using verdalune::sessionreplay::ServerZone;
using verdalune::sessionreplay::SessionReplay;

struct vdl_platform {
  std::shared_ptr<verdalune::sessionreplay::platform::Platform> platform;
};

struct vdl_session_replay {
  std::shared_ptr<SessionReplay> replay;
};

namespace {

// Hands every line to the host's function, with its level.
class FunctionLogger final : public Logger {
 public:
  FunctionLogger(vdl_log_function log, void* context) : log_(log), context_(context) {}
  void error(std::string_view message) override { send(VDL_LOG_ERROR, message); }
  void warn(std::string_view message) override { send(VDL_LOG_WARN, message); }
  void log(std::string_view message) override { send(VDL_LOG, message); }
  void debug(std::string_view message) override { send(VDL_LOG_DEBUG, message); }

 private:
  void send(int level, std::string_view message) { log_(context_, level, std::string(message).c_str()); }

  vdl_log_function log_;
  void* context_;
};

bool refuse(const vdl_session_replay_config* config, const char* why) {
  if (config != nullptr && config->log != nullptr) {
    config->log(config->log_context, VDL_LOG_ERROR, (std::string("[SessionReplay] ") + why).c_str());
  }
  return false;
}

bool usable(const vdl_session_replay_config* config, const vdl_platform* platform) {
  if (config == nullptr) return false;
  if (config->api_key == nullptr || config->api_key[0] == '\0')
    return refuse(config, "an api key is required");
  if (platform == nullptr || !platform->platform) return refuse(config, "a platform is required");
  if (config->server_zone != VDL_SERVER_ZONE_US && config->server_zone != VDL_SERVER_ZONE_EU) {
    return refuse(config, "the server zone must be VDL_SERVER_ZONE_US or VDL_SERVER_ZONE_EU");
  }
  if (config->mask_level < VDL_MASK_LEVEL_LIGHT || config->mask_level > VDL_MASK_LEVEL_CONSERVATIVE) {
    return refuse(config, "the mask level is out of range");
  }
  if (config->mapping_count > 0 && (config->mapping_keys == nullptr || config->mapping_values == nullptr)) {
    return refuse(config, "web view mappings need their keys and values");
  }
  return true;
}

}  // namespace

extern "C" {

vdl_session_replay* vdl_session_replay_create(const vdl_session_replay_config* config,
                                              vdl_platform* platform) {
  if (!usable(config, platform)) return nullptr;
  std::map<std::string, std::string> mappings;
  for (std::size_t i = 0; i < config->mapping_count; ++i) {
    if (config->mapping_keys[i] != nullptr && config->mapping_values[i] != nullptr) {
      mappings[config->mapping_keys[i]] = config->mapping_values[i];
    }
  }
  std::shared_ptr<Logger> logger;
  if (config->log != nullptr) logger = std::make_shared<FunctionLogger>(config->log, config->log_context);
  SessionReplay::Options options;
  if (config->server_url != nullptr) options.serverUrl = config->server_url;
  auto replay = SessionReplay::make(
      config->api_key, config->device_id ? std::optional<std::string>(config->device_id) : std::nullopt,
      config->session_id, config->opt_out, config->sample_rate, std::move(mappings), std::move(logger),
      static_cast<ServerZone>(config->server_zone), static_cast<MaskLevel>(config->mask_level),
      config->enable_remote_config, platform->platform, std::move(options));
  return new vdl_session_replay{std::move(replay)};
}

void vdl_session_replay_destroy(vdl_session_replay* replay) {
  delete replay;
}

void vdl_session_replay_start(vdl_session_replay* replay) {
  if (replay) replay->replay->start();
}
void vdl_session_replay_stop(vdl_session_replay* replay) {
  if (replay) replay->replay->stop();
}
void vdl_session_replay_flush(vdl_session_replay* replay) {
  if (replay) replay->replay->flush();
}
void vdl_session_replay_set_opt_out(vdl_session_replay* replay, bool opt_out) {
  if (replay) replay->replay->setOptOut(opt_out);
}
void vdl_session_replay_set_session_id(vdl_session_replay* replay, int64_t session_id) {
  if (replay) replay->replay->setSessionId(session_id);
}
int64_t vdl_session_replay_session_id(const vdl_session_replay* replay) {
  return replay ? replay->replay->sessionId() : 0;
}
void vdl_session_replay_set_device_id(vdl_session_replay* replay, const char* device_id) {
  if (replay) replay->replay->setDeviceId(device_id ? std::optional<std::string>(device_id) : std::nullopt);
}
void vdl_session_replay_set_sample_rate(vdl_session_replay* replay, float sample_rate) {
  if (replay) replay->replay->setSampleRate(sample_rate);
}
void vdl_session_replay_set_mask_level(vdl_session_replay* replay, int mask_level) {
  if (!replay || mask_level < VDL_MASK_LEVEL_LIGHT || mask_level > VDL_MASK_LEVEL_CONSERVATIVE) return;
  replay->replay->setMaskLevel(static_cast<MaskLevel>(mask_level));
}

size_t vdl_session_replay_id(const vdl_session_replay* replay, char* buffer, size_t size) {
  if (!replay) return 0;
  const auto properties = replay->replay->additionalEventProperties();
  if (properties.empty()) return 0;
  const auto& text = std::any_cast<const std::string&>(properties.begin()->second);
  if (buffer != nullptr && size > text.size()) std::memcpy(buffer, text.c_str(), text.size() + 1);
  return text.size();
}

void vdl_platform_release(vdl_platform* platform) {
  delete platform;
}

}  // extern "C"

vdl_platform* vdl_platform_wrap(std::shared_ptr<verdalune::sessionreplay::platform::Platform> platform) {
  return new vdl_platform{std::move(platform)};
}
