// One kelo-powerd: its files under the device root, its state, and one sample at a time.
//
// Files, under the root:
//   run/kelo/energy-events.jsonl (and .1)  read from where the last sample stopped
//   run/kelo/energy-report.json            replaced atomically after each sample (0644)
//   var/lib/kelo/powerd-state.json         replaced atomically after each sample (0644)
// and, with a textfile folder, <folder>/kelo_energy.prom (0644). Missing folders are made 0755.
//
// Failures (a file that cannot be read or written, a malformed journal line) never stop the
// daemon: each is written to `warn` as one line naming the path and the reason, a steady failure
// once until it changes.
#ifndef KELO_TOOLS_KELO_POWERD_POWERDAEMON_H_
#define KELO_TOOLS_KELO_POWERD_POWERDAEMON_H_

#include <cstddef>
#include <functional>
#include <map>
#include <string>

#include "tools/kelo-powerd/Attribution.h"
#include "tools/kelo-powerd/DeviceReader.h"
#include "tools/kelo-powerd/State.h"

namespace kelo::powerd {

// Journal bytes read per sample: two full journals (the library rotates past 1 MiB). A larger
// backlog is read over the following samples.
inline constexpr std::size_t kJournalReadLimit = std::size_t{2} << 20;

struct Settings {
  std::string root = "/";
  double cpuWatts = 10;
  std::string textfileFolder;  // empty: no textfile
  Limits limits;
};

class PowerDaemon {
 public:
  using Warn = std::function<void(const std::string& line)>;

  // `reader` must outlive the daemon. `warn` defaults to standard error.
  PowerDaemon(Settings settings, DeviceReader& reader, Warn warn = {});

  // Continues the epoch of the state file, or begins a new one when the file is missing or
  // cannot be used (that file is then moved aside to ".corrupt"). A new epoch's reference date
  // is `now` in whole seconds, and always later than the one of the report left behind, so
  // that readers of the report see that the counters restarted.
  void open(double now);

  // One sample at `now` (seconds since 1970): reads the journal on, attributes the interval,
  // writes the state, the report and the textfile. True when all of them were written.
  bool sample(double now);

  const State& state() const { return state_; }
  const std::string& statePath() const { return statePath_; }
  const std::string& reportPath() const { return reportPath_; }

 private:
  void beginEpoch(double now);
  bool write(const std::string& path, const std::string& data);
  // Reports `line` under `kind` unless it is the line last reported under it; an empty line
  // clears the kind.
  void report(const std::string& kind, const std::string& line);

  const Settings settings_;
  DeviceReader& reader_;
  const Warn warn_;
  const std::string journalPath_;
  const std::string reportPath_;
  const std::string statePath_;
  const std::string textfilePath_;
  State state_;
  std::map<std::string, std::string> reported_;
};

}  // namespace kelo::powerd

#endif  // KELO_TOOLS_KELO_POWERD_POWERDAEMON_H_
