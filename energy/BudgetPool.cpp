#include "kelo/BudgetPool.h"

#include <algorithm>
#include <functional>
#include <new>
#include <string_view>

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

// A pool's records in order of creation, found through an open-addressing index whose entries
// hold the upper 32 bits of the key's hash and the record's position plus one (0: free).
//
// Why not a node-based map: a large pool outgrows the caches, and a refresh charges a report's
// applications in much the order in which they were first charged. Here such a refresh, and
// every walk, visits the records and their keys front to back in memory, and the index is
// probed only when the order changes. Guarded by the pool's mutex.
class BudgetPool::Items {
 public:
  struct Slot {
    std::string key;
    std::shared_ptr<PoolResource> record;
  };

  // The record of `key`, created zeroed if absent. The reference lives until the next creation.
  const std::shared_ptr<PoolResource>& findOrAdd(const std::string& key, int64_t limit) {
    // A report that lists its applications in the same order as the previous one finds each
    // record right after the last one, without probing the index.
    if (next_ < slots_.size() && slots_[next_].key == key) return slots_[next_++].record;
    const uint64_t hash = std::hash<std::string_view>{}(key);
    const auto tag = static_cast<uint32_t>(hash >> 32);
    if ((slots_.size() + 1) * 2 > index_.size()) grow();
    const std::size_t mask = index_.size() - 1;
    for (std::size_t i = tag & mask;; i = (i + 1) & mask) {
      const uint64_t entry = index_[i];
      if (entry == 0) {
        slots_.push_back(Slot{key, std::make_shared<PoolResource>(limit)});
        index_[i] = (uint64_t{tag} << 32) | slots_.size();
        next_ = slots_.size();
        return slots_.back().record;
      }
      if (static_cast<uint32_t>(entry >> 32) == tag) {
        const std::size_t position = (entry & 0xffffffffu) - 1;
        if (slots_[position].key == key) {
          next_ = position + 1;
          return slots_[position].record;
        }
      }
    }
  }

  const std::vector<Slot>& slots() const { return slots_; }

 private:
  // Keeps the index at most half full, so that probes stay short.
  void grow() {
    std::vector<uint64_t> bigger(std::max<std::size_t>(16, index_.size() * 2), 0);
    const std::size_t mask = bigger.size() - 1;
    for (const uint64_t entry : index_) {
      if (entry == 0) continue;
      std::size_t i = (entry >> 32) & mask;
      while (bigger[i] != 0) i = (i + 1) & mask;
      bigger[i] = entry;
    }
    index_.swap(bigger);
  }

  std::vector<Slot> slots_;
  std::vector<uint64_t> index_;  // size a power of two (or 0)
  std::size_t next_ = 0;         // the slot after the one found or added last
};

BudgetPool::BudgetPool(int64_t globalLimit, int64_t andItemLimit, int32_t withBudgetMode)
    : itemPoolLimit_(andItemLimit),
      globalPoolLimit_(globalLimit),
      currentGlobalPool_(globalLimit),
      budgetMode_(withBudgetMode),
      itemsDictionary_(std::make_unique<Items>()) {
  // The pool starts full and is then emptied by the same reset a power-monitor restart uses; the
  // walk visits nothing, since no record exists yet.
  resetAllPoolLimits();
}

BudgetPool::~BudgetPool() = default;

std::shared_ptr<PoolResource> BudgetPool::findPoolResource(const std::string& key) {
  std::lock_guard<std::mutex> lock(itemsMutex_);
  return itemsDictionary_->findOrAdd(key, itemPoolLimit_);
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
  // One lookup under the lock, which a charge never logs under.
  std::lock_guard<std::mutex> lock(itemsMutex_);
  PoolResource* record = itemsDictionary_->findOrAdd(key, itemPoolLimit_).get();
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
  for (const Items::Slot& slot : itemsDictionary_->slots()) slot.record->setCurrentItemPoolValue(0);
}

void BudgetPool::resetAllDiff() {
  std::lock_guard<std::mutex> lock(itemsMutex_);
  for (const Items::Slot& slot : itemsDictionary_->slots()) slot.record->setCurrentItemPoolDiff(0);
}

int64_t BudgetPool::totalBudget() const {
  std::lock_guard<std::mutex> lock(itemsMutex_);
  int64_t sum = 0;
  for (const Items::Slot& slot : itemsDictionary_->slots()) {
    sum = wrapAdd(sum, slot.record->currentItemPoolValue());
  }
  return sum;
}

int64_t BudgetPool::totalDiffBudget() const {
  std::lock_guard<std::mutex> lock(itemsMutex_);
  int64_t sum = 0;
  for (const Items::Slot& slot : itemsDictionary_->slots()) {
    sum = wrapAdd(sum, slot.record->currentItemPoolDiff());
  }
  return sum;
}

std::size_t BudgetPool::itemCount() const {
  std::lock_guard<std::mutex> lock(itemsMutex_);
  return itemsDictionary_->slots().size();
}

std::vector<std::pair<std::string, std::shared_ptr<PoolResource>>> BudgetPool::snapshot() const {
  std::lock_guard<std::mutex> lock(itemsMutex_);
  std::vector<std::pair<std::string, std::shared_ptr<PoolResource>>> records;
  records.reserve(itemsDictionary_->slots().size());
  for (const Items::Slot& slot : itemsDictionary_->slots())
    records.emplace_back(slot.key, slot.record);
  return records;
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
