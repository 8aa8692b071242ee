#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "rrweb/events.h"
#include "storage/block_state.h"
#include "storage/block_store.h"
#include "storage/versioned_event.h"
#include "upload/upload_client.h"
#include "verdalune/logger.h"
#include "verdalune/support/queue.h"

namespace verdalune::sessionreplay {

// What the serializer writes its events through.
class StorageCoordinatorProtocol {
 public:
  virtual ~StorageCoordinatorProtocol() = default;
  virtual void write(rrweb::Event event, std::string deviceId, std::int64_t sessionId) = 0;
  virtual void flush() = 0;
};

enum class StorageCoordinatorError { couldNotPackEvent = 1 };

namespace detail {
class StorageCoordinatorCategory final : public std::error_category {
 public:
  const char* name() const noexcept override { return "verdalune.storage-coordinator"; }
  std::string message(int value) const override {
    if (static_cast<StorageCoordinatorError>(value) == StorageCoordinatorError::couldNotPackEvent) {
      return "could not pack the event";
    }
    return "unknown storage coordinator error";
  }
};
}  // namespace detail

[[nodiscard]] inline const std::error_category& storageCoordinatorCategory() {
  static const detail::StorageCoordinatorCategory category;
  return category;
}
[[nodiscard]] inline std::error_code make_error_code(StorageCoordinatorError error) {
  return {static_cast<int>(error), storageCoordinatorCategory()};
}

// Packs events into numbered blocks of a block store and hands each closed block to the uploader,
// removing it once it is delivered. A block closes when the next record would take it past
// kMaxBlockBytes, kBlockLifetime after it opened, when the device or session changes, and on flush.
//
// Blocks are never forgotten: uploadStoredBlocks() offers every closed block in the store (those of
// earlier runs too) in order of device, session and sequence number; it runs when the coordinator
// starts and whenever the network comes back, and a block is never in two uploads at once. A block whose
// upload failed because the collector could not be reached or could not take it then (no connection, a
// server error, a rate limit) goes again right after the next block that is delivered, since that one
// shows the collector is back; a block the collector refused as such (too large, malformed) is not
// offered again until the next start, so that it is not sent over and over.
//
// Every entry point queues its work on `queue` ("com.verdalune.sessionreplay.storage") and returns at
// once; all state below is touched on that queue only.
template <BlockStore Store>
class StorageCoordinator final : public StorageCoordinatorProtocol,
                                 public std::enable_shared_from_this<StorageCoordinator<Store>> {
 public:
  static constexpr std::size_t kMaxBlockBytes = 8'000'000;
  static constexpr std::chrono::milliseconds kBlockLifetime{60'000};
  // What the blocks waiting for the collector may take on disk. Past it, whole sessions are dropped,
  // oldest session id first (session ids are start times), so a device that stays offline keeps its most
  // recent recordings rather than filling its disk. A session is never cut short (its tail could not be
  // replayed without its first block), and the one being recorded is never dropped.
  static constexpr std::uint64_t kMaxStoredBytes = 64'000'000;

  [[nodiscard]] static std::shared_ptr<StorageCoordinator> make(
      std::shared_ptr<Store> storage, std::shared_ptr<BlockUploader> uploadClient,
      std::shared_ptr<Logger> logger, BlockState blockState, std::shared_ptr<Queue> queue,
      std::uint64_t maxStoredBytes = kMaxStoredBytes) {
    std::shared_ptr<StorageCoordinator> coordinator(
        new StorageCoordinator(std::move(storage), std::move(uploadClient), std::move(logger), maxStoredBytes,
                               std::move(blockState), std::move(queue)));
    std::weak_ptr<StorageCoordinator> weak = coordinator;
    coordinator->uploadClient_->onConnectivityRestored([weak] {
      if (const auto coordinator = weak.lock()) coordinator->uploadStoredBlocks();
    });
    coordinator->uploadStoredBlocks();
    return coordinator;
  }

  void write(rrweb::Event event, std::string deviceId, std::int64_t sessionId) override {
    run([event = std::move(event), deviceId = std::move(deviceId), sessionId](StorageCoordinator& self) {
      (void)self.writeNow(event, deviceId, sessionId);
    });
  }

  void flush() override {
    run([](StorageCoordinator& self) { (void)self.closeActiveStream(true); });
  }

  void uploadStoredBlocks() {
    run([](StorageCoordinator& self) { self.offerStoredBlocks(); });
  }

 private:
  using Block = typename Store::Block;

  StorageCoordinator(std::shared_ptr<Store> storage, std::shared_ptr<BlockUploader> uploadClient,
                     std::shared_ptr<Logger> logger, std::uint64_t maxStoredBytes, BlockState blockState,
                     std::shared_ptr<Queue> queue)
      : storage_(std::move(storage)),
        uploadClient_(std::move(uploadClient)),
        logger_(std::move(logger)),
        maxStoredBytes_(maxStoredBytes),
        blockState_(std::move(blockState)),
        queue_(std::move(queue)) {}

  template <typename Work>
  void run(Work work) {
    queue_->async([weak = this->weak_from_this(), work = std::move(work)]() mutable {
      if (const auto self = weak.lock()) work(*self);
    });
  }

  StorageResult<void> writeNow(const rrweb::Event& event, const std::string& deviceId,
                               std::int64_t sessionId) {
    const auto packed = packer_.pack(event);
    if (!packed) {
      logger_->error("[StorageCoordinator] Unable to pack event");
      return std::unexpected(make_error_code(StorageCoordinatorError::couldNotPackEvent));
    }
    record_.assign(*packed);
    record_.push_back('\n');

    const bool sameRecording =
        blockState_.currentDeviceId() == deviceId && blockState_.currentSessionId() == sessionId;
    if (!sameRecording || !activeStream_ || activeBytes_ + record_.size() >= kMaxBlockBytes + 1) {
      if (!sameRecording) {
        blockState_.setCurrentDeviceId(deviceId);
        blockState_.setCurrentSessionId(sessionId);
        blockState_.clearSequenceNumber();
      }
      // A block that fails to close is let go all the same (closeActiveStream says why), so this event
      // still starts a block of its own.
      (void)closeActiveStream(true);
      if (auto opened = openBlock(deviceId, sessionId); !opened) return opened;
    }

    const std::span<const std::uint8_t> bytes(reinterpret_cast<const std::uint8_t*>(record_.data()),
                                              record_.size());
    if (auto written = activeStream_->write(bytes); !written) {
      logger_->error("[StorageCoordinator] Could not write to output stream: " + written.error().message());
      (void)closeActiveStream(true);
      return written;
    }
    activeBytes_ += record_.size();
    return {};
  }

  StorageResult<void> openBlock(const std::string& deviceId, std::int64_t sessionId) {
    const std::set<BlockIdentity> taken = keepWithinLimit(deviceId, sessionId);
    // Numbering restarts at 1 whenever the device or session changes, so a recording that comes back
    // (A, B, A again) would reuse a name still stored or on its way to the collector, and that upload's
    // removal would take the new events with it; or one already delivered, which the collector would
    // take for a block it has. Such numbers are passed over.
    std::int64_t& lastUsed = lastSequenceNumbers_[{deviceId, sessionId}];
    BlockIdentity identity{deviceId, sessionId, 0};
    identity.sequenceNumber = blockState_.nextSequenceNumber([&](std::int64_t number) {
      identity.sequenceNumber = number;
      return number <= lastUsed || taken.contains(identity) || inFlight_.contains(identity) ||
             awaitingCollector_.contains(identity) || refused_.contains(identity);
    });
    lastUsed = identity.sequenceNumber;
    auto block = storage_->create(identity);
    auto stream = block ? storage_->openOutputStream(*block) : std::unexpected(block.error());
    if (!stream) {
      logger_->error("[StorageCoordinator] Could not create output stream: " + stream.error().message());
      return std::unexpected(stream.error());
    }
    activeBlock_ = std::move(*block);
    activeStream_.emplace(std::move(*stream));
    activeBytes_ = 0;
    timedFlush_ = queue_->asyncAfter(kBlockLifetime, [weak = this->weak_from_this()] {
      if (const auto self = weak.lock()) (void)self->closeActiveStream(true);
    });
    return {};
  }

  // A stream that fails to close is let go too: writing on would go to a dead stream. What reached the
  // block before is kept, and uploaded as any closed block is.
  StorageResult<void> closeActiveStream(bool upload) {
    if (!activeBlock_ || !activeStream_) return {};
    StorageResult<void> closed = activeStream_->close();
    if (!closed) {
      logger_->error("[StorageCoordinator] Could not close active output stream: " +
                     closed.error().message());
    }
    if (timedFlush_) timedFlush_->cancel();
    timedFlush_.reset();
    Block block = std::move(*activeBlock_);
    activeBlock_.reset();
    activeStream_.reset();
    activeBytes_ = 0;
    if (upload) uploadBlock(block);
    return closed;
  }

  // Drops whole sessions, oldest session id first, while what is stored exceeds the limit, and returns
  // the identities of the blocks left. A session's blocks go from the last to the first, so one whose
  // removal fails halfway still begins with its first block (its Meta and full snapshot) and can be
  // replayed. The recording going on now is never dropped, even when it alone passes the limit.
  // A dropped block may still be waiting in the uploader (it holds blocks while the network is gone):
  // reading it then fails and the upload ends as a failure, and nothing is sent twice.
  std::set<BlockIdentity> keepWithinLimit(const std::string& deviceId, std::int64_t sessionId) {
    std::set<BlockIdentity> kept;
    auto blocks = storage_->blocks();
    if (!blocks) return kept;
    struct Stored {
      BlockIdentity identity;
      Block block;
      std::uint64_t bytes;
    };
    std::vector<Stored> stored;
    std::uint64_t total = 0;
    for (auto& block : *blocks) {
      auto identity = storage_->identity(block);
      if (!identity) continue;
      kept.insert(*identity);
      auto bytes = storage_->size(block);
      if (!bytes) continue;
      total += *bytes;
      if (identity->deviceId == deviceId && identity->sessionId == sessionId) continue;
      stored.push_back({std::move(*identity), std::move(block), *bytes});
    }
    if (total <= maxStoredBytes_) return kept;
    // Oldest session first; within a session, last block first.
    std::ranges::sort(stored, [](const Stored& a, const Stored& b) {
      return std::tie(a.identity.sessionId, a.identity.deviceId, b.identity.sequenceNumber) <
             std::tie(b.identity.sessionId, b.identity.deviceId, a.identity.sequenceNumber);
    });
    for (std::size_t i = 0; i < stored.size() && total > maxStoredBytes_;) {
      const BlockIdentity session = stored[i].identity;
      const auto sameSession = [&](std::size_t k) {
        return k < stored.size() && stored[k].identity.deviceId == session.deviceId &&
               stored[k].identity.sessionId == session.sessionId;
      };
      std::size_t dropped = 0;
      std::uint64_t droppedBytes = 0;
      for (; sameSession(i); ++i) {
        if (!storage_->remove(stored[i].block)) break;
        kept.erase(stored[i].identity);
        awaitingCollector_.erase(stored[i].identity);
        refused_.erase(stored[i].identity);
        total -= stored[i].bytes;
        droppedBytes += stored[i].bytes;
        ++dropped;
      }
      while (sameSession(i)) ++i;
      if (dropped > 0) {
        logger_->error("[StorageCoordinator] Stored blocks exceed " + std::to_string(maxStoredBytes_) +
                       " bytes: dropped " + std::to_string(droppedBytes) + " bytes in " +
                       std::to_string(dropped) + (dropped == 1 ? " block" : " blocks") + " of session " +
                       session.deviceId + "/" + std::to_string(session.sessionId));
      }
    }
    return kept;
  }

  void offerStoredBlocks() {
    auto blocks = storage_->blocks();
    if (!blocks) {
      logger_->error("[StorageCoordinator] Unable to list blocks: " + blocks.error().message());
      return;
    }
    std::vector<std::pair<BlockIdentity, Block>> ordered;
    for (auto& block : *blocks) {
      if (activeBlock_ && block == *activeBlock_) continue;
      auto identity = storage_->identity(block);
      if (!identity) {
        uploadBlock(block);  // removes it, with the log line
        continue;
      }
      if (refused_.contains(*identity)) continue;
      ordered.emplace_back(std::move(*identity), std::move(block));
    }
    std::ranges::sort(ordered, [](const auto& a, const auto& b) { return a.first < b.first; });
    for (const auto& [identity, block] : ordered) uploadBlock(block);
  }

  void uploadBlock(const Block& block) {
    const std::string name = storage_->describe(block);
    auto identity = storage_->identity(block);
    if (!identity) {
      logger_->error("[StorageCoordinator] Unable to retrieve info for block " + name + ", removing");
      if (auto removed = storage_->remove(block); !removed) {
        logger_->error("[StorageCoordinator] Unable to remove block " + name + ": " +
                       removed.error().message());
      }
      return;
    }
    if (!inFlight_.insert(*identity).second) return;  // already on its way
    awaitingCollector_.erase(*identity);

    std::weak_ptr<Store> weakStorage = storage_;
    EventFetcher fetcher = [weakStorage,
                            block]() -> std::expected<std::vector<std::string>, std::error_code> {
      const auto storage = weakStorage.lock();
      if (!storage) return std::unexpected(make_error_code(StorageError::deallocated));
      auto bytes = storage->read(block);
      if (!bytes) return std::unexpected(bytes.error());
      return packedEventsFromBlock(*bytes);
    };
    ResponseHandler handler = [weak = this->weak_from_this(), block, identity = *identity,
                               name](std::optional<UploadFailure> failure) {
      const auto self = weak.lock();
      if (!self) return;
      self->queue_->async([weak, block, identity, name, failure = std::move(failure)] {
        if (const auto self = weak.lock()) self->uploaded(block, identity, name, failure);
      });
    };
    uploadClient_->upload(identity->deviceId, identity->sessionId, identity->sequenceNumber,
                          std::move(fetcher), std::move(handler));
  }

  void uploaded(const Block& block, const BlockIdentity& identity, const std::string& name,
                const std::optional<UploadFailure>& failure) {
    inFlight_.erase(identity);
    if (failure) {
      logger_->error("[StorageCoordinator] Failed to upload block " + name + ": " + describe(*failure));
      if (worthSendingAgain(*failure)) {
        awaitingCollector_.emplace(identity, block);
      } else {
        refused_.insert(identity);
      }
      return;
    }
    logger_->log("[StorageCoordinator] Successfully uploaded block " + name);
    if (auto removed = storage_->remove(block); !removed) {
      logger_->error("[StorageCoordinator] Failed to clean up block " + name + ": " +
                     removed.error().message());
    }
    // The collector takes blocks again: what it could not take before goes now, oldest first.
    const auto awaiting = std::exchange(awaitingCollector_, {});
    for (const auto& [waiting, waitingBlock] : awaiting) uploadBlock(waitingBlock);
  }

  // Whether a failed block may succeed as it is once the collector takes blocks again: not when the
  // collector refused the block itself, nor when the block could not be read.
  static bool worthSendingAgain(const UploadFailure& failure) {
    const auto* error = std::get_if<HttpError>(&failure);
    if (!error) return std::holds_alternative<platform::TransportError>(failure);
    switch (*error) {
      case HttpError::payloadTooLarge:
      case HttpError::invalidRequest:
      case HttpError::invalidURL:
      case HttpError::couldNotEncodeData:
        return false;
      default:
        return true;
    }
  }

  const std::shared_ptr<Store> storage_;
  const std::shared_ptr<BlockUploader> uploadClient_;
  const std::shared_ptr<Logger> logger_;
  const std::uint64_t maxStoredBytes_;
  BlockState blockState_;
  const std::shared_ptr<Queue> queue_;
  EventPacker packer_;
  std::string record_;
  std::optional<Block> activeBlock_;
  std::optional<typename Store::OutputStream> activeStream_;
  std::size_t activeBytes_ = 0;
  std::shared_ptr<DelayedWork> timedFlush_;
  std::set<BlockIdentity> inFlight_;
  // The last number each recording used in this process, delivered blocks included.
  std::map<std::pair<std::string, std::int64_t>, std::int64_t> lastSequenceNumbers_;
  std::map<BlockIdentity, Block> awaitingCollector_;  // failed, to go with the next delivered block
  std::set<BlockIdentity> refused_;                   // refused by the collector, kept until the next start
};

}  // namespace verdalune::sessionreplay

template <>
struct std::is_error_code_enum<verdalune::sessionreplay::StorageCoordinatorError> : std::true_type {};
