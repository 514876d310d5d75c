// Every file access of kelo-powerd. Reads never block on a FIFO or device planted where a file
// belongs, never take more than the caller's limit, and accept regular files only; writes replace
// a file whole and durably, never following a link. Failures come back as a message naming the
// path and the reason; nothing here throws or prints.
#ifndef KELO_TOOLS_KELO_POWERD_FILES_H_
#define KELO_TOOLS_KELO_POWERD_FILES_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelo::powerd {

// The outcome of a read: the bytes, or an error naming the path and the reason. `missing` tells
// the ordinary "there is no such file" apart from every other failure.
struct ReadResult {
  bool ok = false;
  bool missing = false;
  std::string data;
  std::string error;
};

// The whole file, refused (with an error) when it holds more than `limit` bytes or is not a
// regular file. The final component is never followed when it is a link.
ReadResult readFile(const std::string& path, std::size_t limit);

// At most the first `limit` bytes: for files of which only the head matters (proc/stat).
ReadResult readHead(const std::string& path, std::size_t limit);

// Identity and size of a regular file, read without following a final link; nullopt when the
// file is missing or is not regular, in which case `*error` (if given) names the path and why.
struct FileIdentity {
  uint64_t device = 0;
  uint64_t inode = 0;
  uint64_t size = 0;
};
std::optional<FileIdentity> identify(const std::string& path, std::string* error = nullptr);

// Up to `limit` bytes from `offset`, from the file at `path` only if it still is `expected`
// (same device and inode). `*sameFile` tells whether it was; a missing file is not an error.
ReadResult readRange(const std::string& path, const FileIdentity& expected, uint64_t offset,
                     std::size_t limit, bool* sameFile);

// Names in a folder (without "." and ".."), sorted; empty when it cannot be listed.
std::vector<std::string> listFolder(const std::string& path);

// Replaces `path` with `data` atomically and durably: a temporary file beside it (created
// exclusively, never through a link), fsync, rename over `path`, fsync of the folder. Missing
// folders are made with `folderMode`; the file gets `mode` whatever the umask. A reader sees the
// old content or the new, never a mix. Returns an empty string, or the error.
std::string replaceFile(const std::string& path, const std::string& data, mode_t mode,
                        mode_t folderMode = 0755);

// Moves `path` aside to `path` + ".corrupt" (replacing an older one). Best effort.
void moveAside(const std::string& path);

}  // namespace kelo::powerd

#endif  // KELO_TOOLS_KELO_POWERD_FILES_H_
