// Bundles and preference domains in a Sandbox, for the configuration tests.
#ifndef KELO_TESTS_CONFIG_CONFIGTESTSUPPORT_H_
#define KELO_TESTS_CONFIG_CONFIGTESTSUPPORT_H_

#include <filesystem>
#include <string>

#include "kelo/KeloLogger.h"
#include "kelo/Value.h"
#include "kelo/logging.h"
#include "platform/Json.h"
#include "tests/support/Sandbox.h"

namespace kelo::test {

inline constexpr const char* kMobileBundle = "/var/mobile/Library/Kelo/KeloMobileConfig.bundle";
inline constexpr const char* kSystemBundle = "/System/Library/Kelo/KeloConfiguration.bundle";

// The default system bundle shipped in data/.
inline std::string shippedBundleDirectory() {
  return (std::filesystem::path(__FILE__).parent_path().parent_path().parent_path() / "data" /
          "KeloConfiguration.bundle")
      .string();
}

inline void writeBundle(const Sandbox& sandbox, const std::string& bundle,
                        const std::string& info) {
  Sandbox::writeFile(sandbox.rootPath() + bundle + "/Info.json", info);
}

inline void installShippedBundle(const Sandbox& sandbox) {
  writeBundle(sandbox, kSystemBundle, Sandbox::readFile(shippedBundleDirectory() + "/Info.json"));
}

inline std::string domainFile(const Sandbox& sandbox, const std::string& domain) {
  return sandbox.homePath() + "/Library/Preferences/" + domain + ".json";
}

inline void writeDomainFile(const Sandbox& sandbox, const std::string& domain,
                            const std::string& json) {
  Sandbox::writeFile(domainFile(sandbox, domain), json);
}

// The parsed domain file (an error value when it is missing or malformed).
inline Value readDomainFile(const Sandbox& sandbox, const std::string& domain) {
  return Sandbox::readJson(domainFile(sandbox, domain));
}

// Switches the detailed logger on and returns once the switch ran (a line write waits for every
// task posted before it).
inline void startDetailedLogging() {
  KELO_CLOGMODE(true);
  KeloLogger::instance()->logToFileCString(nullptr);
}

}  // namespace kelo::test

#endif  // KELO_TESTS_CONFIG_CONFIGTESTSUPPORT_H_
