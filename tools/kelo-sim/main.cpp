// kelo-sim: a simulated day of a background-scheduling daemon, driving every service of the
// library end to end in a fresh device root, then a summary of what happened. Changes to the
// configuration (--set) and sweeps over one key's values (--sweep) answer tuning questions.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "platform/PackageData.h"
#include "tools/common/Files.h"
#include "tools/common/KeyNames.h"
#include "tools/kelo-sim/Cli.h"
#include "tools/kelo-sim/Progress.h"
#include "tools/kelo-sim/Simulation.h"
#include "tools/kelo-sim/Summary.h"
#include "tools/kelo-sim/Sweep.h"

namespace {

constexpr int kExitUsage = 2;

// A fresh folder of kelo-sim's own under the user's state folder, never beside the binary.
std::string defaultRoot() {
  const char* state = std::getenv("XDG_STATE_HOME");
  if (state != nullptr && state[0] == '/') return std::string(state) + "/kelo-sim/root";
  const char* home = std::getenv("HOME");
  return std::string(home != nullptr && home[0] != '\0' ? home : ".") +
         "/.local/state/kelo-sim/root";
}

// "KEY=VALUE" split, with the key checked against the configuration's keys.
bool splitSetting(const std::string& text, std::pair<std::string, std::string>* out,
                  std::string* error) {
  const std::size_t eq = text.find('=');
  if (eq == std::string::npos || eq == 0) {
    *error = "\"" + text + "\" is not KEY=VALUE";
    return false;
  }
  out->first = text.substr(0, eq);
  out->second = text.substr(eq + 1);
  *error = kelo::tools::checkSetting(out->first, kelo::tools::parseSetting(out->second));
  return error->empty();
}

}  // namespace

int main(int argc, char** argv) {
  kelo::sim::CommandLine line;
  kelo::sim::Options& options = line.options;
  const std::string here = kelo::tools::executableDirectory();
  options.root = defaultRoot();
  // The bundle installed with this kelo-sim (<bindir>/../share/kelo), else the package's.
  options.bundleSource = here + "/" + KELO_BINDIR_TO_DATADIR + "/KeloConfiguration.bundle";
  if (!std::filesystem::exists(options.bundleSource + "/Info.json")) {
    options.bundleSource = kelo::platform::packageDataPath("KeloConfiguration.bundle");
  }
  // Installed, kelo is beside kelo-sim; in a build tree, in its own folder.
  options.keloTool = here + "/kelo";
  if (!std::filesystem::exists(options.keloTool)) options.keloTool = here + "/../kelo/kelo";

  CLI::App app;
  kelo::sim::defineOptions(app, line);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    return kExitUsage;
  }
  const bool json = line.json;
  const std::string& sweep = line.sweep;
  const std::string& plot = line.plot;

  std::string error;
  for (const std::string& s : line.sets) {
    std::pair<std::string, std::string> setting;
    if (!splitSetting(s, &setting, &error)) {
      std::fprintf(stderr, "kelo-sim: --set: %s\n", error.c_str());
      return kExitUsage;
    }
    options.settings.push_back(setting);
  }
  kelo::sim::SweepPlan plan;
  if (!sweep.empty() && !kelo::sim::parseSweep(sweep, &plan, &error)) {
    std::fprintf(stderr, "kelo-sim: --sweep: %s\n", error.c_str());
    return kExitUsage;
  }
  if (options.bundleSource.empty()) {
    std::fprintf(stderr,
                 "kelo-sim: no configuration bundle installed beside this kelo-sim (share/kelo); "
                 "give one with --bundle\n");
    return 1;
  }
  options.root = std::filesystem::absolute(options.root).lexically_normal().string();
  options.keloTool = std::filesystem::absolute(options.keloTool).lexically_normal().string();

  if (!sweep.empty()) return kelo::sim::runSweep(options, plan, json, plot);

  kelo::sim::Progress progress(!json);
  kelo::sim::Result result;
  const bool ok = kelo::sim::runSimulation(
      options, [&progress](double f) { progress.update(f); }, &result, &error);
  progress.finish();
  if (!ok) {
    std::fprintf(stderr, "kelo-sim: %s\n", error.c_str());
    return 1;
  }
  if (!plot.empty() && !kelo::sim::writeDayPlot(result, plot, &error)) {
    std::fprintf(stderr, "kelo-sim: %s\n", error.c_str());
    return 1;
  }
  const std::string out = json ? kelo::sim::jsonSummary(result) : kelo::sim::textSummary(result);
  std::fwrite(out.data(), 1, out.size(), stdout);
  return 0;
}
