#include "tools/common/ReplaceFile.h"

#include <sys/stat.h>

#include "platform/SafeFile.h"

namespace kelo::tools {

bool replaceFile(const std::string& path, const std::string& text, std::string* error) {
  // The tools write where they are told: a missing folder is the caller's mistake, not made.
  const std::size_t slash = path.rfind('/');
  const std::string folder =
      slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
  struct stat st;
  if (::stat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    *error = "cannot write " + path + ": " + folder + " is not a folder";
    return false;
  }
  *error = platform::replaceFile(path, text, 0644);
  return error->empty();
}

}  // namespace kelo::tools
