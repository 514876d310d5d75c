#include "platform/SafeFile.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <mutex>
#include <unordered_set>
#include <utility>

#include "platform/Facts.h"

namespace kelo::platform {

namespace {

// O_NONBLOCK: a FIFO planted under a name must fail the regular-file check, not hang the open.
constexpr int kReadFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
constexpr std::size_t kRememberedWarnings = 4096;

std::string failure(const std::string& path, const char* what, int err) {
  std::string message = path + ": " + what;
  if (err != 0) {
    char buffer[256];
    message += std::string(": ") + ::strerror_r(err, buffer, sizeof buffer);
  }
  return message;
}

std::string openFailure(const std::string& path, int err) {
  if (err == ELOOP) return failure(path, "is a symbolic link", 0);
  if (err == ENOENT) return failure(path, "does not exist", 0);
  return failure(path, "cannot open", err);
}

// A descriptor that closes itself through the installed file system.
class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) fileSystem().close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

const char* kindOf(mode_t mode) {
  if (S_ISDIR(mode)) return "is a folder, not a regular file";
  if (S_ISFIFO(mode)) return "is a FIFO, not a regular file";
  if (S_ISSOCK(mode)) return "is a socket, not a regular file";
  if (S_ISCHR(mode) || S_ISBLK(mode)) return "is a device, not a regular file";
  return "is not a regular file";
}

// Empty when `st` is a regular file of an allowed owner, else the reason.
std::string refusal(const std::string& path, const struct stat& st, Owner owner) {
  if (!S_ISREG(st.st_mode)) return failure(path, kindOf(st.st_mode), 0);
  const bool allowed = owner == Owner::kAnyone || st.st_uid == ::geteuid() ||
                       (owner == Owner::kSelfOrRoot && st.st_uid == 0);
  if (!allowed) {
    return failure(path, ("is owned by user " + std::to_string(st.st_uid)).c_str(), 0);
  }
  return {};
}

// Opens `path` for reading, checking that it is a regular file. On failure fills `out`.
int openRegular(const std::string& path, Owner owner, ReadResult* out, struct stat* st) {
  FileSystem& fs = fileSystem();
  const int fd = fs.open(path.c_str(), kReadFlags, 0);
  if (fd < 0) {
    out->missing = errno == ENOENT || errno == ENOTDIR;
    out->error = openFailure(path, errno);
    return -1;
  }
  if (fs.fstat(fd, st) != 0) {
    out->error = failure(path, "cannot stat", errno);
    fs.close(fd);
    return -1;
  }
  if (std::string why = refusal(path, *st, owner); !why.empty()) {
    out->error = std::move(why);
    fs.close(fd);
    return -1;
  }
  return fd;
}

// Reads from `offset` until end of file or `limit` bytes, whichever comes first; `*more` tells
// whether bytes remained beyond the limit.
bool readUpTo(int fd, uint64_t offset, std::size_t limit, std::string* data, bool* more) {
  FileSystem& fs = fileSystem();
  data->clear();
  char buffer[65536];
  *more = false;
  for (;;) {
    // One byte past the limit tells "exactly the limit" from "more than the limit".
    const std::size_t want = std::min(sizeof buffer, limit + 1 - data->size());
    const ssize_t n = fs.pread(fd, buffer, want, static_cast<off_t>(offset + data->size()));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) return true;
    data->append(buffer, static_cast<std::size_t>(n));
    if (data->size() > limit) {
      data->resize(limit);
      *more = true;
      return true;
    }
  }
}

std::string parentOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

ReadResult readFile(const std::string& path, std::size_t limit, Owner owner) {
  ReadResult out;
  struct stat st;
  Fd fd(openRegular(path, owner, &out, &st));
  if (fd.get() < 0) return out;
  if (static_cast<uint64_t>(st.st_size) > limit) {
    out.error = failure(path, ("is larger than " + std::to_string(limit) + " bytes").c_str(), 0);
    return out;
  }
  bool more = false;
  if (!readUpTo(fd.get(), 0, limit, &out.data, &more)) {
    out.error = failure(path, "cannot read", errno);
    out.data.clear();
    return out;
  }
  if (more) {  // grown since the check
    out.error = failure(path, ("is larger than " + std::to_string(limit) + " bytes").c_str(), 0);
    out.data.clear();
    return out;
  }
  out.ok = true;
  return out;
}

