#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <set>

#include "platform/Json.h"
#include "platform/Metrics.h"
#include "tools/kelo/Commands.h"

namespace kelo::tool {

namespace {

// A Prometheus metric name: letters, digits, '_' and ':' only, not starting with a digit.
std::string metricName(const std::string& key) {
  std::string out;
  for (char c : key) {
    const bool ok = std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == ':';
    out += ok ? c : '_';
  }
  if (out.empty() || std::isdigit(static_cast<unsigned char>(out[0]))) out = "_" + out;
  return out;
}

}  // namespace

int metrics(const Context& context, const std::string& format, const std::string& database) {
  context.install();
  const std::string path = database.empty() ? platform::metricsDatabasePath() : database;
  const platform::MetricsReadResult read = platform::readMetricsDatabase(path);
  if (!read.ok) {
    const bool missing = read.error.rfind("no such file", 0) == 0;
    return fail(missing ? kExitNotFound : kExitFailure, read.error);
  }
  if (format == "json" || (format == "table" && context.json)) {
    Value::Dictionary d;
    for (const auto& [key, value] : read.rows) d[key] = Value::integer(value);
    std::printf("%s\n", platform::toJson(Value::dictionary(std::move(d)), true).c_str());
  } else if (format == "prometheus") {
    std::set<std::string> seen;
    for (const auto& [key, value] : read.rows) {
      std::string name = metricName(key);
      while (!seen.insert(name).second) name += "_";
      std::printf("# HELP %s %s\n# TYPE %s gauge\n%s %" PRId64 "\n", name.c_str(), key.c_str(),
                  name.c_str(), name.c_str(), value);
    }
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
