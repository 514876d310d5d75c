// Incremental reading of the energy event journal that the library appends to (one line per
// write(2), rotated to "<journal>.1" past its size cap). Each sample reads on from where the
// previous one stopped: from the saved file (by device and inode) and offset, finishing the
// rotated file first when the saved file has been rotated since.
#ifndef KELO_TOOLS_KELO_POWERD_JOURNAL_H_
#define KELO_TOOLS_KELO_POWERD_JOURNAL_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kelo::powerd {

// Where the next read starts. A default position (not `known`) starts at the beginning of the
// rotated file, then of the journal.
struct JournalPosition {
  bool known = false;
  uint64_t device = 0;
  uint64_t inode = 0;
  uint64_t offset = 0;

  bool operator==(const JournalPosition&) const = default;
};

struct JournalChunk {
  std::vector<std::string> lines;  // without their newlines, oldest first
  JournalPosition next;            // where the next read starts
  // The saved file is gone (rotated twice since the last read, or truncated): events in
  // between may be missing.
  bool lostTrack = false;
  std::string error;  // a file that exists but cannot be read (a link, a FIFO...), else empty
};

// At most `limit` bytes per call. A line still being written at the end of the live journal is
// left for the next call; one with no newline in a whole `limit` is consumed as it is (the
// event parser rejects it). Never throws.
JournalChunk readJournal(const std::string& journalPath, const JournalPosition& from,
                         std::size_t limit);

}  // namespace kelo::powerd

#endif  // KELO_TOOLS_KELO_POWERD_JOURNAL_H_
