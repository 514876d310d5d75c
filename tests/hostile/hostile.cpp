// A hostile local user against the installed library: every file a daemon's library touches, in
// every hostile form, each pair in a fresh process that uses the library through its public
// interface only. Each pair must end within a second in the documented outcome (nothing taken
// from or written through the hostile file), the process alive and its peak memory (VmHWM) less
// than 64 MB above its start; afterwards a lookup, a log line and a report still work.
// Usage: hostile [KIND-SUBSTRING]. Exits 0 when every pair holds.
#include <fcntl.h>
#include <kelo/Overrides.h>
#include <kelo/kelo.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr long kMemoryBudgetKb = 64 * 1024;
constexpr double kTimeBudgetSeconds = 1.0;
constexpr std::size_t kOversize = std::size_t{20} << 20;  // past every read limit
constexpr const char* kBundle = "/System/Library/Kelo/KeloConfiguration.bundle/Info.json";
constexpr const char* kSentinelBundle = R"({"commonDefaults": {"maxFetchApps": 4242}})";

enum Form { kFifo, kLink, kZero, kOversized, kFolder, kTruncated, kUnreadable, kForeign };
const char* const kFormNames[] = {"fifo",       "link-elsewhere", "link-to-dev-zero",
                                  "oversized",  "folder",         "truncated-in-use",
                                  "unreadable", "foreign-owner"};

struct Places {
  std::string root, home, elsewhere;
};

struct Kind {
  const char* name;
  std::function<std::string(const Places&)> path;
  std::string content;  // empty: a folder the library writes into
  bool read;            // read by the library (else written)
  // Uses the file through the public interface; true when the hostile content was taken (false
  // where the interface cannot tell).
  std::function<bool(const Places&)> exercise;
  bool foreignAccepted = false;  // a system file another user owns is read
};

void writeFile(const std::string& path, const std::string& content) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

long peakKb() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmHWM:", 0) == 0) return std::atol(line.c_str() + 6);
  }
  return 0;
}

bool elsewhereTouched(const Places& p, const Kind& k) {
  if (k.content.empty()) return fs::exists(p.elsewhere) && !fs::is_empty(p.elsewhere);
  return readFile(p.elsewhere) != k.content;
}

std::vector<Kind> kinds() {
  const auto logLine = [](const Places&) {
    KELO_CLOGMODE(true);
    KELO_CLOG("a line from a hostile run");
    return false;
  };
  return {
      {"bundle", [](const Places& p) { return p.root + kBundle; }, kSentinelBundle, true,
       [](const Places&) { return getStateForC("maxFetchApps") == 4242; }, true},
      {"preferences",
       [](const Places& p) { return p.home + "/Library/Preferences/com.vorn.Kelo.json"; },
       R"({"overideConfig": {"commonDefaults": {"maxFetchApps": 99}}})", true,
       [](const Places&) { return getStateForC("maxFetchApps") == 99; }},
      {"device-answers", [](const Places& p) { return p.root + "/etc/kelo/device.json"; },
       R"({"InternalBuild": true, "hw.machine": "sentinel"})", true,
       [](const Places&) {
         (void)getStateForC("globalPowerBudget");
         return false;
       }},
      {"energy-report", [](const Places& p) { return p.root + "/run/kelo/energy-report.json"; },
       R"({"BLMBatteryCapacity": 1, "BLMEnergyReferenceDate": 1, "BLMEnergyForKelo": []})", true,
       [](const Places&) {
         energyConsumedRefresh();
         (void)energyConsumedForBackgroundDownload();
         return false;
       }},
      {"energy-journal", [](const Places& p) { return p.root + "/run/kelo/energy-events.jsonl"; },
       "not a journal\n", false,
       [](const Places&) {
         energyStartLogging("com.example.hostile", 1, 1);
         energyStopLogging("com.example.hostile", 1, 1);
         return false;
       }},
      {"live-log",
       [](const Places& p) { return p.home + "/Library/Logs/KeloLoggingDetailed.hostile"; },
       "not a log\n", false, logLine},
      {"logs-folder", [](const Places& p) { return p.home + "/Library/Logs"; }, "", false, logLine},
      {"notification-state",
       [](const Places& p) {
         return p.root + "/run/kelo/notify/com.vorn.Kelo.CUMUNotificationReport";
       },
       std::string(16, 'x'), false,
       [](const Places& p) {
         reportCumu(1, 5, 5);
         reportCumuBackgroundDownload(1 << 20, 7);
         // Another process cuts the file while this one uses it.
         const std::string state = p.root + "/run/kelo/notify/com.vorn.Kelo.CUMUNotificationReport";
         struct stat st;
         if (::lstat(state.c_str(), &st) == 0 && S_ISREG(st.st_mode)) ::truncate(state.c_str(), 0);
         reportCumu(1, 5, 5);
         return false;
       }},
  };
}

