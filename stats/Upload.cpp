// The upload of a cycle's statistics as scalar metrics, and the reset that follows it.
#include <string>

#include "kelo/AppLaunchStatsCumu.h"
#include "kelo/logging.h"
#include "platform/Metrics.h"
#include "stats/StatsInternal.h"

namespace kelo {

namespace {

// Set or add is chosen key by key: a set key reports the latest cycle, an added key keeps a
// running total across cycles.
void set(const char* key, int64_t value) { platform::CumuClientSetValueForScalarKey(key, value); }
void add(const char* key, int64_t value) { platform::CumuClientAddValueForScalarKey(key, value); }

// Zone keys come from the tables; a missing entry is skipped, its count still reset.
void setZone(const char* key, int64_t value) {
  if (key == nullptr) return;
  platform::CumuClientSetValueForScalarKey(std::string(key), value);
}

}  // namespace

void AppLaunchStatsCumu::uploadData() {
  const int32_t flags = hasStats_;
  // Every key of the upload reaches the store in one transaction, when the function returns.
  const platform::MetricsBatch batch;

  set("com.vorn.Kelo.totalNonDISCData", totalNonDiscDownload_);
  set("com.vorn.Kelo.totalNonDISCEnergy", totalNonDiscEnergy_);
  totalNonDiscDownload_ = 0;
  totalNonDiscEnergy_ = 0;

  if ((flags & kFlagFetchAttempt) != 0) {
    set("com.vorn.Kelo.fetch.any.triggered", fetchAttempt_);
    set("com.vorn.Kelo.fetch.denied", fetchDenied_);
    set("com.vorn.Kelo.fetch.denied.energy_budget", fetchDeniedNoPW_);
    set("com.vorn.Kelo.fetch.denied.data_budget", fetchDeniedNoData_);
    set("com.vorn.Kelo.fetch.denied.poor_signal", fetchDeniedPoorCell_);
    add("com.vorn.Kelo.forcedRelease", forceRelease_);
    KELO_CLOG("fetch attempt=%d, denied=%d, noPW=%d, noData=%d, poorCell=%d", fetchAttempt_,
              fetchDenied_, fetchDeniedNoPW_, fetchDeniedNoData_, fetchDeniedPoorCell_);
    fetchAttempt_ = 0;
    fetchDenied_ = 0;
    forceRelease_ = 0;
    fetchDeniedPoorCell_ = 0;
    fetchDeniedNoPW_ = 0;
    fetchDeniedNoData_ = 0;
  }

  if ((flags & kFlagPushAttempt) != 0) {
    add("com.vorn.Kelo.push.total_requests", pushAttempt_);
    add("com.vorn.Kelo.push.denied", pushDenied_);
    add("com.vorn.Kelo.push.denied.data_budget", pushDeniedNoData_);
    add("com.vorn.Kelo.push.denied.energy_budget", pushDeniedNoPW_);
    add("com.vorn.Kelo.push.denied.poor_signal", pushDeniedPoorCell_);
    KELO_CLOG("push attempt=%d, denied=%d, noPW=%d, noData=%d, poorCell=%d", pushAttempt_,
              pushDenied_, pushDeniedNoPW_, pushDeniedNoData_, pushDeniedPoorCell_);
    pushAttempt_ = 0;
    pushDenied_ = 0;
    pushDeniedPoorCell_ = 0;
    pushDeniedNoPW_ = 0;
    pushDeniedNoData_ = 0;
  }

  if ((flags & kFlagFetchCount) != 0) {
    add("com.vorn.Kelo.fetch.updates.given", fetchGiven_);
    add("com.vorn.Kelo.fetch.updates.failed", fetchFailedCount_);
    KELO_CLOG("Fetch given=%d, failed=%d", fetchGiven_, fetchFailedCount_);
    // Quotients truncate toward zero. INT_MIN / -1 cannot come from a divisor of at least 1.
    if (fetchGiven_ >= 1) {
      add("com.vorn.Kelo.fetch.updates.energy_used", fetchPWTotal_ / fetchGiven_);
      KELO_CLOG("Fetch avg energy count=%d/%d", fetchPWTotal_, fetchGiven_);
    }
    if (fetchDataCount_ >= 1) {
      add("com.vorn.Kelo.fetch.updates.data_used", fetchDataTotal_ / fetchDataCount_);
      KELO_CLOG("Fetch avg data count=%lld/%d", static_cast<long long>(fetchDataTotal_),
                fetchDataCount_);
    }
    if (fetchUpdateTimeCount_ >= 1) {
      add("com.vorn.Kelo.fetch.updates.time", fetchUpdateTimeTotal_ / fetchUpdateTimeCount_);
      KELO_CLOG("Fetch avg time count=%lld/%d", static_cast<long long>(fetchUpdateTimeTotal_),
                fetchUpdateTimeCount_);
    }
    fetchDataTotal_ = 0;
    fetchUpdateTimeTotal_ = 0;
    fetchPWTotal_ = 0;
    fetchUpdateTimeCount_ = 0;
    fetchDataCount_ = 0;
    fetchFailedCount_ = 0;
    fetchGiven_ = 0;
  }

  if ((flags & kFlagPredictZones) != 0) {
    for (int zone = 0; zone < kZoneCount; ++zone) {
      setZone(kCumuPredictZoneKeys[zone], zoneCounts_[zone]);
      zoneCounts_[zone] = 0;
    }
  }

  if ((flags & kFlagPrewarmZones) != 0) {
    for (int zone = 0; zone < kZoneCount; ++zone) {
      setZone(kCumuPrewarmZoneKeys[zone], prewarmZoneCounts_[zone]);
      prewarmZoneCounts_[zone] = 0;
    }
    set("com.vorn.Kelo.prewarmHit", prewarmHits_);
    add("com.vorn.Kelo.prewarmMiss", prewarmMiss_);
    prewarmHits_ = 0;
    prewarmMiss_ = 0;
  }

  // Not gated by a flag: a report may arrive without any other statistic in the cycle.
  if (totalBGDownloads_ >= 1) {
    set("com.vorn.Kelo.avgBGDownloadSize", avgDownloadsize_ / totalBGDownloads_);
    set("com.vorn.Kelo.avgBGEnergy", avgPWConsumed_ / totalBGDownloads_);
    totalBGDownloads_ = 0;
    avgPWConsumed_ = 0;
    avgDownloadsize_ = 0;
  }

  launchDict_.clear();
  prewarmDict_.clear();
  if (pastCycle() != nullptr) setPastCycle(std::make_shared<const Predictions>());
  hasStats_ = 0;
}

}  // namespace kelo
