#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include "bench/report/Rows.h"

namespace kelo::bench {

namespace {

// Queue post beside the mutex + deque push, run by run: the target holds only when every
// repetition of ours is within the peer's repetition made beside it.
void queuePostRow(const Results& r, const char* operation, const char* oursName,
                  const char* peerName, std::vector<Row>& rows) {
  const std::vector<double> ours = r.runNanos(oursName);
  const std::vector<double> peer = r.runNanos(peerName);
  Row row{operation,
          duration(r.nanos(oursName)) + " median",
          duration(r.nanos(peerName)) + " median (mutex + std::deque push)",
          "-",
          "",
          "",
          {}};
  const std::size_t runs = std::min(ours.size(), peer.size());
  if (runs > 0) {
    std::size_t within = 0;
    double worst = 0;
    for (std::size_t i = 0; i < runs; ++i) {
      worst = std::max(worst, ours[i] / peer[i]);
      if (ours[i] <= peer[i]) ++within;
    }
    row.ratios = std::to_string(within) + " of " + std::to_string(runs) + " runs <= the peer" +
                 fmt(", worst %.2fx", worst);
    row.target = "<= 1x the peer in 5 of 5 runs";
    row.holds = runs >= 5 && within == runs;
  }
  rows.push_back(row);
}

}  // namespace

void addHotPathRows(const Results& r, std::vector<Row>& rows) {
  {  // logging front, off
    auto ours = r.nanos("BM_ClogOff");
    auto limit = r.nanos("BM_RelaxedLoadLoop");
    auto formatted = r.counter("BM_ClogOff", "formatted");
    Row row{"KELO_CLOG, logger off",
            duration(ours),
            "-",
            duration(limit) + " (one relaxed load)",
            "",
            "",
            {}};
    if (allPresent({ours, limit, formatted})) {
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
    Row row{"KELO_CLOG, detailed logger on",
            rate(ours),
            rate(peer) + " (spdlog, flush each line)",
            rate(limit) + " (snprintf + write)",
            "",
            "",
            {}};
    if (allPresent({ours, limit, peer})) {
      row.ratios =
          fmt("%.3fx the limit's rate, ", *limit / *ours) + fmt("%.2fx the peer's", *peer / *ours);
      row.target = ">= 0.95x the limit, >= the peer";
      row.holds = *limit / *ours >= 0.95 && *peer / *ours >= 1.0;
    }
    rows.push_back(row);
  }
  queuePostRow(r, "serial queue post, idle machine", "BM_QueuePost", "BM_MutexDequePush", rows);
  queuePostRow(r, "serial queue post, one busy competing process", "BM_QueuePostBusy",
               "BM_MutexDequePushBusy", rows);
  {  // two posting threads
    auto ours = r.nanos("BM_QueuePostTwoThreads");
    auto peer = r.nanos("BM_MutexDequePushTwoThreads");
    Row row{"post from 2 threads to one queue",
            duration(ours) + " per post",
            duration(peer) + " (mutex + std::deque push, 2 threads)",
            "-",
            "",
            "",
            {}};
    if (allPresent({ours, peer})) {
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
    Row row{"serial queue post-and-wait, idle",
            duration(ours),
            duration(naive) + " (condition-variable handoff)",
            duration(limit) + " (mutex pair + call)",
            "",
            "",
            {}};
    if (allPresent({ours, limit, naive})) {
      row.ratios = fmt("%.2fx the limit, ", *ours / *limit) +
                   fmt("%.0fx faster than the handoff", *naive / *ours);
      row.target = "<= 2x the limit, >= 10x faster than the handoff";
      row.holds = *ours <= 2 * *limit && *naive >= 10 * *ours;
    }
    rows.push_back(row);
  }
  {  // configuration lookup: each iteration looks up every key; the "lookup" counter is the
     // time of one lookup, in seconds
    auto perLookup = [&r](const char* name) -> std::optional<double> {
      auto s = r.counter(name, "lookup");
      return s ? std::optional<double>(*s * 1e9) : std::nullopt;
    };
    auto ours = perLookup("BM_GetStateFor_Present");
    auto oursC = perLookup("BM_GetStateForC_Present");
    auto limit = perLookup("BM_UnorderedMapFind_Present");
    auto reload = perLookup("BM_GetStateFor_PresentDuringReload");
    Row row{
        "configuration lookup, present key, per lookup",
        duration(ours) + " (C: " + duration(oursC) + "; during reloads: " + duration(reload) + ")",
        "-",
        duration(limit) + " (std::unordered_map find)",
        "",
        "",
        {}};
    if (allPresent({ours, oursC, limit, reload})) {
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
    if (allPresent({ours, allocs})) {
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
            duration(a) + " / " + duration(b) + " / " + duration(c),
            "-",
            "-",
            "",
            "",
            {}};
    if (allPresent({a, b, c})) {
      row.ratios = fmt("100k = %.1fx 10k", *c / *b);
      row.target = "linear: 100k <= 12x 10k";
      row.holds = *c <= 12 * *b;
    }
    rows.push_back(row);
  }
  {  // zone evaluations
    auto ours = r.nanos("BM_BothEvaluations");
    Row row{
        "prediction + prewarm zones, 1,000 apps, busy day", duration(ours), "-", "-", "", "", {}};
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
            p50 && p99 ? fmt("p50 %.1f us, ", *p50) + fmt("p99 %.1f us", *p99) : "missing",
            "-",
            pipe ? fmt("%.1f us (pipe one-way p50)", *pipe) : "missing",
            "",
            "",
            {}};
    if (allPresent({p50, p99, pipe})) {
      row.ratios =
          fmt("p50 %.2fx the pipe, ", *p50 / *pipe) + fmt("p99 %.1fx own p50", *p99 / *p50);
      row.target = "p50 <= 3x the pipe, p99 <= 10x p50";
      row.holds = *p50 <= 3 * *pipe && *p99 <= 10 * *p50;
    }
    rows.push_back(row);
  }
  {  // memory of the collector
    auto bytes = r.counter("BM_BothEvaluations", "bytes/app");
    Row row{"collector memory after a busy day, per app",
            bytes ? fmt("%.0f bytes", *bytes) : "missing",
            "-",
            "768 bytes (2 x 96 x 4 masks)",
            "",
            "",
            {}};
    if (bytes) {
      row.ratios = fmt("%.2fx the masks", *bytes / 768.0);
      row.target = "<= 2 x 96 x 4 bytes";
      row.holds = *bytes <= 768;
    }
    rows.push_back(row);
  }
}

}  // namespace kelo::bench
