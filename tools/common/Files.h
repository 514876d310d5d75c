// Small file helpers for the command-line tools.
#ifndef KELO_TOOLS_COMMON_FILES_H_
#define KELO_TOOLS_COMMON_FILES_H_

#include <optional>
#include <string>
#include <vector>

namespace kelo::tools {

// The folder holding the running executable.
std::string executableDirectory();
// The whole file, or nullopt when it cannot be read.
std::optional<std::string> readFile(const std::string& path);
// The last `count` lines of a file (without their newlines).
std::vector<std::string> lastLines(const std::string& path, std::size_t count);
// Files in `directory` whose names end with `suffix`, sorted by name.
std::vector<std::string> filesEndingWith(const std::string& directory, const std::string& suffix);

}  // namespace kelo::tools

#endif  // KELO_TOOLS_COMMON_FILES_H_
