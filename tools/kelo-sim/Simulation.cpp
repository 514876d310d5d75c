#include "tools/kelo-sim/Simulation.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <map>
#include <memory>
#include <thread>

#include "kelo/AmpvexStub.h"
#include "kelo/KeloConfigurator.h"
#include "kelo/KeloLogger.h"
#include "kelo/Overrides.h"
#include "kelo/energy.h"
#include "kelo/logging.h"
#include "platform/Metrics.h"
#include "platform/SafeFile.h"
#include "tools/common/Files.h"
#include "tools/kelo-sim/SimPowerMonitor.h"

extern char** environ;

namespace kelo::sim {

namespace {

namespace fs = std::filesystem;

// 2026-11-20 00:00:00 UTC: every run replays the same calendar day.
constexpr double kDayStart = 1795132800.0;
constexpr double kDay = 86400.0;
constexpr double kRestartAt = 12 * 3600.0;
constexpr const char* kRootMarker = ".kelo-sim-root";
constexpr const char* kProcessName = "kelo-sim";

// splitmix64: the same sequence for a seed on every machine and standard library.
class Rng {
 public:
  explicit Rng(uint64_t seed) : state_(seed) {}
  uint64_t next() {
    uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  int uniform(int lo, int hi) { return lo + static_cast<int>(next() % (hi - lo + 1)); }
  double unit() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
  bool chance(double p) { return unit() < p; }

 private:
  uint64_t state_;
};

enum class Kind {
  kLaunch,
  kPrewarm,
  kFetchAttempt,
  kFetchDone,
  kPushAttempt,
  kPushDone,
  kWorkStart,
  kDownloadDone,
  kRefresh,
  kReadings,
  kRestart,
};

// Fetch decisions.
enum Decision { kGranted, kDeniedData, kDeniedEnergy, kDeniedPoorLink, kDeniedOther };

struct Event {
  double t;
  Kind kind;
  int app = 0;
  int16_t type = 0;     // update type of energy work
  uint64_t seq = 0;     // energy event sequence number
  int64_t a = 0;        // decision, data amount
  int64_t b = 0;        // duration, energy
  bool flag = false;    // failed fetch, silent push, non-discretionary download
};

struct App {
  std::string id;
  std::vector<int> habits;  // minutes of the day the user tends to launch it
  bool prefetchCapable = true;
};

std::string appName(int i) {
  char name[32];
  std::snprintf(name, sizeof name, "com.example.app%02d", i + 1);
  return name;
}

std::vector<App> makeApps(int count, Rng& rng) {
  std::vector<App> apps;
  for (int i = 0; i < count; ++i) {
    App app;
    app.id = appName(i);
    const int habits = rng.uniform(1, 3);
    for (int h = 0; h < habits; ++h) app.habits.push_back(rng.uniform(7 * 60, 23 * 60));
    app.prefetchCapable = i % 5 != 4;
    apps.push_back(std::move(app));
  }
  return apps;
}

std::vector<Event> makeDay(const std::vector<App>& apps, int reports, Rng& rng) {
  std::vector<Event> events;
  uint64_t seq = 1;
  auto add = [&events](Event e) {
    if (e.t >= 0 && e.t < kDay) events.push_back(e);
  };
  auto work = [&](double t, int app, int16_t type, double seconds) {
    const uint64_t s = seq++;
    add({t, Kind::kWorkStart, app, type, s});
    return Event{t + seconds, Kind::kFetchDone, app, type, s};
  };
  for (int i = 0; i < static_cast<int>(apps.size()); ++i) {
    for (int habit : apps[i].habits) {
      for (int n = rng.uniform(1, 3); n > 0; --n) {
        const double launch = (habit + rng.uniform(-20, 20)) * 60.0 + rng.uniform(0, 59);
        add({launch, Kind::kLaunch, i});
        if (rng.chance(0.7)) add({launch - rng.uniform(5, 100) * 60.0, Kind::kPrewarm, i});
        else if (rng.chance(0.3)) add({launch + rng.uniform(1, 30) * 60.0, Kind::kPrewarm, i});
      }
    }
    for (int n = rng.uniform(0, 3); n > 0; --n) {
      add({rng.uniform(0, 86399) * 1.0, Kind::kLaunch, i});
    }
    if (rng.chance(0.3)) add({rng.uniform(0, 86399) * 1.0, Kind::kPrewarm, i});

    for (double t = rng.uniform(0, 7200); t < kDay; t += rng.uniform(3600, 10800)) {
      Event attempt{t, Kind::kFetchAttempt, i};
      const double r = rng.unit();
      attempt.a = r < 0.75 ? kGranted
                  : r < 0.82 ? kDeniedData
                  : r < 0.89 ? kDeniedEnergy
                  : r < 0.95 ? kDeniedPoorLink
                             : kDeniedOther;
      add(attempt);
      if (attempt.a == kGranted) {
        Event done = work(t + 1, i, 1, rng.uniform(20, 90));
        done.a = rng.uniform(20, 900) * 1024;  // bytes fetched
        done.b = rng.uniform(2, 40);           // seconds the update took
        done.flag = rng.chance(0.1);           // failed
        add(done);
      }
    }
    for (double t = rng.uniform(0, 5400); t < kDay; t += rng.uniform(1800, 9000)) {
      Event attempt{t, Kind::kPushAttempt, i};
      const double r = rng.unit();
      attempt.a = r < 0.8 ? kGranted : r < 0.87 ? kDeniedData : r < 0.94 ? kDeniedEnergy
                                                                : kDeniedPoorLink;
      add(attempt);
      if (attempt.a == kGranted) {
        const bool silent = rng.chance(0.4);
        Event done = work(t + 1, i, silent ? 3 : 2, rng.uniform(5, 30));
        done.kind = Kind::kPushDone;
        add(done);
      }
    }
  }
  // Background downloads whose results the download daemon reports from its own process, and
  // two non-discretionary ones.
  for (int r = 0; r < reports + 2; ++r) {
    const bool nonDisc = r >= reports;
    const int app = rng.uniform(0, static_cast<int>(apps.size()) - 1);
    const double t = 2 * 3600.0 + (r + 0.5) * (20 * 3600.0 / (reports + 2));
    Event done = work(t, app, nonDisc ? 5 : 4, rng.uniform(120, 300));
    done.kind = Kind::kDownloadDone;
    done.a = rng.uniform(1, 200) * 1024 * 1024;  // bytes
    done.b = rng.uniform(50, 900);               // energy the download daemon measured
    done.flag = nonDisc;
    add(done);
  }
  for (double t = 600; t < kDay; t += 1800) add({t, Kind::kRefresh});
  for (double t = 3300; t < kDay; t += 3600) add({t, Kind::kReadings});
  add({kDay - 300, Kind::kRefresh});
  add({kDay - 240, Kind::kReadings});
  add({kRestartAt, Kind::kRestart});
  std::stable_sort(events.begin(), events.end(),
                   [](const Event& x, const Event& y) { return x.t < y.t; });
  return events;
}

// The prediction zone of a launch slot: by its distance to the nearest slot the daemon
// predicted for the application.
int32_t predictionZone(const std::vector<int>& predictedSlots, uint64_t slot) {
  if (predictedSlots.empty()) return 8;
  int best = 1 << 20;
  for (int p : predictedSlots) {
    const int d = static_cast<int>(slot) - p;
    if (std::abs(d) < std::abs(best)) best = d;
  }
  if (best >= 5 && best <= 8) return 0;
  if (best >= 3 && best <= 4) return 1;
  if (best == 2) return 2;
  if (best >= 0 && best <= 1) return 3;
  if (best == -1) return 4;
  if (best == -2) return 5;
  if (best >= -4 && best <= -3) return 6;
  if (best >= -7 && best <= -5) return 7;
  return 8;
}

bool prepareRoot(const Options& options, std::string* error) {
  const fs::path root(options.root);
  std::error_code ec;
  if (fs::exists(root, ec)) {
    if (!fs::is_directory(root, ec)) {
      *error = "the root " + options.root + " exists and is not a folder";
      return false;
    }
    const bool empty = fs::is_empty(root, ec);
    if (!empty && !fs::exists(root / kRootMarker, ec)) {
      *error = "refusing to reuse " + options.root +
               ": it is not empty and was not made by kelo-sim (choose another --root)";
      return false;
    }
    for (const auto& entry : fs::directory_iterator(root, ec)) fs::remove_all(entry.path(), ec);
  }
  fs::create_directories(root, ec);
  if (ec) {
    *error = "cannot create " + options.root + ": " + ec.message();
    return false;
  }
  if (std::string failure = platform::replaceFile((root / kRootMarker).string(),
                                                  "made by kelo-sim; cleared by its next run\n", 0644);
      !failure.empty()) {
    *error = failure;
    return false;
  }
  if (!fs::exists(fs::path(options.bundleSource) / "Info.json", ec)) {
    *error = "no configuration bundle at " + options.bundleSource + " (give one with --bundle)";
    return false;
  }
  const fs::path bundle = root / "System/Library/Kelo/KeloConfiguration.bundle";
  fs::create_directories(bundle, ec);
  fs::copy(options.bundleSource, bundle, fs::copy_options::recursive, ec);
  if (ec) {
    *error = "cannot copy the bundle into the root: " + ec.message();
    return false;
  }
  if (std::string failure = platform::replaceFile((root / "etc/kelo/device.json").string(),
                                                  "{\"InternalBuild\": true}\n", 0644);
      !failure.empty()) {
    *error = failure;
    return false;
  }
  fs::create_directories(root / "home", ec);
  if (access(options.keloTool.c_str(), X_OK) != 0) {
    *error = "the kelo tool is not at " + options.keloTool + " (give it with --kelo)";
    return false;
  }
  return true;
}

bool waitFor(const std::function<bool()>& done, double seconds) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!done()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// A daemon of an earlier boot: it logs a little and exits, leaving its live log behind for
// this run's first switch-on to rotate. It runs in a child made before this process has any
// service or thread.
void runPreviousSession() {
  const pid_t child = fork();
  if (child == 0) {
    KELO_CLOGMODE(true);
    waitFor([] { return KeloLogger::instance()->canWriteToFile(); }, 5);
    KELO_CLOG("kelo-sim: daemon of the previous boot, pid %d, shutting down", getpid());
    _exit(0);
  }
  if (child > 0) {
    int status = 0;
    waitpid(child, &status, 0);
  }
}

bool runTool(const std::vector<std::string>& args) {
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = 0;
  if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return false;
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return false;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
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
  clock->store(kDayStart);

  Rng rng(options.seed);
  const std::vector<App> apps = makeApps(options.apps, rng);
  std::map<std::string, std::vector<int>> predicted;
  Value::Array predictions;
  for (const App& app : apps) {
    for (int habit : app.habits) {
      predicted[app.id].push_back(habit / 15);
      predictions.push_back(Value::dictionary(
          {{"bundleID", Value::string(app.id)}, {"slot", Value::integer(habit / 15)}}));
    }
    monitor->setRate(app.id, 1, 800 + rng.uniform(0, 700));
    monitor->setRate(app.id, 2, 300 + rng.uniform(0, 300));
    monitor->setRate(app.id, 3, 200 + rng.uniform(0, 200));
    monitor->setRate(app.id, 4, 1500 + rng.uniform(0, 1000));
    monitor->setRate(app.id, 5, 1200 + rng.uniform(0, 800));
  }
  const std::vector<Event> events = makeDay(apps, options.reports, rng);

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
            static_cast<long long>(getStateForC("globalPowerBudget")));

