#include "platform/FileManager.h"

#include <errno.h>
#include <sys/stat.h>

#include "platform/Facts.h"

namespace kelo::platform {

namespace {

bool isDirectory(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

FileManager& FileManager::shared() {
  static FileManager* manager = new FileManager();
  return *manager;
}

bool FileManager::fileExistsAtPath(const std::string& path) const {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

bool FileManager::moveItemAtPath(const std::string& from, const std::string& to) const {
  // rename(2) would silently replace an existing destination; a move never destroys a file.
  struct stat st;
  if (::lstat(to.c_str(), &st) == 0) {
    errno = EEXIST;
    return false;
  }
  return fileSystem().rename(from.c_str(), to.c_str()) == 0;
}

bool FileManager::createDirectoryAtPath(const std::string& path, mode_t mode) const {
  std::string::size_type end = path.size();
  while (end > 1 && path[end - 1] == '/') --end;
  if (end == 0) {
    errno = ENOENT;
    return false;
  }
  const std::string folder = path.substr(0, end);
  if (isDirectory(folder)) return true;
  // Each level from the top, so that a missing parent is made first.
  for (std::string::size_type pos = folder.find('/', 1);; pos = folder.find('/', pos + 1)) {
    const std::string prefix = pos == std::string::npos ? folder : folder.substr(0, pos);
    if (fileSystem().mkdir(prefix.c_str(), mode) != 0 && errno != EEXIST) return false;
    if (pos == std::string::npos) break;
  }
  if (isDirectory(folder)) return true;
  errno = ENOTDIR;
  return false;
}

}  // namespace kelo::platform
