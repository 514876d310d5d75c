// kelo::Value: the library's object model for configuration, preferences, device answers and
// energy reports: null, boolean, integer, real, string, date, array, dictionary, and an error
// value that carries what went wrong while reading (with file, line and column).
//
// A Value is immutable and cheap to copy: arrays and dictionaries are shared, never changed.
// Build containers as Value::Array / Value::Dictionary and wrap them.
#ifndef KELO_PLATFORM_VALUE_H_
#define KELO_PLATFORM_VALUE_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "kelo/export.h"

namespace kelo {

class KELO_EXPORT Value {
 public:
  enum class Type { kNull, kBoolean, kInteger, kReal, kString, kDate, kArray, kDictionary, kError };

  using Array = std::vector<Value>;
  using Dictionary = std::map<std::string, Value, std::less<>>;
  struct Error {
    std::string message;
    std::string file;
    int line = 0;    // 1-based; 0 when unknown
    int column = 0;  // 1-based; 0 when unknown
  };

  Value() = default;  // null

  static Value boolean(bool b);
  static Value integer(int64_t i);
  static Value real(double d);
  static Value string(std::string s);
  // A point in time, as seconds since 1970 (UTC).
  static Value date(double secondsSince1970);
  static Value array(Array items);
  static Value dictionary(Dictionary entries);
  static Value error(std::string message, std::string file = {}, int line = 0, int column = 0);

  Type type() const { return static_cast<Type>(storage_.index()); }
  bool isNull() const { return type() == Type::kNull; }
  bool isBoolean() const { return type() == Type::kBoolean; }
  bool isNumber() const { return type() == Type::kInteger || type() == Type::kReal; }
  bool isString() const { return type() == Type::kString; }
  bool isDate() const { return type() == Type::kDate; }
  bool isArray() const { return type() == Type::kArray; }
  bool isDictionary() const { return type() == Type::kDictionary; }
  bool isError() const { return type() == Type::kError; }

  // Typed access. Each returns a neutral value (false, 0, 0.0, empty) for another type.
  bool asBoolean() const;
  double asDate() const;  // seconds since 1970
  const std::string& asString() const;
  const Array& asArray() const;
  const Dictionary& asDictionary() const;
  const Error& asError() const;

  // The integer reading: a number truncated toward zero (saturated at the 64-bit limits, NaN
  // gives 0), a boolean 1 or 0, a string the decimal integer at its start (0 if none), anything
  // else 0.
  int64_t integerValue() const;
  // A number as a double, a boolean as 1.0 or 0.0, anything else 0.0.
  double doubleValue() const;

  // Dictionary entry under `key`; nullptr when absent or when this is not a dictionary.
  const Value* find(std::string_view key) const;

  bool operator==(const Value& other) const;

 private:
  struct Date {
    double seconds;
    bool operator==(const Date&) const = default;
  };
  using Storage = std::variant<std::monostate, bool, int64_t, double, std::string, Date,
                               std::shared_ptr<const Array>, std::shared_ptr<const Dictionary>,
                               std::shared_ptr<const Error>>;
  explicit Value(Storage s) : storage_(std::move(s)) {}
  Storage storage_;
};

}  // namespace kelo

#endif  // KELO_PLATFORM_VALUE_H_