// Puts `form` where `path` belongs. False when the form cannot be arranged here.
bool plant(Form form, const Kind& kind, const std::string& path, const Places& p) {
  fs::create_directories(fs::path(path).parent_path());
  if (kind.content.empty()) {
    fs::create_directories(p.elsewhere);
  } else {
    writeFile(p.elsewhere, kind.content);
  }
  switch (form) {
    case kFifo:
      return ::mkfifo(path.c_str(), 0666) == 0;
    case kLink:
      fs::create_symlink(p.elsewhere, path);
      return true;
    case kZero:
      fs::create_symlink("/dev/zero", path);
      return true;
    case kOversized:
      if (!kind.read) return false;
      writeFile(path, kind.content + std::string(kOversize, ' '));
      return true;
    case kFolder:
      fs::create_directories(path);
      return true;
    case kTruncated:
      if (kind.content.empty()) return false;
      writeFile(path, kind.read ? kind.content.substr(0, kind.content.size() / 2) : kind.content);
      // A file others may write, in a folder others may write: any user could cut it.
      return kind.read || (::chmod(fs::path(path).parent_path().c_str(), 0777) == 0 &&
                           ::chmod(path.c_str(), 0666) == 0);
    case kUnreadable:
      if (::geteuid() == 0 || kind.content.empty()) return false;
      writeFile(path, kind.content);
      return ::chmod(path.c_str(), 0) == 0;
    case kForeign:
      if (::geteuid() != 0 || kind.content.empty()) return false;
      writeFile(path, kind.content);
      return ::chown(path.c_str(), 4242, 4242) == 0;
  }
  return false;
}

// One pair, in a fresh process. Exit 0: held; 2: could not be arranged; 1: failed (said why).
int runPair(const Kind& kind, Form form, const std::string& scratch) {
  const Places p{scratch + "/root", scratch + "/home", scratch + "/elsewhere"};
  writeFile(p.root + kBundle, R"({"commonDefaults": {"maxFetchApps": 7}})");
  fs::create_directories(p.home);
  kelo::platform::Overrides o;
  o.deviceRoot = p.root;
  o.homeDirectory = p.home;
  o.processName = "hostile";
  o.systemLog = [](int, const char*) {};
  kelo::platform::installOverrides(std::move(o));
  const std::string path = kind.path(p);
  if (kind.path(p) == p.root + kBundle) fs::remove(path);
  if (!plant(form, kind, path, p)) return 2;
  // The program's own 20 MB file is not the library's memory: the peak starts again here.
  std::ofstream("/proc/self/clear_refs") << "5";
  const long startKb = peakKb();

  const auto start = std::chrono::steady_clock::now();
  const bool took = kind.exercise(p);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::string failure;
  if (took != (form == kForeign && kind.foreignAccepted)) {
    failure += took ? "the hostile file was used; " : "the file was refused; ";
  }
  if (elsewhereTouched(p, kind)) failure += "written through the link; ";
  if (seconds > kTimeBudgetSeconds) failure += "took " + std::to_string(seconds) + " s; ";
  // The process goes on working.
  KELO_CLOGMODE(true);
  KELO_CLOG("after the hostile file");
  energyConsumedRefresh();
  (void)energyConsumedForBackgroundDownload();
  reportCumu(1, 1, 1);
  // Without its bundle a key has no value (-1); with it, the bundle's.
  const long long next = getStateForC("maxFetchApps");
  if (next != (kind.foreignAccepted && form != kForeign ? -1 : 7) && next != 4242) {
    failure += "the next lookup gave " + std::to_string(next) + "; ";
  }
  const long grownKb = peakKb() - startKb;
  if (grownKb > kMemoryBudgetKb)
    failure += "peak memory grew by " + std::to_string(grownKb) + " kB; ";
  if (failure.empty()) return 0;
  std::fprintf(stderr, "hostile: %s as %s: %s\n", kind.name, kFormNames[form], failure.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string only = argc > 1 ? argv[1] : "";
  char pattern[] = "/tmp/kelo-hostile.XXXXXX";
  if (::mkdtemp(pattern) == nullptr) return 1;
  const std::string base = pattern;
  int failures = 0, held = 0;
  for (const Kind& kind : kinds()) {
    if (!only.empty() && std::string(kind.name).find(only) == std::string::npos) continue;
    for (int f = kFifo; f <= kForeign; ++f) {
      const std::string scratch = base + "/" + kind.name + "-" + kFormNames[f];
      fs::create_directories(scratch);
      const pid_t pid = ::fork();
      if (pid == 0) ::_exit(runPair(kind, static_cast<Form>(f), scratch));
      // The pair's own budget is a second; the margin covers process start and library setup.
      const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
      int status = 0;
      while (::waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > end) {
          ::kill(pid, SIGKILL);
          ::waitpid(pid, &status, 0);
          std::fprintf(stderr, "hostile: %s as %s: hung\n", kind.name, kFormNames[f]);
          status = -1;
          break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
      std::error_code ec;
      fs::remove_all(scratch, ec);
      if (status == -1) {
        ++failures;
      } else if (WIFSIGNALED(status)) {
        std::fprintf(stderr, "hostile: %s as %s: killed by signal %d\n", kind.name, kFormNames[f],
                     WTERMSIG(status));
        ++failures;
      } else if (WEXITSTATUS(status) == 1 || WEXITSTATUS(status) > 2) {
        ++failures;
      } else if (WEXITSTATUS(status) == 0) {
        ++held;
      }
    }
  }
  std::error_code ec;
  fs::remove_all(base, ec);
  std::printf("hostile: %d pairs held, %d failed\n", held, failures);
  return failures == 0 && held > 0 ? 0 : 1;
}
