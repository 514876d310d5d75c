/* Energy accounting from C. Amounts are milliwatt-hours. Update types: 1 fetch, 2 push,
 * 3 silent push, 4 background download, 5 non-discretionary download.
 *
 * The readings block until the energy service's queue has run them; the others return at once.
 * None of them may be called from a task of the energy service's own queue. */
#ifndef KELO_ENERGY_H_
#define KELO_ENERGY_H_

#include <stdint.h>

#include "kelo/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Energy that non-discretionary downloads consumed since the previous such reading. */
KELO_EXPORT int64_t energyConsumedForNonDiscDownload(void);
/* Energy that background downloads consumed since the previous such reading. */
KELO_EXPORT int64_t energyConsumedForBackgroundDownload(void);
/* Asks the power monitor for its energy report and charges the budget pools (asynchronous). */
KELO_EXPORT void energyConsumedRefresh(void);
/* Tells the power monitor that background work of `bundleId` (UTF-8) started or stopped. */
KELO_EXPORT void energyStartLogging(const char* bundleId, int16_t type, uint64_t seqNum);
KELO_EXPORT void energyStopLogging(const char* bundleId, int16_t type, uint64_t seqNum);

#ifdef __cplusplus
}
#endif

#endif /* KELO_ENERGY_H_ */
