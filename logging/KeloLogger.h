// The two loggers of the library: slot 0 the detailed logger, slot 1 the simple logger. Each
// writes lines into its own live file under <home>/Library/Logs/ through the system log service
// (kelo/vsl.h), rotates the previous process's file on its first switch-on, and writes full dumps
// of its registered data sources on request.
//
// Every file operation of a logger runs on its own serial queue. setLoggingMode(), addDataSource()
// and dumpAllLogs() post their work and return at once; the three line writers post and wait, so
// they must never be called from a task running on the logger's queue (a data source's logAll or
// logLight): that aborts the process naming the queue. Failures of the logger itself go to the
// console log; nothing here throws or returns an error.
#ifndef KELO_LOGGING_KELOLOGGER_H_
#define KELO_LOGGING_KELOLOGGER_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kelo/KeloLoggerProtocol.h"
#include "kelo/export.h"
#include "kelo/vsl.h"

namespace kelo {

namespace platform {
class SerialQueue;
class FileManager;
}  // namespace platform

namespace logging {
class LoggerTasks;  // the queue work, kept out of the exported interface
}  // namespace logging

class KELO_EXPORT KeloLogger {
 public:
  // The detailed logger. The first call creates both loggers, switched off; they are never
  // destroyed. Callable from any thread.
  static KeloLogger* instance();
  // The logger in `slot` (0 detailed, 1 simple). Creates nothing: null before the first
  // instance(), and null for any other slot.
  static KeloLogger* instance(int32_t slot);

  // A logger whose live file is <home>/Library/Logs/<fileName><process name>, switched off.
  // Touches no file. `withState` is kept for the logger's lifetime and read by nothing here.
  KeloLogger(const std::string& fileName, const std::string& withState);
  // Waits for the work already posted, then releases the fields; neither the file nor the
  // client is closed. Must not run on the logger's queue.
  ~KeloLogger();
  KeloLogger(const KeloLogger&) = delete;
  KeloLogger& operator=(const KeloLogger&) = delete;

  // Registers a data source (posted). Null is ignored; a source added twice is called twice.
  // It is given a light log at each later opening of the file and writes itself into each dump.
  void addDataSource(std::shared_ptr<KeloLoggerProtocol> source);
  // The same for a source that outlives the logger (a leaked singleton): not owned.
  void addDataSource(KeloLoggerProtocol* source);

  // Rotation of the previous process's live file into the diagnostic-log folder, unless the
  // device answers "InternalBuild" with something other than true. Queue only: called by the
  // first switch-on.
  void createFile();
  // <home>/Library/Logs/Wreckbox/DiagnosticLogs/<fileName><time stamp><process name>.
  std::string getUniqueFileName() const;
  // The clock's seconds since 1970 as "[%f]." ("[1415997600.123456].").
  std::string getTimeStamp() const;

  // Writes every data source's full state into <getUniqueFileName()>-FullDump.log (posted).
  // Works whether logging is on or off and leaves the live file alone.
  void dumpAllLogs();
  // Opens (true) or closes (false) the live file (posted). The first opening rotates the old
  // file; each opening gives every registered source a light log.
  void setLoggingMode(bool mode);

  // Write one line at level 6 (logToFile, logToFileCString) or 7 (the debug one): post and
  // wait, so they return after every task posted before them ran. Nothing is written while no
  // file is open, nor for a null message. They test the open file, not canWriteToFile().
  void logToFile(const std::string& message);
  void logToFileCString(const char* message);
  void logToFileCStringSimpleDebug(const char* message);

  // True while lines are accepted. Read from any thread; a read racing a mode switch may be
  // stale, which only drops or admits one line.
  bool canWriteToFile() const { return canWriteToFile_.load(std::memory_order_relaxed); }

 private:
  friend class logging::LoggerTasks;

  // Queue only, unless marked otherwise.
  vsl_client_t log_client_ = nullptr;  // null while closed
  vsl_msg_t log_msg_ = nullptr;        // null while closed
  std::atomic<bool> canWriteToFile_{false};  // written on the queue, read anywhere
  // Switch-ons posted whose task has not finished yet; atomic, read anywhere.
  std::atomic<uint32_t> switchesOnPending_{0};
  bool firstTime_ = true;
  std::unique_ptr<platform::SerialQueue> logQueue_;  // constant after construction
  int32_t fd_ = 0;                                   // 0: no file open
  platform::FileManager* fileMgr_;                   // constant after construction
  const std::string binaryName_;
  const std::string filePath_;
  const std::string fileName_;
  const std::string homeDir_;
  const std::string logState_;
  std::vector<std::shared_ptr<KeloLoggerProtocol>> keloLoggerSource_;
};

}  // namespace kelo

#endif  // KELO_LOGGING_KELOLOGGER_H_
