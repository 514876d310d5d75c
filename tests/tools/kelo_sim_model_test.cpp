// The simulated daemon's prediction model and the operator's key checks, without a day around.
#include <gtest/gtest.h>

#include "tools/common/KeyNames.h"
#include "tools/kelo-sim/Model.h"

namespace kelo::sim {
namespace {

TEST(KeloSimModel, ALaunchFallsInTheZoneOfItsDistanceToTheNearestPrediction) {
  const struct {
    uint64_t slot;
    int32_t zone;
  } cases[] = {{49, 8}, {48, 0}, {45, 0}, {44, 1}, {43, 1}, {42, 2}, {41, 3}, {40, 3},
               {39, 4}, {38, 5}, {37, 6}, {36, 6}, {35, 7}, {33, 7}, {32, 8}};
  for (const auto& c : cases) EXPECT_EQ(predictionZone({40, 90}, c.slot), c.zone) << c.slot;
  EXPECT_EQ(predictionZone({}, 40), 8);
  EXPECT_EQ(predictionZone({10, 40}, 38), 5);  // the nearest of two
}

TEST(KeloSimModel, SlotsScoreByTheWeightedHistoryAndTheCutoffPicksThem) {
  App app;
  app.history[0] = {150};                            // slot 10 the day before
  app.history[kHistoryDays - 1] = {300};             // slot 20 a week before
  for (auto& day : app.history) day.push_back(450);  // slot 30 every day
  const std::array<double, kSlots> s = slotScores(app, {40, 35, 25, 0});
  EXPECT_DOUBLE_EQ(s[30], 100.0);
  EXPECT_DOUBLE_EQ(s[10], 40.0 + 5.0);  // recent, one day of seven
  EXPECT_DOUBLE_EQ(s[11], 40.0);        // a neighbour of the day before's launch
  EXPECT_DOUBLE_EQ(s[9], 40.0);
  EXPECT_DOUBLE_EQ(s[20], 5.0 + 25.0);  // one day of seven, and the same weekday
  EXPECT_DOUBLE_EQ(s[50], 0.0);
  EXPECT_EQ(predictSlots(app, {40, 35, 25, 41}), (std::vector<int>{10, 30}));
  EXPECT_EQ(predictSlots(app, {40, 35, 25, 30}), (std::vector<int>{9, 10, 11, 20, 29, 30, 31}));
  EXPECT_EQ(predictSlots(app, {0, 0, 100, 50}), (std::vector<int>{20, 30}));
  EXPECT_TRUE(predictSlots(app, {0, 0, 0, 0}).empty());
  EXPECT_TRUE(predictSlots(app, {-1, -1, -1, -1}).empty());  // absent keys weigh nothing
}

TEST(KeloSimModel, SettingsAreTypedAndCheckedAgainstTheKeys) {
  const struct {
    std::string text;
    Value value;
  } parsed[] = {{"12", Value::integer(12)},      {"-3", Value::integer(-3)},
                {"1.5", Value::real(1.5)},       {"1e+20", Value::real(1e20)},
                {"true", Value::boolean(true)},  {"false", Value::boolean(false)},
                {"high", Value::string("high")}, {" 1", Value::string(" 1")},
                {"", Value::string("")}};
  for (const auto& p : parsed) EXPECT_EQ(tools::parseSetting(p.text), p.value) << p.text;

  const struct {
    std::string key;
    Value value;
    std::string said;  // empty: accepted
  } checks[] = {
      {"maxFetchApps", Value::integer(3), ""},
      {"enableBudgeting", Value::boolean(false), ""},
      {"scoreCutoff", Value::real(-9.2e18), ""},
      {"scoreCutoff", Value::real(9.3e18), "64-bit"},
      {"scoreCutoff", Value::real(-9.3e18), "64-bit"},
      {"scoreCutoff", Value::string("x"), "a string"},
      {"scoreCutof", Value::integer(1), "\"scoreCutoff\""},
      {"GLOBALPOWERBUDGET", Value::integer(1), "\"globalPowerBudget\""},
      {"pushAppDataBudgt", Value::integer(1), "\"pushAppDataBudget\""},
  };
  for (const auto& c : checks) {
    const std::string error = tools::checkSetting(c.key, c.value);
    if (c.said.empty()) {
      EXPECT_EQ(error, "") << c.key;
    } else {
      EXPECT_NE(error.find(c.said), std::string::npos) << c.key << ": " << error;
    }
  }
}

}  // namespace
}  // namespace kelo::sim
