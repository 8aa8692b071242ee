#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace verdalune::sessionreplay {

// A streaming JSON writer that appends to a caller's string.
//
// Events are written on the hot path of every capture, so nothing here builds a tree: callers write
// keys in the order they want them to appear (the stored form sorts keys, and the event coders emit
// them already sorted). Strings are escaped the way the platform's encoder escapes them, forward
// slashes included, so that stored text is byte-for-byte what the collection service expects.
//
// Numbers: integers as integers; doubles and floats in the shortest text that reads back to the same
// value. JSON has no NaN or infinity: such a value is written as null and marks the writer failed,
// which the caller checks once at the end through ok().
//
// Not thread-safe; one writer per output.
class JsonWriter {
 public:
  explicit JsonWriter(std::string& out) : out_(out) {}

  void beginObject();
  void endObject();
  void beginArray();
  void endArray();

  // Writes an object key; the next call writes its value.
  void key(std::string_view name);
  // The same for a key known to need no escaping (the coders' own key names), without looking.
  void plainKey(std::string_view name);

  void string(std::string_view value);
  void integer(std::int64_t value);
  void number(double value);
  void number(float value);
  void boolean(bool value);
  void null();

  // Writes already-encoded JSON as one value, unchanged.
  void raw(std::string_view json);

  [[nodiscard]] bool ok() const { return ok_; }

 private:
  void separate();
  void writeString(std::string_view value);
  // Appends at most `maxLength` characters (plus a separating comma) that `fill` writes at the pointer
  // it is given, returning the end of what it wrote; one resize instead of an append per piece.
  template <typename Fill>
  void append(std::size_t maxLength, Fill&& fill);

  std::string& out_;
  bool needsComma_ = false;
  bool ok_ = true;
};

// Appends `value` as a JSON string literal, quotes included, escaping quotes, backslashes, forward
// slashes and control characters. Bytes of 0x80 and above are copied unchanged (UTF-8 passes through).
void appendJsonString(std::string& out, std::string_view value);
// The same escaping without the surrounding quotes.
void appendJsonStringContent(std::string& out, std::string_view value);

// How the JSON writer escapes one byte: 0 to copy it as is, 'u' for \u00XX, or the letter that follows
// the backslash (\" \\ \/ \b \f \n \r \t). A constant expression, so that tables built from it are
// ready before any other static initializer runs.
[[nodiscard]] constexpr char jsonEscapeFor(unsigned char byte) {
  switch (byte) {
    case '\b':
      return 'b';
    case '\f':
      return 'f';
    case '\n':
      return 'n';
    case '\r':
      return 'r';
    case '\t':
      return 't';
    case '"':
      return '"';
    case '\\':
      return '\\';
    case '/':
      return '/';
    default:
      return byte < 0x20 ? 'u' : 0;
  }
}

// Appends the shortest decimal text that reads back as exactly `value`; false for NaN and infinities.
bool appendShortestNumber(std::string& out, double value);
bool appendShortestNumber(std::string& out, float value);

}  // namespace verdalune::sessionreplay
