// The readable and the JSON summary of a simulated day.
#ifndef KELO_TOOLS_KELOSIM_SUMMARY_H_
#define KELO_TOOLS_KELOSIM_SUMMARY_H_

#include <string>

#include "tools/kelo-sim/Simulation.h"

namespace kelo::sim {

std::string textSummary(const Result& result);
std::string jsonSummary(const Result& result);

}  // namespace kelo::sim

#endif  // KELO_TOOLS_KELOSIM_SUMMARY_H_
