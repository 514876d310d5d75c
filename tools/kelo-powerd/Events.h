// One line of the energy event journal, as the library writes it:
//   {"time":1763722560.25,"pid":4242,"process":"schedd","event":"start","kind":1,
//    "bundleID":"com.example.app","updateType":1,"seqNum":17}
//   {"time":...,"pid":4242,"process":"schedd","event":"stopAll"}
#ifndef KELO_TOOLS_KELO_POWERD_EVENTS_H_
#define KELO_TOOLS_KELO_POWERD_EVENTS_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "kelo/Value.h"

namespace kelo::powerd {

// Longer lines and bundle identifiers are refused as malformed: the library's own lines are far
// shorter, and the state that identifiers end up in must stay bounded.
inline constexpr std::size_t kMaxLineBytes = 16384;
inline constexpr std::size_t kMaxBundleIdBytes = 1024;

struct Event {
  enum class Kind { kStart, kStop, kStopAll };
  Kind kind = Kind::kStart;
  int pid = 0;
  std::optional<double> time;  // seconds since 1970, as the announcing process saw it
  std::string bundleId;        // start and stop only
  int updateType = 0;
  uint64_t seqNum = 0;
};

enum class LineKind {
  kEvent,     // *event holds it
  kIgnored,   // a well-formed line of a kind that carries no work ("other")
  kMalformed  // not JSON, not an object, a field missing or of the wrong type, too long
};

LineKind parseEventLine(std::string_view line, Event* event);

// An unsigned 64-bit number of a JSON document: the JSON reader gives those past the signed range
// as reals, so both forms are taken (UINT64_MAX and above as UINT64_MAX). nullopt for anything
// else or a negative number. unsignedValue() is the inverse.
std::optional<uint64_t> unsignedFrom(const Value* v);
Value unsignedValue(uint64_t n);

}  // namespace kelo::powerd

#endif  // KELO_TOOLS_KELO_POWERD_EVENTS_H_