  AppLaunchStatsCumu* stats = AppLaunchStatsCumu::sharedInstance();
  stats->setCollectLaunchStats();
  stats->newCycleWithApps(predictions);

  // Tasks read the clock when they run: let every queue catch up before time moves on.
  auto settle = [&] {
    (void)stats->snapshot();
    (void)energy->getBatteryCapacity();
  };
  settle();

  auto readings = [&](EnergyTotals* into) {
    const int64_t fetch = energy->energyConsumedForFetch();
    const int64_t push = energy->energyConsumedForPush();
    const int64_t download = energyConsumedForBackgroundDownload();
    const int64_t nonDisc = energyConsumedForNonDiscDownload();
    for (EnergyTotals* t : {&result->energy, into}) {
      if (t == nullptr) continue;
      t->fetch += fetch;
      t->push += push;
      t->backgroundDownload += download;
      t->nonDiscretionary += nonDisc;
    }
  };

  const std::string keloTool = options.keloTool;
  bool restarted = false;
  double now = 0;
  for (std::size_t i = 0; i < events.size(); ++i) {
    const Event& e = events[i];
    if (e.t > now) {
      settle();
      now = e.t;
      clock->store(kDayStart + now);
      if (i % 64 == 0) progress(now / kDay);
    }
    const std::string& app = apps[e.app].id;
    switch (e.kind) {
      case Kind::kLaunch:
        stats->appFGLaunch(app);
        ++result->launches;
        break;
      case Kind::kPrewarm:
        stats->appPrewarm(app);
        ++result->prewarms;
        break;
      case Kind::kFetchAttempt:
        stats->fetchAttemptIncrement();
        if (e.a != kGranted) {
          stats->fetchDeniedBecause(e.a != kDeniedData, e.a != kDeniedEnergy,
                                    e.a == kDeniedOther, false, false);
        }
        break;
      case Kind::kPushAttempt:
        stats->pushAttemptIncrement();
        if (e.a != kGranted) {
          stats->pushDeniedBecause(e.a != kDeniedData, e.a != kDeniedEnergy, false, false, false);
        }
        break;
      case Kind::kWorkStart:
        energyStartLogging(app.c_str(), e.type, e.seq);
        break;
      case Kind::kFetchDone:
        energyStopLogging(app.c_str(), e.type, e.seq);
        stats->fetchCountUpdate(1);
        stats->fetchDataCount(static_cast<int32_t>(e.a));
        stats->fetchPWCount(static_cast<int32_t>(e.b * 3));
        stats->fetchTimeUpdate(e.b);
        if (e.flag) stats->fetchFailedUpdate();
        if (e.flag && e.b > 30) stats->forceReleaseCount();
        break;
      case Kind::kPushDone:
        energyStopLogging(app.c_str(), e.type, e.seq);
        break;
      case Kind::kDownloadDone: {
        energyStopLogging(app.c_str(), e.type, e.seq);
        const AppLaunchStatsCumu::Snapshot before = stats->snapshot();
        if (!runTool({keloTool, "--root", options.root, "--home", home, "report",
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
      case Kind::kRefresh:
        energyConsumedRefresh();
        break;
      case Kind::kReadings:
        readings(restarted ? &result->energyAfterRestart : nullptr);
        break;
      case Kind::kRestart:
        monitor->restartCounters();
        restarted = true;
        KELO_CLOG("kelo-sim: the power monitor restarted its counters");
        break;
    }
  }
  settle();
  progress(1.0);

  // End of the day: evaluate the zones, then roll to the next cycle, which uploads.
  stats->populatePredictZones([&predicted](const std::string& app, uint64_t slot) {
    const auto it = predicted.find(app);
    return predictionZone(it == predicted.end() ? std::vector<int>{} : it->second, slot);
  });
  std::map<std::string, bool> capable;
  for (const App& app : apps) capable[app.id] = app.prefetchCapable;
  stats->populatePrewarmZones([capable](const std::string& app) {
    const auto it = capable.find(app);
    return it != capable.end() && it->second;
  });
  result->stats = stats->snapshot();
  clock->store(kDayStart + kDay);
  stats->newCycleWithApps(predictions);
  result->afterRoll = stats->snapshot();

  logger->dumpAllLogs();
  KELO_CLOG("kelo-sim: day done, full dump taken");  // waits behind the dump on the same queue
  logger->logToFile("kelo-sim: done");

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
  for (const std::string& f : tools::filesEndingWith(diagnostics, std::string(".") + kProcessName)) {
    if (f.find("KeloLoggingDetailed.") != std::string::npos) result->rotatedLog = f;
  }
  result->wallSeconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();
  return true;
}

}  // namespace kelo::sim
