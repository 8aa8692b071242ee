#include "storage/block_store.h"

namespace verdalune::sessionreplay {
namespace {

bool isValidUtf8(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size()) {
    const auto lead = static_cast<unsigned char>(text[i]);
    std::size_t length = 1;
    std::uint32_t codePoint = lead;
    if (lead >= 0xF0 && lead <= 0xF4) {
      length = 4;
      codePoint = lead & 0x07;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      length = 3;
      codePoint = lead & 0x0F;
    } else if (lead >= 0xC2 && lead <= 0xDF) {
      length = 2;
      codePoint = lead & 0x1F;
    } else if (lead >= 0x80) {
      return false;
    }
    if (i + length > text.size()) return false;
    for (std::size_t k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      codePoint = (codePoint << 6) | (next & 0x3F);
    }
    // Overlong forms, surrogates and code points past U+10FFFF.
    if ((length == 3 && (codePoint < 0x800 || (codePoint >= 0xD800 && codePoint <= 0xDFFF))) ||
        (length == 4 && (codePoint < 0x10000 || codePoint > 0x10FFFF))) {
      return false;
    }
    i += length;
  }
  return true;
}

// A quote, then anything with every quote escaped, then the closing quote.
bool isWholeStringLiteral(std::string_view text) {
  if (text.size() < 2 || text.front() != '"' || text.back() != '"') return false;
  for (std::size_t i = 1; i + 1 < text.size(); ++i) {
    if (text[i] == '\\') {
      ++i;
      if (i + 1 == text.size()) return false;  // the closing quote was escaped
    } else if (text[i] == '"') {
      return false;
    }
  }
  return true;
}

class StorageCategory final : public std::error_category {
 public:
  const char* name() const noexcept override { return "verdalune.storage"; }
  std::string message(int value) const override {
    switch (static_cast<StorageError>(value)) {
      case StorageError::notFound:
        return "notFound";
      case StorageError::deallocated:
        return "deallocated";
      case StorageError::unreadableName:
        return "block name is not <device>_<session>_<sequence>.replay";
      case StorageError::invalidFolderName:
        return "API key cannot name a folder";
    }
    return "unknown storage error";
  }
};

}  // namespace

const std::error_category& storageCategory() {
  static const StorageCategory category;
  return category;
}

std::vector<std::string> packedEventsFromBlock(std::string_view bytes) {
  std::vector<std::string> events;
  std::size_t start = 0;
  while (start < bytes.size()) {
    const std::size_t end = bytes.find('\n', start);
    if (end == std::string_view::npos) break;  // torn last record
    const std::string_view record = bytes.substr(start, end - start);
    if (!record.empty() && isValidUtf8(record) && isWholeStringLiteral(record)) events.emplace_back(record);
    start = end + 1;
  }
  return events;
}

}  // namespace verdalune::sessionreplay
