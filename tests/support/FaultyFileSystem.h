// A file system that fails chosen operations the way the kernel does (a full disk, a refused
// rename, a folder that cannot be made) and can run a hook before a chosen operation, which a
// crash test uses to end the process at that step. Everything it does not fail is forwarded to
// the real system calls. Thread-safe; install it through Sandbox::install with
// Overrides::fileSystem.
#ifndef KELO_TESTS_SUPPORT_FAULTYFILESYSTEM_H_
#define KELO_TESTS_SUPPORT_FAULTYFILESYSTEM_H_

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "kelo/Overrides.h"

namespace kelo::test {

class FaultyFileSystem : public kelo::platform::FileSystem {
 public:
  enum class Op { kOpen, kWrite, kFsync, kClose, kRename, kMkdir, kUnlink, kRead, kFstat };
  static const char* name(Op op);

  // From now on every `op` on a path containing `pathPart` (the empty string matches every path)
  // fails with `error`. Descriptor operations match the path the descriptor was opened with;
  // a rename matches either of its paths. A write fault lets its first write put
  // `shortWriteBytes` bytes through, as a disk that fills in the middle of a write does. With
  // `error` 0 every write puts at most `shortWriteBytes` bytes through and none fails.
  void fail(Op op, int error, std::string pathPart = "", size_t shortWriteBytes = 0);
  // Ends every fault: the disk has room again.
  void heal();

  // Runs `hook` before operation number `step` (counted from 1 across every operation, from
  // this call on), with the operation and its path. The hook may end the process.
  void beforeStep(int step, std::function<void(Op, const std::string&)> hook);

  int open(const char* path, int flags, mode_t mode) override;
  ssize_t write(int fd, const void* data, size_t size) override;
  int fsync(int fd) override;
  int close(int fd) override;
  int rename(const char* from, const char* to) override;
  int mkdir(const char* path, mode_t mode) override;
  int unlink(const char* path) override;
  // kRead covers read and pread, kWrite also pwrite.
  ssize_t read(int fd, void* data, size_t size) override;
  ssize_t pread(int fd, void* data, size_t size, off_t offset) override;
  ssize_t pwrite(int fd, const void* data, size_t size, off_t offset) override;
  int fstat(int fd, struct stat* st) override;

 private:
  struct Fault {
    Op op;
    int error;
    std::string pathPart;
    size_t shortWriteBytes;
  };
  // Counts the step, runs the hook when due, and returns the fault that applies (errno to set,
  // 0 for none). Must be called without mutex_ held.
  int enter(Op op, const std::string& path, const std::string& other = "",
            size_t* shortWrite = nullptr);
  std::string pathOf(int fd) const;

  mutable std::mutex mutex_;
  std::vector<Fault> faults_;
  std::map<int, std::string> paths_;  // open descriptors and the paths they were opened with
  int step_ = 0;
  int hookStep_ = 0;
  std::function<void(Op, const std::string&)> hook_;
};

}  // namespace kelo::test

#endif  // KELO_TESTS_SUPPORT_FAULTYFILESYSTEM_H_
