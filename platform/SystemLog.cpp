// The Linux port of the system log service: lines are formatted here and written straight into
// the attached descriptors, one write(2) per descriptor and line.
#include <errno.h>
#include <stdarg.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <cstdio>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "kelo/vsl.h"
#include "platform/Facts.h"
#include "platform/SystemLogLine.h"

namespace kelo::platform::vsl {

namespace {

// A growable output buffer that starts on the caller's stack.
class LineBuffer {
 public:
  LineBuffer() = default;
  LineBuffer(const LineBuffer&) = delete;
  LineBuffer& operator=(const LineBuffer&) = delete;

  void append(const char* data, size_t size) {
    if (__builtin_expect(onStack_ && length_ + size <= kStackLine, 1)) {
      memcpy(stack_ + length_, data, size);
      length_ += size;
      return;
    }
    appendToHeap(data, size);
  }
  void append(char c) { append(&c, 1); }

  const char* data() const { return onStack_ ? stack_ : heap_.data(); }
  size_t size() const { return length_; }

 private:
  __attribute__((noinline)) void appendToHeap(const char* data, size_t size) {
    if (onStack_) {
      heap_.assign(stack_, length_);
      onStack_ = false;
    }
    heap_.append(data, size);
    length_ = heap_.size();
  }

  char stack_[kStackLine];
  size_t length_ = 0;
  bool onStack_ = true;
  std::string heap_;
};

// The positions of control characters (below 0x20, and 0x7f) among the 16 bytes at `p`, one bit
// each; bytes from 0x80 up are not control characters. Lines rarely hold one, so they are
// scanned 16 bytes at a time.
inline uint32_t controlBits16(const char* p) {
#if defined(__SSE2__)
  const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
  const __m128i printable = _mm_cmpeq_epi8(_mm_max_epu8(x, _mm_set1_epi8(0x20)), x);
  const __m128i del = _mm_cmpeq_epi8(x, _mm_set1_epi8(0x7f));
  return (~static_cast<uint32_t>(_mm_movemask_epi8(printable)) & 0xffffu) |
         static_cast<uint32_t>(_mm_movemask_epi8(del));
#else
  uint32_t bits = 0;
  for (int i = 0; i < 16; ++i) {
    const auto c = static_cast<unsigned char>(p[i]);
    if (c < 0x20 || c == 0x7f) bits |= 1u << i;
  }
  return bits;
#endif
}

inline bool isControl(unsigned char c) { return c < 0x20 || c == 0x7f; }

}  // namespace

size_t findControl(const char* text, size_t from, size_t size) {
  size_t i = from;
  for (; i + 16 <= size; i += 16) {
    if (const uint32_t bits = controlBits16(text + i); bits != 0) {
      return i + static_cast<size_t>(__builtin_ctz(bits));
    }
  }
  if (i == size) return size;
  if (size >= 16) {
    // The last 16 bytes, overlapping what was scanned already.
    const size_t base = size - 16;
    const uint32_t bits = controlBits16(text + base) & (~0u << (i - base));
    return bits != 0 ? base + static_cast<size_t>(__builtin_ctz(bits)) : size;
  }
  for (; i < size; ++i) {
    if (isControl(static_cast<unsigned char>(text[i]))) return i;
  }
  return size;
}

namespace {

// Control characters would split or garble the line: the common ones become their C escapes,
// the others \xNN. Bytes from 0x80 up are UTF-8 and pass untouched.
void appendEscaped(LineBuffer& out, const char* text, size_t size) {
  static constexpr char kHex[] = "0123456789abcdef";
  size_t runStart = 0;
  for (size_t at = findControl(text, 0, size); at < size; at = findControl(text, runStart, size)) {
    out.append(text + runStart, at - runStart);
    runStart = at + 1;
    const unsigned char c = static_cast<unsigned char>(text[at]);
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

}  // namespace

void formatTimeStamp(vsl_client_s& client, char* out) {
  const kelo::platform::WallTime now = kelo::platform::wallTime();
  if (!client.cacheValid || client.cachedSecond != now.seconds) {
    const time_t asTime = static_cast<time_t>(now.seconds);
    struct tm utc;
    int n = -1;
    if (gmtime_r(&asTime, &utc) != nullptr && utc.tm_year + 1900 >= 0 &&
        utc.tm_year + 1900 <= 9999) {
      n = snprintf(client.cachedDate, sizeof client.cachedDate, "%04d-%02d-%02d %02d:%02d:%02d.",
                   utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min,
                   utc.tm_sec);
    }
    if (n != static_cast<int>(kDateLength)) {
      snprintf(client.cachedDate, sizeof client.cachedDate, "0000-00-00 00:00:00.");
    }
    client.cachedSecond = now.seconds;
    client.cacheValid = true;
  }
  memcpy(out, client.cachedDate, kDateLength);
  char* p = out + kDateLength;
  unsigned micros = static_cast<unsigned>(now.micros);
  for (int i = 5; i >= 0; --i) {
    p[i] = static_cast<char>('0' + micros % 10);
    micros /= 10;
  }
  memcpy(p + 6, " +0000", 6);
}

void writeEscapedLine(vsl_client_s& client, int level, const char* text, size_t textSize) {
  LineBuffer line;
  char stamp[kTimeStampLength];
  formatTimeStamp(client, stamp);
  line.append(stamp, sizeof stamp);
  line.append(client.process.data(), client.process.size());
  line.append(kLevelNames[level].data(), kLevelNames[level].size());
  appendEscaped(line, text, textSize);
  line.append('\n');
  writeOutputs(client, level, line.data(), line.size());
}

namespace {

// writeLine for the formatting path, which has frames enough already.
__attribute__((noinline)) void writeFormattedLine(vsl_client_s& client, int level, const char* text,
                                                  size_t textSize) {
  writeLine(client, level, text, textSize);
}

// Kept out of the plain "%s" path, so that path's frame stays small.
__attribute__((noinline, format(printf, 3, 0))) int formatLine(vsl_client_s& client, int level,
                                                               const char* format, va_list args) {
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
    writeFormattedLine(client, level, formatted, static_cast<size_t>(n));
    return 0;
  }
  std::string longText(static_cast<size_t>(n) + 1, '\0');
  vsnprintf(longText.data(), longText.size(), format, again);
  va_end(again);
  writeFormattedLine(client, level, longText.data(), static_cast<size_t>(n));
  return 0;
}

__attribute__((always_inline, format(printf, 3, 0))) inline int logLine(vsl_client_t client,
                                                                        int level,
                                                                        const char* format,
                                                                        va_list args) {
  if (format == nullptr) return -1;
  // The loggers always pass "%s": take the argument as it is instead of formatting it.
  if (format[0] == '%' && format[1] == 's' && format[2] == '\0') {
    const char* text = va_arg(args, const char*);
    return logText(client, level, text, text != nullptr ? strlen(text) : 0);
  }
  if (client == nullptr) return -1;
  bool wanted = false;
  for (const vsl_client_s::Output& o : client->outputs)
    wanted = wanted || levelPasses(level, o.mask);
  if (!wanted) return 0;
  return formatLine(*client, level, format, args);
}

}  // namespace

}  // namespace kelo::platform::vsl

namespace {
constexpr int kAllLevels = (1 << kelo::platform::vsl::kLevelCount) - 1;
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
    result = kelo::platform::vsl::logLine(client, level, format, args);
  } catch (...) {
    result = -1;
  }
  va_end(args);
  return result;
}

void vsl_close(vsl_client_t client) { delete client; }

}  // extern "C"
