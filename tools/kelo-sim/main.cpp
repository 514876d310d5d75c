// kelo-sim: a simulated day of a background-scheduling daemon, driving every service of the
// library end to end in a fresh device root, then a summary of what happened.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <string>

#include "tools/common/Files.h"
#include "tools/kelo-sim/Progress.h"
#include "tools/kelo-sim/Simulation.h"
#include "tools/kelo-sim/Summary.h"

namespace {

std::string defaultBundle() {
  const std::string source = std::string(KELO_SOURCE_DATA_DIR) + "/KeloConfiguration.bundle";
  if (std::filesystem::exists(source + "/Info.json")) return source;
  return std::string(KELO_INSTALLED_DATA_DIR) + "/KeloConfiguration.bundle";
}

}  // namespace

int main(int argc, char** argv) {
  kelo::sim::Options options;
  const std::string here = kelo::tools::executableDirectory();
  options.root = here + "/kelo-sim-root";
  options.bundleSource = defaultBundle();
  options.keloTool = here + "/../kelo/kelo";
  if (!std::filesystem::exists(options.keloTool)) options.keloTool = here + "/kelo";
  bool json = false;

  CLI::App app{
      "kelo-sim: replays a simulated day of a background-scheduling daemon against "
      "KeloAXLConfigLogger (configuration, logging, energy accounting, statistics) in a fresh "
      "device root, then prints what happened."};
  app.add_option("--apps", options.apps, "number of applications on the device")
      ->check(CLI::Range(1, 2000))
      ->capture_default_str();
  app.add_option("--seed", options.seed, "seed of the reproducible day")->capture_default_str();
  app.add_option("--root", options.root,
                 "folder for the device root and home (made fresh; an existing one must be "
                 "empty or from an earlier kelo-sim run)")
      ->capture_default_str();
  app.add_option("--bundle", options.bundleSource, "the system configuration bundle to install")
      ->capture_default_str();
  app.add_option("--kelo", options.keloTool, "the kelo tool, run as the second process")
      ->capture_default_str();
  app.add_option("--reports", options.reports,
                 "background-download reports the second process posts")
      ->check(CLI::Range(0, 100))
      ->capture_default_str();
  app.add_flag("--json", json, "print the summary as JSON");
  CLI11_PARSE(app, argc, argv);

  options.root = std::filesystem::absolute(options.root).lexically_normal().string();
  options.keloTool = std::filesystem::absolute(options.keloTool).lexically_normal().string();

  kelo::sim::Progress progress(!json);
  kelo::sim::Result result;
  std::string error;
  const bool ok = kelo::sim::runSimulation(
      options, [&progress](double f) { progress.update(f); }, &result, &error);
  progress.finish();
  if (!ok) {
    std::fprintf(stderr, "kelo-sim: %s\n", error.c_str());
    return 1;
  }
  const std::string out = json ? kelo::sim::jsonSummary(result) : kelo::sim::textSummary(result);
  std::fwrite(out.data(), 1, out.size(), stdout);
  return 0;
}
