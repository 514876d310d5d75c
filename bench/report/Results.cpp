#include "bench/report/Results.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "platform/Json.h"

namespace kelo::bench {

namespace {

// A benchmark's name and arguments without the segments that say how it was run
// ("repeats:9", "real_time", "iterations:20000", "threads:2", ...), so rows find it however it
// is run.
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

}  // namespace

Results::Results(const std::string& dir) {
  for (const auto& file : std::filesystem::directory_iterator(dir)) {
    if (file.path().extension() != ".json") continue;
    const Value doc = platform::parseJson(withoutNonFinite(file.path().string()));
    const Value* benchmarks = doc.find("benchmarks");
    if (benchmarks == nullptr || !benchmarks->isArray()) continue;
    for (const Value& b : benchmarks->asArray()) {
      const Value* runName = b.find("run_name");
      const Value* type = b.find("run_type");
      if (runName == nullptr || type == nullptr) continue;
      const std::string name = plainName(runName->asString());
      if (type->asString() == "aggregate") {
        const Value* aggregate = b.find("aggregate_name");
        if (aggregate != nullptr && aggregate->asString() == "median") medians_[name] = b;
      } else {
        runs_[name].push_back(b);
      }
    }
  }
}

const Value* Results::entry(const std::string& runName) const {
  const std::string name = plainName(runName);
  if (auto it = medians_.find(name); it != medians_.end()) return &it->second;
  if (auto it = runs_.find(name); it != runs_.end() && !it->second.empty()) {
    return &it->second.front();
  }
  return nullptr;
}

std::optional<double> entryNanos(const Value& entry, const char* field) {
  if (entry.find(field) == nullptr) return std::nullopt;
  static const std::map<std::string, double> kScale = {
      {"ns", 1.0}, {"us", 1e3}, {"ms", 1e6}, {"s", 1e9}};
  const Value* unit = entry.find("time_unit");
  const auto scale = kScale.find(unit ? unit->asString() : "ns");
  return entry.find(field)->doubleValue() * (scale == kScale.end() ? 1.0 : scale->second);
}

std::optional<double> Results::nanos(const std::string& name, const char* field) const {
  const Value* e = entry(name);
  return e == nullptr ? std::nullopt : entryNanos(*e, field);
}

std::optional<double> Results::counter(const std::string& name, const std::string& field) const {
  const Value* e = entry(name);
  if (e == nullptr || e->find(field) == nullptr) return std::nullopt;
  return e->find(field)->doubleValue();
}

std::vector<double> Results::runNanos(const std::string& name, const char* field) const {
  std::vector<double> out;
  const auto it = runs_.find(plainName(name));
  if (it == runs_.end()) return out;
  for (const Value& run : it->second) {
    if (auto ns = entryNanos(run, field)) out.push_back(*ns);
  }
  return out;
}

std::string fmt(const char* format, double v) {
  char s[64];
  std::snprintf(s, sizeof s, format, v);
  return s;
}

std::string duration(std::optional<double> ns) {
  if (!ns) return "missing";
  if (*ns >= 1e9) return fmt("%.2f s", *ns / 1e9);
  if (*ns >= 1e6) return fmt("%.2f ms", *ns / 1e6);
  if (*ns >= 1e3) return fmt("%.2f us", *ns / 1e3);
  return fmt("%.1f ns", *ns);
}

std::string rate(std::optional<double> ns) {
  if (!ns) return "missing";
  return fmt("%.0f lines/s", 1e9 / *ns);
}

}  // namespace kelo::bench
