// Helpers of the kelo-powerd tests: running it `--once` on a device tree written by hand,
// reading what it wrote, and the trees of the measured intervals. Amounts: 1 mWh = 3.6 J =
// 3,600,000 µJ; 100 clock ticks = 1 CPU second.
#ifndef KELO_TESTS_TOOLS_POWERDTESTING_H_
#define KELO_TESTS_TOOLS_POWERDTESTING_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "kelo/Value.h"
#include "platform/Json.h"
#include "tests/support/FakeDevice.h"
#include "tests/support/Sandbox.h"
#include "tests/tools/ToolRunner.h"

namespace kelo::test::powerd {

using Totals = std::map<std::string, double>;  // "bundleID/updateType" -> mWh
using Step = std::function<void(FakeDevice&)>;

constexpr int kPid = 42;

inline double wallClock() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// Package 0 is seen twice (its MSR and MMIO interfaces) and has a core subzone; package 1 once.
// Interval k adds 6 mWh (21.6 J) to package 0 and 4 mWh (14.4 J) to package 1: 10 mWh, while the
// subzone's moves (which would add 18 mWh) and the twin must not count.
inline void packages(FakeDevice& d, int k) {
  const uint64_t p0 = 1'000'000 + 21'600'000ull * k;
  for (const char* zone : {"intel-rapl:0", "intel-rapl-mmio:0"}) d.setPackage(zone, p0);
  d.setPackage("intel-rapl:0:0", 3 * p0, 1ull << 40, "core");
  d.setPackage("intel-rapl:1", 2'000'000 + 14'400'000ull * k, 1ull << 40, "package-1");
}

// Interval k: the machine is busy 400 ticks, process 42 runs 200 of them.
inline void cpu(FakeDevice& d, int k) {
  d.setBusy(1000 + 400 * k);
  d.setProcess(kPid, 5000, 100 + 200 * k);
}

// The starting tree, and the k-th measured interval: 10 mWh, of which process 42 uses half.
inline void start(FakeDevice& d) { packages(d, 0), cpu(d, 0); }
inline Step interval(int k) {
  return [k](FakeDevice& d) { packages(d, k), cpu(d, k); };
}
inline Step both(Step a, Step b) {
  return [a, b](FakeDevice& d) { a(d), b(d); };
}

inline ToolRun powerd(const FakeDevice& device, const std::vector<std::string>& extra = {}) {
  std::vector<std::string> args = {KELO_POWERD_PATH, "--root", device.root(), "--once"};
  args.insert(args.end(), extra.begin(), extra.end());
  return runTool(args);
}

inline Value reportOf(const FakeDevice& d) {
  return platform::parseJson(Sandbox::readFile(d.reportPath()));
}
inline Value stateOf(const FakeDevice& d) {
  return platform::parseJson(Sandbox::readFile(d.statePath()));
}

inline Totals totalsOf(const FakeDevice& d) {
  Totals out;
  const Value report = reportOf(d);
  const Value* entries = report.find("BLMEnergyForKelo");
  for (const Value& e : entries != nullptr ? entries->asArray() : Value::Array{}) {
    out[e.find("bundleID")->asString() + "/" +
        std::to_string(e.find("updateType")->integerValue())] = e.find("energy_mWh")->doubleValue();
  }
  return out;
}

inline int64_t referenceDateOf(const FakeDevice& d) {
  return reportOf(d).find("BLMEnergyReferenceDate")->integerValue();
}

}  // namespace kelo::test::powerd

#endif  // KELO_TESTS_TOOLS_POWERDTESTING_H_
