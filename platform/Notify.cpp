#include "platform/Notify.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "platform/Facts.h"

namespace kelo::platform {

namespace {

constexpr char kFolder[] = "/run/kelo/notify";

// The 16 bytes of a state file: the state word, then the post generation. Native byte order;
// the file never leaves the machine.
struct Record {
  uint64_t state = 0;
  uint64_t generation = 0;
};
constexpr size_t kRecordSize = sizeof(Record);
static_assert(kRecordSize == 16);

// An open state file; the descriptor is closed when the last holder lets go.
class StateFile {
 public:
  explicit StateFile(int fd) : fd_(fd) {}
  ~StateFile() { fileSystem().close(fd_); }
  StateFile(const StateFile&) = delete;
  StateFile& operator=(const StateFile&) = delete;
  int fd() const { return fd_; }

 private:
  const int fd_;
};

// flock(2) held for one read or write of the record, so that no reader sees half a record even
// where the kernel would not keep a 16-byte pread and pwrite apart.
class FileLock {
 public:
  FileLock(int fd, int operation) : fd_(fd) {
    int rc;
    do {
      rc = ::flock(fd, operation);
    } while (rc != 0 && errno == EINTR);
    locked_ = rc == 0;
  }
  ~FileLock() {
    if (locked_) ::flock(fd_, LOCK_UN);
  }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  bool locked() const { return locked_; }

 private:
  int fd_;
  bool locked_;
};

// A file shorter than a record (just created) reads as zeros.
bool preadRecord(int fd, Record* out) {
  unsigned char bytes[kRecordSize] = {};
  size_t got = 0;
  while (got < kRecordSize) {
    const ssize_t n = ::pread(fd, bytes + got, kRecordSize - got, static_cast<off_t>(got));
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  std::memcpy(out, bytes, kRecordSize);
  return true;
}

bool readRecord(int fd, Record* out) {
  FileLock lock(fd, LOCK_SH);
  return lock.locked() && preadRecord(fd, out);
}

// Read-modify-write of the record under an exclusive lock, written with one write(2) so that
// watchers get a single IN_MODIFY.
template <class Mutate>
bool updateRecord(int fd, Mutate mutate) {
  FileLock lock(fd, LOCK_EX);
  if (!lock.locked()) return false;
  Record record;
  if (!preadRecord(fd, &record)) return false;
  mutate(record);
  if (::lseek(fd, 0, SEEK_SET) != 0) return false;
  return fileSystem().write(fd, &record, kRecordSize) == static_cast<ssize_t>(kRecordSize);
}

bool validName(const char* name) {
  if (name == nullptr || name[0] == '\0') return false;
  const size_t length = ::strnlen(name, kNotifyMaxNameLength + 1);
  if (length > kNotifyMaxNameLength) return false;
  if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) return false;
  return std::strchr(name, '/') == nullptr;
}

std::string folderPath() { return devicePath(kFolder); }

bool makeFolders(const std::string& path) {
  for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const std::string prefix = slash == std::string::npos ? path : path.substr(0, slash);
    if (fileSystem().mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) return false;
    if (slash == std::string::npos) return true;
  }
}

struct Folder {
  std::string path;
  uid_t owner = 0;
  mode_t mode = 0;
};

uint32_t openFolder(Folder* folder) {
  folder->path = folderPath();
  struct stat st;
  if (::lstat(folder->path.c_str(), &st) != 0) {
    if (errno != ENOENT || !makeFolders(folder->path)) return kNotifyStatusFailed;
    if (::lstat(folder->path.c_str(), &st) != 0) return kNotifyStatusFailed;
  }
  // A link in place of the folder could send state files anywhere.
  if (!S_ISDIR(st.st_mode)) return kNotifyStatusNotAuthorized;
  folder->owner = st.st_uid;
  folder->mode = st.st_mode & 07777;
  return kNotifyStatusOk;
}

bool folderWritable(const Folder& folder) {
  return ::faccessat(AT_FDCWD, folder.path.c_str(), W_OK | X_OK, AT_EACCESS) == 0;
}

uint32_t statusForOpenError(int error) {
  switch (error) {
    case ELOOP:  // a symbolic link in place of the state file
    case EACCES:
    case EPERM:
    case EROFS:
    case EISDIR:
    case ENXIO:  // a socket
      return kNotifyStatusNotAuthorized;
    default:
      return kNotifyStatusFailed;
  }
}

enum class Access { kWrite, kRead };

// Opens (or creates) the state file of a validated name. kWrite needs a folder the caller may
// write and a file it may write; kRead settles for a readable file and creates it only when the
// folder allows.
uint32_t openStateFile(const char* name, Access access, std::shared_ptr<StateFile>* out) {
  if (!validName(name)) return kNotifyStatusInvalidName;
  Folder folder;
  if (const uint32_t status = openFolder(&folder); status != kNotifyStatusOk) return status;
  const bool writable = folderWritable(folder);
  if (access == Access::kWrite && !writable) return kNotifyStatusNotAuthorized;

  const std::string path = folder.path + "/" + name;
  // O_NONBLOCK: a FIFO planted under the name must not hang the open.
  constexpr int kBase = O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
  const int openFlags = (access == Access::kWrite ? O_RDWR : O_RDONLY) | kBase;
  const mode_t fileMode = folder.mode & 0666;
  int fd = -1;
  for (int attempt = 0; attempt < 2 && fd < 0; ++attempt) {
    fd = fileSystem().open(path.c_str(), openFlags, 0);
    if (fd >= 0 || errno != ENOENT) break;
    if (!writable) return kNotifyStatusNotAuthorized;
    fd = fileSystem().open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | kBase, fileMode);
    if (fd >= 0) {
      // The umask must not narrow who may post: the folder decides that.
      ::fchmod(fd, fileMode);
    } else if (errno != EEXIST) {
      break;
    }
  }
  if (fd < 0) return statusForOpenError(errno);

