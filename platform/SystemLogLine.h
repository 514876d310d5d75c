// The system log's client and the writing of one plain line, shared by the vsl_* functions and the
// loggers' hot path.
//
// The common line (printable text that fits on the stack) is written from the caller's own frame:
// once write(2) returns, every frame left to unwind costs a mispredicted return, since the
// kernel's call chain has overwritten the processor's return predictions. Hence the forced
// inlining down to the system call, and the out-of-line helpers for everything that returns
// before it.
#ifndef KELO_PLATFORM_SYSTEMLOGLINE_H_
#define KELO_PLATFORM_SYSTEMLOGLINE_H_

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kelo/vsl.h"
#include "platform/Facts.h"

struct vsl_msg_s {
  uint32_t type;
};

struct vsl_client_s {
  struct Output {
    int fd;
    int mask;
    // The last line was cut short by a failed write (a full disk): the next line first ends it,
    // so that it is not glued to the fragment.
    bool torn = false;
  };
  std::string ident;
  std::string facility;
  uint32_t options = 0;
  std::string process;  // " ident[pid] ", fixed at vsl_open
  std::vector<Output> outputs;
  // The formatted "YYYY-MM-DD HH:MM:SS." of `cachedSecond`: most lines fall in the same second
  // as the previous one, and calendar conversion is the costly part of a time stamp.
  long long cachedSecond = 0;
  bool cacheValid = false;
  char cachedDate[32] = {};
};

namespace kelo::platform::vsl {

#define KELO_VSL_INLINE __attribute__((always_inline)) inline

constexpr int kLevelCount = 8;
constexpr std::string_view kLevelNames[kLevelCount] = {
    "<Emergency>: ", "<Alert>: ",  "<Critical>: ", "<Error>: ",
    "<Warning>: ",   "<Notice>: ", "<Info>: ",     "<Debug>: "};

// Room for a typical line without touching the heap; longer ones fall back to a string.
constexpr size_t kStackLine = 1024;

// A time stamp is always "YYYY-MM-DD HH:MM:SS.uuuuuu +0000": the date part, cached per second,
// then the microseconds and the zone.
constexpr size_t kDateLength = 20;
constexpr size_t kTimeStampLength = kDateLength + 12;

// Writes the current time stamp into `out`, kTimeStampLength bytes.
void formatTimeStamp(vsl_client_s& client, char* out);
// The position of the first control character in text[from, size), or size.
size_t findControl(const char* text, size_t from, size_t size);
// A line with control characters to escape, or too long for the stack.
void writeEscapedLine(vsl_client_s& client, int level, const char* text, size_t size);

inline bool levelPasses(int level, int mask) {
  return level >= 0 && level < kLevelCount && (mask & (1 << level)) != 0;
}

// Writes the whole buffer: a write interrupted by a signal is retried and a short one completed.
// Any other failure drops the rest of the line, since the caller must never be stopped by it.
// Returns the number of bytes written.
KELO_VSL_INLINE size_t writeFully(int fd, const char* data, size_t size) {
  FileSystem* const installed = installedFileSystem();
  size_t written = 0;
  while (written < size) {
    const ssize_t n = installed != nullptr ? installed->write(fd, data + written, size - written)
                                           : ::write(fd, data + written, size - written);
    if (n < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (n == 0) break;
    written += static_cast<size_t>(n);
  }
  return written;
}

KELO_VSL_INLINE void writeOutputs(vsl_client_s& client, int level, const char* line, size_t size) {
  for (vsl_client_s::Output& o : client.outputs) {
    if (!levelPasses(level, o.mask)) continue;
    if (o.torn) {
      if (writeFully(o.fd, "\n", 1) != 1) continue;  // still no room: this line is dropped too
      o.torn = false;
    }
    const size_t written = writeFully(o.fd, line, size);
    o.torn = written > 0 && written < size;
  }
}

// One line of `text` (any bytes) at `level` to every output whose mask holds the level.
KELO_VSL_INLINE void writeLine(vsl_client_s& client, int level, const char* text, size_t textSize) {
  const std::string_view levelName = kLevelNames[level];
  const std::string_view process = client.process;
  const size_t fixed = kTimeStampLength + process.size() + levelName.size() + 1;
  if (fixed > kStackLine || textSize > kStackLine - fixed ||
      findControl(text, 0, textSize) != textSize) {
    writeEscapedLine(client, level, text, textSize);
    return;
  }
  char line[kStackLine];
  formatTimeStamp(client, line);
  char* p = line + kTimeStampLength;
  memcpy(p, process.data(), process.size());
  p += process.size();
  memcpy(p, levelName.data(), levelName.size());
  p += levelName.size();
  memcpy(p, text, textSize);
  p += textSize;
  *p++ = '\n';
  writeOutputs(client, level, line, static_cast<size_t>(p - line));
}

// vsl_log(client, msg, level, "%s", text) for a text of known length: -1 without a client, 0
// otherwise (also when no output takes the level).
KELO_VSL_INLINE int logText(vsl_client_t client, int level, const char* text, size_t size) {
  if (client == nullptr) return -1;
  bool wanted = false;
  for (const vsl_client_s::Output& o : client->outputs)
    wanted = wanted || levelPasses(level, o.mask);
  if (!wanted) return 0;
  if (text == nullptr) {
    text = "(null)";
    size = 6;
  }
  writeLine(*client, level, text, size);
  return 0;
}

}  // namespace kelo::platform::vsl

#endif  // KELO_PLATFORM_SYSTEMLOGLINE_H_
