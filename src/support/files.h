#pragma once

#include <cerrno>
#include <expected>
#include <filesystem>
#include <string>
#include <system_error>

namespace verdalune::sessionreplay {

// The one place a failed system call's errno becomes an error value.
[[nodiscard]] inline std::error_code systemError(int number = errno) {
  return {number, std::generic_category()};
}

// The whole file, read with retries on interruption; a missing file is the ENOENT error.
[[nodiscard]] std::expected<std::string, std::error_code> readWholeFile(const std::filesystem::path& path);

// Syncs a folder, so that names created or renamed in it survive a power loss; "" is the working folder.
[[nodiscard]] std::expected<void, std::error_code> syncFolder(const std::filesystem::path& folder);

}  // namespace verdalune::sessionreplay
