#include <rapidjson/document.h>

#include <cmath>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "rrweb/coding.h"
#include "rrweb/record_fields.h"

namespace verdalune::sessionreplay::rrweb {
namespace {

using rapidjson::Value;
using Kind = DecodeError::Kind;

std::string_view shapeOf(const Value& json) {
  switch (json.GetType()) {
    case rapidjson::kNullType:
      return "null";
    case rapidjson::kFalseType:
    case rapidjson::kTrueType:
      return "a boolean";
    case rapidjson::kObjectType:
      return "an object";
    case rapidjson::kArrayType:
      return "an array";
    case rapidjson::kStringType:
      return "a string";
    case rapidjson::kNumberType:
      return "a number";
  }
  return "an unknown value";
}

// The integer a JSON number holds exactly, when it fits 64 bits: 3 and 3.0 do; 3.5 and 2^63 do not.
std::optional<std::int64_t> exactInt64(const Value& json) {
  if (json.IsInt64()) return json.GetInt64();
  if (!json.IsDouble()) return std::nullopt;  // not a number, or an integer above the int64 range
  const double number = json.GetDouble();
  if (number >= -0x1p63 && number < 0x1p63 && std::trunc(number) == number) {
    return static_cast<std::int64_t>(number);
  }
  return std::nullopt;
}

// The parser turns a lone low surrogate escape ("\udc00") into the bytes ED B0 80, which are not
// UTF-8: such text could not be written back out and read again, so it is refused.
bool holdsSurrogate(std::string_view text) {
  for (std::size_t i = 0; i + 1 < text.size(); ++i) {
    if (static_cast<unsigned char>(text[i]) == 0xED && static_cast<unsigned char>(text[i + 1]) >= 0xA0) {
      return true;
    }
  }
  return false;
}

// The `source` or `type` a record of a union holds by default. Out of line, so that the temporary
// record does not take room in the recursive readers' frames.
template <typename Record>
[[gnu::noinline]] auto defaultTag() {
  if constexpr (requires { Record{}.source; }) {
    return Record{}.source;
  } else {
    return Record{}.type;
  }
}

// Whether a decoded `type` or `source` selects this record of its union.
template <typename Record, typename Tag>
bool carries(Tag tag) {
  if constexpr (std::same_as<Record, MouseMoveData>) {
    return tag == IncrementalSource::mouseMove || tag == IncrementalSource::touchMove ||
           tag == IncrementalSource::drag;
  } else {
    static const Tag carried = defaultTag<Record>();
    return carried == tag;
  }
}

// Walks a parsed document into records; the visitor of detail::fields when decoding. Stops at the first
// failure, which it keeps in `error` with the path that led to it.
class Decoder {
 public:
  // The keys of one JSON object; each call reads one member into the record.
  class Fields {
   public:
    Fields(Decoder& decoder, const Value& object) : decoder_(decoder), object_(object) {}

    template <typename T>
    void field(std::string_view key, T& out) {
      if (!decoder_.failed()) decoder_.member(object_, key, out);
    }

    void numberOrList(std::string_view key, std::vector<std::int64_t>& out) {
      NumberOrList list{out};
      field(key, list);
    }

    void numberOrList(std::string_view key, std::optional<std::vector<std::int64_t>>& out) {
      if (present(object_, key)) {
        numberOrList(key, out.emplace());
      } else {
        out.reset();
      }
    }

    template <typename ReadFields>
    void object(std::string_view key, ReadFields&& readFields) {
      Nested<ReadFields> nested{readFields};
      field(key, nested);
    }

   private:
    Decoder& decoder_;
    const Value& object_;
  };

  std::optional<DecodeError> error;

  [[nodiscard]] bool failed() const { return error.has_value(); }

  bool read(const Value& json, std::int64_t& out) {
    if (auto number = exactInt64(json)) {
      out = *number;
      return true;
    }
    if (json.IsNumber()) return fail(Kind::typeMismatch, "Number ", json, " does not fit in Int64");
    return mismatch("Int64", json);
  }

