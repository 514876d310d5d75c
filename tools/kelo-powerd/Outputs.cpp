#include "tools/kelo-powerd/Outputs.h"

#include <charconv>
#include <utility>

#include "kelo/Value.h"
#include "platform/Json.h"

namespace kelo::powerd {

namespace {

// The shortest text that reads back as the same double.
std::string number(double v) {
  char text[32];
  const auto [end, ec] = std::to_chars(text, text + sizeof text, v);
  return ec == std::errc() ? std::string(text, end) : std::string("NaN");
}

// A label value of the exposition format: backslash, double quote and newline escaped.
std::string labelValue(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '"') {
      out += "\\\"";
    } else if (c == '\n') {
      out += "\\n";
    } else {
      out += c;
    }
  }
  return out;
}

void metricHead(std::string* out, const char* name, const char* type, const char* help) {
  *out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

}  // namespace

std::string reportJson(const State& state, std::optional<double> batteryCapacity, Model model) {
  Value::Array entries;
  entries.reserve(state.totals.size());
  for (const auto& [key, mwh] : state.totals) {
    entries.push_back(Value::dictionary({{"bundleID", Value::string(key.bundleId)},
                                         {"updateType", Value::integer(key.updateType)},
                                         {"energy_mWh", Value::real(mwh)}}));
  }
  Value::Dictionary report{{"BLMEnergyReferenceDate", Value::integer(state.referenceDate)},
                           {"BLMEnergyForKelo", Value::array(std::move(entries))},
                           {"KeloEnergyModel", Value::string(modelName(model))}};
  if (batteryCapacity) report.emplace("BLMBatteryCapacity", Value::real(*batteryCapacity));
  return platform::toJson(Value::dictionary(std::move(report)), true) + "\n";
}

std::string prometheusText(const State& state, std::optional<double> batteryCapacity) {
  std::string out;
  metricHead(&out, "kelo_energy_mwh_total", "counter",
             "Energy of announced background work since the reference date, in mWh.");
  for (const auto& [key, mwh] : state.totals) {
    out += "kelo_energy_mwh_total{bundle_id=\"" + labelValue(key.bundleId) + "\",update_type=\"" +
           std::to_string(key.updateType) + "\"} " + number(mwh) + "\n";
  }
  metricHead(&out, "kelo_energy_reference_date_seconds", "gauge",
             "Start of the energy counters, in seconds since 1970.");
  out += "kelo_energy_reference_date_seconds " + std::to_string(state.referenceDate) + "\n";
  if (batteryCapacity) {
    metricHead(&out, "kelo_battery_capacity_mwh", "gauge",
               "Design capacity of the battery, in mWh.");
    out += "kelo_battery_capacity_mwh " + number(*batteryCapacity) + "\n";
  }
  metricHead(&out, "kelo_powerd_journal_lines_skipped_total", "counter",
             "Malformed energy journal lines skipped since the reference date.");
  out += "kelo_powerd_journal_lines_skipped_total " + std::to_string(state.skippedLines) + "\n";
  return out;
}

}  // namespace kelo::powerd
