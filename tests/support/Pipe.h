// A one-byte signal between a test and the process it forked.
#ifndef KELO_TESTS_SUPPORT_PIPE_H_
#define KELO_TESTS_SUPPORT_PIPE_H_

#include <unistd.h>

#include <cstdlib>

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

}  // namespace kelo::test

#endif  // KELO_TESTS_SUPPORT_PIPE_H_
