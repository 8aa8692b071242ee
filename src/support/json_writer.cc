#include "support/json_writer.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace verdalune::sessionreplay {
namespace {

// jsonEscapeFor as a table, for the scanning loops.
constexpr std::array<char, 256> makeEscapeTable() {
  std::array<char, 256> table{};
  for (int c = 0; c < 256; ++c) table[c] = jsonEscapeFor(static_cast<unsigned char>(c));
  return table;
}
constexpr std::array<char, 256> kEscape = makeEscapeTable();

// Event JSON is mostly long runs of CSS that need no escaping, and copying it is most of the cost of
// writing; so text is copied sixteen bytes at a time while the same bytes are checked for a control
// character, '"', '\\' or '/'. Returns the index of the first such byte in p[0..16), or 16.
#if defined(__SSE2__)
inline unsigned firstSpecialOf16(const char* p, char* copy) {
  const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(copy), bytes);
  const __m128i control = _mm_cmpeq_epi8(_mm_min_epu8(bytes, _mm_set1_epi8(0x1F)), bytes);
  const __m128i special = _mm_or_si128(
      _mm_or_si128(control, _mm_cmpeq_epi8(bytes, _mm_set1_epi8('"'))),
      _mm_or_si128(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('\\')), _mm_cmpeq_epi8(bytes, _mm_set1_epi8('/'))));
  const int mask = _mm_movemask_epi8(special);
  return mask == 0 ? 16 : static_cast<unsigned>(__builtin_ctz(mask));
}
#else
constexpr std::uint64_t kOnes = 0x0101010101010101ull;
constexpr std::uint64_t kHighBits = 0x8080808080808080ull;

constexpr std::uint64_t zeroByteMask(std::uint64_t word) {
  return (word - kOnes) & ~word & kHighBits;
}

inline unsigned firstSpecialOf16(const char* p, char* copy) {
  static_assert(std::endian::native == std::endian::little);
  std::memcpy(copy, p, 16);
  for (unsigned half = 0; half < 16; half += 8) {
    std::uint64_t word;
    std::memcpy(&word, p + half, 8);
    const std::uint64_t special = ((word - kOnes * 0x20) & ~word & kHighBits) |  // a byte below 0x20
                                  zeroByteMask(word ^ (kOnes * '"')) | zeroByteMask(word ^ (kOnes * '\\')) |
                                  zeroByteMask(word ^ (kOnes * '/'));
    if (special != 0) return half + static_cast<unsigned>(__builtin_ctzll(special)) / 8;
  }
  return 16;
}
#endif

// Writes `value` escaped at `out`, which has room for kMaxEscapedLength times its size; returns the end.
constexpr std::size_t kMaxEscapedLength = 6;  // \u00XX

char* writeEscaped(std::string_view value, char* out) {
  static constexpr char kHex[] = "0123456789abcdef";
  const char* p = value.data();
  const char* const end = p + value.size();
  for (;;) {
    if (end - p >= 16) {
      // The copy may run past a special byte; what follows it is written again below.
      const unsigned plain = firstSpecialOf16(p, out);
      p += plain;
      out += plain;
      if (plain == 16) continue;
    } else {
      while (p != end && kEscape[static_cast<unsigned char>(*p)] == 0) *out++ = *p++;
      if (p == end) return out;
    }
    const auto byte = static_cast<unsigned char>(*p++);
    const char escape = kEscape[byte];
    *out++ = '\\';
    *out++ = escape;
    if (escape == 'u') {
      *out++ = '0';
      *out++ = '0';
      *out++ = kHex[byte >> 4];
      *out++ = kHex[byte & 0xF];
    }
  }
}

template <typename T>
bool appendShortest(std::string& out, T value) {
  if (!std::isfinite(value)) return false;
  char buffer[32];
  auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, value);
  if (error != std::errc{}) return false;
  out.append(buffer, end);
  return true;
}

}  // namespace

void appendJsonString(std::string& out, std::string_view value) {
  out.push_back('"');
  appendJsonStringContent(out, value);
  out.push_back('"');
}

void appendJsonStringContent(std::string& out, std::string_view value) {
  const std::size_t start = out.size();
  out.resize_and_overwrite(start + value.size() * kMaxEscapedLength, [&](char* buffer, std::size_t) {
    return static_cast<std::size_t>(writeEscaped(value, buffer + start) - buffer);
  });
}

bool appendShortestNumber(std::string& out, double value) {
  return appendShortest(out, value);
}
bool appendShortestNumber(std::string& out, float value) {
  return appendShortest(out, value);
}

void JsonWriter::separate() {
  if (needsComma_) out_.push_back(',');
  needsComma_ = true;
}

void JsonWriter::beginObject() {
  separate();
  out_.push_back('{');
  needsComma_ = false;
}

void JsonWriter::endObject() {
  out_.push_back('}');
  needsComma_ = true;
}

void JsonWriter::beginArray() {
  separate();
  out_.push_back('[');
  needsComma_ = false;
}

void JsonWriter::endArray() {
  out_.push_back(']');
  needsComma_ = true;
}

template <typename Fill>
void JsonWriter::append(std::size_t maxLength, Fill&& fill) {
  const bool comma = std::exchange(needsComma_, true);
  const std::size_t start = out_.size();
  out_.resize_and_overwrite(start + maxLength + 1, [&](char* buffer, std::size_t) {
    char* p = buffer + start;
    if (comma) *p++ = ',';
    return static_cast<std::size_t>(fill(p) - buffer);
  });
}

void JsonWriter::key(std::string_view name) {
  writeString(name);
  out_.push_back(':');
  needsComma_ = false;
}

void JsonWriter::plainKey(std::string_view name) {
  append(name.size() + 3, [name](char* p) {
    *p++ = '"';
    p = std::copy(name.begin(), name.end(), p);
    *p++ = '"';
    *p++ = ':';
    return p;
  });
  needsComma_ = false;
}

void JsonWriter::string(std::string_view value) {
  writeString(value);
}

void JsonWriter::writeString(std::string_view value) {
  append(value.size() * kMaxEscapedLength + 2, [value](char* p) {
    *p++ = '"';
    p = writeEscaped(value, p);
    *p++ = '"';
    return p;
  });
}

void JsonWriter::integer(std::int64_t value) {
  // 20 characters hold any 64-bit integer with its sign.
  append(20, [value](char* p) { return std::to_chars(p, p + 20, value).ptr; });
}

void JsonWriter::number(double value) {
  separate();
  if (!appendShortestNumber(out_, value)) {
    out_.append("null");
    ok_ = false;
  }
}

void JsonWriter::number(float value) {
  separate();
  if (!appendShortestNumber(out_, value)) {
    out_.append("null");
    ok_ = false;
  }
}

void JsonWriter::boolean(bool value) {
  separate();
  out_.append(value ? "true" : "false");
}

void JsonWriter::null() {
  separate();
  out_.append("null");
}

void JsonWriter::raw(std::string_view json) {
  separate();
  out_.append(json);
}

}  // namespace verdalune::sessionreplay
