// The platform's shared file manager: the existence test, the move and the folder creation that
// the loggers need, on top of the replaceable FileSystem (so tests can inject failures into the
// move and the folder creation). Callable from any thread; it keeps no state.
#ifndef KELO_PLATFORM_FILEMANAGER_H_
#define KELO_PLATFORM_FILEMANAGER_H_

#include <sys/types.h>

#include <string>

namespace kelo::platform {

class FileManager {
 public:
  // The one shared instance, never destroyed.
  static FileManager& shared();

  // True when something exists at `path` (symbolic links followed).
  bool fileExistsAtPath(const std::string& path) const;
  // Moves `from` to `to`; fails without touching anything when `to` exists. On failure returns
  // false with errno describing why.
  bool moveItemAtPath(const std::string& from, const std::string& to) const;
  // Creates `path` and every missing folder above it with `mode`. True when the folder exists
  // afterwards and is not a link; on failure false with errno describing why.
  bool createDirectoryAtPath(const std::string& path, mode_t mode) const;
};

}  // namespace kelo::platform

#endif  // KELO_PLATFORM_FILEMANAGER_H_
