// The configuration store: one slot per configuration key, holding the integer reading of the
// value last loaded for it and whether any source supplied it.
//
// Lookups are lock-free and may run on any thread while a load writes: each slot's reading is
// one atomic word, and presence only ever turns on (it is published after the reading), so a
// reader sees either "absent" or a whole reading, never a torn one. Writers must be serialised
// by the owner.
#ifndef KELO_CONFIG_CONFIGSTORE_H_
#define KELO_CONFIG_CONFIGSTORE_H_

#include <array>
#include <atomic>
#include <cstdint>
#include <string_view>

#include "config/ConfigKeys.h"

namespace kelo::config {

class ConfigStore {
 public:
  // The reading under `key` into `*reading`; false when the key is unknown or not yet loaded.
  bool find(std::string_view key, int64_t* reading) const {
    const int id = keyId(key);
    if (id < 0) return false;
    return find(id, reading);
  }

  bool find(int id, int64_t* reading) const {
    const Slot& slot = slots_[static_cast<size_t>(id)];
    if (!slot.present.load(std::memory_order_acquire)) return false;
    *reading = slot.reading.load(std::memory_order_relaxed);
    return true;
  }

  // Writers only. A reload stores mostly what is there already; skipping equal stores keeps the
  // slots' cache lines shared with the readers instead of bouncing them between cores.
  void store(int id, int64_t reading) {
    Slot& slot = slots_[static_cast<size_t>(id)];
    if (slot.present.load(std::memory_order_relaxed) &&
        slot.reading.load(std::memory_order_relaxed) == reading) {
      return;
    }
    slot.reading.store(reading, std::memory_order_relaxed);
    slot.present.store(true, std::memory_order_release);
  }

 private:
  struct Slot {
    std::atomic<int64_t> reading{0};
    std::atomic<bool> present{false};
  };
  std::array<Slot, kKeyCount> slots_;
};

}  // namespace kelo::config

#endif  // KELO_CONFIG_CONFIGSTORE_H_
