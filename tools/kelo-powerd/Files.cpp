#include "tools/kelo-powerd/Files.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace kelo::powerd {

namespace {

// O_NONBLOCK: a FIFO planted under a name must fail the regular-file check, not hang the open.
constexpr int kReadFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

std::string failure(const std::string& path, const char* what, int err) {
  std::string message = path + ": " + what;
  if (err != 0) message += std::string(": ") + std::strerror(err);
  return message;
}

std::string openFailure(const std::string& path, int err) {
  if (err == ELOOP) return failure(path, "is a symbolic link", 0);
  return failure(path, "cannot open", err);
}

// A descriptor that closes itself.
class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

// Opens `path` for reading, checking that it is a regular file. On failure fills `out`.
int openRegular(const std::string& path, ReadResult* out, struct stat* st) {
  const int fd = ::open(path.c_str(), kReadFlags);
  if (fd < 0) {
    out->missing = errno == ENOENT || errno == ENOTDIR;
    out->error = openFailure(path, errno);
    return -1;
  }
  if (::fstat(fd, st) != 0 || !S_ISREG(st->st_mode)) {
    out->error = failure(path, "is not a regular file", 0);
    ::close(fd);
    return -1;
  }
  return fd;
}

// Reads until end of file or `limit` bytes, whichever comes first; `*more` tells whether bytes
// remained beyond the limit.
bool readUpTo(int fd, std::size_t limit, std::string* data, bool* more) {
  data->clear();
  char buffer[65536];
  *more = false;
  for (;;) {
    // One byte past the limit tells "exactly the limit" from "more than the limit".
    const std::size_t want = std::min(sizeof buffer, limit + 1 - data->size());
    const ssize_t n = ::read(fd, buffer, want);
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

bool writeAll(int fd, const std::string& data) {
  const char* p = data.data();
  std::size_t left = data.size();
  while (left > 0) {
    const ssize_t n = ::write(fd, p, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    left -= static_cast<std::size_t>(n);
  }
  return true;
}

std::string parentOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool makeFolders(const std::string& folder, mode_t mode) {
  for (std::size_t slash = folder.find('/', 1);; slash = folder.find('/', slash + 1)) {
    const std::string prefix = slash == std::string::npos ? folder : folder.substr(0, slash);
    if (::mkdir(prefix.c_str(), mode) != 0 && errno != EEXIST) return false;
    if (slash == std::string::npos) return true;
  }
}

}  // namespace

ReadResult readFile(const std::string& path, std::size_t limit) {
  ReadResult out;
  struct stat st;
  Fd fd(openRegular(path, &out, &st));
  if (fd.get() < 0) return out;
  bool more = false;
  if (!readUpTo(fd.get(), limit, &out.data, &more)) {
    out.error = failure(path, "cannot read", errno);
    out.data.clear();
    return out;
  }
  if (more) {
    out.error = failure(path, ("larger than " + std::to_string(limit) + " bytes").c_str(), 0);
    out.data.clear();
    return out;
  }
  out.ok = true;
  return out;
}

ReadResult readHead(const std::string& path, std::size_t limit) {
  ReadResult out;
  struct stat st;
  Fd fd(openRegular(path, &out, &st));
  if (fd.get() < 0) return out;
  bool more = false;
  if (!readUpTo(fd.get(), limit, &out.data, &more)) {
    out.error = failure(path, "cannot read", errno);
    return out;
  }
  out.ok = true;
  return out;
}

std::optional<FileIdentity> identify(const std::string& path, std::string* error) {
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0) {
    if (error != nullptr && errno != ENOENT) *error = failure(path, "cannot stat", errno);
    return std::nullopt;
  }
  if (!S_ISREG(st.st_mode)) {
    if (error != nullptr) {
      *error =
          failure(path, S_ISLNK(st.st_mode) ? "is a symbolic link" : "is not a regular file", 0);
    }
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
  Fd fd(openRegular(path, &out, &st));
  if (fd.get() < 0) return out;
  if (static_cast<uint64_t>(st.st_dev) != expected.device ||
      static_cast<uint64_t>(st.st_ino) != expected.inode) {
    out.ok = true;
    return out;
  }
  *sameFile = true;
  if (::lseek(fd.get(), static_cast<off_t>(offset), SEEK_SET) < 0) {
    out.error = failure(path, "cannot seek", errno);
    return out;
  }
  bool more = false;
  if (!readUpTo(fd.get(), limit, &out.data, &more)) {
    out.error = failure(path, "cannot read", errno);
    out.data.clear();
    return out;
  }
  out.ok = true;
  return out;
}

std::vector<std::string> listFolder(const std::string& path) {
  std::vector<std::string> names;
  DIR* dir = ::opendir(path.c_str());
  if (dir == nullptr) return names;
  while (const dirent* entry = ::readdir(dir)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  ::closedir(dir);
  std::sort(names.begin(), names.end());
  return names;
}

std::string replaceFile(const std::string& path, const std::string& data, mode_t mode,
                        mode_t folderMode) {
  const std::string folder = parentOf(path);
  const std::string temporary =
      folder + "/." + path.substr(folder.size() + 1) + ".tmp." + std::to_string(::getpid());
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  // A temporary file left by a writer of our pid that died (after a reboot pids repeat).
  ::unlink(temporary.c_str());
  int raw = ::open(temporary.c_str(), kFlags, mode);
  if (raw < 0 && errno == ENOENT) {
    if (!makeFolders(folder, folderMode)) return failure(folder, "cannot create folder", errno);
    raw = ::open(temporary.c_str(), kFlags, mode);
  }
  if (raw < 0) return failure(path, "cannot create its temporary file", errno);
  Fd fd(raw);
  // The old file stays as it was; only the temporary one goes.
  const auto abandon = [&](const char* what) {
    const int err = errno;
    ::unlink(temporary.c_str());
    return failure(path, what, err);
  };
  if (::fchmod(fd.get(), mode) != 0) return abandon("cannot set the mode of its temporary file");
  if (!writeAll(fd.get(), data)) return abandon("cannot write its temporary file");
  if (::fsync(fd.get()) != 0) return abandon("cannot sync its temporary file");
  if (::close(fd.release()) != 0) return abandon("cannot close its temporary file");
  if (::rename(temporary.c_str(), path.c_str()) != 0) return abandon("cannot replace it");
  // The rename is durable only once the folder is.
  const int dirFd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dirFd >= 0) {
    ::fsync(dirFd);
    ::close(dirFd);
  }
  return {};
}

void moveAside(const std::string& path) { ::rename(path.c_str(), (path + ".corrupt").c_str()); }

}  // namespace kelo::powerd
