#include "tools/kelo-sim/Simulation.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <queue>
#include <set>

#include "kelo/AmpvexStub.h"
#include "kelo/KeloConfigurator.h"
#include "kelo/KeloLogger.h"
#include "kelo/Overrides.h"
#include "kelo/energy.h"
#include "kelo/logging.h"
#include "platform/Metrics.h"
#include "tools/common/Files.h"
#include "tools/kelo-sim/Budget.h"
#include "tools/kelo-sim/Model.h"
#include "tools/kelo-sim/Setup.h"
#include "tools/kelo-sim/SimPowerMonitor.h"

namespace kelo::sim {

namespace {

// 2026-11-20 00:00:00 UTC, a Friday: every run replays the same calendar day.
constexpr double kDayStart = 1795132800.0;
constexpr int kWeekday = 4;
constexpr double kDay = 86400.0;
constexpr double kRestartAt = 12 * 3600.0;
constexpr const char* kProcessName = "kelo-sim";

enum class Kind {
  kLaunch,
  kPrewarm,
  kFetchAttempt,
  kFetchDone,
  kPushAttempt,
  kPushDone,
  kDownloadStart,
  kDownloadDone,
  kReadings,
  kRestart,
};

struct Event {
  double t;
  Kind kind;
  int app = 0;
  int16_t type = 0;    // update type of energy work
  uint64_t seq = 0;    // energy event sequence number
  int64_t a = 0;       // bytes
  int64_t b = 0;       // duration in seconds, or energy of a download
  bool flag = false;   // failed fetch, silent push, non-discretionary download
  bool poor = false;   // an attempt on a poor link
  int work = 0;        // seconds a granted attempt's work takes
  uint64_t order = 0;  // ties keep the order of scheduling
};

struct Later {
  bool operator()(const Event& x, const Event& y) const {
    return x.t != y.t ? x.t > y.t : x.order > y.order;
  }
};

class Schedule {
 public:
  void add(Event e) {
    if (e.t < 0 || e.t >= kDay) return;
    e.order = order_++;
    queue_.push(e);
  }
  bool empty() const { return queue_.empty(); }
  Event pop() {
    Event e = queue_.top();
    queue_.pop();
    return e;
  }

