#include "platform/Preferences.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/Facts.h"
#include "platform/Json.h"
#include "platform/SafeFile.h"

namespace kelo::platform {

namespace {

constexpr mode_t kFileMode = 0644;
constexpr mode_t kFolderMode = 0755;
constexpr size_t kMaxNameLength = 200;
constexpr const char* kSuffix = ".json";

// "<path>: <what>: <detail>" to the system log.
void report(int priority, const std::string& path, const char* what, const std::string& detail) {
  char line[1024];
  std::snprintf(line, sizeof line, "%s: %s: %s", path.c_str(), what, detail.c_str());
  systemLog(priority, line);
}

struct FileRead {
  enum Outcome { kMissing, kOk, kMalformed, kRefused };
  Outcome outcome = kMissing;
  Value dictionary;    // kOk only
  Value::Error error;  // kMalformed only
};

// Reads and parses the domain file. A refusal is logged here; a malformed file is not, since
// only the one who moves it aside reports it.
FileRead readDomainFile(const std::string& path) {
  FileRead result;
  const ReadResult file = readFile(path, kPreferencesLimit, Owner::kSelf);
  if (file.missing) return result;
  if (!file.ok) {
    result.outcome = FileRead::kRefused;
    warnOnce(LOG_WARNING, file.error + "; preferences not read");
    return result;
  }
  const std::string& text = file.data;
  Value parsed = parseJson(text, path);
  if (parsed.isError()) {
    result.outcome = FileRead::kMalformed;
    result.error = parsed.asError();
    if (result.error.file.empty()) result.error.file = path;
    return result;
  }
  if (!parsed.isDictionary()) {
    result.outcome = FileRead::kMalformed;
    result.error = Value::Error{"the top level is not an object", path, 1, 1};
    return result;
  }
  result.outcome = FileRead::kOk;
  result.dictionary = std::move(parsed);
  return result;
}

bool exists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

// Moves a malformed domain file aside, to the first free name of .corrupt, .corrupt.1 ... .9
// (the last one is reused once all ten are taken). Called with the domain's lock held.
void moveAside(const std::string& path, const Value::Error& error) {
  std::string target = path + ".corrupt";
  for (int i = 1; i <= 9 && exists(target); ++i) target = path + ".corrupt." + std::to_string(i);
  char line[1024];
  if (fileSystem().rename(path.c_str(), target.c_str()) == 0) {
    std::snprintf(line, sizeof line, "%s:%d:%d: malformed preferences moved to %s: %s",
                  error.file.c_str(), error.line, error.column, target.c_str(),
                  error.message.c_str());
  } else {
    std::snprintf(line, sizeof line, "%s:%d:%d: malformed preferences (not moved aside: %s): %s",
                  error.file.c_str(), error.line, error.column, std::strerror(errno),
                  error.message.c_str());
  }
  systemLog(LOG_WARNING, line);
}

bool makeFolder(const std::string& path) {
  if (fileSystem().mkdir(path.c_str(), kFolderMode) == 0 || errno == EEXIST) return true;
  return false;
}

// The exclusive advisory lock of one domain, released when the object goes.
class DomainLock {
 public:
  explicit DomainLock(const std::string& lockPath) {
    fd_ = fileSystem().open(lockPath.c_str(),
                            O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, kFileMode);
    if (fd_ < 0) return;
    while (::flock(fd_, LOCK_EX) != 0) {
      if (errno != EINTR) {
        const int err = errno;
        fileSystem().close(fd_);
        fd_ = -1;
        errno = err;
        return;
      }
    }
  }
  ~DomainLock() {
    if (fd_ >= 0) fileSystem().close(fd_);  // closing the last descriptor releases the lock
  }
  DomainLock(const DomainLock&) = delete;
  DomainLock& operator=(const DomainLock&) = delete;
  bool held() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

std::string temporaryPath(const std::string& folder, const std::string& name) {
  static std::atomic<uint64_t> counter{0};
  return folder + "/." + name + ".json." + std::to_string(::getpid()) + "." +
         std::to_string(counter.fetch_add(1, std::memory_order_relaxed)) + ".tmp";
}

// Writes `text` as the new domain file, durably. Returns an empty string on success, else what
// failed. Called with the domain's lock held.
std::string replaceDomainFile(const std::string& folder, const std::string& name,
                              const std::string& path, const std::string& text) {
  FileSystem& fs = fileSystem();
  const std::string tmp = temporaryPath(folder, name);
  const int fd =
      fs.open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode);
  if (fd < 0) return std::string("create ") + tmp + ": " + std::strerror(errno);
  std::string failure;
  // The umask must not take the group's and others' read right: other processes read domains.
  if (::fchmod(fd, kFileMode) != 0) failure = std::string("chmod: ") + std::strerror(errno);
  if (failure.empty() && !writeAll(fd, text.data(), text.size())) {
    failure = std::string("write: ") + std::strerror(errno);
  }
  if (failure.empty() && fs.fsync(fd) != 0) failure = std::string("fsync: ") + std::strerror(errno);
  if (fs.close(fd) != 0 && failure.empty()) failure = std::string("close: ") + std::strerror(errno);
  if (failure.empty() && fs.rename(tmp.c_str(), path.c_str()) != 0) {
    failure = std::string("rename: ") + std::strerror(errno);
  }
  if (!failure.empty()) {
    fs.unlink(tmp.c_str());
    return failure;
  }
  // The rename is durable only once the folder's entry is.
  const int dir = fs.open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
  if (dir < 0) return std::string("open folder: ") + std::strerror(errno);
  if (fs.fsync(dir) != 0) failure = std::string("fsync folder: ") + std::strerror(errno);
  fs.close(dir);
  return failure;
}

// A writer that died between creating its temporary file and renaming it leaves the file
// behind. Temporary files are only written under the domain's lock, so any found while holding
// it belong to a dead writer and are removed: repeated crashes cannot fill the folder.
void removeStaleTemporaries(const std::string& folder, const std::string& name) {
  DIR* dir = ::opendir(folder.c_str());
  if (dir == nullptr) return;
  const std::string prefix = "." + name + kSuffix + ".";
  const std::string_view suffix(".tmp");
  std::vector<std::string> stale;
  while (const dirent* entry = ::readdir(dir)) {
    const std::string_view file(entry->d_name);
    if (file.size() <= prefix.size() + suffix.size() || file.substr(0, prefix.size()) != prefix ||
        file.substr(file.size() - suffix.size()) != suffix) {
      continue;
    }
    // "<pid>.<counter>" exactly, so that another domain's temporaries never match.
    const std::string_view middle =
        file.substr(prefix.size(), file.size() - prefix.size() - suffix.size());
    const size_t dot = middle.find('.');
    const auto digits = [](std::string_view part) {
      return !part.empty() &&
             std::all_of(part.begin(), part.end(), [](char c) { return c >= '0' && c <= '9'; });
    };
    if (dot == std::string_view::npos || !digits(middle.substr(0, dot)) ||
        !digits(middle.substr(dot + 1))) {
      continue;
    }
    stale.emplace_back(file);
  }
  ::closedir(dir);
  for (const std::string& file : stale) fileSystem().unlink((folder + "/" + file).c_str());
}

}  // namespace

bool PreferencesDomain::isValidName(std::string_view name) {
  return !name.empty() && name.size() <= kMaxNameLength && name != "." && name != ".." &&
         name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

std::string PreferencesDomain::directory() { return homeDirectory() + "/Library/Preferences"; }

std::vector<std::string> PreferencesDomain::listDomains() {
  std::vector<std::string> names;
  DIR* dir = ::opendir(directory().c_str());
  if (dir == nullptr) return names;
  const std::string_view suffix(kSuffix);
  while (const dirent* entry = ::readdir(dir)) {
    const std::string_view file(entry->d_name);
    if (file.size() <= suffix.size() || file.front() == '.' ||
        file.substr(file.size() - suffix.size()) != suffix) {
      continue;
    }
    names.emplace_back(file.substr(0, file.size() - suffix.size()));
  }
  ::closedir(dir);
  std::sort(names.begin(), names.end());
  return names;
}

std::shared_ptr<PreferencesDomain> PreferencesDomain::open(const std::string& name) {
  if (!isValidName(name)) return nullptr;
  return std::make_shared<PreferencesDomain>(name, directory());
}

PreferencesDomain::PreferencesDomain(std::string name, std::string directory)
    : name_(std::move(name)),
      directory_(std::move(directory)),
      path_(directory_ + "/" + name_ + kSuffix) {}

void PreferencesDomain::setInteger(const std::string& key, int64_t value) {
  setValue(key, Value::integer(value));
}

void PreferencesDomain::setValue(const std::string& key, Value value) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (value.isNull() || value.isError()) {
    pending_[key] = std::nullopt;
  } else {
    pending_[key] = std::move(value);
  }
}

void PreferencesDomain::removeValue(const std::string& key) { setValue(key, Value()); }

namespace {

// True when the file at `path` itself (a link is not followed) holds exactly `text`. Any doubt
// (no file, a link, an error) is a no.
bool fileHoldsText(const std::string& path, const std::string& text) {
  const ReadResult read = readFile(path, text.size(), Owner::kSelf);
  return read.ok && read.data == text;
}

}  // namespace

bool PreferencesDomain::knownHoldsPendingLocked() const {
  if (!known_) return false;
  for (const auto& [key, change] : pending_) {
    const auto it = known_->contents.find(key);
    if (change ? it == known_->contents.end() || !(it->second == *change)
               : it != known_->contents.end()) {
      return false;
    }
  }
  return fileHoldsText(path_, known_->text);
}

bool PreferencesDomain::synchronize() {
  // mutex_ stays held through the write so that two synchronize() calls on one handle cannot
  // interleave their staging and clearing.
  std::lock_guard<std::mutex> lock(mutex_);
  if (pending_.empty()) return true;
  // The file is the one this handle last saw, untouched since, and says all of it already.
  if (knownHoldsPendingLocked()) {
    pending_.clear();
    return true;
  }

  const std::string library = directory_.substr(0, directory_.rfind('/'));
  if (!makeFolder(library) || !makeFolder(directory_)) {
    report(LOG_WARNING, path_, "preferences not written", std::strerror(errno));
    return false;
  }
  DomainLock domainLock(path_ + ".lock");
  if (!domainLock.held()) {
    report(LOG_WARNING, path_, "preferences not written",
           std::string("cannot lock: ") + std::strerror(errno));
    return false;
  }
  removeStaleTemporaries(directory_, name_);
  FileRead current = readDomainFile(path_);
  if (current.outcome == FileRead::kRefused) {
    report(LOG_WARNING, path_, "preferences not written", "the file was refused");
    return false;
  }
  if (current.outcome == FileRead::kMalformed) moveAside(path_, current.error);
  Value::Dictionary merged;
  if (current.outcome == FileRead::kOk) merged = current.dictionary.asDictionary();
  for (const auto& [key, change] : pending_) {
    if (change) {
      merged.insert_or_assign(key, *change);
    } else {
      merged.erase(key);
    }
  }
  // The file already says all of it (a daemon restarting writes the values it wrote last time):
  // nothing to replace, and no sync to wait for.
  std::string text = toJson(Value::dictionary(merged), true) + "\n";
  if (current.outcome == FileRead::kOk && merged == current.dictionary.asDictionary()) {
    pending_.clear();
    known_ = Known{std::move(text), std::move(merged)};
    return true;
  }
  const std::string failure = replaceDomainFile(directory_, name_, path_, text);
  if (!failure.empty()) {
    known_.reset();
    report(LOG_WARNING, path_, "preferences not written", failure);
    return false;
  }
  pending_.clear();
  known_ = Known{std::move(text), std::move(merged)};
  return true;
}

Value PreferencesDomain::contents() const {
  FileRead read = readDomainFile(path_);
  if (read.outcome == FileRead::kMalformed) {
    // Decide under the lock: a writer may have just replaced the file with a good one.
    DomainLock domainLock(path_ + ".lock");
    read = readDomainFile(path_);
    if (read.outcome == FileRead::kMalformed) {
      if (domainLock.held()) {
        moveAside(path_, read.error);
      } else {
        char line[1024];
        std::snprintf(line, sizeof line, "%s:%d:%d: malformed preferences: %s",
                      read.error.file.c_str(), read.error.line, read.error.column,
                      read.error.message.c_str());
        systemLog(LOG_WARNING, line);
      }
    }
  }
  Value::Dictionary result;
  if (read.outcome == FileRead::kOk) result = read.dictionary.asDictionary();
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& [key, change] : pending_) {
    if (change) {
      result.insert_or_assign(key, *change);
    } else {
      result.erase(key);
    }
  }
  return Value::dictionary(std::move(result));
}

bool PreferencesDomain::write(const std::string& key, Value value) {
  setValue(key, std::move(value));
  return synchronize();
}

bool PreferencesDomain::remove(const std::string& key) {
  removeValue(key);
  return synchronize();
}

}  // namespace kelo::platform
