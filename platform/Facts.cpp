#include "platform/Facts.h"

#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "platform/Json.h"

namespace kelo::platform {

FileSystem::~FileSystem() = default;
int FileSystem::open(const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); }
ssize_t FileSystem::write(int fd, const void* data, size_t size) { return ::write(fd, data, size); }
int FileSystem::fsync(int fd) { return ::fsync(fd); }
int FileSystem::close(int fd) { return ::close(fd); }
int FileSystem::rename(const char* from, const char* to) { return ::rename(from, to); }
int FileSystem::mkdir(const char* path, mode_t mode) { return ::mkdir(path, mode); }
int FileSystem::unlink(const char* path) { return ::unlink(path); }
ssize_t FileSystem::read(int fd, void* data, size_t size) { return ::read(fd, data, size); }
ssize_t FileSystem::pread(int fd, void* data, size_t size, off_t offset) {
  return ::pread(fd, data, size, offset);
}
ssize_t FileSystem::pwrite(int fd, const void* data, size_t size, off_t offset) {
  return ::pwrite(fd, data, size, offset);
}
int FileSystem::fstat(int fd, struct stat* st) { return ::fstat(fd, st); }

PowerMonitor::~PowerMonitor() = default;
MetricsSink::~MetricsSink() = default;

namespace {

// One immutable resolution of the overrides. A new one is published by each installation;
// older ones are kept alive, since a reader on another thread may still hold them (installations
// happen a handful of times, before any service exists).
struct State {
  Overrides overrides;
  std::string processName;
  std::string homeDirectory;
  std::string deviceRoot;
  std::shared_ptr<FileSystem> fileSystem;
};

std::atomic<const State*> gState{nullptr};
// Earlier resolutions, kept reachable for readers that may still hold them.
std::vector<const State*>* gRetired = new std::vector<const State*>();
std::atomic<bool> gSealed{false};
std::mutex gInstallMutex;

std::string defaultHomeDirectory() {
  if (const char* home = std::getenv("HOME"); home != nullptr && home[0] != '\0') return home;
  if (const passwd* pw = ::getpwuid(::getuid()); pw != nullptr && pw->pw_dir != nullptr) {
    return pw->pw_dir;
  }
  return "/";
}

const State* resolve(const State* previous, Overrides update) {
  auto* next = new State();
  if (previous != nullptr) next->overrides = previous->overrides;
  Overrides& o = next->overrides;
  if (update.clock) o.clock = std::move(update.clock);
  if (update.processName) o.processName = std::move(update.processName);
  if (update.homeDirectory) o.homeDirectory = std::move(update.homeDirectory);
  if (update.deviceRoot) o.deviceRoot = std::move(update.deviceRoot);
  if (update.deviceAnswers) o.deviceAnswers = std::move(update.deviceAnswers);
  if (update.systemLog) o.systemLog = std::move(update.systemLog);
  if (update.fileSystem) o.fileSystem = std::move(update.fileSystem);
  if (update.powerMonitor) o.powerMonitor = std::move(update.powerMonitor);
  if (update.metrics) o.metrics = std::move(update.metrics);

  next->processName = o.processName ? *o.processName : program_invocation_short_name;
  next->homeDirectory = o.homeDirectory ? *o.homeDirectory : defaultHomeDirectory();
  std::string root = o.deviceRoot ? *o.deviceRoot : "/";
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  next->deviceRoot = root;
  next->fileSystem = o.fileSystem ? o.fileSystem : std::make_shared<FileSystem>();
  return next;
}

const State& state() {
  const State* s = gState.load(std::memory_order_acquire);
  if (s != nullptr) return *s;
  std::lock_guard<std::mutex> lock(gInstallMutex);
  s = gState.load(std::memory_order_acquire);
  if (s == nullptr) {
    s = resolve(nullptr, Overrides{});
    gState.store(s, std::memory_order_release);
  }
  return *s;
}

}  // namespace

