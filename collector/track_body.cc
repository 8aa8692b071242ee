#include "track_body.h"

#include <rapidjson/document.h>

#include "rrweb/coding.h"
#include "storage/versioned_event.h"

namespace verdalune::sessionreplay::collector {
namespace {

std::expected<ReceivedEvent, std::string> decodeEvent(const rapidjson::Value& element, std::size_t index) {
  const std::string prefix = "event " + std::to_string(index) + " ";
  if (!element.IsString()) return std::unexpected(prefix + "is not a string");
  auto json = unpackEvent(std::string_view(element.GetString(), element.GetStringLength()));
  if (!json) return std::unexpected(prefix + "does not unpack: " + std::string(describe(json.error())));

  rapidjson::Document event;
  if (auto parsed = rrweb::parseJson(*json, event); !parsed)
    return std::unexpected(prefix + "is not JSON: " + parsed.error().description);
  if (!event.IsObject()) return std::unexpected(prefix + "is not a JSON object");
  const auto timestamp = event.FindMember("timestamp");
  if (timestamp == event.MemberEnd() || !timestamp->value.IsInt64())
    return std::unexpected(prefix + "has no integer \"timestamp\"");
  return ReceivedEvent{.timestamp = timestamp->value.GetInt64(), .json = std::move(*json)};
}

}  // namespace

std::expected<std::vector<ReceivedEvent>, std::string> decodeTrackBody(std::string_view body) {
  rapidjson::Document document;
  if (auto parsed = rrweb::parseJson(body, document); !parsed)
    return std::unexpected("body is not JSON: " + parsed.error().description);
  if (!document.IsObject()) return std::unexpected("body is not a JSON object");
  const auto version = document.FindMember("version");
  if (version == document.MemberEnd() || !version->value.IsInt64() || version->value.GetInt64() != 2)
    return std::unexpected("\"version\" must be 2");
  const auto events = document.FindMember("events");
  if (events == document.MemberEnd() || !events->value.IsArray())
    return std::unexpected("\"events\" must be an array");

  std::vector<ReceivedEvent> received;
  received.reserve(events->value.Size());
  for (const auto& element : events->value.GetArray()) {
    auto event = decodeEvent(element, received.size());
    if (!event) return std::unexpected(std::move(event.error()));
    received.push_back(std::move(*event));
  }
  return received;
}

}  // namespace verdalune::sessionreplay::collector
