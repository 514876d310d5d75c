#include "platform/NotifyRules.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <utility>

#include "platform/Facts.h"
#include "platform/Notify.h"

namespace kelo::platform::notify {

namespace {

constexpr char kFolder[] = "/run/kelo/notify";

}  // namespace

bool validName(const char* name) {
  if (name == nullptr || name[0] == '\0') return false;
  const size_t length = ::strnlen(name, kNotifyMaxNameLength + 1);
  if (length > kNotifyMaxNameLength) return false;
  if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) return false;
  return std::strchr(name, '/') == nullptr;
}

std::string folderPath() { return devicePath(kFolder); }

bool makeFolder(const std::string& path) {
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
    if (errno != ENOENT || !makeFolder(folder->path)) return kNotifyStatusFailed;
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
  if (fileSystem().fstat(fd, &st) != 0) {
    fileSystem().close(fd);
    return kNotifyStatusFailed;
  }
  // Checked before use: a stranger's file is neither read nor grown.
  if (!S_ISREG(st.st_mode) || (st.st_uid != ::geteuid() && st.st_uid != folder.owner)) {
    fileSystem().close(fd);
    return kNotifyStatusNotAuthorized;
  }
  // Mapped only when nobody but its trusted owner may write it, so nobody else can shrink it.
  const bool mappable = (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
  auto file = std::make_shared<StateFile>(fd, folder.owner, accessMode != O_RDONLY, mappable);
  if (!file->prepare()) return kNotifyStatusFailed;
  *out = std::move(file);
  return kNotifyStatusOk;
}

}  // namespace kelo::platform::notify
