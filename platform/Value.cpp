#include "kelo/Value.h"

#include <cctype>
#include <cmath>
#include <iterator>
#include <limits>

namespace kelo {

namespace {

const std::string& emptyString() {
  static const std::string* const kEmpty = new std::string();
  return *kEmpty;
}
const Value::Array& emptyArray() {
  static const Value::Array* const kEmpty = new Value::Array();
  return *kEmpty;
}
const Value::Dictionary& emptyDictionary() {
  static const Value::Dictionary* const kEmpty = new Value::Dictionary();
  return *kEmpty;
}

int64_t truncateToInteger(double d) {
  if (std::isnan(d)) return 0;
  if (d >= 9223372036854775807.0) return std::numeric_limits<int64_t>::max();
  if (d <= -9223372036854775808.0) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(d);  // truncates toward zero
}

// The decimal integer at the start of `s`, after blanks and an optional sign; saturates.
int64_t leadingInteger(const std::string& s) {
  size_t i = 0;
  while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i]))) ++i;
  bool negative = false;
  if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
  uint64_t magnitude = 0;
  const uint64_t limit = negative ? uint64_t{1} << 63 : (uint64_t{1} << 63) - 1;
  for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
    const uint64_t digit = static_cast<uint64_t>(s[i] - '0');
    if (magnitude > (limit - digit) / 10) {
      magnitude = limit;
      break;
    }
    magnitude = magnitude * 10 + digit;
  }
  return negative ? static_cast<int64_t>(0 - magnitude) : static_cast<int64_t>(magnitude);
}

}  // namespace

Value Value::boolean(bool b) { return Value(Storage(std::in_place_index<1>, b)); }
Value Value::integer(int64_t i) { return Value(Storage(std::in_place_index<2>, i)); }
Value Value::real(double d) { return Value(Storage(std::in_place_index<3>, d)); }
Value Value::string(std::string s) { return Value(Storage(std::in_place_index<4>, std::move(s))); }
Value Value::date(double secondsSince1970) {
  return Value(Storage(std::in_place_index<5>, Date{secondsSince1970}));
}
Value Value::array(Array items) {
  if (items.capacity() != items.size()) {
    Array exact;
    exact.reserve(items.size());
    std::move(items.begin(), items.end(), std::back_inserter(exact));
    items.swap(exact);
  }
  return Value(Storage(std::in_place_index<6>, std::make_shared<const Array>(std::move(items))));
}
Value Value::dictionary(Dictionary entries) {
  // The shared block first, then the entries, allocated afresh at their exact size: a reader
  // goes from the one to the other forwards in memory, and the dictionaries of a report built
  // one after another lie one after another. Read backwards, as when the entries' buffer came
  // first, a large report read at half the speed.
  auto shared = std::make_shared<Dictionary>();
  shared->entries_.reserve(entries.size());
  std::move(entries.entries_.begin(), entries.entries_.end(), std::back_inserter(shared->entries_));
  return Value(
      Storage(std::in_place_index<7>, std::shared_ptr<const Dictionary>(std::move(shared))));
}
Value Value::error(std::string message, std::string file, int line, int column) {
  return Value(Storage(std::in_place_index<8>,
                       std::make_shared<const Error>(
                           Error{std::move(message), std::move(file), line, column})));
}

bool Value::asBoolean() const {
  const bool* b = std::get_if<bool>(&storage_);
  return b != nullptr && *b;
}

double Value::asDate() const {
  const Date* d = std::get_if<Date>(&storage_);
  return d != nullptr ? d->seconds : 0.0;
}

const std::string& Value::asString() const {
  const std::string* s = std::get_if<std::string>(&storage_);
  return s != nullptr ? *s : emptyString();
}

const Value::Array& Value::asArray() const {
  const auto* a = std::get_if<std::shared_ptr<const Array>>(&storage_);
  return a != nullptr ? **a : emptyArray();
}

const Value::Dictionary& Value::asDictionary() const {
  const auto* d = std::get_if<std::shared_ptr<const Dictionary>>(&storage_);
  return d != nullptr ? **d : emptyDictionary();
}

const Value::Error& Value::asError() const {
  static const Error* const kNone = new Error();
  const auto* e = std::get_if<std::shared_ptr<const Error>>(&storage_);
  return e != nullptr ? **e : *kNone;
}

int64_t Value::integerValue() const {
  switch (type()) {
    case Type::kBoolean:
      return std::get<bool>(storage_) ? 1 : 0;
    case Type::kInteger:
      return std::get<int64_t>(storage_);
    case Type::kReal:
      return truncateToInteger(std::get<double>(storage_));
    case Type::kString:
      return leadingInteger(std::get<std::string>(storage_));
    default:
      return 0;
  }
}

double Value::doubleValue() const {
  switch (type()) {
    case Type::kBoolean:
      return std::get<bool>(storage_) ? 1.0 : 0.0;
    case Type::kInteger:
      return static_cast<double>(std::get<int64_t>(storage_));
    case Type::kReal:
      return std::get<double>(storage_);
    default:
      return 0.0;
  }
}

const Value* Value::find(std::string_view key) const {
  const auto* d = std::get_if<std::shared_ptr<const Dictionary>>(&storage_);
  if (d == nullptr) return nullptr;
  auto it = (*d)->find(key);
  return it == (*d)->end() ? nullptr : &it->second;
}

bool Value::operator==(const Value& other) const {
  if (type() != other.type()) return false;
  switch (type()) {
    case Type::kArray:
      return asArray() == other.asArray();
    case Type::kDictionary:
      return asDictionary() == other.asDictionary();
    case Type::kError: {
      const Error& a = asError();
      const Error& b = other.asError();
      return a.message == b.message && a.file == b.file && a.line == b.line &&
             a.column == b.column;
    }
    default:
      return storage_ == other.storage_;
  }
}

}  // namespace kelo
