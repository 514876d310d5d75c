#include "platform/FileManager.h"

#include <errno.h>
#include <sys/stat.h>

#include "platform/Facts.h"
#include "platform/SafeFile.h"

namespace kelo::platform {

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
  // A link in place of the folder is refused (errno ELOOP), never followed.
  if (makeFolders(path, mode).empty()) return true;
  if (errno == 0) errno = ENOTDIR;
  return false;
}

}  // namespace kelo::platform
