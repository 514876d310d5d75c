#include "kelo/KeloLogger.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <syslog.h>

#include <cstdio>
#include <mutex>
#include <optional>
#include <utility>

#include "logging/Gates.h"
#include "logging/LoggerTasks.h"
#include "platform/Facts.h"
#include "platform/FileManager.h"
#include "platform/SafeFile.h"
#include "platform/SerialQueue.h"

namespace kelo {

using logging::LoggerTasks;

namespace {

constexpr const char* kQueueLabel = "com.vorn.KeloAppLaunchStatsLogging";
constexpr const char* kLogsFolder = "/Library/Logs/";
constexpr const char* kDiagnosticFolder = "/Library/Logs/Wreckbox/DiagnosticLogs/";
constexpr mode_t kFileMode = 0644;
constexpr mode_t kFolderMode = 0755;
constexpr int kFileFilter = 192;  // levels 6 and 7 only
constexpr int32_t kSourceLevel = 6;

std::once_flag gCreateOnce;
std::atomic<KeloLogger*> gSlots[2] = {nullptr, nullptr};

// Serialises flag changes with the gate recomputation, so that two loggers switching at once on
// their own queues cannot leave a gate that matches neither. Held for a few loads and stores,
// never while logging.
std::mutex gGateMutex;

void recomputeGatesLocked() {
  const KeloLogger* detailed = gSlots[0].load(std::memory_order_acquire);
  const KeloLogger* simple = gSlots[1].load(std::memory_order_acquire);
  const bool detailedOn = detailed != nullptr && LoggerTasks::acceptsLines(*detailed);
  const bool simpleOn = simple != nullptr && LoggerTasks::acceptsLines(*simple);
  logging::setGates(detailedOn, detailedOn || simpleOn);
}

// strerror() may share one buffer between threads; the GNU strerror_r never does.
std::string errorText(int error) {
  char buffer[256];
  return ::strerror_r(error, buffer, sizeof buffer);
}

// `what` is "Create" or "Move".
void consoleFailure(const char* what, int error) {
  char line[512];
  std::snprintf(line, sizeof line, "%s Error was code: %d - message: %s", what, error,
                errorText(error).c_str());
  platform::systemLog(LOG_ERR, line);
}

// A source is outside code running on the logger's worker thread: an exception from it must not
// end the process, nor keep the sources after it from writing.
void callSource(KeloLoggerProtocol& source,
                void (KeloLoggerProtocol::*operation)(vsl_client_t, vsl_msg_t, int32_t),
                vsl_client_t client, vsl_msg_t message) {
  try {
    (source.*operation)(client, message, kSourceLevel);
  } catch (...) {
    platform::systemLog(LOG_WARNING, "kelo: a logger data source threw while writing; skipped");
  }
}

std::string sealedProcessName() {
  // No platform override may change under a service that has read it.
  platform::sealOverrides();
  return platform::processName();
}

}  // namespace

KeloLogger* KeloLogger::instance() {
  if (KeloLogger* detailed = gSlots[0].load(std::memory_order_acquire)) return detailed;
  std::call_once(gCreateOnce, [] {
    auto* detailed = new KeloLogger("KeloLoggingDetailed.", "logDetailedState");
    auto* simple = new KeloLogger("KeloLoggingSimple.", "logSimpleState");
    // The simple logger first: whoever sees slot 0 must find slot 1 filled too.
    gSlots[1].store(simple, std::memory_order_release);
    gSlots[0].store(detailed, std::memory_order_release);
    std::lock_guard<std::mutex> lock(gGateMutex);
    recomputeGatesLocked();
  });
  return gSlots[0].load(std::memory_order_acquire);
}

KeloLogger* KeloLogger::instance(int32_t slot) {
  if (slot != 0 && slot != 1) return nullptr;
  return gSlots[slot].load(std::memory_order_acquire);
}

KeloLogger::KeloLogger(const std::string& fileName, const std::string& withState)
    : logQueue_(std::make_unique<platform::SerialQueue>(kQueueLabel)),
      fileMgr_(&platform::FileManager::shared()),
      binaryName_(sealedProcessName()),
      filePath_(platform::homeDirectory() + kLogsFolder + fileName + binaryName_),
      fileName_(fileName),
      homeDir_(platform::homeDirectory()),
      logState_(withState) {}

KeloLogger::~KeloLogger() {
  // Posted tasks use the fields below; let them finish while the fields still exist.
  logQueue_->sync([] {});
}

void KeloLogger::addDataSource(std::shared_ptr<KeloLoggerProtocol> source) {
  if (source == nullptr) return;
  logQueue_->post([this, source = std::move(source)]() mutable {
    keloLoggerSource_.push_back(std::move(source));
  });
}

void KeloLogger::addDataSource(KeloLoggerProtocol* source) {
  // An empty owner: the pointer is shared without being owned.
  addDataSource(std::shared_ptr<KeloLoggerProtocol>(std::shared_ptr<void>(), source));
}

std::string KeloLogger::getTimeStamp() const {
  char stamp[64];
  std::snprintf(stamp, sizeof stamp, "[%f].", platform::now());
  return stamp;
}

std::string KeloLogger::getUniqueFileName() const {
  return homeDir_ + kDiagnosticFolder + fileName_ + getTimeStamp() + binaryName_;
}

void KeloLogger::createFile() {
  if (!fileMgr_->fileExistsAtPath(filePath_)) return;
  // Only an explicit "not internal" answer keeps the old file; no answer at all rotates too.
  const std::optional<Value> internal = platform::deviceAnswer("InternalBuild");
  if (internal && !(internal->isBoolean() && internal->asBoolean())) return;
  const std::string destination = getUniqueFileName();
  // A folder that cannot be made (or is a link) shows up as a failed move.
  if (!fileMgr_->createDirectoryAtPath(homeDir_ + kDiagnosticFolder, kFolderMode) ||
      !fileMgr_->moveItemAtPath(filePath_, destination)) {
    consoleFailure("Move", errno);
  }
}

void KeloLogger::setLoggingMode(bool mode) {
  if (!mode) {
    logQueue_->post([this] { LoggerTasks::closeLiveFile(*this); });
    return;
  }
  {
    std::lock_guard<std::mutex> lock(gGateMutex);
    switchesOnPending_.fetch_add(1, std::memory_order_acq_rel);
    recomputeGatesLocked();
  }
  logQueue_->post([this] {
    LoggerTasks::openLiveFile(*this);
    // After canWriteToFile is set, so that no moment admits no line.
    std::lock_guard<std::mutex> lock(gGateMutex);
    switchesOnPending_.fetch_sub(1, std::memory_order_acq_rel);
    recomputeGatesLocked();
  });
}

void KeloLogger::dumpAllLogs() {
  logQueue_->post([this] { LoggerTasks::writeDump(*this); });
}

void KeloLogger::logToFile(const std::string& message) {
  LoggerTasks::writeLine(*this, 6, message.c_str(), strlen(message.c_str()));
}

void KeloLogger::logToFileCString(const char* message) {
  LoggerTasks::writeLine(*this, 6, message, message != nullptr ? strlen(message) : 0);
}

void KeloLogger::logToFileCStringSimpleDebug(const char* message) {
  LoggerTasks::writeLine(*this, 7, message, message != nullptr ? strlen(message) : 0);
}

void LoggerTasks::openLiveFile(KeloLogger& l) {
  if (l.fd_ != 0) {
    setCanWriteToFile(l, true);
    return;
  }
  if (l.firstTime_) {
    l.firstTime_ = false;
    l.createFile();
  }
  // A link, FIFO or folder in place of the logs folder or the log is refused, never followed or
  // waited on: the logger goes on with descriptor -1, whose writes fail quietly, after one line
  // naming the path and the reason.
  std::string error = platform::makeFolders(l.homeDir_ + kLogsFolder, kFolderMode);
  l.fd_ = -1;
  if (error.empty()) {
    l.fd_ = platform::openForAppend(l.filePath_, kFileMode, platform::Owner::kSelf, &error);
  }
  if (l.fd_ < 0) platform::warnOnce(LOG_WARNING, "kelo: log file not opened: " + error);
  // Only descriptor 0 counts as a failure; -1 goes on and its writes fail quietly.
  if (l.fd_ == 0) {
    consoleFailure("Create", errno);
    l.fd_ = 0;
    return;
  }
  l.log_client_ = vsl_open(l.binaryName_.c_str(), l.filePath_.c_str(), VSL_OPT_NO_DELAY);
  l.log_msg_ = vsl_new(VSL_TYPE_MSG);
  vsl_add_log_file(l.log_client_, l.fd_);
  vsl_set_output_file_filter(l.log_client_, l.fd_, kFileFilter);
  for (const std::shared_ptr<KeloLoggerProtocol>& source : l.keloLoggerSource_) {
    callSource(*source, &KeloLoggerProtocol::logLight, l.log_client_, l.log_msg_);
  }
  setCanWriteToFile(l, true);
}

void LoggerTasks::closeLiveFile(KeloLogger& l) {
  if (l.fd_ != 0 && !l.firstTime_) {
    platform::fileSystem().close(l.fd_);
    vsl_close(l.log_client_);
    l.fd_ = 0;
    l.log_msg_ = nullptr;
    l.log_client_ = nullptr;
  }
  setCanWriteToFile(l, false);
}

void LoggerTasks::writeDump(KeloLogger& l) {
  const std::string path = l.getUniqueFileName() + "-FullDump.log";
  std::string error = platform::makeFolders(l.homeDir_ + kDiagnosticFolder, kFolderMode);
  int fd = -1;
  if (error.empty()) fd = platform::openForAppend(path, kFileMode, platform::Owner::kSelf, &error);
  if (fd < 0) platform::warnOnce(LOG_WARNING, "kelo: log dump not written: " + error);
  if (fd == 0) {
    consoleFailure("Create", errno);
    return;
  }
  vsl_client_t client = vsl_open(l.binaryName_.c_str(), "KeloDump", VSL_OPT_NO_DELAY);
  vsl_msg_t message = vsl_new(VSL_TYPE_MSG);
  if (client == nullptr || message == nullptr) {
    // The dump file is left open, as the platform's logger leaves it.
    platform::systemLog(LOG_ERR, "Cannot open VSL");
    vsl_close(client);
    return;
  }
  vsl_add_log_file(client, fd);
  vsl_set_output_file_filter(client, fd, kFileFilter);
  for (const std::shared_ptr<KeloLoggerProtocol>& source : l.keloLoggerSource_) {
    callSource(*source, &KeloLoggerProtocol::logAll, client, message);
  }
  platform::fileSystem().close(fd);
  vsl_close(client);
}

void LoggerTasks::setCanWriteToFile(KeloLogger& l, bool value) {
  std::lock_guard<std::mutex> lock(gGateMutex);
  l.canWriteToFile_.store(value, std::memory_order_relaxed);
  recomputeGatesLocked();
}

}  // namespace kelo
