#include "stats/StatsInternal.h"

namespace kelo {

const char* const kCumuPredictZoneKeys[AppLaunchStatsCumu::kZoneCount] = {
    "com.vorn.Kelo.predictHitNeg2HR", "com.vorn.Kelo.predictHitNeg1HR",
    "com.vorn.Kelo.predictHitNeg30M", "com.vorn.Kelo.predictHitNeg15M",
    "com.vorn.Kelo.predictHitPos15M", "com.vorn.Kelo.predictHitPos30M",
    "com.vorn.Kelo.predictHitPos1HR", "com.vorn.Kelo.predictHitPos2HR",
    "com.vorn.Kelo.predictHitNone",
};

const char* const kCumuPrewarmZoneKeys[AppLaunchStatsCumu::kZoneCount] = {
    "com.vorn.Kelo.prewarmHitNeg2HR", "com.vorn.Kelo.prewarmHitNeg1HR",
    "com.vorn.Kelo.prewarmHitNeg30M", "com.vorn.Kelo.prewarmHitNeg15M",
    "com.vorn.Kelo.prewarmHitPos15M", "com.vorn.Kelo.prewarmHitPos30M",
    "com.vorn.Kelo.prewarmHitPos1HR", "com.vorn.Kelo.prewarmHitPos2HR",
    "com.vorn.Kelo.prewarmHitNone",
};

}  // namespace kelo
