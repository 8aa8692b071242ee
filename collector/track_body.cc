#include "track_body.h"

#include <rapidjson/document.h>

#include "rrweb/coding.h"
#include "storage/versioned_event.h"

namespace verdalune::sessionreplay::collector {
namespace {

std::unexpected<TrackBodyError> bad(std::string reason) {
  return std::unexpected(TrackBodyError{std::move(reason), false});
}

std::expected<ReceivedEvent, TrackBodyError> decodeEvent(const rapidjson::Value& element, std::size_t index,
                                                         std::size_t maxBytes) {
  const std::string prefix = "event " + std::to_string(index) + " ";
  if (!element.IsString()) return bad(prefix + "is not a string");
  auto json = unpackEvent(std::string_view(element.GetString(), element.GetStringLength()), maxBytes);
  if (!json && json.error() == UnpackError::tooLarge)
    return std::unexpected(
        TrackBodyError{prefix + "inflates to more than " + std::to_string(maxBytes) + " bytes", true});
  if (!json) return bad(prefix + "does not unpack: " + std::string(describe(json.error())));

  rapidjson::Document event;
  if (auto parsed = rrweb::parseJson(*json, event); !parsed)
    return bad(prefix + "is not JSON: " + parsed.error().description);
  if (!event.IsObject()) return bad(prefix + "is not a JSON object");
  const auto timestamp = event.FindMember("timestamp");
  if (timestamp == event.MemberEnd() || !timestamp->value.IsInt64())
    return bad(prefix + "has no integer \"timestamp\"");
  return ReceivedEvent{.timestamp = timestamp->value.GetInt64(), .json = std::move(*json)};
}

}  // namespace

std::expected<std::vector<ReceivedEvent>, TrackBodyError> decodeTrackBody(std::string_view body,
                                                                          const InflateLimits& limits) {
  rapidjson::Document document;
  if (auto parsed = rrweb::parseJson(body, document); !parsed)
    return bad("body is not JSON: " + parsed.error().description);
  if (!document.IsObject()) return bad("body is not a JSON object");
  const auto version = document.FindMember("version");
  if (version == document.MemberEnd() || !version->value.IsInt64() || version->value.GetInt64() != 2)
    return bad("\"version\" must be 2");
  const auto events = document.FindMember("events");
  if (events == document.MemberEnd() || !events->value.IsArray()) return bad("\"events\" must be an array");
  if (events->value.Empty()) return bad("\"events\" is empty");

  std::vector<ReceivedEvent> received;
  received.reserve(events->value.Size());
  std::size_t inflated = 0;
  for (const auto& element : events->value.GetArray()) {
    // The block's allowance left, when that is less than an event's own.
    const std::size_t room = std::min(limits.maxEventBytes, limits.maxBlockBytes - inflated);
    auto event = decodeEvent(element, received.size(), room);
    if (!event) {
      if (event.error().tooLarge && room < limits.maxEventBytes)
        event.error().reason =
            "the events inflate to more than " + std::to_string(limits.maxBlockBytes) + " bytes";
      return std::unexpected(std::move(event.error()));
    }
    inflated += event->json.size();
    received.push_back(std::move(*event));
  }
  return received;
}

}  // namespace verdalune::sessionreplay::collector