  auto file = std::make_shared<StateFile>(fd);
  struct stat st;
  if (::fstat(fd, &st) != 0) return kNotifyStatusFailed;
  if (!S_ISREG(st.st_mode)) return kNotifyStatusNotAuthorized;
  if (st.st_uid != ::geteuid() && st.st_uid != folder.owner) return kNotifyStatusNotAuthorized;
  *out = std::move(file);
  return kNotifyStatusOk;
}

struct Registration {
  Registration(int t, std::string n, SerialQueue* q, std::function<void(int)> h)
      : token(t), name(std::move(n)), queue(q), handler(std::move(h)) {}
  const int token;
  const std::string name;
  SerialQueue* const queue;  // null for a check registration
  const std::function<void(int)> handler;
  std::atomic<bool> cancelled{false};
  // True while a delivery is queued and has not started: further posts coalesce into it.
  std::atomic<bool> pending{false};
};

// Every registration of this process and the watcher that serves the dispatch ones.
class Notifier {
 public:
  static Notifier& instance() {
    static Notifier* notifier = new Notifier();  // never destroyed: the watcher may still run
    return *notifier;
  }

  uint32_t registerCheck(const char* name, int* outToken) {
    std::shared_ptr<StateFile> file;
    if (const uint32_t status = openStateFile(name, Access::kWrite, &file);
        status != kNotifyStatusOk) {
      return status;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    const int token = newTokenLocked();
    tokens_.emplace(token, Entry{std::make_shared<Registration>(token, name, nullptr, nullptr),
                                 std::move(file)});
    *outToken = token;
    return kNotifyStatusOk;
  }

  uint32_t registerDispatch(const char* name, int* outToken, SerialQueue* queue,
                            std::function<void(int)> handler) {
    std::shared_ptr<StateFile> file;
    if (const uint32_t status = openStateFile(name, Access::kRead, &file);
        status != kNotifyStatusOk) {
      return status;
    }
    std::shared_ptr<StateFile> unused;  // released after the lock
    std::lock_guard<std::mutex> lock(mutex_);
    if (const uint32_t status = startWatcherLocked(); status != kNotifyStatusOk) return status;
    Watched& watched = names_[name];
    if (watched.file == nullptr) {
      // The folder is watched already, so a post after this read is seen.
      Record record;
      if (!readRecord(file->fd(), &record)) {
        names_.erase(name);
        return kNotifyStatusFailed;
      }
      watched.file = std::move(file);
      watched.generation = record.generation;
    } else {
      unused = std::move(file);
    }
    const int token = newTokenLocked();
    auto registration = std::make_shared<Registration>(token, name, queue, std::move(handler));
    watched.registrations.push_back(registration);
    tokens_.emplace(token, Entry{std::move(registration), nullptr});
    *outToken = token;
    return kNotifyStatusOk;
  }

  uint32_t setState(int token, uint64_t state) {
    std::shared_ptr<StateFile> file = fileOf(token);
    if (file == nullptr) return kNotifyStatusInvalidToken;
    return updateRecord(file->fd(), [state](Record& r) { r.state = state; })
               ? kNotifyStatusOk
               : kNotifyStatusFailed;
  }

  uint32_t getState(int token, uint64_t* outState) {
    std::shared_ptr<StateFile> file = fileOf(token);
    if (file == nullptr) return kNotifyStatusInvalidToken;
    Record record;
    if (!readRecord(file->fd(), &record)) return kNotifyStatusFailed;
    *outState = record.state;
    return kNotifyStatusOk;
  }

  uint32_t cancel(int token) {
    std::shared_ptr<StateFile> closing;  // closed after the lock is released
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = tokens_.find(token);
    if (it == tokens_.end()) return kNotifyStatusInvalidToken;
    std::shared_ptr<Registration> registration = std::move(it->second.registration);
    closing = std::move(it->second.file);
    tokens_.erase(it);
    registration->cancelled.store(true, std::memory_order_release);
    if (registration->queue != nullptr) {
      auto named = names_.find(registration->name);
      if (named != names_.end()) {
        auto& list = named->second.registrations;
        std::erase(list, registration);
        if (list.empty()) {
          closing = std::move(named->second.file);
          names_.erase(named);
        }
      }
    }
    return kNotifyStatusOk;
  }

 private:
  struct Entry {
    std::shared_ptr<Registration> registration;
    std::shared_ptr<StateFile> file;  // check registrations only; dispatch ones use names_
  };
  struct Watched {
    std::shared_ptr<StateFile> file;
    uint64_t generation = 0;  // the last generation delivered (or seen at registration)
    std::vector<std::shared_ptr<Registration>> registrations;
  };

  Notifier() = default;

  int newTokenLocked() {
    for (;;) {
      const int token = nextToken_;
      nextToken_ = nextToken_ == INT_MAX ? 1 : nextToken_ + 1;
      if (tokens_.find(token) == tokens_.end()) return token;
    }
  }

  std::shared_ptr<StateFile> fileOf(int token) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = tokens_.find(token);
    if (it == tokens_.end()) return nullptr;
    if (it->second.file != nullptr) return it->second.file;
    auto named = names_.find(it->second.registration->name);
    return named == names_.end() ? nullptr : named->second.file;
  }

