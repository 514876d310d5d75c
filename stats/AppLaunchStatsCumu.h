// AppLaunchStatsCumu: the process-wide collector of background-activity statistics.
//
// It counts fetch and push decisions and their denial reasons, sums fetch data, energy and
// time, records foreground launches and prewarms minute by minute over a day-long cycle, sorts
// the launches into nine zones around predictions and prewarms, and uploads all of it as scalar
// metrics. Other processes feed background-download results into it through the report
// notification (kelo/stats.h), which it listens to from its first new prediction cycle on.
//
// Threading. Every counter, sum, flag, slot map and zone array lives on the collector's serial
// queue "com.vorn.Kelo.CUMU" and is touched only by tasks on it. The operations below post their
// work there and return at once, unless marked "waits": those post and wait, so they must not
// be called from the collector's own queue (that aborts, naming the queue). The callbacks of
// populatePredictZones and populatePrewarmZones run on that queue.
//
// Nothing here throws or reports an error: out-of-range input is ignored as described per call.
#ifndef KELO_STATS_APPLAUNCHSTATSCUMU_H_
#define KELO_STATS_APPLAUNCHSTATSCUMU_H_

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kelo/Value.h"
#include "kelo/export.h"

namespace kelo {

namespace platform {
class SerialQueue;
}

class KELO_EXPORT AppLaunchStatsCumu {
 public:
  // A cycle has 96 slots of 15 minutes after cycleStart. (Enumerators rather than static
  // members, so that no data symbol leaves the library.)
  enum : int { kSlotCount = 96, kZoneCount = 9 };
  // One element per slot: bit m set means an event in minute m (0..14) of the slot. Minute bits
  // never reach bit 15, so 16 bits hold an element.
  using SlotArray = std::array<uint16_t, kSlotCount>;
  using ZoneArray = std::array<int32_t, kZoneCount>;
  using Predictions = std::vector<Value>;

  // Asked for each launch slot of an application: the prediction zone (0..8) of that slot.
  // Any other result is not counted.
  using PredictZoneCallback = std::function<int32_t(const std::string& app, uint64_t slot)>;
  // Asked once per launched application: whether it can be prefetched.
  using PrefetchCapableCallback = std::function<bool(const std::string& app)>;

  // Bits of hasStats.
  enum : int32_t {
    kFlagFetchAttempt = 1,
    kFlagLaunch = 2,
    kFlagBackgroundDownload = 4,
    kFlagPredictZones = 8,
    kFlagPrewarmZones = 16,
    kFlagPushAttempt = 32,
    kFlagFetchCount = 64,
  };

  // A copy of every counter, taken on the queue.
  struct Snapshot {
    bool buildLaunchStats = false;
    int32_t hasStats = 0;
    int32_t fetchDeniedNoData = 0;
    int32_t fetchDeniedNoPW = 0;
    int32_t fetchDeniedPoorCell = 0;
    int32_t fetchDenied = 0;
    int32_t fetchAttempt = 0;
    int32_t pushDeniedNoData = 0;
    int32_t pushDeniedNoPW = 0;
    int32_t pushDeniedPoorCell = 0;
    int32_t pushDenied = 0;
    int32_t pushAttempt = 0;
    int64_t fetchDataTotal = 0;
    int32_t fetchDataCount = 0;
    int32_t fetchPWTotal = 0;
    int32_t fetchGiven = 0;
    int32_t fetchFailedCount = 0;
    int64_t fetchUpdateTimeTotal = 0;
    int32_t fetchUpdateTimeCount = 0;
    int32_t forceRelease = 0;
    ZoneArray zoneCounts{};
    double cycleStart = 0;
    ZoneArray prewarmZoneCounts{};
    int32_t prewarmHits = 0;
    int32_t prewarmMiss = 0;
    int64_t avgDownloadsize = 0;
    int64_t avgPWConsumed = 0;
    int32_t totalBGDownloads = 0;
    int64_t totalNonDiscDownload = 0;
    int64_t totalNonDiscEnergy = 0;
    int32_t BGReportToken = 0;
    std::size_t launchApps = 0;   // applications with a launch slot array
    std::size_t prewarmApps = 0;  // applications with a prewarm slot array
  };