void installOverrides(Overrides overrides) {
  if (gSealed.load(std::memory_order_acquire)) {
    std::fputs(
        "kelo: installOverrides called after the first service was created; "
        "platform overrides must be installed before any service exists\n",
        stderr);
    std::abort();
  }
  std::lock_guard<std::mutex> lock(gInstallMutex);
  const State* previous = gState.load(std::memory_order_acquire);
  if (previous != nullptr) gRetired->push_back(previous);
  gState.store(resolve(previous, std::move(overrides)), std::memory_order_release);
}

void sealOverrides() { gSealed.store(true, std::memory_order_release); }

double now() {
  const State& s = state();
  if (s.overrides.clock) return s.overrides.clock();
  const auto since = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration<double>(since).count();
}

WallTime wallTime() {
  const State& s = state();
  if (!s.overrides.clock) {
    struct timespec ts;
    ::clock_gettime(CLOCK_REALTIME, &ts);
    return {static_cast<long long>(ts.tv_sec), ts.tv_nsec / 1000};
  }
  double t = s.overrides.clock();
  if (!std::isfinite(t) || t < -1e15 || t > 1e15) t = 0;
  long long second = static_cast<long long>(t);  // toward zero; floor below
  if (static_cast<double>(second) > t) --second;
  long micros = static_cast<long>((t - static_cast<double>(second)) * 1e6);
  if (micros < 0) micros = 0;
  if (micros > 999999) micros = 999999;
  return {second, micros};
}

const std::string& processName() { return state().processName; }
const std::string& homeDirectory() { return state().homeDirectory; }
const std::string& deviceRoot() { return state().deviceRoot; }

std::string devicePath(std::string_view absolutePath) {
  const std::string& root = deviceRoot();
  if (root == "/") return std::string(absolutePath);
  std::string path = root;
  if (absolutePath.empty() || absolutePath.front() != '/') path += '/';
  path += absolutePath;
  return path;
}

std::optional<Value> deviceAnswer(std::string_view question) {
  const State& s = state();
  Value answers;
  if (s.overrides.deviceAnswers) {
    answers = *s.overrides.deviceAnswers;
  } else {
    const std::string path = devicePath("/etc/kelo/device.json");
    JsonFile read = readJsonFile(path, kDeviceAnswersLimit, Owner::kSelfOrRoot);
    if (read.missing) return std::nullopt;
    if (!read.refused.empty()) {
      warnOnce(LOG_WARNING, read.refused + "; no device answers");
      return std::nullopt;
    }
    answers = std::move(read.value);
    if (answers.isError()) {
      const Value::Error& e = answers.asError();
      char line[1024];
      std::snprintf(line, sizeof line, "%s:%d:%d: malformed device answers: %s", e.file.c_str(),
                    e.line, e.column, e.message.c_str());
      warnOnce(LOG_WARNING, line);
      return std::nullopt;
    }
  }
  const Value* answer = answers.find(question);
  if (answer == nullptr) return std::nullopt;
  return *answer;
}

std::string hardwareModel() {
  if (std::optional<Value> answer = deviceAnswer("hw.machine"); answer && answer->isString()) {
    return answer->asString();
  }
  utsname u;
  if (::uname(&u) != 0) return {};
  return u.machine;
}

void systemLog(int priority, const char* line) {
  const State& s = state();
  if (s.overrides.systemLog) {
    s.overrides.systemLog(priority, line);
    return;
  }
  ::syslog(priority, "%s", line);
}

FileSystem& fileSystem() { return *state().fileSystem; }
FileSystem* installedFileSystem() { return state().overrides.fileSystem.get(); }

std::shared_ptr<PowerMonitor> installedPowerMonitor() { return state().overrides.powerMonitor; }
std::shared_ptr<MetricsSink> installedMetricsSink() { return state().overrides.metrics; }

}  // namespace kelo::platform
