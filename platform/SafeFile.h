// Every file the library and its tools open goes through here. Opens never follow a final link
// (O_NOFOLLOW), never block on a FIFO or device planted where a file belongs (O_NONBLOCK), and
// never leak into a child (O_CLOEXEC); every opened file is checked with fstat(2), so only a
// regular file is read or appended to, of an allowed owner where the caller asks for one. Reads
// never take more than the caller's limit. Every system call goes through the installed
// platform::FileSystem, so tests can inject a fault into any of them.
//
// Failures come back as a message naming the path and the reason; nothing here throws or prints,
// except warnOnce, which logs each distinct message once per process.
#ifndef KELO_PLATFORM_SAFEFILE_H_
#define KELO_PLATFORM_SAFEFILE_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelo::platform {

// The largest file of each kind that is read; a larger one is refused as a whole.
inline constexpr std::size_t kBundleInfoLimit = std::size_t{1} << 20;      // Info.json
inline constexpr std::size_t kPreferencesLimit = std::size_t{1} << 20;     // a preferences domain
inline constexpr std::size_t kDeviceAnswersLimit = std::size_t{64} << 10;  // device.json
inline constexpr std::size_t kEnergyReportLimit = std::size_t{4} << 20;    // energy-report.json
inline constexpr std::size_t kStateFileLimit = std::size_t{16} << 20;      // a tool's state file
inline constexpr std::size_t kLogReadLimit = std::size_t{16} << 20;        // a log the tools show

// Who may own a file before it is read or appended to.
enum class Owner {
  kAnyone,      // files of the system and of other daemons, read only
  kSelfOrRoot,  // files this process or the administrator wrote
  kSelf         // files only this process's user may write (its own logs and preferences)
};

// The outcome of a read: the bytes, or an error naming the path and the reason. `missing` tells
// the ordinary "there is no such file" apart from every other failure.
struct ReadResult {
  bool ok = false;
  bool missing = false;
  std::string data;
  std::string error;
};

// The whole file, refused (with an error) when it holds more than `limit` bytes, is not a
// regular file, or has an owner `owner` does not allow. A final link is refused, never followed.
ReadResult readFile(const std::string& path, std::size_t limit, Owner owner = Owner::kAnyone);

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

// The last `count` lines (without their newlines) of at most the last `limit` bytes of a file.
ReadResult lastLines(const std::string& path, std::size_t count, std::size_t limit,
                     std::vector<std::string>* lines);

// Names in a folder (without "." and ".."), sorted; empty when it cannot be listed. A link in
// place of the folder is not listed.
std::vector<std::string> listFolder(const std::string& path);

// Opens `path` for appending, creating it with `mode` (whatever the umask) when missing. A link,
// FIFO, folder or any other non-regular file in its place is refused, as is a file of an owner
// `owner` does not allow. Returns the descriptor (to close with fileSystem().close), or -1 with
// `*error` naming the path and the reason.
int openForAppend(const std::string& path, mode_t mode, Owner owner, std::string* error);

// Writes all of `data` to `fd` through the installed file system. False with errno on failure.
bool writeAll(int fd, const char* data, std::size_t size);

// Makes `folder` and every missing folder above it with `mode`. The folder must be a real
// folder afterwards: a link in its place is refused. Returns an empty string, or the error.
std::string makeFolders(const std::string& folder, mode_t mode);

// Replaces `path` with `data` atomically and durably: a temporary file beside it (created
// exclusively, never through a link), fsync, rename over `path`, fsync of the folder. Missing
// folders are made with `folderMode`; the file gets `mode` whatever the umask. A reader sees the
// old content or the new, never a mix. Returns an empty string, or the error.
std::string replaceFile(const std::string& path, const std::string& data, mode_t mode,
                        mode_t folderMode = 0755);

// Moves `path` aside to `path` + ".corrupt" (replacing an older one). Best effort.
void moveAside(const std::string& path);

// Logs `message` to the system log at `priority`, unless the same message was logged before by
// this process: a file that stays bad is reported once, not on every access. At most a few
// thousand distinct messages are remembered; beyond them nothing more is logged.
void warnOnce(int priority, const std::string& message);

}  // namespace kelo::platform

#endif  // KELO_PLATFORM_SAFEFILE_H_
