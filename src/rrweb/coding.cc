#include "rrweb/coding.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "rrweb/record_fields.h"

namespace verdalune::sessionreplay::rrweb {
namespace {

// Writes values straight into a JsonWriter; the visitor of detail::fields when encoding.
class Encoder {
 public:
  explicit Encoder(JsonWriter& writer) : writer_(writer) {}

  void write(std::int64_t value) { writer_.integer(value); }
  void write(double value) { writer_.number(value); }
  void write(float value) { writer_.number(value); }
  void write(bool value) { writer_.boolean(value); }
  void write(const std::string& value) { writer_.string(value); }
  void write(CompatMode mode) { writer_.string(detail::rawValue(mode)); }
  void write(const JSONValue& value) { rrweb::write(writer_, value); }
  void write(const JSONValue::Dictionary& members) { rrweb::write(writer_, members); }

  template <detail::IntegerEnum E>
  void write(E value) {
    writer_.integer(static_cast<std::int64_t>(value));
  }

  template <typename T>
  void write(const std::vector<T>& items) {
    writer_.beginArray();
    for (const T& item : items) write(item);
    writer_.endArray();
  }

  // Inside a list an absent element holds its place as null.
  template <typename T>
  void write(const std::optional<T>& item) {
    if (item) {
      write(*item);
    } else {
      writer_.null();
    }
  }

  // A union writes the record it carries, with no wrapper.
  template <typename... Records>
  void write(const std::variant<Records...>& records) {
    std::visit([&](const auto& record) { write(record); }, records);
  }
  void write(const Node& node) { write(node.value); }
  void write(const IncrementalData& data) { write(data.value); }

  template <detail::Record R>
  void write(const R& record) {
    writer_.beginObject();
    detail::fields(*this, record);
    writer_.endObject();
  }

  // The visitor of detail::fields.

  template <typename T>
  void field(std::string_view key, const T& value) {
    writer_.plainKey(key);
    write(value);
  }

  template <typename T>
  void field(std::string_view key, const std::optional<T>& value) {
    if (value) field(key, *value);
  }

  void numberOrList(std::string_view key, const std::vector<std::int64_t>& index) {
    writer_.plainKey(key);
    if (index.size() == 1) {
      writer_.integer(index.front());
    } else {
      write(index);
    }
  }

  void numberOrList(std::string_view key, const std::optional<std::vector<std::int64_t>>& index) {
    if (index) numberOrList(key, *index);
  }

  template <typename Fields>
  void object(std::string_view key, Fields&& writeFields) {
    writer_.plainKey(key);
    writer_.beginObject();
    writeFields(*this);
    writer_.endObject();
  }

 private:
  JsonWriter& writer_;
};

template <typename T>
std::string encodeValue(const T& value) {
  std::string out;
  JsonWriter writer(out);
  write(writer, value);
  return out;
}

}  // namespace

void writeEventMembers(JsonWriter& writer, const Event& event) {
  Encoder encoder(writer);
  std::visit([&encoder](const auto& record) { detail::fields(encoder, record); }, event.value);
}

void write(JsonWriter& writer, const Event& event) {
  writer.beginObject();
  writeEventMembers(writer, event);
  writer.endObject();
}

void write(JsonWriter& writer, const Node& node) {
  Encoder(writer).write(node);
}
void write(JsonWriter& writer, const IncrementalData& data) {
  Encoder(writer).write(data);
}

std::string encode(const Event& event) {
  return encodeValue(event);
}
std::string encode(const Node& node) {
  return encodeValue(node);
}
std::string encode(const IncrementalData& data) {
  return encodeValue(data);
}
std::string encode(const JSONValue& value) {
  return encodeValue(value);
}

std::string_view describe(DecodeError::Kind kind) {
  switch (kind) {
    case DecodeError::Kind::dataCorrupted:
      return "dataCorrupted";
    case DecodeError::Kind::keyNotFound:
      return "keyNotFound";
    case DecodeError::Kind::typeMismatch:
      return "typeMismatch";
    case DecodeError::Kind::valueNotFound:
      return "valueNotFound";
  }
  return "unknown";
}

}  // namespace verdalune::sessionreplay::rrweb
