// The work of a logger's queue. A friend of KeloLogger rather than private members, so that none
// of it is exported with the class. Private to the logging code.
#ifndef KELO_LOGGING_LOGGERTASKS_H_
#define KELO_LOGGING_LOGGERTASKS_H_

#include <cstddef>

#include "kelo/KeloLogger.h"
#include "platform/SerialQueue.h"
#include "platform/SystemLogLine.h"

namespace kelo::logging {

class LoggerTasks {
 public:
  static void openLiveFile(KeloLogger& l);
  static void closeLiveFile(KeloLogger& l);
  static void writeDump(KeloLogger& l);
  static void setCanWriteToFile(KeloLogger& l, bool value);
  // Whether the C logging front hands `l` a line: it can write, or a switch-on is on its way.
  // A line admitted for a pending switch-on is written after it (the queue keeps posting
  // order), so a daemon's first lines after KELO_CLOGMODE(true) are not lost to the race with
  // the switch; if the file then fails to open, the line is dropped as any line without a file.
  static bool acceptsLines(const KeloLogger& l) {
    return l.canWriteToFile() || l.switchesOnPending_.load(std::memory_order_acquire) != 0;
  }

  // One line of `size` bytes into the live file, on the logger's queue; returns once written (or
  // dropped, with no file open). A null text writes nothing but still waits for the queue.
  // Inline, with the queue's idle path inline too: see platform/SystemLogLine.h.
  static void writeLine(KeloLogger& l, int level, const char* text, std::size_t size) {
    l.logQueue_->sync([&] {
      if (l.fd_ == 0 || text == nullptr) return;
      platform::vsl::logText(l.log_client_, level, text, size);
    });
  }
};

}  // namespace kelo::logging

#endif  // KELO_LOGGING_LOGGERTASKS_H_
