// The Linux port of the system log service: lines are formatted here and written straight into
// the attached descriptors, one write(2) per descriptor and line.
#include <errno.h>
#include <stdarg.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <map>
#include <mutex>
#include <new>
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
  size_t cachedDateLength = 0;
};

namespace {

constexpr int kLevelCount = 8;
constexpr int kAllLevels = (1 << kLevelCount) - 1;
constexpr std::string_view kLevelNames[kLevelCount] = {
    "<Emergency>: ", "<Alert>: ", "<Critical>: ", "<Error>: ",
    "<Warning>: ",   "<Notice>: ", "<Info>: ",    "<Debug>: "};

// Room for a typical line without touching the heap; longer ones fall back to a string.
constexpr size_t kStackLine = 1024;

// A growable output buffer that starts on the caller's stack.
class LineBuffer {
 public:
  LineBuffer() = default;
  LineBuffer(const LineBuffer&) = delete;
  LineBuffer& operator=(const LineBuffer&) = delete;

  void append(const char* data, size_t size) {
    if (heap_.empty() && length_ + size <= kStackLine) {
      memcpy(stack_ + length_, data, size);
      length_ += size;
      return;
    }
    if (heap_.empty()) heap_.assign(stack_, length_);
    heap_.append(data, size);
    length_ = heap_.size();
  }
  void append(char c) { append(&c, 1); }

  const char* data() const { return heap_.empty() ? stack_ : heap_.data(); }
  size_t size() const { return length_; }

