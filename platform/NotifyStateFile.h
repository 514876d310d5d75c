// The state file of one notification name: 16 bytes holding the state word and the post
// generation, shared by every process that uses the name.
#ifndef KELO_PLATFORM_NOTIFYSTATEFILE_H_
#define KELO_PLATFORM_NOTIFYSTATEFILE_H_

#include <errno.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/Facts.h"

namespace kelo::platform::notify {

// The 16 bytes of a state file: the state word, then the post generation. Native byte order;
// the file never leaves the machine.
struct Record {
  uint64_t state = 0;
  uint64_t generation = 0;
};
constexpr size_t kRecordSize = sizeof(Record);
static_assert(kRecordSize == 16);

// Writes one word at `offset` with a single pwrite(2).
bool writeWord(int fd, off_t offset, uint64_t value);

// An open state file, read and written with pread(2) and pwrite(2) only: nothing is mapped, so
// another process that truncates, shrinks or replaces the file cannot fault this one; a short
// file reads as zeros. Each word is written whole by one pwrite(2) and neither writer touches the
// other's word, so setting the state cannot undo a post nor a post a state. A read is taken twice
// and only kept once both agree, so a record never mixes words from before and after a write.
class StateFile {
 public:
  StateFile(int fd, uid_t folderOwner, bool writable)
      : fd_(fd), folderOwner_(folderOwner), writable_(writable), checkedAtMs_(nowMs()) {}
  ~StateFile() { fileSystem().close(fd_); }
  StateFile(const StateFile&) = delete;
  StateFile& operator=(const StateFile&) = delete;

  // Still the name's file: not unlinked, still a regular file of an allowed owner. Checked with
  // fstat(2) at most once a second, which keeps a report free of extra system calls.
  bool stillValid() {
    const int64_t now = nowMs();
    if (now - checkedAtMs_.load(std::memory_order_relaxed) < 1000) return true;
    struct stat st;
    const bool valid = fileSystem().fstat(fd_, &st) == 0 && S_ISREG(st.st_mode) &&
                       st.st_nlink > 0 && (st.st_uid == ::geteuid() || st.st_uid == folderOwner_);
    if (valid) checkedAtMs_.store(now, std::memory_order_relaxed);
    return valid;
  }

  bool read(Record* out) {
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

  bool setState(uint64_t state) {
    return writable_ && writeWord(fd_, offsetof(Record, state), state);
  }

  bool post() {
    return writable_ && writeWord(fd_, offsetof(Record, generation), nextGeneration());
  }

  // A writable file is grown to a full record before use. Growing never cuts what another
  // process wrote.
  bool prepare() {
    if (!writable_) return true;
    struct stat st;
    if (fileSystem().fstat(fd_, &st) != 0) return false;
    return st.st_size >= static_cast<off_t>(kRecordSize) || ::ftruncate(fd_, kRecordSize) == 0;
  }

 private:
  static uint64_t nextGeneration();
  static int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
  }

  bool readOnce(Record* out) {
    unsigned char bytes[kRecordSize] = {};
    ssize_t n;
    do {
      n = fileSystem().pread(fd_, bytes, kRecordSize, 0);
    } while (n < 0 && errno == EINTR);
    if (n < 0) return false;
    std::memcpy(out, bytes, kRecordSize);  // a short file reads as zeros
    return true;
  }

  const int fd_;
  const uid_t folderOwner_;
  const bool writable_;
  std::atomic<int64_t> checkedAtMs_;  // steady clock, when the file was last found valid
};

}  // namespace kelo::platform::notify

#endif  // KELO_PLATFORM_NOTIFYSTATEFILE_H_
