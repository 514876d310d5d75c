#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <thread>
#include <vector>

#include "platform/Facts.h"
#include "platform/Json.h"
#include "platform/SafeFile.h"
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
// Reads go through the file layer: a link or FIFO put at the path is never read. Runs until the
// process is stopped.
int followLog(const std::string& path, bool byName, bool existed) {
  std::optional<platform::FileIdentity> file;
  uint64_t offset = 0;
  if (existed) {
    file = platform::identify(path);
    if (!file && !byName) return fail(kExitFailure, "cannot read " + path);
    if (file) offset = file->size;
  }
  for (;;) {
    if (file) {
      bool same = false;
      const platform::ReadResult chunk = platform::readRange(path, *file, offset, 65536, &same);
      if (same && !chunk.data.empty()) {
        std::fwrite(chunk.data.data(), 1, chunk.data.size(), stdout);
        std::fflush(stdout);
        offset += chunk.data.size();
        continue;
      }
    }
    if (byName) {
      if (const std::optional<platform::FileIdentity> now = platform::identify(path)) {
        if (!file || now->inode != file->inode || now->device != file->device) {
          file = now;  // a new file at the path: from its start
          offset = 0;
          continue;
        }
        if (now->size < offset) {  // truncated in place
          offset = 0;
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
    std::vector<std::string> tail;
    const platform::ReadResult read =
        platform::lastLines(path, static_cast<std::size_t>(lines), platform::kLogReadLimit, &tail);
    if (!read.ok) return fail(kExitFailure, read.error);
    for (const std::string& line : tail) std::printf("%s\n", line.c_str());
    std::fflush(stdout);
  }
  if (!follow) return kExitOk;
  return followLog(path, byName, exists);
}

}  // namespace kelo::tool
