// Validation of a configuration bundle as the configurator would read it: entries it ignores,
// keys it does not know or that sit outside their group, and values of the wrong type.
#ifndef KELO_TOOLS_KELO_BUNDLECHECK_H_
#define KELO_TOOLS_KELO_BUNDLECHECK_H_

#include <string>
#include <vector>

#include "kelo/Value.h"

namespace kelo::tool {

struct Finding {
  bool error;         // false: a warning
  std::string where;  // e.g. "commonDefaults.maxFetchApps"
  std::string message;
};

struct BundleCheck {
  bool found = false;     // false: no bundle folder or Info.json at the path
  std::string infoPath;   // the Info.json that was read
  std::vector<Finding> findings;
  int errors() const;
  int warnings() const;
};

// `path` names a bundle folder or its Info.json.
BundleCheck checkBundle(const std::string& path);

// The same checks of a preferences override ("overideConfig"), which has a source's shape;
// `where` names it in the result. Numbers outside the signed 64-bit range are errors too.
BundleCheck checkOverride(const Value& override, const std::string& where);

}  // namespace kelo::tool

#endif  // KELO_TOOLS_KELO_BUNDLECHECK_H_
