// Small file helpers for the command-line tools, on top of platform/SafeFile.h.
#ifndef KELO_TOOLS_COMMON_FILES_H_
#define KELO_TOOLS_COMMON_FILES_H_

#include <string>
#include <vector>

namespace kelo::tools {

// The folder holding the running executable.
std::string executableDirectory();
// Files in `directory` whose names end with `suffix`, sorted by name (platform::listFolder: a
// link in place of the folder is not listed).
std::vector<std::string> filesEndingWith(const std::string& directory, const std::string& suffix);

}  // namespace kelo::tools

#endif  // KELO_TOOLS_COMMON_FILES_H_
