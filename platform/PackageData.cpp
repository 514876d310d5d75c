#include "platform/PackageData.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <cstring>

namespace kelo::platform {

namespace {

bool isDirectory(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The folder of the object (shared library or executable) that holds this function, and whether
// that object is a shared library.
bool loadedFrom(std::string* folder, bool* isLibrary) {
  Dl_info info;
  if (::dladdr(reinterpret_cast<const void*>(&loadedFrom), &info) == 0 ||
      info.dli_fname == nullptr || info.dli_fname[0] != '/') {
    return false;
  }
  const std::string file = info.dli_fname;
  const size_t slash = file.rfind('/');
  *folder = file.substr(0, slash == 0 ? 1 : slash);
  *isLibrary = std::strstr(file.c_str() + slash, ".so") != nullptr;
  return true;
}

}  // namespace

std::vector<std::string> packageDataFolders() {
  std::vector<std::string> folders;
  std::string here;
  bool isLibrary = false;
  if (loadedFrom(&here, &isLibrary)) {
    // The relative paths from the installed library and tool folders to the data folder, as the
    // build laid them out (lib/x86_64-linux-gnu needs two steps up, lib one).
    const std::string relative = isLibrary ? KELO_LIBDIR_TO_DATADIR : KELO_BINDIR_TO_DATADIR;
    const std::string folder = here + "/" + relative;
    if (isDirectory(folder)) folders.push_back(folder);
  }
  const std::string fixed = KELO_INSTALL_FULL_DATADIR;
  if (isDirectory(fixed)) folders.push_back(fixed);
  return folders;
}

std::string packageDataPath(std::string_view name) {
  for (const std::string& folder : packageDataFolders()) {
    std::string path = folder + "/";
    path += name;
    struct stat st;
    if (::stat(path.c_str(), &st) == 0) return path;
  }
  return {};
}

}  // namespace kelo::platform
