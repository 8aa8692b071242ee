#pragma once

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <future>
#include <memory>
#include <string_view>

#include "storage/persistent_storage.h"
#include "storage/storage_coordinator.h"
#include "upload/curl_transport.h"
#include "upload/path_monitor.h"
#include "verdalune/support/defaults_store.h"

namespace verdalune::sessionreplay::testing {

// Errors go to standard error, where a failing run shows them; everything else is dropped.
class StderrLogger final : public Logger {
 public:
  void error(std::string_view message) override {
    std::fprintf(stderr, "%.*s\n", static_cast<int>(message.size()), message.data());
  }
  void warn(std::string_view) override {}
  void log(std::string_view) override {}
  void debug(std::string_view) override {}
};

// One run of an app's delivery road: a storage coordinator on its own queue writing block files under
// `folder`, and the real HTTP client uploading each closed block. Block numbering lives in `defaults`, so
// a second Recorder over the same folder and defaults is the same app after a restart.
struct Recorder {
  Recorder(UploadClient::Options options, const std::filesystem::path& folder,
           std::shared_ptr<DefaultsStore> defaults) {
    if (!options.logger) options.logger = std::make_shared<StderrLogger>();
    const auto logger = options.logger;
    const std::string apiKey = options.apiKey;
    uploadClient = UploadClient::make(std::move(options), CurlTransport::create().value(),
                                      std::make_shared<ManualPathMonitor>(),
                                      std::make_shared<SerialQueue>("com.verdalune.sessionreplay.upload"));
    storage = std::make_shared<PersistentStorage>(apiKey, folder);
    coordinator = StorageCoordinator<PersistentStorage>::make(
        storage, uploadClient, logger, BlockState(apiKey, std::move(defaults)), storageQueue);
  }

  // Waits until every write queued so far has reached its block file; false if that took over 30 s.
  bool settle() {
    auto reached = std::make_shared<std::promise<void>>();
    storageQueue->async([reached] { reached->set_value(); });
    return reached->get_future().wait_for(std::chrono::seconds(30)) == std::future_status::ready;
  }

  std::shared_ptr<SerialQueue> storageQueue =
      std::make_shared<SerialQueue>("com.verdalune.sessionreplay.storage");
  std::shared_ptr<UploadClient> uploadClient;
  std::shared_ptr<PersistentStorage> storage;
  std::shared_ptr<StorageCoordinator<PersistentStorage>> coordinator;
};

}  // namespace verdalune::sessionreplay::testing
