// The simulated daemon's fetch and push decisions, from the budget keys the configurator serves
// and the energy the energy service reads back.
//
// Energy (mWh) is learned only through the energy service: after a refresh, the readings give
// each category's increase, and each application's pool record gives its own. Until a finished
// task's energy has been read back, the task holds a reservation of the largest energy one task
// of its category was seen to take, so grants made between two readings cannot overrun the
// budget by more than the error of that estimate. Data (bytes) is what finished tasks reported.
#ifndef KELO_TOOLS_KELOSIM_BUDGET_H_
#define KELO_TOOLS_KELOSIM_BUDGET_H_

#include <array>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace kelo {
class AmpvexStub;
}

namespace kelo::sim {

// The keys the decisions use, as the configurator serves them. A limit below 0 (an absent key
// reads -1) is no limit; enableBudgeting 0 or below turns every budget check off.
struct BudgetConfig {
  bool enableBudgeting = true;
  int64_t globalPowerBudget = -1;    // mWh a day, fetch and push together
  int64_t globalDataBudget = -1;     // bytes a day, fetch and push together
  int64_t fetchAppPowerBudget = -1;  // mWh a day per application
  int64_t fetchAppDataBudget = -1;   // bytes a day per application
  int64_t pushAppPowerBudget = -1;
  int64_t pushAppDataBudget = -1;
  int64_t maxFetchApps = -1;  // fetches under way at once

  // Reads every key through getStateForC.
  static BudgetConfig fromConfigurator();
};

enum class Category { kFetch, kPush };

enum class Denial { kNone, kData, kEnergy, kPoorSignal, kTooManyFetches };

class Ledger {
 public:
  explicit Ledger(const BudgetConfig& config) : config_(config) {}

  // The decision for one attempt of `app` (index) in `category`; `poorSignal` is the link at
  // that moment. Calls read() first when a finished task waits to be read back.
  Denial decide(AmpvexStub* energy, double now, int app, Category category, bool poorSignal);

  // A granted task starts, or a started one ends having moved `bytes`.
  void started(int app, const std::string& appId, Category category);
  void finished(int app, Category category, bool silent, int64_t bytes);

  // A refresh and the four readings, as the daemon's periodic check does; the readings add to
  // totals().
  void read(AmpvexStub* energy, double now);

  // Every reading so far: fetch, push (silent push included), background download,
  // non-discretionary download.
  const std::array<int64_t, 4>& totals() const { return totals_; }
  int64_t dataUsed() const { return data_; }
  // The largest energy one task of the category was seen to take.
  int64_t taskMaximum(Category category) const { return taskMax_[static_cast<int>(category)]; }

 private:
  struct AppUse {
    std::string id;
    int64_t energy[2] = {0, 0};       // read back, by category
    int64_t data[2] = {0, 0};         // bytes, by category
    int64_t lastSeen[3] = {0, 0, 0};  // pool values: fetch, push, silent push
    int unread[3] = {0, 0, 0};        // finished tasks not yet read back, by pool
    int running[2] = {0, 0};          // by category
  };
  int64_t outstanding(const AppUse& a, int category) const;

  BudgetConfig config_;
  std::map<int, AppUse> apps_;
  std::set<int> pending_;  // apps with finished tasks not yet read back
  std::array<int64_t, 4> totals_{};
  int64_t data_ = 0;
  int outstanding_[2] = {0, 0};  // running and unread tasks of every app, by category
  int outstandingRunningFetches_ = 0;
  int64_t taskMax_[2] = {1, 1};
  double lastRead_ = -1e9;
};

}  // namespace kelo::sim

#endif  // KELO_TOOLS_KELOSIM_BUDGET_H_
