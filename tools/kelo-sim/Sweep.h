// Tuning questions: one simulated day per value of a configuration key, on the same seed, with
// a table of the outcomes; and the plots of a sweep or of a single day.
#ifndef KELO_TOOLS_KELOSIM_SWEEP_H_
#define KELO_TOOLS_KELOSIM_SWEEP_H_

#include <string>
#include <vector>

#include "tools/kelo-sim/Simulation.h"

namespace kelo::sim {

struct SweepPlan {
  std::string key;
  std::vector<std::string> values;
};

// Parses "KEY=V1,V2,...", checking the key and each value. False with `error` set.
bool parseSweep(const std::string& text, SweepPlan* plan, std::string* error);

// Runs one day per value, each in a folder of its own under the root, by running this
// executable again with --set KEY=V. Prints the table (or JSON) and writes the plot when
// `plot` is not empty. Returns the exit code.
int runSweep(const Options& options, const SweepPlan& plan, bool json, const std::string& plot);

// An SVG of the day's energy read back and launches, per hour.
bool writeDayPlot(const Result& result, const std::string& path, std::string* error);

}  // namespace kelo::sim

#endif  // KELO_TOOLS_KELOSIM_SWEEP_H_
