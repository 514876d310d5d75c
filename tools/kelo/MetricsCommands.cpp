#include <stdlib.h>

#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <vector>

#include "platform/Json.h"
#include "platform/Metrics.h"
#include "tools/common/ReplaceFile.h"
#include "tools/kelo/Commands.h"

namespace kelo::tool {

namespace {

constexpr std::string_view kPrefix = "com.vorn.Kelo.";

struct Family {
  std::string help;
  bool counter = true;
  std::vector<std::pair<std::string, int64_t>> samples;  // labels ("" or {a="b"}), value
};

// A Prometheus metric name in snake case ("avgBGDownloadSize" is "avg_bg_download_size"):
// lower-case letters, digits and '_' only, not starting with a digit.
std::string metricName(std::string_view key) {
  std::string out;
  auto upper = [&](std::size_t i) {
    return i < key.size() && std::isupper(static_cast<unsigned char>(key[i]));
  };
  auto lower = [&](std::size_t i) {
    return i < key.size() && (std::islower(static_cast<unsigned char>(key[i])) ||
                              std::isdigit(static_cast<unsigned char>(key[i])));
  };
  for (std::size_t i = 0; i < key.size(); ++i) {
    const char c = key[i];
    if (upper(i) && i > 0 && (lower(i - 1) || (upper(i - 1) && lower(i + 1)))) out += '_';
    const bool ok = std::isalnum(static_cast<unsigned char>(c)) || c == '_';
    out += ok ? static_cast<char>(std::tolower(static_cast<unsigned char>(c))) : '_';
  }
  if (out.empty() || std::isdigit(static_cast<unsigned char>(out[0]))) out = "_" + out;
  return out;
}

bool startsWith(std::string_view s, std::string_view p) { return s.substr(0, p.size()) == p; }

// The family and labels a stored key belongs to, by the exposition format's conventions: counts
// are counters named _total, averages are gauges, and the zone rows and denial reasons are one
// metric each with a label.
void place(const std::string& key, int64_t value, std::map<std::string, Family>* families) {
  std::string_view k = key;
  const bool ours = startsWith(k, kPrefix);
  if (ours) k.remove_prefix(kPrefix.size());
  auto add = [&](const std::string& name, const std::string& help, bool counter,
                 const std::string& labels) {
    Family& f = (*families)[name];
    f.help = help;
    f.counter = counter;
    f.samples.emplace_back(labels, value);
  };
  if (!ours) {
    add(metricName(key), "stored key " + key, false, "");
  } else if (startsWith(k, "predictHit") || (startsWith(k, "prewarmHit") && k != "prewarmHit")) {
    const bool prediction = startsWith(k, "predictHit");
    const std::string zone(k.substr(10));
    add("kelo_zone_launches_total",
        "Launches counted in each zone of the last cycle, by family (prediction: launch slots "
        "by distance to the predicted slot; prewarm: launch minutes by distance to the prewarm).",
        true,
        "{family=\"" + std::string(prediction ? "prediction" : "prewarm") + "\",zone=\"" + zone +
            "\"}");
  } else if (k == "prewarmHit" || k == "prewarmMiss") {
    add("kelo_prewarm_launches_total", "Launches that found a prewarm (hit) or none (miss).", true,
        std::string("{outcome=\"") + (k == "prewarmHit" ? "hit" : "miss") + "\"}");
  } else if (std::size_t at = k.find(".denied."); at != std::string_view::npos) {
    const std::string kind(k.substr(0, at));
    add("kelo_" + metricName(kind) + "_denials_by_reason_total",
        "Denied " + kind + " requests, by reason.", true,
        "{reason=\"" + std::string(k.substr(at + 8)) + "\"}");
  } else if (startsWith(k, "avg")) {
    add("kelo_" + metricName(k), "Average, as uploaded: " + key, false, "");
  } else {
    add("kelo_" + metricName(k) + "_total", "Count or sum uploaded as " + key, true, "");
  }
}

std::string prometheus(const std::vector<std::pair<std::string, int64_t>>& rows) {
  std::map<std::string, Family> families;
  for (const auto& [key, value] : rows) place(key, value, &families);
  std::string out;
  char line[512];
  for (const auto& [name, f] : families) {
    out += "# HELP " + name + " " + f.help + "\n# TYPE " + name + " " +
           (f.counter ? "counter" : "gauge") + "\n";
    for (const auto& [labels, value] : f.samples) {
      std::snprintf(line, sizeof line, "%s%s %" PRId64 "\n", name.c_str(), labels.c_str(), value);
      out += line;
    }
  }
  return out;
}

// Reads the store without touching it. A reader of a write-ahead-logged store updates its
// shared-memory index beside it, so when a log is there the store and its log are read from a
// private copy instead.
platform::MetricsReadResult readUntouched(const std::string& path) {
  namespace fs = std::filesystem;
  std::error_code ec;
  if (!fs::exists(path + "-wal", ec) && !fs::exists(path + "-shm", ec)) {
    return platform::readMetricsDatabase(path);
  }
  const char* tmp = std::getenv("TMPDIR");
  std::string folder =
      std::string(tmp != nullptr && tmp[0] == '/' ? tmp : "/tmp") + "/kelo-metrics.XXXXXX";
  if (::mkdtemp(folder.data()) == nullptr) return platform::readMetricsDatabase(path);
  const std::string copy = folder + "/" + fs::path(path).filename().string();
  fs::copy_file(path, copy, ec);
  if (!ec && fs::exists(path + "-wal")) fs::copy_file(path + "-wal", copy + "-wal", ec);
  platform::MetricsReadResult result =
      ec ? platform::readMetricsDatabase(path) : platform::readMetricsDatabase(copy);
  fs::remove_all(folder, ec);
  if (!result.ok) result.error = path + ": " + result.error;
  return result;
}

}  // namespace

int metrics(const Context& context, const std::string& format, const std::string& database,
            const std::string& textfile) {
  context.install();
  const std::string path = database.empty() ? platform::metricsDatabasePath() : database;
  const platform::MetricsReadResult read = readUntouched(path);
  if (!read.ok) {
    const bool missing = read.error.rfind("no such file", 0) == 0;
    return fail(missing ? kExitNotFound : kExitFailure, read.error);
  }
  if (!textfile.empty()) {
    std::string error;
    if (!tools::replaceFile(textfile + "/kelo.prom", prometheus(read.rows), &error)) {
      return fail(kExitFailure, error);
    }
    return kExitOk;
  }
  if (format == "json" || (format == "table" && context.json)) {
    Value::Dictionary d;
    for (const auto& [key, value] : read.rows) d[key] = Value::integer(value);
    std::printf("%s\n", platform::toJson(Value::dictionary(std::move(d)), true).c_str());
  } else if (format == "prometheus") {
    const std::string text = prometheus(read.rows);
    std::fwrite(text.data(), 1, text.size(), stdout);
  } else {
    std::printf("%-48s %16s\n", "key", "value");
    for (const auto& [key, value] : read.rows) {
      std::printf("%-48s %16" PRId64 "\n", key.c_str(), value);
    }
    std::printf("(%zu keys in %s)\n", read.rows.size(), path.c_str());
  }
  return kExitOk;
}

}  // namespace kelo::tool
