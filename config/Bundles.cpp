#include "config/Bundles.h"

#include <string>

#include "platform/Facts.h"
#include "platform/PackageData.h"

namespace kelo::config {

std::shared_ptr<const platform::Bundle> openMobileBundle() {
  return platform::Bundle::open(platform::devicePath(kMobileBundlePath));
}

std::shared_ptr<const platform::Bundle> openSystemBundle() {
  if (auto bundle = platform::Bundle::open(platform::devicePath(kSystemBundlePath))) return bundle;
  if (platform::deviceRoot() != "/") return nullptr;
  const std::string installed = platform::packageDataPath("KeloConfiguration.bundle");
  return installed.empty() ? nullptr : platform::Bundle::open(installed);
}

}  // namespace kelo::config
