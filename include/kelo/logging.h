/* The C logging front: the way every diagnostic line enters the two loggers.
 *
 * Lines are formatted into a 512-byte buffer on the caller's stack (cut to 511 bytes) and
 * written at system-log level 6 by a synchronous call to the logger's queue, so none of these
 * may be called from a task running on a logger's own queue (a data source's dump callback).
 * While the chosen logger is off, nothing is formatted and nothing is written. */
#ifndef KELO_LOGGING_H_
#define KELO_LOGGING_H_

#include <stdbool.h>
#include <stdint.h>

#include "kelo/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Switches the detailed logger's file on or off. Returns at once; the switch runs later on the
 * logger's queue, so a line logged straight afterwards may still be dropped. The simple logger
 * is not switched here. */
KELO_EXPORT void KELO_CLOGMODE(bool mode);

/* Formats one line and writes it to the detailed logger if it can write. */
KELO_EXPORT void KELO_CLOG(const char* format, ...) __attribute__((format(printf, 1, 2)));

/* Formats one line and writes it to each logger the mask selects (bit 0 detailed, bit 1 simple)
 * that can write; detailed first. */
KELO_EXPORT void KELO_CLOG_MASK(uint64_t mask, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

/* Writes the message as it stands (never as a format) to the detailed logger if it can write. */
KELO_EXPORT void KELO_ConsoleLog(const char* message);

#ifdef __cplusplus
}
#endif

#endif /* KELO_LOGGING_H_ */
