#include <string>

#include "tests/stats/StatsTesting.h"

namespace kelo::test {
namespace {

class RecordingTest : public StatsTest {
 protected:
  void SetUp() override {
    StatsTest::SetUp();
    stats().setCollectLaunchStats();
  }
};

struct MinuteCase {
  double seconds;
  int slot;  // -1: rejected
  int minute;
};

TEST_F(RecordingTest, EventsLandInTheirSlotAndMinute) {
  const MinuteCase cases[] = {
      {-899, 0, 0}, {-10, 0, 0},    {0, 0, 0},     {59.9, 0, 0},  {60, 0, 1},
      {905, 1, 0},  {1799, 1, 14},  {86399, 95, 14}, {86400, -1, 0}, {-900, -1, 0},
      {-1e7, -1, 0}, {1e12, -1, 0},
  };
  for (const MinuteCase& c : cases) {
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

TEST_F(RecordingTest, MinutesAccumulateAndTheLinesTellTheValue) {
  enableLog();
  launchAt("a", 905);
  launchAt("a", 905 + 180);
  launchAt("a", 905);
  prewarmAt("a", 1799);
  launchAt("a", 86400);
  prewarmAt("a", -900);
  EXPECT_EQ(stats().launchSlots("a").value()[1], 0b1001);
  EXPECT_EQ(logTexts(), (std::vector<std::string>{
                            "app launch a diff 905, val 1 (1)",
                            "app launch a diff 1085, val 9 (8)",
                            "app launch a diff 905, val 9 (1)",
                            "prewarm a diff 1799, minute val 16384 (16384)",
                            "weird diff 86400 (2025-11-21 10:56:00 +0000)",
                            "weird diff -900 (2025-11-21 10:56:00 +0000)",
                        }));
}

TEST_F(RecordingTest, OnlyAcceptedLaunchesSetTheLaunchFlag) {
  prewarmAt("a", 100);
  launchAt("b", 86400);
  EXPECT_EQ(stats().snapshot().hasStats, 0);
  launchAt("b", 100);
  EXPECT_EQ(stats().snapshot().hasStats, AppLaunchStatsCumu::kFlagLaunch);
}

TEST(RecordingOffTest, NothingIsRecordedUntilCollectionIsOn) {
  Sandbox sandbox;
  sandbox.install();
  AppLaunchStatsCumu& s = *AppLaunchStatsCumu::sharedInstance();
  s.appFGLaunch("a");
  s.appPrewarm("a");
  AppLaunchStatsCumu::Snapshot snap = s.snapshot();
  EXPECT_FALSE(snap.buildLaunchStats);
  EXPECT_EQ(snap.launchApps + snap.prewarmApps, 0u);
  EXPECT_EQ(snap.hasStats, 0);
  s.setCollectLaunchStats();
  s.appFGLaunch("a");
  snap = s.snapshot();
  EXPECT_TRUE(snap.buildLaunchStats);
  EXPECT_EQ(snap.launchApps, 1u);
}

TEST_F(RecordingTest, ANewCycleMeasuresFromItsOwnStart) {
  launchAt("a", 1000);
  sandbox_.advance(5000);
  stats().newCycleWithApps({});
  stats().snapshot();
  EXPECT_EQ(stats().cycleStart(), sandbox_.now());
  EXPECT_EQ(stats().snapshot().launchApps, 0u);  // uploaded with the old cycle
  launchAt("a", 60);
  EXPECT_EQ(stats().launchSlots("a").value()[0], 0b10);
}

}  // namespace
}  // namespace kelo::test
