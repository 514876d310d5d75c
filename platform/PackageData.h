// Where the library's own package keeps its read-only data on this machine.
//
// On a device the configuration bundles live at their device paths. On an ordinary Linux machine
// the package installs its default bundle under <prefix>/share/kelo instead, and the library
// looks there when the device path holds nothing (see config/Bundles.h). Callable from any
// thread; keeps no state.
#ifndef KELO_PLATFORM_PACKAGEDATA_H_
#define KELO_PLATFORM_PACKAGEDATA_H_

#include <string>
#include <string_view>
#include <vector>

namespace kelo::platform {

// The folders that may hold the package's data, most specific first: the one beside the object
// this code was loaded from (the shared library, or an executable linking it statically), so
// that a staged or relocated installation finds its own data; then the data folder fixed when
// the library was built. Folders that do not exist are left out.
std::vector<std::string> packageDataFolders();

// The first `<folder>/<name>` among packageDataFolders() that exists; empty when none does.
std::string packageDataPath(std::string_view name);

}  // namespace kelo::platform

#endif  // KELO_PLATFORM_PACKAGEDATA_H_
