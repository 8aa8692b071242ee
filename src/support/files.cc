#include "support/files.h"

#include <fcntl.h>
#include <unistd.h>

namespace verdalune::sessionreplay {

std::expected<std::string, std::error_code> readWholeFile(const std::filesystem::path& path) {
  const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return std::unexpected(systemError());
  std::string contents;
  char buffer[1 << 16];
  for (;;) {
    const ssize_t count = ::read(file, buffer, sizeof buffer);
    if (count == 0) break;
    if (count < 0) {
      if (errno == EINTR) continue;
      const std::error_code error = systemError();
      ::close(file);
      return std::unexpected(error);
    }
    contents.append(buffer, static_cast<std::size_t>(count));
  }
  ::close(file);
  return contents;
}

std::expected<void, std::error_code> syncFolder(const std::filesystem::path& folder) {
  const int file = ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (file < 0) return std::unexpected(systemError());
  const int result = ::fsync(file);
  const std::error_code error = systemError();
  ::close(file);
  if (result != 0) return std::unexpected(error);
  return {};
}

}  // namespace verdalune::sessionreplay