  uint32_t startWatcherLocked() {
    if (inotifyFd_ >= 0) return kNotifyStatusOk;
    const int fd = ::inotify_init1(IN_CLOEXEC);
    if (fd < 0) return kNotifyStatusFailed;
    // The folder rather than each file: a state file created (or replaced) after registration
    // is noticed by its name.
    const std::string folder = folderPath();
    if (::inotify_add_watch(fd, folder.c_str(),
                            IN_MODIFY | IN_CREATE | IN_MOVED_TO | IN_ONLYDIR | IN_DONT_FOLLOW) <
        0) {
      ::close(fd);
      return kNotifyStatusFailed;
    }
    try {
      std::thread([this, fd] { watch(fd); }).detach();
    } catch (...) {
      ::close(fd);
      return kNotifyStatusFailed;
    }
    inotifyFd_ = fd;
    return kNotifyStatusOk;
  }

  void watch(int fd) {
    alignas(inotify_event) char buffer[16 * 1024];
    bool reportedError = false;
    for (;;) {
      const ssize_t n = ::read(fd, buffer, sizeof buffer);
      if (n <= 0) {
        if (n < 0 && errno == EINTR) continue;
        if (!reportedError) {
          reportedError = true;
          char line[160];
          std::snprintf(line, sizeof line, "notify: reading inotify events failed: %s",
                        std::strerror(errno));
          systemLog(LOG_ERR, line);
        }
        ::usleep(100 * 1000);
        continue;
      }
      bool overflow = false;
      std::vector<std::string> touched;
      std::unordered_set<std::string> recreated;
      for (ssize_t offset = 0; offset < n;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
        offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        if ((event->mask & IN_Q_OVERFLOW) != 0) {
          overflow = true;
          continue;
        }
        if (event->len == 0) continue;
        std::string name(event->name);
        if ((event->mask & (IN_CREATE | IN_MOVED_TO)) != 0) recreated.insert(name);
        if (std::find(touched.begin(), touched.end(), name) == touched.end()) {
          touched.push_back(std::move(name));
        }
      }
      if (overflow) {
        // Lost events may have hidden posts and re-created files of any name.
        touched = registeredNames();
        recreated.clear();
        recreated.insert(touched.begin(), touched.end());
      }
      for (const std::string& name : touched) check(name, recreated.count(name) != 0);
    }
  }

