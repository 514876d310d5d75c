#include "tools/kelo/ConfigSources.h"

#include "config/Bundles.h"
#include "platform/Bundle.h"
#include "platform/Facts.h"
#include "platform/Preferences.h"

namespace kelo::tool {

namespace {

std::string_view groupName(config::Group group) {
  for (const config::GroupInfo& g : config::kGroupOrder) {
    if (g.group == group) return g.name;
  }
  return {};
}

void apply(const Value& source, const char* label, ConfigSources& out) {
  for (int id = 0; id < config::kKeyCount; ++id) {
    const Value* v = lookupInSource(source, config::kKeys[static_cast<size_t>(id)]);
    if (v != nullptr && !v->isNull()) out.values[static_cast<size_t>(id)] = ResolvedValue{*v, label};
  }
}

}  // namespace

const Value* lookupInSource(const Value& source, const config::KeyInfo& key) {
  const Value* group = nullptr;
  if (key.group == config::Group::kWhenToLaunch) {
    const Value* common = source.find("commonDefaults");
    group = common != nullptr ? common->find("whenToLaunch") : nullptr;
  } else {
    group = source.find(groupName(key.group));
  }
  return group != nullptr ? group->find(key.name) : nullptr;
}

ConfigSources resolveConfigSources() {
  ConfigSources out;
  std::shared_ptr<const platform::Bundle> bundle = config::openMobileBundle();
  if (!bundle) bundle = config::openSystemBundle();
  out.hardwareModel = platform::hardwareModel();
  if (!bundle) return out;
  out.bundlePath = bundle->path();
  out.bundleIdentifier = bundle->identifier().value_or("");
  const Value& info = bundle->infoDictionary();
  out.blacklist = bundle->objectForInfoDictionaryKey("blacklist");
  out.whitelist = bundle->objectForInfoDictionaryKey("whitelist");
  if (const Value* common = info.find("commonDefaults"); common != nullptr) {
    out.hasCommonDefaults = true;
    apply(info, "bundle", out);
    const Value* models = info.find("productSpecific");
    const Value* entry = models != nullptr ? models->find(out.hardwareModel) : nullptr;
    if (entry != nullptr) {
      out.hasModelEntry = true;
      apply(*entry, "model entry", out);
    }
  }
  if (auto domain = platform::PreferencesDomain::open("com.vorn.Kelo")) {
    const Value contents = domain->contents();
    if (const Value* override = contents.find("overideConfig"); override != nullptr) {
      out.hasOverride = true;
      apply(*override, "override", out);
    }
  }
  return out;
}

}  // namespace kelo::tool
