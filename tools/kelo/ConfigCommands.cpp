#include <cinttypes>
#include <cstdio>

#include "config/ConfigKeys.h"
#include "platform/Json.h"
#include "platform/Preferences.h"
#include "tools/kelo/BundleCheck.h"
#include "tools/kelo/Commands.h"
#include "tools/kelo/ConfigSources.h"

namespace kelo::tool {

namespace {

int keyId(const std::string& key) {
  for (int id = 0; id < config::kKeyCount; ++id) {
    if (config::kKeys[static_cast<size_t>(id)].name == key) return id;
  }
  return -1;
}

}  // namespace

int configGet(const Context& context, const std::string& key) {
  const int id = keyId(key);
  if (id < 0) {
    return fail(kExitNotFound, "unknown configuration key \"" + key +
                                   "\" (keys are case-sensitive; `kelo config dump` lists them)");
  }
  context.install();
  const ConfigSources sources = resolveConfigSources();
  const auto& resolved = sources.values[static_cast<size_t>(id)];
  if (!resolved) {
    return fail(kExitNotFound, "no configuration source supplies \"" + key + "\" (it reads -1)");
  }
  // The integer reading the configurator gives the daemons. Read from the sources directly:
  // creating the configurator would write the other processes' preferences, and this command
  // changes nothing on disk.
  const int64_t value = resolved->value.integerValue();
  if (context.json) {
    std::printf("%s\n", platform::toJson(Value::dictionary({{"key", Value::string(key)},
                                                             {"value", Value::integer(value)},
                                                             {"raw", resolved->value},
                                                             {"source",
                                                              Value::string(resolved->source)}}),
                                         true)
                            .c_str());
  } else {
    std::printf("%" PRId64 "\n", value);
  }
  return kExitOk;
}

int configDump(const Context& context) {
  context.install();
  const ConfigSources s = resolveConfigSources();
  if (context.json) {
    Value::Array keys;
    for (int id = 0; id < config::kKeyCount; ++id) {
      const config::KeyInfo& k = config::kKeys[static_cast<size_t>(id)];
      const auto& r = s.values[static_cast<size_t>(id)];
      Value::Dictionary entry{{"key", Value::string(std::string(k.name))}};
      if (r) {
        entry["value"] = Value::integer(r->value.integerValue());
        entry["raw"] = r->value;
        entry["source"] = Value::string(r->source);
      } else {
        entry["value"] = Value::integer(-1);
        entry["source"] = Value();
      }
      keys.push_back(Value::dictionary(std::move(entry)));
    }
    const Value out = Value::dictionary({
        {"bundle", s.bundlePath.empty() ? Value() : Value::string(s.bundlePath)},
        {"bundleIdentifier", Value::string(s.bundleIdentifier)},
        {"hardwareModel", Value::string(s.hardwareModel)},
        {"commonDefaults", Value::boolean(s.hasCommonDefaults)},
        {"modelEntry", Value::boolean(s.hasModelEntry)},
        {"override", Value::boolean(s.hasOverride)},
        {"blacklist", s.blacklist},
        {"whitelist", s.whitelist},
        {"keys", Value::array(std::move(keys))},
    });
    std::printf("%s\n", platform::toJson(out, true).c_str());
    return kExitOk;
  }
  if (s.bundlePath.empty()) {
    std::printf("bundle: none (neither the mobile nor the system bundle exists): every key "
                "reads -1\n");
  } else {
    std::printf("bundle: %s (%s)\n", s.bundlePath.c_str(),
                s.bundleIdentifier.empty() ? "no identifier" : s.bundleIdentifier.c_str());
    std::printf("hardware model: %s%s\n", s.hardwareModel.c_str(),
                s.hasModelEntry ? " (has a model entry)" : " (no model entry)");
    if (!s.hasCommonDefaults) {
      std::printf("the bundle has no \"commonDefaults\": only its lists and the override are "
                  "read\n");
    }
    std::printf("override (\"overideConfig\" in com.vorn.Kelo): %s\n",
                s.hasOverride ? "present" : "none");
  }
  std::printf("\n%-52s %12s  %s\n", "key", "value", "source");
  for (int id = 0; id < config::kKeyCount; ++id) {
    const config::KeyInfo& k = config::kKeys[static_cast<size_t>(id)];
    const auto& r = s.values[static_cast<size_t>(id)];
    const std::string name(k.name);
    if (r) {
      std::printf("%-52s %12" PRId64 "  %s\n", name.c_str(), r->value.integerValue(),
                  r->source.c_str());
    } else {
      std::printf("%-52s %12s  %s\n", name.c_str(), "-1", "(no source)");
    }
  }
  return kExitOk;
}

int configCheck(const Context& context, const std::string& bundle, bool override) {
  if (override == !bundle.empty()) {
    return fail(kExitUsage, "config check takes a BUNDLE or --override (one of them)");
  }
  BundleCheck check;
  if (override) {
    context.install();
    auto domain = platform::PreferencesDomain::open("com.vorn.Kelo");
    const Value contents = domain ? domain->contents() : Value();
    const Value* stored = contents.find("overideConfig");
    if (stored == nullptr) {
      return fail(kExitNotFound, "no override stored (no \"overideConfig\" in " +
                                     (domain ? domain->path() : std::string("com.vorn.Kelo")) +
                                     ")");
    }
    check = checkOverride(*stored, domain->path() + ": overideConfig");
  } else {
    check = checkBundle(bundle);
  }
  if (!check.found) return fail(kExitNotFound, "no bundle at " + bundle + " (no Info.json there)");
  return printCheck(context, check);
}

int printCheck(const Context& context, const BundleCheck& check) {
  if (context.json) {
    Value::Array findings;
    for (const Finding& f : check.findings) {
      findings.push_back(Value::dictionary({{"severity", Value::string(f.error ? "error" : "warning")},
                                            {"where", Value::string(f.where)},
                                            {"message", Value::string(f.message)}}));
    }
    std::printf("%s\n", platform::toJson(Value::dictionary({{"info", Value::string(check.infoPath)},
                                                            {"errors", Value::integer(check.errors())},
                                                            {"warnings", Value::integer(check.warnings())},
                                                            {"findings", Value::array(findings)}}),
                                         true)
                            .c_str());
  } else {
    for (const Finding& f : check.findings) {
      std::printf("%s: %s: %s: %s\n", check.infoPath.c_str(), f.error ? "error" : "warning",
                  f.where.c_str(), f.message.c_str());
    }
    std::printf("%s: %d error%s, %d warning%s\n", check.infoPath.c_str(), check.errors(),
                check.errors() == 1 ? "" : "s", check.warnings(), check.warnings() == 1 ? "" : "s");
  }
  return check.errors() > 0 ? kExitFailure : kExitOk;
}

}  // namespace kelo::tool
