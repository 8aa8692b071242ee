#include "storage/persistent_storage.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <optional>

#include "support/files.h"

namespace verdalune::sessionreplay {
namespace {

constexpr std::string_view kFolderName = "com.verdalune.sessionreplay";
constexpr std::string_view kExtension = ".replay";

std::unexpected<std::error_code> failure(int number = errno) {
  return std::unexpected(systemError(number));
}

bool parseInteger(std::string_view text, std::int64_t& value) {
  if (text.empty()) return false;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc{} && end == text.data() + text.size();
}

// Names on disk hold these bytes as they are and every other byte as "%XX" (upper-case hex), so that a
// device id or API key can never reach another folder ('/', ".."), fail to name a file, or read back as
// something else. '_' stays as it is: a block name is split at its last two underscores, and the numbers
// after them hold none.
bool isSafe(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~';
}

std::string encodeName(std::string_view text) {
  constexpr std::string_view kHex = "0123456789ABCDEF";
  std::string encoded;
  for (const char c : text) {
    if (isSafe(c)) {
      encoded.push_back(c);
    } else {
      const auto byte = static_cast<unsigned char>(c);
      encoded += {'%', kHex[byte >> 4], kHex[byte & 0xF]};
    }
  }
  return encoded;
}

std::optional<std::string> decodeName(std::string_view text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      decoded.push_back(text[i]);
      continue;
    }
    unsigned value = 0;
    if (i + 2 >= text.size()) return std::nullopt;
    const auto [end, error] = std::from_chars(text.data() + i + 1, text.data() + i + 3, value, 16);
    if (error != std::errc{} || end != text.data() + i + 3) return std::nullopt;
    decoded.push_back(static_cast<char>(value));
    i += 2;
  }
  return decoded;
}

// The folder of an API key: its encoded form, with "." and ".." spelled out so that they name a folder.
std::string folderName(std::string_view apiKey) {
  std::string name = encodeName(apiKey);
  if (name == "." || name == "..") name = name == "." ? "%2E" : "%2E%2E";
  return name;
}

bool isPlainFolderName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

StorageResult<void> makeDirectory(const std::filesystem::path& path) {
  if (::mkdir(path.c_str(), 0700) == 0 || errno == EEXIST) return {};
  return failure();
}

}  // namespace

StorageResult<BlockIdentity> parseBlockFileName(std::string_view fileName) {
  const auto unreadable = std::unexpected(make_error_code(StorageError::unreadableName));
  if (!fileName.ends_with(kExtension)) return unreadable;
  const std::string_view stem = fileName.substr(0, fileName.size() - kExtension.size());
  const std::size_t last = stem.rfind('_');
  if (last == std::string_view::npos || last == 0) return unreadable;
  const std::size_t middle = stem.rfind('_', last - 1);
  if (middle == std::string_view::npos || middle == 0) return unreadable;

  BlockIdentity identity;
  // A name is read as encoded only when it is exactly how its decoded device id is written; any other
  // name is one from before device ids were encoded, whose id is the name as it stands.
  const std::string_view device = stem.substr(0, middle);
  const auto decoded = decodeName(device);
  identity.deviceId = decoded && encodeName(*decoded) == device ? *decoded : std::string(device);
  if (!parseInteger(stem.substr(middle + 1, last - middle - 1), identity.sessionId) ||
      !parseInteger(stem.substr(last + 1), identity.sequenceNumber)) {
    return unreadable;
  }
  return identity;
}

std::string blockFileName(const BlockIdentity& identity) {
  return encodeName(identity.deviceId) + "_" + std::to_string(identity.sessionId) + "_" +
         std::to_string(identity.sequenceNumber) + std::string(kExtension);
}

