// The aggregate-metrics service: scalar keys that are set or added to.
//
// Both operations go to the installed MetricsSink when one is installed, else to the default
// store, a SQLite database at metricsDatabasePath(). There every operation is one atomic UPSERT
// that is durable when the call returns (synchronous FULL). A database locked by another process
// is waited for (busy timeout); an operation that still cannot be written (busy past the timeout,
// disk full) is kept in memory and written, in order, before the next operation or by a retry a
// moment later, so no value is lost while the process lives. One system-log line reports each
// such failure episode.
//
// Thread-safe; callers block for the statement (and for a locked database, up to the timeout).
// Nothing throws.
#ifndef KELO_PLATFORM_METRICS_H_
#define KELO_PLATFORM_METRICS_H_

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace kelo::platform {

// Stores `value` under `key`, replacing any earlier value.
void CumuClientSetValueForScalarKey(const std::string& key, int64_t value);
// Adds `value` to the key's total (a missing key counts as 0; the sum wraps at 64 bits).
void CumuClientAddValueForScalarKey(const std::string& key, int64_t value);

// While a batch lives, the operations its thread makes on the default store are gathered and
// written when the batch ends, all in one transaction: durable together when the destructor
// returns, at the cost of one commit instead of one per operation. A batch that cannot be written
// is kept in memory and retried like a single operation. An installed MetricsSink still receives
// each operation at once. Batches on one thread nest; the outermost one writes.
class MetricsBatch {
 public:
  MetricsBatch();
  ~MetricsBatch();
  MetricsBatch(const MetricsBatch&) = delete;
  MetricsBatch& operator=(const MetricsBatch&) = delete;

 private:
  bool outermost_;
};

// homeDirectory() + "/Library/Metrics/KeloMetrics.db".
std::string metricsDatabasePath();

struct MetricsReadResult {
  bool ok = false;
  // When !ok: why, e.g. "no such file: <path>" or "not a metrics database: <path>: <reason>".
  std::string error;
  // Every (key, value) row, sorted by key.
  std::vector<std::pair<std::string, int64_t>> rows;
};

// Reads a metrics database file without changing it. Waits for a database locked by a writer up
// to the busy timeout. Never throws.
MetricsReadResult readMetricsDatabase(const std::string& path);

// How long the default store waits for a database locked by another process before it keeps the
// operation for later. Default 5000 ms. For tests and tools; callable at any time.
void setMetricsBusyTimeoutMs(int milliseconds);

}  // namespace kelo::platform

#endif  // KELO_PLATFORM_METRICS_H_
