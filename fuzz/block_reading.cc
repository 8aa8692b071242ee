// Block files are read back after a crash, possibly torn or damaged: reading one must never crash,
// whatever its bytes, and neither may unpacking or decoding what it yields.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "rrweb/coding.h"
#include "storage/persistent_storage.h"
#include "storage/versioned_event.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  namespace vdl = verdalune::sessionreplay;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);

  for (const auto& packed : vdl::packedEventsFromBlock(bytes)) {
    if (packed.front() != '"' || packed.back() != '"') __builtin_trap();
    if (auto json = vdl::unpackEvent(packed)) (void)vdl::rrweb::decodeEvent(*json);
  }
  // The same bytes as a file name found in the blocks folder: a name that parses has a device id.
  if (auto identity = vdl::parseBlockFileName(bytes); identity && identity->deviceId.empty())
    __builtin_trap();
  return 0;
}
