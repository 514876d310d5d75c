// Recording launches and prewarms into the slot maps, and the prediction cycle.
#include <cmath>
#include <cstdint>
#include <limits>

#include "kelo/AppLaunchStatsCumu.h"
#include "kelo/logging.h"
#include "platform/Facts.h"
#include "stats/StatsInternal.h"

namespace kelo {

namespace {

// Seconds from `start` to `now`, truncated toward zero; nullopt when the difference does not
// fit 64 bits (a broken clock), which is then treated like any other out-of-range time.
std::optional<int64_t> wholeSecondsBetween(double start, double now) {
  const double d = std::trunc(now - start);
  if (!(d >= -9.2e18 && d <= 9.2e18)) return std::nullopt;
  return static_cast<int64_t>(d);
}

}  // namespace

void AppLaunchStatsCumu::appFGLaunch(std::string app) {
  cumuQueue_->post([this, app = std::move(app)] { recordEvent(launchDict_, app, true); });
}

void AppLaunchStatsCumu::appPrewarm(std::string app) {
  cumuQueue_->post([this, app = std::move(app)] { recordEvent(prewarmDict_, app, false); });
}

void AppLaunchStatsCumu::recordEvent(SlotMap& map, const std::string& app, bool launch) {
  if (!buildLaunchStats_) return;
  // The array exists from the first event on, even when that event is then rejected.
  auto it = map.try_emplace(app).first;
  SlotArray& slots = it->second;
  const double start = cycleStart_.load(std::memory_order_relaxed);
  const std::optional<int64_t> seconds = wholeSecondsBetween(start, platform::now());
  const int64_t diff = seconds.value_or(std::numeric_limits<int64_t>::min());
  // Accepts -899..86399 in one unsigned comparison of the low 32 bits.
  const uint32_t shifted = static_cast<uint32_t>(static_cast<uint64_t>(diff) + 899u);
  if (!seconds || shifted > 87298u) {
    KELO_CLOG("weird diff %lld (%s)", static_cast<long long>(diff),
              stats::describeDate(start).c_str());
    return;
  }
  // Negative differences (up to 15 minutes early) land in minute 0 of slot 0.
  const int32_t slot = static_cast<int32_t>(diff) / 900;
  const int64_t rem = diff - static_cast<int64_t>(slot) * 900;
  uint32_t bit = 1;
  if (rem >= -59) {
    // Only a difference beyond 32 bits (whose low bits looked in range) gets a shift past
    // minute 14; it marks no minute.
    const int64_t minute = rem / 60;
    bit = minute >= 0 && minute <= 14 ? (1u << minute) : 0u;
  }
  const auto val = static_cast<int32_t>(slots[slot] | bit);
  if (launch) {
    KELO_CLOG("app launch %s diff %lld, val %d (%d)", app.c_str(), static_cast<long long>(diff),
              val, static_cast<int32_t>(bit));
  } else {
    KELO_CLOG("prewarm %s diff %lld, minute val %d (%d)", app.c_str(), static_cast<long long>(diff),
              val, static_cast<int32_t>(bit));
  }
  slots[slot] = static_cast<uint16_t>(val);
  if (launch) hasStats_ |= kFlagLaunch;
}

void AppLaunchStatsCumu::newCycleWithApps(const Predictions& apps) {
  cumuQueue_->post([this, apps = Predictions(apps)]() mutable { startCycle(std::move(apps)); });
}

void AppLaunchStatsCumu::startCycle(Predictions apps) {
  if (BGReportToken_ == 0) registerReports();
  if (hasStats_ != 0) uploadData();
  cycleStart_.store(platform::now(), std::memory_order_release);
  setPastCycle(std::make_shared<const Predictions>(std::move(apps)));
}

void AppLaunchStatsCumu::replacePredictionAtZone(const Predictions& array, int64_t zoneid) {
  Value replacement = Value::array(array);
  cumuQueue_->sync([&] {
    std::shared_ptr<const Predictions> current = pastCycle();
    if (current == nullptr || static_cast<uint64_t>(zoneid) >= current->size() ||
        static_cast<int32_t>(zoneid) < 0) {
      return;
    }
    auto next = std::make_shared<Predictions>(*current);
    (*next)[static_cast<std::size_t>(zoneid)] = std::move(replacement);
    setPastCycle(std::move(next));
  });
}

}  // namespace kelo
