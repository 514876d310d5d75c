// One table of every benchmark figure beside its peer and its physical limit, all from the same
// run, with the target each ratio is held to. Usage: kelo_bench_report RESULTS_DIR [--markdown]
// where RESULTS_DIR holds the --benchmark_out JSON file of each benchmark binary.
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kelo/Value.h"
#include "platform/Json.h"

namespace {

using kelo::Value;

// A benchmark's name and arguments without the segments that say how it was run
// ("repeats:9", "real_time", "iterations:20000", ...), so rows find it however it is run.
std::string plainName(const std::string& runName) {
  std::string out;
  std::size_t start = 0;
  while (start <= runName.size()) {
    std::size_t end = runName.find('/', start);
    if (end == std::string::npos) end = runName.size();
    const std::string part = runName.substr(start, end - start);
    const bool how = part.find(':') != std::string::npos || part == "real_time" ||
                     part == "process_time" || part == "manual_time";
    if (!how) out += (out.empty() ? "" : "/") + part;
    start = end + 1;
  }
  return out;
}

// The file's text with the NaN and inf values that aggregates of counters can hold (not JSON)
// turned into null.
std::string withoutNonFinite(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return std::regex_replace(ss.str(), std::regex(R"(:\s*-?(NaN|nan|inf|Infinity))"), ": null");
}

// Every entry of every result file, by benchmark name. An aggregate median replaces the single
// runs of the same name.
class Results {
 public:
  explicit Results(const std::string& dir) {
    for (const auto& file : std::filesystem::directory_iterator(dir)) {
      if (file.path().extension() != ".json") continue;
      const Value doc = kelo::platform::parseJson(withoutNonFinite(file.path().string()));
      for (const Value& b : doc.find("benchmarks") ? doc.find("benchmarks")->asArray()
                                                   : Value::Array{}) {
        const Value* runName = b.find("run_name");
        const Value* type = b.find("run_type");
        if (runName == nullptr || type == nullptr) continue;
        const std::string name = plainName(runName->asString());
        if (type->asString() == "aggregate") {
          if (b.find("aggregate_name")->asString() == "median") medians_[name] = b;
        } else if (!firsts_.count(name)) {
          firsts_[name] = b;
        }
      }
    }
  }

  const Value* entry(const std::string& runName) const {
    const std::string name = plainName(runName);
    if (auto it = medians_.find(name); it != medians_.end()) return &it->second;
    if (auto it = firsts_.find(name); it != firsts_.end()) return &it->second;
    return nullptr;
  }

  // Wall-clock time per iteration in nanoseconds.
  std::optional<double> nanos(const std::string& name, const char* field = "real_time") const {
    const Value* e = entry(name);
    if (e == nullptr || e->find(field) == nullptr) return std::nullopt;
    static const std::map<std::string, double> kScale = {
        {"ns", 1.0}, {"us", 1e3}, {"ms", 1e6}, {"s", 1e9}};
    const Value* unit = e->find("time_unit");
    const auto scale = kScale.find(unit ? unit->asString() : "ns");
    return e->find(field)->doubleValue() * (scale == kScale.end() ? 1.0 : scale->second);
  }

  std::optional<double> counter(const std::string& name, const std::string& field) const {
    const Value* e = entry(name);
    if (e == nullptr || e->find(field) == nullptr) return std::nullopt;
    return e->find(field)->doubleValue();
  }

