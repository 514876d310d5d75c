// Cold start, whole process: a fresh process that loads the shared library, logs one line and
// reads one key, beside a fresh process that opens and writes one file (the peer). Each
// iteration starts the program and waits for it to exit.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <filesystem>
#include <string>

#include "bench/ScratchFolder.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;

std::string gDir;  // the scratch folder

void runEach(benchmark::State& state, const char* program) {
  char* const argv[] = {const_cast<char*>(program), gDir.data(), nullptr};
  for (auto _ : state) {
    pid_t pid = 0;
    if (::posix_spawn(&pid, program, nullptr, nullptr, argv, environ) != 0) {
      state.SkipWithError("cannot start the program");
      return;
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      state.SkipWithError("the program failed");
      return;
    }
  }
}

void BM_ColdStartLogAndLookup(benchmark::State& state) { runEach(state, KELO_COLDSTART_PROBE); }
BENCHMARK(BM_ColdStartLogAndLookup)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_ColdStartWriteFile(benchmark::State& state) { runEach(state, KELO_COLDSTART_PEER); }
BENCHMARK(BM_ColdStartWriteFile)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  const kelo::bench::ScratchFolder scratch("kelo-coldstart-bench");
  gDir = scratch.path();
  const fs::path bundle = fs::path(gDir) / "root/System/Library/Kelo/KeloConfiguration.bundle";
  fs::create_directories(bundle);
  fs::create_directories(fs::path(gDir) / "home");
  fs::copy_file(fs::path(KELO_SOURCE_DIR) / "data/KeloConfiguration.bundle/Info.json",
                bundle / "Info.json");
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
