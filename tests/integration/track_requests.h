#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "rrweb/events.h"
#include "storage/versioned_event.h"
#include "support/json_writer.h"

// Track requests as a client makes them, for the tests and benchmarks that upload to a collector by hand.
namespace verdalune::sessionreplay::testing {

inline rrweb::Event customEvent(std::int64_t timestamp, std::string tag) {
  // A payload with slashes, quotes, non-ASCII text and a double, which the stored text must keep exactly.
  return rrweb::CustomEvent{
      .timestamp = timestamp,
      .tag = std::move(tag),
      .payload = rrweb::JSONValue::Dictionary{
          {"url", "https://example.com/a?b=\"c\""}, {"text", "caf\xc3\xa9 \xe2\x82\xac"}, {"ratio", 0.1}}};
}

// A packed event as a client stores it, and the JSON text the collector must keep for it.
struct Packed {
  std::string literal;
  std::string json;
};

inline Packed pack(const rrweb::Event& event) {
  EventPacker packer;
  return {std::string(packer.pack(event).value()), packer.encode(VersionedEvent{event}).value()};
}

// {"version":2,"events":[...]} with each packed literal as a string element, escaped once more.
inline std::string trackBody(const std::vector<std::string>& literals) {
  std::string body = R"({"version":2,"events":[)";
  for (const auto& literal : literals) {
    if (&literal != &literals.front()) body += ",";
    appendJsonString(body, literal);
  }
  return body + "]}";
}

inline std::string trackQuery(std::string_view deviceId, std::int64_t sessionId,
                              std::int64_t sequenceNumber) {
  return "device_id=" + std::string(deviceId) + "&session_id=" + std::to_string(sessionId) +
         "&seq_number=" + std::to_string(sequenceNumber) + "&mobile_translation=false";
}

}  // namespace verdalune::sessionreplay::testing
