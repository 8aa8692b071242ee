#pragma once

#include <filesystem>
#include <string>
#include <utility>

#include "storage/block_store.h"

namespace verdalune::sessionreplay {

// Blocks as files: "<deviceId>_<sessionId>_<sequenceNumber>.replay" in
// <application support>/com.verdalune.sessionreplay/<apiKey>/. Folders are created 0700 and files
// 0600, since recordings are the user's data. The device id and API key are percent-encoded in these
// names (every byte outside A-Z a-z 0-9 - . _ ~ becomes "%XX"), so that any id names a file of its own
// inside the key's folder; names written before that still read back as they did.
//
// Records are appended with one write each and the file is synced when its stream closes, so a
// process that dies mid-block leaves every completed record on disk and at most one torn record at
// the end (which packedEventsFromBlock skips).
//
// Safe to use from several threads for different blocks; one block is written by one stream at a time.
class PersistentStorage {
 public:
  using Block = std::filesystem::path;

  class FileOutputStream {
   public:
    explicit FileOutputStream(int fileHandle) : fileHandle_(fileHandle) {}
    FileOutputStream(FileOutputStream&& other) noexcept : fileHandle_(std::exchange(other.fileHandle_, -1)) {}
    FileOutputStream& operator=(FileOutputStream&& other) noexcept;
    ~FileOutputStream();

    [[nodiscard]] StorageResult<void> write(std::span<const std::uint8_t> bytes);
    // Syncs the file to disk, then closes it. Closing twice is harmless.
    [[nodiscard]] StorageResult<void> close();

   private:
    int fileHandle_;
  };
  using OutputStream = FileOutputStream;

  PersistentStorage(std::string apiKey, std::filesystem::path applicationSupportDirectory);

  [[nodiscard]] const std::string& apiKey() const { return apiKey_; }
  // The folder that holds this API key's blocks.
  [[nodiscard]] const std::filesystem::path& folder() const { return folder_; }

  // Every file in the folder, by name; an absent folder holds no blocks.
  [[nodiscard]] StorageResult<std::vector<Block>> blocks() const;
  [[nodiscard]] StorageResult<BlockIdentity> identity(const Block& block) const;
  // Creates the folder if needed and names the block's file; the file appears when its stream opens.
  [[nodiscard]] StorageResult<Block> create(const BlockIdentity& identity) const;
  [[nodiscard]] StorageResult<OutputStream> openOutputStream(const Block& block) const;
  [[nodiscard]] StorageResult<std::string> read(const Block& block) const;
  [[nodiscard]] StorageResult<std::uint64_t> size(const Block& block) const;
  [[nodiscard]] StorageResult<void> remove(const Block& block) const;
  [[nodiscard]] std::string describe(const Block& block) const { return block.filename().string(); }

 private:
  [[nodiscard]] StorageResult<void> createFolder() const;

  std::string apiKey_;
  std::filesystem::path folder_;
};

static_assert(BlockStore<PersistentStorage>);

// The identity in a block file name, or StorageError::unreadableName. The device id is everything
// before the last two underscores, so device ids that hold underscores survive, and is decoded when the
// name is the encoded form blockFileName writes.
[[nodiscard]] StorageResult<BlockIdentity> parseBlockFileName(std::string_view fileName);
[[nodiscard]] std::string blockFileName(const BlockIdentity& identity);

}  // namespace verdalune::sessionreplay
