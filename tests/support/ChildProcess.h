// Second processes for tests that need them. A ChildProcess is forked at construction, waits
// until go() and then exits with what its body returns; the body runs in a fork of the test
// process, so it reports through its exit code, not through test assertions. A Pipe carries a
// one-byte signal between the two.
#ifndef KELO_TESTS_SUPPORT_CHILDPROCESS_H_
#define KELO_TESTS_SUPPORT_CHILDPROCESS_H_

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

namespace kelo::test {

struct Pipe {
  Pipe() {
    if (::pipe(fds) != 0) std::abort();
  }
  bool send() const { return ::write(fds[1], "x", 1) == 1; }
  bool receive() const {
    char byte;
    return ::read(fds[0], &byte, 1) == 1;
  }
  int fds[2];
};

class ChildProcess {
 public:
  explicit ChildProcess(const std::function<int()>& body) : pid_(::fork()) {
    if (pid_ == 0) {
      ::close(go_.fds[1]);  // so that a parent that never says go ends the wait
      ::_exit(go_.receive() ? body() : 99);
    }
    ::close(go_.fds[0]);
  }
  ~ChildProcess() { wait(); }
  ChildProcess(ChildProcess&& other) noexcept : go_(other.go_), pid_(other.pid_) {
    other.pid_ = -1;
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ChildProcess& operator=(ChildProcess&&) = delete;

  void go() const {
    if (!go_.send()) std::abort();
  }
  // The body's result; -1 if the process did not exit normally or was already waited for.
  int wait() {
    if (pid_ <= 0) return -1;
    ::close(go_.fds[1]);
    int status = 0;
    const pid_t pid = pid_;
    pid_ = -1;
    if (::waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  Pipe go_;
  pid_t pid_;
};

}  // namespace kelo::test

#endif  // KELO_TESTS_SUPPORT_CHILDPROCESS_H_
