#include "platform/NotifyStateFile.h"

namespace kelo::platform::notify {

bool writeWord(int fd, off_t offset, uint64_t value) {
  ssize_t n;
  do {
    n = fileSystem().pwrite(fd, &value, sizeof value, offset);
  } while (n < 0 && errno == EINTR);
  return n == static_cast<ssize_t>(sizeof value);
}

// A post only has to change the generation to something no watcher has seen. Values unique per
// process (a counter through a bijective mix) and seeded from the pid and the clock cannot repeat
// the previous value of a file, unlike an increment two posters could both compute.
uint64_t StateFile::nextGeneration() {
  static std::atomic<uint64_t> counter{
      (static_cast<uint64_t>(::getpid()) << 40) ^
      static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count())};
  uint64_t z = counter.fetch_add(0x9E3779B97F4A7C15ULL, std::memory_order_relaxed);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
  return z ^ (z >> 31);
}

}  // namespace kelo::platform::notify
