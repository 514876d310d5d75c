#include <string>

#include "tests/stats/StatsTesting.h"

namespace kelo::test {
namespace {

TEST_F(StatsTest, EventsLandInTheirSlotAndMinute) {
  stats().setCollectLaunchStats();
  struct Case {
    double seconds;
    int slot;  // -1: rejected
    int minute;
  };
  const Case cases[] = {
      {-899, 0, 0},  {-10, 0, 0},     {59.9, 0, 0},   {60, 0, 1},    {905, 1, 0},
      {1799, 1, 14}, {86399, 95, 14}, {86400, -1, 0}, {-900, -1, 0}, {1e12, -1, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.seconds);
    const std::string app = "app" + std::to_string(c.seconds);
    launchAt(app, c.seconds);
    prewarmAt(app, c.seconds);
    AppLaunchStatsCumu::SlotArray expected{};
    if (c.slot >= 0) expected[c.slot] = static_cast<uint16_t>(1u << c.minute);
    // A rejected first event still leaves the application an all-zero array.
    EXPECT_EQ(stats().launchSlots(app), expected);
    EXPECT_EQ(stats().prewarmSlots(app), expected);
  }
}

TEST_F(StatsTest, RecordingLogsEachEventAndOnlyLaunchesSetTheFlag) {
  enableLog();
  launchAt("a", 905);  // collection is off: ignored
  EXPECT_EQ(stats().snapshot().launchApps, 0u);
  stats().setCollectLaunchStats();
  prewarmAt("a", 1799);
  launchAt("a", 86400);
  EXPECT_EQ(stats().snapshot().hasStats, 0);
  launchAt("a", 905);
  launchAt("a", 905 + 180);
  launchAt("a", 905);
  prewarmAt("a", -900);
  EXPECT_EQ(stats().launchSlots("a").value()[1], 0b1001);
  EXPECT_EQ(stats().snapshot().hasStats, AppLaunchStatsCumu::kFlagLaunch);
  EXPECT_EQ(logTexts(), (std::vector<std::string>{
                            "prewarm a diff 1799, minute val 16384 (16384)",
                            "weird diff 86400 (2025-11-21 10:56:00 +0000)",
                            "app launch a diff 905, val 1 (1)",
                            "app launch a diff 1085, val 9 (8)",
                            "app launch a diff 905, val 9 (1)",
                            "weird diff -900 (2025-11-21 10:56:00 +0000)",
                        }));
}

}  // namespace
}  // namespace kelo::test