 private:
  std::priority_queue<Event, std::vector<Event>, Later> queue_;
  uint64_t order_ = 0;
};

// The day's launches and the daemon's prewarms, attempts, downloads and readings.
void planDay(const std::vector<App>& apps, int reports, Rng& rng, Schedule* day, Result* r) {
  std::set<std::pair<int, int>> slots;
  std::set<std::pair<int, int>> capableMinutes;
  for (int i = 0; i < static_cast<int>(apps.size()); ++i) {
    const App& app = apps[static_cast<std::size_t>(i)];
    for (int minute : launchesOn(app, kWeekday, rng)) {
      day->add({minute * 60.0 + rng.uniform(0, 59), Kind::kLaunch, i});
      slots.insert({i, minute / 15});
      if (app.prefetchCapable) capableMinutes.insert({i, minute});
    }
    // A prewarm a few minutes before each predicted slot, drawn apart so that the rest of the
    // day is the same however many slots are predicted.
    Rng prewarmRng(rng.next());
    for (int slot : app.predictedSlots) {
      day->add({std::max(0.0, slot * 900.0 - prewarmRng.uniform(60, 600)), Kind::kPrewarm, i});
    }
    // What each attempt would move and take is drawn here, so that the same seed offers the
    // same work under any configuration.
    for (double t = rng.uniform(0, 7200); t < kDay; t += rng.uniform(3600, 10800)) {
      day->add({t, Kind::kFetchAttempt, i, 1, 0, rng.uniform(20, 900) * 1024, rng.uniform(2, 40),
                rng.chance(0.1), rng.chance(0.05), rng.uniform(20, 90)});
    }
    for (double t = rng.uniform(0, 5400); t < kDay; t += rng.uniform(1800, 9000)) {
      const bool silent = rng.chance(0.4);
      day->add({t, Kind::kPushAttempt, i, silent ? int16_t{3} : int16_t{2}, 0,
                rng.uniform(1, 64) * 1024, 0, silent, rng.chance(0.05), rng.uniform(5, 30)});
    }
  }
  r->launchSlots = static_cast<int>(slots.size());
  r->prefetchLaunchMinutes = static_cast<int>(capableMinutes.size());
  // Background downloads whose results the download daemon reports from its own process, and
  // two non-discretionary ones.
  for (int n = 0; n < reports + 2; ++n) {
    const bool nonDisc = n >= reports;
    const int app = rng.uniform(0, static_cast<int>(apps.size()) - 1);
    const double t = 2 * 3600.0 + (n + 0.5) * (20 * 3600.0 / (reports + 2));
    const int16_t type = nonDisc ? 5 : 4;
    const uint64_t seq = 1000000000ull + static_cast<uint64_t>(n);
    day->add({t, Kind::kDownloadStart, app, type, seq});
    day->add({t + rng.uniform(120, 300), Kind::kDownloadDone, app, type, seq,
              rng.uniform(1, 200) * 1024 * 1024, rng.uniform(50, 900), nonDisc});
  }
  for (double t = 3300; t < kDay; t += 3600) day->add({t, Kind::kReadings});
  day->add({kDay - 240, Kind::kReadings});
  day->add({kRestartAt, Kind::kRestart});
}

// The collector's record of a denial: the first failing of data, energy, link; a fetch refused
// for too many under way passes every check, so it counts as denied without a reason.
void recordDenial(AppLaunchStatsCumu* stats, bool fetch, Denial denial) {
  const bool data = denial != Denial::kData;
  const bool energy = denial != Denial::kEnergy;
  const bool link = denial != Denial::kPoorSignal;
  if (fetch) {
    stats->fetchDeniedBecause(data, energy, link, false, false);
  } else {
    stats->pushDeniedBecause(data, energy, link, false, false);
  }
}

std::string firstOrEmpty(const std::vector<std::string>& v) { return v.empty() ? "" : v[0]; }

}  // namespace

bool runSimulation(const Options& options, const std::function<void(double)>& progress,
                   Result* result, std::string* error) {
  const auto wallStart = std::chrono::steady_clock::now();
  if (!prepareRoot(options, error)) return false;
  const std::string home = options.root + "/home";

  auto clock = std::make_shared<std::atomic<double>>(kDayStart - 7200);
  auto monitor = std::make_shared<SimPowerMonitor>([clock] { return clock->load(); }, 3279.0);
  platform::Overrides overrides;
  overrides.deviceRoot = options.root;
  overrides.homeDirectory = home;
  overrides.processName = kProcessName;
  overrides.clock = [clock] { return clock->load(); };
  overrides.powerMonitor = monitor;
  platform::installOverrides(overrides);

  runPreviousSession();
  if (!writeOverride(options.settings, error)) return false;
  clock->store(kDayStart);

  // The model's keys, as the configurator serves them with the override applied.
  const BudgetConfig budget = BudgetConfig::fromConfigurator();
  PredictionWeights weights;
  weights.recent = getStateForC("recentWeight");
  weights.daily = getStateForC("dailyWeight");
  weights.weekly = getStateForC("weeklyWeight");
  weights.cutoff = getStateForC("scoreCutoff");
  for (const char* key :
       {"enableBudgeting", "globalPowerBudget", "globalDataBudget", "fetchAppPowerBudget",
        "fetchAppDataBudget", "pushAppPowerBudget", "pushAppDataBudget", "maxFetchApps",
        "recentWeight", "dailyWeight", "weeklyWeight", "scoreCutoff"}) {
    result->config.emplace_back(key, getStateForC(key));
  }

  Rng rng(options.seed);
  std::vector<App> apps = makeApps(options.apps, kWeekday, rng);
  Value::Array predictions;
  for (App& app : apps) {
    app.predictedSlots = predictSlots(app, weights);
    result->predictedSlots += static_cast<int>(app.predictedSlots.size());
    for (int slot : app.predictedSlots) {
      predictions.push_back(
          Value::dictionary({{"bundleID", Value::string(app.id)}, {"slot", Value::integer(slot)}}));
    }
    for (int16_t type = 1; type <= 5; ++type) {
      monitor->setRate(app.id, type, app.milliwatts[static_cast<std::size_t>(type)]);
    }
  }
  Schedule day;
  planDay(apps, options.reports, rng, &day, result);

  // The daemon starts: detailed logging on, the configurator and the energy service as sources.
  KELO_CLOGMODE(true);
  KeloLogger* logger = KeloLogger::instance();
  if (!waitFor([logger] { return logger->canWriteToFile(); }, 5)) {
    *error = "the detailed logger did not open its file under " + home + "/Library/Logs";
    return false;
  }
  logger->addDataSource(KeloConfigurator::sharedInstance());
  AmpvexStub* energy = AmpvexStub::instance();
  logger->addDataSource(energy);
  KELO_CLOG("kelo-sim: daemon starting, %d applications, seed %llu, globalPowerBudget %lld",
            options.apps, static_cast<unsigned long long>(options.seed),
            static_cast<long long>(budget.globalPowerBudget));

  AppLaunchStatsCumu* stats = AppLaunchStatsCumu::sharedInstance();
  stats->setCollectLaunchStats();
  stats->newCycleWithApps(predictions);

  // Launches, prewarms and the downloads' starts and stops read the clock when their task runs:
  // before time moves on, let each queue that was given such a task catch up (and only those: a
  // wait is dear). Fetches and pushes tell the power monitor their times beforehand.
  bool statsBehind = true;
  bool energyBehind = true;
  auto settle = [&] {
    if (statsBehind) (void)stats->snapshot();
    if (energyBehind) (void)energy->getBatteryCapacity();
    statsBehind = energyBehind = false;
  };
  settle();

  Ledger ledger(budget);
  result->energyByHour.assign(24, 0);
  result->launchesByHour.assign(24, 0);
  std::array<int64_t, 4> atRestart{};
  auto sumOf = [](const std::array<int64_t, 4>& t) { return t[0] + t[1] + t[2] + t[3]; };
  int64_t lastSum = 0;
  auto readBack = [&](double now) {
    ledger.read(energy, now);
    const int64_t sum = sumOf(ledger.totals());
    result->energyByHour[static_cast<std::size_t>(now / 3600)] += sum - lastSum;
    lastSum = sum;
  };

  uint64_t seq = 1;
  double now = 0;
  int steps = 0;
  while (!day.empty()) {
    const Event e = day.pop();
    if (e.t > now) {
      // The collector keeps launches and prewarms by the minute: its tasks may run late within
      // the minute they were posted in.
      const bool sameMinute = static_cast<int64_t>(e.t / 60) == static_cast<int64_t>(now / 60);
      const bool pending = statsBehind && sameMinute;
      statsBehind = statsBehind && !sameMinute;
      settle();
      statsBehind = pending;
      now = e.t;
      clock->store(kDayStart + now);
      if (++steps % 64 == 0) progress(now / kDay);
    }
    const App& app = apps[static_cast<std::size_t>(e.app)];
    const char* id = app.id.c_str();
    switch (e.kind) {
      case Kind::kLaunch:
        stats->appFGLaunch(app.id);
        statsBehind = true;
        ++result->launches;
        ++result->launchesByHour[static_cast<std::size_t>(now / 3600)];
        break;
      case Kind::kPrewarm:
        stats->appPrewarm(app.id);
        statsBehind = true;
        ++result->prewarms;
        break;
      case Kind::kFetchAttempt:
      case Kind::kPushAttempt: {
        const bool fetch = e.kind == Kind::kFetchAttempt;
        const Category category = fetch ? Category::kFetch : Category::kPush;
        const Denial denial = ledger.decide(energy, now, e.app, category, e.poor);
        fetch ? stats->fetchAttemptIncrement() : stats->pushAttemptIncrement();
        if (denial != Denial::kNone) {
          recordDenial(stats, fetch, denial);
          break;
        }
        ledger.started(e.app, app.id, category);
        const uint64_t s = seq++;
        Event done = e;
        done.t = now + 1 + e.work;
        monitor->plan(s, kDayStart + now, kDayStart + done.t);
        energyStartLogging(id, e.type, s);
        done.kind = fetch ? Kind::kFetchDone : Kind::kPushDone;
        done.seq = s;
        day.add(done);
        break;
      }
      case Kind::kFetchDone:
        energyStopLogging(id, e.type, e.seq);
        ledger.finished(e.app, Category::kFetch, false, e.a);
        result->dataBytes += e.a;
        stats->fetchCountUpdate(1);
        stats->fetchDataCount(static_cast<int32_t>(e.a));
        stats->fetchPWCount(static_cast<int32_t>(e.b * 3));
        stats->fetchTimeUpdate(e.b);
        if (e.flag) stats->fetchFailedUpdate();
        if (e.flag && e.b > 30) stats->forceReleaseCount();
        break;
      case Kind::kPushDone:
        energyStopLogging(id, e.type, e.seq);
        ledger.finished(e.app, Category::kPush, e.flag, e.a);
        result->dataBytes += e.a;
        break;
      case Kind::kDownloadStart:
        energyStartLogging(id, e.type, e.seq);
        energyBehind = true;
        break;
      case Kind::kDownloadDone: {
        energyStopLogging(id, e.type, e.seq);
        energyBehind = true;
        const AppLaunchStatsCumu::Snapshot before = stats->snapshot();
        if (!runTool({options.keloTool, "--root", options.root, "--home", home, "report",
                      e.flag ? "nondisc" : "bgdownload", std::to_string(e.a),
                      std::to_string(e.b)})) {
          *error = "the kelo tool failed to post a report";
          return false;
        }
        ++result->reportsPosted;
        // The handler runs on the collector's queue when the notification arrives.
        waitFor(
            [&] {
              const auto s = stats->snapshot();
              return e.flag ? s.totalNonDiscDownload != before.totalNonDiscDownload
                            : s.totalBGDownloads != before.totalBGDownloads;
            },
            5);
        break;
      }
      case Kind::kReadings:
        readBack(now);
        break;
      case Kind::kRestart:
        energyBehind = true;
        settle();
        readBack(now);
        atRestart = ledger.totals();
        monitor->restartCounters();
        KELO_CLOG("kelo-sim: the power monitor restarted its counters");
        break;
    }
  }
  statsBehind = energyBehind = true;
  settle();
  progress(1.0);

  // End of the day: evaluate the zones, then roll to the next cycle, which uploads.
  std::map<std::string, const App*> byId;
  for (const App& app : apps) byId[app.id] = &app;
  stats->populatePredictZones([&byId](const std::string& id, uint64_t slot) {
    const auto it = byId.find(id);
    return it == byId.end() ? 8 : predictionZone(it->second->predictedSlots, slot);
  });
  stats->populatePrewarmZones([&byId](const std::string& id) {
    const auto it = byId.find(id);
    return it != byId.end() && it->second->prefetchCapable;
  });
  result->stats = stats->snapshot();
  clock->store(kDayStart + kDay);
  stats->newCycleWithApps(predictions);
  result->afterRoll = stats->snapshot();

  logger->dumpAllLogs();
  KELO_CLOG("kelo-sim: day done, full dump taken");  // waits behind the dump on the same queue
  logger->logToFile("kelo-sim: done");

  const std::array<int64_t, 4>& t = ledger.totals();
  result->energy = {t[0], t[1], t[2], t[3]};
  result->energyAfterRestart = {t[0] - atRestart[0], t[1] - atRestart[1], t[2] - atRestart[2],
                                t[3] - atRestart[3]};
  result->largestTask =
      std::max(ledger.taskMaximum(Category::kFetch), ledger.taskMaximum(Category::kPush));
  result->settings = options.settings;
  result->apps = options.apps;
  result->seed = options.seed;
  result->dayStart = kDayStart;
  result->restartAt = kRestartAt;
  result->batteryCapacity = energy->getBatteryCapacity();
  result->powerEvents = monitor->events();
  result->metricsPath = platform::metricsDatabasePath();
  const platform::MetricsReadResult metrics = platform::readMetricsDatabase(result->metricsPath);
  result->metrics = metrics.rows;
  const std::string logs = home + "/Library/Logs/";
  result->liveLog = logs + "KeloLoggingDetailed." + kProcessName;
  const std::string diagnostics = logs + "Wreckbox/DiagnosticLogs";
  result->dump = firstOrEmpty(tools::filesEndingWith(diagnostics, "-FullDump.log"));
  for (const std::string& f :
       tools::filesEndingWith(diagnostics, std::string(".") + kProcessName)) {
    if (f.find("KeloLoggingDetailed.") != std::string::npos) result->rotatedLog = f;
  }
  result->wallSeconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();
  return true;
}

}  // namespace kelo::sim
