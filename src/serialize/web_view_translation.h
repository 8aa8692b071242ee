#pragma once

#include <cstdint>
#include <expected>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "rrweb/incremental_data.h"
#include "rrweb/nodes.h"

namespace verdalune::sessionreplay {

// A page's ids (node or style sheet) to ids of the native recording. Page ids are the page recorder's own
// and mean nothing outside one recording of that page; native ids come from the process-wide counter, so a
// page's nodes never collide with layers or with another page's nodes.
class IdentifierMap {
 public:
  std::optional<std::int64_t> local(std::int64_t remote) const;
  // The native id of `remote`, drawn from the counter the first time it is seen.
  std::int64_t localOrNew(std::int64_t remote);
  std::size_t size() const;

 private:
  mutable std::mutex lock_;
  std::unordered_map<std::int64_t, std::int64_t> remoteIdToLocalIdMap_;
};

// One recording of one page, shown inside the element of the web view's layer (`rootId`).
struct WebViewRecordingSession {
  std::int64_t rootId = 0;
  std::int64_t documentId = 0;  // the native id of the page's document node
  std::shared_ptr<IdentifierMap> idMap = std::make_shared<IdentifierMap>();
  std::shared_ptr<IdentifierMap> styleIdMap = std::make_shared<IdentifierMap>();
};

// What could not be translated: the page named an id it never showed the library.
struct TranslationError {
  std::string description;
};

// A page's node tree with every node given its native id (new ids for nodes never seen).
rrweb::Node translateNewNode(const rrweb::Node& node, IdentifierMap& idMap);

// A page's incremental payload in native ids: new nodes get new ids, every other id must be known. A page's
// own viewport changes have no place in the native recording and come back as an error too.
std::expected<rrweb::IncrementalData, TranslationError> translate(const rrweb::IncrementalData& data,
                                                                  WebViewRecordingSession& session);

}  // namespace verdalune::sessionreplay
