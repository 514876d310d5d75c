// Named notifications with a 64-bit state, shared by unrelated processes of one machine without
// a daemon.
//
// Each name is one 16-byte state file under devicePath("/run/kelo/notify/") holding the state
// word and a post generation. A file only its trusted owner may write is mapped shared and its
// state read and set with atomic loads and stores; a file others may write is never mapped, only
// read with pread(2) and written with pwrite(2), so that no other process can fault a reader or
// writer by truncating it (see NotifyStateFile.h). Setting the state leaves the generation alone,
// so it wakes nobody. A post writes a new generation with one pwrite(2); every process that
// registered a handler for the name has one watcher thread (started by its first registration)
// that sees the write through inotify and, finding the generation changed, delivers the handler
// on the registration's queue (on the watcher thread itself when that queue is idle). Posts that
// arrive before a handler has run coalesce into one delivery; the handler reads the latest state
// with notify_get_state. A lost inotify queue is recovered by re-reading the generation of every
// registered name.
//
// Who may post is decided by the notification folder: the caller must be allowed to write the
// folder (by its owner and mode) and to open the name's file for writing; the file must be a
// regular file (links are not followed) owned by the caller or by the folder's owner. A missing
// folder is created (0755, with its parents); a missing file is created with the folder's
// permission bits minus execute, so that exactly those who may write the folder may post: with
// the installed folder (0755, root's) only root posts. A file others may write that is shrunk or
// emptied reads as zeros.
//
// After fork(2), the child keeps its check registrations and drops its dispatch ones (it has no
// watcher thread); a new dispatch registration starts its own.
//
// Every function is thread-safe, never throws and returns kNotifyStatusOk or a non-zero status.
// No lock is held while a handler runs.
#ifndef KELO_PLATFORM_NOTIFY_H_
#define KELO_PLATFORM_NOTIFY_H_

#include <cstddef>
#include <cstdint>
#include <functional>

#include "platform/SerialQueue.h"

namespace kelo::platform {

inline constexpr uint32_t kNotifyStatusOk = 0;
// An I/O step failed (the folder could not be made, a read or write failed).
inline constexpr uint32_t kNotifyStatusFailed = 1000000;
// The name is empty, too long, contains '/', or is "." or "..".
inline constexpr uint32_t kNotifyStatusInvalidName = 1000001;
// The token is not (or no longer) registered, or is of the wrong kind for the call.
inline constexpr uint32_t kNotifyStatusInvalidToken = 1000002;
// The caller may not write the folder or the file, or the file is a link, not a regular file, or
// owned by a stranger.
inline constexpr uint32_t kNotifyStatusNotAuthorized = 1000003;
// A null pointer or a null queue or handler was passed.
inline constexpr uint32_t kNotifyStatusInvalidArgument = 1000004;

// Names longer than this are refused.
inline constexpr std::size_t kNotifyMaxNameLength = 255;

// Opens `name` for setting its state and posting it (creating its file if needed); *outToken
// receives a token for notify_set_state / notify_get_state / notify_cancel. Fails when the caller
// may not post the name. The process keeps the file open for later checks and posts of the same
// name (it is checked again with fstat(2) each time), so the right to post is decided when the
// process first opens the name. Blocks only on the file system.
uint32_t notify_register_check(const char* name, int* outToken);

// Stores `state` as the name's state word: an atomic store into the mapping, or one pwrite(2)
// for a file others may write. Wakes nobody. Fails for a token whose
// file is not writable.
uint32_t notify_set_state(int token, uint64_t state);

// The name's current state word (0 for a name never set, or for a file cut short). Works for check
// and dispatch tokens.
uint32_t notify_get_state(int token, uint64_t* outState);

// Wakes every registration of `name` in every process: one pwrite(2) of a new post generation
// to the name's file (opened, or reused, as by notify_register_check).
uint32_t notify_post(const char* name);

// Ends a registration and closes its file. A delivery already queued for a dispatch token is
// dropped; a handler already running finishes.
uint32_t notify_cancel(int token);

// Registers `handler` for posts of `name`; each delivery runs serialised on `queue` (which must
// outlive the registration) and receives the token. Needs read access to the name's file, which
// is created when the caller may create it. Starts the process's watcher thread on first use.
uint32_t notify_register_dispatch(const char* name, int* outToken, SerialQueue* queue,
                                  std::function<void(int token)> handler);

}  // namespace kelo::platform

#endif  // KELO_PLATFORM_NOTIFY_H_
