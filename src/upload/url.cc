#include "upload/url.h"

#include <cctype>
#include <charconv>

namespace verdalune::sessionreplay {
namespace {

bool isUnreserved(unsigned char c) {
  return std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~';
}

// Printable ASCII but for the characters no URL may hold unescaped, and well-formed escapes.
bool isUrlText(std::string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c <= 0x20 || c >= 0x7F || c == '"' || c == '<' || c == '>' || c == '\\' || c == '^' || c == '`' ||
        c == '{' || c == '|' || c == '}') {
      return false;
    }
    if (c == '%' && (i + 2 >= text.size() || !std::isxdigit(static_cast<unsigned char>(text[i + 1])) ||
                     !std::isxdigit(static_cast<unsigned char>(text[i + 2])))) {
      return false;
    }
  }
  return true;
}

bool isScheme(std::string_view text) {
  if (text.empty() || !std::isalpha(static_cast<unsigned char>(text.front()))) return false;
  for (const char c : text) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '+' && c != '-' && c != '.') return false;
  }
  return true;
}

}  // namespace

std::string percentEncoded(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (isUnreserved(byte)) {
      out.push_back(c);
    } else {
      out.push_back('%');
      out.push_back(kHex[byte >> 4]);
      out.push_back(kHex[byte & 0xF]);
    }
  }
  return out;
}

std::optional<UrlComponents> UrlComponents::parse(std::string_view text) {
  if (!isUrlText(text)) return std::nullopt;
  UrlComponents parts;
  if (const auto hash = text.find('#'); hash != std::string_view::npos) text = text.substr(0, hash);
  // The query the endpoint came with is replaced by the items the request sets.
  if (const auto question = text.find('?'); question != std::string_view::npos)
    text = text.substr(0, question);

  if (const auto colon = text.find(':'); colon != std::string_view::npos && isScheme(text.substr(0, colon))) {
    parts.scheme = std::string(text.substr(0, colon));
    text.remove_prefix(colon + 1);
  }
  if (text.starts_with("//")) {
    text.remove_prefix(2);
    const auto slash = text.find('/');
    std::string_view authority = text.substr(0, slash);
    text = slash == std::string_view::npos ? std::string_view() : text.substr(slash);
    if (const auto at = authority.rfind('@'); at != std::string_view::npos) authority.remove_prefix(at + 1);
    if (const auto colon = authority.rfind(':');
        colon != std::string_view::npos && !authority.ends_with(']')) {
      const std::string_view portText = authority.substr(colon + 1);
      int port = 0;
      if (!portText.empty()) {
        const auto [end, error] = std::from_chars(portText.data(), portText.data() + portText.size(), port);
        if (error != std::errc{} || end != portText.data() + portText.size() || port < 0 || port > 65535) {
          return std::nullopt;
        }
        parts.port = port;
      }
      authority = authority.substr(0, colon);
    }
    parts.host = std::string(authority);
  }
  parts.path = std::string(text);
  return parts;
}

std::optional<std::string> UrlComponents::url() const {
  if (scheme.empty()) return std::nullopt;
  if (host && !path.empty() && !path.starts_with('/')) return std::nullopt;
  // Appended piece by piece: no temporary strings, and none of the `"literal" + std::string` inserts at the
  // front that g++ 12 at -O3 misreads as overlapping copies.
  std::string out = scheme;
  out += ':';
  if (host) {
    out += "//";
    out += *host;
    if (port) {
      out += ':';
      out += std::to_string(*port);
    }
  }
  out += path;
  for (std::size_t i = 0; i < queryItems.size(); ++i) {
    out += i == 0 ? '?' : '&';
    out += percentEncoded(queryItems[i].first);
    out += '=';
    out += percentEncoded(queryItems[i].second);
  }
  return out;
}

}  // namespace verdalune::sessionreplay
