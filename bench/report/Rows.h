// The rows of the benchmark table: each measured operation beside its peer and its limit from
// the same run, the ratios, the target and whether it holds.
#ifndef KELO_BENCH_REPORT_ROWS_H_
#define KELO_BENCH_REPORT_ROWS_H_

#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "bench/report/Results.h"

namespace kelo::bench {

struct Row {
  std::string operation;
  std::string ours;
  std::string peer;
  std::string limit;
  std::string ratios;
  std::string target;
  std::optional<bool> holds;  // nullopt: a figure is missing
};

inline bool allPresent(std::initializer_list<std::optional<double>> figures) {
  for (const auto& f : figures) {
    if (!f) return false;
  }
  return true;
}

// The rows of the library's hot paths (loggers, queue, lookup, counters, energy, zones, report).
void addHotPathRows(const Results& r, std::vector<Row>& rows);
// The rows of whole operations at a fleet's sizes (reload, upload, start-up, the daemons).
void addScaleRows(const Results& r, std::vector<Row>& rows);

}  // namespace kelo::bench

#endif  // KELO_BENCH_REPORT_ROWS_H_