  // The one collector of the process, created on the first call (thread-safe). Creation seals
  // the platform overrides. Never destroyed.
  static AppLaunchStatsCumu* sharedInstance();

  // A collector of its own, with cycleStart = now and everything else zero or empty. Seals the
  // platform overrides. Daemons use sharedInstance(); separate collectors serve tools and
  // measurements.
  AppLaunchStatsCumu();
  // Stops listening for reports and runs what was posted. Must not run on the collector's queue.
  ~AppLaunchStatsCumu();
  AppLaunchStatsCumu(const AppLaunchStatsCumu&) = delete;
  AppLaunchStatsCumu& operator=(const AppLaunchStatsCumu&) = delete;

  // Turns launch and prewarm recording on. Waits.
  void setCollectLaunchStats();

  // Counts one fetch denial and at most one reason: data budget (a false) before energy budget
  // (withPWBudget false) before a poor cellular link (all of inwifi, incell, ignorePoorCell
  // false).
  void fetchDeniedBecause(bool a, bool withPWBudget, bool inwifi, bool incell, bool ignorePoorCell);
  // Counts one fetch denial, independently of fetchDeniedBecause.
  void fetchDenied();
  void fetchAttemptIncrement();
  void fetchTimeUpdate(int64_t time);
  void pushDeniedBecause(bool a, bool withPWBudget, bool inwifi, bool incell, bool ignorePoorCell);
  void pushDenied();
  // Also uploads everything and starts a new day when the cycle is more than 86400 s old.
  void pushAttemptIncrement();
  void fetchCountUpdate(int32_t count);
  // `data` is added with its sign.
  void fetchDataCount(int32_t data);
  void fetchPWCount(int32_t energy);
  void fetchFailedUpdate();
  void forceReleaseCount();
  void backgroundSucceeds(int64_t size, int64_t withPW);
  // Uploaded with whatever upload some other statistic causes; sets no flag.
  void nonDiscretionaryAdd(uint64_t size, uint64_t withPW);

  // Records a foreground launch (resp. a prewarm) of `app` at the time the task runs. Ignored
  // unless setCollectLaunchStats was called; rejected with a log line when the time is more
  // than 899 s before cycleStart or 86400 s or more after it.
  void appFGLaunch(std::string app);
  void appPrewarm(std::string app);

  // Closes the cycle and starts a new one holding `apps` (copied before posting) as pastCycle:
  // uploads first when anything happened since the last upload. The first call starts listening
  // for cross-process reports.
  void newCycleWithApps(const Predictions& apps);
  // Replaces element `zoneid` of pastCycle by an array holding `array` (copied). Ignored when
  // there is no pastCycle or zoneid is outside it. Waits.
  void replacePredictionAtZone(const Predictions& array, int64_t zoneid);

  // Counts every launch slot in the zone the callback gives for it. Does nothing without a
  // recorded launch or with an empty callback.
  void populatePredictZones(PredictZoneCallback callback);
  // Counts every launch minute of prefetch-capable applications in the zone of its distance to
  // the nearest prewarm, and counts prewarm hits and misses. Does nothing without a recorded
  // launch or with an empty callback.
  void populatePrewarmZones(PrefetchCapableCallback callback);

  // The three steps of populatePrewarmZones, for a daemon that evaluates arrays of its own. They
  // run on the calling thread when it is the collector's queue (inside a callback) and wait for
  // the queue otherwise. A null `prewarm` is an absent array; slots outside 0..95 read as empty.
  //
  // The zone of a launch in minute `currentoffset` of slot `currentSlot` that found no earlier
  // prewarm in its own slot, from the nearest prewarm up to 8 slots before it (4 when none).
  int32_t distanceToLastPrewarm(const SlotArray* prewarm, int32_t currentSlot,
                                int32_t currentoffset);
  // Adds each minute of `launchvalue` in slot `launch` to prewarmZoneCounts, by the slot
  // distance `diff` to the prewarm slot holding `prewarmvalue` (10 when none was found).
  void accountPredatePrewarm(const SlotArray* prewarm, int32_t launch, int32_t launchvalue,
                             int32_t prewarmvalue, int32_t diff);
  // Adds the prewarm hits and misses of one application's launches.
  void calculatePrewarmHitMiss(const SlotArray* prewarm, const SlotArray& launch);

