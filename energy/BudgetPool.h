// A budget pool: the energy charged to each item (application) of one category of background
// work, the running total of the category, and whether an item may still spend.
//
// Threads. Charges, resets, totals and availability queries come from one serial queue (the
// energy service's); the two dumps may run at the same time on a logger's queue. The record map
// is guarded by a mutex that is never held while a line is logged; scalar fields are relaxed
// atomics. A dump may therefore show a state in the middle of a refresh, never a torn map.
//
// Arithmetic is 64-bit two's complement and wraps silently, as the totals of a long-lived
// daemon must never trap.
#ifndef KELO_ENERGY_BUDGETPOOL_H_
#define KELO_ENERGY_BUDGETPOOL_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "kelo/KeloLoggerProtocol.h"
#include "kelo/PoolResource.h"
#include "kelo/export.h"

namespace kelo {

class KELO_EXPORT BudgetPool : public KeloLoggerProtocol {
 public:
  // Budget modes: how UpdateBudget applies a cost. Any other mode makes charges no-ops.
  // Enumerators rather than static members, so that no data symbol leaves the library.
  enum : int32_t { kAdditive = 0, kCumulative = 1 };

  // A pool with no records and a running total of 0. Limits and mode never change afterwards.
  BudgetPool(int64_t globalLimit, int64_t andItemLimit, int32_t withBudgetMode);
  ~BudgetPool() override;
  BudgetPool(const BudgetPool&) = delete;
  BudgetPool& operator=(const BudgetPool&) = delete;

  // The record of `key`, created zeroed on first mention (so it shows from then on in totals and
  // dumps). Never null.
  std::shared_ptr<PoolResource> findPoolResource(const std::string& key);

  // True when the running total is strictly above the global limit.
  bool hasGlobalPoolReachedLimit() const;
  // Logs "hasBudgetAvailable G: %lld L:%lld" through the C logging front, then answers whether
  // the running total is strictly below the global limit and the item's value strictly below the
  // item limit. At either limit exactly there is no budget left (deliberately not the complement
  // of hasGlobalPoolReachedLimit). Creates the record if absent.
  bool hasBudgetAvailable(const std::string& key);

  // Charges `withCost` to `key` (record created in every mode). Cumulative: the cost is the
  // item's new total; its diff becomes cost - previous value and the running total moves by that
  // diff. Additive: the cost is added to the value and the running total; the diff is untouched.
  void UpdateBudget(const std::string& key, int64_t withCost);

  // Zeroes the running total, then every record's value. Diffs and records are kept.
  void resetAllPoolLimits();
  // Zeroes every record's diff. The running total and the values are kept.
  void resetAllDiff();

  // Sums over the records of their values / their diffs; 0 without records.
  int64_t totalBudget() const;
  int64_t totalDiffBudget() const;

  // Dumps, written with vsl_log through the given client. logLight writes "budgetMode %d",
  // "itemPoolLimit %lld", "globalPoolLimit %lld", "currentGlobalPool %lld"; logAll writes those,
  // then "AppID: %s Diff %lld Value %lld" per record, sorted by key. They never log through the
  // C logging front, so they may run on a logger's queue.
  void logAll(vsl_client_t client, vsl_msg_t withMsg, int32_t withLevel) override;
  void logLight(vsl_client_t client, vsl_msg_t withMsg, int32_t withLevel) override;

  int64_t itemPoolLimit() const { return itemPoolLimit_; }
  int64_t globalPoolLimit() const { return globalPoolLimit_; }
  int32_t budgetMode() const { return budgetMode_; }
  int64_t currentGlobalPool() const { return currentGlobalPool_.load(std::memory_order_relaxed); }
  // Number of records.
  std::size_t itemCount() const;

 private:
  // The records in order of creation, with a hash index over them; defined in BudgetPool.cpp.
  class Items;

  // The records, copied under the lock, so that a walk that logs holds no lock.
  std::vector<std::pair<std::string, std::shared_ptr<PoolResource>>> snapshot() const;

  const int64_t itemPoolLimit_;    // constant after construction
  const int64_t globalPoolLimit_;  // constant after construction
  std::atomic<int64_t> currentGlobalPool_;
  const int32_t budgetMode_;  // constant after construction

  mutable std::mutex itemsMutex_;  // guards itemsDictionary_; never held while logging
  const std::unique_ptr<Items> itemsDictionary_;
};

}  // namespace kelo

#endif  // KELO_ENERGY_BUDGETPOOL_H_
