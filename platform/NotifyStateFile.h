// The state file of one notification name: 16 bytes holding the state word and the post
// generation, shared by every process that uses the name.
#ifndef KELO_PLATFORM_NOTIFYSTATEFILE_H_
#define KELO_PLATFORM_NOTIFYSTATEFILE_H_

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace kelo::platform::notify {

// The 16 bytes of a state file: the state word, then the post generation. Native byte order;
// the file never leaves the machine.
struct Record {
  uint64_t state = 0;
  uint64_t generation = 0;
};
constexpr size_t kRecordSize = sizeof(Record);
static_assert(kRecordSize == 16);

// An open state file. Who may change it decides how it is used:
//
// - A file only its owner may write (no group or other write bit; the owner is this process's
//   user or the folder's, both trusted) is mapped shared, and the state is read and set with
//   plain atomic loads and stores: a store to a mapping raises no inotify event, so setting the
//   state wakes nobody, and reading it costs no system call. Nobody else can shrink the file
//   under the mapping: truncate(2) needs the right to write the file, and a rename or unlink in
//   the folder leaves the mapped file whole.
// - A file others may write is never mapped: it is read with pread(2) and written with
//   pwrite(2), so a process that truncates or shrinks it cannot fault this one; a short file
//   reads as zeros. A read is taken twice and kept once both agree, so a record never mixes
//   words from before and after a write.
//
// Either way each word is written whole and neither writer touches the other's word, so setting
// the state cannot undo a post nor a post a state. A post is always one pwrite(2) of the
// generation, which raises the inotify event that wakes the watchers.
class StateFile {
 public:
  StateFile(int fd, uid_t folderOwner, bool writable, bool mappable)
      : fd_(fd),
        folderOwner_(folderOwner),
        writable_(writable),
        mappable_(mappable),
        checkedAtMs_(nowMs()) {}
  ~StateFile();
  StateFile(const StateFile&) = delete;
  StateFile& operator=(const StateFile&) = delete;

  // Still the name's file: not unlinked, still a regular file of an allowed owner. Checked with
  // fstat(2) at most once a second, which keeps a report free of extra system calls.
  bool stillValid();

  bool read(Record* out);
  bool setState(uint64_t state);
  bool post();

  // A writable file is grown to a full record before use (growing never cuts what another
  // process wrote), and a mappable one is mapped.
  bool prepare();

 private:
  static uint64_t nextGeneration();
  static int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
  }
  bool readOnce(Record* out);
  uint64_t* tryMap();

  const int fd_;
  const uid_t folderOwner_;
  const bool writable_;
  const bool mappable_;
  std::atomic<uint64_t*> words_{nullptr};
  std::atomic<int64_t> checkedAtMs_;  // steady clock, when the file was last found valid
};

}  // namespace kelo::platform::notify

#endif  // KELO_PLATFORM_NOTIFYSTATEFILE_H_
