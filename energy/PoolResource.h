// One item's record in a budget pool: the energy counted for an application and the change that
// its latest cumulative charge brought.
//
// The pool writes a record on the energy service's queue while a dump may read it on a logger's
// queue; both fields are therefore relaxed atomics. A pair of reads may straddle a charge, which
// diagnostic output accepts.
#ifndef KELO_ENERGY_POOLRESOURCE_H_
#define KELO_ENERGY_POOLRESOURCE_H_

#include <atomic>
#include <cstdint>

#include "kelo/export.h"

namespace kelo {

class KELO_EXPORT PoolResource {
 public:
  // A record with both fields 0. The pool passes its item limit; the record does not keep it.
  explicit PoolResource(int64_t withLimit);
  PoolResource(const PoolResource&) = delete;
  PoolResource& operator=(const PoolResource&) = delete;

  // Change brought by the latest cumulative charge; 0 after a reset of the diffs.
  int64_t currentItemPoolDiff() const {
    return currentItemPoolDiff_.load(std::memory_order_relaxed);
  }
  void setCurrentItemPoolDiff(int64_t v) {
    currentItemPoolDiff_.store(v, std::memory_order_relaxed);
  }

  // Amount counted for the item: the latest cumulative amount (mode 1) or the running sum of
  // charges (mode 0); 0 after a reset of the values.
  int64_t currentItemPoolValue() const {
    return currentItemPoolValue_.load(std::memory_order_relaxed);
  }
  void setCurrentItemPoolValue(int64_t v) {
    currentItemPoolValue_.store(v, std::memory_order_relaxed);
  }

 private:
  std::atomic<int64_t> currentItemPoolDiff_{0};
  std::atomic<int64_t> currentItemPoolValue_{0};
};

}  // namespace kelo

#endif  // KELO_ENERGY_POOLRESOURCE_H_
