#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "capture/snapshotter.h"
#include "convert/converter.h"
#include "rrweb/events.h"
#include "serialize/web_view_translation.h"
#include "storage/storage_coordinator.h"
#include "verdalune/logger.h"
#include "verdalune/platform/platform.h"
#include "verdalune/support/queue.h"

namespace verdalune::sessionreplay {

// Turns the stream of captures into rrweb events: the first capture of a recording becomes a Meta event
// and a full snapshot of an HTML document, every later one the mutation that takes the previous document
// to the new one. Touches join the same stream. Every event goes to the storage coordinator.
//
// All work runs on its own serial queue ("com.verdalune.sessionreplay.renderer"), so conversion and image
// encoding never run on the main thread; the entry points only take the time and queue.
class Serializer final : public CaptureReceiver, public std::enable_shared_from_this<Serializer> {
 public:
  // The fixed nodes of the document skeleton. Layer ids start at 100, so these never meet one.
  static constexpr std::int64_t kDocumentId = 10;
  static constexpr std::int64_t kHtmlId = 11;
  static constexpr std::int64_t kHeadId = 12;
  static constexpr std::int64_t kStyleTextId = 13;
  static constexpr std::int64_t kStyleId = 14;
  static constexpr std::int64_t kBodyId = 15;

  static const std::string_view kBaseStyleSheet;

  struct Options {
    std::shared_ptr<platform::Platform> platform;
    std::shared_ptr<Logger> logger;
    std::shared_ptr<StorageCoordinatorProtocol> storageCoordinator;
    std::shared_ptr<Queue> queue;  // a SerialQueue labelled "com.verdalune.sessionreplay.renderer"
    std::map<std::string, std::string> webviewMappings;
    ImageEffort imageEffort;
  };

  static std::shared_ptr<Serializer> make(Options options);

  void setDelegate(std::weak_ptr<SerializerDelegate> delegate);

  // CaptureReceiver: called on the main queue.
  void serialize(std::shared_ptr<const Snapshot> snapshot, const std::string& deviceId,
                 std::int64_t sessionId) override;
  void serializeTouch(const TouchEvent& touch, const std::string& deviceId, std::int64_t sessionId) override;
  void serializeTouchMoves(std::vector<TouchMoveEvent> moves, const std::string& deviceId,
                           std::int64_t sessionId) override;
  void captureStopped() override;

  // An event recorded inside the web view whose layer is `layerId`, as the page posted it. A page's full
  // snapshot becomes its document attached under the web view's element (once that element is in the
  // recording); its other events follow in native ids. Events with nowhere to go are dropped and logged.
  void onWebviewEvent(std::int64_t layerId, std::string json);

  // At most this many page events wait for their web view's element to be recorded; a page that posts
  // more before then is dropped whole and shows up with its next full snapshot.
  static constexpr std::size_t kMaxPendingPageEvents = 1000;

  // Behind all earlier work: forgets the recording (the next capture is a full snapshot again, with every
  // image rule) and flushes storage.
  void flush();

  // How many image rules this recording has sent: each distinct image once, however often and wherever
  // it is shown, until the next recording starts afresh. A diagnostic; any thread.
  std::size_t sentImageCount() const { return sentImageCount_.load(std::memory_order_relaxed); }

  // The serialization of one capture, on the calling thread, with no queue: for the benchmark.
  void serializeNow(const std::shared_ptr<const Snapshot>& snapshot, const std::string& deviceId,
                    std::int64_t sessionId, std::int64_t timestamp);

 private:
  explicit Serializer(Options options);

  struct Changes;
  // A page whose full snapshot arrived before its web view's element was in the recording.
  struct PendingPage {
    rrweb::Node document;
    std::vector<rrweb::IncrementalData> events;
  };

  void writeFullSnapshot(const Snapshot& snapshot, const std::string& deviceId, std::int64_t sessionId,
                         std::int64_t timestamp);
  void writeComparison(const Snapshot& previous, const Snapshot& snapshot, const std::string& deviceId,
                       std::int64_t sessionId, std::int64_t timestamp);
  void compare(const std::vector<LayerTreeNode>& previous, const std::vector<LayerTreeNode>& next,
               Changes& changes);
  rrweb::ElementNode element(const LayerTreeNode& node, Converter::AdditionalContent& images,
                             bool withChildren);
  std::vector<std::string> newImageRules(const Converter::AdditionalContent& images);
  void forgetClasses(const LayerTreeNode& node);
  bool touchable(std::int64_t timestamp) const;
  void reset();
  void write(rrweb::Event event, const std::string& deviceId, std::int64_t sessionId);
  std::int64_t now() const;
  void receivePageEvent(std::int64_t layerId, rrweb::Event event, std::int64_t timestamp);
  void writePageEvent(WebViewRecordingSession& session, const rrweb::IncrementalData& data,
                      std::int64_t timestamp);
  void attachPendingPages(std::int64_t timestamp);
  void dropPage(std::string_view why);

  const std::shared_ptr<platform::Platform> platform_;
  const std::shared_ptr<Logger> logger_;
  const std::shared_ptr<StorageCoordinatorProtocol> storageCoordinator_;
  const std::shared_ptr<Queue> queue_;
  const std::map<std::string, std::string> webviewMappings_;
  const std::string href_;
  std::weak_ptr<SerializerDelegate> delegate_;

  // Queue only, from here on.
  Converter::Context converterContext_;
  std::shared_ptr<const Snapshot> previousSnapshot_;
  std::int64_t fullSnapshotTimestamp_ = 0;
  std::unordered_set<std::string> existingImageIdentifiers_;
  std::atomic<std::size_t> sentImageCount_ = 0;  // its size, for readers on other threads
  // Elements that carry a class now: an image that goes must have its class removed explicitly, since an
  // attribute mutation only sets what it names.
  std::unordered_set<std::int64_t> elementsWithClass_;
  // Where page events go: the identifiers of the recording the last capture went to, the web view
  // elements in its document, and the pages shown in them.
  std::optional<std::pair<std::string, std::int64_t>> recording_;
  std::unordered_set<std::int64_t> webViewElements_;
  std::map<std::int64_t, WebViewRecordingSession> activeWebViewRecordingSessionsById_;
  std::map<std::int64_t, PendingPage> pendingPages_;
};

}  // namespace verdalune::sessionreplay
