// A daemon as it is built outside the tree, against the installed package only, in the
// compiler's default language mode: it implements every replaceable interface (with RTTI, as
// ordinary C++ is built), installs them, and checks that the library calls them and that types
// cross the library boundary intact. Exits 0 when every check holds.
#include <kelo/AmpvexStub.h>
#include <kelo/AppLaunchStatsCumu.h>
#include <kelo/KeloConfigurator.h>
#include <kelo/KeloLogger.h>
#include <kelo/Overrides.h>
#include <kelo/kelo.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <typeinfo>

namespace {

int failures = 0;

void check(bool ok, const char* what) {
  if (!ok) {
    std::fprintf(stderr, "consumer: FAILED: %s\n", what);
    ++failures;
  }
}

class CountingFileSystem : public kelo::platform::FileSystem {
 public:
  int open(const char* path, int flags, mode_t mode) override {
    ++opens;
    return FileSystem::open(path, flags, mode);
  }
  std::atomic<int> opens{0};
};

// Reports a growing cumulative amount for one background download, so that the second refresh
// charges the difference.
class ScriptedMonitor : public kelo::platform::PowerMonitor {
 public:
  void logEvent(const char* bundleId, int16_t type, uint64_t, int32_t kind) override {
    std::lock_guard<std::mutex> lock(mutex);
    events += std::string(bundleId) + "/" + std::to_string(type) + "/" + std::to_string(kind) + ";";
  }
  void stopAllEvents() override {}
  std::optional<kelo::Value> reportEnergy(const void*) override {
    std::lock_guard<std::mutex> lock(mutex);
    kelo::Value::Dictionary entry{{"bundleID", kelo::Value::string("com.example.app")},
                                  {"updateType", kelo::Value::integer(4)},
                                  {"energy_mWh", kelo::Value::real(reports++ == 0 ? 10 : 52)}};
    return kelo::Value::dictionary(kelo::Value::Dictionary{
        {"BLMBatteryCapacity", kelo::Value::real(3000)},
        {"BLMEnergyReferenceDate", kelo::Value::date(1763700000)},
        {"BLMEnergyForKelo", kelo::Value::array({kelo::Value::dictionary(std::move(entry))})}});
  }
  std::mutex mutex;
  std::string events;
  int reports = 0;
};

class RecordingMetrics : public kelo::platform::MetricsSink {
 public:
  void setValue(const std::string& key, int64_t) override { record(key); }
  void addValue(const std::string& key, int64_t) override { record(key); }
  void record(const std::string& key) {
    std::lock_guard<std::mutex> lock(mutex);
    keys += key + ";";
  }
  std::mutex mutex;
  std::string keys;
};

class Source : public kelo::KeloLoggerProtocol {
 public:
  void logAll(vsl_client_t client, vsl_msg_t msg, int32_t level) override {
    vsl_log(client, msg, level, "consumer source: full state");
  }
  void logLight(vsl_client_t client, vsl_msg_t msg, int32_t level) override {
    vsl_log(client, msg, level, "consumer source: light");
  }
};

std::string slurp(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace

int main() {
  char root[] = "/tmp/kelo-consumer-XXXXXX";
  if (mkdtemp(root) == nullptr) return 2;
  auto files = std::make_shared<CountingFileSystem>();
  auto monitor = std::make_shared<ScriptedMonitor>();
  auto metrics = std::make_shared<RecordingMetrics>();
  kelo::platform::Overrides overrides;
  overrides.deviceRoot = root;
  overrides.homeDirectory = root;
  overrides.processName = "consumer";
  overrides.fileSystem = files;
  overrides.powerMonitor = monitor;
  overrides.metrics = metrics;
  kelo::platform::installOverrides(overrides);

  // Types cross the boundary: the library's objects are what their classes say.
  kelo::KeloLoggerProtocol* configurator = kelo::KeloConfigurator::sharedInstance();
  kelo::KeloLoggerProtocol* energy = kelo::AmpvexStub::instance();
  check(dynamic_cast<kelo::KeloConfigurator*>(configurator) != nullptr, "configurator cast");
  check(dynamic_cast<kelo::AmpvexStub*>(configurator) == nullptr, "wrong cast refused");
  check(typeid(*energy) == typeid(kelo::AmpvexStub), "typeid of the energy service");
  std::shared_ptr<kelo::platform::PowerMonitor> asBase = monitor;
  check(dynamic_cast<ScriptedMonitor*>(asBase.get()) == monitor.get(), "own monitor cast");

  // Logging through an own data source and the counting file system.
  kelo::KeloLogger::instance()->addDataSource(std::make_shared<Source>());
  KELO_CLOGMODE(true);
  KELO_CLOG("consumer line %d", 7);
  kelo::KeloLogger::instance()->dumpAllLogs();

  // Energy through the scripted monitor: the baseline report is cleared, the second charged.
  energyStartLogging("com.example.app", 4, 17);
  energyStopLogging("com.example.app", 4, 17);
  energyConsumedRefresh();
  const long long used = energyConsumedForBackgroundDownload();
  check(used == 42, "energy charged from the own monitor");
  {
    std::lock_guard<std::mutex> lock(monitor->mutex);
    check(monitor->events == "com.example.app/4/1;com.example.app/4/2;", "events reached it");
  }

  // Statistics uploaded to the own metrics sink when the cycle rolls.
  kelo::AppLaunchStatsCumu* stats = kelo::AppLaunchStatsCumu::sharedInstance();
  stats->fetchAttemptIncrement();
  stats->newCycleWithApps({});
  stats->setCollectLaunchStats();  // waits for the queue, and so for the upload
  {
    std::lock_guard<std::mutex> lock(metrics->mutex);
    check(metrics->keys.find("com.vorn.Kelo.") != std::string::npos, "metrics uploaded");
  }

  KELO_CLOG("consumer done");  // after the dump in the logger's queue order
  const std::string logs = std::string(root) + "/Library/Logs/";
  const std::string live = slurp(logs + "KeloLoggingDetailed.consumer");
  check(live.find("consumer line 7") != std::string::npos, "line in the live log");
  check(live.find("consumer source: light") != std::string::npos, "light log in the live log");
  std::string dump;
  for (const auto& entry : std::filesystem::directory_iterator(logs + "Wreckbox/DiagnosticLogs")) {
    dump += slurp(entry.path().string());
  }
  check(dump.find("consumer source: full state") != std::string::npos, "source in the dump");
  check(files->opens.load() >= 2, "files opened through the installed file system");
  std::printf("c++ consumer: %lld mWh, %d opens, %s\n", used, files->opens.load(),
              failures == 0 ? "ok" : "FAILED");
  std::string command = std::string("rm -rf '") + root + "'";
  if (failures == 0 && std::system(command.c_str()) != 0) return 2;
  return failures == 0 ? 0 : 1;
}
