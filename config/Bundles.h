// The two configuration bundles and where each is found. Shared by the configurator and the
// tools that show where a value came from, so both always agree on the bundle in use.
#ifndef KELO_CONFIG_BUNDLES_H_
#define KELO_CONFIG_BUNDLES_H_

#include <memory>

#include "platform/Bundle.h"

namespace kelo::config {

inline constexpr const char* kMobileBundlePath = "/var/mobile/Library/Kelo/KeloMobileConfig.bundle";
inline constexpr const char* kSystemBundlePath = "/System/Library/Kelo/KeloConfiguration.bundle";

// The mobile bundle at its device path, or null.
std::shared_ptr<const platform::Bundle> openMobileBundle();

// The system bundle at its device path. On a machine with the default device root ("/") where
// nothing is there, the copy installed with the library's package (share/kelo) stands in for it:
// that is where a Linux installation keeps it. Under any other root only the device path counts,
// so a device tree made for a test or a simulation sees exactly what it holds. Null when none.
std::shared_ptr<const platform::Bundle> openSystemBundle();

}  // namespace kelo::config

#endif  // KELO_CONFIG_BUNDLES_H_
