#include "tests/support/Sandbox.h"

#include <syslog.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "platform/Json.h"

namespace kelo::test {

namespace fs = std::filesystem;

TempDir::TempDir(const std::string& prefix) {
  std::string pattern = (fs::temp_directory_path() / (prefix + ".XXXXXX")).string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ec;
  // Tests make folders unwritable on purpose; give the owner its rights back before removing.
  for (auto it = fs::recursive_directory_iterator(path_, ec); !ec && it != fs::end(it);
       it.increment(ec)) {
    fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
  }
  fs::remove_all(path_, ec);
}

Sandbox::Sandbox(double startTime)
    : dir_("kelo-sandbox"),
      clock_(std::make_shared<std::atomic<double>>(startTime)),
      capture_(std::make_shared<Capture>()) {
  fs::create_directories(rootPath());
  fs::create_directories(homePath());
}

void Sandbox::install(kelo::platform::Overrides extra) {
  kelo::platform::Overrides o = std::move(extra);
  if (!o.clock) o.clock = [clock = clock_] { return clock->load(); };
  if (!o.homeDirectory) o.homeDirectory = homePath();
  if (!o.deviceRoot) o.deviceRoot = rootPath();
  if (!o.processName) o.processName = "kelotest";
  if (!o.systemLog) {
    o.systemLog = [capture = capture_](int priority, const char* line) {
      std::lock_guard<std::mutex> lock(capture->mutex);
      capture->lines.push_back({priority, line});
    };
  }
  kelo::platform::installOverrides(std::move(o));
}

std::vector<SystemLine> Sandbox::systemLines() const {
  std::lock_guard<std::mutex> lock(capture_->mutex);
  return capture_->lines;
}

std::vector<std::string> Sandbox::consoleLines() const {
  std::vector<std::string> out;
  for (const SystemLine& l : systemLines()) {
    if (l.priority == LOG_ERR) out.push_back(l.text);
  }
  return out;
}

void Sandbox::writeFile(const std::string& path, const std::string& content) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
}

Value Sandbox::readJson(const std::string& path) {
  platform::JsonFile file = platform::readJsonFile(path, std::size_t{64} << 20);
  if (file.missing || !file.refused.empty()) return Value::error("not read", path);
  return std::move(file.value);
}

std::string Sandbox::readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

bool Sandbox::exists(const std::string& path) {
  std::error_code ec;
  return fs::exists(path, ec);
}

std::vector<std::string> Sandbox::readLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path, std::ios::binary);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

}  // namespace kelo::test