 private:
  std::map<std::string, Value> medians_;
  std::map<std::string, Value> firsts_;
};

struct Row {
  std::string operation;
  std::string ours;
  std::string peer;
  std::string limit;
  std::string ratios;
  std::string target;
  std::optional<bool> holds;  // nullopt: a figure is missing
};

std::string fmt(const char* format, double v) {
  char s[64];
  std::snprintf(s, sizeof s, format, v);
  return s;
}

std::string duration(std::optional<double> ns) {
  if (!ns) return "missing";
  if (*ns >= 1e6) return fmt("%.2f ms", *ns / 1e6);
  if (*ns >= 1e3) return fmt("%.2f us", *ns / 1e3);
  return fmt("%.1f ns", *ns);
}

std::string rate(std::optional<double> ns) {
  if (!ns) return "missing";
  return fmt("%.0f lines/s", 1e9 / *ns);
}

std::vector<Row> buildRows(const Results& r) {
  std::vector<Row> rows;
  auto all = [](std::initializer_list<std::optional<double>> v) {
    for (const auto& x : v) {
      if (!x) return false;
    }
    return true;
  };

  {  // logging front, off
    auto ours = r.nanos("BM_ClogOff");
    auto limit = r.nanos("BM_RelaxedLoadLoop");
    auto formatted = r.counter("BM_ClogOff", "formatted");
    Row row{"KELO_CLOG, logger off", duration(ours), "-", duration(limit) + " (one relaxed load)", "", "",
            {}};
    if (all({ours, limit, formatted})) {
      row.ratios = fmt("%.2fx the load", *ours / *limit);
      row.target = "<= 2x the load, nothing formatted";
      row.holds = *ours <= 2 * *limit && *formatted == 0;
    }
    rows.push_back(row);
  }
  {  // logging front, on
    auto ours = r.nanos("BM_ClogOn");
    auto limit = r.nanos("BM_SnprintfWriteLimit");
    auto peer = r.nanos("BM_SpdlogFlushEveryLine");
    Row row{"KELO_CLOG, detailed logger on", rate(ours), rate(peer) + " (spdlog, flush each line)",
            rate(limit) + " (snprintf + write)", "", "", {}};
    if (all({ours, limit, peer})) {
      row.ratios = fmt("%.2fx the limit's rate, ", *limit / *ours) +
                   fmt("%.2fx the peer's", *peer / *ours);
      row.target = ">= 0.85x the limit, >= the peer";
      row.holds = *limit / *ours >= 0.85 && *peer / *ours >= 1.0;
    }
    rows.push_back(row);
  }
  {  // queue post
    auto ours = r.nanos("BM_QueuePost");
    auto peer = r.nanos("BM_MutexDequePush");
    Row row{"serial queue post", duration(ours), duration(peer) + " (mutex + std::deque push)", "-", "", "",
            {}};
    if (all({ours, peer})) {
      row.ratios = fmt("%.2fx the peer", *ours / *peer);
      row.target = "<= 1x the peer";
      row.holds = *ours <= *peer;
    }
    rows.push_back(row);
  }
  {  // queue post-and-wait, idle
    auto ours = r.nanos("BM_QueueSyncIdle");
    auto limit = r.nanos("BM_MutexPairDirectCall");
    auto naive = r.nanos("BM_CondvarHandoff");
    Row row{"serial queue post-and-wait, idle", duration(ours),
            duration(naive) + " (condition-variable handoff)", duration(limit) + " (mutex pair + call)", "",
            "", {}};
    if (all({ours, limit, naive})) {
      row.ratios = fmt("%.2fx the limit, ", *ours / *limit) + fmt("%.0fx faster than the handoff", *naive / *ours);
      row.target = "<= 2x the limit, >= 10x faster than the handoff";
      row.holds = *ours <= 2 * *limit && *naive >= 10 * *ours;
    }
    rows.push_back(row);
  }
  {  // configuration lookup
    auto ours = r.nanos("BM_GetStateFor_Present");
    auto oursC = r.nanos("BM_GetStateForC_Present");
    auto limit = r.nanos("BM_UnorderedMapFind_Present");
    auto reload = r.nanos("BM_GetStateFor_PresentDuringReload");
    Row row{"configuration lookup, present key",
            duration(ours) + " (C: " + duration(oursC) + "; during reloads: " + duration(reload) + ")", "-",
            duration(limit) + " (std::unordered_map find)", "", "", {}};
    if (all({ours, oursC, limit, reload})) {
      row.ratios = fmt("%.2fx, ", *ours / *limit) + fmt("C %.2fx the map; ", *oursC / *limit) +
                   fmt("reloads slow it %.2fx", *reload / *ours);
      row.target = "<= 1.5x the map; reloads <= 2x";
      row.holds = *ours <= 1.5 * *limit && *oursC <= 1.5 * *limit && *reload <= 2 * *ours;
    }
    rows.push_back(row);
  }
  {  // counter operation
    auto ours = r.nanos("BM_FetchAttemptIncrement");
    auto allocs = r.counter("BM_FetchAttemptIncrement", "allocs/op");
    Row row{"collector counter operation (caller)", duration(ours), "-", "-", "", "", {}};
    if (all({ours, allocs})) {
      // A queue buffer that grows now and then shows as a tiny fraction; a task allocated per
      // operation would show as 1.
      row.ratios = fmt("%.2g heap allocations per operation", *allocs);
      row.target = "<= 150 ns median, no allocation per operation (< 0.001)";
      row.holds = *ours <= 150 && *allocs < 0.001;
    }
    rows.push_back(row);
  }
  {  // refresh at three sizes
    auto a = r.nanos("BM_RefreshAndRead/1000");
    auto b = r.nanos("BM_RefreshAndRead/10000");
    auto c = r.nanos("BM_RefreshAndRead/100000");
    Row row{"energy refresh + readings, 1k / 10k / 100k entries",
            duration(a) + " / " + duration(b) + " / " + duration(c), "-", "-", "", "", {}};
    if (all({a, b, c})) {
      row.ratios = fmt("100k = %.1fx 10k", *c / *b);
      row.target = "linear: 100k <= 12x 10k";
      row.holds = *c <= 12 * *b;
    }
    rows.push_back(row);
  }
  {  // kelo-powerd's own cost per sample
    auto cpu = r.nanos("BM_PowerdSample", "cpu_time");
    auto wall = r.nanos("BM_PowerdSample");
    auto open = r.counter("BM_PowerdSample", "open_intervals");
    Row row{"kelo-powerd sample, 1,000 open intervals in 100 processes",
            duration(cpu) + " CPU (" + duration(wall) + " wall, fsyncs included)", "-",
            "50.00 ms CPU (1% of a core at 5 s)", "", "", {}};
    if (all({cpu, open})) {
      row.ratios = fmt("%.3f%% of a core at a 5 s interval", *cpu / 5e9 * 100);
      row.target = "< 1% of a core at a 5 s interval (< 50 ms CPU per sample)";
      row.holds = *cpu < 50e6 && *open == 1000;
    }
    rows.push_back(row);
  }
  {  // zone evaluations
    auto ours = r.nanos("BM_BothEvaluations");
    Row row{"prediction + prewarm zones, 1,000 apps, busy day", duration(ours), "-", "-", "", "", {}};
    if (ours) {
      row.target = "< 5 ms";
      row.holds = *ours < 5e6;
    }
    rows.push_back(row);
  }
  {  // cross-process report
    auto p50 = r.counter("BM_ReportToHandler", "p50_us");
    auto p99 = r.counter("BM_ReportToHandler", "p99_us");
    auto pipe = r.counter("BM_PipeOneWay", "p50_us");
    Row row{"cross-process report to handler",
            p50 && p99 ? fmt("p50 %.1f us, ", *p50) + fmt("p99 %.1f us", *p99) : "missing", "-",
            pipe ? fmt("%.1f us (pipe one-way p50)", *pipe) : "missing", "", "", {}};
    if (all({p50, p99, pipe})) {
      row.ratios = fmt("p50 %.2fx the pipe, ", *p50 / *pipe) + fmt("p99 %.1fx own p50", *p99 / *p50);
      row.target = "p50 <= 3x the pipe, p99 <= 10x p50";
      row.holds = *p50 <= 3 * *pipe && *p99 <= 10 * *p50;
    }
    rows.push_back(row);
  }
  {  // kelo-sim's day
    auto small = r.nanos("BM_KeloSimDay/2000");
    auto large = r.nanos("BM_KeloSimDay/10000");
    auto seconds = [](std::optional<double> ns) {
      return ns ? fmt("%.2f s", *ns / 1e9) : std::string("missing");
    };
    Row row{"kelo-sim day, 10,000 apps (2,000 apps beside it)", seconds(large),
            seconds(small) + " (2,000 apps)", "-", "", "", {}};
    if (all({small, large})) {
      row.ratios = fmt("%.2fx the 2,000-app day", *large / *small);
      row.target = "< 10 s, <= 5.5x the 2,000-app day";
      row.holds = *large < 10e9 && *large <= 5.5 * *small;
    }
    rows.push_back(row);
  }
  {  // memory of the collector
    auto bytes = r.counter("BM_BothEvaluations", "bytes/app");
    Row row{"collector memory after a busy day, per app",
            bytes ? fmt("%.0f bytes", *bytes) : "missing", "-", "768 bytes (2 x 96 x 4 masks)", "",
            "", {}};
    if (bytes) {
      row.ratios = fmt("%.2fx the masks", *bytes / 768.0);
      row.target = "<= 2 x 96 x 4 bytes";
      row.holds = *bytes <= 768;
    }
    rows.push_back(row);
  }
  return rows;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: kelo_bench_report RESULTS_DIR [--markdown]\n");
    return 2;
  }
  const bool markdown = argc > 2 && std::string(argv[2]) == "--markdown";
  const Results results(argv[1]);
  const std::vector<Row> rows = buildRows(results);
  int failed = 0;
  if (markdown) {
    std::printf("| Operation | Ours | Peer | Limit | Ratios | Target | Holds |\n");
    std::printf("|---|---|---|---|---|---|---|\n");
  }
  for (const Row& row : rows) {
    const char* verdict = !row.holds ? "MISSING" : *row.holds ? "yes" : "NO";
    if (!row.holds || !*row.holds) ++failed;
    if (markdown) {
      std::printf("| %s | %s | %s | %s | %s | %s | %s |\n", row.operation.c_str(),
                  row.ours.c_str(), row.peer.c_str(), row.limit.c_str(), row.ratios.c_str(),
                  row.target.c_str(), verdict);
    } else {
      std::printf("%s\n  ours:   %s\n  peer:   %s\n  limit:  %s\n  ratios: %s\n  target: %s -> %s\n\n",
                  row.operation.c_str(), row.ours.c_str(), row.peer.c_str(), row.limit.c_str(),
                  row.ratios.c_str(), row.target.c_str(), verdict);
    }
  }
  std::printf("%s%zu of %zu targets hold\n", markdown ? "\n" : "", rows.size() - failed,
              rows.size());
  return failed == 0 ? 0 : 1;
}
