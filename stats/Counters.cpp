// The fetch, push and download counters. Each operation posts one task that captures the
// collector and at most two words, so it fits the task's inline storage and allocates nothing.
#include "kelo/AppLaunchStatsCumu.h"
#include "platform/Facts.h"
#include "stats/StatsInternal.h"

namespace kelo {

using stats::wrapAdd;

void AppLaunchStatsCumu::applyDenial(bool fetch, bool a, bool b, bool wifi, bool cell,
                                     bool ignore) {
  wrapAdd(fetch ? fetchDenied_ : pushDenied_, 1);
  if (!a) {
    wrapAdd(fetch ? fetchDeniedNoData_ : pushDeniedNoData_, 1);
  } else if (!b) {
    wrapAdd(fetch ? fetchDeniedNoPW_ : pushDeniedNoPW_, 1);
  } else if (!(wifi || cell || ignore)) {
    wrapAdd(fetch ? fetchDeniedPoorCell_ : pushDeniedPoorCell_, 1);
  }
}

void AppLaunchStatsCumu::fetchDeniedBecause(bool a, bool withPWBudget, bool inwifi, bool incell,
                                            bool ignorePoorCell) {
  cumuQueue_->post([this, a, withPWBudget, inwifi, incell, ignorePoorCell] {
    applyDenial(true, a, withPWBudget, inwifi, incell, ignorePoorCell);
  });
}

void AppLaunchStatsCumu::pushDeniedBecause(bool a, bool withPWBudget, bool inwifi, bool incell,
                                           bool ignorePoorCell) {
  cumuQueue_->post([this, a, withPWBudget, inwifi, incell, ignorePoorCell] {
    applyDenial(false, a, withPWBudget, inwifi, incell, ignorePoorCell);
  });
}

void AppLaunchStatsCumu::fetchDenied() {
  cumuQueue_->post([this] { wrapAdd(fetchDenied_, 1); });
}

void AppLaunchStatsCumu::fetchAttemptIncrement() {
  cumuQueue_->post([this] {
    wrapAdd(fetchAttempt_, 1);
    hasStats_ |= kFlagFetchAttempt;
  });
}

void AppLaunchStatsCumu::fetchTimeUpdate(int64_t time) {
  cumuQueue_->post([this, time] {
    wrapAdd(fetchUpdateTimeTotal_, time);
    wrapAdd(fetchUpdateTimeCount_, 1);
  });
}

void AppLaunchStatsCumu::pushDenied() {
  cumuQueue_->post([this] { wrapAdd(pushDenied_, 1); });
}

void AppLaunchStatsCumu::pushAttemptIncrement() {
  cumuQueue_->post([this] {
    wrapAdd(pushAttempt_, 1);
    hasStats_ |= kFlagPushAttempt;
    // Only push attempts test the day's age; with pushes idle the cycle stays open until the
    // next new prediction cycle closes it.
    const double now = platform::now();
    if (now - cycleStart_.load(std::memory_order_relaxed) > 86400.0) {
      uploadData();
      cycleStart_.store(now, std::memory_order_release);
    }
  });
}

void AppLaunchStatsCumu::fetchCountUpdate(int32_t count) {
  cumuQueue_->post([this, count] {
    wrapAdd(fetchGiven_, count);
    hasStats_ |= kFlagFetchCount;
  });
}

void AppLaunchStatsCumu::fetchDataCount(int32_t data) {
  cumuQueue_->post([this, data] {
    wrapAdd(fetchDataTotal_, static_cast<int64_t>(data));
    wrapAdd(fetchDataCount_, 1);
  });
}

void AppLaunchStatsCumu::fetchPWCount(int32_t energy) {
  cumuQueue_->post([this, energy] { wrapAdd(fetchPWTotal_, energy); });
}

void AppLaunchStatsCumu::fetchFailedUpdate() {
  cumuQueue_->post([this] { wrapAdd(fetchFailedCount_, 1); });
}

void AppLaunchStatsCumu::forceReleaseCount() {
  cumuQueue_->post([this] { wrapAdd(forceRelease_, 1); });
}

void AppLaunchStatsCumu::backgroundSucceeds(int64_t size, int64_t withPW) {
  cumuQueue_->post([this, size, withPW] {
    wrapAdd(avgDownloadsize_, size);
    wrapAdd(avgPWConsumed_, withPW);
    wrapAdd(totalBGDownloads_, 1);
    hasStats_ |= kFlagBackgroundDownload;
  });
}

void AppLaunchStatsCumu::nonDiscretionaryAdd(uint64_t size, uint64_t withPW) {
  cumuQueue_->post([this, size, withPW] {
    wrapAdd(totalNonDiscDownload_, size);
    wrapAdd(totalNonDiscEnergy_, withPW);
  });
}

}  // namespace kelo
