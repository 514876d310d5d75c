#include "platform/Notify.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
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

bool writeWord(int fd, off_t offset, uint64_t value) {
  ssize_t n;
  do {
    n = ::pwrite(fd, &value, sizeof value, offset);
  } while (n < 0 && errno == EINTR);
  return n == static_cast<ssize_t>(sizeof value);
}

// An open state file, mapped shared so that the state is read and set with plain atomic loads
// and stores: a store to a mapping raises no inotify event, so setting the state wakes nobody,
// while a post is a pwrite(2) of the generation, which does. No word can tear, and neither
// writer touches the other's word, so setting the state cannot undo a post nor a post a state.
//
// A file shorter than a record (being created by another process) is read with pread(2) until
// it has grown. Whoever may write the folder could truncate a mapped file and fault its readers;
// the files are only accepted from the caller and the folder's owner.
class StateFile {
 public:
  StateFile(int fd, uid_t folderOwner, bool writable)
      : fd_(fd), folderOwner_(folderOwner), writable_(writable), checkedAtMs_(nowMs()) {
    tryMap();
  }
  ~StateFile() {
    if (uint64_t* words = words_.load(std::memory_order_relaxed)) ::munmap(words, kRecordSize);
    fileSystem().close(fd_);
  }
  StateFile(const StateFile&) = delete;
  StateFile& operator=(const StateFile&) = delete;

  // Still the name's file: not unlinked, still a regular file of an allowed owner. Checked with
  // fstat(2) at most once a second, which keeps a report free of extra system calls.
  bool stillValid() {
    const int64_t now = nowMs();
    if (now - checkedAtMs_.load(std::memory_order_relaxed) < 1000) return true;
    struct stat st;
    const bool valid = ::fstat(fd_, &st) == 0 && S_ISREG(st.st_mode) && st.st_nlink > 0 &&
                       (st.st_uid == ::geteuid() || st.st_uid == folderOwner_);
    if (valid) checkedAtMs_.store(now, std::memory_order_relaxed);
    return valid;
  }

  bool read(Record* out) {
    uint64_t* words = words_.load(std::memory_order_acquire);
    if (words == nullptr) words = tryMap();
    if (words != nullptr) {
      out->state = std::atomic_ref<uint64_t>(words[0]).load(std::memory_order_acquire);
      out->generation = std::atomic_ref<uint64_t>(words[1]).load(std::memory_order_acquire);
      return true;
    }
    unsigned char bytes[kRecordSize] = {};
    ssize_t n;
    do {
      n = ::pread(fd_, bytes, kRecordSize, 0);
    } while (n < 0 && errno == EINTR);
    if (n < 0) return false;
    std::memcpy(out, bytes, kRecordSize);  // a short file reads as zeros
    return true;
  }

  bool setState(uint64_t state) {
    uint64_t* words = writable_ ? words_.load(std::memory_order_acquire) : nullptr;
    if (words == nullptr) return false;
    std::atomic_ref<uint64_t>(words[0]).store(state, std::memory_order_release);
    return true;
  }

  bool post() {
    return writable_ && writeWord(fd_, offsetof(Record, generation), nextGeneration());
  }

  // A writable file is grown to a full record before use, so it is always mapped.
  bool ready() const { return !writable_ || words_.load(std::memory_order_acquire) != nullptr; }

 private:
  static uint64_t nextGeneration();
  static int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
  }

  uint64_t* tryMap() {
    struct stat st;
    if (::fstat(fd_, &st) != 0) return nullptr;
    if (st.st_size < static_cast<off_t>(kRecordSize)) {
      // Growing never cuts what another process wrote.
      if (!writable_ || ::ftruncate(fd_, kRecordSize) != 0) return nullptr;
    }
    void* map = ::mmap(nullptr, kRecordSize, writable_ ? PROT_READ | PROT_WRITE : PROT_READ,
                       MAP_SHARED, fd_, 0);
    if (map == MAP_FAILED) return nullptr;
    uint64_t* expected = nullptr;
    auto* words = static_cast<uint64_t*>(map);
    if (!words_.compare_exchange_strong(expected, words, std::memory_order_acq_rel)) {
      ::munmap(map, kRecordSize);
      return expected;
    }
    return words;
  }

  const int fd_;
  const uid_t folderOwner_;
  const bool writable_;
  std::atomic<uint64_t*> words_{nullptr};
  std::atomic<int64_t> checkedAtMs_;  // steady clock, when the file was last found valid
};

