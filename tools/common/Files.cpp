#include "tools/common/Files.h"

#include <unistd.h>

#include <algorithm>
#include <deque>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace kelo::tools {

namespace fs = std::filesystem;

std::string executableDirectory() {
  std::error_code ec;
  const fs::path self = fs::read_symlink("/proc/self/exe", ec);
  return ec ? std::string(".") : self.parent_path().string();
}

std::optional<std::string> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

std::vector<std::string> lastLines(const std::string& path, std::size_t count) {
  std::ifstream in(path, std::ios::binary);
  std::deque<std::string> window;
  for (std::string line; std::getline(in, line);) {
    window.push_back(std::move(line));
    if (window.size() > count) window.pop_front();
  }
  return {window.begin(), window.end()};
}

std::vector<std::string> filesEndingWith(const std::string& directory, const std::string& suffix) {
  std::vector<std::string> out;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(directory, ec)) {
    const std::string name = entry.path().filename().string();
    if (name.size() >= suffix.size() &&
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
      out.push_back(entry.path().string());
    }
  }
  std::sort(out.begin(), out.end());
  return out;
}

}  // namespace kelo::tools
