// The two files kelo-powerd writes after each sample, as text.
#ifndef KELO_TOOLS_KELO_POWERD_OUTPUTS_H_
#define KELO_TOOLS_KELO_POWERD_OUTPUTS_H_

#include <optional>
#include <string>

#include "tools/kelo-powerd/Attribution.h"
#include "tools/kelo-powerd/State.h"

namespace kelo::powerd {

// The energy report the library reads (run/kelo/energy-report.json):
//   {"BLMBatteryCapacity": 50000.0,            mWh; absent without a battery
//    "BLMEnergyReferenceDate": 1763700000,     the state's reference date
//    "BLMEnergyForKelo": [{"bundleID": "com.example.app", "updateType": 1,
//                          "energy_mWh": 5.5}, ...],   the totals, by bundle and type
//    "KeloEnergyModel": "package"}             or "cpu-watts": the model of the last sample
std::string reportJson(const State& state, std::optional<double> batteryCapacity, Model model);

// The same as Prometheus text exposition for node_exporter's textfile collector: the counter
// kelo_energy_mwh_total{bundle_id,update_type}, the gauges kelo_battery_capacity_mwh (absent
// without a battery) and kelo_energy_reference_date_seconds, and the counter
// kelo_powerd_journal_lines_skipped_total.
std::string prometheusText(const State& state, std::optional<double> batteryCapacity);

}  // namespace kelo::powerd

#endif  // KELO_TOOLS_KELO_POWERD_OUTPUTS_H_
