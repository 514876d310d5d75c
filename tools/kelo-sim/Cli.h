// The command line of kelo-sim: every option is defined here once, for the parser and for the
// manual page and shell completion generated from the same definitions.
#ifndef KELO_TOOLS_KELOSIM_CLI_H_
#define KELO_TOOLS_KELOSIM_CLI_H_

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "tools/kelo-sim/Simulation.h"

namespace kelo::sim {

struct CommandLine {
  Options options;  // with the defaults filled in before defineOptions
  bool json = false;
  std::vector<std::string> sets;
  std::string sweep;
  std::string plot;
};

// Defines every option on `app`, bound to `line`.
void defineOptions(CLI::App& app, CommandLine& line);

}  // namespace kelo::sim

#endif  // KELO_TOOLS_KELOSIM_CLI_H_
