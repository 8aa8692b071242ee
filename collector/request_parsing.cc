#include "request_parsing.h"

#include <rapidjson/document.h>

#include <cctype>
#include <charconv>

#include "rrweb/coding.h"

namespace verdalune::sessionreplay::collector {
namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The `count` hex digits at `at`, none when the text ends first or a character is not a hex digit.
std::optional<int> hexAt(std::string_view text, std::size_t at, std::size_t count) {
  if (at > text.size() || text.size() - at < count) return std::nullopt;
  int value = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const int digit = hexValue(text[at + i]);
    if (digit < 0) return std::nullopt;
    value = value * 16 + digit;
  }
  return value;
}

// U+0000 to U+FFFF as UTF-8; surrogates, which no UTF-8 text holds, as nothing.
void appendUtf8(std::string& out, int code) {
  if (code < 0x80) {
    out += static_cast<char>(code);
  } else if (code < 0x800) {
    out += static_cast<char>(0xC0 | (code >> 6));
    out += static_cast<char>(0x80 | (code & 0x3F));
  } else if (code < 0xD800 || code >= 0xE000) {
    out += static_cast<char>(0xE0 | (code >> 12));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (code & 0x3F));
  }
}

// Whether the text is UTF-8 without control characters, so that it can go into JSON answers, pages and
// log lines as it is.
bool isPrintableUtf8(std::string_view text) {
  for (std::size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    if (lead < 0x20 || lead == 0x7F) return false;
    const std::size_t length = lead < 0x80           ? 1
                               : (lead >> 5) == 0x6  ? 2
                               : (lead >> 4) == 0xE  ? 3
                               : (lead >> 3) == 0x1E ? 4
                                                     : 0;
    if (length == 0 || text.size() - i < length) return false;
    std::uint32_t code = length == 1 ? lead : lead & (0x7F >> length);
    for (std::size_t k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      code = (code << 6) | (next & 0x3F);
    }
    // Overlong forms, surrogates and values past U+10FFFF are not UTF-8.
    constexpr std::uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < kSmallest[length] || (code >= 0xD800 && code < 0xE000) || code > 0x10FFFF) return false;
    i += length;
  }
  return true;
}

std::expected<std::string, std::string> required(const QueryItems& items, std::string_view name) {
  auto value = single(items, name);
  if (!value) return std::unexpected(value.error());
  if (!*value) return std::unexpected("missing " + std::string(name));
  return std::move(**value);
}

std::expected<FaultRequest, std::string> faultOf(const rapidjson::Value& value) {
  if (!value.IsObject()) return std::unexpected("each fault is an object");
  FaultRequest fault;
  for (const auto& member : value.GetObject()) {
    const std::string_view name(member.name.GetString(), member.name.GetStringLength());
    if (name == "status" && member.value.IsInt() && member.value.GetInt() >= 100 &&
        member.value.GetInt() <= 599) {
      fault.status = member.value.GetInt();
    } else if (name == "delay_ms" && member.value.IsInt() && member.value.GetInt() >= 0 &&
               member.value.GetInt() <= kMaxFaultDelayMs) {
      fault.delayMs = member.value.GetInt();
    } else if (name == "drop" && member.value.IsBool()) {
      fault.drop = member.value.GetBool();
    } else {
      return std::unexpected("bad fault member \"" + std::string(name) + "\" (status 100-599, delay_ms 0-" +
                             std::to_string(kMaxFaultDelayMs) + ", drop true/false)");
    }
  }
  return fault;
}

}  // namespace

std::string decodeQueryComponent(std::string_view text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%' || i + 1 == text.size()) {
      decoded += text[i];
    } else if (text[i + 1] == 'u') {
      const auto code = hexAt(text, i + 2, 4);
      if (!code) {
        decoded += text[i];
        continue;
      }
      appendUtf8(decoded, *code);
      i += 5;
    } else {
      const auto byte = hexAt(text, i + 1, 2);
      if (!byte) {
        decoded += text[i];
        continue;
      }
      decoded += static_cast<char>(*byte);
      i += 2;
    }
  }
  return decoded;
}

