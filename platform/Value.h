// kelo::Value: the library's object model for configuration, preferences, device answers and
// energy reports: null, boolean, integer, real, string, date, array, dictionary, and an error
// value that carries what went wrong while reading (with file, line and column).
//
// A Value is immutable and cheap to copy: arrays and dictionaries are shared, never changed.
// Build containers as Value::Array / Value::Dictionary and wrap them.
//
// A dictionary keeps its entries in one array sorted by key rather than one heap node per entry:
// a report of 100,000 small dictionaries is then 100,000 short runs of memory read front to
// back, instead of half a million nodes scattered over the heap.
#ifndef KELO_PLATFORM_VALUE_H_
#define KELO_PLATFORM_VALUE_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <variant>
#include <vector>

#include "kelo/export.h"

namespace kelo {

class KELO_EXPORT Value {
 public:
  enum class Type { kNull, kBoolean, kInteger, kReal, kString, kDate, kArray, kDictionary, kError };

  using Array = std::vector<Value>;
  class Dictionary;  // below
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
  // A wrapped array or dictionary never changes again, so it is kept without spare capacity.
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
    bool operator==(const Date& other) const { return seconds == other.seconds; }
  };
  using Storage = std::variant<std::monostate, bool, int64_t, double, std::string, Date,
                               std::shared_ptr<const Array>, std::shared_ptr<const Dictionary>,
                               std::shared_ptr<const Error>>;
  explicit Value(Storage s) : storage_(std::move(s)) {}
  Storage storage_;
};

// Keys to values, iterated in key order (byte-wise, as std::string compares). The interface is
// the part of an ordered map's that the library and its users need; unlike a map's, an insertion
// or erasure moves the entries after it, so it invalidates iterators and references to entries.
// Keys must not be changed through an iterator.
class Value::Dictionary {
 public:
  using key_type = std::string;
  using mapped_type = Value;
  using value_type = std::pair<std::string, Value>;
  using size_type = std::size_t;
  using difference_type = std::ptrdiff_t;
  using reference = value_type&;
  using const_reference = const value_type&;
  using iterator = std::vector<value_type>::iterator;
  using const_iterator = std::vector<value_type>::const_iterator;

  Dictionary() = default;
  // As an ordered map would: of entries with equal keys, the first is kept.
  Dictionary(std::initializer_list<value_type> entries) { insert(entries.begin(), entries.end()); }
  template <class InputIt>
  Dictionary(InputIt first, InputIt last) {
    insert(first, last);
  }

  // A dictionary of `entries` in any order; of entries with equal keys the last is kept, as a
  // sequence of insert_or_assign calls would. Sorts once, where inserting one by one would move
  // the entries behind each insertion.
  static Dictionary fromUnsorted(std::vector<value_type> entries) {
    Dictionary d;
    const auto before = [](const value_type& a, const value_type& b) { return a.first < b.first; };
    if (!std::is_sorted(entries.begin(), entries.end(), before)) {
      std::stable_sort(entries.begin(), entries.end(), before);
    }
    std::size_t kept = 0;
    for (std::size_t i = 0; i < entries.size(); ++i) {
      if (i + 1 < entries.size() && entries[i + 1].first == entries[i].first) continue;
      if (kept != i) entries[kept] = std::move(entries[i]);
      ++kept;
    }
    entries.erase(entries.begin() + static_cast<difference_type>(kept), entries.end());
    d.entries_ = std::move(entries);
    return d;
  }

  iterator begin() noexcept { return entries_.begin(); }
  iterator end() noexcept { return entries_.end(); }
  const_iterator begin() const noexcept { return entries_.begin(); }
  const_iterator end() const noexcept { return entries_.end(); }
  const_iterator cbegin() const noexcept { return entries_.cbegin(); }
  const_iterator cend() const noexcept { return entries_.cend(); }

  bool empty() const noexcept { return entries_.empty(); }
  size_type size() const noexcept { return entries_.size(); }
  void reserve(size_type n) { entries_.reserve(n); }
  void clear() noexcept { entries_.clear(); }
  void swap(Dictionary& other) noexcept { entries_.swap(other.entries_); }

  iterator find(std::string_view key) { return begin() + indexOf(key); }
  const_iterator find(std::string_view key) const { return begin() + indexOf(key); }
  bool contains(std::string_view key) const { return find(key) != end(); }
  size_type count(std::string_view key) const { return contains(key) ? 1 : 0; }
  // The first entry whose key is not less than `key`.
  iterator lower_bound(std::string_view key) { return begin() + lowerBound(key); }
  const_iterator lower_bound(std::string_view key) const { return begin() + lowerBound(key); }

