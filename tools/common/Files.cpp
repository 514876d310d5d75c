#include "tools/common/Files.h"

#include <filesystem>

#include "platform/SafeFile.h"

namespace kelo::tools {

std::string executableDirectory() {
  std::error_code ec;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
  return ec ? std::string(".") : self.parent_path().string();
}

std::vector<std::string> filesEndingWith(const std::string& directory, const std::string& suffix) {
  std::vector<std::string> out;
  for (const std::string& name : platform::listFolder(directory)) {
    if (name.size() >= suffix.size() &&
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
      out.push_back(directory + "/" + name);
    }
  }
  return out;
}

}  // namespace kelo::tools
