/* Configuration lookup from C. */
#ifndef KELO_CONFIG_H_
#define KELO_CONFIG_H_

#include "kelo/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The integer reading of the configuration value stored under `key` (a NUL-terminated UTF-8
 * string); -1 when no source supplied the key. A key that is not valid UTF-8 yields 0, without
 * a lookup and without a log line. Callable from any thread. */
KELO_EXPORT long long getStateForC(const char* key);

#ifdef __cplusplus
}
#endif

#endif /* KELO_CONFIG_H_ */
