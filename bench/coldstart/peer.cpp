// The peer of a cold start: a fresh process that opens one file and writes one line to it.
// Usage: kelo_coldstart_peer FOLDER.
#include <fcntl.h>
#include <unistd.h>

#include <string>

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  const std::string path = std::string(argv[1]) + "/peer.log";
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return 1;
  static const char kLine[] = "cold start\n";
  const bool ok = ::write(fd, kLine, sizeof kLine - 1) == sizeof kLine - 1;
  return ::close(fd) == 0 && ok ? 0 : 1;
}
