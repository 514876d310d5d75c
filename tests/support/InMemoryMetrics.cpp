#include "tests/support/InMemoryMetrics.h"

namespace kelo::test {

void InMemoryMetrics::setValue(const std::string& key, int64_t value) {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.push_back({Op::kSet, key, value});
}

void InMemoryMetrics::addValue(const std::string& key, int64_t value) {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.push_back({Op::kAdd, key, value});
}

std::vector<InMemoryMetrics::Entry> InMemoryMetrics::entries() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return entries_;
}

std::vector<InMemoryMetrics::Entry> InMemoryMetrics::entriesFor(const std::string& key) const {
  std::vector<Entry> out;
  for (Entry& e : entries()) {
    if (e.key == key) out.push_back(std::move(e));
  }
  return out;
}

std::optional<int64_t> InMemoryMetrics::valueOf(const std::string& key) const {
  std::optional<int64_t> value;
  for (const Entry& e : entriesFor(key)) {
    if (e.op == Op::kSet) {
      value = e.value;
    } else {
      value = static_cast<int64_t>(static_cast<uint64_t>(value.value_or(0)) +
                                   static_cast<uint64_t>(e.value));
    }
  }
  return value;
}

void InMemoryMetrics::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.clear();
}

}  // namespace kelo::test
