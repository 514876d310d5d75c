#include "tools/kelo-sim/Setup.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <thread>

#include "config/ConfigKeys.h"
#include "kelo/KeloLogger.h"
#include "kelo/logging.h"
#include "platform/Preferences.h"
#include "platform/SafeFile.h"
#include "tools/common/KeyNames.h"

extern char** environ;

namespace kelo::sim {

namespace {

namespace fs = std::filesystem;

constexpr const char* kRootMarker = ".kelo-sim-root";

}  // namespace

bool prepareRoot(const Options& options, std::string* error) {
  const fs::path root(options.root);
  std::error_code ec;
  if (fs::exists(root, ec)) {
    if (!fs::is_directory(root, ec)) {
      *error = "the root " + options.root + " exists and is not a folder";
      return false;
    }
    const bool empty = fs::is_empty(root, ec);
    if (!empty && !fs::exists(root / kRootMarker, ec)) {
      *error = "refusing to reuse " + options.root +
               ": it is not empty and was not made by kelo-sim (choose another --root)";
      return false;
    }
    for (const auto& entry : fs::directory_iterator(root, ec)) fs::remove_all(entry.path(), ec);
  }
  fs::create_directories(root, ec);
  if (ec) {
    *error = "cannot create " + options.root + ": " + ec.message();
    return false;
  }
  if (std::string failure = platform::replaceFile((root / kRootMarker).string(),
                                                  "made by kelo-sim; cleared by its next run\n", 0644);
      !failure.empty()) {
    *error = failure;
    return false;
  }
  if (!fs::exists(fs::path(options.bundleSource) / "Info.json", ec)) {
    *error = "no configuration bundle at " + options.bundleSource + " (give one with --bundle)";
    return false;
  }
  const fs::path bundle = root / "System/Library/Kelo/KeloConfiguration.bundle";
  fs::create_directories(bundle, ec);
  fs::copy(options.bundleSource, bundle, fs::copy_options::recursive, ec);
  if (ec) {
    *error = "cannot copy the bundle into the root: " + ec.message();
    return false;
  }
  if (std::string failure = platform::replaceFile((root / "etc/kelo/device.json").string(),
                                                  "{\"InternalBuild\": true}\n", 0644);
      !failure.empty()) {
    *error = failure;
    return false;
  }
  fs::create_directories(root / "home", ec);
  if (access(options.keloTool.c_str(), X_OK) != 0) {
    *error = "the kelo tool is not at " + options.keloTool + " (give it with --kelo)";
    return false;
  }
  return true;
}

bool writeOverride(const std::vector<std::pair<std::string, std::string>>& settings,
                   std::string* error) {
  if (settings.empty()) return true;
  std::map<std::string, Value::Dictionary> groups;
  Value::Dictionary whenToLaunch;  // nested inside "commonDefaults"
  for (const auto& [key, text] : settings) {
    const config::KeyInfo* info = tools::findKey(key);
    if (info == nullptr) {
      *error = "unknown configuration key \"" + key + "\"";
      return false;
    }
    if (info->group == config::Group::kWhenToLaunch) {
      whenToLaunch[std::string(info->name)] = tools::parseSetting(text);
      continue;
    }
    for (const config::GroupInfo& g : config::kGroupOrder) {
      if (g.group == info->group)
        groups[std::string(g.name)][std::string(info->name)] = tools::parseSetting(text);
    }
  }
  if (!whenToLaunch.empty()) {
    groups["commonDefaults"]["whenToLaunch"] = Value::dictionary(std::move(whenToLaunch));
  }
  Value::Dictionary override;
  for (auto& [name, entries] : groups) override[name] = Value::dictionary(std::move(entries));
  auto domain = platform::PreferencesDomain::open("com.vorn.Kelo");
  if (!domain || !domain->write("overideConfig", Value::dictionary(std::move(override)))) {
    *error = "cannot store the configuration override" +
             (domain ? " in " + domain->path() : std::string());
    return false;
  }
  return true;
}

bool waitFor(const std::function<bool()>& done, double seconds) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!done()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// It runs in a child made before this process has any service or thread.
void runPreviousSession() {
  const pid_t child = fork();
  if (child == 0) {
    KELO_CLOGMODE(true);
    waitFor([] { return KeloLogger::instance()->canWriteToFile(); }, 5);
    KELO_CLOG("kelo-sim: daemon of the previous boot, pid %d, shutting down", getpid());
    _exit(0);
  }
  if (child > 0) {
    int status = 0;
    waitpid(child, &status, 0);
  }
}

bool runTool(const std::vector<std::string>& args) {
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = 0;
  if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return false;
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return false;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace kelo::sim
