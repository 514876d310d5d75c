/* The C logging front: the way every diagnostic line enters the two loggers.
 *
 * Lines are formatted into a 512-byte buffer on the caller's stack (cut to 511 bytes) and
 * written at system-log level 6 by a synchronous call to the logger's queue, so none of these
 * may be called from a task running on a logger's own queue (a data source's dump callback).
 * While the chosen logger is off, nothing is formatted and nothing is written.
 *
 * KELO_CLOG, KELO_CLOG_MASK and KELO_ConsoleLog are also function-like macros that test a
 * one-byte gate inline before calling the function of the same name: with logging off a call
 * costs one relaxed load and its arguments are not evaluated. The gates are open until the
 * loggers exist (so the first call creates them), then follow "the detailed logger takes lines"
 * (kelo_clog_gate) and "either logger takes lines" (kelo_clog_mask_gate). A logger takes lines
 * while it can write and while a switch-on is on its way to its queue. The functions test the
 * loggers themselves as well, so calling them directly, as (KELO_CLOG)(...), behaves the same.
 *
 * A line written by these functions is in its file when the call returns, so everything logged
 * before the process exits (a return from main, exit()) is kept, with no call to flush. */
#ifndef KELO_LOGGING_H_
#define KELO_LOGGING_H_

#include <stdbool.h>
#include <stdint.h>

#include "kelo/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Written by the library only. */
extern KELO_EXPORT unsigned char kelo_clog_gate;
extern KELO_EXPORT unsigned char kelo_clog_mask_gate;

/* Switches the detailed logger's file on or off. Returns at once; the switch runs later on the
 * logger's queue, and lines logged after a switch-on wait for it there, so none is lost to that
 * race (unless the file cannot be opened). The simple logger is not switched here. */
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

/* The macros name the functions inside their own expansion, which the preprocessor does not
 * expand again: that is the real call. */
#define KELO_CLOG(...) \
  (__atomic_load_n(&kelo_clog_gate, __ATOMIC_RELAXED) ? KELO_CLOG(__VA_ARGS__) : (void)0)
#define KELO_CLOG_MASK(...)                                                              \
  (__atomic_load_n(&kelo_clog_mask_gate, __ATOMIC_RELAXED) ? KELO_CLOG_MASK(__VA_ARGS__) \
                                                           : (void)0)
#define KELO_ConsoleLog(message) \
  (__atomic_load_n(&kelo_clog_gate, __ATOMIC_RELAXED) ? KELO_ConsoleLog(message) : (void)0)

#endif /* KELO_LOGGING_H_ */