ReadResult readHead(const std::string& path, std::size_t limit) {
  ReadResult out;
  struct stat st;
  Fd fd(openRegular(path, Owner::kAnyone, &out, &st));
  if (fd.get() < 0) return out;
  bool more = false;
  if (!readUpTo(fd.get(), 0, limit, &out.data, &more)) {
    out.error = failure(path, "cannot read", errno);
    return out;
  }
  out.ok = true;
  return out;
}

std::optional<FileIdentity> identify(const std::string& path, std::string* error) {
  ReadResult out;
  struct stat st;
  Fd fd(openRegular(path, Owner::kAnyone, &out, &st));
  if (fd.get() < 0) {
    if (error != nullptr && !out.missing) *error = out.error;
    return std::nullopt;
  }
  return FileIdentity{static_cast<uint64_t>(st.st_dev), static_cast<uint64_t>(st.st_ino),
                      static_cast<uint64_t>(st.st_size)};
}

ReadResult readRange(const std::string& path, const FileIdentity& expected, uint64_t offset,
                     std::size_t limit, bool* sameFile) {
  ReadResult out;
  *sameFile = false;
  struct stat st;
  Fd fd(openRegular(path, Owner::kAnyone, &out, &st));
  if (fd.get() < 0) return out;
  if (static_cast<uint64_t>(st.st_dev) != expected.device ||
      static_cast<uint64_t>(st.st_ino) != expected.inode) {
    out.ok = true;
    return out;
  }
  *sameFile = true;
  bool more = false;
  if (!readUpTo(fd.get(), offset, limit, &out.data, &more)) {
    out.error = failure(path, "cannot read", errno);
    out.data.clear();
    return out;
  }
  out.ok = true;
  return out;
}

ReadResult lastLines(const std::string& path, std::size_t count, std::size_t limit,
                     std::vector<std::string>* lines) {
  lines->clear();
  ReadResult out;
  struct stat st;
  Fd fd(openRegular(path, Owner::kAnyone, &out, &st));
  if (fd.get() < 0) return out;
  const uint64_t size = static_cast<uint64_t>(st.st_size);
  const uint64_t offset = size > limit ? size - limit : 0;
  bool more = false;
  if (!readUpTo(fd.get(), offset, limit, &out.data, &more)) {
    out.error = failure(path, "cannot read", errno);
    return out;
  }
  std::deque<std::string> window;
  std::size_t start = 0;
  // A line cut by the start of the window is not shown.
  if (offset > 0) {
    const std::size_t newline = out.data.find('\n');
    start = newline == std::string::npos ? out.data.size() : newline + 1;
  }
  while (start < out.data.size()) {
    std::size_t end = out.data.find('\n', start);
    if (end == std::string::npos) end = out.data.size();
    window.emplace_back(out.data, start, end - start);
    if (window.size() > count) window.pop_front();
    start = end + 1;
  }
  lines->assign(window.begin(), window.end());
  out.data.clear();
  out.ok = true;
  return out;
}

std::vector<std::string> listFolder(const std::string& path) {
  std::vector<std::string> names;
  const int fd =
      fileSystem().open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC, 0);
  if (fd < 0) return names;
  DIR* dir = ::fdopendir(fd);
  if (dir == nullptr) {
    fileSystem().close(fd);
    return names;
  }
  while (const dirent* entry = ::readdir(dir)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  ::closedir(dir);
  std::sort(names.begin(), names.end());
  return names;
}

