#include "storage/in_memory_storage.h"

namespace verdalune::sessionreplay {

std::shared_ptr<InMemoryStorage> InMemoryStorage::make() {
  return std::shared_ptr<InMemoryStorage>(new InMemoryStorage());
}

StorageResult<std::vector<InMemoryStorage::Block>> InMemoryStorage::blocks() const {
  std::lock_guard lock(mutex_);
  std::vector<Block> blocks;
  blocks.reserve(events_.size());
  for (const auto& [identifier, bytes] : events_) blocks.push_back(identifier);
  return blocks;
}

StorageResult<InMemoryStorage::Block> InMemoryStorage::create(const BlockIdentity& identity) {
  std::lock_guard lock(mutex_);
  events_.try_emplace(identity);
  return identity;
}

StorageResult<InMemoryStorage::OutputStream> InMemoryStorage::openOutputStream(const Block& block) {
  std::weak_ptr<InMemoryStorage> weakStore = weak_from_this();
  return OutputStream{[weakStore, block](std::span<const std::uint8_t> bytes) -> StorageResult<void> {
    const auto store = weakStore.lock();
    if (!store) return std::unexpected(make_error_code(StorageError::deallocated));
    std::lock_guard lock(store->mutex_);
    store->events_[block].append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    return {};
  }};
}

StorageResult<std::string> InMemoryStorage::read(const Block& block) const {
  std::lock_guard lock(mutex_);
  const auto found = events_.find(block);
  if (found == events_.end()) return std::unexpected(make_error_code(StorageError::notFound));
  return found->second;
}

StorageResult<std::uint64_t> InMemoryStorage::size(const Block& block) const {
  std::lock_guard lock(mutex_);
  const auto found = events_.find(block);
  if (found == events_.end()) return std::unexpected(make_error_code(StorageError::notFound));
  return found->second.size();
}

StorageResult<void> InMemoryStorage::remove(const Block& block) {
  std::lock_guard lock(mutex_);
  if (events_.erase(block) == 0) return std::unexpected(make_error_code(StorageError::notFound));
  return {};
}

std::string InMemoryStorage::describe(const Block& block) const {
  return block.deviceId + "/" + std::to_string(block.sessionId) + "/" + std::to_string(block.sequenceNumber);
}

std::map<InMemoryStorage::BlockIdentifier, std::string> InMemoryStorage::events() const {
  std::lock_guard lock(mutex_);
  return events_;
}

}  // namespace verdalune::sessionreplay
