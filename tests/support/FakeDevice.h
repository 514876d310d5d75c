// A device tree written by hand under a folder: the kernel files kelo-powerd measures (proc/stat,
// proc/uptime, proc/<pid>/stat, powercap zones, a battery) and the energy event journal, in the
// formats the kernel and the library write them.
//
// Times: the uptime starts at kUptime seconds, so that the boot lies decades before any event
// time a test writes; processes that a test starts at startTicks < kUptime * 100 were running
// long before the first sample.
#ifndef KELO_TESTS_SUPPORT_FAKEDEVICE_H_
#define KELO_TESTS_SUPPORT_FAKEDEVICE_H_

#include <cstdint>
#include <string>

namespace kelo::test {

class FakeDevice {
 public:
  static constexpr double kUptime = 1e9;
  static constexpr uint64_t kTicksPerSecond = 100;

  // Writes proc/uptime, proc/stat and an empty journal.
  explicit FakeDevice(std::string root);

  const std::string& root() const { return root_; }
  std::string journalPath() const { return root_ + "/run/kelo/energy-events.jsonl"; }
  std::string reportPath() const { return root_ + "/run/kelo/energy-report.json"; }
  std::string statePath() const { return root_ + "/var/lib/kelo/powerd-state.json"; }

  void setBusy(uint64_t ticks);  // at least 6
  void setUptime(double seconds);
  void setProcess(int pid, uint64_t startTicks, uint64_t cpuTicks);
  void removeProcess(int pid);
  // A top-level zone sys/class/powercap/<zone>/ named `name`.
  void setPackage(const std::string& zone, uint64_t energyUj, uint64_t maxEnergyUj = 1ull << 40,
                  const std::string& name = "package-0");
  // The first battery: design energy in µWh, or (energyUwh 0) design charge in µAh and minimum
  // voltage in µV.
  void setBattery(uint64_t energyUwh, uint64_t chargeUah = 0, uint64_t voltageUv = 0);

  // One journal line as the library writes it; `time` is the announcer's clock.
  static std::string event(int pid, const std::string& kind, const std::string& bundleId = "",
                           int updateType = 0, uint64_t seqNum = 0, double time = 1763722560.0);
  void append(const std::string& text);  // appended as it is: add the newline
  void announce(int pid, const std::string& kind, const std::string& bundleId = "",
                int updateType = 0, uint64_t seqNum = 0) {
    append(event(pid, kind, bundleId, updateType, seqNum) + "\n");
  }
  // What the library does past its size cap: the journal becomes ".1", a new one begins.
  void rotateJournal();

 private:
  void write(const std::string& relative, const std::string& content);
  const std::string root_;
};

}  // namespace kelo::test

#endif  // KELO_TESTS_SUPPORT_FAKEDEVICE_H_
