// Where each configuration value comes from: the same sources, in the same order, as the
// configurator loads them (the bundle's base values, the entry for this hardware model, the
// preferences override), with the source of the winning value kept for each key.
#ifndef KELO_TOOLS_KELO_CONFIGSOURCES_H_
#define KELO_TOOLS_KELO_CONFIGSOURCES_H_

#include <array>
#include <optional>
#include <string>

#include "config/ConfigKeys.h"
#include "kelo/Value.h"

namespace kelo::tool {

struct ResolvedValue {
  Value value;
  std::string source;  // "bundle", "model entry", "override"
};

struct ConfigSources {
  std::string bundlePath;        // empty when neither bundle exists
  std::string bundleIdentifier;  // empty when the bundle names none
  bool hasCommonDefaults = false;
  std::string hardwareModel;
  bool hasModelEntry = false;
  bool hasOverride = false;
  Value blacklist;
  Value whitelist;
  std::array<std::optional<ResolvedValue>, config::kKeyCount> values;
};

ConfigSources resolveConfigSources();

// The value that `group` of `source` holds under `key`, or nullptr ("whenToLaunch" is read
// inside "commonDefaults").
const Value* lookupInSource(const Value& source, const config::KeyInfo& key);

}  // namespace kelo::tool

#endif  // KELO_TOOLS_KELO_CONFIGSOURCES_H_