 private:
  char stack_[kStackLine];
  size_t length_ = 0;
  std::string heap_;
};

// True when one of the eight bytes is below 0x20 or is 0x7f (exact, bytes from 0x80 included):
// lines rarely hold a control character, so they are scanned a word at a time.
inline bool wordHasControl(uint64_t w) {
  constexpr uint64_t kOnes = 0x0101010101010101ULL;
  constexpr uint64_t kHigh = 0x8080808080808080ULL;
  const uint64_t below = (w - kOnes * 0x20) & ~w & kHigh;
  const uint64_t del = w ^ (kOnes * 0x7f);
  return ((below | ((del - kOnes) & ~del & kHigh))) != 0;
}

// Control characters would split or garble the line: the common ones become their C escapes,
// the others \xNN. Bytes from 0x80 up are UTF-8 and pass untouched.
void appendEscaped(LineBuffer& out, const char* text, size_t size) {
  static constexpr char kHex[] = "0123456789abcdef";
  size_t runStart = 0;
  size_t i = 0;
  while (i < size) {
    if (i + sizeof(uint64_t) <= size) {
      uint64_t word;
      memcpy(&word, text + i, sizeof word);
      if (!wordHasControl(word)) {
        i += sizeof word;
        continue;
      }
    }
    const unsigned char c = static_cast<unsigned char>(text[i]);
    ++i;
    if (c >= 0x20 && c != 0x7f) continue;
    out.append(text + runStart, i - 1 - runStart);
    runStart = i;
    switch (c) {
      case '\n':
        out.append("\\n", 2);
        break;
      case '\t':
        out.append("\\t", 2);
        break;
      case '\r':
        out.append("\\r", 2);
        break;
      default: {
        const char escaped[4] = {'\\', 'x', kHex[c >> 4], kHex[c & 0xf]};
        out.append(escaped, sizeof escaped);
      }
    }
  }
  out.append(text + runStart, size - runStart);
}

void appendTimeStamp(vsl_client_s& client, LineBuffer& out) {
  double t = kelo::platform::now();
  if (!std::isfinite(t) || t < -1e15 || t > 1e15) t = 0;
  long long second = static_cast<long long>(t);  // toward zero; floor below
  if (static_cast<double>(second) > t) --second;
  const double whole = static_cast<double>(second);
  long micros = static_cast<long>((t - whole) * 1e6);
  if (micros < 0) micros = 0;
  if (micros > 999999) micros = 999999;

  if (!client.cacheValid || client.cachedSecond != second) {
    const time_t asTime = static_cast<time_t>(second);
    struct tm utc;
    int n = -1;
    if (gmtime_r(&asTime, &utc) != nullptr && utc.tm_year + 1900 >= 0 &&
        utc.tm_year + 1900 <= 9999) {
      n = snprintf(client.cachedDate, sizeof client.cachedDate, "%04d-%02d-%02d %02d:%02d:%02d.",
                   utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min,
                   utc.tm_sec);
    }
    if (n <= 0 || static_cast<size_t>(n) >= sizeof client.cachedDate) {
      n = snprintf(client.cachedDate, sizeof client.cachedDate, "0000-00-00 00:00:00.");
    }
    client.cachedDateLength = static_cast<size_t>(n);
    client.cachedSecond = second;
    client.cacheValid = true;
  }
  out.append(client.cachedDate, client.cachedDateLength);
  char digits[6];
  for (int i = 5; i >= 0; --i) {
    digits[i] = static_cast<char>('0' + micros % 10);
    micros /= 10;
  }
  out.append(digits, sizeof digits);
  out.append(" +0000", 6);
}

// Writes the whole buffer: a write interrupted by a signal is retried and a short one completed.
// Any other failure drops the rest of the line, since the caller must never be stopped by it.
// Returns the number of bytes written.
size_t writeFully(int fd, const char* data, size_t size) {
  kelo::platform::FileSystem& files = kelo::platform::fileSystem();
  size_t written = 0;
  while (written < size) {
    const ssize_t n = files.write(fd, data + written, size - written);
    if (n < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (n == 0) break;
    written += static_cast<size_t>(n);
  }
  return written;
}

bool levelPasses(int level, int mask) {
  return level >= 0 && level < kLevelCount && (mask & (1 << level)) != 0;
}

void writeLine(vsl_client_s& client, int level, const char* text, size_t textSize) {
  LineBuffer line;
  appendTimeStamp(client, line);
  line.append(client.process.data(), client.process.size());
  line.append(kLevelNames[level].data(), kLevelNames[level].size());
  appendEscaped(line, text, textSize);
  line.append('\n');
  for (vsl_client_s::Output& o : client.outputs) {
    if (!levelPasses(level, o.mask)) continue;
    if (o.torn) {
      if (writeFully(o.fd, "\n", 1) != 1) continue;  // still no room: this line is dropped too
      o.torn = false;
    }
    const size_t written = writeFully(o.fd, line.data(), line.size());
    o.torn = written > 0 && written < line.size();
  }
}

// Kept out of the plain "%s" path, so that path's frame stays small.
__attribute__((noinline, format(printf, 3, 0))) int formatLine(vsl_client_s& client, int level,
                                                                const char* format,
                                                                va_list args) {
  va_list again;
  va_copy(again, args);
  char formatted[kStackLine];
  const int n = vsnprintf(formatted, sizeof formatted, format, args);
  if (n < 0) {
    va_end(again);
    return -1;
  }
  if (static_cast<size_t>(n) < sizeof formatted) {
    va_end(again);
    writeLine(client, level, formatted, static_cast<size_t>(n));
    return 0;
  }
  std::string longText(static_cast<size_t>(n) + 1, '\0');
  vsnprintf(longText.data(), longText.size(), format, again);
  va_end(again);
  writeLine(client, level, longText.data(), static_cast<size_t>(n));
  return 0;
}

__attribute__((format(printf, 3, 0))) int logLine(vsl_client_t client, int level,
                                                const char* format, va_list args) {
  if (client == nullptr || format == nullptr) return -1;
  bool wanted = false;
  for (const vsl_client_s::Output& o : client->outputs) wanted = wanted || levelPasses(level, o.mask);
  if (!wanted) return 0;
  // The loggers always pass "%s": take the argument as it is instead of formatting it.
  if (format[0] == '%' && format[1] == 's' && format[2] == '\0') {
    const char* text = va_arg(args, const char*);
    if (text == nullptr) text = "(null)";
    writeLine(*client, level, text, strlen(text));
    return 0;
  }
  return formatLine(*client, level, format, args);
}

}  // namespace

extern "C" {

vsl_client_t vsl_open(const char* ident, const char* facility, uint32_t options) {
  try {
    auto* client = new vsl_client_s();
    client->ident = ident != nullptr ? ident : "";
    client->facility = facility != nullptr ? facility : "";
    client->options = options;
    client->process = " " + client->ident + "[" + std::to_string(::getpid()) + "] ";
    return client;
  } catch (...) {
    return nullptr;
  }
}

vsl_msg_t vsl_new(uint32_t type) {
  // A message carries nothing but its type, and callers drop handles without freeing them: one
  // immortal message per type keeps repeated openings from growing the heap.
  static std::mutex* mutex = new std::mutex();
  static auto* messages = new std::map<uint32_t, vsl_msg_s*>();
  try {
    std::lock_guard<std::mutex> lock(*mutex);
    vsl_msg_s*& message = (*messages)[type];
    if (message == nullptr) message = new vsl_msg_s{type};
    return message;
  } catch (...) {
    return nullptr;
  }
}

int vsl_add_log_file(vsl_client_t client, int fd) {
  if (client == nullptr) return -1;
  for (const vsl_client_s::Output& o : client->outputs) {
    if (o.fd == fd) return 0;
  }
  try {
    client->outputs.push_back({fd, kAllLevels});
  } catch (...) {
    return -1;
  }
  return 0;
}

int vsl_set_output_file_filter(vsl_client_t client, int fd, int mask) {
  if (client == nullptr) return -1;
  for (vsl_client_s::Output& o : client->outputs) {
    if (o.fd == fd) {
      o.mask = mask;
      return 0;
    }
  }
  return -1;
}

int vsl_log(vsl_client_t client, vsl_msg_t msg, int level, const char* format, ...) {
  (void)msg;
  va_list args;
  va_start(args, format);
  int result;
  try {
    result = logLine(client, level, format, args);
  } catch (...) {
    result = -1;
  }
  va_end(args);
  return result;
}

void vsl_close(vsl_client_t client) { delete client; }

}  // extern "C"