  // Start of the current cycle, seconds since 1970. Readable from any thread.
  double cycleStart() const { return cycleStart_.load(std::memory_order_acquire); }
  // The predictions of the current cycle: an immutable snapshot, null before the first cycle.
  // Readable and settable from any thread; changes publish a new snapshot.
  std::shared_ptr<const Predictions> pastCycle() const;
  void setPastCycle(std::shared_ptr<const Predictions> cycle);

  // Waits; reads on the queue, so it sees the effect of every operation posted before it.
  Snapshot snapshot() const;
  // The application's slot arrays, or nullopt when it has none. Wait.
  std::optional<SlotArray> launchSlots(const std::string& app) const;
  std::optional<SlotArray> prewarmSlots(const std::string& app) const;

 private:
  using SlotMap = std::map<std::string, SlotArray, std::less<>>;

  // All of these run on cumuQueue_.
  void applyDenial(bool fetch, bool a, bool b, bool wifi, bool cell, bool ignore);
  void recordEvent(SlotMap& map, const std::string& app, bool launch);
  void startCycle(Predictions apps);
  void registerReports();
  void handleReport(int token);
  void uploadData();
  void runPredictZones(const PredictZoneCallback& callback);
  void runPrewarmZones(const PrefetchCapableCallback& callback);
  void prewarmZonesForApp(const std::string& app, const SlotArray& launch,
                          const SlotArray* prewarm);
  int32_t backwardLook(const SlotArray* prewarm, int32_t slot, int32_t offset);
  void accountOnQueue(const SlotArray* prewarm, int32_t slot, int32_t lv, int32_t pv, int32_t diff);
  void hitMissOnQueue(const SlotArray* prewarm, const SlotArray& launch);
  void countZone(int zone);
  template <class F>
  void onQueue(F&& f) const;

  // Every field is read and written only by tasks on cumuQueue_, except where marked.
  bool buildLaunchStats_ = false;
  // Constant after construction.
  std::unique_ptr<platform::SerialQueue> cumuQueue_;
  int32_t hasStats_ = 0;
  int32_t fetchDeniedNoData_ = 0;
  int32_t fetchDeniedNoPW_ = 0;
  int32_t fetchDeniedPoorCell_ = 0;
  int32_t fetchDenied_ = 0;
  int32_t fetchAttempt_ = 0;
  int32_t pushDeniedNoData_ = 0;
  int32_t pushDeniedNoPW_ = 0;
  int32_t pushDeniedPoorCell_ = 0;
  int32_t pushDenied_ = 0;
  int32_t pushAttempt_ = 0;
  int64_t fetchDataTotal_ = 0;
  int32_t fetchDataCount_ = 0;
  int32_t fetchPWTotal_ = 0;
  int32_t fetchGiven_ = 0;
  int32_t fetchFailedCount_ = 0;
  int64_t fetchUpdateTimeTotal_ = 0;
  int32_t fetchUpdateTimeCount_ = 0;
  int32_t forceRelease_ = 0;
  ZoneArray zoneCounts_{};
  // Written on the queue, read anywhere.
  std::atomic<double> cycleStart_{0.0};
  // Guarded by pastCycleMutex_, which is never held while logging.
  mutable std::mutex pastCycleMutex_;
  std::shared_ptr<const Predictions> pastCycle_;
  // Queue only again from here on.
  SlotMap launchDict_;
  ZoneArray prewarmZoneCounts_{};
  SlotMap prewarmDict_;
  int32_t prewarmHits_ = 0;
  int32_t prewarmMiss_ = 0;
  int64_t avgDownloadsize_ = 0;  // a sum; the average is formed at upload
  int64_t avgPWConsumed_ = 0;    // a sum; the average is formed at upload
  int32_t totalBGDownloads_ = 0;
  int64_t totalNonDiscDownload_ = 0;
  int64_t totalNonDiscEnergy_ = 0;
  int32_t BGReportToken_ = 0;  // 0: not listening for reports
};

}  // namespace kelo

#endif  // KELO_STATS_APPLAUNCHSTATSCUMU_H_
