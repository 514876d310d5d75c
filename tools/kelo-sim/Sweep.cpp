#include "tools/kelo-sim/Sweep.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>

#include "platform/Json.h"
#include "tools/common/KeyNames.h"
#include "tools/common/ReplaceFile.h"
#include "tools/kelo-sim/Plot.h"
#include "tools/kelo-sim/Setup.h"

extern char** environ;

namespace kelo::sim {

namespace {

constexpr std::array<const char*, 9> kZones = {"Neg2HR", "Neg1HR", "Neg30M", "Neg15M", "Pos15M",
                                               "Pos30M", "Pos1HR", "Pos2HR", "None"};

// Runs a program and returns its standard output; nullopt unless it exited with status 0.
std::optional<std::string> capture(const std::vector<std::string>& args) {
  int fds[2];
  if (pipe(fds) != 0) return std::nullopt;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, fds[0]);
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = 0;
  const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(fds[1]);
  std::string out;
  char buffer[65536];
  ssize_t n = 0;
  while (spawned == 0 && (n = read(fds[0], buffer, sizeof buffer)) != 0) {
    if (n > 0)
      out.append(buffer, static_cast<std::size_t>(n));
    else if (errno != EINTR)
      break;
  }
  close(fds[0]);
  if (spawned != 0) return std::nullopt;
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    return std::nullopt;
  }
  return out;
}

int64_t integerAt(const Value& v, std::initializer_list<const char*> path) {
  const Value* at = &v;
  for (const char* key : path) {
    at = at->find(key);
    if (at == nullptr) return 0;
  }
  return at->integerValue();
}

double hitRateOf(const Value& day) {
  const Value* zones = day.find("zones");
  const Value* rate = zones != nullptr ? zones->find("hitRate") : nullptr;
  return rate != nullptr ? rate->doubleValue() : 0.0;
}

// Shares (percent) of the prediction zone counts.
std::array<double, 9> zoneShares(const Value& day) {
  std::array<double, 9> shares{};
  double total = 0;
  for (std::size_t z = 0; z < kZones.size(); ++z) {
    shares[z] = static_cast<double>(integerAt(day, {"zones", "prediction", kZones[z]}));
    total += shares[z];
  }
  for (double& s : shares) s = total > 0 ? 100.0 * s / total : 0.0;
  return shares;
}

void printTable(const SweepPlan& plan, const std::vector<Value>& days) {
  std::printf("Sweep of %s over %zu values (same seed each day)\n\n", plan.key.c_str(),
              days.size());
  std::printf("%-12s  %-33s  %-27s  %-20s\n", "", "energy read back (mWh)",
              "fetch denials by reason", "push denials");
  std::printf("%-12s  %7s %7s %8s %8s  %6s %6s %6s %6s  %6s %6s %6s\n",
              plan.key.substr(0, 12).c_str(), "fetch", "push", "bg dl", "non-disc", "data",
              "energy", "signal", "busy", "data", "energy", "signal");
  for (std::size_t i = 0; i < days.size(); ++i) {
    const Value& d = days[i];
    std::printf("%-12s  %7lld %7lld %8lld %8lld  %6lld %6lld %6lld %6lld  %6lld %6lld %6lld\n",
                plan.values[i].c_str(), (long long)integerAt(d, {"energy", "fetch"}),
                (long long)integerAt(d, {"energy", "push"}),
                (long long)integerAt(d, {"energy", "backgroundDownload"}),
                (long long)integerAt(d, {"energy", "nonDiscretionary"}),
                (long long)integerAt(d, {"fetch", "deniedDataBudget"}),
                (long long)integerAt(d, {"fetch", "deniedEnergyBudget"}),
                (long long)integerAt(d, {"fetch", "deniedPoorSignal"}),
                (long long)integerAt(d, {"fetch", "deniedTooManyFetches"}),
                (long long)integerAt(d, {"push", "deniedDataBudget"}),
                (long long)integerAt(d, {"push", "deniedEnergyBudget"}),
                (long long)integerAt(d, {"push", "deniedPoorSignal"}));
  }
  std::printf("\n%-12s  %8s  prediction zone shares (%% of launch slots)\n", "", "prewarm");
  std::printf("%-12s  %8s ", plan.key.substr(0, 12).c_str(), "hit rate");
  for (const char* z : kZones) std::printf(" %6s", z);
  std::printf("\n");
  for (std::size_t i = 0; i < days.size(); ++i) {
    std::printf("%-12s  %7.1f%% ", plan.values[i].c_str(), 100.0 * hitRateOf(days[i]));
    for (double s : zoneShares(days[i])) std::printf(" %5.1f%%", s);
    std::printf("\n");
  }
  std::printf("\n(busy: maxFetchApps fetches already under way)\n");
}

}  // namespace

