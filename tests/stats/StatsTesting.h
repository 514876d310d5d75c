// A collector test's platform: the sandbox with its hand-moved clock, an in-memory metrics sink,
// and the detailed log to read the collector's lines back.
#ifndef KELO_TESTS_STATS_STATSTESTING_H_
#define KELO_TESTS_STATS_STATSTESTING_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kelo/AppLaunchStatsCumu.h"
#include "tests/support/InMemoryMetrics.h"
#include "tests/support/LogCapture.h"

namespace kelo::test {

class StatsTest : public ::testing::Test {
 protected:
  using Op = InMemoryMetrics::Op;
  using Entry = InMemoryMetrics::Entry;
  using Snapshot = AppLaunchStatsCumu::Snapshot;
  using Lines = std::vector<std::string>;

  void SetUp() override {
    platform::Overrides o;
    o.metrics = metrics_;
    sandbox_.install(o);
  }

  AppLaunchStatsCumu& stats() { return *AppLaunchStatsCumu::sharedInstance(); }
  double inCycle(double seconds) { return stats().cycleStart() + seconds; }
  static double at(int slot, int minute) { return slot * 900.0 + minute * 60.0; }

  // Events read the clock when their task runs, so each one is waited for before it moves again.
  void launchAt(const std::string& app, double seconds) {
    sandbox_.setNow(inCycle(seconds));
    stats().appFGLaunch(app);
    stats().snapshot();
  }
  void prewarmAt(const std::string& app, double seconds) {
    sandbox_.setNow(inCycle(seconds));
    stats().appPrewarm(app);
    stats().snapshot();
  }

  void enableLog() { ASSERT_TRUE(log_.switchOn()); }
  Lines logTexts() const { return log_.texts(); }
  std::size_t logCount(const std::string& text) const {
    const Lines lines = logTexts();
    return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), text));
  }

  // Waits up to ten seconds for `done`.
  template <class F>
  static bool eventually(F done) {
    for (int i = 0; i < 1000 && !done(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return done();
  }

  Sandbox sandbox_;
  std::shared_ptr<InMemoryMetrics> metrics_ = std::make_shared<InMemoryMetrics>();
  DetailedLog log_{sandbox_};
};

}  // namespace kelo::test

#endif  // KELO_TESTS_STATS_STATSTESTING_H_
