#include "tests/support/FaultyFileSystem.h"

#include <errno.h>

#include <algorithm>
#include <utility>

namespace kelo::test {

const char* FaultyFileSystem::name(Op op) {
  switch (op) {
    case Op::kOpen:
      return "open";
    case Op::kWrite:
      return "write";
    case Op::kFsync:
      return "fsync";
    case Op::kClose:
      return "close";
    case Op::kRename:
      return "rename";
    case Op::kMkdir:
      return "mkdir";
    case Op::kUnlink:
      return "unlink";
  }
  return "?";
}

void FaultyFileSystem::fail(Op op, int error, std::string pathPart, size_t shortWriteBytes) {
  std::lock_guard<std::mutex> lock(mutex_);
  faults_.push_back({op, error, std::move(pathPart), shortWriteBytes});
}

void FaultyFileSystem::heal() {
  std::lock_guard<std::mutex> lock(mutex_);
  faults_.clear();
}

void FaultyFileSystem::beforeStep(int step, std::function<void(Op, const std::string&)> hook) {
  std::lock_guard<std::mutex> lock(mutex_);
  step_ = 0;
  hookStep_ = step;
  hook_ = std::move(hook);
  trace_.clear();
}

std::vector<std::string> FaultyFileSystem::trace() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return trace_;
}

std::string FaultyFileSystem::pathOf(int fd) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = paths_.find(fd);
  return it == paths_.end() ? std::string() : it->second;
}

int FaultyFileSystem::enter(Op op, const std::string& path, const std::string& other,
                            size_t* shortWrite) {
  std::function<void(Op, const std::string&)> hook;
  int error = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ++step_;
    trace_.push_back(std::string(name(op)) + " " + path);
    if (hook_ && step_ == hookStep_) hook = hook_;
    for (Fault& f : faults_) {
      if (f.op != op) continue;
      if (!f.pathPart.empty() && path.find(f.pathPart) == std::string::npos &&
          other.find(f.pathPart) == std::string::npos) {
        continue;
      }
      error = f.error;
      if (shortWrite != nullptr) {
        // Only the first write finds room; every later one finds the disk full.
        *shortWrite = f.shortWriteBytes;
        f.shortWriteBytes = 0;
      }
      break;
    }
  }
  if (hook) hook(op, path);
  return error;
}

int FaultyFileSystem::open(const char* path, int flags, mode_t mode) {
  if (const int error = enter(Op::kOpen, path, "", nullptr); error != 0) {
    errno = error;
    return -1;
  }
  const int fd = FileSystem::open(path, flags, mode);
  if (fd >= 0) {
    std::lock_guard<std::mutex> lock(mutex_);
    paths_[fd] = path;
  }
  return fd;
}

ssize_t FaultyFileSystem::write(int fd, const void* data, size_t size) {
  size_t allowed = 0;
  if (const int error = enter(Op::kWrite, pathOf(fd), "", &allowed); error != 0) {
    // The bytes that still fit go through; the write after them finds the disk full.
    if (allowed > 0 && size > 0) {
      const ssize_t n = FileSystem::write(fd, data, std::min(size, allowed));
      if (n > 0) return n;
    }
    errno = error;
    return -1;
  }
  return FileSystem::write(fd, data, size);
}

int FaultyFileSystem::fsync(int fd) {
  if (const int error = enter(Op::kFsync, pathOf(fd), "", nullptr); error != 0) {
    errno = error;
    return -1;
  }
  return FileSystem::fsync(fd);
}

int FaultyFileSystem::close(int fd) {
  const int error = enter(Op::kClose, pathOf(fd), "", nullptr);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    paths_.erase(fd);
  }
  // A failed close still releases the descriptor, as close(2) does.
  const int rc = FileSystem::close(fd);
  if (error != 0) {
    errno = error;
    return -1;
  }
  return rc;
}

int FaultyFileSystem::rename(const char* from, const char* to) {
  if (const int error = enter(Op::kRename, from, to, nullptr); error != 0) {
    errno = error;
    return -1;
  }
  return FileSystem::rename(from, to);
}

int FaultyFileSystem::mkdir(const char* path, mode_t mode) {
  if (const int error = enter(Op::kMkdir, path, "", nullptr); error != 0) {
    errno = error;
    return -1;
  }
  return FileSystem::mkdir(path, mode);
}

int FaultyFileSystem::unlink(const char* path) {
  if (const int error = enter(Op::kUnlink, path, "", nullptr); error != 0) {
    errno = error;
    return -1;
  }
  return FileSystem::unlink(path);
}

}  // namespace kelo::test