// A post only has to change the generation to something no watcher has seen. Values unique per
// process (a counter through a bijective mix) and seeded from the pid and the clock cannot repeat
// the previous value of a file, unlike an increment two posters could both compute.
uint64_t StateFile::nextGeneration() {
  static std::atomic<uint64_t> counter{
      (static_cast<uint64_t>(::getpid()) << 40) ^
      static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count())};
  uint64_t z = counter.fetch_add(0x9E3779B97F4A7C15ULL, std::memory_order_relaxed);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
  return z ^ (z >> 31);
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

  struct stat st;
  const int accessMode = ::fcntl(fd, F_GETFL) & O_ACCMODE;
  if (::fstat(fd, &st) != 0) {
    fileSystem().close(fd);
    return kNotifyStatusFailed;
  }
  // Checked before mapping: a stranger's file is neither mapped nor grown.
  if (!S_ISREG(st.st_mode) || (st.st_uid != ::geteuid() && st.st_uid != folder.owner)) {
    fileSystem().close(fd);
    return kNotifyStatusNotAuthorized;
  }
  auto file = std::make_shared<StateFile>(fd, folder.owner, accessMode != O_RDONLY);
  if (!file->ready()) return kNotifyStatusFailed;
  *out = std::move(file);
  return kNotifyStatusOk;
}

