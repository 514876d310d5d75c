// The benchmarks' JSON results, read back: each figure by benchmark name, whichever way the
// benchmark was run, and the helpers that format figures for the table.
#ifndef KELO_BENCH_REPORT_RESULTS_H_
#define KELO_BENCH_REPORT_RESULTS_H_

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kelo/Value.h"

namespace kelo::bench {

// Every entry of every result file in a folder, by benchmark name. An aggregate median replaces
// the single runs of the same name; the single runs stay available one by one.
class Results {
 public:
  explicit Results(const std::string& dir);

  // The median of the name's repetitions, else its first run; null when absent.
  const Value* entry(const std::string& runName) const;

  // Time per iteration in nanoseconds: `field` is "real_time" or "cpu_time".
  std::optional<double> nanos(const std::string& name, const char* field = "real_time") const;
  std::optional<double> counter(const std::string& name, const std::string& field) const;

  // Time per iteration of each single run (each repetition), in the order the runs were made.
  std::vector<double> runNanos(const std::string& name, const char* field = "real_time") const;

 private:
  std::map<std::string, Value> medians_;
  std::map<std::string, std::vector<Value>> runs_;
};

// Nanoseconds per iteration of a result entry, from its time and its time unit.
std::optional<double> entryNanos(const Value& entry, const char* field);

std::string fmt(const char* format, double v);
// "12.3 ns", "4.56 us", "7.89 ms" or "1.23 s"; "missing" for no figure.
std::string duration(std::optional<double> ns);
// Lines per second of one line every `ns` nanoseconds.
std::string rate(std::optional<double> ns);

}  // namespace kelo::bench

#endif  // KELO_BENCH_REPORT_RESULTS_H_
