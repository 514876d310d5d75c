#include "kelo/BudgetPool.h"

#include <algorithm>
#include <cstddef>
#include <functional>
#include <memory>
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

// Records per block of a pool: 256 of 32 bytes, two pages' worth. At namespace scope, not a
// member, so that no data symbol of the exported class leaves the library.
constexpr std::size_t kBlockRecords = 256;

}  // namespace

// A pool's records in order of creation, found through an open-addressing index whose entries
// hold the upper 32 bits of the key's hash and the record's position plus one (0: free).
//
// Why not a node-based map, nor one heap object per record: a large pool outgrows the caches, and
// a refresh charges a report's applications in much the order in which they were first charged.
// So the records sit by value in blocks of consecutive positions, each beside the place of its
// key, whose characters follow one another in one buffer: a refresh in the usual order, and every
// walk, reads blocks and characters front to back, and the index is probed only when the order
// changes. A block never moves once made, so a record keeps its address while the pool grows; the
// handles findPoolResource gives out share their block, so a record outlives the pool while
// someone holds it. Guarded by the pool's mutex.
class BudgetPool::Items {
 public:
  // The position of the record of `key`, created zeroed if absent.
  std::size_t findOrAdd(std::string_view key, int64_t limit) {
    // A report that lists its applications in the same order as the previous one finds each
    // record right after the last one, without probing the index.
    if (next_ < size_ && keyAt(next_) == key) return next_++;
    const uint64_t hash = std::hash<std::string_view>{}(key);
    const auto tag = static_cast<uint32_t>(hash >> 32);
    if ((size_ + 1) * 2 > index_.size()) grow();
    const std::size_t mask = index_.size() - 1;
    for (std::size_t i = tag & mask;; i = (i + 1) & mask) {
      const uint64_t entry = index_[i];
      if (entry == 0) {
        add(key, limit);
        index_[i] = (uint64_t{tag} << 32) | size_;
        next_ = size_;
        return next_ - 1;
      }
      if (static_cast<uint32_t>(entry >> 32) == tag) {
        const std::size_t position = (entry & 0xffffffffu) - 1;
        if (keyAt(position) == key) {
          next_ = position + 1;
          return position;
        }
      }
    }
  }

  // A handle on the record at `position` that keeps its block alive.
  std::shared_ptr<PoolResource> share(std::size_t position) const {
    return std::shared_ptr<PoolResource>(blocks_[position / kBlockRecords], &record(position));
  }

  std::size_t size() const { return size_; }
  std::string_view keyAt(std::size_t position) const {
    const Block::Slot& slot = blocks_[position / kBlockRecords]->slot(position % kBlockRecords);
    return std::string_view(characters_.data() + slot.keyOffset, slot.keyLength);
  }
  PoolResource& record(std::size_t position) const {
    return blocks_[position / kBlockRecords]->at(position % kBlockRecords);
  }
  // Calls f(record) for every record, in order of creation.
  template <class F>
  void forEach(F&& f) const {
    std::size_t left = size_;
    for (const std::shared_ptr<Block>& block : blocks_) {
      const std::size_t n = std::min(left, kBlockRecords);
      for (std::size_t i = 0; i < n; ++i) f(block->at(i));
      left -= n;
    }
  }

 private:
  // Room for kBlockRecords records with their keys' places, filled one by one as the pool grows.
  class Block {
   public:
    struct Slot {
      std::size_t keyOffset;  // in characters_
      std::size_t keyLength;
      alignas(PoolResource) unsigned char record[sizeof(PoolResource)];
    };

    Block() {}  // slots are written as they are filled
    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;
    ~Block() {
      for (std::size_t i = 0; i < made_; ++i) at(i).~PoolResource();
    }
    void make(std::size_t keyOffset, std::size_t keyLength, int64_t limit) {
      Slot& s = slots_[made_];
      s.keyOffset = keyOffset;
      s.keyLength = keyLength;
      new (s.record) PoolResource(limit);
      ++made_;
    }
    const Slot& slot(std::size_t i) const { return slots_[i]; }
    PoolResource& at(std::size_t i) {
      return *std::launder(reinterpret_cast<PoolResource*>(slots_[i].record));
    }

   private:
    std::size_t made_ = 0;
    Slot slots_[kBlockRecords];
  };

  void add(std::string_view key, int64_t limit) {
    // Everything that may fail to allocate comes first, so that a failure adds nothing.
    if (characters_.size() + key.size() > characters_.capacity()) {
      characters_.reserve(std::max(characters_.capacity() * 2, characters_.size() + key.size()));
    }
    if (size_ % kBlockRecords == 0) blocks_.push_back(std::make_shared<Block>());
    blocks_.back()->make(characters_.size(), key.size(), limit);
    characters_.append(key);
    ++size_;
  }

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

  std::vector<std::shared_ptr<Block>> blocks_;
  std::size_t size_ = 0;         // records
  std::string characters_;       // every key, one after another
  std::vector<uint64_t> index_;  // size a power of two (or 0)
  std::size_t next_ = 0;         // the position after the one found or added last
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
  return itemsDictionary_->share(itemsDictionary_->findOrAdd(key, itemPoolLimit_));
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
  PoolResource* record =
      &itemsDictionary_->record(itemsDictionary_->findOrAdd(key, itemPoolLimit_));
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
  itemsDictionary_->forEach([](PoolResource& r) { r.setCurrentItemPoolValue(0); });
}

void BudgetPool::resetAllDiff() {
  std::lock_guard<std::mutex> lock(itemsMutex_);
  itemsDictionary_->forEach([](PoolResource& r) { r.setCurrentItemPoolDiff(0); });
}

int64_t BudgetPool::totalBudget() const {
  std::lock_guard<std::mutex> lock(itemsMutex_);
  int64_t sum = 0;
  itemsDictionary_->forEach(
      [&sum](const PoolResource& r) { sum = wrapAdd(sum, r.currentItemPoolValue()); });
  return sum;
}

int64_t BudgetPool::totalDiffBudget() const {
  std::lock_guard<std::mutex> lock(itemsMutex_);
  int64_t sum = 0;
  itemsDictionary_->forEach(
      [&sum](const PoolResource& r) { sum = wrapAdd(sum, r.currentItemPoolDiff()); });
  return sum;
}

std::size_t BudgetPool::itemCount() const {
  std::lock_guard<std::mutex> lock(itemsMutex_);
  return itemsDictionary_->size();
}

std::vector<std::pair<std::string, std::shared_ptr<PoolResource>>> BudgetPool::snapshot() const {
  std::lock_guard<std::mutex> lock(itemsMutex_);
  std::vector<std::pair<std::string, std::shared_ptr<PoolResource>>> records;
  records.reserve(itemsDictionary_->size());
  for (std::size_t i = 0; i < itemsDictionary_->size(); ++i) {
    records.emplace_back(itemsDictionary_->keyAt(i), itemsDictionary_->share(i));
  }
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
