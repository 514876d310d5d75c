/* Cross-process download reports. Callable from any thread of any process; the statistics
 * collector of the scheduling daemon receives them once its first prediction cycle started.
 * A report carries its data amount in 44 bits and its energy in 16 bits; higher bits are lost. */
#ifndef KELO_STATS_H_
#define KELO_STATS_H_

#include <stdint.h>

#include "kelo/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Posts one report of `type` (1 background download, 2 non-discretionary download). */
KELO_EXPORT void reportCumu(int64_t type, int64_t data, int64_t energy);
KELO_EXPORT void reportCumuBackgroundDownload(int64_t data, int64_t energy);
KELO_EXPORT void reportCumuNonDiscretionaryBackgroundDownload(int64_t data, int64_t energy);

#ifdef __cplusplus
}
#endif

#endif /* KELO_STATS_H_ */
