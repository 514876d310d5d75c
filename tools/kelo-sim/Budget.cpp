#include "tools/kelo-sim/Budget.h"

#include <algorithm>
#include <cstdio>

#include "kelo/AmpvexStub.h"
#include "kelo/config.h"

namespace kelo::sim {

namespace {

// Seconds between two read-backs the decisions may ask for: a refresh costs a pass over every
// application's counters.
constexpr double kReadInterval = 300;

bool within(int64_t used, int64_t limit) { return limit < 0 || used < limit; }

}  // namespace

BudgetConfig BudgetConfig::fromConfigurator() {
  BudgetConfig c;
  c.enableBudgeting = getStateForC("enableBudgeting") > 0;
  c.globalPowerBudget = getStateForC("globalPowerBudget");
  c.globalDataBudget = getStateForC("globalDataBudget");
  c.fetchAppPowerBudget = getStateForC("fetchAppPowerBudget");
  c.fetchAppDataBudget = getStateForC("fetchAppDataBudget");
  c.pushAppPowerBudget = getStateForC("pushAppPowerBudget");
  c.pushAppDataBudget = getStateForC("pushAppDataBudget");
  c.maxFetchApps = getStateForC("maxFetchApps");
  return c;
}

int64_t Ledger::outstanding(const AppUse& a, int category) const {
  const int unread = category == 0 ? a.unread[0] : a.unread[1] + a.unread[2];
  return (a.running[category] + unread) * taskMax_[category];
}

Denial Ledger::decide(AmpvexStub* energy, double now, int app, Category category, bool poorSignal) {
  // Only the budgets need energy between the periodic readings.
  if (config_.enableBudgeting && !pending_.empty() && now - lastRead_ >= kReadInterval) {
    read(energy, now);
  }
  const int c = static_cast<int>(category);
  const AppUse& a = apps_[app];
  if (poorSignal) return Denial::kPoorSignal;
  if (config_.enableBudgeting) {
    const bool fetch = category == Category::kFetch;
    const int64_t appData = fetch ? config_.fetchAppDataBudget : config_.pushAppDataBudget;
    if (!within(data_, config_.globalDataBudget) || !within(a.data[c], appData)) {
      return Denial::kData;
    }
    const int64_t reserved = outstanding_[0] * taskMax_[0] + outstanding_[1] * taskMax_[1];
    const int64_t used = totals_[0] + totals_[1];
    const int64_t appPower = fetch ? config_.fetchAppPowerBudget : config_.pushAppPowerBudget;
    // The task asked for counts as one more of its kind.
    if (!within(used + reserved + taskMax_[c], config_.globalPowerBudget + 1) ||
        !within(a.energy[c] + outstanding(a, c) + taskMax_[c], appPower + 1)) {
      return Denial::kEnergy;
    }
  }
  if (category == Category::kFetch && config_.maxFetchApps >= 0 &&
      outstandingRunningFetches_ >= config_.maxFetchApps) {
    return Denial::kTooManyFetches;
  }
  return Denial::kNone;
}

void Ledger::started(int app, const std::string& appId, Category category) {
  AppUse& a = apps_[app];
  if (a.id.empty()) a.id = appId;
  ++a.running[static_cast<int>(category)];
  ++outstanding_[static_cast<int>(category)];
  if (category == Category::kFetch) ++outstandingRunningFetches_;
}

void Ledger::finished(int app, Category category, bool silent, int64_t bytes) {
  AppUse& a = apps_[app];
  const int c = static_cast<int>(category);
  --a.running[c];
  ++a.unread[category == Category::kFetch ? 0 : silent ? 2 : 1];
  a.data[c] += bytes;
  data_ += bytes;
  if (category == Category::kFetch) --outstandingRunningFetches_;
  pending_.insert(app);
}

void Ledger::read(AmpvexStub* energy, double now) {
  energy->energyConsumedRefresh();
  totals_[0] += energy->energyConsumedForFetch();
  totals_[1] += energy->energyConsumedForPush();
  totals_[2] += energy->energyConsumedForBackgroundDownload();
  totals_[3] += energy->energyConsumedForNonDiscDownload();
  lastRead_ = now;
  BudgetPool* const pools[3] = {energy->powerFetchBudgetPool().get(),
                                energy->powerPushBudgetPool().get(),
                                energy->powerSilentPushBudgetPool().get()};
  for (int app : pending_) {
    AppUse& a = apps_[app];
    for (int p = 0; p < 3; ++p) {
      if (a.unread[p] == 0) continue;
      const int64_t value = pools[p]->findPoolResource(a.id)->currentItemPoolValue();
      // A value below the last one seen: the power monitor restarted its counters.
      const int64_t spent = value >= a.lastSeen[p] ? value - a.lastSeen[p] : value;
      a.lastSeen[p] = value;
      const int c = p == 0 ? 0 : 1;
      a.energy[c] += spent;
      taskMax_[c] = std::max(taskMax_[c], (spent + a.unread[p] - 1) / a.unread[p]);
      outstanding_[c] -= a.unread[p];
      a.unread[p] = 0;
    }
  }
  pending_.clear();
}

}  // namespace kelo::sim
