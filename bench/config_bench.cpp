// How fast is a configuration lookup? getStateFor and getStateForC on present and missing keys
// (logging off), beside std::unordered_map<std::string, int64_t>::find on the same keys, and
// lookups while another thread reloads the configuration in a loop.
//
// Each iteration looks up all 77 keys once; the "lookup" counter is the time of one lookup, in
// seconds of CPU time of the measuring thread (the reloading thread's work is not counted, so on
// a busy machine the figures stay comparable with the plain lookups).
//
// And a reload of the default bundle from disk, beside parsing the same file with nlohmann::json
// and building a map of its keys (the peer).
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "config/ConfigKeys.h"
#include "kelo/KeloConfigurator.h"
#include "kelo/Overrides.h"
#include "kelo/config.h"

namespace {

namespace fs = std::filesystem;
using kelo::KeloConfigurator;
using kelo::Value;

// A scratch device root holding the shipped bundle, and a scratch home, installed before the
// configurator exists. Lines the platform port would write are dropped.
struct Scene {
  Scene() {
    std::string pattern = (fs::temp_directory_path() / "kelo-config-bench.XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    dir = pattern;
    const fs::path bundle = fs::path(dir) / "root/System/Library/Kelo/KeloConfiguration.bundle";
    fs::create_directories(bundle);
    fs::create_directories(fs::path(dir) / "home");
    fs::copy_file(
        fs::path(__FILE__).parent_path().parent_path() / "data/KeloConfiguration.bundle/Info.json",
        bundle / "Info.json");
    kelo::platform::Overrides o;
    o.deviceRoot = dir + "/root";
    o.homeDirectory = dir + "/home";
    o.systemLog = [](int, const char*) {};
    kelo::platform::installOverrides(o);
    configurator = KeloConfigurator::sharedInstance();
    for (const kelo::config::KeyInfo& k : kelo::config::kKeys) {
      present.emplace_back(k.name);
      // Same length and bytes as a real key but for one in the middle: the costliest miss.
      std::string miss(k.name);
      miss[miss.size() / 2] = '#';
      missing.push_back(miss);
      map.emplace(present.back(), configurator->getStateFor(present.back()));
    }
  }
  ~Scene() {
    std::error_code ec;
    fs::remove_all(dir, ec);
  }

  std::string dir;
  KeloConfigurator* configurator = nullptr;
  std::vector<std::string> present;
  std::vector<std::string> missing;
  std::unordered_map<std::string, int64_t> map;
};

Scene& scene() {
  static Scene* s = new Scene();
  return *s;
}

void perLookup(benchmark::State& state, size_t keys) {
  state.counters["lookup"] =
      benchmark::Counter(static_cast<double>(keys), benchmark::Counter::kIsIterationInvariantRate |
                                                        benchmark::Counter::kInvert);
}

void BM_GetStateFor_Present(benchmark::State& state) {
  Scene& s = scene();
  for (auto _ : state) {
    for (const std::string& key : s.present)
      benchmark::DoNotOptimize(s.configurator->getStateFor(key));
  }
  perLookup(state, s.present.size());
}
BENCHMARK(BM_GetStateFor_Present);

void BM_GetStateForC_Present(benchmark::State& state) {
  Scene& s = scene();
  for (auto _ : state) {
    for (const std::string& key : s.present) benchmark::DoNotOptimize(getStateForC(key.c_str()));
  }
  perLookup(state, s.present.size());
}
BENCHMARK(BM_GetStateForC_Present);

void BM_UnorderedMapFind_Present(benchmark::State& state) {
  Scene& s = scene();
  for (auto _ : state) {
    for (const std::string& key : s.present) benchmark::DoNotOptimize(s.map.find(key)->second);
  }
  perLookup(state, s.present.size());
}
BENCHMARK(BM_UnorderedMapFind_Present);

void BM_GetStateFor_Missing(benchmark::State& state) {
  Scene& s = scene();
  for (auto _ : state) {
    for (const std::string& key : s.missing)
      benchmark::DoNotOptimize(s.configurator->getStateFor(key));
  }
  perLookup(state, s.missing.size());
}
BENCHMARK(BM_GetStateFor_Missing);

void BM_GetStateForC_Missing(benchmark::State& state) {
  Scene& s = scene();
  for (auto _ : state) {
    for (const std::string& key : s.missing) benchmark::DoNotOptimize(getStateForC(key.c_str()));
  }
  perLookup(state, s.missing.size());
}
BENCHMARK(BM_GetStateForC_Missing);

void BM_UnorderedMapFind_Missing(benchmark::State& state) {
  Scene& s = scene();
  for (auto _ : state) {
    for (const std::string& key : s.missing)
      benchmark::DoNotOptimize(s.map.find(key) == s.map.end());
  }
  perLookup(state, s.missing.size());
}
BENCHMARK(BM_UnorderedMapFind_Missing);

// Runs `work` on another thread in a loop for as long as the benchmark measures.
template <class Work>
void lookupsBeside(benchmark::State& state, Work work) {
  Scene& s = scene();
  std::atomic<bool> stop{false};
  std::atomic<long> rounds{0};
  std::thread other([&] {
    while (!stop.load(std::memory_order_relaxed)) {
      work(s);
      rounds.fetch_add(1, std::memory_order_relaxed);
    }
  });
  for (auto _ : state) {
    for (const std::string& key : s.present)
      benchmark::DoNotOptimize(s.configurator->getStateFor(key));
  }
  stop = true;
  other.join();
  perLookup(state, s.present.size());
  state.counters["reloads"] = static_cast<double>(rounds.load());
}

// The real reload: bundle, model entry and override from disk, haven domains written durably.
void BM_GetStateFor_PresentDuringReload(benchmark::State& state) {
  lookupsBeside(state, [](Scene& s) { s.configurator->reloadBundleFromDisk(); });
}
BENCHMARK(BM_GetStateFor_PresentDuringReload);

// The worst case for the readers' caches: loads in a tight loop that change every value.
void BM_GetStateFor_PresentDuringChangingLoads(benchmark::State& state) {
  Value::Dictionary a;
  Value::Dictionary b;
  for (const kelo::config::KeyInfo& k : kelo::config::kKeys) {
    if (k.group == kelo::config::Group::kCommonDefaults) {
      a.emplace(std::string(k.name), Value::integer(1));
      b.emplace(std::string(k.name), Value::integer(2));
    }
  }
  const Value sources[2] = {Value::dictionary({{"commonDefaults", Value::dictionary(a)}}),
                            Value::dictionary({{"commonDefaults", Value::dictionary(b)}})};
  long round = 0;
  lookupsBeside(state, [&](Scene& s) { s.configurator->loadConfigurations(sources[++round % 2]); });
  scene().configurator->reloadBundleFromDisk();
}
BENCHMARK(BM_GetStateFor_PresentDuringChangingLoads);

void BM_ReloadBundle(benchmark::State& state) {
  Scene& s = scene();
  for (auto _ : state) s.configurator->reloadBundleFromDisk();
}
BENCHMARK(BM_ReloadBundle)->Unit(benchmark::kMicrosecond);

// The peer: the file read and parsed, and every integer of every group put in a key map.
void BM_NlohmannParseAndKeyMap(benchmark::State& state) {
  Scene& s = scene();
  const std::string path = s.dir + "/root/System/Library/Kelo/KeloConfiguration.bundle/Info.json";
  for (auto _ : state) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    const nlohmann::json doc = nlohmann::json::parse(text.str());
    std::unordered_map<std::string, int64_t> keys;
    for (const auto& [group, entries] : doc.items()) {
      if (!entries.is_object()) continue;
      for (const auto& [key, value] : entries.items()) {
        if (value.is_number_integer()) keys.emplace(key, value.get<int64_t>());
      }
    }
    benchmark::DoNotOptimize(keys.size());
  }
}
BENCHMARK(BM_NlohmannParseAndKeyMap)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  delete &scene();  // removes the scratch folders
  return 0;
}
