#include "platform/Json.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace kelo::platform {

namespace {

using json = nlohmann::json;

// Builds Values straight from the parser's events, with a depth bound, so that no intermediate
// document tree is made and no nesting can exhaust the stack.
class ValueBuilder : public nlohmann::json_sax<json> {
 public:
  bool null() override { return add(Value()); }
  bool boolean(bool v) override { return add(Value::boolean(v)); }
  bool number_integer(number_integer_t v) override { return add(Value::integer(v)); }
  bool number_unsigned(number_unsigned_t v) override {
    if (v <= static_cast<number_unsigned_t>(INT64_MAX)) {
      return add(Value::integer(static_cast<int64_t>(v)));
    }
    return add(Value::real(static_cast<double>(v)));
  }
  bool number_float(number_float_t v, const string_t&) override { return add(Value::real(v)); }
  bool string(string_t& v) override { return add(Value::string(std::move(v))); }
  bool binary(binary_t&) override { return add(Value()); }

  bool start_object(std::size_t) override { return enter(true); }
  bool key(string_t& k) override {
    frames_[depth_ - 1].key = std::move(k);
    return true;
  }
  bool end_object() override {
    Frame& f = frames_[--depth_];
    // Exactly sized, so that a report's many small dictionaries carry no spare capacity; the
    // frame keeps its buffer for the next object at this depth.
    std::vector<Value::Dictionary::value_type> entries;
    entries.reserve(f.entries.size());
    std::move(f.entries.begin(), f.entries.end(), std::back_inserter(entries));
    f.entries.clear();
    return add(Value::dictionary(Value::Dictionary::fromUnsorted(std::move(entries))));
  }
  bool start_array(std::size_t) override { return enter(false); }
  bool end_array() override {
    Frame& f = frames_[--depth_];
    Value::Array items(std::make_move_iterator(f.items.begin()),
                       std::make_move_iterator(f.items.end()));
    f.items.clear();
    return add(Value::array(std::move(items)));
  }
  bool parse_error(std::size_t position, const std::string&,
                   const nlohmann::detail::exception& ex) override {
    errorPosition_ = position;
    errorMessage_ = ex.what();
    return false;
  }

  bool tooDeep() const { return tooDeep_; }
  std::size_t errorPosition() const { return errorPosition_; }
  const std::string& errorMessage() const { return errorMessage_; }
  Value take() { return std::move(root_); }

 private:
  // An object or array being read. Frames below the current depth stay allocated, so their
  // buffers serve every later container at the same depth.
  struct Frame {
    bool isObject = false;
    std::string key;
    std::vector<Value::Dictionary::value_type> entries;  // in the document's order
    Value::Array items;
  };

  bool enter(bool isObject) {
    if (static_cast<int>(depth_) >= kMaxJsonDepth) {
      tooDeep_ = true;
      return false;
    }
    if (depth_ == frames_.size()) frames_.emplace_back();
    frames_[depth_++].isObject = isObject;
    return true;
  }
  bool add(Value v) {
    if (depth_ == 0) {
      root_ = std::move(v);
      return true;
    }
    Frame& f = frames_[depth_ - 1];
    if (f.isObject) {
      f.entries.emplace_back(std::move(f.key), std::move(v));
    } else {
      f.items.push_back(std::move(v));
    }
    return true;
  }

  std::vector<Frame> frames_;
  std::size_t depth_ = 0;  // frames in use
  Value root_;
  bool tooDeep_ = false;
  std::size_t errorPosition_ = 0;
  std::string errorMessage_;
};

// Line and column (both 1-based) of the byte at `offset`.
std::pair<int, int> lineAndColumn(std::string_view text, std::size_t offset) {
  int line = 1;
  int column = 1;
  for (std::size_t i = 0; i < offset && i < text.size(); ++i) {
    if (text[i] == '\n') {
      ++line;
      column = 1;
    } else {
      ++column;
    }
  }
  return {line, column};
}

// The offset of the last character the parser read before it stopped (its positions count the
// characters read, so the offending character is the one before).
std::size_t offendingOffset(std::size_t position) { return position > 0 ? position - 1 : 0; }

json toNlohmann(const Value& v) {
  switch (v.type()) {
    case Value::Type::kBoolean:
      return v.asBoolean();
    case Value::Type::kInteger:
      return v.integerValue();
    case Value::Type::kReal:
      return v.doubleValue();
    case Value::Type::kString:
      return v.asString();
    case Value::Type::kDate:
      return v.asDate();
    case Value::Type::kArray: {
      json a = json::array();
      for (const Value& item : v.asArray()) a.push_back(toNlohmann(item));
      return a;
    }
    case Value::Type::kDictionary: {
      json o = json::object();
      for (const auto& [k, item] : v.asDictionary()) o[k] = toNlohmann(item);
      return o;
    }
    default:
      return nullptr;
  }
}

}  // namespace

Value parseJson(std::string_view text, std::string_view fileName) {
  ValueBuilder builder;
  bool ok = false;
  try {
    ok = json::sax_parse(text.begin(), text.end(), &builder, json::input_format_t::json, true);
  } catch (const std::exception& e) {
    return Value::error(e.what(), std::string(fileName));
  }
  if (ok) return builder.take();
  if (builder.tooDeep()) {
    // The depth bound stops the parser without a position of its own: find the opening bracket
    // that went one level too deep.
    int depth = 0;
    bool inString = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
      const char c = text[i];
      if (inString) {
        if (c == '\\') ++i;
        else if (c == '"') inString = false;
      } else if (c == '"') {
        inString = true;
      } else if (c == '{' || c == '[') {
        if (++depth > kMaxJsonDepth) {
          auto [line, column] = lineAndColumn(text, i);
          return Value::error("nesting deeper than " + std::to_string(kMaxJsonDepth) + " levels",
                              std::string(fileName), line, column);
        }
      } else if (c == '}' || c == ']') {
        --depth;
      }
    }
    return Value::error("nesting too deep", std::string(fileName));
  }
  auto [line, column] = lineAndColumn(text, offendingOffset(builder.errorPosition()));
  return Value::error(builder.errorMessage(), std::string(fileName), line, column);
}

JsonFile readJsonFile(const std::string& path, std::size_t limit, Owner owner) {
  JsonFile out;
  const ReadResult file = readFile(path, limit, owner);
  if (file.missing) {
    out.missing = true;
  } else if (!file.ok) {
    out.refused = file.error;
  } else {
    out.value = parseJson(file.data, path);
  }
  return out;
}

std::string toJson(const Value& value, bool pretty) {
  try {
    return toNlohmann(value).dump(pretty ? 2 : -1, ' ', false, json::error_handler_t::replace);
  } catch (const std::exception&) {
    return "null";
  }
}

}  // namespace kelo::platform
