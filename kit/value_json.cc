// The value tree's JSON: the projection into a JSON-ready tree, the writer
// (whole texts and the piecewise writer for large results) and the reader.
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>

#include "kit/unicode.h"
#include "kit/value.h"

namespace {

using Json = nlohmann::ordered_json;

// Writes JSON in pieces of about kPieceBytes. The structure (brackets,
// separators, the two-space indentation) is written here; every scalar and
// key goes through the JSON library's own writer, so the bytes are those the
// library writes for the whole tree at once.
class JSONWriter {
 public:
  static constexpr size_t kPieceBytes = 1 << 16;

  JSONWriter(bool pretty, const LMJSONSink& sink) : pretty_(pretty), sink_(sink) {}
  ~JSONWriter() { flush(); }

  // Whether `v`, projected `projections` times, is JSON (see lmWriteJSON).
  static bool fits(const LMValue& v, int projections) {
    switch (v.kind()) {
      case LMValueKind::kNull:
      case LMValueKind::kBool:
      case LMValueKind::kInt:
      case LMValueKind::kString:
        return true;
      case LMValueKind::kDouble:
        return std::isfinite(*v.asDouble());
      case LMValueKind::kDate:
      case LMValueKind::kDecimal:
        return projections > 0;
      case LMValueKind::kObject:
        return projections > 0 && fits(v.asObject()->jsonObject(), projections - 1);
      case LMValueKind::kArray:
        for (const LMValue& e : *v.asArray()) {
          if (!fits(e, projections)) return false;
        }
        return true;
      case LMValueKind::kDictionary:
        for (const auto& e : *v.asDictionary()) {
          if (!fits(e.value, projections)) return false;
        }
        return true;
      default:
        return false;
    }
  }

  // Writes `v` (which fits) at nesting `level`.
  void write(const LMValue& v, int projections, int level) {
    switch (v.kind()) {
      case LMValueKind::kNull:
        return scalar(Json(nullptr));
      case LMValueKind::kBool:
        return scalar(Json(*v.asBool()));
      case LMValueKind::kInt:
        return scalar(Json(*v.asInt()));
      case LMValueKind::kDouble:
        return scalar(Json(*v.asDouble()));
      case LMValueKind::kString:
        return scalar(Json(lmUtf8(*v.asString())));
      case LMValueKind::kDate:
        return scalar(Json(lmUtf8(v.toString())));
      case LMValueKind::kDecimal:
        return scalar(Json(lmUtf8(v.asDecimal()->stringValue16())));
      case LMValueKind::kObject:
        return write(v.asObject()->jsonObject(), projections - 1, level);
      case LMValueKind::kArray: {
        const LMArray& array = *v.asArray();
        if (array.empty()) return text("[]");
        text(pretty_ ? "[\n" : "[");
        for (size_t i = 0; i < array.size(); ++i) {
          if (i > 0) text(pretty_ ? ",\n" : ",");
          indent(level + 1);
          write(array[i], projections, level + 1);
        }
        close(']', level);
        return;
      }
      case LMValueKind::kDictionary: {
        const LMDictionary& dictionary = *v.asDictionary();
        if (dictionary.empty()) return text("{}");
        text(pretty_ ? "{\n" : "{");
        bool first = true;
        for (const auto& e : dictionary) {
          if (!first) text(pretty_ ? ",\n" : ",");
          first = false;
          indent(level + 1);
          scalar(Json(lmUtf8(e.key.view())));
          text(pretty_ ? ": " : ":");
          write(e.value, projections, level + 1);
        }
        close('}', level);
        return;
      }
      default:
        return;
    }
  }

 private:
  void text(std::string_view piece) {
    buffer_ += piece;
    if (buffer_.size() >= kPieceBytes) flush();
  }
  void scalar(const Json& j) { text(j.dump(-1, ' ', false, Json::error_handler_t::replace)); }
  void indent(int level) {
    if (pretty_) buffer_.append(static_cast<size_t>(2 * level), ' ');
  }
  void close(char bracket, int level) {
    if (pretty_) buffer_ += '\n';
    indent(level);
    buffer_ += bracket;
  }
  void flush() {
    if (!buffer_.empty()) sink_(buffer_);
    buffer_.clear();
  }

