#include "platform/PowerMonitor.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <utility>

#include "platform/Facts.h"
#include "platform/Json.h"
#include "platform/SafeFile.h"
#include "platform/Singleton.h"

namespace kelo::platform {

namespace {

constexpr char kEventsPath[] = "/run/kelo/energy-events.jsonl";
constexpr char kReportPath[] = "/run/kelo/energy-report.json";

// Bits of FilePowerMonitor::warned_.
enum Warning : int { kWarnLock, kWarnRotate, kWarnWrite, kWarnReport };

// Rotations by other processes can make an append start over; it gives up after this many.
constexpr int kAppendAttempts = 8;

Singleton<FilePowerMonitor> gDefaultMonitor;

PowerMonitor& defaultMonitor() {
  return *gDefaultMonitor.get(
      [] { return new FilePowerMonitor(devicePath(kEventsPath), devicePath(kReportPath)); });
}

std::string quoted(const char* text) { return toJson(Value::string(text != nullptr ? text : "")); }

// The common head of every journal line, up to and including the event name.
std::string lineHead(const char* event) {
  char head[96];
  std::snprintf(head, sizeof head, "{\"time\":%.6f,\"pid\":%ld,\"process\":", now(),
                static_cast<long>(::getpid()));
  std::string line = head;
  line += quoted(processName().c_str());
  line += ",\"event\":\"";
  line += event;
  line += '"';
  return line;
}

}  // namespace

void AXBatteryLifeMonitorLogKeloEvent(const char* bundleId, int16_t type, uint64_t seqNum,
                                      int32_t kind) {
  const char* id = bundleId != nullptr ? bundleId : "";
  if (std::shared_ptr<PowerMonitor> installed = installedPowerMonitor()) {
    installed->logEvent(id, type, seqNum, kind);
  } else {
    defaultMonitor().logEvent(id, type, seqNum, kind);
  }
}

void AXBatteryLifeMonitorStopAllKeloEvents() {
  if (std::shared_ptr<PowerMonitor> installed = installedPowerMonitor()) {
    installed->stopAllEvents();
  } else {
    defaultMonitor().stopAllEvents();
  }
}

std::optional<Value> AXBatteryLifeMonitorReportEnergyKelo(const void* selector) {
  if (std::shared_ptr<PowerMonitor> installed = installedPowerMonitor()) {
    return installed->reportEnergy(selector);
  }
  return defaultMonitor().reportEnergy(selector);
}

FilePowerMonitor::FilePowerMonitor(std::string eventsPath, std::string reportPath,
                                   std::size_t journalLimit)
    : eventsPath_(std::move(eventsPath)),
      reportPath_(std::move(reportPath)),
      journalLimit_(journalLimit) {}

void FilePowerMonitor::logEvent(const char* bundleId, int16_t type, uint64_t seqNum, int32_t kind) {
  const char* event = kind == 1 ? "start" : kind == 2 ? "stop" : "other";
  char fields[96];
  std::snprintf(fields, sizeof fields, ",\"kind\":%d,\"bundleID\":", static_cast<int>(kind));
  std::string line = lineHead(event);
  line += fields;
  line += quoted(bundleId);
  std::snprintf(fields, sizeof fields, ",\"updateType\":%d,\"seqNum\":%llu}\n",
                static_cast<int>(type), static_cast<unsigned long long>(seqNum));
  line += fields;
  append(line);
}

void FilePowerMonitor::stopAllEvents() { append(lineHead("stopAll") + "}\n"); }

std::optional<Value> FilePowerMonitor::reportEnergy(const void* /*selector*/) {
  // A missing file is the ordinary "no report" (the power daemon has not written one yet), not
  // worth a line. The daemon runs as root, so the report must be root's or this process's.
  const JsonFile read = readJsonFile(reportPath_, kEnergyReportLimit, Owner::kSelfOrRoot);
  if (read.missing) return std::nullopt;
  if (!read.refused.empty()) {
    platform::warnOnce(LOG_WARNING, "kelo: energy report not read: " + read.refused);
    return std::nullopt;
  }
  const Value& content = read.value;
  if (content.isError()) {
    warnOnce(kWarnReport, "malformed energy report", reportPath_, 0);
    return std::nullopt;
  }
  return reportFromJson(content);
}

std::optional<Value> FilePowerMonitor::reportFromJson(const Value& fileContent) {
  if (!fileContent.isDictionary()) return std::nullopt;
  Value::Dictionary report;
  report.reserve(3);
  if (const Value* capacity = fileContent.find("BLMBatteryCapacity");
      capacity != nullptr && capacity->isNumber()) {
    report.emplace("BLMBatteryCapacity", *capacity);
  }
  if (const Value* date = fileContent.find("BLMEnergyReferenceDate");
      date != nullptr && date->isNumber()) {
    report.emplace("BLMEnergyReferenceDate", Value::date(date->doubleValue()));
  }
  if (const Value* entries = fileContent.find("BLMEnergyForKelo");
      entries != nullptr && entries->isArray()) {
    Value::Array kept;
    kept.reserve(entries->asArray().size());
    for (const Value& entry : entries->asArray()) {
      Value::Dictionary fields;
      fields.reserve(3);
      if (const Value* id = entry.find("bundleID"); id != nullptr && id->isString()) {
        fields.emplace("bundleID", *id);
      }
      if (const Value* type = entry.find("updateType"); type != nullptr && type->isNumber()) {
        fields.emplace("updateType", *type);
      }
      if (const Value* energy = entry.find("energy_mWh"); energy != nullptr && energy->isNumber()) {
        fields.emplace("energy_mWh", *energy);
      }
      kept.push_back(Value::dictionary(std::move(fields)));
    }
    report.emplace("BLMEnergyForKelo", Value::array(std::move(kept)));
  }
  return Value::dictionary(std::move(report));
}

void FilePowerMonitor::append(const std::string& line) {
  std::lock_guard<std::mutex> lock(appendMutex_);
  FileSystem& fs = fileSystem();
  const char* path = eventsPath_.c_str();
  for (int attempt = 0; attempt < kAppendAttempts; ++attempt) {
    // A link, FIFO or folder in the journal's place is refused, never followed or waited on.
    std::string error;
    int fd = openForAppend(eventsPath_, 0644, Owner::kSelfOrRoot, &error);
    if (fd < 0 && errno == ENOENT) {
      const std::size_t slash = eventsPath_.rfind('/');
      if (slash != std::string::npos && slash > 0) makeFolders(eventsPath_.substr(0, slash), 0755);
      fd = openForAppend(eventsPath_, 0644, Owner::kSelfOrRoot, &error);
    }
    if (fd < 0) {
      platform::warnOnce(LOG_WARNING, "kelo: cannot open energy event journal " + error);
      return;
    }
    int rc;
    do {
      rc = ::flock(fd, LOCK_EX);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) warnOnce(kWarnLock, "cannot lock energy event journal", eventsPath_, errno);

    // Another process may have rotated the file between our open and our lock: the descriptor
    // then names the old journal, and the append starts over on the new one.
    struct stat held;
    struct stat named;
    if (rc == 0 && fs.fstat(fd, &held) == 0) {
      if (::lstat(path, &named) != 0 || named.st_ino != held.st_ino ||
          named.st_dev != held.st_dev) {
        fs.close(fd);
        continue;
      }
      const auto size = static_cast<std::size_t>(held.st_size);
      if (size > 0 && size + line.size() > journalLimit_) {
        if (fs.rename(path, (eventsPath_ + ".1").c_str()) == 0) {
          fs.close(fd);
          continue;
        }
        // Keep the event in the oversized journal rather than lose it.
        warnOnce(kWarnRotate, "cannot rotate energy event journal", eventsPath_, errno);
      }
    }
    if (!writeAll(fd, line.data(), line.size())) {
      warnOnce(kWarnWrite, "cannot write energy event journal", eventsPath_, errno);
    }
    fs.close(fd);
    return;
  }
  warnOnce(kWarnRotate, "energy event journal keeps being rotated", eventsPath_, 0);
}

void FilePowerMonitor::warnOnce(int which, const char* what, const std::string& path, int err) {
  const unsigned bit = 1u << which;
  if ((warned_.fetch_or(bit, std::memory_order_relaxed) & bit) != 0) return;
  char line[1024];
  if (err != 0) {
    std::snprintf(line, sizeof line, "kelo: %s %s: %s", what, path.c_str(), std::strerror(err));
  } else {
    std::snprintf(line, sizeof line, "kelo: %s %s", what, path.c_str());
  }
  systemLog(LOG_WARNING, line);
}

}  // namespace kelo::platform
