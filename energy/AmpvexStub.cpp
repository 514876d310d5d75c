#include "kelo/AmpvexStub.h"

#include <syslog.h>

#include <climits>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <exception>
#include <utility>

#include "kelo/KeloConfigurator.h"
#include "kelo/logging.h"
#include "kelo/vsl.h"
#include "platform/Facts.h"
#include "platform/PowerMonitor.h"
#include "platform/SerialQueue.h"
#include "platform/Singleton.h"

namespace kelo {

namespace {

constexpr int32_t kStartEvent = 1;
constexpr int32_t kStopEvent = 2;

platform::Singleton<AmpvexStub> gInstance;

int64_t wrapAdd(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

// Tasks run on the queue's worker, where an escaping exception would end the process.
template <class F>
void guarded(const char* what, F&& f) noexcept {
  try {
    f();
  } catch (const std::exception& e) {
    char line[256];
    std::snprintf(line, sizeof line, "kelo: %s failed: %s", what, e.what());
    platform::systemLog(LOG_WARNING, line);
  } catch (...) {
    char line[256];
    std::snprintf(line, sizeof line, "kelo: %s failed", what);
    platform::systemLog(LOG_WARNING, line);
  }
}

}  // namespace

AmpvexStub* AmpvexStub::instance() {
  return gInstance.get([] {
    platform::sealOverrides();
    return new AmpvexStub();
  });
}

std::shared_ptr<BudgetPool> AmpvexStub::makePool() {
  KeloConfigurator* config = KeloConfigurator::sharedInstance();
  const int64_t global = config->getStateFor("globalPowerBudget");
  const int64_t item = config->getStateFor("fetchAppPowerBudget");
  return std::make_shared<BudgetPool>(global, item, BudgetPool::kCumulative);
}

// Members are initialised in declaration order, which is the order the pools must be made in.
AmpvexStub::AmpvexStub()
    : axlStubQueue_(std::make_unique<platform::SerialQueue>("com.vorn.Kelo.AXLStub")),
      powerbackgroundDownloadBudgetPool_(makePool()),
      powerFetchBudgetPool_(makePool()),
      powerPushBudgetPool_(makePool()),
      powerSilentPushBudgetPool_(makePool()),
      powerNonDiscretionaryBudgetPool_(makePool()) {
  energyConsumedRefresh();
  // Runs after the first refresh (the queue is serial): that refresh charged everything the
  // monitor counted before we started, and none of it is energy spent since start-up. The
  // background-download pool is cleared twice; harmless, and kept as the sequence stands.
  axlStubQueue_->post([this] {
    powerbackgroundDownloadBudgetPool_->resetAllDiff();
    powerFetchBudgetPool_->resetAllDiff();
    powerPushBudgetPool_->resetAllDiff();
    powerSilentPushBudgetPool_->resetAllDiff();
    powerbackgroundDownloadBudgetPool_->resetAllDiff();
    powerNonDiscretionaryBudgetPool_->resetAllDiff();
  });
}

AmpvexStub::~AmpvexStub() = default;

int64_t AmpvexStub::energyConsumedForBackgroundDownload() {
  axlStubQueue_->sync([this] {
    const int64_t total = powerbackgroundDownloadBudgetPool_->totalDiffBudget();
    totalBackgroundDownloadPowerUsed_.store(total, std::memory_order_relaxed);
    powerbackgroundDownloadBudgetPool_->resetAllDiff();
    KELO_CLOG("Deduct energy background download %lld", static_cast<long long>(total));
  });
  return totalBackgroundDownloadPowerUsed();
}

int64_t AmpvexStub::energyConsumedForNonDiscDownload() {
  axlStubQueue_->sync([this] {
    const int64_t total = powerNonDiscretionaryBudgetPool_->totalDiffBudget();
    totalNonDISCPowerUsed_.store(total, std::memory_order_relaxed);
    powerNonDiscretionaryBudgetPool_->resetAllDiff();
    KELO_CLOG("Deduct energy non-disc %lld", static_cast<long long>(total));
  });
  return totalNonDISCPowerUsed();
}

int64_t AmpvexStub::energyConsumedForFetch() {
  axlStubQueue_->sync([this] {
    const int64_t total = powerFetchBudgetPool_->totalDiffBudget();
    totalFetchPowerUsed_.store(total, std::memory_order_relaxed);
    powerFetchBudgetPool_->resetAllDiff();
    KELO_CLOG("Deduct energy Fetch app %lld", static_cast<long long>(total));
  });
  return totalFetchPowerUsed();
}

int64_t AmpvexStub::energyConsumedForPush() {
  axlStubQueue_->sync([this] {
    const int64_t push = powerPushBudgetPool_->totalDiffBudget();
    totalPushPowerUsed_.store(push, std::memory_order_relaxed);
    powerPushBudgetPool_->resetAllDiff();
    const int64_t silent = powerSilentPushBudgetPool_->totalDiffBudget();
    totalSilentPushPowerUsed_.store(silent, std::memory_order_relaxed);
    powerSilentPushBudgetPool_->resetAllDiff();
    KELO_CLOG("Deduct energy push: %lld", static_cast<long long>(wrapAdd(silent, push)));
  });
  return wrapAdd(totalSilentPushPowerUsed(), totalPushPowerUsed());
}

double AmpvexStub::getBatteryCapacity() {
  double result = 0.0;
  axlStubQueue_->sync([this, &result] {
    const std::optional<Value> capacity = batteryCapacity();
    if (!capacity) KELO_ConsoleLog("No Battery Capacity from AXL");
    result = capacity ? capacity->doubleValue() : 0.0;
  });
  return result;
}

void AmpvexStub::energyPoweronReset() { platform::AXBatteryLifeMonitorStopAllKeloEvents(); }

void AmpvexStub::energyConsumedRefresh() {
  axlStubQueue_->post([this] { guarded("energy refresh", [this] { refresh(); }); });
}

int16_t AmpvexStub::keloUpdateTypeMapfrom(int16_t type) const {
  return type >= 1 && type <= 5 ? type : 0;
}

void AmpvexStub::energyStartLogging(const char* bundleId, int16_t withAmpvexStubType,
                                    uint64_t andSeqNum) {
  postEvent(bundleId, withAmpvexStubType, andSeqNum, kStartEvent);
}

void AmpvexStub::energyStopLogging(const char* bundleId, int16_t withAmpvexStubType,
                                   uint64_t andSeqNum) {
  postEvent(bundleId, withAmpvexStubType, andSeqNum, kStopEvent);
}

void AmpvexStub::postEvent(const char* bundleId, int16_t type, uint64_t seqNum, int32_t kind) {
  // The caller's buffer may be gone by the time the task runs.
  std::string id = bundleId != nullptr ? bundleId : "";
  axlStubQueue_->post([this, id = std::move(id), type, seqNum, kind] {
    guarded("energy event", [&] {
      platform::AXBatteryLifeMonitorLogKeloEvent(id.c_str(), keloUpdateTypeMapfrom(type), seqNum,
                                                 kind);
    });
  });
}

void AmpvexStub::refresh() {
  const std::optional<Value> report = platform::AXBatteryLifeMonitorReportEnergyKelo(nullptr);
  const Value* capacity = report ? report->find("BLMBatteryCapacity") : nullptr;
  const Value* date = report ? report->find("BLMEnergyReferenceDate") : nullptr;
  std::optional<double> referenceDate;
  if (date != nullptr && date->isDate()) referenceDate = date->asDate();

  bool sameReference;
  {
    std::lock_guard<std::mutex> lock(reportMutex_);
    if (capacity != nullptr && capacity->isNumber()) {
      batteryCapacity_ = *capacity;
    } else {
      batteryCapacity_.reset();
    }
    sameReference = startAmpvexLiteDate_.has_value() && referenceDate.has_value() &&
                    *startAmpvexLiteDate_ == *referenceDate;
  }

  // Without a known and unchanged reference date the pools' values cannot be trusted as the base
  // of the next cumulative amounts: they are zeroed, so each next amount counts in full.
  if (!sameReference) {
    KELO_CLOG("Ampvex reset detected. reset pool");
    powerFetchBudgetPool_->resetAllPoolLimits();
    powerPushBudgetPool_->resetAllPoolLimits();
    powerbackgroundDownloadBudgetPool_->resetAllPoolLimits();
    powerSilentPushBudgetPool_->resetAllPoolLimits();
    powerNonDiscretionaryBudgetPool_->resetAllPoolLimits();
    std::lock_guard<std::mutex> lock(reportMutex_);
    startAmpvexLiteDate_ = referenceDate;
  }

  const Value* list = report ? report->find("BLMEnergyForKelo") : nullptr;
  static const Value::Array kNoEntries;
  const Value::Array& entries = list != nullptr && list->isArray() ? list->asArray() : kNoEntries;
  KELO_CLOG("number of apps that consumed power %d",
            entries.size() > static_cast<std::size_t>(INT_MAX) ? INT_MAX
                                                               : static_cast<int>(entries.size()));

  for (const Value& entry : entries) {
    const Value* typeValue = entry.find("updateType");
    // Read as a 32-bit integer, as the monitor defines it: higher bits are not part of the type.
    const auto type = static_cast<int32_t>(typeValue != nullptr ? typeValue->integerValue() : 0);
    BudgetPool* pool;
    const char* category;
    switch (type) {
      case 1:
        pool = powerFetchBudgetPool_.get();
        category = "fetch";
        break;
      case 2:
        pool = powerPushBudgetPool_.get();
        category = "push";
        break;
      case 3:
        pool = powerSilentPushBudgetPool_.get();
        category = "silent push";
        break;
      case 4:
        pool = powerbackgroundDownloadBudgetPool_.get();
        category = "backgroundDownload";
        break;
      case 5:
        pool = powerNonDiscretionaryBudgetPool_.get();
        category = "nonDisc";
        break;
      default:
        continue;
    }
    const Value* bundleId = entry.find("bundleID");
    if (bundleId == nullptr || !bundleId->isString()) continue;  // nothing to charge it to
    const Value* energy = entry.find("energy_mWh");
    // Charged truncated toward zero, logged with its fraction.
    const int64_t cost = energy != nullptr ? energy->integerValue() : 0;
    const double reported = energy != nullptr ? energy->doubleValue() : 0.0;
    pool->UpdateBudget(bundleId->asString(), cost);
    // "updatePowerBudgetPool fetch: %s cost %f" and its four siblings.
    KELO_CLOG("updatePowerBudgetPool %s: %s cost %f", category, bundleId->asString().c_str(),
              reported);
  }
}

std::optional<double> AmpvexStub::startAmpvexLiteDate() const {
  std::lock_guard<std::mutex> lock(reportMutex_);
  return startAmpvexLiteDate_;
}

std::optional<Value> AmpvexStub::batteryCapacity() const {
  std::lock_guard<std::mutex> lock(reportMutex_);
  return batteryCapacity_;
}

std::string AmpvexStub::describeDate(double secondsSince1970) {
  char text[64];
  const double whole = std::floor(secondsSince1970);
  std::tm utc{};
  // Beyond what time_t and the calendar can name, the raw number is the honest description.
  if (!std::isfinite(whole) || whole < -6.7e15 || whole > 6.7e15) {
    std::snprintf(text, sizeof text, "%g seconds since 1970", secondsSince1970);
    return text;
  }
  const auto t = static_cast<std::time_t>(whole);
  if (::gmtime_r(&t, &utc) == nullptr ||
      std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S +0000", &utc) == 0) {
    std::snprintf(text, sizeof text, "%g seconds since 1970", secondsSince1970);
  }
  return text;
}

void AmpvexStub::logLight(vsl_client_t client, vsl_msg_t withMsg, int32_t withLevel) {
  vsl_log(client, withMsg, withLevel, "totalBackgroundDownloadPowerUsed %lld",
          static_cast<long long>(totalBackgroundDownloadPowerUsed()));
  vsl_log(client, withMsg, withLevel, "totalFetchPowerUsed %lld",
          static_cast<long long>(totalFetchPowerUsed()));
  vsl_log(client, withMsg, withLevel, "totalPushPowerUsed %lld",
          static_cast<long long>(totalPushPowerUsed()));
  const std::optional<double> date = startAmpvexLiteDate();
  const std::string dateText = date ? describeDate(*date) : std::string("(null)");
  vsl_log(client, withMsg, withLevel, "startAmpvexLiteDate %s", dateText.c_str());
  const std::optional<Value> capacity = batteryCapacity();
  vsl_log(client, withMsg, withLevel, "batteryCapacity %lld",
          static_cast<long long>(capacity ? capacity->integerValue() : 0));
}

void AmpvexStub::logAll(vsl_client_t client, vsl_msg_t withMsg, int32_t withLevel) {
  vsl_log(client, withMsg, withLevel, "AmpvexStub Framework----->");
  logLight(client, withMsg, withLevel);
  vsl_log(client, withMsg, withLevel, "powerbackgroundDownloadBudgetPool ----->");
  powerbackgroundDownloadBudgetPool_->logAll(client, withMsg, withLevel);
  vsl_log(client, withMsg, withLevel, "<----- powerbackgroundDownloadBudgetPool");
  vsl_log(client, withMsg, withLevel, "powerFetchBudgetPool ----->");
  powerFetchBudgetPool_->logAll(client, withMsg, withLevel);
  vsl_log(client, withMsg, withLevel, "<----- powerFetchBudgetPool");
  vsl_log(client, withMsg, withLevel, "powerPushBudgetPool ----->");
  powerPushBudgetPool_->logAll(client, withMsg, withLevel);
  vsl_log(client, withMsg, withLevel, "<----- powerPushBudgetPool");
  vsl_log(client, withMsg, withLevel, "<-----AmpvexStub Framework");
}

}  // namespace kelo
