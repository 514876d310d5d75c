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
#include "kelo/logging.h"
#include "tests/support/InMemoryMetrics.h"
#include "tests/support/Sandbox.h"

namespace kelo::test {

class StatsTest : public ::testing::Test {
 protected:
  using Op = InMemoryMetrics::Op;
  using Entry = InMemoryMetrics::Entry;

  void SetUp() override {
    platform::Overrides o;
    o.metrics = metrics_;
    sandbox_.install(o);
  }

  AppLaunchStatsCumu& stats() { return *AppLaunchStatsCumu::sharedInstance(); }

  // Seconds since 1970 at `seconds` into the current cycle.
  double inCycle(double seconds) { return stats().cycleStart() + seconds; }
  static double at(int slot, int minute) { return slot * 900.0 + minute * 60.0; }

  // Records a launch (or a prewarm) `seconds` after cycleStart. Events read the clock when
  // their task runs, so each one is waited for before the clock moves again.
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

  // Switches the detailed logger on and returns once lines reach its file.
  void enableLog() {
    KELO_CLOGMODE(true);
    for (int i = 0; i < 2000; ++i) {
      (KELO_CLOG)("probe %d", i);
      if (!Sandbox::readLines(logPath()).empty()) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    FAIL() << "the detailed log never appeared";
  }

  std::string logPath() const {
    return sandbox_.homePath() + "/Library/Logs/KeloLoggingDetailed.kelotest";
  }

  // The texts of the detailed log's lines, without their time stamp and sender, probes left
  // out.
  std::vector<std::string> logTexts() const {
    std::vector<std::string> out;
    const std::string marker = "<Info>: ";
    for (const std::string& line : Sandbox::readLines(logPath())) {
      const std::size_t at = line.find(marker);
      if (at == std::string::npos) continue;
      std::string text = line.substr(at + marker.size());
      if (text.rfind("probe ", 0) == 0) continue;
      out.push_back(std::move(text));
    }
    return out;
  }

  std::size_t logCount(const std::string& text) const {
    const std::vector<std::string> lines = logTexts();
    return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), text));
  }

  // Waits up to ten seconds for `done`.
  template <class F>
  static bool eventually(F done) {
    for (int i = 0; i < 1000; ++i) {
      if (done()) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return done();
  }

  Sandbox sandbox_;
  std::shared_ptr<InMemoryMetrics> metrics_ = std::make_shared<InMemoryMetrics>();
};

}  // namespace kelo::test

#endif  // KELO_TESTS_STATS_STATSTESTING_H_