int openForAppend(const std::string& path, mode_t mode, Owner owner, std::string* error) {
  FileSystem& fs = fileSystem();
  constexpr int kFlags = O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  int fd = fs.open(path.c_str(), kFlags, 0);
  if (fd < 0 && errno == ENOENT) {
    fd = fs.open(path.c_str(), kFlags | O_CREAT | O_EXCL, mode);
    // The umask must not narrow who may read the file.
    if (fd >= 0) ::fchmod(fd, mode);
    // Lost a race with another creator: its file is as good as ours.
    if (fd < 0 && errno == EEXIST) fd = fs.open(path.c_str(), kFlags, 0);
  }
  if (fd < 0) {
    const int err = errno;
    // A FIFO without a reader refuses a non-blocking open for writing.
    *error =
        err == ENXIO ? failure(path, "is a FIFO, not a regular file", 0) : openFailure(path, err);
    errno = err;
    return -1;
  }
  struct stat st;
  if (fs.fstat(fd, &st) != 0) {
    *error = failure(path, "cannot stat", errno);
    fs.close(fd);
    return -1;
  }
  if (std::string why = refusal(path, st, owner); !why.empty()) {
    *error = std::move(why);
    fs.close(fd);
    return -1;
  }
  return fd;
}

bool writeAll(int fd, const char* data, std::size_t size) {
  FileSystem& fs = fileSystem();
  while (size > 0) {
    const ssize_t n = fs.write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) {
      errno = EIO;
      return false;
    }
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

std::string makeFolders(const std::string& folder, mode_t mode) {
  FileSystem& fs = fileSystem();
  std::string::size_type end = folder.size();
  while (end > 1 && folder[end - 1] == '/') --end;
  const std::string path = folder.substr(0, end);
  if (path.empty()) return failure(folder, "cannot create folder", ENOENT);
  for (std::size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const std::string prefix = slash == std::string::npos ? path : path.substr(0, slash);
    if (fs.mkdir(prefix.c_str(), mode) != 0 && errno != EEXIST) {
      return failure(prefix, "cannot create folder", errno);
    }
    if (slash == std::string::npos) break;
  }
  // Only the last level is the library's own; a link there could send its files anywhere.
  const int fd = fs.open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC, 0);
  if (fd < 0) {
    if (errno == ELOOP) return failure(path, "is a symbolic link, not a folder", 0);
    return failure(path, errno == ENOTDIR ? "is not a folder" : "cannot open folder",
                   errno == ENOTDIR ? 0 : errno);
  }
  fs.close(fd);
  return {};
}

std::string replaceFile(const std::string& path, const std::string& data, mode_t mode,
                        mode_t folderMode) {
  FileSystem& fs = fileSystem();
  const std::string folder = parentOf(path);
  const std::string temporary =
      folder + "/." + path.substr(folder.size() + 1) + ".tmp." + std::to_string(::getpid());
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  // A temporary file left by a writer of our pid that died (after a reboot pids repeat).
  fs.unlink(temporary.c_str());
  int raw = fs.open(temporary.c_str(), kFlags, mode);
  if (raw < 0 && errno == ENOENT) {
    if (std::string error = makeFolders(folder, folderMode); !error.empty()) return error;
    raw = fs.open(temporary.c_str(), kFlags, mode);
  }
  if (raw < 0) return failure(path, "cannot create its temporary file", errno);
  Fd fd(raw);
  // The old file stays as it was; only the temporary one goes.
  const auto abandon = [&](const char* what) {
    const int err = errno;
    fs.unlink(temporary.c_str());
    return failure(path, what, err);
  };
  if (::fchmod(fd.get(), mode) != 0) return abandon("cannot set the mode of its temporary file");
  if (!writeAll(fd.get(), data.data(), data.size())) {
    return abandon("cannot write its temporary file");
  }
  if (fs.fsync(fd.get()) != 0) return abandon("cannot sync its temporary file");
  if (fs.close(fd.release()) != 0) return abandon("cannot close its temporary file");
  if (fs.rename(temporary.c_str(), path.c_str()) != 0) return abandon("cannot replace it");
  // The rename is durable only once the folder is.
  const int dirFd = fs.open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
  if (dirFd >= 0) {
    fs.fsync(dirFd);
    fs.close(dirFd);
  }
  return {};
}

void moveAside(const std::string& path) {
  fileSystem().rename(path.c_str(), (path + ".corrupt").c_str());
}

void warnOnce(int priority, const std::string& message) {
  static std::mutex mutex;
  static auto* seen = new std::unordered_set<std::string>();  // never destroyed
  {
    std::lock_guard<std::mutex> lock(mutex);
    if (seen->size() >= kRememberedWarnings || !seen->insert(message).second) return;
  }
  systemLog(priority, message.c_str());
}

}  // namespace kelo::platform
