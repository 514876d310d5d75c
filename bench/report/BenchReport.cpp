// One table of every benchmark figure beside its peer and its physical limit, all from the same
// run, with the target each ratio is held to. Usage: kelo_bench_report RESULTS_DIR [--markdown]
// where RESULTS_DIR holds the --benchmark_out JSON file of each benchmark binary.
#include <cstdio>
#include <string>
#include <vector>

#include "bench/report/Results.h"
#include "bench/report/Rows.h"

int main(int argc, char** argv) {
  using kelo::bench::Row;
  if (argc < 2) {
    std::fprintf(stderr, "usage: kelo_bench_report RESULTS_DIR [--markdown]\n");
    return 2;
  }
  const bool markdown = argc > 2 && std::string(argv[2]) == "--markdown";
  const kelo::bench::Results results(argv[1]);
  std::vector<Row> rows;
  kelo::bench::addHotPathRows(results, rows);
  kelo::bench::addScaleRows(results, rows);
  int failed = 0;
  if (markdown) {
    std::printf("| Operation | Ours | Peer | Limit | Ratios | Target | Holds |\n");
    std::printf("|---|---|---|---|---|---|---|\n");
  }
  for (const Row& row : rows) {
    const char* verdict = !row.holds ? "MISSING" : *row.holds ? "yes" : "NO";
    if (!row.holds || !*row.holds) ++failed;
    if (markdown) {
      std::printf("| %s | %s | %s | %s | %s | %s | %s |\n", row.operation.c_str(), row.ours.c_str(),
                  row.peer.c_str(), row.limit.c_str(), row.ratios.c_str(), row.target.c_str(),
                  verdict);
    } else {
      std::printf(
          "%s\n  ours:   %s\n  peer:   %s\n  limit:  %s\n  ratios: %s\n  target: %s -> %s\n\n",
          row.operation.c_str(), row.ours.c_str(), row.peer.c_str(), row.limit.c_str(),
          row.ratios.c_str(), row.target.c_str(), verdict);
    }
  }
  std::printf("%s%zu of %zu targets hold\n", markdown ? "\n" : "", rows.size() - failed,
              rows.size());
  return failed == 0 ? 0 : 1;
}
