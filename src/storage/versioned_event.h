#pragma once

#include <expected>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <variant>

#include "rrweb/events.h"

namespace verdalune::sessionreplay {

// An event as it is stored: the event's own keys plus "v":"v1", so a reader can tell formats apart.
struct VersionedEvent {
  rrweb::Event event;
};

enum class PackError {
  couldNotBindSourceAddress,
  couldNotBindDestinationAddress,
  failedToCompress,
  badEncoding,
};

// The event held a value JSON cannot express (a NaN or infinite number).
struct JsonEncodingError {
  std::string description;
};

using PackFailure = std::variant<PackError, JsonEncodingError>;

[[nodiscard]] std::string describe(const PackFailure& failure);

// Turns events into packed text: sorted-key JSON, compressed by zlib as its one-shot compress does, each
// compressed byte taken as one Latin-1 character, and the whole written as a JSON string literal.
// The literal has no raw line feed, so a block can frame records with line feeds.
//
// Keeps its buffers between calls, so one packer lives as long as the storage queue that uses it.
// Not thread-safe.
class EventPacker {
 public:
  // The packed text stays valid until the next call.
  [[nodiscard]] std::expected<std::string_view, PackFailure> pack(const rrweb::Event& event);

  // The sorted-key JSON that pack compresses; for tests and tools.
  [[nodiscard]] std::expected<std::string, PackFailure> encode(const VersionedEvent& event);

 private:
  // Writes the versioned JSON of `event` into json_.
  [[nodiscard]] std::expected<void, PackFailure> writeJson(const rrweb::Event& event);

  // zlib's deflate state, made on first use and reset for each event: making it anew (as the one-shot
  // compress does) allocates and frees about 270 KB every time, most of the cost of packing a small event.
  struct Deflater;
  struct DeflaterDeleter {
    void operator()(Deflater* deflater) const;
  };

  std::string json_;
  std::string compressed_;
  std::string literal_;
  std::unique_ptr<Deflater, DeflaterDeleter> deflater_;
};

enum class UnpackError {
  notAStringLiteral,  // the text is not one JSON string
  notLatin1,          // a character above U+00FF: these were never compressed bytes
  inflateFailed,      // not a complete zlib stream
  tooLarge,           // inflates to more than the limit given
};

[[nodiscard]] std::string_view describe(UnpackError error);

// The reverse of EventPacker::pack: the event's JSON text, as stored (for tests, tools and the
// collection service). Inflating stops, with tooLarge, once the text would pass `maxBytes`.
[[nodiscard]] std::expected<std::string, UnpackError> unpackEvent(
    std::string_view packed, std::size_t maxBytes = std::numeric_limits<std::size_t>::max());

}  // namespace verdalune::sessionreplay
