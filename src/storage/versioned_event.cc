#include "storage/versioned_event.h"

#include <rapidjson/document.h>
#include <zlib.h>

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>

#include "rrweb/coding.h"
#include "support/json_writer.h"

namespace verdalune::sessionreplay {
namespace {

// Appends `bytes`, each taken as the Latin-1 character of the same number, as a JSON string literal
// in UTF-8: 0x80 and above as two UTF-8 bytes, ASCII escaped as the JSON writer escapes it.
//
// Compressed bytes are close to random, so runs of plain ASCII are short; the loop writes through a
// pointer instead of appending runs.
// Each byte's text in the literal, as up to six characters in the low bytes of a word and their
// count in the top byte: from 0x80 up the two UTF-8 bytes of that Latin-1 character, below it the
// byte as the JSON writer escapes it.
constexpr std::array<std::uint64_t, 256> kLiteralText = [] {
  constexpr char kHex[] = "0123456789abcdef";
  std::array<std::uint64_t, 256> table{};
  for (unsigned byte = 0; byte < 256; ++byte) {
    char text[6] = {};
    std::size_t length = 0;
    const char escape = jsonEscapeFor(static_cast<unsigned char>(byte));
    if (byte >= 0x80) {
      text[length++] = static_cast<char>(0xC0 | (byte >> 6));
      text[length++] = static_cast<char>(0x80 | (byte & 0x3F));
    } else if (escape == 0) {
      text[length++] = static_cast<char>(byte);
    } else {
      text[length++] = '\\';
      text[length++] = escape;
      if (escape == 'u') {
        text[length++] = '0';
        text[length++] = '0';
        text[length++] = kHex[byte >> 4];
        text[length++] = kHex[byte & 0xF];
      }
    }
    std::uint64_t entry = static_cast<std::uint64_t>(length) << 56;
    for (std::size_t i = 0; i < length; ++i) {
      entry |= static_cast<std::uint64_t>(static_cast<unsigned char>(text[i])) << (8 * i);
    }
    table[byte] = entry;
  }
  return table;
}();

// Room for the literal of `size` bytes: six characters a byte at most, two quotes, and the slack that
// the last eight-byte store of writeLatin1Literal needs.
constexpr std::size_t literalCapacity(std::size_t size) {
  return size * 6 + 2 + 8;
}

// Writes `bytes`, each taken as the Latin-1 character of the same number, as a JSON string literal in
// UTF-8 at `out`; returns the end. Compressed bytes are close to random, so a branch per byte would
// mostly mispredict: every byte is one table load and one unaligned eight-byte store instead.
char* writeLatin1Literal(std::string_view bytes, char* out) {
  static_assert(std::endian::native == std::endian::little);
  *out++ = '"';
  for (const char c : bytes) {
    const std::uint64_t entry = kLiteralText[static_cast<unsigned char>(c)];
    std::memcpy(out, &entry, sizeof entry);
    out += entry >> 56;
  }
  *out++ = '"';
  return out;
}

}  // namespace

std::string describe(const PackFailure& failure) {
  if (const auto* json = std::get_if<JsonEncodingError>(&failure)) return json->description;
  switch (std::get<PackError>(failure)) {
    case PackError::couldNotBindSourceAddress:
      return "couldNotBindSourceAddress";
    case PackError::couldNotBindDestinationAddress:
      return "couldNotBindDestinationAddress";
    case PackError::failedToCompress:
      return "failedToCompress";
    case PackError::badEncoding:
      return "badEncoding";
  }
  return "unknown";
}

struct EventPacker::Deflater {
  z_stream stream{};
  bool ready = false;
};

void EventPacker::DeflaterDeleter::operator()(Deflater* deflater) const {
  if (deflater->ready) deflateEnd(&deflater->stream);
  delete deflater;
}

std::expected<void, PackFailure> EventPacker::writeJson(const rrweb::Event& event) {
  json_.clear();
  JsonWriter writer(json_);
  writer.beginObject();
  // Every key of an event sorts before "v", so the version goes last.
  rrweb::writeEventMembers(writer, event);
  writer.key("v");
  writer.string("v1");
  writer.endObject();
  if (!writer.ok()) return std::unexpected(JsonEncodingError{"event holds a number JSON cannot express"});
  return {};
}

std::expected<std::string, PackFailure> EventPacker::encode(const VersionedEvent& versioned) {
  if (auto written = writeJson(versioned.event); !written) return std::unexpected(written.error());
  return json_;
}

std::expected<std::string_view, PackFailure> EventPacker::pack(const rrweb::Event& event) {
  if (auto written = writeJson(event); !written) return std::unexpected(written.error());

  // The stored format promises a destination of four times the source; zlib's own bound is smaller
  // for anything but the tiniest input, and every event is larger than that.
  compressed_.resize(json_.size() * 4);
  if (!deflater_) {
    auto deflater = std::unique_ptr<Deflater, DeflaterDeleter>(new Deflater());
    // compress's own settings, so the bytes are the ones it makes.
    if (deflateInit(&deflater->stream, Z_DEFAULT_COMPRESSION) != Z_OK) {
      return std::unexpected(PackError::failedToCompress);
    }
    deflater->ready = true;
    deflater_ = std::move(deflater);
  } else if (deflateReset(&deflater_->stream) != Z_OK) {
    return std::unexpected(PackError::failedToCompress);
  }
  z_stream& stream = deflater_->stream;
  stream.next_in = reinterpret_cast<Bytef*>(json_.data());
  stream.avail_in = static_cast<uInt>(json_.size());
  stream.next_out = reinterpret_cast<Bytef*>(compressed_.data());
  stream.avail_out = static_cast<uInt>(compressed_.size());
  if (json_.size() > std::numeric_limits<uInt>::max() / 4 || deflate(&stream, Z_FINISH) != Z_STREAM_END) {
    return std::unexpected(PackError::failedToCompress);
  }
  const std::size_t compressedLength = stream.total_out;

  // The buffer keeps the worst case's room between calls, so only its first use touches new memory.
  const std::string_view bytes = std::string_view(compressed_).substr(0, compressedLength);
  literal_.resize_and_overwrite(literalCapacity(bytes.size()), [&](char* buffer, std::size_t) {
    return static_cast<std::size_t>(writeLatin1Literal(bytes, buffer) - buffer);
  });
  return std::string_view(literal_);
}

std::string_view describe(UnpackError error) {
  switch (error) {
    case UnpackError::notAStringLiteral:
      return "notAStringLiteral";
    case UnpackError::notLatin1:
      return "notLatin1";
    case UnpackError::inflateFailed:
      return "inflateFailed";
    case UnpackError::tooLarge:
      return "tooLarge";
  }
  return "unknown";
}

std::expected<std::string, UnpackError> unpackEvent(std::string_view packed, std::size_t maxBytes) {
  rapidjson::Document literal;
  literal.Parse<rapidjson::kParseValidateEncodingFlag>(packed.data(), packed.size());
  if (literal.HasParseError() || !literal.IsString()) return std::unexpected(UnpackError::notAStringLiteral);

  // UTF-8 back to the Latin-1 bytes it spells.
  const std::string_view text(literal.GetString(), literal.GetStringLength());
  std::string compressed;
  compressed.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto lead = static_cast<unsigned char>(text[i]);
    if (lead < 0x80) {
      compressed.push_back(static_cast<char>(lead));
    } else if ((lead == 0xC2 || lead == 0xC3) && i + 1 < text.size()) {
      compressed.push_back(static_cast<char>(((lead & 0x03) << 6) | (text[++i] & 0x3F)));
    } else {
      return std::unexpected(UnpackError::notLatin1);
    }
  }

  z_stream stream{};
  if (inflateInit(&stream) != Z_OK) return std::unexpected(UnpackError::inflateFailed);
  stream.next_in = reinterpret_cast<Bytef*>(compressed.data());
  stream.avail_in = static_cast<uInt>(compressed.size());
  std::string json;
  int status = Z_OK;
  while (status == Z_OK) {
    const std::size_t written = json.size();
    if (written > maxBytes) break;
    // Grown a piece at a time, and never more than a byte past the limit, so that a small stream that
    // inflates enormously is caught before it is held.
    const std::size_t step = std::max<std::size_t>(compressed.size() * 4, 4096);
    json.resize(written + std::min(step - 1, maxBytes - written) + 1);
    stream.next_out = reinterpret_cast<Bytef*>(json.data() + written);
    stream.avail_out = static_cast<uInt>(json.size() - written);
    status = inflate(&stream, Z_NO_FLUSH);
    json.resize(json.size() - stream.avail_out);
  }
  inflateEnd(&stream);
  if (json.size() > maxBytes) return std::unexpected(UnpackError::tooLarge);
  if (status != Z_STREAM_END || stream.avail_in != 0) return std::unexpected(UnpackError::inflateFailed);
  return json;
}

}  // namespace verdalune::sessionreplay