  const bool pretty_;
  const LMJSONSink& sink_;
  std::string buffer_;
};

LMValue fromJsonTree(const Json& j) {
  switch (j.type()) {
    case Json::value_t::null:
      return LMValue::null();
    case Json::value_t::boolean:
      return LMValue(j.get<bool>());
    case Json::value_t::number_integer:
      return LMValue(j.get<int64_t>());
    case Json::value_t::number_unsigned: {
      const auto u = j.get<uint64_t>();
      if (u <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
        return LMValue(static_cast<int64_t>(u));
      return LMValue(static_cast<double>(u));
    }
    case Json::value_t::number_float:
      return LMValue(j.get<double>());
    case Json::value_t::string:
      return LMValue(lmUtf16(j.get_ref<const std::string&>()));
    case Json::value_t::array: {
      LMArray out;
      out.reserve(j.size());
      for (const Json& e : j) out.push_back(fromJsonTree(e));
      return LMValue(std::move(out));
    }
    case Json::value_t::object: {
      LMDictionary out;
      for (auto it = j.begin(); it != j.end(); ++it) out.set(lmUtf16(it.key()), fromJsonTree(*it));
      return LMValue(std::move(out));
    }
    default:
      return LMValue::null();
  }
}

// The JSON reader recurses per nesting level; refuse absurd depths up front.
bool nestingWithinLimit(std::string_view bytes) {
  constexpr int kMaxDepth = 512;
  int depth = 0;
  bool inString = false;
  for (size_t i = 0; i < bytes.size(); ++i) {
    const char c = bytes[i];
    if (inString) {
      if (c == '\\') ++i;
      else if (c == '"') inString = false;
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > kMaxDepth) return false;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return true;
}

}  // namespace

bool lmWriteJSON(const LMValue& value, int projections, bool pretty, const LMJSONSink& sink) {
  if (!JSONWriter::fits(value, projections)) return false;
  JSONWriter(pretty, sink).write(value, projections, 0);
  return true;
}

LMValue LMValue::jsonObject() const {
  switch (kind()) {
    case LMValueKind::kDictionary: {
      LMDictionary out;
      for (const auto& e : *asDictionary()) out.emplace(e.key, e.value.jsonObject());
      return LMValue(std::move(out));
    }
    case LMValueKind::kArray: {
      LMArray out;
      out.reserve(asArray()->size());
      for (const LMValue& e : *asArray()) out.push_back(e.jsonObject());
      return LMValue(std::move(out));
    }
    case LMValueKind::kDate:
      return LMValue(toString());
    case LMValueKind::kDecimal:
      return LMValue(asDecimal()->stringValue16());
    case LMValueKind::kObject:
      return asObject()->jsonObject();
    default:
      return *this;
  }
}

std::optional<std::string> LMValue::toJSONData() const {
  std::string bytes;
  if (!lmWriteJSON(*this, 0, false, [&](std::string_view piece) { bytes += piece; })) {
    return std::nullopt;
  }
  return bytes;
}

std::optional<std::u16string> LMValue::toJSON() const {
  auto bytes = toJSONData();
  if (!bytes) return std::nullopt;
  return lmUtf16(*bytes);
}

std::optional<std::u16string> LMValue::toJSONPretty() const {
  std::string bytes;
  if (!lmWriteJSON(*this, 0, true, [&](std::string_view piece) { bytes += piece; })) {
    return std::nullopt;
  }
  return lmUtf16(bytes);
}

std::optional<LMValue> LMValue::fromJSONData(std::string_view bytes) {
  if (!nestingWithinLimit(bytes)) return std::nullopt;
  Json parsed = Json::parse(bytes.begin(), bytes.end(), nullptr, false);
  if (parsed.is_discarded() || !(parsed.is_array() || parsed.is_object())) return std::nullopt;
  return fromJsonTree(parsed);
}

std::optional<LMValue> LMValue::fromJSON(std::u16string_view text) {
  return fromJSONData(lmUtf8(text));
}
