#pragma once

#include <concepts>
#include <cstdint>
#include <string>
#include <utility>
#include <variant>

#include "rrweb/incremental_data.h"
#include "rrweb/json_value.h"
#include "rrweb/nodes.h"

namespace verdalune::sessionreplay::rrweb {

// The rrweb events this library stores and uploads, and those it takes from web pages. Each record
// stores its own `type`; the JSON form writes it, and decoding reads it first to pick the record.
// Timestamps are milliseconds since the Unix epoch.

enum class EventType : std::int64_t {
  domContentLoaded = 0,
  load = 1,
  fullSnapshot = 2,
  incrementalSnapshot = 3,
  meta = 4,
  custom = 5,
  plugin = 6,
};

// A position in points; written as {"left": x, "top": y}.
struct Point {
  double x = 0;
  double y = 0;

  bool operator==(const Point&) const = default;
};

struct DomContentLoadedEvent {
  EventType type = EventType::domContentLoaded;
  std::int64_t timestamp = 0;

  bool operator==(const DomContentLoadedEvent&) const = default;
};

struct LoadedEvent {
  EventType type = EventType::load;
  std::int64_t timestamp = 0;

  bool operator==(const LoadedEvent&) const = default;
};

struct FullSnapshotEvent {
  EventType type = EventType::fullSnapshot;
  std::int64_t timestamp = 0;
  Node node{};  // the document root
  Point initialOffset{};

  bool operator==(const FullSnapshotEvent&) const = default;
};

struct IncrementalSnapshotEvent {
  EventType type = EventType::incrementalSnapshot;
  std::int64_t timestamp = 0;
  IncrementalData data{};

  bool operator==(const IncrementalSnapshotEvent&) const = default;
};

struct MetaEvent {
  EventType type = EventType::meta;
  std::int64_t timestamp = 0;
  std::string href{};
  double width = 0;
  double height = 0;

  bool operator==(const MetaEvent&) const = default;
};

struct CustomEvent {
  EventType type = EventType::custom;
  std::int64_t timestamp = 0;
  std::string tag{};
  JSONValue payload{};

  bool operator==(const CustomEvent&) const = default;
};

struct PluginEvent {
  EventType type = EventType::plugin;
  std::int64_t timestamp = 0;
  std::string plugin{};
  JSONValue payload{};

  bool operator==(const PluginEvent&) const = default;
};

// One event of any kind. Its JSON form is the carried record's, with no wrapper.
struct Event {
  using Value = std::variant<DomContentLoadedEvent, LoadedEvent, FullSnapshotEvent, IncrementalSnapshotEvent,
                             MetaEvent, CustomEvent, PluginEvent>;

  Value value;

  Event() = default;
  template <std::convertible_to<Value> Record>
  Event(Record record) : value(std::move(record)) {}

  // The carried record's own `type` and `timestamp`.
  [[nodiscard]] EventType type() const {
    return std::visit([](const auto& record) { return record.type; }, value);
  }
  [[nodiscard]] std::int64_t timestamp() const {
    return std::visit([](const auto& record) { return record.timestamp; }, value);
  }

  bool operator==(const Event&) const = default;
};

}  // namespace verdalune::sessionreplay::rrweb
