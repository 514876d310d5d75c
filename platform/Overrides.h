// The platform override API. Everything the library asks of its platform (clock, process name,
// home directory, device root and answers, the system log sink, files, the power monitor and the
// metrics service) has a Linux default and can be replaced here, by an embedder or a test,
// before the first service of the library exists. No environment variable configures the library.
#ifndef KELO_PLATFORM_OVERRIDES_H_
#define KELO_PLATFORM_OVERRIDES_H_

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "kelo/Value.h"
#include "kelo/export.h"

namespace kelo::platform {

// Every file operation of the library and its tools: the reads of bundles, preferences, device
// answers and the energy report, the writes of logs, preferences and notification state. The
// default forwards to the system calls of the same name (with errno set on failure); tests
// override single operations to inject failures (a full disk, a failing rename, a failed read).
class KELO_EXPORT FileSystem {
 public:
  virtual ~FileSystem();
  virtual int open(const char* path, int flags, mode_t mode);
  virtual ssize_t write(int fd, const void* data, size_t size);
  virtual int fsync(int fd);
  virtual int close(int fd);
  virtual int rename(const char* from, const char* to);
  virtual int mkdir(const char* path, mode_t mode);
  virtual int unlink(const char* path);
  virtual ssize_t read(int fd, void* data, size_t size);
  virtual ssize_t pread(int fd, void* data, size_t size, off_t offset);
  virtual ssize_t pwrite(int fd, const void* data, size_t size, off_t offset);
  virtual int fstat(int fd, struct stat* st);
};

// The power-logging service: background work events and the energy report.
class KELO_EXPORT PowerMonitor {
 public:
  virtual ~PowerMonitor();
  // One event: kind 1 starts, kind 2 stops the work of `bundleId` (UTF-8) of update `type`.
  virtual void logEvent(const char* bundleId, int16_t type, uint64_t seqNum, int32_t kind) = 0;
  // Stops every event this process started.
  virtual void stopAllEvents() = 0;
  // The energy report dictionary ("BLMBatteryCapacity", "BLMEnergyReferenceDate" as a date,
  // "BLMEnergyForKelo" entries of "bundleID", "updateType", "energy_mWh"), or nullopt when the
  // service has no report. `selector` is always null today.
  virtual std::optional<Value> reportEnergy(const void* selector) = 0;
};

// The aggregate-metrics service: scalar keys that are set or added to.
class KELO_EXPORT MetricsSink {
 public:
  virtual ~MetricsSink();
  virtual void setValue(const std::string& key, int64_t value) = 0;
  virtual void addValue(const std::string& key, int64_t value) = 0;
};

// Each field left empty keeps what was installed before (at first, the Linux default).
struct Overrides {
  // Seconds since 1970. Default: the system clock.
  std::function<double()> clock;
  // Default: the name the process was started with.
  std::optional<std::string> processName;
  // Holds Library/Logs, Library/Preferences and Library/Metrics. Default: $HOME, else the
  // password database entry of the real user.
  std::optional<std::string> homeDirectory;
  // Every absolute device path (bundles, notifications, power monitor files, device answers)
  // is resolved under this folder. Default: "/".
  std::optional<std::string> deviceRoot;
  // The device's answers ("InternalBuild", "hw.machine"), a dictionary. Default: the JSON
  // object in <device root>/etc/kelo/device.json; no file or no key means no answer.
  std::optional<Value> deviceAnswers;
  // Receives console and platform lines with their syslog(3) priority. Default: syslog(3).
  std::function<void(int priority, const char* line)> systemLog;
  std::shared_ptr<FileSystem> fileSystem;
  std::shared_ptr<PowerMonitor> powerMonitor;
  std::shared_ptr<MetricsSink> metrics;
};

// Installs the set fields of `overrides`. Only allowed before the first service (logger,
// configurator, energy service or statistics collector) is created: a later call writes a
// message to standard error and aborts the process, since it would change the platform under
// running services.
KELO_EXPORT void installOverrides(Overrides overrides);

}  // namespace kelo::platform

#endif  // KELO_PLATFORM_OVERRIDES_H_
