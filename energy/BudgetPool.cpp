#include "kelo/BudgetPool.h"

#include <algorithm>
#include <new>

#include "kelo/logging.h"
#include "kelo/vsl.h"

namespace kelo {

namespace {

// Two's-complement arithmetic without signed overflow: done on the unsigned type, whose
// conversion back is modular.
int64_t wrapAdd(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}
int64_t wrapSub(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}

}  // namespace

BudgetPool::BudgetPool(int64_t globalLimit, int64_t andItemLimit, int32_t withBudgetMode)
    : itemPoolLimit_(andItemLimit),
      globalPoolLimit_(globalLimit),
      currentGlobalPool_(globalLimit),
      budgetMode_(withBudgetMode) {
  // The pool starts full and is then emptied by the same reset a power-monitor restart uses; the
  // walk visits nothing, since no record exists yet.
  resetAllPoolLimits();
}

std::shared_ptr<PoolResource> BudgetPool::findPoolResource(const std::string& key) {
  std::lock_guard<std::mutex> lock(itemsMutex_);
  auto it = itemsDictionary_.find(key);
  if (it != itemsDictionary_.end()) return it->second;
  auto record = std::make_shared<PoolResource>(itemPoolLimit_);
  itemsDictionary_.emplace(key, record);
  return record;
}

bool BudgetPool::hasGlobalPoolReachedLimit() const {
  return currentGlobalPool_.load(std::memory_order_relaxed) > globalPoolLimit_;
}

bool BudgetPool::hasBudgetAvailable(const std::string& key) {
  const std::shared_ptr<PoolResource> record = findPoolResource(key);
  const int64_t global = currentGlobalPool_.load(std::memory_order_relaxed);
  const int64_t item = record->currentItemPoolValue();
  KELO_CLOG("hasBudgetAvailable G: %lld L:%lld", static_cast<long long>(global),
            static_cast<long long>(item));
  if (global < globalPoolLimit_) return item < itemPoolLimit_;
  return false;
}

void BudgetPool::UpdateBudget(const std::string& key, int64_t withCost) {
  const std::shared_ptr<PoolResource> record = findPoolResource(key);
  if (budgetMode_ == kCumulative) {
    const int64_t diff = wrapSub(withCost, record->currentItemPoolValue());
    currentGlobalPool_.fetch_add(diff, std::memory_order_relaxed);  // atomics wrap, never trap
    record->setCurrentItemPoolDiff(diff);
    record->setCurrentItemPoolValue(withCost);
  } else if (budgetMode_ == kAdditive) {
    currentGlobalPool_.fetch_add(withCost, std::memory_order_relaxed);
    record->setCurrentItemPoolValue(wrapAdd(record->currentItemPoolValue(), withCost));
  }
}

void BudgetPool::resetAllPoolLimits() {
  currentGlobalPool_.store(0, std::memory_order_relaxed);
  std::lock_guard<std::mutex> lock(itemsMutex_);
  for (auto& [key, record] : itemsDictionary_) record->setCurrentItemPoolValue(0);
}

void BudgetPool::resetAllDiff() {
  std::lock_guard<std::mutex> lock(itemsMutex_);
  for (auto& [key, record] : itemsDictionary_) record->setCurrentItemPoolDiff(0);
}

int64_t BudgetPool::totalBudget() const {
  std::lock_guard<std::mutex> lock(itemsMutex_);
  int64_t sum = 0;
  for (const auto& [key, record] : itemsDictionary_) {
    sum = wrapAdd(sum, record->currentItemPoolValue());
  }
  return sum;
}

int64_t BudgetPool::totalDiffBudget() const {
  std::lock_guard<std::mutex> lock(itemsMutex_);
  int64_t sum = 0;
  for (const auto& [key, record] : itemsDictionary_) {
    sum = wrapAdd(sum, record->currentItemPoolDiff());
  }
  return sum;
}

std::size_t BudgetPool::itemCount() const {
  std::lock_guard<std::mutex> lock(itemsMutex_);
  return itemsDictionary_.size();
}

std::vector<std::pair<std::string, std::shared_ptr<PoolResource>>> BudgetPool::snapshot() const {
  std::lock_guard<std::mutex> lock(itemsMutex_);
  return {itemsDictionary_.begin(), itemsDictionary_.end()};
}

void BudgetPool::logLight(vsl_client_t client, vsl_msg_t withMsg, int32_t withLevel) {
  vsl_log(client, withMsg, withLevel, "budgetMode %d", static_cast<int>(budgetMode_));
  vsl_log(client, withMsg, withLevel, "itemPoolLimit %lld", static_cast<long long>(itemPoolLimit_));
  vsl_log(client, withMsg, withLevel, "globalPoolLimit %lld",
          static_cast<long long>(globalPoolLimit_));
  vsl_log(client, withMsg, withLevel, "currentGlobalPool %lld",
          static_cast<long long>(currentGlobalPool()));
}

void BudgetPool::logAll(vsl_client_t client, vsl_msg_t withMsg, int32_t withLevel) {
  logLight(client, withMsg, withLevel);
  std::vector<std::pair<std::string, std::shared_ptr<PoolResource>>> records;
  try {
    records = snapshot();
  } catch (const std::bad_alloc&) {
    return;  // a dump without its records beats an exception on the logger's queue
  }
  // The map's own order changes with every rehash; a sorted dump can be compared between runs.
  std::sort(records.begin(), records.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  for (const auto& [key, record] : records) {
    vsl_log(client, withMsg, withLevel, "AppID: %s Diff %lld Value %lld", key.c_str(),
            static_cast<long long>(record->currentItemPoolDiff()),
            static_cast<long long>(record->currentItemPoolValue()));
  }
}

}  // namespace kelo
