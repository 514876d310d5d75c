// The three evaluations of a cycle's launches: prediction zones, prewarm zones, and prewarm
// hits and misses.
#include <bit>
#include <cstdint>

#include "kelo/AppLaunchStatsCumu.h"
#include "kelo/logging.h"
#include "stats/StatsInternal.h"

namespace kelo {

using stats::wrapAdd;

namespace {

constexpr int kMinutesPerSlot = 15;
// The slot difference that stands for "no prewarm found".
constexpr int32_t kNoPrewarm = 10;
constexpr uint32_t kMinuteBits = 0x7FFF;

uint32_t slotValue(const AppLaunchStatsCumu::SlotArray* slots, int64_t index) {
  if (slots == nullptr || index < 0 || index >= AppLaunchStatsCumu::kSlotCount) return 0;
  return (*slots)[static_cast<std::size_t>(index)];
}

// The highest set bit among bits 15..0, or -1 when none is set.
int highestMinute(uint32_t value) {
  int h = 15;
  while (h >= 0 && ((value >> h) & 1u) == 0) --h;
  return h;
}

// Bits `from` down to `to` (inclusive) set; empty when to > from.
uint32_t minuteRange(int32_t to, int32_t from) {
  if (to > from) return 0;
  return ((2u << from) - 1u) & ~((1u << to) - 1u);
}

// Calls f(m) for each minute bit 0..14 set in `bits`, lowest first.
template <class F>
void forEachMinute(uint32_t bits, F f) {
  for (uint32_t rest = bits & kMinuteBits; rest != 0; rest &= rest - 1) {
    f(std::countr_zero(rest));
  }
}

// The zone of a prewarm `diff` slots before the launch (after it when negative), for the
// differences that need no minute comparison.
int zoneForSlotDistance(int32_t diff) {
  if (diff == 2) return 2;
  if (diff == 3 || diff == 4) return 1;
  if (diff >= 5 && diff <= 8) return 0;
  if (diff >= 9) return 8;
  if (diff == -1) return 4;
  if (diff == -2) return 5;
  if (diff == -3 || diff == -4) return 6;
  if (diff >= -7 && diff <= -5) return 7;
  return 8;
}

}  // namespace

void AppLaunchStatsCumu::countZone(int zone) { wrapAdd(prewarmZoneCounts_[zone], 1); }

void AppLaunchStatsCumu::populatePredictZones(PredictZoneCallback callback) {
  if (!callback) return;
  cumuQueue_->post([this, callback = std::move(callback)] { runPredictZones(callback); });
}

void AppLaunchStatsCumu::runPredictZones(const PredictZoneCallback& callback) {
  if ((hasStats_ & kFlagLaunch) == 0) return;
  for (const auto& [app, slots] : launchDict_) {
    for (int i = 0; i < kSlotCount; ++i) {
      if (static_cast<int32_t>(slots[i]) < 1) continue;
      int32_t zone = -1;
      try {
        zone = callback(app, static_cast<uint64_t>(i));
      } catch (...) {
        // A failing callback gives no zone; the slot is still evaluated.
      }
      if (static_cast<uint32_t>(zone) < kZoneCount) wrapAdd(zoneCounts_[zone], 1);
      hasStats_ |= kFlagPredictZones;
    }
  }
}

void AppLaunchStatsCumu::populatePrewarmZones(PrefetchCapableCallback callback) {
  if (!callback) return;
  cumuQueue_->post([this, callback = std::move(callback)] { runPrewarmZones(callback); });
}

void AppLaunchStatsCumu::runPrewarmZones(const PrefetchCapableCallback& callback) {
  if ((hasStats_ & kFlagLaunch) == 0) return;
  hasStats_ |= kFlagPrewarmZones;
  for (const auto& [app, launch] : launchDict_) {
    KELO_CLOG("calculate prewarm hit on app %s", app.c_str());
    bool capable = false;
    try {
      capable = callback(app);
    } catch (...) {
      // A failing callback counts as "not capable".
    }
    if (!capable) {
      KELO_CLOG("app is not a prefetch capable");
      continue;
    }
    auto found = prewarmDict_.find(app);
    prewarmZonesForApp(app, launch, found == prewarmDict_.end() ? nullptr : &found->second);
  }
  KELO_CLOG("========Prewarm data uploaded");
}

void AppLaunchStatsCumu::prewarmZonesForApp(const std::string& app, const SlotArray& launch,
                                            const SlotArray* prewarm) {
  hitMissOnQueue(prewarm, launch);
  if (prewarm == nullptr) {
    for (int32_t s = 0; s < kSlotCount; ++s) {
      const auto lv = static_cast<int32_t>(launch[s]);
      if (lv < 1) continue;
      KELO_CLOG("no prewarm (%d %d)", s, lv);
      accountOnQueue(prewarm, s, lv, 0, kNoPrewarm);
    }
    return;
  }
  for (int32_t s = 0; s < kSlotCount; ++s) {
    const auto lv = static_cast<int32_t>(launch[s]);
    if (lv == 0) continue;
    // The same slot first, then up to 8 slots back; only then up to 7 slots ahead. The two
    // reaches differ on purpose.
    bool matched = false;
    for (int32_t p = s; p >= 0 && s - p <= 8; --p) {
      const auto pv = static_cast<int32_t>((*prewarm)[p]);
      if (pv == 0) continue;
      KELO_CLOG("app %s, slot (%d, %d) val (%d %d)", app.c_str(), s, p, lv, pv);
      accountOnQueue(prewarm, s, lv, pv, s - p);
      matched = true;
      break;
    }
    if (matched) continue;
    if (s + 1 < kSlotCount) {
      for (int32_t p = s + 1; p <= s + 7 && p < kSlotCount; ++p) {
        const auto pv = static_cast<int32_t>((*prewarm)[p]);
        if (pv == 0) continue;
        KELO_CLOG("post app %s, slot (%d, %d) val (%d %d)", app.c_str(), s, p, lv, pv);
        accountOnQueue(prewarm, s, lv, pv, s - p);
        matched = true;
        break;
      }
    }
    if (matched) continue;
    KELO_CLOG("missed prewarm (%d, %d)", s, lv);
    accountOnQueue(prewarm, s, lv, 0, kNoPrewarm);
  }
}

int32_t AppLaunchStatsCumu::distanceToLastPrewarm(const SlotArray* prewarm, int32_t currentSlot,
                                                  int32_t currentoffset) {
  int32_t zone = 4;
  onQueue([&] { zone = backwardLook(prewarm, currentSlot, currentoffset); });
  return zone;
}

int32_t AppLaunchStatsCumu::backwardLook(const SlotArray* prewarm, int32_t slot, int32_t offset) {
  if (slot < 1) return 4;
  for (int64_t j = static_cast<int64_t>(slot) - 1; j >= 0; --j) {
    const int64_t k = slot - j;
    if (k > 8) return 4;
    const uint32_t value = slotValue(prewarm, j);
    if (value == 0) continue;
    KELO_CLOG("backward look found %d - from %d, val %d", static_cast<int32_t>(j), slot,
              static_cast<int32_t>(value));
    if (k == 2) return 2;
    if (k == 3 || k == 4) return 1;
    // Unlike the direct table (zone 0), a prewarm 5 to 8 slots back counts as Pos2HR here.
    if (k >= 5) return 7;
    const int h = highestMinute(value);
    return static_cast<int64_t>(offset) + 15 - h < 16 ? 3 : 2;
  }
  return 4;
}

void AppLaunchStatsCumu::accountPredatePrewarm(const SlotArray* prewarm, int32_t launch,
                                               int32_t launchvalue, int32_t prewarmvalue,
                                               int32_t diff) {
  onQueue([&] { accountOnQueue(prewarm, launch, launchvalue, prewarmvalue, diff); });
}

void AppLaunchStatsCumu::accountOnQueue(const SlotArray* prewarm, int32_t slot, int32_t lv,
                                        int32_t pv, int32_t diff) {
  const auto launchBits = static_cast<uint32_t>(lv);
  const auto prewarmBits = static_cast<uint32_t>(pv);
  if (diff == 1) {
    const int h = highestMinute(prewarmBits);
    forEachMinute(launchBits, [&](int m) {
      if ((15 - h) + m < 16) {
        countZone(3);
        KELO_CLOG("prewarmPreDate15M ++");
      } else {
        countZone(2);
        KELO_CLOG("prewarmPreDate30M ++");
      }
    });
    return;
  }
  if (diff == 0) {
    forEachMinute(launchBits, [&](int m) {
      if ((prewarmBits & minuteRange(0, m)) != 0) {
        countZone(3);
        KELO_CLOG("prewarmPreDate15M ++");
      } else {
        const int32_t zone = backwardLook(prewarm, slot, m);
        countZone(zone);
        KELO_CLOG("zone %d ++", zone);
      }
    });
    return;
  }
  const int zone = zoneForSlotDistance(diff);
  forEachMinute(launchBits, [&](int) {
    countZone(zone);
    KELO_CLOG("zone %d ++", zone);
  });
}

void AppLaunchStatsCumu::calculatePrewarmHitMiss(const SlotArray* prewarm,
                                                 const SlotArray& launch) {
  onQueue([&] { hitMissOnQueue(prewarm, launch); });
}

void AppLaunchStatsCumu::hitMissOnQueue(const SlotArray* prewarm, const SlotArray& launch) {
  int32_t lastSlot = -1;
  int32_t lastMinute = -1;
  for (int32_t s = 0; s < kSlotCount; ++s) {
    for (uint32_t rest = launch[s] & kMinuteBits; rest != 0; rest &= rest - 1) {
      const int32_t m = std::countr_zero(rest);
      // The first launch and a launch without any prewarm array end the slot at once, while a
      // launch that searched the prewarms lets the slot's later minutes be looked at too.
      if (lastSlot == -1) {
        lastSlot = s;
        lastMinute = m;
        break;
      }
      if ((m - lastMinute) + (s - lastSlot) * kMinutesPerSlot < kMinutesPerSlot) continue;
      if (prewarm == nullptr) {
        wrapAdd(prewarmMiss_, 1);
        lastSlot = s;
        lastMinute = m;
        break;
      }
      // Prewarms after the last counted launch, up to and including this one's minute.
      bool hit = false;
      for (int32_t j = s; j >= lastSlot && !hit; --j) {
        const int32_t from = j == s ? m : 15;
        const int32_t to = j == lastSlot ? lastMinute + 1 : 0;
        hit = ((*prewarm)[j] & minuteRange(to, from)) != 0;
      }
      wrapAdd(hit ? prewarmHits_ : prewarmMiss_, 1);
      lastSlot = s;
      lastMinute = m;
    }
  }
}

}  // namespace kelo
