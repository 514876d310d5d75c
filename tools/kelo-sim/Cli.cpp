#include "tools/kelo-sim/Cli.h"

#ifndef KELO_VERSION
#define KELO_VERSION "0"
#endif

namespace kelo::sim {

void defineOptions(CLI::App& app, CommandLine& line) {
  Options& options = line.options;
  app.name("kelo-sim");
  app.description(
      "kelo-sim: replays a simulated day of a background-scheduling daemon against "
      "KeloAXLConfigLogger (configuration, logging, energy accounting, statistics) in a fresh "
      "device root, then prints what happened. The daemon's decisions follow the configuration "
      "it is served; --set and --sweep change it as an operator's override would.\n"
      "Exit codes: 0 done, 1 failed, 2 usage error.");
  app.set_version_flag("--version", std::string("kelo-sim ") + KELO_VERSION);
  app.add_option("--apps", options.apps, "number of applications on the device (1 to 10000)")
      ->check(CLI::Range(1, 10000))
      ->capture_default_str();
  app.add_option("--seed", options.seed, "seed of the reproducible day")->capture_default_str();
  app.add_option("--root", options.root,
                 "folder for the device root and home, made fresh; an existing one must be empty "
                 "or from an earlier kelo-sim run (default: $XDG_STATE_HOME/kelo-sim/root, else "
                 "~/.local/state/kelo-sim/root)")
      ->type_name("DIR");
  app.add_option("--bundle", options.bundleSource,
                 "the system configuration bundle to install (default: the one installed beside "
                 "kelo-sim, <prefix>/share/kelo/KeloConfiguration.bundle)")
      ->type_name("DIR");
  app.add_option("--kelo", options.keloTool,
                 "the kelo tool, run as the second process (default: the kelo beside kelo-sim)")
      ->type_name("FILE");
  app.add_option("--reports", options.reports,
                 "background-download reports the second process posts (0 to 100)")
      ->check(CLI::Range(0, 100))
      ->capture_default_str();
  app.add_option("--set", line.sets,
                 "run the day with this configuration key changed, stored as the preferences "
                 "override (repeatable)")
      ->type_name("KEY=VALUE");
  app.add_option("--sweep", line.sweep,
                 "one day per value on the same seed, then a table of energy per category, "
                 "denials by reason, prewarm hit rate and prediction zone shares")
      ->type_name("KEY=V1,V2,...");
  app.add_option("--plot", line.plot,
                 "write an SVG plot: the swept outcomes against the values, or a single day's "
                 "energy and launches per hour")
      ->type_name("FILE.svg");
  app.add_flag("--json", line.json, "print the summary as JSON");
}

}  // namespace kelo::sim
