// A dictionary that one owner grows while any thread reads it: the library hands out the object
// itself (not a copy), so a holder sees every later update through the same handle.
//
// Each update is published whole: the entries live in an immutable Value::Dictionary, and an
// update builds the next one aside and swaps the pointer under a short lock. A reader takes that
// pointer under the same lock and then reads without it, so a read that races an update on
// another thread sees the dictionary as it was either before or after the update, never half of
// it, and waits for no more than the pointer copy. Iteration goes through snapshot(), whose
// result later updates never change.
#ifndef KELO_PLATFORM_SHAREDDICTIONARY_H_
#define KELO_PLATFORM_SHAREDDICTIONARY_H_

#include <cstddef>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

#include "kelo/Value.h"
#include "kelo/export.h"

namespace kelo {

class KELO_EXPORT SharedDictionary {
 public:
  SharedDictionary();
  SharedDictionary(const SharedDictionary&) = delete;
  SharedDictionary& operator=(const SharedDictionary&) = delete;

  // Readers: any thread, at any time.
  std::size_t size() const { return snapshot()->size(); }
  bool empty() const { return snapshot()->empty(); }
  bool contains(std::string_view key) const { return snapshot()->contains(key); }
  std::size_t count(std::string_view key) const { return snapshot()->count(key); }
  // The value under `key`; a null Value when there is none.
  Value objectForKey(std::string_view key) const;
  // The entries as they stand now. Never null.
  std::shared_ptr<const Value::Dictionary> snapshot() const;

  // The owner's update: adds `entries` (replacing the values of keys already present; of equal
  // keys among `entries` the last wins) as one step that readers see whole. Updates from
  // several threads are serialised.
  void merge(std::vector<Value::Dictionary::value_type> entries);

 private:
  mutable std::mutex mutex_;       // held to copy or swap `entries_` only
  std::mutex updateMutex_;         // serialises merge()
  std::shared_ptr<const Value::Dictionary> entries_;  // mutex_; never null
};

}  // namespace kelo

#endif  // KELO_PLATFORM_SHAREDDICTIONARY_H_
