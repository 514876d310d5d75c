// Helpers shared by the configuration tests: bundles and preference domains in a Sandbox, the
// detailed logger's lines, and a file system that counts the renames that make a file durable.
#ifndef KELO_TESTS_CONFIG_CONFIGTESTSUPPORT_H_
#define KELO_TESTS_CONFIG_CONFIGTESTSUPPORT_H_

#include <filesystem>
#include <map>
#include <mutex>
#include <regex>
#include <string>
#include <vector>

#include "kelo/KeloLogger.h"
#include "kelo/Overrides.h"
#include "kelo/Value.h"
#include "kelo/logging.h"
#include "platform/Json.h"
#include "tests/support/Sandbox.h"

namespace kelo::test {

inline constexpr const char* kMobileBundle = "/var/mobile/Library/Kelo/KeloMobileConfig.bundle";
inline constexpr const char* kSystemBundle = "/System/Library/Kelo/KeloConfiguration.bundle";

// The default system bundle shipped in data/.
inline std::string shippedBundleDirectory() {
  // This file lives in <repo>/tests/config/.
  return (std::filesystem::path(__FILE__).parent_path().parent_path().parent_path() / "data" /
          "KeloConfiguration.bundle")
      .string();
}

// Writes <root><bundle>/Info.json with `info` (JSON text).
inline void writeBundle(const Sandbox& sandbox, const std::string& bundle,
                        const std::string& info) {
  Sandbox::writeFile(sandbox.rootPath() + bundle + "/Info.json", info);
}

inline void installShippedBundle(const Sandbox& sandbox) {
  writeBundle(sandbox, kSystemBundle, Sandbox::readFile(shippedBundleDirectory() + "/Info.json"));
}

// <home>/Library/Preferences/<domain>.json
inline std::string domainFile(const Sandbox& sandbox, const std::string& domain) {
  return sandbox.homePath() + "/Library/Preferences/" + domain + ".json";
}

inline void writeDomainFile(const Sandbox& sandbox, const std::string& domain,
                            const std::string& json) {
  Sandbox::writeFile(domainFile(sandbox, domain), json);
}

// The parsed domain file (an error value when it is missing or malformed).
inline Value readDomainFile(const Sandbox& sandbox, const std::string& domain) {
  return platform::readJsonFile(domainFile(sandbox, domain));
}

// Switches the detailed logger on and returns once the switch ran.
inline void startDetailedLogging() {
  KELO_CLOGMODE(true);
  // A line write waits for every task posted before it, the switch among them.
  KeloLogger::instance()->logToFileCString(nullptr);
}

// The texts of the detailed logger's live file, without the time stamp and identity prefix.
inline std::vector<std::string> detailedLogTexts(const Sandbox& sandbox) {
  static const std::regex kLayout(
      R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} \+0000 \S+\[\d+\] <\w+>: (.*))");
  std::vector<std::string> out;
  for (const std::string& line :
       Sandbox::readLines(sandbox.homePath() + "/Library/Logs/KeloLoggingDetailed.kelotest")) {
    std::smatch m;
    out.push_back(std::regex_match(line, m, kLayout) ? m[1].str() : line);
  }
  return out;
}

// Counts renames by target file name (the last path component), so a test can see how often a
// preferences domain was made durable.
class CountingFileSystem : public platform::FileSystem {
 public:
  int rename(const char* from, const char* to) override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      ++renames_[std::filesystem::path(to).filename().string()];
    }
    return FileSystem::rename(from, to);
  }
  int renamesInto(const std::string& fileName) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = renames_.find(fileName);
    return it == renames_.end() ? 0 : it->second;
  }

 private:
  mutable std::mutex mutex_;
  std::map<std::string, int> renames_;
};

}  // namespace kelo::test

#endif  // KELO_TESTS_CONFIG_CONFIGTESTSUPPORT_H_
