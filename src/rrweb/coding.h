#pragma once

#include <rapidjson/document.h>

#include <expected>
#include <string>
#include <string_view>

#include "rrweb/events.h"
#include "support/json_writer.h"

namespace verdalune::sessionreplay::rrweb {

// The JSON form of events, nodes, payloads and JSON values.
//
// Encoding writes every object's keys in byte-wise ascending order, the order of the stored form,
// straight into the writer. Absent optionals are left out; lists are always written, also when empty.
// A non-finite double cannot be expressed: the writer writes null and reports !ok(); the encode()
// conveniences do not report it, so callers that can hold such values use the writer overloads.
//
// Decoding takes untrusted text (web pages produce events too) and never crashes, throws or stops the
// process: every failure, including a `log` payload or nesting deeper than kMaxNestingDepth, comes
// back as a DecodeError. Unknown keys are ignored. All functions are thread-safe.

// Writes the members of the event's top-level object (keys sorted, no surrounding braces), so a caller
// can append its own keys that sort after them ("data", "timestamp", "type").
void writeEventMembers(JsonWriter& writer, const Event& event);

void write(JsonWriter& writer, const Event& event);
void write(JsonWriter& writer, const Node& node);
void write(JsonWriter& writer, const IncrementalData& data);
void write(JsonWriter& writer, const JSONValue& value);
// A map of text to any value, as one object.
void write(JsonWriter& writer, const JSONValue::Dictionary& members);

// The whole value as one JSON text with sorted keys.
[[nodiscard]] std::string encode(const Event& event);
[[nodiscard]] std::string encode(const Node& node);
[[nodiscard]] std::string encode(const IncrementalData& data);
[[nodiscard]] std::string encode(const JSONValue& value);

struct DecodeError {
  enum class Kind {
    dataCorrupted,  // not JSON, an unknown type/source/enumeration value, too deep, a `log` payload
    keyNotFound,    // a required key is missing
    typeMismatch,   // a value of the wrong JSON shape, or a number the field cannot hold
    valueNotFound,  // a required value is null
  };

  Kind kind = Kind::dataCorrupted;
  std::string description;
  // The keys and indices down to the value at fault, e.g. "data.node.childNodes[2].id"; empty when the
  // whole text or value is at fault.
  std::string path;
};

// Nodes and JSON values nested deeper than this, counted together, fail as dataCorrupted instead of
// exhausting the stack.
inline constexpr int kMaxNestingDepth = 500;

// Parses JSON text into `document` the way the decoders below do, for callers that look at a message
// before decoding part of it through the rapidjson::Value overloads. Numbers keep full precision.
// Prefer this to parsing with RapidJSON directly: its own full-precision number conversion misreads,
// and can read out of bounds on, some untrusted inputs.
[[nodiscard]] std::expected<void, DecodeError> parseJson(std::string_view json,
                                                         rapidjson::Document& document);

[[nodiscard]] std::expected<Event, DecodeError> decodeEvent(std::string_view json);
[[nodiscard]] std::expected<Event, DecodeError> decodeEvent(const rapidjson::Value& json);
[[nodiscard]] std::expected<Node, DecodeError> decodeNode(std::string_view json);
[[nodiscard]] std::expected<Node, DecodeError> decodeNode(const rapidjson::Value& json);
[[nodiscard]] std::expected<IncrementalData, DecodeError> decodeIncrementalData(std::string_view json);
[[nodiscard]] std::expected<IncrementalData, DecodeError> decodeIncrementalData(const rapidjson::Value& json);
[[nodiscard]] std::expected<JSONValue, DecodeError> decodeJSONValue(std::string_view json);
[[nodiscard]] std::expected<JSONValue, DecodeError> decodeJSONValue(const rapidjson::Value& json);

// "dataCorrupted", "keyNotFound", "typeMismatch", "valueNotFound".
[[nodiscard]] std::string_view describe(DecodeError::Kind kind);

}  // namespace verdalune::sessionreplay::rrweb
