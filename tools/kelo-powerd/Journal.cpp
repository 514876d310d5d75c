#include "tools/kelo-powerd/Journal.h"

#include "platform/SafeFile.h"

namespace kelo::powerd {

using platform::FileIdentity;
using platform::identify;
using platform::readRange;
using platform::ReadResult;

namespace {

bool sameFile(const FileIdentity& file, const JournalPosition& position) {
  return position.known && file.device == position.device && file.inode == position.inode;
}

class Reader {
 public:
  Reader(JournalChunk* out, std::size_t limit) : out_(out), budget_(limit) {}

  // Takes the lines of `file` at `path` from `offset` on. `final`: the file no longer grows (a
  // rotated journal), so a last line without a newline is whole. True when the file was read to
  // its end, so that the next file may follow.
  bool take(const std::string& path, const FileIdentity& file, uint64_t offset, bool final) {
    out_->next = {true, file.device, file.inode, offset};
    if (budget_ == 0) return false;
    bool same = false;
    ReadResult r = readRange(path, file, offset, budget_, &same);
    if (!r.ok) {
      if (!r.missing) out_->error = r.error;
      return false;
    }
    if (!same) return false;  // rotated between the look and the open: the next sample sorts it out
    const bool full = r.data.size() == budget_;
    budget_ -= r.data.size();
    std::size_t consumed = 0;
    for (std::size_t nl = r.data.find('\n'); nl != std::string::npos;
         nl = r.data.find('\n', consumed)) {
      out_->lines.emplace_back(r.data, consumed, nl - consumed);
      consumed = nl + 1;
    }
    const bool tail = consumed < r.data.size();
    // A line with no newline in a whole budget would stop the reader for good: take it as it is.
    if (tail && ((final && !full) || (full && consumed == 0))) {
      out_->lines.emplace_back(r.data, consumed);
      consumed = r.data.size();
    }
    out_->next.offset = offset + consumed;
    return !full && consumed == r.data.size();
  }

 private:
  JournalChunk* out_;
  std::size_t budget_;
};

}  // namespace

JournalChunk readJournal(const std::string& journalPath, const JournalPosition& from,
                         std::size_t limit) {
  JournalChunk out;
  out.next = from;
  Reader reader(&out, limit);
  const std::optional<FileIdentity> live = identify(journalPath, &out.error);

  if (live && sameFile(*live, from)) {
    if (live->size >= from.offset) {
      reader.take(journalPath, *live, from.offset, false);
      return out;
    }
    out.lostTrack = true;  // truncated in place
  } else {
    const std::string rotatedPath = journalPath + ".1";
    const std::optional<FileIdentity> rotated = identify(rotatedPath);
    uint64_t start = 0;
    if (rotated && sameFile(*rotated, from) && rotated->size >= from.offset) {
      start = from.offset;
    } else if (from.known) {
      out.lostTrack = true;
    }
    if (rotated && !reader.take(rotatedPath, *rotated, start, true)) return out;
  }
  if (live) reader.take(journalPath, *live, 0, false);
  return out;
}

}  // namespace kelo::powerd
