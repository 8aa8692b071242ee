// Decodes arbitrary bytes as a remote configuration, both as the endpoint's response body and as the
// copy a fetcher cached in the defaults store. Whatever decodes must encode, and decode back equal:
// the cache holds the encoding, so a configuration that did not survive it would change between
// launches. The cache must read the same bytes the same way as a response.
#include "facade/remote_config.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "verdalune/support/clock.h"
#include "verdalune/support/defaults_store.h"
#include "verdalune/support/queue.h"

namespace vdl = verdalune::sessionreplay;

namespace {

// Reading and writing the cache never sends anything.
class NoTransport final : public vdl::platform::HttpTransport {
 public:
  std::shared_ptr<vdl::platform::HttpTask> send(vdl::platform::HttpRequest,
                                                std::function<void(vdl::platform::HttpCompletion)>) override {
    __builtin_trap();
  }
};

constexpr char kApiKey[] = "fuzz-key";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const auto defaults = std::make_shared<vdl::InMemoryDefaultsStore>();
  static const auto fetcher = vdl::RemoteConfig::make(
      kApiKey, "https://config.invalid/config", nullptr, std::make_shared<NoTransport>(), defaults,
      std::make_shared<vdl::ManualQueue>("fuzz", std::make_shared<vdl::ManualClock>()), vdl::ClientInfo{});

  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto decoded = vdl::decodeRemoteConfigResponse(text);

  (void)defaults->set(vdl::RemoteConfig::cacheKey(kApiKey), std::vector<std::uint8_t>(data, data + size));
  const auto cached = fetcher->cachedConfiguration();
  if (cached.has_value() != decoded.has_value() || (cached && !(*cached == *decoded))) __builtin_trap();
  if (!decoded) return 0;

  // A decoded sample rate is a finite float, so the encoding cannot fail.
  const auto encoded = vdl::encode(*decoded);
  if (!encoded) __builtin_trap();
  const auto again = vdl::decodeRemoteConfigResponse(*encoded);
  if (!again || !(*again == *decoded)) __builtin_trap();

  fetcher->setCachedConfiguration(*decoded);
  const auto saved = fetcher->cachedConfiguration();
  if (!saved || !(*saved == *decoded)) __builtin_trap();
  return 0;
}