  Value& at(std::string_view key) {
    const auto it = find(key);
    if (it == end()) throw std::out_of_range("Value::Dictionary::at");
    return it->second;
  }
  const Value& at(std::string_view key) const {
    const auto it = find(key);
    if (it == end()) throw std::out_of_range("Value::Dictionary::at");
    return it->second;
  }
  // The value under `key`, inserted as null if absent.
  Value& operator[](std::string_view key) { return try_emplace(key).first->second; }

  // Insert when the key is absent; the bool tells whether it was.
  template <class K, class... Args>
  std::pair<iterator, bool> try_emplace(K&& key, Args&&... args) {
    const std::string_view k(key);
    const auto position = begin() + lowerBound(k);
    if (position != end() && position->first == k) return {position, false};
    return {entries_.emplace(position, std::piecewise_construct,
                             std::forward_as_tuple(std::forward<K>(key)),
                             std::forward_as_tuple(std::forward<Args>(args)...)),
            true};
  }
  template <class K, class... Args>
  std::pair<iterator, bool> emplace(K&& key, Args&&... args) {
    return try_emplace(std::forward<K>(key), std::forward<Args>(args)...);
  }
  std::pair<iterator, bool> insert(value_type entry) {
    return try_emplace(std::move(entry.first), std::move(entry.second));
  }
  // Inserts the entries whose keys are absent; of entries with equal keys the first is kept. A
  // long range is merged in one sort, so that building a large dictionary stays O(n log n).
  template <class InputIt>
  void insert(InputIt first, InputIt last) {
    std::vector<value_type> added;
    for (; first != last; ++first) added.emplace_back(first->first, first->second);
    if (added.size() < kLinearLookup * 4) {
      for (value_type& entry : added) try_emplace(std::move(entry.first), std::move(entry.second));
      return;
    }
    // The present entries first: a stable sort keeps them ahead of added ones with equal keys.
    added.insert(added.begin(), std::make_move_iterator(entries_.begin()),
                 std::make_move_iterator(entries_.end()));
    std::stable_sort(added.begin(), added.end(),
                     [](const value_type& a, const value_type& b) { return a.first < b.first; });
    added.erase(
        std::unique(added.begin(), added.end(),
                    [](const value_type& a, const value_type& b) { return a.first == b.first; }),
        added.end());
    entries_ = std::move(added);
  }
  // Insert, or replace the value of an existing key; the bool tells whether it was inserted.
  template <class K, class M>
  std::pair<iterator, bool> insert_or_assign(K&& key, M&& value) {
    auto result = try_emplace(std::forward<K>(key), std::forward<M>(value));
    if (!result.second) result.first->second = std::forward<M>(value);
    return result;
  }

  size_type erase(std::string_view key) {
    const auto it = find(key);
    if (it == end()) return 0;
    entries_.erase(it);
    return 1;
  }
  iterator erase(const_iterator position) { return entries_.erase(position); }
  iterator erase(const_iterator first, const_iterator last) { return entries_.erase(first, last); }

  bool operator==(const Dictionary& other) const { return entries_ == other.entries_; }

 private:
  // Up to this size a lookup compares lengths front to back, cheaper than a binary search's
  // ordered comparisons; beyond it, binary search.
  static constexpr std::size_t kLinearLookup = 8;

  std::size_t indexOf(std::string_view key) const {
    if (entries_.size() <= kLinearLookup) {
      for (std::size_t i = 0; i < entries_.size(); ++i) {
        if (entries_[i].first.size() == key.size() && std::string_view(entries_[i].first) == key) {
          return i;
        }
      }
      return entries_.size();
    }
    const std::size_t i = lowerBound(key);
    return i < entries_.size() && entries_[i].first == key ? i : entries_.size();
  }
  std::size_t lowerBound(std::string_view key) const {
    const auto it = std::lower_bound(entries_.begin(), entries_.end(), key,
                                     [](const value_type& entry, std::string_view k) {
                                       return std::string_view(entry.first) < k;
                                     });
    return static_cast<std::size_t>(it - entries_.begin());
  }

  friend class Value;  // wraps the entries without a lookup per entry

  std::vector<value_type> entries_;  // sorted by key, keys unique
};

}  // namespace kelo

#endif  // KELO_PLATFORM_VALUE_H_