  // JSON text has no NaN or infinity, but a caller's own document may hold them; they could not be
  // written back.
  bool read(const Value& json, double& out) {
    if (!json.IsNumber()) return mismatch("Double", json);
    out = json.GetDouble();
    if (!std::isfinite(out)) return fail(Kind::typeMismatch, "Number ", json, " does not fit in Double");
    return true;
  }

  bool read(const Value& json, float& out) {
    double number = 0;
    if (!read(json, number)) return false;
    // Everything below FLT_MAX plus half its last place rounds to a finite float.
    if (std::fabs(number) >= 0x1.ffffffp127) {
      return fail(Kind::typeMismatch, "Number ", json, " does not fit in Float");
    }
    out = static_cast<float>(number);
    return true;
  }

  bool read(const Value& json, bool& out) {
    if (!json.IsBool()) return mismatch("Bool", json);
    out = json.GetBool();
    return true;
  }

  bool read(const Value& json, std::string& out) {
    if (!json.IsString()) return mismatch("String", json);
    out.assign(json.GetString(), json.GetStringLength());
    if (holdsSurrogate(out)) return fail(Kind::dataCorrupted, "String holds an unpaired surrogate");
    return true;
  }

  bool read(const Value& json, CompatMode& out) {
    std::string text;
    if (!read(json, text)) return false;
    for (CompatMode mode : {CompatMode::backCompat, CompatMode::css1Compat}) {
      if (text == detail::rawValue(mode)) {
        out = mode;
        return true;
      }
    }
    return fail(Kind::dataCorrupted, "Cannot initialize CompatMode from invalid value \"", text, "\"");
  }

  template <detail::IntegerEnum E>
  bool read(const Value& json, E& out) {
    std::int64_t raw = 0;
    if (!read(json, raw)) return false;
    const detail::EnumInfo info = detail::enumInfo(E{});
    if (raw < 0 || raw > info.last) {
      return fail(Kind::dataCorrupted, "Cannot initialize ", info.name, " from invalid value ", raw);
    }
    out = static_cast<E>(raw);
    return true;
  }

  template <typename T>
  bool read(const Value& json, std::vector<T>& out) {
    if (!json.IsArray()) return mismatch("Array", json);
    out.clear();
    out.reserve(json.Size());
    for (rapidjson::SizeType i = 0; i < json.Size(); ++i) {
      PathScope scope(*this, std::size_t{i});
      if (!read(json[i], out.emplace_back())) return false;
    }
    return true;
  }

  // Inside a list, null holds the place of an absent element.
  template <typename T>
  bool read(const Value& json, std::optional<T>& out) {
    if (json.IsNull()) {
      out.reset();
      return true;
    }
    return read(json, out.emplace());
  }

  // When a key repeats, the last one wins, as in the browser's JSON.parse.
  bool read(const Value& json, JSONValue::Dictionary& out) {
    if (!json.IsObject()) return mismatch("Dictionary", json);
    out.clear();
    for (auto member = json.MemberBegin(); member != json.MemberEnd(); ++member) {
      std::string key;
      if (!read(member->name, key)) return false;
      PathScope scope(*this, std::string_view(member->name.GetString(), member->name.GetStringLength()));
      JSONValue value;
      if (!read(member->value, value)) return false;
      out.insert_or_assign(std::move(key), std::move(value));
    }
    return true;
  }

  // Tries the shapes in the order null, bool, int, double, string, array, dictionary.
  bool read(const Value& json, JSONValue& out) {
    switch (json.GetType()) {
      case rapidjson::kNullType:
        out = nullptr;
        return true;
      case rapidjson::kFalseType:
      case rapidjson::kTrueType:
        out = json.GetBool();
        return true;
      case rapidjson::kNumberType:
        if (auto integer = exactInt64(json)) {
          out = *integer;
          return true;
        }
        return read(json, out.value.emplace<double>());
      case rapidjson::kStringType:
        return read(json, out.value.emplace<std::string>());
      case rapidjson::kArrayType:
        return nested([&] { return read(json, out.value.emplace<JSONValue::Array>()); });
      case rapidjson::kObjectType:
        return nested([&] { return read(json, out.value.emplace<JSONValue::Dictionary>()); });
    }
    return fail(Kind::typeMismatch, "Unknown JSON type");
  }

