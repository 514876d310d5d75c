// The parts of kelo-powerd's core that a device tree cannot reach cheaply: its bounds, a new
// boot, and the journal reader's budget.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "tests/support/FakeDevice.h"
#include "tests/support/Sandbox.h"
#include "tools/kelo-powerd/Attribution.h"
#include "tools/kelo-powerd/Journal.h"

namespace kelo::powerd {
namespace {

// A device held in memory, without package domains.
class MemoryDevice : public DeviceReader {
 public:
  std::optional<std::vector<PackageCounter>> packageCounters() override { return std::nullopt; }
  std::optional<uint64_t> busyTicks() override { return busy; }
  std::optional<double> uptime() override { return 1e9; }
  std::optional<ProcessTimes> processTimes(int pid) override {
    const auto it = processes.find(pid);
    if (it == processes.end()) return std::nullopt;
    return it->second;
  }
  std::optional<double> batteryCapacity() override { return std::nullopt; }
  std::string bootId() override { return boot; }
  double ticksPerSecond() override { return 100; }

  uint64_t busy = 1000;
  std::map<int, ProcessTimes> processes;
  std::string boot = "first";
};

Event start(int pid, const std::string& id, uint64_t seq) {
  Event e;
  e.pid = pid;
  e.bundleId = id;
  e.updateType = 1;
  e.seqNum = seq;
  return e;
}

TEST(PowerdCore, LimitsBoundTheStateAndCountWhatTheyRefuse) {
  MemoryDevice device;
  for (int pid : {1, 2, 3}) device.processes[pid] = {100, 0};
  State state;
  const Limits limits{2, 3, 2};  // processes, open intervals, report entries
  noteBoot(state, device.bootId());
  // Process 3 is one process too many; d is one open interval too many.
  attribute(
      state,
      {start(1, "a", 1), start(1, "b", 2), start(1, "c", 3), start(2, "d", 1), start(3, "e", 1)},
      device, 0, 36, limits);
  EXPECT_EQ(state.processes.size(), 2u);
  EXPECT_EQ(state.processes[1].open.size(), 3u);
  EXPECT_EQ(state.overLimit, 2u);

  // 100 ticks at 36 W: 36 J = 10 mWh over a, b and c, of which c finds no room in the report.
  device.processes[1].cpuTicks = 100;
  attribute(state, {}, device, 0, 36, limits);
  ASSERT_EQ(state.totals.size(), 2u);
  EXPECT_NEAR((state.totals[{"a", 1}]), 10.0 / 3, 1e-12);
  EXPECT_NEAR((state.totals[{"b", 1}]), 10.0 / 3, 1e-12);
  EXPECT_EQ(state.overLimit, 3u);

  // A new boot: every counter restarted, so readings, processes and the journal position go;
  // the epoch's totals stay.
  state.journal = {true, 1, 2, 3};
  device.boot = "second";
  EXPECT_TRUE(noteBoot(state, device.bootId()));
  EXPECT_TRUE(state.processes.empty());
  EXPECT_FALSE(state.busyTicks || state.uptime || state.journal.known);
  EXPECT_EQ(state.totals.size(), 2u);
  EXPECT_FALSE(noteBoot(state, device.bootId()));
}

TEST(PowerdCore, TheJournalIsReadWithinItsBudget) {
  test::TempDir dir("kelo-powerd-journal");
  const std::string path = dir.path() + "/journal";
  test::Sandbox::writeFile(path, "0123456789\nabc\n" + std::string(30, 'x') + "\npartial");
  // 12 bytes: the first line only.
  JournalChunk chunk = readJournal(path, {}, 12);
  EXPECT_EQ(chunk.lines, std::vector<std::string>{"0123456789"});
  EXPECT_EQ(chunk.next.offset, 11u);
  // A line longer than the whole budget is taken as it is, so that the reader moves on.
  chunk = readJournal(path, chunk.next, 10);
  EXPECT_EQ(chunk.lines, std::vector<std::string>{"abc"});
  chunk = readJournal(path, chunk.next, 10);
  EXPECT_EQ(chunk.lines, std::vector<std::string>{std::string(10, 'x')});
  chunk = readJournal(path, chunk.next, 100);
  EXPECT_EQ(chunk.lines, std::vector<std::string>{std::string(20, 'x')});
  EXPECT_EQ(chunk.next.offset, 46u);  // "partial" waits for its newline
  EXPECT_FALSE(chunk.lostTrack);
  // Truncated below the position: read again from the start, and say so.
  test::Sandbox::writeFile(path, "new\n");
  chunk = readJournal(path, chunk.next, 100);
  EXPECT_EQ(chunk.lines, std::vector<std::string>{"new"});
  EXPECT_TRUE(chunk.lostTrack);
}

}  // namespace
}  // namespace kelo::powerd
