// The exported C logging functions. Their names are also macros of kelo/logging.h, hence the
// parentheses around each name below.
#include <stdarg.h>
#include <string.h>

#include <cstdio>
#include <string>

#include "kelo/KeloLogger.h"
#include "kelo/logging.h"
#include "logging/Gates.h"
#include "logging/LoggerTasks.h"

extern "C" {
KELO_EXPORT unsigned char kelo_clog_gate = 1;
KELO_EXPORT unsigned char kelo_clog_mask_gate = 1;
}

namespace kelo::logging {

void setGates(bool detailed, bool either) {
  __atomic_store_n(&kelo_clog_gate, static_cast<unsigned char>(detailed), __ATOMIC_RELAXED);
  __atomic_store_n(&kelo_clog_mask_gate, static_cast<unsigned char>(either), __ATOMIC_RELAXED);
}

}  // namespace kelo::logging

namespace {

constexpr size_t kLineSize = 512;

// The line as vsnprintf makes it, cut to the buffer; false when the format cannot be applied.
__attribute__((format(printf, 2, 0))) bool formatInto(char (&line)[kLineSize], const char* format,
                                                      va_list args) {
  return std::vsnprintf(line, kLineSize, format, args) >= 0;
}

}  // namespace

using kelo::KeloLogger;
using kelo::logging::LoggerTasks;

// Nothing may escape into C callers: a failure to create the loggers (out of memory, no thread)
// drops the line, as a logger that cannot write does.

extern "C" void(KELO_CLOGMODE)(bool mode) {
  try {
    KeloLogger::instance()->setLoggingMode(mode);
  } catch (...) {
  }
}

extern "C" void(KELO_CLOG)(const char* format, ...) {
  try {
    KeloLogger* const detailed = KeloLogger::instance();
    if (!LoggerTasks::acceptsLines(*detailed) || format == nullptr) return;
    char line[kLineSize];
    va_list args;
    va_start(args, format);
    const bool formatted = formatInto(line, format, args);
    va_end(args);
    if (!formatted) return;
    // The line written from this frame: see logging/LoggerTasks.h.
    kelo::logging::LoggerTasks::writeLine(*detailed, 6, line, strlen(line));
  } catch (...) {
  }
}

extern "C" void(KELO_CLOG_MASK)(uint64_t mask, const char* format, ...) {
  try {
    const bool detailedOn = LoggerTasks::acceptsLines(*KeloLogger::instance());
    const KeloLogger* simple = KeloLogger::instance(1);
    const bool simpleOn = simple != nullptr && LoggerTasks::acceptsLines(*simple);
    // The mask is not consulted yet: a line for a logger that is off is formatted and dropped.
    if ((!detailedOn && !simpleOn) || format == nullptr) return;
    char line[kLineSize];
    va_list args;
    va_start(args, format);
    const bool formatted = formatInto(line, format, args);
    va_end(args);
    if (!formatted) return;
    if (KeloLogger* detailed = KeloLogger::instance(0);
        detailed != nullptr && LoggerTasks::acceptsLines(*detailed) && (mask & 1) != 0) {
      detailed->logToFileCString(line);
    }
    if (KeloLogger* again = KeloLogger::instance(1);
        again != nullptr && LoggerTasks::acceptsLines(*again) && (mask & 2) != 0) {
      again->logToFileCString(line);
    }
  } catch (...) {
  }
}

extern "C" void(KELO_ConsoleLog)(const char* message) {
  try {
    if (!LoggerTasks::acceptsLines(*KeloLogger::instance()) || message == nullptr) return;
    KeloLogger::instance()->logToFile(message);
  } catch (...) {
  }
}
