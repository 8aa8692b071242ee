#include "support/base64.h"

#include <array>

namespace verdalune::sessionreplay {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::int8_t kInvalid = -1;

constexpr std::array<std::int8_t, 256> makeDecodeTable() {
  std::array<std::int8_t, 256> table{};
  table.fill(kInvalid);
  for (int i = 0; i < 64; ++i) table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::int8_t>(i);
  return table;
}
constexpr std::array<std::int8_t, 256> kDecode = makeDecodeTable();

}  // namespace

std::string base64Encode(std::span<const std::uint8_t> bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const std::uint32_t group = bytes[i] << 16 | bytes[i + 1] << 8 | bytes[i + 2];
    out.push_back(kAlphabet[group >> 18]);
    out.push_back(kAlphabet[group >> 12 & 0x3F]);
    out.push_back(kAlphabet[group >> 6 & 0x3F]);
    out.push_back(kAlphabet[group & 0x3F]);
  }
  const std::size_t rest = bytes.size() - i;
  if (rest > 0) {
    const std::uint32_t group = bytes[i] << 16 | (rest == 2 ? bytes[i + 1] << 8 : 0);
    out.push_back(kAlphabet[group >> 18]);
    out.push_back(kAlphabet[group >> 12 & 0x3F]);
    out.push_back(rest == 2 ? kAlphabet[group >> 6 & 0x3F] : '=');
    out.push_back('=');
  }
  return out;
}

std::optional<std::vector<std::uint8_t>> base64Decode(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  std::size_t padding = 0;
  if (!text.empty() && text.back() == '=') padding = text[text.size() - 2] == '=' ? 2 : 1;

  std::vector<std::uint8_t> out;
  out.reserve(text.size() / 4 * 3);
  const std::size_t dataLength = text.size() - padding;
  std::uint32_t group = 0;
  for (std::size_t i = 0; i < dataLength; ++i) {
    const std::int8_t value = kDecode[static_cast<unsigned char>(text[i])];
    if (value == kInvalid) return std::nullopt;
    group = group << 6 | static_cast<std::uint32_t>(value);
    if (i % 4 == 3) {
      out.push_back(static_cast<std::uint8_t>(group >> 16));
      out.push_back(static_cast<std::uint8_t>(group >> 8));
      out.push_back(static_cast<std::uint8_t>(group));
      group = 0;
    }
  }
  // A padded quantum holds one byte in 12 bits or two bytes in 18; the bits left over must be zero,
  // or two texts would decode to the same bytes.
  if (padding == 2) {
    if ((group & 0xF) != 0) return std::nullopt;
    out.push_back(static_cast<std::uint8_t>(group >> 4));
  } else if (padding == 1) {
    if ((group & 0x3) != 0) return std::nullopt;
    out.push_back(static_cast<std::uint8_t>(group >> 10));
    out.push_back(static_cast<std::uint8_t>(group >> 2));
  }
  return out;
}

}  // namespace verdalune::sessionreplay
