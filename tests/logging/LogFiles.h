// Helpers shared by the logging tests: reading log files back, and a file system that records
// what was opened and written and can fail the way the kernel does.
#ifndef KELO_TESTS_LOGGING_LOGFILES_H_
#define KELO_TESTS_LOGGING_LOGFILES_H_

#include <errno.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "kelo/Overrides.h"
#include "tests/support/Sandbox.h"

namespace kelo::test {

// "<Level>: text" of each line of a log file in the system log layout (time stamp,
// "kelotest[pid]"). Other lines fail the test, or are counted in `others` when it is given.
inline std::vector<std::string> lineBodies(const std::string& path, int* others = nullptr) {
  // Only the head goes through the regex: its matcher recurses per character.
  static const std::regex kHead(
      R"((\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} \+0000 kelotest\[\d+\] )<\w+>: .*)");
  std::vector<std::string> out;
  for (const std::string& line : Sandbox::readLines(path)) {
    std::smatch m;
    const std::string head = line.substr(0, 80);
    if (std::regex_match(head, m, kHead)) {
      out.push_back(line.substr(static_cast<size_t>(m.length(1))));
    } else if (others != nullptr) {
      ++*others;
    } else {
      ADD_FAILURE() << "malformed line in " << path << ": " << line;
    }
  }
  return out;
}

// The same lines without their "<Level>: ".
inline std::vector<std::string> lineTexts(const std::string& path, int* others = nullptr) {
  std::vector<std::string> out = lineBodies(path, others);
  for (std::string& body : out) body.erase(0, body.find(">: ") + 3);
  return out;
}

inline std::vector<std::string> filesIn(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(folder, ec)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

class RecordingFileSystem : public platform::FileSystem {
 public:
  int open(const char* path, int flags, mode_t mode) override {
    std::this_thread::sleep_for(openDelay_);
    const int fd = FileSystem::open(path, flags, mode);
    std::lock_guard<std::mutex> lock(mutex_);
    paths_[fd] = path;
    return fd;
  }
  ssize_t write(int fd, const void* data, size_t size) override {
    std::lock_guard<std::mutex> lock(mutex_);
    writes_.push_back(fd);
    writtenPaths_.push_back(paths_.count(fd) != 0 ? paths_[fd] : std::string());
    if (fd == failingFd_) {
      errno = EIO;
      return -1;
    }
    if (interruptions_ > 0) {
      --interruptions_;
      errno = EINTR;
      return -1;
    }
    return FileSystem::write(fd, data, std::min(size, maxChunk_));
  }

  // Set before the first service exists.
  void delayOpens(std::chrono::milliseconds delay) { openDelay_ = delay; }
  void interruptNext(int times) { interruptions_ = times; }
  void limitChunk(size_t bytes) { maxChunk_ = bytes; }
  void failAlways(int fd) { failingFd_ = fd; }

  int writesTo(int fd) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(std::count(writes_.begin(), writes_.end(), fd));
  }
  // The path of every write, in order (for descriptors opened through this file system).
  std::vector<std::string> writtenPaths() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return writtenPaths_;
  }

 private:
  mutable std::mutex mutex_;
  std::map<int, std::string> paths_;
  std::vector<int> writes_;
  std::vector<std::string> writtenPaths_;
  int interruptions_ = 0;
  size_t maxChunk_ = SIZE_MAX;
  int failingFd_ = -2;
  std::chrono::milliseconds openDelay_{0};
};

}  // namespace kelo::test

#endif  // KELO_TESTS_LOGGING_LOGFILES_H_