PersistentStorage::PersistentStorage(std::string apiKey, std::filesystem::path applicationSupportDirectory)
    : apiKey_(std::move(apiKey)), folder_(applicationSupportDirectory / kFolderName / folderName(apiKey_)) {
  // Before API keys were encoded, a key that named a folder as it stood was used as it stood: its blocks
  // stay where they are.
  const auto unencoded = applicationSupportDirectory / kFolderName / apiKey_;
  std::error_code error;
  if (isPlainFolderName(apiKey_) && unencoded != folder_ && std::filesystem::is_directory(unencoded, error) &&
      !std::filesystem::exists(folder_, error)) {
    folder_ = unencoded;
  }
}

StorageResult<void> PersistentStorage::createFolder() const {
  if (apiKey_.empty()) return std::unexpected(make_error_code(StorageError::invalidFolderName));
  // Application support may itself be missing on a fresh install.
  std::error_code error;
  std::filesystem::create_directories(folder_.parent_path().parent_path(), error);
  if (error) return std::unexpected(error);
  if (auto made = makeDirectory(folder_.parent_path()); !made) return made;
  return makeDirectory(folder_);
}

StorageResult<std::vector<PersistentStorage::Block>> PersistentStorage::blocks() const {
  std::vector<Block> files;
  std::error_code error;
  std::filesystem::directory_iterator entries(folder_, error);
  if (error == std::errc::no_such_file_or_directory) return files;
  if (error) return std::unexpected(error);
  for (const auto& entry : entries) {
    if (entry.is_regular_file(error)) files.push_back(entry.path());
  }
  std::ranges::sort(files);
  return files;
}

StorageResult<BlockIdentity> PersistentStorage::identity(const Block& block) const {
  return parseBlockFileName(block.filename().string());
}

StorageResult<PersistentStorage::Block> PersistentStorage::create(const BlockIdentity& identity) const {
  if (auto made = createFolder(); !made) return std::unexpected(made.error());
  return folder_ / blockFileName(identity);
}

StorageResult<PersistentStorage::OutputStream> PersistentStorage::openOutputStream(const Block& block) const {
  const bool existed = ::access(block.c_str(), F_OK) == 0;
  const int file = ::open(block.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (file < 0) return failure();
  // A new file's name is only durable once its folder is synced; a failure here loses nothing that
  // the sync of the file at close would keep, so it is not reported.
  if (!existed) (void)syncFolder(block.parent_path());
  return FileOutputStream(file);
}

StorageResult<std::string> PersistentStorage::read(const Block& block) const {
  return readWholeFile(block);
}

StorageResult<std::uint64_t> PersistentStorage::size(const Block& block) const {
  std::error_code error;
  const std::uintmax_t bytes = std::filesystem::file_size(block, error);
  if (error) return std::unexpected(error);
  return static_cast<std::uint64_t>(bytes);
}

StorageResult<void> PersistentStorage::remove(const Block& block) const {
  if (::unlink(block.c_str()) != 0) return failure();
  return {};
}

PersistentStorage::FileOutputStream& PersistentStorage::FileOutputStream::operator=(
    FileOutputStream&& other) noexcept {
  if (this != &other) {
    (void)close();
    fileHandle_ = std::exchange(other.fileHandle_, -1);
  }
  return *this;
}

PersistentStorage::FileOutputStream::~FileOutputStream() {
  (void)close();
}

StorageResult<void> PersistentStorage::FileOutputStream::write(std::span<const std::uint8_t> bytes) {
  if (fileHandle_ < 0) return failure(EBADF);
  while (!bytes.empty()) {
    const ssize_t count = ::write(fileHandle_, bytes.data(), bytes.size());
    if (count < 0) {
      if (errno == EINTR) continue;
      return failure();
    }
    bytes = bytes.subspan(static_cast<std::size_t>(count));
  }
  return {};
}

StorageResult<void> PersistentStorage::FileOutputStream::close() {
  if (fileHandle_ < 0) return {};
  const int file = std::exchange(fileHandle_, -1);
  const bool synced = ::fsync(file) == 0;
  const int syncError = errno;
  if (::close(file) != 0) return failure();
  if (!synced) return failure(syncError);
  return {};
}

}  // namespace verdalune::sessionreplay
