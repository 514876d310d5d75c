#include "tools/common/ReplaceFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kelo::tools {

bool replaceFile(const std::string& path, const std::string& text, std::string* error) {
  const std::string temporary = path + ".tmp." + std::to_string(getpid());
  const int fd =
      ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) {
    *error = "cannot write " + temporary + ": " + std::strerror(errno);
    return false;
  }
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<std::size_t>(n);
  }
  int reason = done == text.size() ? 0 : (errno != 0 ? errno : EIO);
  if (reason == 0 && ::fsync(fd) != 0) reason = errno;
  if (::close(fd) != 0 && reason == 0) reason = errno;
  if (reason == 0 && ::rename(temporary.c_str(), path.c_str()) != 0) reason = errno;
  if (reason != 0) {
    *error = "cannot write " + path + ": " + std::strerror(reason);
    ::unlink(temporary.c_str());
    return false;
  }
  return true;
}

}  // namespace kelo::tools
