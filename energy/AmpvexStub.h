// The energy accounting service: the library's front to the power-logging service.
//
// It tells the power monitor when background work of an application starts and stops, charges
// the monitor's energy reports to five budget pools (one per update type: 1 fetch, 2 push,
// 3 silent push, 4 background download, 5 non-discretionary download), and tells each caller how
// much energy a category consumed since the previous reading of that category. Amounts are
// milliwatt-hours.
//
// Threads. All work on the pools, the totals, the reference date and the battery capacity runs
// on the serial queue "com.vorn.Kelo.AXLStub". Refresh, start and stop post to it and return at
// once; the readings and getBatteryCapacity post and wait, so they must never be called from a
// task of that queue (the queue aborts with its label rather than hang). The dumps and the
// accessors read without the queue and are safe from any thread: totals are atomics, the date
// and capacity sit behind a short mutex that is never held while logging.
#ifndef KELO_ENERGY_AMPVEXSTUB_H_
#define KELO_ENERGY_AMPVEXSTUB_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "kelo/BudgetPool.h"
#include "kelo/KeloLoggerProtocol.h"
#include "kelo/Value.h"
#include "kelo/export.h"

namespace kelo {

namespace platform {
class SerialQueue;
}

class KELO_EXPORT AmpvexStub : public KeloLoggerProtocol {
 public:
  // The shared service, created by the first call from any thread, exactly once, and never
  // destroyed. Creation reads "globalPowerBudget" and "fetchAppPowerBudget" from the
  // configuration (creating the configurator if need be), then posts the first refresh and a task
  // that clears the diffs that refresh produced, so that the first readings report only energy
  // counted after start-up. It never waits on the queue.
  static AmpvexStub* instance();

  ~AmpvexStub() override;
  AmpvexStub(const AmpvexStub&) = delete;
  AmpvexStub& operator=(const AmpvexStub&) = delete;

  // Readings: the sum of the diffs of the category's pool(s), i.e. the increase each application's
  // latest charge brought since the previous reading of that category; the diffs are cleared,
  // so a second reading without a refresh in between returns 0. Each logs its "Deduct energy"
  // line. Post and wait on the queue.
  int64_t energyConsumedForBackgroundDownload();
  int64_t energyConsumedForNonDiscDownload();
  int64_t energyConsumedForFetch();
  // Push and silent push together.
  int64_t energyConsumedForPush();

  // The capacity of the latest report; 0.0 with the console line "No Battery Capacity from AXL"
  // when the latest report had none (or no report came yet). Post and wait on the queue.
  double getBatteryCapacity();

  // Stops every event of this process at the power monitor, at once on the caller's thread.
  void energyPoweronReset();

  // Posts a refresh: the power monitor's report is charged to the pools. Returns at once.
  void energyConsumedRefresh();

  // The power monitor's update type for a daemon's: identity on 1 to 5, 0 for anything else.
  int16_t keloUpdateTypeMapfrom(int16_t type) const;

  // Post a start (kind 1) or stop (kind 2) event for `bundleId` (UTF-8, copied before the call
  // returns; null is sent as an empty identifier) with the mapped type and the caller's sequence
  // number. Events reach the monitor in the order of the calls. Return at once.
  void energyStartLogging(const char* bundleId, int16_t withAmpvexStubType, uint64_t andSeqNum);
  void energyStopLogging(const char* bundleId, int16_t withAmpvexStubType, uint64_t andSeqNum);

  // Dumps through vsl_log. logLight: the background-download, fetch and push totals, the
  // reference date ("(null)" when absent) and the capacity as an integer (0 when absent). logAll:
  // "AmpvexStub Framework----->", logLight, the background-download, fetch and push pools each
  // between its markers, then "<-----AmpvexStub Framework". Safe on a logger's queue.
  void logAll(vsl_client_t client, vsl_msg_t withMsg, int32_t withLevel) override;
  void logLight(vsl_client_t client, vsl_msg_t withMsg, int32_t withLevel) override;

  // Results of the latest readings. Atomic, read anywhere.
  int64_t totalBackgroundDownloadPowerUsed() const {
    return load(totalBackgroundDownloadPowerUsed_);
  }
  int64_t totalFetchPowerUsed() const { return load(totalFetchPowerUsed_); }
  int64_t totalPushPowerUsed() const { return load(totalPushPowerUsed_); }
  int64_t totalSilentPushPowerUsed() const { return load(totalSilentPushPowerUsed_); }
  int64_t totalNonDISCPowerUsed() const { return load(totalNonDISCPowerUsed_); }

  // The pools. Constant after construction; see BudgetPool for what is safe off the queue.
  const std::shared_ptr<BudgetPool>& powerbackgroundDownloadBudgetPool() const {
    return powerbackgroundDownloadBudgetPool_;
  }
  const std::shared_ptr<BudgetPool>& powerFetchBudgetPool() const { return powerFetchBudgetPool_; }
  const std::shared_ptr<BudgetPool>& powerPushBudgetPool() const { return powerPushBudgetPool_; }
  const std::shared_ptr<BudgetPool>& powerSilentPushBudgetPool() const {
    return powerSilentPushBudgetPool_;
  }
  const std::shared_ptr<BudgetPool>& powerNonDiscretionaryBudgetPool() const {
    return powerNonDiscretionaryBudgetPool_;
  }

  // The reference date of the latest refresh (seconds since 1970), absent before the first
  // refresh and after a report without one. Read anywhere.
  std::optional<double> startAmpvexLiteDate() const;
  // The capacity of the latest report (a number), absent when it had none. Read anywhere.
  std::optional<Value> batteryCapacity() const;

  // The textual form of a date in dumps: "YYYY-MM-DD HH:MM:SS +0000", UTC, whole seconds.
  static std::string describeDate(double secondsSince1970);

 private:
  AmpvexStub();

  static int64_t load(const std::atomic<int64_t>& v) { return v.load(std::memory_order_relaxed); }
  // A pool of the service: cumulative, limits looked up afresh, global limit first.
  static std::shared_ptr<BudgetPool> makePool();

  void refresh();  // queue only
  void postEvent(const char* bundleId, int16_t type, uint64_t seqNum, int32_t kind);

  std::unique_ptr<platform::SerialQueue> axlStubQueue_;  // constant after construction

  // Written on the queue, read anywhere.
  std::atomic<int64_t> totalBackgroundDownloadPowerUsed_{0};
  std::atomic<int64_t> totalFetchPowerUsed_{0};
  std::atomic<int64_t> totalPushPowerUsed_{0};
  std::atomic<int64_t> totalSilentPushPowerUsed_{0};
  std::atomic<int64_t> totalNonDISCPowerUsed_{0};

  // Constant after construction; created in this order.
  const std::shared_ptr<BudgetPool> powerbackgroundDownloadBudgetPool_;
  const std::shared_ptr<BudgetPool> powerFetchBudgetPool_;
  const std::shared_ptr<BudgetPool> powerPushBudgetPool_;
  const std::shared_ptr<BudgetPool> powerSilentPushBudgetPool_;
  const std::shared_ptr<BudgetPool> powerNonDiscretionaryBudgetPool_;

  // Written on the queue, read anywhere; guarded by reportMutex_, never held while logging.
  mutable std::mutex reportMutex_;
  std::optional<double> startAmpvexLiteDate_;
  std::optional<Value> batteryCapacity_;
};

}  // namespace kelo

#endif  // KELO_ENERGY_AMPVEXSTUB_H_