  bool read(const Value& json, Node& out) {
    return nested([&] { return readUnion<NodeType>(json, "type", out.value); });
  }

  bool read(const Value& json, IncrementalData& out) {
    return readUnion<IncrementalSource>(json, "source", out.value);
  }

  bool read(const Value& json, Event& out) { return readUnion<EventType>(json, "type", out.value); }

  template <detail::Record R>
  bool read(const Value& json, R& out) {
    return readObject(json, [&](Fields& fields) { detail::fields(fields, out); });
  }

  // Reads the member `key` of `object`, which must be there and not null (except that a JSONValue
  // takes null as its own value).
  template <typename T>
  bool member(const Value& object, std::string_view key, T& out) {
    PathScope scope(*this, key);
    const Value* json = find(object, key);
    if (json == nullptr) return fail(Kind::keyNotFound, "No value associated with key \"", key, "\"");
    if (json->IsNull() && !std::same_as<T, JSONValue>) {
      return fail(Kind::valueNotFound, "Expected a value for key \"", key, "\" but found null");
    }
    return read(*json, out);
  }

  // An optional member: missing and null both leave it absent.
  template <typename T>
  bool member(const Value& object, std::string_view key, std::optional<T>& out) {
    if (!present(object, key)) {
      out.reset();
      return true;
    }
    return member(object, key, out.emplace());
  }

  static bool present(const Value& object, std::string_view key) {
    const Value* json = find(object, key);
    return json != nullptr && !json->IsNull();
  }

  // A list of integers that may also come as one bare integer.
  struct NumberOrList {
    std::vector<std::int64_t>& list;
  };

  bool read(const Value& json, NumberOrList& out) {
    if (auto number = exactInt64(json)) {
      out.list.assign(1, *number);
      return true;
    }
    return read(json, out.list);
  }

  // A nested object whose keys a function of the record visits.
  template <typename ReadFields>
  struct Nested {
    ReadFields& readFields;
  };

  template <typename ReadFields>
  bool read(const Value& json, Nested<ReadFields>& out) {
    return readObject(json, out.readFields);
  }

 private:
  // A key or an index on the way down, kept for the error's path.
  using PathComponent = std::variant<std::string_view, std::size_t>;

  class PathScope {
   public:
    PathScope(Decoder& decoder, PathComponent component) : path_(decoder.path_) {
      path_.push_back(component);
    }
    ~PathScope() { path_.pop_back(); }
    PathScope(const PathScope&) = delete;
    PathScope& operator=(const PathScope&) = delete;

   private:
    std::vector<PathComponent>& path_;
  };

  static const Value* find(const Value& object, std::string_view key) {
    const auto member = object.FindMember(Value(rapidjson::StringRef(key.data(), key.size())));
    return member == object.MemberEnd() ? nullptr : &member->value;
  }

  template <typename ReadFields>
  bool readObject(const Value& json, ReadFields&& readFields) {
    if (!json.IsObject()) return mismatch("Dictionary", json);
    Fields fields(*this, json);
    readFields(fields);
    return !failed();
  }

  // Reads the object's `tagKey` first, then the whole object as the record that tag selects.
  template <typename Tag, typename... Records>
  bool readUnion(const Value& json, std::string_view tagKey, std::variant<Records...>& out) {
    if (!json.IsObject()) return mismatch("Dictionary", json);
    Tag tag{};
    if (!member(json, tagKey, tag)) return false;
    bool selected = false;
    bool ok = false;
    ((!selected && carries<Records>(tag) && (selected = true, ok = readAlternative<Records>(json, out))),
     ...);
    if (!selected) {
      PathScope scope(*this, tagKey);
      return fail(Kind::dataCorrupted, detail::enumInfo(tag).name, " ", static_cast<std::int64_t>(tag),
                  " carries no record");
    }
    return ok;
  }

