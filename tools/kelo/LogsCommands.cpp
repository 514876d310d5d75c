#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <thread>

#include "platform/Facts.h"
#include "platform/Json.h"
#include "tools/common/Files.h"
#include "tools/kelo/Commands.h"

namespace kelo::tool {

namespace {

namespace fs = std::filesystem;

std::string logsFolder() { return platform::homeDirectory() + "/Library/Logs"; }
std::string diagnosticsFolder() { return logsFolder() + "/Wreckbox/DiagnosticLogs"; }

std::vector<std::string> liveLogs() {
  std::vector<std::string> out;
  for (const std::string& f : tools::filesEndingWith(logsFolder(), "")) {
    const std::string name = fs::path(f).filename().string();
    if (name.rfind("KeloLogging", 0) == 0 && fs::is_regular_file(f)) out.push_back(f);
  }
  return out;
}

// Prints what is appended to `path`. By name, it also reopens the path when the file there is
// replaced (rotation) or truncated, and waits for a path that does not exist yet, as tail -F.
// Runs until the process is stopped.
int followLog(const std::string& path, bool byName, bool existed) {
  FILE* f = nullptr;
  ino_t inode = 0;
  dev_t device = 0;
  long position = 0;
  auto open = [&](bool atEnd) {
    struct stat st;
    FILE* next = std::fopen(path.c_str(), "rb");
    if (next == nullptr || ::fstat(fileno(next), &st) != 0) {
      if (next != nullptr) std::fclose(next);
      return false;
    }
    if (f != nullptr) std::fclose(f);
    f = next;
    inode = st.st_ino;
    device = st.st_dev;
    if (atEnd) std::fseek(f, 0, SEEK_END);
    position = std::ftell(f);
    return true;
  };
  if (existed && !open(true) && !byName) return fail(kExitFailure, "cannot read " + path);
  char buffer[4096];
  for (;;) {
    if (f != nullptr) {
      const size_t n = std::fread(buffer, 1, sizeof buffer, f);
      if (n > 0) {
        std::fwrite(buffer, 1, n, stdout);
        std::fflush(stdout);
        position += static_cast<long>(n);
        continue;
      }
      std::clearerr(f);
    }
    if (byName) {
      struct stat st;
      if (::stat(path.c_str(), &st) == 0) {
        if (f == nullptr || st.st_ino != inode || st.st_dev != device) {
          open(false);  // a new file at the path: from its start (the old one was drained)
          continue;
        }
        if (st.st_size < position) {  // truncated in place
          std::fseek(f, 0, SEEK_SET);
          position = 0;
          continue;
        }
      }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
}

}  // namespace

int logsPath(const Context& context) {
  context.install();
  const std::vector<std::string> live = liveLogs();
  std::vector<std::string> rotated;
  std::vector<std::string> dumps;
  for (const std::string& f : tools::filesEndingWith(diagnosticsFolder(), "")) {
    (f.size() >= 13 && f.compare(f.size() - 13, 13, "-FullDump.log") == 0 ? dumps : rotated)
        .push_back(f);
  }
  if (context.json) {
    auto list = [](const std::vector<std::string>& v) {
      Value::Array a;
      for (const std::string& s : v) a.push_back(Value::string(s));
      return Value::array(std::move(a));
    };
    std::printf("%s\n", platform::toJson(Value::dictionary({{"logs", Value::string(logsFolder())},
                                                            {"live", list(live)},
                                                            {"rotated", list(rotated)},
                                                            {"dumps", list(dumps)}}),
                                         true)
                            .c_str());
    return kExitOk;
  }
  std::printf("logs folder: %s\n", logsFolder().c_str());
  for (const std::string& f : live) std::printf("live     %s\n", f.c_str());
  for (const std::string& f : rotated) std::printf("rotated  %s\n", f.c_str());
  for (const std::string& f : dumps) std::printf("dump     %s\n", f.c_str());
  if (live.empty() && rotated.empty() && dumps.empty()) std::printf("(no log files yet)\n");
  return kExitOk;
}

int logsTail(const Context& context, bool follow, bool byName, int lines,
             const std::string& process, bool simple) {
  context.install();
  std::string path;
  if (!process.empty()) {
    path = logsFolder() + "/" + (simple ? "KeloLoggingSimple." : "KeloLoggingDetailed.") + process;
  } else {
    // The live log written to last.
    fs::file_time_type newest{};
    for (const std::string& f : liveLogs()) {
      std::error_code ec;
      const auto t = fs::last_write_time(f, ec);
      const bool wanted = (f.find("KeloLoggingSimple.") != std::string::npos) == simple;
      if (!ec && wanted && (path.empty() || t > newest)) {
        newest = t;
        path = f;
      }
    }
  }
  struct stat st;
  const bool exists = !path.empty() && ::stat(path.c_str(), &st) == 0;
  if (!exists && !(byName && !path.empty())) {
    return fail(kExitNotFound, path.empty()
                                   ? "no live log under " + logsFolder() +
                                         (byName ? " (give --process to wait for one)" : "")
                                   : "no live log at " + path);
  }
  if (exists) {
    for (const std::string& line : tools::lastLines(path, static_cast<std::size_t>(lines))) {
      std::printf("%s\n", line.c_str());
    }
    std::fflush(stdout);
  }
  if (!follow) return kExitOk;
  return followLog(path, byName, exists);
}

}  // namespace kelo::tool
