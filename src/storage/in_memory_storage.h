#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "storage/block_store.h"

namespace verdalune::sessionreplay {

// Blocks held in memory, keyed by their identity: for hosts that must not write recordings to disk,
// and for tests.
//
// Thread-safe: the storage queue writes while the upload queue reads other blocks. Owned through a
// shared_ptr; output streams hold the store weakly and fail with `deallocated` once it is gone.
class InMemoryStorage : public std::enable_shared_from_this<InMemoryStorage> {
 public:
  using BlockIdentifier = BlockIdentity;
  using Block = BlockIdentifier;

  struct OutputStream {
    std::function<StorageResult<void>(std::span<const std::uint8_t>)> writer;

    [[nodiscard]] StorageResult<void> write(std::span<const std::uint8_t> bytes) const {
      return writer(bytes);
    }
    [[nodiscard]] StorageResult<void> close() const { return {}; }
  };

  [[nodiscard]] static std::shared_ptr<InMemoryStorage> make();

  [[nodiscard]] StorageResult<std::vector<Block>> blocks() const;
  [[nodiscard]] StorageResult<BlockIdentity> identity(const Block& block) const { return block; }
  [[nodiscard]] StorageResult<Block> create(const BlockIdentity& identity);
  [[nodiscard]] StorageResult<OutputStream> openOutputStream(const Block& block);
  // StorageError::notFound for a block that has no entry.
  [[nodiscard]] StorageResult<std::string> read(const Block& block) const;
  [[nodiscard]] StorageResult<std::uint64_t> size(const Block& block) const;
  [[nodiscard]] StorageResult<void> remove(const Block& block);
  [[nodiscard]] std::string describe(const Block& block) const;

  // A copy of every block's bytes.
  [[nodiscard]] std::map<BlockIdentifier, std::string> events() const;

 private:
  InMemoryStorage() = default;

  mutable std::mutex mutex_;
  std::map<BlockIdentifier, std::string> events_;  // guarded by mutex_
};

static_assert(BlockStore<InMemoryStorage>);

}  // namespace verdalune::sessionreplay