  template <typename Record, typename Variant>
  bool readAlternative(const Value& json, Variant& out) {
    return read(json, out.template emplace<Record>());
  }

  // Counts the levels of nodes and JSON values, the only values that nest without a fixed bound.
  template <typename ReadInside>
  bool nested(ReadInside&& readInside) {
    if (depth_ >= kMaxNestingDepth) {
      return fail(Kind::dataCorrupted, "Nested deeper than ", std::int64_t{kMaxNestingDepth}, " levels");
    }
    ++depth_;
    const bool ok = readInside();
    --depth_;
    return ok;
  }

  bool mismatch(std::string_view expected, const Value& json) {
    return fail(Kind::typeMismatch, "Expected to decode ", expected, " but found ", shapeOf(json),
                " instead");
  }

  // Builds the message only here, out of line, so that the frames of the recursive readers stay small:
  // they bound how deep a tree fits on a thread's stack.
  template <typename... Parts>
  [[gnu::cold, gnu::noinline]] bool fail(Kind kind, const Parts&... parts) {
    if (!error) {
      std::string description;
      (append(description, parts), ...);
      error = DecodeError{kind, std::move(description), pathText()};
    }
    return false;
  }

  static void append(std::string& out, std::string_view text) { out += text; }
  static void append(std::string& out, std::int64_t number) { out += std::to_string(number); }
  static void append(std::string& out, const Value& number) {
    if (number.IsInt64()) {
      out += std::to_string(number.GetInt64());
    } else if (number.IsUint64()) {
      out += std::to_string(number.GetUint64());
    } else {
      appendShortestNumber(out, number.GetDouble());
    }
  }

  std::string pathText() const {
    std::string text;
    for (const PathComponent& component : path_) {
      if (const auto* key = std::get_if<std::string_view>(&component)) {
        if (!text.empty()) text += '.';
        text += *key;
      } else {
        text += '[' + std::to_string(std::get<std::size_t>(component)) + ']';
      }
    }
    return text;
  }

  std::vector<PathComponent> path_;
  int depth_ = 0;
};

template <typename T>
std::expected<T, DecodeError> decodeValue(const Value& json) {
  Decoder decoder;
  T out;
  if (!decoder.read(json, out)) return std::unexpected(std::move(*decoder.error));
  return out;
}

template <typename T>
std::expected<T, DecodeError> decodeText(std::string_view text) {
  rapidjson::Document document;
  if (auto parsed = parseJson(text, document); !parsed) return std::unexpected(std::move(parsed.error()));
  return decodeValue<T>(document);
}

}  // namespace

std::expected<Event, DecodeError> decodeEvent(std::string_view json) {
  return decodeText<Event>(json);
}
std::expected<Event, DecodeError> decodeEvent(const Value& json) {
  return decodeValue<Event>(json);
}
std::expected<Node, DecodeError> decodeNode(std::string_view json) {
  return decodeText<Node>(json);
}
std::expected<Node, DecodeError> decodeNode(const Value& json) {
  return decodeValue<Node>(json);
}
std::expected<IncrementalData, DecodeError> decodeIncrementalData(std::string_view json) {
  return decodeText<IncrementalData>(json);
}
std::expected<IncrementalData, DecodeError> decodeIncrementalData(const Value& json) {
  return decodeValue<IncrementalData>(json);
}
std::expected<JSONValue, DecodeError> decodeJSONValue(std::string_view json) {
  return decodeText<JSONValue>(json);
}
std::expected<JSONValue, DecodeError> decodeJSONValue(const Value& json) {
  return decodeValue<JSONValue>(json);
}

}  // namespace verdalune::sessionreplay::rrweb