QueryItems parseQuery(std::string_view query) {
  QueryItems items;
  while (!query.empty()) {
    const auto amp = query.find('&');
    const std::string_view item = query.substr(0, amp);
    query = amp == std::string_view::npos ? std::string_view() : query.substr(amp + 1);
    if (item.empty()) continue;
    const auto equals = item.find('=');
    const auto name = item.substr(0, equals);
    const auto value = equals == std::string_view::npos ? std::string_view() : item.substr(equals + 1);
    items.emplace_back(decodeQueryComponent(name), decodeQueryComponent(value));
  }
  return items;
}

std::expected<std::optional<std::string>, std::string> single(const QueryItems& items,
                                                              std::string_view name) {
  std::optional<std::string> found;
  for (const auto& [key, value] : items) {
    if (key != name) continue;
    if (found) return std::unexpected(std::string(name) + " is given twice");
    found = value;
  }
  return found;
}

std::expected<std::int64_t, std::string> parseInt64(std::string_view text, std::string_view name) {
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc{} || end != text.data() + text.size())
    return std::unexpected(std::string(name) + " is not a decimal 64-bit integer");
  return value;
}

std::expected<BlockKey, std::string> blockKeyOf(const QueryItems& query, std::string apiKey) {
  auto deviceId = required(query, "device_id");
  if (!deviceId) return std::unexpected(deviceId.error());
  if (deviceId->empty()) return std::unexpected("device_id is empty");
  if (!isPrintableUtf8(*deviceId))
    return std::unexpected("device_id is not UTF-8 text without control characters");
  auto sessionText = required(query, "session_id");
  if (!sessionText) return std::unexpected(sessionText.error());
  auto sessionId = parseInt64(*sessionText, "session_id");
  if (!sessionId) return std::unexpected(sessionId.error());
  if (*sessionId < 0) return std::unexpected("session_id is negative");
  auto sequenceText = required(query, "seq_number");
  if (!sequenceText) return std::unexpected(sequenceText.error());
  auto sequenceNumber = parseInt64(*sequenceText, "seq_number");
  if (!sequenceNumber) return std::unexpected(sequenceNumber.error());
  if (*sequenceNumber < 0) return std::unexpected("seq_number is negative");
  auto translation = required(query, "mobile_translation");
  if (!translation) return std::unexpected(translation.error());
  if (*translation != "true" && *translation != "false")
    return std::unexpected("mobile_translation is neither true nor false");
  return BlockKey{std::move(apiKey), std::move(*deviceId), *sessionId, *sequenceNumber};
}

std::optional<std::string> bearerKeyOf(std::string_view authorization) {
  constexpr std::string_view scheme = "bearer ";
  if (authorization.size() <= scheme.size()) return std::nullopt;
  for (std::size_t i = 0; i < scheme.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(authorization[i])) != scheme[i]) return std::nullopt;
  }
  return std::string(authorization.substr(scheme.size()));
}

bool isJsonContentType(std::string_view contentType) {
  const std::string_view mediaType = contentType.substr(0, contentType.find(';'));
  return mediaType == "application/json";
}

std::expected<SessionRoute, std::string> sessionRouteOf(std::string_view deviceId,
                                                        std::string_view sessionText) {
  const auto sessionId = parseInt64(sessionText, "the session id");
  if (!sessionId) return std::unexpected(sessionId.error());
  return SessionRoute{std::string(deviceId), *sessionId};
}

std::expected<SessionEventsQuery, std::string> sessionEventsQueryOf(const QueryItems& query) {
  auto project = single(query, "project");
  if (!project) return std::unexpected(project.error());
  const auto form = single(query, "as");
  if (!form) return std::unexpected(form.error());
  return SessionEventsQuery{std::move(*project), *form == "text"};
}

std::expected<std::vector<FaultRequest>, std::string> parseFaults(std::string_view body) {
  rapidjson::Document document;
  if (auto parsed = rrweb::parseJson(body, document); !parsed)
    return std::unexpected(parsed.error().description);
  if (!document.IsArray()) return std::unexpected("faults are a JSON array");
  std::vector<FaultRequest> faults;
  for (const auto& element : document.GetArray()) {
    auto fault = faultOf(element);
    if (!fault) return std::unexpected(std::move(fault.error()));
    faults.push_back(*fault);
  }
  return faults;
}

}  // namespace verdalune::sessionreplay::collector
