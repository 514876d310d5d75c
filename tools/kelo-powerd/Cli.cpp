#include "tools/kelo-powerd/Cli.h"

#include <algorithm>
#include <memory>
#include <sstream>
#include <vector>

namespace kelo::powerd {

namespace {

constexpr std::size_t kWidth = 80;
constexpr std::size_t kIndent = 7;
constexpr std::size_t kOptionIndent = 14;

constexpr const char* kName =
    "kelo-powerd - attribute the energy of announced background work and write the energy report";

// Paragraphs, separated by empty strings.
constexpr const char* kDescription[] = {
    "kelo-powerd is the power monitor of KeloAXLConfigLogger on Linux. Daemons that use the "
    "library announce their background work with energyStartLogging and energyStopLogging; the "
    "library appends these events to an event journal. At every interval kelo-powerd measures "
    "the energy used, shares it among the processes that announced work by their CPU time, gives "
    "each process's share in equal parts to the (bundle identifier, update type) pairs it had "
    "open at any moment of the interval, and writes the cumulative amounts to the energy report "
    "that the library's energyConsumedRefresh reads.",
    "",
    "With readable powercap package domains (RAPL), the energy of an interval is their increase, "
    "shared by each process's part of the machine's busy CPU time. Without them a process's "
    "energy is its CPU time multiplied by --cpu-watts. The report names the model it used.",
    "",
    "Amounts are milliwatt-hours (1 mWh = 3.6 J), cumulative since the reference date that starts "
    "the counter epoch. The state file carries the epoch over restarts; without it a new epoch "
    "begins with a new reference date, which the library takes as a reset of the counters.",
};

struct Entry {
  const char* term;
  const char* text;
};

constexpr Entry kFiles[] = {
    {"/run/kelo/energy-events.jsonl, /run/kelo/energy-events.jsonl.1",
     "The event journal the library appends to; read on from where the last sample stopped."},
    {"/run/kelo/energy-report.json", "The energy report, replaced atomically after each sample."},
    {"/var/lib/kelo/powerd-state.json",
     "The epoch: reference date, last counter readings, open intervals, journal position and "
     "totals. Replaced atomically after each sample; a corrupt one is moved to .corrupt."},
    {"/sys/class/powercap/*/energy_uj, /proc/stat, /proc/uptime, /proc/PID/stat, "
     "/sys/class/power_supply/*",
     "What is measured."},
    {"DIR/kelo_energy.prom", "With --textfile: the totals for node_exporter's textfile collector."},
};

constexpr Entry kExitStatus[] = {
    {"0",
     "--once took its sample and wrote every file, or the daemon was stopped by SIGTERM or "
     "SIGINT."},
    {"1", "--once could not write the state, the report or the textfile."},
    {"2", "Usage error."},
};

// Joins words that a line break must not separate (an option and its value name).
constexpr char kGlue = '\x1f';

// `text` wrapped to the page width, each line indented by `indent`; the first line starts at
// column `column` when the caller has already written up to there.
std::string wrapped(const std::string& text, std::size_t indent, std::size_t column = 0) {
  std::istringstream words(text);
  std::string out;
  std::string line;
  std::size_t start = std::max(indent, column);
  for (std::string word; words >> word;) {
    if (!line.empty() && start + line.size() + 1 + word.size() > kWidth) {
      out += std::string(start - column, ' ') + line + "\n";
      line.clear();
      start = indent;
      column = 0;
    }
    line += (line.empty() ? "" : " ") + word;
  }
  if (!line.empty()) out += std::string(start - column, ' ') + line + "\n";
  std::replace(out.begin(), out.end(), kGlue, ' ');
  return out;
}

// A term and its text, the text beside a term short enough to leave room, else below it.
std::string entry(const std::string& term, const std::string& text) {
  if (kIndent + term.size() + 1 < kOptionIndent) {
    return std::string(kIndent, ' ') + term + wrapped(text, kOptionIndent, kIndent + term.size());
  }
  return wrapped(term, kIndent) + wrapped(text, kOptionIndent);
}

// "--root DIR", "--once", "-h, --help".
std::string optionTerm(const CLI::Option* option) {
  std::string term;
  for (const std::string& name : option->get_snames()) term += (term.empty() ? "-" : ", -") + name;
  for (const std::string& name : option->get_lnames())
    term += (term.empty() ? "--" : ", --") + name;
  // The type name carries the validators' descriptions after a colon; the page states those.
  const std::string type = option->get_type_name();
  if (option->get_type_size() != 0 && !type.empty() && type[0] != ':') {
    term += kGlue + type.substr(0, type.find(':'));
  }
  return term;
}

class ManualPage : public CLI::Formatter {
 public:
  std::string make_help(const CLI::App* app, std::string, CLI::AppFormatMode) const override {
    const std::vector<const CLI::Option*> options =
        app->get_options([](const CLI::Option*) { return true; });
    std::string page = "NAME\n" + wrapped(kName, kIndent) + "\nSYNOPSIS\n";
    std::string synopsis = app->get_name();
    for (const CLI::Option* option : options) {
      if (option != app->get_help_ptr()) synopsis += " [" + optionTerm(option) + "]";
    }
    page += wrapped(synopsis, kIndent) + "\nDESCRIPTION\n";
    for (const char* paragraph : kDescription) {
      page += *paragraph == '\0' ? "\n" : wrapped(paragraph, kIndent);
    }
    page += "\nOPTIONS\n";
    for (const CLI::Option* option : options) {
      std::string text = option->get_description();
      if (!option->get_default_str().empty())
        text += " Default: " + option->get_default_str() + ".";
      page += entry(optionTerm(option), text);
    }
    page += "\nFILES\n       Every path is resolved under the device root (--root).\n";
    for (const Entry& e : kFiles) page += entry(e.term, e.text);
    page += "\nEXIT STATUS\n";
    for (const Entry& e : kExitStatus) page += entry(e.term, e.text);
    return page;
  }
};

}  // namespace

void defineOptions(CLI::App& app, Options& options) {
  app.formatter(std::make_shared<ManualPage>());
  app.set_help_flag("-h,--help", "Print this manual page and exit.");
  app.add_option("--root", options.root,
                 "Device root under which every path is resolved, as the library resolves its own.")
      ->type_name("DIR")
      ->check(CLI::ExistingDirectory)
      ->capture_default_str();
  app.add_option("--interval", options.interval, "Seconds between two samples.")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.1, 86400.0))
      ->capture_default_str();
  app.add_flag("--once", options.once,
               "Take one sample, update the state and the report, and exit. Two runs measure the "
               "interval between them.");
  app.add_option("--cpu-watts", options.cpuWatts,
                 "Power of one busy CPU, for the model used without readable package domains.")
      ->type_name("WATTS")
      ->check(CLI::Range(0.0, 1000.0))
      ->capture_default_str();
  app.add_option("--textfile", options.textfile,
                 "Folder of node_exporter's textfile collector: after each sample, write "
                 "kelo_energy.prom there (counters kelo_energy_mwh_total{bundle_id,update_type}, "
                 "gauge kelo_battery_capacity_mwh).")
      ->type_name("DIR")
      ->check(CLI::ExistingDirectory);
}

}  // namespace kelo::powerd