  std::vector<std::string> registeredNames() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> names;
    names.reserve(names_.size());
    for (const auto& [name, watched] : names_) names.push_back(name);
    return names;
  }

  // Delivers the name's registrations if its generation moved since the last delivery.
  void check(const std::string& name, bool reopen) {
    std::shared_ptr<StateFile> file;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      auto it = names_.find(name);
      if (it == names_.end()) return;
      file = it->second.file;
    }
    if (reopen) {
      std::shared_ptr<StateFile> fresh;
      if (openStateFile(name.c_str(), Access::kRead, &fresh) == kNotifyStatusOk) {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = names_.find(name);
        if (it == names_.end()) return;
        std::swap(it->second.file, fresh);  // the old one closes after the lock
        file = it->second.file;
      }
    }
    Record record;
    if (!readRecord(file->fd(), &record)) return;
    std::vector<std::shared_ptr<Registration>> due;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      auto it = names_.find(name);
      if (it == names_.end() || it->second.generation == record.generation) return;
      it->second.generation = record.generation;
      due = it->second.registrations;
    }
    for (std::shared_ptr<Registration>& registration : due) deliver(std::move(registration));
  }

  static void deliver(std::shared_ptr<Registration> registration) {
    if (registration->cancelled.load(std::memory_order_acquire)) return;
    // A delivery already queued will read the latest state when it runs.
    if (registration->pending.exchange(true, std::memory_order_acq_rel)) return;
    SerialQueue* queue = registration->queue;
    queue->runOrPost([registration = std::move(registration)] {
      registration->pending.store(false, std::memory_order_release);
      if (registration->cancelled.load(std::memory_order_acquire)) return;
      try {
        registration->handler(registration->token);
      } catch (...) {
        systemLog(LOG_ERR, "notify: a notification handler threw an exception");
      }
    });
  }

  std::mutex mutex_;
  int nextToken_ = 1;                              // guarded by mutex_
  std::unordered_map<int, Entry> tokens_;          // guarded by mutex_
  std::unordered_map<std::string, Watched> names_;  // guarded by mutex_
  int inotifyFd_ = -1;                              // guarded by mutex_; set once
};

template <class F>
uint32_t guarded(F f) noexcept {
  try {
    return f();
  } catch (...) {
    return kNotifyStatusFailed;
  }
}

}  // namespace

uint32_t notify_register_check(const char* name, int* outToken) {
  if (outToken == nullptr) return kNotifyStatusInvalidArgument;
  return guarded([&] { return Notifier::instance().registerCheck(name, outToken); });
}

uint32_t notify_set_state(int token, uint64_t state) {
  return guarded([&] { return Notifier::instance().setState(token, state); });
}

uint32_t notify_get_state(int token, uint64_t* outState) {
  if (outState == nullptr) return kNotifyStatusInvalidArgument;
  return guarded([&] { return Notifier::instance().getState(token, outState); });
}

uint32_t notify_post(const char* name) {
  return guarded([&] {
    std::shared_ptr<StateFile> file;
    if (const uint32_t status = openStateFile(name, Access::kWrite, &file);
        status != kNotifyStatusOk) {
      return status;
    }
    return updateRecord(file->fd(), [](Record& r) { ++r.generation; }) ? kNotifyStatusOk
                                                                         : kNotifyStatusFailed;
  });
}

uint32_t notify_cancel(int token) {
  return guarded([&] { return Notifier::instance().cancel(token); });
}

uint32_t notify_register_dispatch(const char* name, int* outToken, SerialQueue* queue,
                                  std::function<void(int token)> handler) {
  if (outToken == nullptr || queue == nullptr || !handler) return kNotifyStatusInvalidArgument;
  return guarded([&] {
    return Notifier::instance().registerDispatch(name, outToken, queue, std::move(handler));
  });
}

}  // namespace kelo::platform
