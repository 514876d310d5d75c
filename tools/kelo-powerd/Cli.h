// The command line of kelo-powerd. Every option is defined here once, with its value name,
// description and default, and the --help manual page is generated from those definitions (so
// can a man page or a shell completion be).
#ifndef KELO_TOOLS_KELO_POWERD_CLI_H_
#define KELO_TOOLS_KELO_POWERD_CLI_H_

#include <CLI/CLI.hpp>
#include <string>

namespace kelo::powerd {

struct Options {
  std::string root = "/";
  double interval = 5;
  bool once = false;
  double cpuWatts = 10;
  std::string textfile;
};

// Defines the options on `app`, bound to `options`, and makes --help print the manual page.
void defineOptions(CLI::App& app, Options& options);

// Exit statuses, as the manual page states them.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

}  // namespace kelo::powerd

#endif  // KELO_TOOLS_KELO_POWERD_CLI_H_
