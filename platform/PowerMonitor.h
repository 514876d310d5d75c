// The power-logging service: the three operations the energy service calls, routed to the
// monitor installed through kelo::platform::Overrides, or else to the default Linux backend below.
//
// Default backend: two files under the device root, shared with the device's power daemon.
//
//   /run/kelo/energy-events.jsonl   written by this library, read by the power daemon.
//     One JSON object per line, appended with a single write(2) per event (so lines of several
//     processes never interleave), in the order the events were sent:
//       {"time":1763722560.250000,"pid":4242,"process":"schedd","event":"start","kind":1,
//        "bundleID":"com.example.app","updateType":1,"seqNum":17}
//     "event" is "start" (kind 1) or "stop" (kind 2); any other kind is written as "other" with
//     its number. "updateType" is 1 fetch, 2 push, 3 silent push, 4 background download,
//     5 non-discretionary download, 0 unknown. A stop of every event of one process is
//       {"time":...,"pid":4242,"process":"schedd","event":"stopAll"}
//     "time" is seconds since 1970. When a line would take the file past 1 MiB, the file is first
//     renamed to "energy-events.jsonl.1" (replacing the previous one) and a new file is begun;
//     writers take an exclusive flock(2) on the file for the rotation and the append. Missing
//     folders are created with mode 0755, the file with 0644.
//
//   /run/kelo/energy-report.json    written by the power daemon, read by this library.
//     One JSON object; replace it atomically (write a temporary file, then rename it over this
//     one), since a reader that meets a torn file treats it as no report at all:
//       {"BLMBatteryCapacity": 3279,
//        "BLMEnergyReferenceDate": 1763700000,
//        "BLMEnergyForKelo": [
//          {"bundleID": "com.example.app", "updateType": 1, "energy_mWh": 30.9}, ...]}
//     "BLMEnergyReferenceDate" is the instant (seconds since 1970) from which the energy
//     counters run; a different value tells the library that the counters restarted.
//     "energy_mWh" is the energy the application's background work of that update type consumed
//     since the reference date (cumulative: each report repeats and extends the previous one).
//     A missing, unreadable or malformed file, or one whose top level is not an object, is no
//     report. A field of the wrong type is left out (it reads as absent: no capacity, no date,
//     no entries; an entry's bundleID, updateType or energy_mWh as missing); an entry that is
//     not an object reads as an entry with no fields.
#ifndef KELO_PLATFORM_POWERMONITOR_H_
#define KELO_PLATFORM_POWERMONITOR_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "kelo/Overrides.h"
#include "kelo/Value.h"

namespace kelo::platform {

// Sends one event: kind 1 starts, kind 2 stops the background work of `bundleId` (UTF-8; null is
// sent as an empty identifier). Runs on the caller's thread; blocks on at most one file append.
void AXBatteryLifeMonitorLogKeloEvent(const char* bundleId, int16_t type, uint64_t seqNum,
                                      int32_t kind);
// Stops every event this process started. Runs on the caller's thread.
void AXBatteryLifeMonitorStopAllKeloEvents();
// The energy report dictionary, or nullopt when there is none. `selector` is passed through to
// the monitor (the energy service always passes null). Blocks on reading the report file.
std::optional<Value> AXBatteryLifeMonitorReportEnergyKelo(const void* selector);

// The default backend over the two files described above. Thread-safe: appends are serialised
// by a mutex in the process and by flock(2) between processes. Failures are never reported to
// the caller; the first failure of each kind writes one system-log line.
class FilePowerMonitor final : public PowerMonitor {
 public:
  static constexpr std::size_t kDefaultJournalLimit = std::size_t{1} << 20;

  FilePowerMonitor(std::string eventsPath, std::string reportPath,
                   std::size_t journalLimit = kDefaultJournalLimit);

  void logEvent(const char* bundleId, int16_t type, uint64_t seqNum, int32_t kind) override;
  void stopAllEvents() override;
  std::optional<Value> reportEnergy(const void* selector) override;

  // The report dictionary that `fileContent`, read from `fileName`, stands for; nullopt when it
  // is no report. Exposed for the tests of the format.
  static std::optional<Value> reportFromJson(const Value& fileContent);

 private:
  void append(const std::string& line);
  void warnOnce(int which, const char* what, const std::string& path, int err);

  const std::string eventsPath_;
  const std::string reportPath_;
  const std::size_t journalLimit_;
  std::mutex appendMutex_;           // serialises rotation and appends of this process
  std::atomic<unsigned> warned_{0};  // a bit per failure kind already reported
};

}  // namespace kelo::platform

#endif  // KELO_PLATFORM_POWERMONITOR_H_
