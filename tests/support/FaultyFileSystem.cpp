#include "tests/support/FaultyFileSystem.h"

#include <errno.h>

#include <algorithm>
#include <utility>

namespace kelo::test {
namespace {

int failed(int error) {
  errno = error;
  return -1;
}

}  // namespace

const char* FaultyFileSystem::name(Op op) {
  static const char* const kNames[] = {"open",  "write",  "fsync", "close", "rename",
                                       "mkdir", "unlink", "read",  "fstat"};
  return kNames[static_cast<int>(op)];
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
    if (hook_ && ++step_ == hookStep_) hook = hook_;
    for (Fault& f : faults_) {
      if (f.op != op || (!f.pathPart.empty() && path.find(f.pathPart) == std::string::npos &&
                         other.find(f.pathPart) == std::string::npos)) {
        continue;
      }
      error = f.error;
      if (shortWrite != nullptr) {
        *shortWrite = f.error == 0 ? f.shortWriteBytes : std::exchange(f.shortWriteBytes, 0);
      }
      break;
    }
  }
  if (hook) hook(op, path);
  return error;
}

int FaultyFileSystem::open(const char* path, int flags, mode_t mode) {
  if (const int error = enter(Op::kOpen, path); error != 0) return failed(error);
  const int fd = FileSystem::open(path, flags, mode);
  std::lock_guard<std::mutex> lock(mutex_);
  if (fd >= 0) paths_[fd] = path;
  return fd;
}

ssize_t FaultyFileSystem::write(int fd, const void* data, size_t size) {
  size_t allowed = 0;
  const int error = enter(Op::kWrite, pathOf(fd), "", &allowed);
  if (error == 0) return FileSystem::write(fd, data, allowed > 0 ? std::min(size, allowed) : size);
  // The bytes that still fit go through; the write after them finds the disk full.
  const ssize_t n =
      allowed > 0 && size > 0 ? FileSystem::write(fd, data, std::min(size, allowed)) : 0;
  return n > 0 ? n : failed(error);
}

int FaultyFileSystem::fsync(int fd) {
  const int error = enter(Op::kFsync, pathOf(fd));
  return error != 0 ? failed(error) : FileSystem::fsync(fd);
}

int FaultyFileSystem::close(int fd) {
  const int error = enter(Op::kClose, pathOf(fd));
  {
    std::lock_guard<std::mutex> lock(mutex_);
    paths_.erase(fd);
  }
  // A failed close still releases the descriptor, as close(2) does.
  const int rc = FileSystem::close(fd);
  return error != 0 ? failed(error) : rc;
}

int FaultyFileSystem::rename(const char* from, const char* to) {
  const int error = enter(Op::kRename, from, to);
  return error != 0 ? failed(error) : FileSystem::rename(from, to);
}

int FaultyFileSystem::mkdir(const char* path, mode_t mode) {
  const int error = enter(Op::kMkdir, path);
  return error != 0 ? failed(error) : FileSystem::mkdir(path, mode);
}

int FaultyFileSystem::unlink(const char* path) {
  const int error = enter(Op::kUnlink, path);
  return error != 0 ? failed(error) : FileSystem::unlink(path);
}

ssize_t FaultyFileSystem::read(int fd, void* data, size_t size) {
  const int error = enter(Op::kRead, pathOf(fd));
  return error != 0 ? failed(error) : FileSystem::read(fd, data, size);
}

ssize_t FaultyFileSystem::pread(int fd, void* data, size_t size, off_t offset) {
  const int error = enter(Op::kRead, pathOf(fd));
  return error != 0 ? failed(error) : FileSystem::pread(fd, data, size, offset);
}

ssize_t FaultyFileSystem::pwrite(int fd, const void* data, size_t size, off_t offset) {
  const int error = enter(Op::kWrite, pathOf(fd));
  return error != 0 ? failed(error) : FileSystem::pwrite(fd, data, size, offset);
}

int FaultyFileSystem::fstat(int fd, struct stat* st) {
  const int error = enter(Op::kFstat, pathOf(fd));
  return error != 0 ? failed(error) : FileSystem::fstat(fd, st);
}

}  // namespace kelo::test
