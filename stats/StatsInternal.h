// Pieces shared by the collector's source files; not part of the library's interface.
#ifndef KELO_STATS_STATSINTERNAL_H_
#define KELO_STATS_STATSINTERNAL_H_

#include <cstdint>
#include <string>
#include <utility>

#include "kelo/AppLaunchStatsCumu.h"
#include "platform/SerialQueue.h"

namespace kelo {

// Metric keys of the nine zones, indexed by zone number.
extern const char* const kCumuPredictZoneKeys[AppLaunchStatsCumu::kZoneCount];
extern const char* const kCumuPrewarmZoneKeys[AppLaunchStatsCumu::kZoneCount];

inline constexpr const char kReportNotificationName[] = "com.vorn.Kelo.CUMUNotificationReport";

namespace stats {

// Counters wrap like the platform's integers; the arithmetic is done unsigned so that wrapping
// is defined, and the bits are taken back as the field's signed type.
inline void wrapAdd(int32_t& field, int32_t delta) {
  field = static_cast<int32_t>(static_cast<uint32_t>(field) + static_cast<uint32_t>(delta));
}
inline void wrapAdd(int64_t& field, int64_t delta) {
  field = static_cast<int64_t>(static_cast<uint64_t>(field) + static_cast<uint64_t>(delta));
}
inline void wrapAdd(int64_t& field, uint64_t delta) {
  field = static_cast<int64_t>(static_cast<uint64_t>(field) + delta);
}

// `seconds` since 1970 as "YYYY-MM-DD HH:MM:SS +0000".
std::string describeDate(double seconds);

}  // namespace stats

// Runs `f` at once when called from the collector's queue, else posts and waits for it.
template <class F>
void AppLaunchStatsCumu::onQueue(F&& f) const {
  if (cumuQueue_->isCurrent()) {
    f();
  } else {
    cumuQueue_->sync(std::forward<F>(f));
  }
}

}  // namespace kelo

#endif  // KELO_STATS_STATSINTERNAL_H_
