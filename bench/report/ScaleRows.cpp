#include <optional>
#include <string>
#include <vector>

#include "bench/report/Rows.h"

namespace kelo::bench {

namespace {

// Ours beside its peer, held to at most `times` the peer's time.
void againstPeer(const Results& r, const char* operation, const char* oursName,
                 const char* peerName, const char* peerText, double times, std::vector<Row>& rows) {
  auto ours = r.nanos(oursName);
  auto peer = r.nanos(peerName);
  Row row{operation, duration(ours), duration(peer) + " (" + peerText + ")", "-", "", "", {}};
  if (allPresent({ours, peer})) {
    row.ratios = fmt("%.2fx the peer", *ours / *peer);
    row.target = fmt("<= %.2gx the peer", times);
    row.holds = *ours <= times * *peer;
  }
  rows.push_back(row);
}

}  // namespace

void addScaleRows(const Results& r, std::vector<Row>& rows) {
  againstPeer(r, "configuration reload of the default bundle", "BM_ReloadBundle",
              "BM_NlohmannParseAndKeyMap", "nlohmann::json parse of the file + key map", 1.5, rows);
  againstPeer(r, "full statistics upload to the metrics store, every key", "BM_FullUpload",
              "BM_SqliteOneTransaction",
              "the same rows, one prepared SQLite statement, one transaction", 1.3, rows);
  againstPeer(r, "cold start: a fresh process logs one line and reads one key",
              "BM_ColdStartLogAndLookup", "BM_ColdStartWriteFile",
              "a fresh process that opens and writes one file", 3.0, rows);
  {  // kelo-sim's day
    auto small = r.nanos("BM_KeloSimDay/2000");
    auto large = r.nanos("BM_KeloSimDay/10000");
    auto seconds = [](std::optional<double> ns) {
      return ns ? fmt("%.2f s", *ns / 1e9) : std::string("missing");
    };
    Row row{"kelo-sim day, 10,000 apps (2,000 apps beside it)", seconds(large),
            seconds(small) + " (2,000 apps)", "-", "", "", {}};
    if (allPresent({small, large})) {
      row.ratios = fmt("%.2fx the 2,000-app day", *large / *small);
      row.target = "< 10 s, <= 5.5x the 2,000-app day";
      row.holds = *large < 10e9 && *large <= 5.5 * *small;
    }
    rows.push_back(row);
  }
  {  // kelo-powerd's own cost per sample
    auto cpu = r.nanos("BM_PowerdSample", "cpu_time");
    auto wall = r.nanos("BM_PowerdSample");
    auto open = r.counter("BM_PowerdSample", "open_intervals");
    Row row{"kelo-powerd sample, 1,000 open intervals in 100 processes",
            duration(cpu) + " CPU (" + duration(wall) + " wall, fsyncs included)",
            "-",
            "50.00 ms CPU (1% of a core at 5 s)",
            "",
            "",
            {}};
    if (allPresent({cpu, open})) {
      row.ratios = fmt("%.3f%% of a core at a 5 s interval", *cpu / 5e9 * 100);
      row.target = "< 1% of a core at a 5 s interval (< 50 ms CPU per sample)";
      row.holds = *cpu < 50e6 && *open == 1000;
    }
    rows.push_back(row);
  }
}

}  // namespace kelo::bench
