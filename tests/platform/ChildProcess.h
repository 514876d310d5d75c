// A second process for tests that need two: forked at construction, it waits until go() and
// then exits with what its body returns. The body runs in a fork of the test process, so it
// reports through its exit code, not through test assertions.
#ifndef KELO_TESTS_PLATFORM_CHILDPROCESS_H_
#define KELO_TESTS_PLATFORM_CHILDPROCESS_H_

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

namespace kelo::test {

class ChildProcess {
 public:
  explicit ChildProcess(const std::function<int()>& body) {
    int fds[2];
    if (::pipe(fds) != 0) std::abort();
    pid_ = ::fork();
    if (pid_ == 0) {
      ::close(fds[1]);
      char byte;
      ::_exit(::read(fds[0], &byte, 1) == 1 ? body() : 99);
    }
    ::close(fds[0]);
    goFd_ = fds[1];
  }
  ~ChildProcess() { wait(); }
  ChildProcess(ChildProcess&& other) noexcept : pid_(other.pid_), goFd_(other.goFd_) {
    other.pid_ = -1;
    other.goFd_ = -1;
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ChildProcess& operator=(ChildProcess&&) = delete;

  void go() const {
    const char byte = 1;
    if (::write(goFd_, &byte, 1) != 1) std::abort();
  }
  // The body's result; -1 if the process did not exit normally or was already waited for.
  int wait() {
    if (goFd_ >= 0) ::close(goFd_);
    goFd_ = -1;
    if (pid_ <= 0) return -1;
    int status = 0;
    const pid_t pid = pid_;
    pid_ = -1;
    if (::waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_ = -1;
  int goFd_ = -1;
};

}  // namespace kelo::test

#endif  // KELO_TESTS_PLATFORM_CHILDPROCESS_H_