// Lets the maps be searched with the caller's C string without building a std::string.
struct NameHash {
  using is_transparent = void;
  size_t operator()(std::string_view name) const { return std::hash<std::string_view>{}(name); }
};

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

  // The name's file opened for writing. A process keeps the files it posts to open and reuses
  // them while they are still the names' files (StateFile::stillValid).
  uint32_t writableFile(const char* name, std::shared_ptr<StateFile>* out) {
    if (!validName(name)) return kNotifyStatusInvalidName;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      auto it = writable_.find(std::string_view(name));
      if (it != writable_.end()) *out = it->second;
    }
    if (*out != nullptr && (*out)->stillValid()) return kNotifyStatusOk;
    out->reset();
    if (const uint32_t status = openStateFile(name, Access::kWrite, out);
        status != kNotifyStatusOk) {
      return status;
    }
    std::shared_ptr<StateFile> replaced;  // closed after the lock
    std::lock_guard<std::mutex> lock(mutex_);
    auto [it, inserted] = writable_.try_emplace(name, *out);
    if (!inserted) {
      replaced = std::move(it->second);
      it->second = *out;
    }
    return kNotifyStatusOk;
  }

  uint32_t post(const char* name) {
    std::shared_ptr<StateFile> file;
    if (const uint32_t status = writableFile(name, &file); status != kNotifyStatusOk) {
      return status;
    }
    return file->post() ? kNotifyStatusOk : kNotifyStatusFailed;
  }

  uint32_t registerCheck(const char* name, int* outToken) {
    std::shared_ptr<StateFile> file;
    if (const uint32_t status = writableFile(name, &file); status != kNotifyStatusOk) {
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
      if (!file->read(&record)) {
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
    return file->setState(state) ? kNotifyStatusOk : kNotifyStatusFailed;
  }

  uint32_t getState(int token, uint64_t* outState) {
    std::shared_ptr<StateFile> file = fileOf(token);
    if (file == nullptr) return kNotifyStatusInvalidToken;
    Record record;
    if (!file->read(&record)) return kNotifyStatusFailed;
    *outState = record.state;
    return kNotifyStatusOk;
  }

  uint32_t cancel(int token) {
    // Released after the lock: closing a file and destroying a handler run outside it.
    std::shared_ptr<StateFile> closing;
    std::shared_ptr<Registration> registration;
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = tokens_.find(token);
    if (it == tokens_.end()) return kNotifyStatusInvalidToken;
    registration = std::move(it->second.registration);
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

  Notifier() {
    ::pthread_atfork([] { instance().mutex_.lock(); }, [] { instance().mutex_.unlock(); },
                     [] { instance().afterForkInChild(); });
  }

  // The child of fork(2) has this process's registrations but not its watcher thread, and must
  // not read events from the inotify descriptor it shares with the parent. Its dispatch
  // registrations end (their queues' workers are gone too); a new one starts a watcher of its
  // own. Check registrations and kept files stay usable. mutex_ was held across the fork, so no
  // thread of the parent left it locked.
  void afterForkInChild() {
    if (inotifyFd_ >= 0) {
      ::close(inotifyFd_);
      inotifyFd_ = -1;
    }
    for (auto it = tokens_.begin(); it != tokens_.end();) {
      if (it->second.registration->queue != nullptr) {
        it->second.registration->cancelled.store(true, std::memory_order_relaxed);
        it = tokens_.erase(it);
      } else {
        ++it;
      }
    }
    names_.clear();
    mutex_.unlock();
  }

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

  // The folder rather than each file: a state file created (or replaced) after registration is
  // noticed by its name.
  static constexpr uint32_t kWatchMask =
      IN_MODIFY | IN_CREATE | IN_MOVED_TO | IN_ONLYDIR | IN_DONT_FOLLOW;

  uint32_t startWatcherLocked() {
    if (inotifyFd_ >= 0) return kNotifyStatusOk;
    const int fd = ::inotify_init1(IN_CLOEXEC);
    if (fd < 0) return kNotifyStatusFailed;
    if (::inotify_add_watch(fd, folderPath().c_str(), kWatchMask) < 0) {
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
      try {
        handleEvents(fd, buffer, static_cast<size_t>(n));
      } catch (...) {
        // Out of memory: the events of this batch are lost, as in an overflow.
        try {
          rescanAll();
        } catch (...) {
        }
      }
    }
  }

  void handleEvents(int fd, const char* buffer, size_t size) {
    bool lost = false;
    std::vector<std::string> touched;
    std::unordered_set<std::string> recreated;
    for (size_t offset = 0; offset < size;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
      offset += sizeof(inotify_event) + event->len;
      if ((event->mask & IN_Q_OVERFLOW) != 0) {
        lost = true;
      } else if ((event->mask & IN_IGNORED) != 0) {
        // The folder went away (removed or replaced); watch the one that posters re-create.
        const std::string folder = folderPath();
        makeFolders(folder);
        if (::inotify_add_watch(fd, folder.c_str(), kWatchMask) < 0) {
          systemLog(LOG_ERR, "notify: the notification folder can no longer be watched");
        }
        lost = true;
      } else if (event->len > 0) {
        std::string name(event->name);
        if ((event->mask & (IN_CREATE | IN_MOVED_TO)) != 0) recreated.insert(name);
        if (std::find(touched.begin(), touched.end(), name) == touched.end()) {
          touched.push_back(std::move(name));
        }
      }
    }
    if (lost) {
      rescanAll();
      return;
    }
    for (const std::string& name : touched) check(name, recreated.count(name) != 0);
  }

  // Lost events may have hidden posts and re-created files of any name.
  void rescanAll() {
    for (const std::string& name : registeredNames()) check(name, true);
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
    if (!file->read(&record)) return;
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
  int nextToken_ = 1;                               // guarded by mutex_
  std::unordered_map<int, Entry> tokens_;           // guarded by mutex_
  std::unordered_map<std::string, Watched> names_;  // guarded by mutex_
  // Files this process posts to, by name; guarded by mutex_.
  std::unordered_map<std::string, std::shared_ptr<StateFile>, NameHash, std::equal_to<>> writable_;
  int inotifyFd_ = -1;  // guarded by mutex_
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
  return guarded([&] { return Notifier::instance().post(name); });
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
