#include "tests/support/FakeDevice.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <utility>

#include "tests/support/Sandbox.h"

namespace kelo::test {

namespace fs = std::filesystem;

FakeDevice::FakeDevice(std::string root) : root_(std::move(root)) {
  setUptime(kUptime);
  setBusy(6);
  write("run/kelo/energy-events.jsonl", "");
}

void FakeDevice::write(const std::string& relative, const std::string& content) {
  // Whole or not at all, as the kernel's files read, even to a daemon sampling meanwhile.
  const std::string path = root_ + "/" + relative;
  Sandbox::writeFile(path + ".new", content);
  fs::rename(path + ".new", path);
}

void FakeDevice::setBusy(uint64_t ticks) {
  // user nice system idle iowait irq softirq steal guest guest_nice: busy counts all but idle,
  // iowait and the guest times (already in user). nice, irq, softirq and steal take 6 ticks.
  const uint64_t user = (ticks - 6) / 2;
  const uint64_t system = ticks - 6 - user;
  char line[256];
  std::snprintf(line, sizeof line,
                "cpu  %llu 1 %llu 777777 3333 2 2 1 55 5\ncpu0 1 1 1 1 1 1 1 1 0 0\n",
                static_cast<unsigned long long>(user), static_cast<unsigned long long>(system));
  write("proc/stat", std::string(line) + "intr 1 2 3\nbtime 1763000000\n");
}

void FakeDevice::setUptime(double seconds) {
  char line[64];
  std::snprintf(line, sizeof line, "%.2f 1234.56\n", seconds);
  write("proc/uptime", line);
}

void FakeDevice::setProcess(int pid, uint64_t startTicks, uint64_t cpuTicks) {
  // A command name with a space and a parenthesis, as proc(5) allows; utime and stime split the
  // CPU time, children's times (not counted) beside them.
  const uint64_t utime = cpuTicks / 3;
  char line[512];
  std::snprintf(line, sizeof line,
                "%d (sch) d) S 1 %d %d 0 -1 4194560 500 0 0 0 %llu %llu 999 999 20 0 4 0 %llu "
                "123456 789 18446744073709551615 1 1 0 0 0 0 0 0 0 0 0 0 17 1 0 0 0 0 0\n",
                pid, pid, pid, static_cast<unsigned long long>(utime),
                static_cast<unsigned long long>(cpuTicks - utime),
                static_cast<unsigned long long>(startTicks));
  write("proc/" + std::to_string(pid) + "/stat", line);
}

void FakeDevice::removeProcess(int pid) {
  std::error_code ec;
  fs::remove_all(root_ + "/proc/" + std::to_string(pid), ec);
}

void FakeDevice::setPackage(const std::string& zone, uint64_t energyUj, uint64_t maxEnergyUj,
                            const std::string& name) {
  const std::string base = "sys/class/powercap/" + zone + "/";
  write(base + "name", name + "\n");
  write(base + "energy_uj", std::to_string(energyUj) + "\n");
  write(base + "max_energy_range_uj", std::to_string(maxEnergyUj) + "\n");
}

void FakeDevice::setBattery(uint64_t energyUwh, uint64_t chargeUah, uint64_t voltageUv) {
  write("sys/class/power_supply/AC/type", "Mains\n");
  const std::string base = "sys/class/power_supply/BAT0/";
  write(base + "type", "Battery\n");
  if (energyUwh != 0) write(base + "energy_full_design", std::to_string(energyUwh) + "\n");
  if (chargeUah != 0) write(base + "charge_full_design", std::to_string(chargeUah) + "\n");
  if (voltageUv != 0) write(base + "voltage_min_design", std::to_string(voltageUv) + "\n");
}

std::string FakeDevice::event(int pid, const std::string& kind, const std::string& bundleId,
                              int updateType, uint64_t seqNum, double time) {
  char head[128];
  std::snprintf(head, sizeof head, R"({"time":%.6f,"pid":%d,"process":"schedd","event":"%s")", time,
                pid, kind.c_str());
  std::string line = head;
  if (kind == "stopAll") return line + "}";
  char tail[128];
  std::snprintf(tail, sizeof tail, R"(,"updateType":%d,"seqNum":%llu})", updateType,
                static_cast<unsigned long long>(seqNum));
  return line + R"(,"kind":)" + (kind == "start" ? "1" : "2") + R"(,"bundleID":")" + bundleId +
         "\"" + tail;
}

void FakeDevice::append(const std::string& text) {
  std::ofstream(journalPath(), std::ios::app | std::ios::binary) << text;
}

void FakeDevice::rotateJournal() {
  fs::rename(journalPath(), journalPath() + ".1");
  write("run/kelo/energy-events.jsonl", "");
}

}  // namespace kelo::test