bool parseSweep(const std::string& text, SweepPlan* plan, std::string* error) {
  const std::size_t eq = text.find('=');
  if (eq == std::string::npos || eq == 0 || eq + 1 == text.size()) {
    *error = "\"" + text + "\" is not KEY=V1,V2,...";
    return false;
  }
  plan->key = text.substr(0, eq);
  std::size_t start = eq + 1;
  while (start <= text.size()) {
    std::size_t comma = text.find(',', start);
    if (comma == std::string::npos) comma = text.size();
    plan->values.push_back(text.substr(start, comma - start));
    start = comma + 1;
  }
  for (const std::string& v : plan->values) {
    *error = tools::checkSetting(plan->key, tools::parseSetting(v));
    if (!error->empty()) return false;
  }
  return true;
}

int runSweep(const Options& options, const SweepPlan& plan, bool json, const std::string& plot) {
  std::string error;
  // The root holds one folder per value; it is claimed (and cleared) like a single day's.
  Options claim = options;
  if (!prepareRoot(claim, &error)) {
    std::fprintf(stderr, "kelo-sim: %s\n", error.c_str());
    return 1;
  }
  std::vector<Value> days;
  for (std::size_t i = 0; i < plan.values.size(); ++i) {
    std::fprintf(stderr, "kelo-sim: day %zu of %zu, %s=%s\n", i + 1, plan.values.size(),
                 plan.key.c_str(), plan.values[i].c_str());
    std::vector<std::string> args = {
        "/proc/self/exe", "--json",
        "--apps",         std::to_string(options.apps),
        "--seed",         std::to_string(options.seed),
        "--root",         options.root + "/value-" + std::to_string(i + 1),
        "--bundle",       options.bundleSource,
        "--kelo",         options.keloTool,
        "--reports",      std::to_string(options.reports)};
    for (const auto& [key, value] : options.settings) {
      args.insert(args.end(), {"--set", key + "=" + value});
    }
    args.insert(args.end(), {"--set", plan.key + "=" + plan.values[i]});
    const std::optional<std::string> out = capture(args);
    if (!out) {
      std::fprintf(stderr, "kelo-sim: the day with %s=%s failed\n", plan.key.c_str(),
                   plan.values[i].c_str());
      return 1;
    }
    days.push_back(platform::parseJson(*out));
  }
  if (json) {
    Value::Array values;
    for (const std::string& v : plan.values) values.push_back(Value::string(v));
    std::printf("%s\n", platform::toJson(Value::dictionary({{"key", Value::string(plan.key)},
                                                            {"values", Value::array(values)},
                                                            {"days", Value::array(days)}}),
                                         true)
                            .c_str());
  } else {
    printTable(plan, days);
  }
  if (!plot.empty()) {
    Panel energy{"energy read back (mWh)", {{"fetch", {}}, {"push", {}}}};
    Panel denials{"denials (attempts)", {{"fetch", {}}, {"push", {}}}};
    Panel rates{"prewarm hit rate and launches in Neg15M/Pos15M (%)",
                {{"hit rate", {}}, {"within 15 min", {}}}};
    for (const Value& d : days) {
      energy.series[0].y.push_back(static_cast<double>(integerAt(d, {"energy", "fetch"})));
      energy.series[1].y.push_back(static_cast<double>(integerAt(d, {"energy", "push"})));
      denials.series[0].y.push_back(static_cast<double>(integerAt(d, {"fetch", "denied"})));
      denials.series[1].y.push_back(static_cast<double>(integerAt(d, {"push", "denied"})));
      const std::array<double, 9> shares = zoneShares(d);
      rates.series[0].y.push_back(100.0 * hitRateOf(d));
      rates.series[1].y.push_back(shares[3] + shares[4]);
    }
    const std::string svg =
        svgChart("kelo-sim: " + plan.key + " swept", plan.values, {energy, denials, rates});
    if (!tools::replaceFile(plot, svg, &error)) {
      std::fprintf(stderr, "kelo-sim: %s\n", error.c_str());
      return 1;
    }
  }
  return 0;
}

bool writeDayPlot(const Result& result, const std::string& path, std::string* error) {
  std::vector<std::string> hours;
  Panel energy{"energy read back in the hour, every category (mWh)", {{"energy", {}}}};
  Panel launches{"launches in the hour", {{"launches", {}}}};
  for (std::size_t h = 0; h < result.energyByHour.size(); ++h) {
    char label[32];
    std::snprintf(label, sizeof label, "%02zu:00", h);
    hours.emplace_back(label);
    energy.series[0].y.push_back(static_cast<double>(result.energyByHour[h]));
    launches.series[0].y.push_back(result.launchesByHour[h]);
  }
  return tools::replaceFile(
      path, svgChart("kelo-sim: one day, per hour", hours, {energy, launches}), error);
}

}  // namespace kelo::sim
