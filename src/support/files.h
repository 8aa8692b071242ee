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

}  // namespace verdalune::sessionreplay
