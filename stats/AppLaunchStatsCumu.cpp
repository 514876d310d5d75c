#include "kelo/AppLaunchStatsCumu.h"

#include <cmath>
#include <ctime>

#include "platform/Facts.h"
#include "platform/Notify.h"
#include "platform/SerialQueue.h"
#include "platform/Singleton.h"
#include "stats/StatsInternal.h"

namespace kelo {

namespace {

constinit platform::Singleton<AppLaunchStatsCumu> gShared;

}  // namespace

namespace stats {

std::string describeDate(double seconds) {
  // Far outside what a clock can show, the date is meaningless anyway; keep gmtime in range.
  if (!std::isfinite(seconds) || seconds < -6.2e10 || seconds > 2.5e11) return "(invalid date)";
  const auto t = static_cast<std::time_t>(std::floor(seconds));
  std::tm tm{};
  if (::gmtime_r(&t, &tm) == nullptr) return "(invalid date)";
  char text[64];
  if (std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S +0000", &tm) == 0) {
    return "(invalid date)";
  }
  return text;
}

}  // namespace stats

AppLaunchStatsCumu* AppLaunchStatsCumu::sharedInstance() {
  return gShared.get([] { return new AppLaunchStatsCumu(); });
}

AppLaunchStatsCumu::AppLaunchStatsCumu() {
  platform::sealOverrides();
  cycleStart_.store(platform::now(), std::memory_order_release);
  cumuQueue_ = std::make_unique<platform::SerialQueue>("com.vorn.Kelo.CUMU");
}

AppLaunchStatsCumu::~AppLaunchStatsCumu() {
  int32_t token = 0;
  cumuQueue_->sync([&] { token = BGReportToken_; });
  if (token != 0) platform::notify_cancel(token);
  // Runs what is still queued while every field is alive, then stops the worker.
  cumuQueue_.reset();
}

void AppLaunchStatsCumu::setCollectLaunchStats() {
  cumuQueue_->sync([this] { buildLaunchStats_ = true; });
}

std::shared_ptr<const AppLaunchStatsCumu::Predictions> AppLaunchStatsCumu::pastCycle() const {
  std::lock_guard<std::mutex> lock(pastCycleMutex_);
  return pastCycle_;
}

void AppLaunchStatsCumu::setPastCycle(std::shared_ptr<const Predictions> cycle) {
  std::shared_ptr<const Predictions> old;
  {
    std::lock_guard<std::mutex> lock(pastCycleMutex_);
    old = std::exchange(pastCycle_, std::move(cycle));
  }
  // `old` may be the last reference: released here, outside the lock.
}

AppLaunchStatsCumu::Snapshot AppLaunchStatsCumu::snapshot() const {
  Snapshot s;
  cumuQueue_->sync([&] {
    s.buildLaunchStats = buildLaunchStats_;
    s.hasStats = hasStats_;
    s.fetchDeniedNoData = fetchDeniedNoData_;
    s.fetchDeniedNoPW = fetchDeniedNoPW_;
    s.fetchDeniedPoorCell = fetchDeniedPoorCell_;
    s.fetchDenied = fetchDenied_;
    s.fetchAttempt = fetchAttempt_;
    s.pushDeniedNoData = pushDeniedNoData_;
    s.pushDeniedNoPW = pushDeniedNoPW_;
    s.pushDeniedPoorCell = pushDeniedPoorCell_;
    s.pushDenied = pushDenied_;
    s.pushAttempt = pushAttempt_;
    s.fetchDataTotal = fetchDataTotal_;
    s.fetchDataCount = fetchDataCount_;
    s.fetchPWTotal = fetchPWTotal_;
    s.fetchGiven = fetchGiven_;
    s.fetchFailedCount = fetchFailedCount_;
    s.fetchUpdateTimeTotal = fetchUpdateTimeTotal_;
    s.fetchUpdateTimeCount = fetchUpdateTimeCount_;
    s.forceRelease = forceRelease_;
    s.zoneCounts = zoneCounts_;
    s.cycleStart = cycleStart_.load(std::memory_order_acquire);
    s.prewarmZoneCounts = prewarmZoneCounts_;
    s.prewarmHits = prewarmHits_;
    s.prewarmMiss = prewarmMiss_;
    s.avgDownloadsize = avgDownloadsize_;
    s.avgPWConsumed = avgPWConsumed_;
    s.totalBGDownloads = totalBGDownloads_;
    s.totalNonDiscDownload = totalNonDiscDownload_;
    s.totalNonDiscEnergy = totalNonDiscEnergy_;
    s.BGReportToken = BGReportToken_;
    s.launchApps = launchDict_.size();
    s.prewarmApps = prewarmDict_.size();
  });
  return s;
}

std::optional<AppLaunchStatsCumu::SlotArray> AppLaunchStatsCumu::launchSlots(
    const std::string& app) const {
  std::optional<SlotArray> out;
  cumuQueue_->sync([&] {
    if (auto it = launchDict_.find(app); it != launchDict_.end()) out = it->second;
  });
  return out;
}

std::optional<AppLaunchStatsCumu::SlotArray> AppLaunchStatsCumu::prewarmSlots(
    const std::string& app) const {
  std::optional<SlotArray> out;
  cumuQueue_->sync([&] {
    if (auto it = prewarmDict_.find(app); it != prewarmDict_.end()) out = it->second;
  });
  return out;
}

}  // namespace kelo
