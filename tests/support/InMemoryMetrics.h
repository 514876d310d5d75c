// A metrics sink that remembers every operation, in order, for tests to inspect. Install it
// through Sandbox::install({.metrics = sink}). Thread-safe.
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

  void setValue(const std::string& key, int64_t value) override;
  void addValue(const std::string& key, int64_t value) override;

  std::vector<Entry> entries() const;
  // The operations recorded for `key`, in order.
  std::vector<Entry> entriesFor(const std::string& key) const;
  // What the service would hold for `key` after the recorded operations (sums wrap at 64
  // bits), or nullopt if the key was never written.
  std::optional<int64_t> valueOf(const std::string& key) const;
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<Entry> entries_;  // guarded by mutex_
};

}  // namespace kelo::test

#endif  // KELO_TESTS_SUPPORT_INMEMORYMETRICS_H_
