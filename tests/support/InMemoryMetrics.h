// A metrics sink that remembers every operation, in order, for tests to inspect. Install it
// through Sandbox::install with Overrides::metrics. Thread-safe.
#ifndef KELO_TESTS_SUPPORT_INMEMORYMETRICS_H_
#define KELO_TESTS_SUPPORT_INMEMORYMETRICS_H_

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kelo/Overrides.h"

namespace kelo::test {

class InMemoryMetrics : public kelo::platform::MetricsSink {
 public:
  enum class Op { kSet, kAdd };
  struct Entry {
    Op op;
    std::string key;
    int64_t value;
    bool operator==(const Entry&) const = default;
  };

  void setValue(const std::string& key, int64_t value) override { record({Op::kSet, key, value}); }
  void addValue(const std::string& key, int64_t value) override { record({Op::kAdd, key, value}); }

  std::vector<Entry> entries() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_;
  }
  // What the service would hold for `key` after the recorded operations (sums wrap at 64
  // bits), or nullopt if the key was never written.
  std::optional<int64_t> valueOf(const std::string& key) const {
    std::optional<int64_t> value;
    for (const Entry& e : entries()) {
      if (e.key != key) continue;
      value = e.op == Op::kSet ? e.value
                               : static_cast<int64_t>(static_cast<uint64_t>(value.value_or(0)) +
                                                      static_cast<uint64_t>(e.value));
    }
    return value;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.clear();
  }

 private:
  void record(Entry e) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.push_back(std::move(e));
  }
  mutable std::mutex mutex_;
  std::vector<Entry> entries_;  // guarded by mutex_
};

}  // namespace kelo::test

#endif  // KELO_TESTS_SUPPORT_INMEMORYMETRICS_H_
