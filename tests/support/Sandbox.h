// A scratch platform for one test: a fresh device root and home under /tmp, a clock the test
// moves by hand, and a capture of every system-log and console line. Install it before the first
// service exists (each test runs in its own process, so that holds at the start of a test).
#ifndef KELO_TESTS_SUPPORT_SANDBOX_H_
#define KELO_TESTS_SUPPORT_SANDBOX_H_

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "kelo/Overrides.h"
#include "kelo/Value.h"

namespace kelo::test {

// A directory removed with everything in it when the object goes.
class TempDir {
 public:
  explicit TempDir(const std::string& prefix = "kelo-test");
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

struct SystemLine {
  int priority;
  std::string text;
};

class Sandbox {
 public:
  // The clock starts at `startTime` (seconds since 1970).
  explicit Sandbox(double startTime = 1763722560.0);
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  std::string rootPath() const { return dir_.path() + "/root"; }
  std::string homePath() const { return dir_.path() + "/home"; }

  // Installs the overrides, with `extra`'s set fields on top.
  void install(kelo::platform::Overrides extra = {});

  double now() const { return clock_->load(); }
  void setNow(double t) { clock_->store(t); }
  void advance(double seconds) { clock_->store(clock_->load() + seconds); }

  std::vector<SystemLine> systemLines() const;
  // Lines captured at syslog priority LOG_ERR (the console log).
  std::vector<std::string> consoleLines() const;

  // Writes a file (creating its folders) with the given content.
  static void writeFile(const std::string& path, const std::string& content);
  static std::string readFile(const std::string& path);
  // The parsed JSON file; an error value when it is missing, refused or malformed.
  static Value readJson(const std::string& path);
  static bool exists(const std::string& path);
  // Lines of a file, each without its newline.
  static std::vector<std::string> readLines(const std::string& path);

 private:
  struct Capture {
    mutable std::mutex mutex;
    std::vector<SystemLine> lines;
  };
  TempDir dir_;
  std::shared_ptr<std::atomic<double>> clock_;
  std::shared_ptr<Capture> capture_;
};

}  // namespace kelo::test

#endif  // KELO_TESTS_SUPPORT_SANDBOX_H_
