// Helpers shared by the energy suites: the configuration bundle the service reads its limits
// from, the detailed logger's live file, and a system log client that captures dump lines.
#ifndef KELO_TESTS_ENERGY_ENERGYTESTUTIL_H_
#define KELO_TESTS_ENERGY_ENERGYTESTUTIL_H_

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "kelo/logging.h"
#include "kelo/vsl.h"
#include "tests/support/Sandbox.h"

namespace kelo::test {

inline void writeEnergyConfiguration(const Sandbox& sandbox, int64_t global, int64_t item) {
  Sandbox::writeFile(sandbox.rootPath() + "/System/Library/Kelo/KeloConfiguration.bundle/Info.json",
                     "{\"commonDefaults\": {\"globalPowerBudget\": " + std::to_string(global) +
                         "}, \"fetchBudget\": {\"fetchAppPowerBudget\": " + std::to_string(item) +
                         "}}");
}

// The text of a system log line, without its time stamp, identity and level.
inline std::string lineText(const std::string& line) {
  const std::size_t mark = line.find(">: ");
  return mark == std::string::npos ? line : line.substr(mark + 3);
}

inline std::vector<std::string> lineTexts(const std::string& path) {
  std::vector<std::string> texts;
  for (const std::string& line : Sandbox::readLines(path)) texts.push_back(lineText(line));
  return texts;
}

// The detailed logger's live file, switched on before the service under test exists.
class DetailedLog {
 public:
  explicit DetailedLog(const Sandbox& sandbox)
      : path_(sandbox.homePath() + "/Library/Logs/KeloLoggingDetailed.kelotest") {}

  // Switches the logger on and returns once a line written afterwards reaches the file (the
  // switch itself runs later, on the logger's queue). False if that never happens.
  bool switchOn() {
    KELO_CLOGMODE(true);
    for (int i = 0; i < 2000; ++i) {
      KELO_CLOG("switch probe %d", i);
      for (const std::string& text : lineTexts(path_)) {
        if (text.rfind("switch probe", 0) == 0) return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
  }

  // The texts written so far that start with one of `prefixes`, in file order.
  std::vector<std::string> texts(const std::vector<std::string_view>& prefixes) const {
    std::vector<std::string> out;
    for (const std::string& text : lineTexts(path_)) {
      for (std::string_view p : prefixes) {
        if (std::string_view(text).substr(0, p.size()) == p) {
          out.push_back(text);
          break;
        }
      }
    }
    return out;
  }

 private:
  std::string path_;
};

// A system log client writing into a file of its own, for calling dumps directly.
class VslCapture {
 public:
  VslCapture() : path_(dir_.path() + "/dump.log") {
    fd_ = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    client_ = vsl_open("kelotest", "dump", 0);
    msg_ = vsl_new(VSL_TYPE_MSG);
    vsl_add_log_file(client_, fd_);
  }
  ~VslCapture() {
    vsl_close(client_);
    ::close(fd_);
  }
  VslCapture(const VslCapture&) = delete;
  VslCapture& operator=(const VslCapture&) = delete;

  vsl_client_t client() const { return client_; }
  vsl_msg_t msg() const { return msg_; }
  std::vector<std::string> texts() const { return lineTexts(path_); }

 private:
  TempDir dir_;
  std::string path_;
  int fd_ = -1;
  vsl_client_t client_ = nullptr;
  vsl_msg_t msg_ = nullptr;
};

}  // namespace kelo::test

#endif  // KELO_TESTS_ENERGY_ENERGYTESTUTIL_H_
