// Reading log lines back: the detailed logger's live file, and a system log client that writes a
// dump into a file of its own. Texts come without time stamp, identity and level.
#ifndef KELO_TESTS_SUPPORT_LOGCAPTURE_H_
#define KELO_TESTS_SUPPORT_LOGCAPTURE_H_

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "kelo/logging.h"
#include "kelo/vsl.h"
#include "tests/support/Sandbox.h"

namespace kelo::test {

inline std::vector<std::string> lineTexts(const std::string& path) {
  std::vector<std::string> texts;
  for (const std::string& line : Sandbox::readLines(path)) {
    const std::size_t mark = line.find(">: ");
    texts.push_back(mark == std::string::npos ? line : line.substr(mark + 3));
  }
  return texts;
}

class DetailedLog {
 public:
  explicit DetailedLog(const Sandbox& sandbox)
      : path_(sandbox.homePath() + "/Library/Logs/KeloLoggingDetailed.kelotest") {}

  // Switches the logger on; true once a probe line written afterwards reached the file.
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

  // The texts so far, probes left out; with `prefixes`, only those starting with one of them.
  std::vector<std::string> texts(const std::vector<std::string_view>& prefixes = {}) const {
    std::vector<std::string> out;
    for (const std::string& text : lineTexts(path_)) {
      if (text.rfind("switch probe", 0) == 0) continue;
      bool keep = prefixes.empty();
      for (std::string_view p : prefixes) keep = keep || text.rfind(p, 0) == 0;
      if (keep) out.push_back(text);
    }
    return out;
  }

 private:
  std::string path_;
};

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

#endif  // KELO_TESTS_SUPPORT_LOGCAPTURE_H_
