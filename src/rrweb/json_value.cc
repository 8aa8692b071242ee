#include "rrweb/json_value.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <variant>

#include "rrweb/coding.h"

namespace verdalune::sessionreplay::rrweb {
namespace {

struct ValueWriter {
  JsonWriter& writer;

  void operator()(const std::string& text) const { writer.string(text); }
  void operator()(std::int64_t number) const { writer.integer(number); }
  void operator()(double number) const { writer.number(number); }
  void operator()(bool flag) const { writer.boolean(flag); }
  void operator()(std::nullptr_t) const { writer.null(); }
  void operator()(const JSONValue::Dictionary& members) const { write(writer, members); }
  void operator()(const JSONValue::Array& items) const {
    writer.beginArray();
    for (const JSONValue& item : items) write(writer, item);
    writer.endArray();
  }
};

}  // namespace

void write(JsonWriter& writer, const JSONValue& value) {
  std::visit(ValueWriter{writer}, value.value);
}

// std::map iterates in byte-wise key order, which is the sorted order the stored form needs.
void write(JsonWriter& writer, const JSONValue::Dictionary& members) {
  writer.beginObject();
  for (const auto& [key, value] : members) {
    writer.key(key);
    write(writer, value);
  }
  writer.endObject();
}

}  // namespace verdalune::sessionreplay::rrweb
