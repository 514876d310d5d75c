// What a line costs through the C logging front.
//
// Off: KELO_CLOG with the loggers created and switched off, beside a loop doing one relaxed atomic
// load (the least a runtime on/off test can cost). Target: at most twice that loop.
// On: KELO_CLOG into the detailed logger's live file, beside snprintf into 512 bytes plus one
// write(2) of a line of the same length into a file of the same kind (the physical limit), and
// beside spdlog's synchronous file logger flushing every line (the peer with the same
// durability). Targets: at least 0.85 times the limit's rate and at least the peer's rate.
//
// The summary after the table compares the figures (medians when run with repetitions).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>

#include "kelo/KeloLogger.h"
#include "kelo/Overrides.h"
#include "kelo/logging.h"

#ifdef KELO_HAVE_SPDLOG
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

namespace {

std::string gDir;

std::string livePath() { return gDir + "/Library/Logs/KeloLoggingDetailed.kelobench"; }

// Returns once the logger ran everything posted to it.
void drain() { kelo::KeloLogger::instance()->logToFileCString(nullptr); }

void setUp() {
  char pattern[] = "/tmp/kelo-logging-bench.XXXXXX";
  if (::mkdtemp(pattern) == nullptr) {
    std::perror("mkdtemp");
    std::exit(1);
  }
  gDir = pattern;
  kelo::platform::Overrides o;
  o.homeDirectory = gDir;
  o.processName = "kelobench";
  kelo::platform::installOverrides(o);
  kelo::KeloLogger::instance();  // both loggers exist, switched off
}

// The arguments of a typical diagnostic line of the library.
constexpr const char* kApp = "com.example.newsreader";

void BM_RelaxedLoadLoop(benchmark::State& state) {
  static std::atomic<unsigned char> flag{0};
  int64_t taken = 0;
  for (auto _ : state) {
    if (flag.load(std::memory_order_relaxed) != 0) ++taken;
    benchmark::ClobberMemory();
  }
  benchmark::DoNotOptimize(taken);
}
BENCHMARK(BM_RelaxedLoadLoop);

std::uintmax_t liveSize() {
  std::error_code ec;
  const std::uintmax_t size = std::filesystem::file_size(livePath(), ec);
  return ec ? 0 : size;
}

void BM_ClogOff(benchmark::State& state) {
  KELO_CLOGMODE(false);
  drain();
  const std::uintmax_t sizeBefore = liveSize();
  int64_t formatted = 0;  // counts the argument evaluations that formatting would need
  for (auto _ : state) {
    KELO_CLOG("fetch denied for %s budget %lld energy %f", kApp, static_cast<long long>(++formatted),
              1.5);
    benchmark::ClobberMemory();
  }
  drain();
  state.counters["formatted"] = static_cast<double>(formatted);
  if (formatted != 0 || liveSize() != sizeBefore) {
    state.SkipWithError("a line was formatted or written while logging was off");
  }
}
BENCHMARK(BM_ClogOff);

void BM_ClogOn(benchmark::State& state) {
  ::truncate(livePath().c_str(), 0);
  KELO_CLOGMODE(true);
  drain();
  int64_t i = 0;
  for (auto _ : state) {
    KELO_CLOG("fetch denied for %s budget %lld energy %f", kApp, static_cast<long long>(++i), 1.5);
  }
  KELO_CLOGMODE(false);
  drain();
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(static_cast<int64_t>(std::filesystem::file_size(livePath())));
  ::truncate(livePath().c_str(), 0);
}
BENCHMARK(BM_ClogOn)->UseRealTime();

void BM_SnprintfWriteLimit(benchmark::State& state) {
  const std::string path = gDir + "/limit.log";
  const int fd = ::open(path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_TRUNC, 0644);
  // The same layout and length as the logger's lines: time stamp, identity, pid, level.
  const std::string prefix = "2026-11-21 10:56:00.123456 +0000 kelobench[" +
                             std::to_string(::getpid()) + "] <Info>: ";
  int64_t i = 0;
  int64_t bytes = 0;
  for (auto _ : state) {
    char line[512];
    const int n = std::snprintf(line, sizeof line, "%sfetch denied for %s budget %lld energy %f\n",
                                prefix.c_str(), kApp, static_cast<long long>(++i), 1.5);
    bytes += ::write(fd, line, static_cast<size_t>(n));
  }
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(bytes);
  ::close(fd);
  ::unlink(path.c_str());
}
BENCHMARK(BM_SnprintfWriteLimit)->UseRealTime();

#ifdef KELO_HAVE_SPDLOG
void BM_SpdlogFlushEveryLine(benchmark::State& state) {
  const std::string path = gDir + "/spdlog.log";
  auto logger = spdlog::basic_logger_mt("peer", path, /*truncate=*/true);
  logger->set_pattern("%Y-%m-%d %H:%M:%S.%f %z kelobench[%P] <%l>: %v");
  logger->flush_on(spdlog::level::trace);
  int64_t i = 0;
  for (auto _ : state) logger->info("fetch denied for {} budget {} energy {:f}", kApp, ++i, 1.5);
  state.SetItemsProcessed(state.iterations());
  spdlog::drop("peer");
  state.SetBytesProcessed(static_cast<int64_t>(std::filesystem::file_size(path)));
  ::unlink(path.c_str());
}
BENCHMARK(BM_SpdlogFlushEveryLine)->UseRealTime();
#endif

// Prints the table as usual, then the ratios that the targets are stated in.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      const bool aggregate = run.run_type == Run::RT_Aggregate;
      if (aggregate && run.aggregate_name != "median") continue;
      const std::string name = run.run_name.function_name;
      // Without repetitions each benchmark has one iteration run; with them, its median.
      if (!aggregate && seenMedian_.count(name) != 0) continue;
      if (aggregate) seenMedian_[name] = true;
      nanos_[name] = run.GetAdjustedRealTime();
    }
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    auto rate = [&](const char* name) { return nanos_.count(name) ? 1e9 / nanos_[name] : 0.0; };
    std::printf("\nSummary\n");
    if (nanos_.count("BM_ClogOff") && nanos_.count("BM_RelaxedLoadLoop")) {
      const double ratio = nanos_["BM_ClogOff"] / nanos_["BM_RelaxedLoadLoop"];
      std::printf("  off: %.3f ns per call, load loop %.3f ns: %.2fx (target <= 2x) %s\n",
                  nanos_["BM_ClogOff"], nanos_["BM_RelaxedLoadLoop"], ratio,
                  ratio <= 2.0 ? "met" : "MISSED");
    }
    if (nanos_.count("BM_ClogOn") && nanos_.count("BM_SnprintfWriteLimit")) {
      const double ratio = rate("BM_ClogOn") / rate("BM_SnprintfWriteLimit");
      std::printf("  on: %.0f lines/s, limit %.0f lines/s: %.3fx (target >= 0.85x) %s\n",
                  rate("BM_ClogOn"), rate("BM_SnprintfWriteLimit"), ratio,
                  ratio >= 0.85 ? "met" : "MISSED");
    }
    if (nanos_.count("BM_ClogOn") && nanos_.count("BM_SpdlogFlushEveryLine")) {
      const double ratio = rate("BM_ClogOn") / rate("BM_SpdlogFlushEveryLine");
      std::printf("  on: %.0f lines/s, spdlog %.0f lines/s: %.3fx (target >= 1x) %s\n",
                  rate("BM_ClogOn"), rate("BM_SpdlogFlushEveryLine"), ratio,
                  ratio >= 1.0 ? "met" : "MISSED");
    }
  }

 private:
  std::map<std::string, double> nanos_;
  std::map<std::string, bool> seenMedian_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  setUp();
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  std::error_code ec;
  std::filesystem::remove_all(gDir, ec);
  return 0;
}
