#pragma once

#include <concepts>
#include <cstdint>
#include <expected>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace verdalune::sessionreplay {

// Which recording a block belongs to and where it stands in it. Numbering starts at 1 per session.
struct BlockIdentity {
  std::string deviceId;
  std::int64_t sessionId = 0;
  std::int64_t sequenceNumber = 0;

  auto operator<=>(const BlockIdentity&) const = default;
};

// Failures of the block stores. File errors keep their system error number (std::generic_category);
// the stores' own failures use these codes, in a category of their own.
enum class StorageError {
  notFound = 1,      // no block with that identity
  deallocated,       // the store behind an output stream is gone
  unreadableName,    // a block file whose name is not "<device>_<session>_<sequence>.replay"
  invalidFolderName  // an API key that cannot name a folder (the empty one)
};

[[nodiscard]] const std::error_category& storageCategory();
[[nodiscard]] inline std::error_code make_error_code(StorageError error) {
  return {static_cast<int>(error), storageCategory()};
}

template <typename T>
using StorageResult = std::expected<T, std::error_code>;

// What the storage coordinator needs of a block store: blocks it can list, name, create, append to
// through an output stream, measure, read whole and remove. A block is a value the store understands (a path,
// an identity); the store says what it is called in log lines through describe().
template <typename S>
concept BlockStore = requires(S& store, const typename S::Block& block, const BlockIdentity& identity,
                              typename S::OutputStream& stream, std::span<const std::uint8_t> bytes) {
  { store.blocks() } -> std::same_as<StorageResult<std::vector<typename S::Block>>>;
  { store.identity(block) } -> std::same_as<StorageResult<BlockIdentity>>;
  { store.create(identity) } -> std::same_as<StorageResult<typename S::Block>>;
  { store.openOutputStream(block) } -> std::same_as<StorageResult<typename S::OutputStream>>;
  { store.read(block) } -> std::same_as<StorageResult<std::string>>;
  { store.size(block) } -> std::same_as<StorageResult<std::uint64_t>>;
  { store.remove(block) } -> std::same_as<StorageResult<void>>;
  { store.describe(block) } -> std::same_as<std::string>;
  { stream.write(bytes) } -> std::same_as<StorageResult<void>>;
  { stream.close() } -> std::same_as<StorageResult<void>>;
};

// The packed events of a block's bytes, in the order they were written: records end with a line feed;
// empty records and records that are not valid UTF-8 are skipped. A last record without its line feed
// was cut short by a crash in the middle of a write and is skipped too, as is any record that is not a
// whole JSON string literal, so that a torn record never reaches the collection service.
[[nodiscard]] std::vector<std::string> packedEventsFromBlock(std::string_view bytes);

}  // namespace verdalune::sessionreplay

template <>
struct std::is_error_code_enum<verdalune::sessionreplay::StorageError> : std::true_type {};
