/* The system log service: a client with an identity and a facility, files attached to it with a
 * level mask each, and one line per vsl_log call written with a single write(2) to every attached
 * file whose mask holds the level's bit (1 << level). Data sources of the loggers write their dump
 * lines through the client and message handles they are given.
 *
 * Line layout: "2026-11-21 10:56:00.123456 +0000 ident[pid] <Info>: text". Control characters
 * in the text are escaped, so one call is always one line. A failed write is retried on EINTR,
 * completed when short, and otherwise dropped: it never stops the caller. A line cut short that
 * way (a full disk) is ended with a newline before the next line to that file.
 *
 * A client is not thread-safe: use it from one thread at a time (the loggers use it on their
 * queue). Handles are owned by the caller; vsl_close frees a client, and a message handle lives
 * until the process ends. */
#ifndef KELO_VSL_H_
#define KELO_VSL_H_

#include <stdint.h>

#include "kelo/export.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vsl_client_s* vsl_client_t;
typedef struct vsl_msg_s* vsl_msg_t;

enum { VSL_OPT_NO_DELAY = 2 };
enum { VSL_TYPE_MSG = 0 };
enum { VSL_LEVEL_INFO = 6, VSL_LEVEL_DEBUG = 7 };

/* A new client, or NULL when out of memory. `ident` and `facility` are copied. */
KELO_EXPORT vsl_client_t vsl_open(const char* ident, const char* facility, uint32_t options);
/* A new message template of `type`, or NULL when out of memory. */
KELO_EXPORT vsl_msg_t vsl_new(uint32_t type);
/* Attaches `fd` with the default mask (every level). Returns 0, or -1 for a NULL client. */
KELO_EXPORT int vsl_add_log_file(vsl_client_t client, int fd);
/* Sets the level mask of an attached `fd`. Returns 0, or -1 if `fd` is not attached. */
KELO_EXPORT int vsl_set_output_file_filter(vsl_client_t client, int fd, int mask);
/* Formats and writes one line. Returns 0, or -1 for a NULL client or format. */
KELO_EXPORT int vsl_log(vsl_client_t client, vsl_msg_t msg, int level, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
/* Frees the client. The attached descriptors stay open: they belong to the caller. */
KELO_EXPORT void vsl_close(vsl_client_t client);

#ifdef __cplusplus
}
#endif

#endif /* KELO_VSL_H_ */
