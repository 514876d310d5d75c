// Making the simulated device: a fresh root with the system bundle, the device facts and a home,
// the operator's configuration changes stored as the preferences override, a daemon of an
// earlier boot, and the second process that posts reports.
#ifndef KELO_TOOLS_KELOSIM_SETUP_H_
#define KELO_TOOLS_KELOSIM_SETUP_H_

#include <string>
#include <utility>
#include <vector>

#include "tools/kelo-sim/Simulation.h"

namespace kelo::sim {

// Clears (or makes) the root, copies the bundle in and checks the kelo tool. False with `error`
// set when the root is not kelo-sim's own or something is missing.
bool prepareRoot(const Options& options, std::string* error);

// Stores `settings` (key, value text) as the "overideConfig" dictionary of the preferences
// domain "com.vorn.Kelo", each key in its group, as an operator's `kelo defaults write` would.
// Call after the library points at the root and before the configurator is created.
bool writeOverride(const std::vector<std::pair<std::string, std::string>>& settings,
                   std::string* error);

// A daemon of an earlier boot: logs a little and exits, leaving its live log behind.
void runPreviousSession();

// Runs a program and waits: true when it exited with status 0.
bool runTool(const std::vector<std::string>& args);

// Polls `done` every millisecond for up to `seconds`.
bool waitFor(const std::function<bool()>& done, double seconds);

}  // namespace kelo::sim

#endif  // KELO_TOOLS_KELOSIM_SETUP_H_
