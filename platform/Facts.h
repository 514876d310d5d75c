// What the library reads of its platform, resolved from the installed overrides or the Linux
// defaults. Every function is callable from any thread.
#ifndef KELO_PLATFORM_FACTS_H_
#define KELO_PLATFORM_FACTS_H_

#include <optional>
#include <string>
#include <string_view>

#include "kelo/Overrides.h"
#include "kelo/Value.h"

namespace kelo::platform {

// Seconds since 1970.
double now();
// now() as whole seconds (rounded down) and microseconds, read without floating point when the
// clock is the system's.
struct WallTime {
  long long seconds;
  long micros;  // 0 to 999999
};
WallTime wallTime();
const std::string& processName();
const std::string& homeDirectory();
const std::string& deviceRoot();
// `absolutePath` resolved under the device root ("/System/x" -> "<root>/System/x").
std::string devicePath(std::string_view absolutePath);
// The device's answer to `question`, if it has one.
std::optional<Value> deviceAnswer(std::string_view question);
// The "hw.machine" query: the device's answer if it names one, else the uname(2) machine.
std::string hardwareModel();
// One line to the system log at a syslog(3) priority (LOG_ERR for the console log).
void systemLog(int priority, const char* line);
FileSystem& fileSystem();
// The installed file system, or null when the default (the system calls themselves) is in use.
FileSystem* installedFileSystem();
// The installed power monitor and metrics sink, or null when the default is in use.
std::shared_ptr<PowerMonitor> installedPowerMonitor();
std::shared_ptr<MetricsSink> installedMetricsSink();

// Called by the creation of every service: from now on overrides can no longer change.
void sealOverrides();

}  // namespace kelo::platform

#endif  // KELO_PLATFORM_FACTS_H_
