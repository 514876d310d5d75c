#include "platform/NotifyStateFile.h"

#include <errno.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "platform/Facts.h"

namespace kelo::platform::notify {

namespace {

bool writeWord(int fd, off_t offset, uint64_t value) {
  ssize_t n;
  do {
    n = fileSystem().pwrite(fd, &value, sizeof value, offset);
  } while (n < 0 && errno == EINTR);
  return n == static_cast<ssize_t>(sizeof value);
}

}  // namespace

StateFile::~StateFile() {
  if (uint64_t* words = words_.load(std::memory_order_relaxed)) ::munmap(words, kRecordSize);
  fileSystem().close(fd_);
}

bool StateFile::stillValid() {
  const int64_t now = nowMs();
  if (now - checkedAtMs_.load(std::memory_order_relaxed) < 1000) return true;
  struct stat st;
  const bool valid = fileSystem().fstat(fd_, &st) == 0 && S_ISREG(st.st_mode) && st.st_nlink > 0 &&
                     (st.st_uid == ::geteuid() || st.st_uid == folderOwner_);
  if (valid) checkedAtMs_.store(now, std::memory_order_relaxed);
  return valid;
}

bool StateFile::read(Record* out) {
  if (uint64_t* words = words_.load(std::memory_order_acquire)) {
    out->state = std::atomic_ref<uint64_t>(words[0]).load(std::memory_order_acquire);
    out->generation = std::atomic_ref<uint64_t>(words[1]).load(std::memory_order_acquire);
    return true;
  }
  Record first;
  if (!readOnce(&first)) return false;
  for (int attempt = 0; attempt < 8; ++attempt) {
    Record second;
    if (!readOnce(&second)) return false;
    if (std::memcmp(&first, &second, kRecordSize) == 0) break;
    first = second;
  }
  *out = first;
  return true;
}

bool StateFile::setState(uint64_t state) {
  if (!writable_) return false;
  if (uint64_t* words = words_.load(std::memory_order_acquire)) {
    std::atomic_ref<uint64_t>(words[0]).store(state, std::memory_order_release);
    return true;
  }
  return writeWord(fd_, offsetof(Record, state), state);
}

bool StateFile::post() {
  return writable_ && writeWord(fd_, offsetof(Record, generation), nextGeneration());
}

bool StateFile::prepare() {
  struct stat st;
  if (fileSystem().fstat(fd_, &st) != 0) return false;
  if (st.st_size < static_cast<off_t>(kRecordSize)) {
    if (!writable_) return true;  // read with pread(2) until its writer has grown it
    if (::ftruncate(fd_, kRecordSize) != 0) return false;
  }
  return !mappable_ || tryMap() != nullptr;
}

bool StateFile::readOnce(Record* out) {
  unsigned char bytes[kRecordSize] = {};
  ssize_t n;
  do {
    n = fileSystem().pread(fd_, bytes, kRecordSize, 0);
  } while (n < 0 && errno == EINTR);
  if (n < 0) return false;
  std::memcpy(out, bytes, kRecordSize);  // a short file reads as zeros
  return true;
}

uint64_t* StateFile::tryMap() {
  void* map = ::mmap(nullptr, kRecordSize, writable_ ? PROT_READ | PROT_WRITE : PROT_READ,
                     MAP_SHARED, fd_, 0);
  if (map == MAP_FAILED) return nullptr;
  uint64_t* expected = nullptr;
  auto* words = static_cast<uint64_t*>(map);
  if (!words_.compare_exchange_strong(expected, words, std::memory_order_acq_rel)) {
    ::munmap(map, kRecordSize);
    return expected;
  }
  return words;
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
