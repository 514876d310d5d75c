#include "tools/kelo/BundleCheck.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>

#include "config/ConfigKeys.h"
#include "tools/common/KeyNames.h"
#include "kelo/Value.h"
#include "platform/Json.h"

namespace kelo::tool {

namespace {

std::string lower(std::string_view s) {
  std::string out(s);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return out;
}

bool isFlag(std::string_view key) {
  return key.starts_with("enable") || key.starts_with("disable") || key.starts_with("allow");
}

const config::GroupInfo* groupNamed(std::string_view name) {
  for (const config::GroupInfo& g : config::kGroupOrder) {
    if (g.name == name) return &g;
  }
  return nullptr;
}

std::string_view nameOf(config::Group group) {
  for (const config::GroupInfo& g : config::kGroupOrder) {
    if (g.group == group) return g.name;
  }
  return {};
}

std::string typeName(const Value& v) {
  switch (v.type()) {
    case Value::Type::kNull: return "null";
    case Value::Type::kBoolean: return "a boolean";
    case Value::Type::kInteger:
    case Value::Type::kReal: return "a number";
    case Value::Type::kString: return "a string";
    case Value::Type::kArray: return "an array";
    case Value::Type::kDictionary: return "a dictionary";
    default: return "a value";
  }
}

class Checker {
 public:
  explicit Checker(std::vector<Finding>& out) : out_(out) {}

  void source(const Value& src, const std::string& prefix) {
    for (const auto& [name, group] : src.asDictionary()) {
      const std::string where = prefix + name;
      if (name == "whenToLaunch") {
        error(where, "\"whenToLaunch\" belongs inside \"commonDefaults\"; here it is ignored");
        continue;
      }
      const config::GroupInfo* info = groupNamed(name);
      if (info == nullptr) continue;  // the caller reports entries that are no group
      if (!group.isDictionary()) {
        error(where, "a group must be a dictionary, found " + typeName(group));
        continue;
      }
      groupKeys(group, info->group, where);
    }
  }

  void groupKeys(const Value& group, config::Group expected, const std::string& where) {
    for (const auto& [key, value] : group.asDictionary()) {
      const std::string at = where + "." + key;
      if (expected == config::Group::kCommonDefaults && key == "whenToLaunch") {
        if (!value.isDictionary()) {
          error(at, "a group must be a dictionary, found " + typeName(value));
        } else {
          groupKeys(value, config::Group::kWhenToLaunch, at);
        }
        continue;
      }
      const config::KeyInfo* known = nullptr;
      const config::KeyInfo* sameLetters = nullptr;
      for (const config::KeyInfo& k : config::kKeys) {
        if (k.name == key) known = &k;
        else if (lower(k.name) == lower(key)) sameLetters = &k;
      }
      if (known == nullptr) {
        std::string message = "unknown key: the configurator ignores it";
        if (sameLetters != nullptr) {
          message += " (keys are case-sensitive: did you mean \"" + std::string(sameLetters->name) +
                     "\"?)";
        } else {
          message += " (did you mean \"" + tools::nearestKey(key) + "\"?)";
        }
        error(at, message);
        continue;
      }
      if (known->group != expected) {
        std::string home(nameOf(known->group));
        if (known->group == config::Group::kWhenToLaunch) home = "commonDefaults.whenToLaunch";
        error(at, "key outside its group: it is read only from \"" + home + "\"");
        continue;
      }
      if (isFlag(key)) {
        if (!value.isBoolean() && !value.isNumber()) {
          error(at, "wrong type: a flag is a boolean, found " + typeName(value));
        } else if (!value.isBoolean()) {
          warning(at, "a flag given as a number; a boolean says what is meant");
        }
      } else if (!value.isNumber() && !value.isBoolean()) {
        error(at, "wrong type: expected a number, found " + typeName(value));
      } else if (const std::string range = tools::checkSetting(key, value); !range.empty()) {
        error(at, range);
      }
    }
  }

  void error(const std::string& where, const std::string& message) {
    out_.push_back({true, where, message});
  }
  void warning(const std::string& where, const std::string& message) {
    out_.push_back({false, where, message});
  }

 private:
  std::vector<Finding>& out_;
};

void stringList(const Value& v, const std::string& where, Checker& check) {
  if (!v.isArray()) {
    check.error(where, "expected an array of bundle identifiers, found " + typeName(v));
    return;
  }
  for (std::size_t i = 0; i < v.asArray().size(); ++i) {
    if (!v.asArray()[i].isString()) {
      check.error(where + "[" + std::to_string(i) + "]",
                  "expected a bundle identifier string, found " + typeName(v.asArray()[i]));
    }
  }
}

}  // namespace

int BundleCheck::errors() const {
  return static_cast<int>(std::count_if(findings.begin(), findings.end(),
                                        [](const Finding& f) { return f.error; }));
}
int BundleCheck::warnings() const { return static_cast<int>(findings.size()) - errors(); }

BundleCheck checkOverride(const Value& override, const std::string& where) {
  BundleCheck check;
  check.found = true;
  check.infoPath = where;
  if (!override.isDictionary()) {
    check.findings.push_back({true, "overideConfig",
                              "the override must be a dictionary of groups, found " +
                                  typeName(override)});
    return check;
  }
  Checker checker(check.findings);
  for (const auto& [name, value] : override.asDictionary()) {
    if (name != "whenToLaunch" && groupNamed(name) == nullptr) {
      check.findings.push_back(
          {true, "overideConfig." + name,
           "not a group: the configurator ignores it" +
               (tools::findKey(name) != nullptr || !value.isDictionary()
                    ? " (keys go inside their group, e.g. {\"commonDefaults\": {\"" + name +
                          "\": ...}})"
                    : std::string())});
    }
  }
  checker.source(override, "overideConfig.");
  return check;
}

BundleCheck checkBundle(const std::string& path) {
  BundleCheck result;
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return result;
  result.infoPath = S_ISDIR(st.st_mode) ? path + "/Info.json" : path;
  if (::stat(result.infoPath.c_str(), &st) != 0) return result;
  result.found = true;
  Checker check(result.findings);

  const platform::JsonFile read =
      platform::readJsonFile(result.infoPath, platform::kBundleInfoLimit);
  if (!read.refused.empty()) {
    check.error("Info.json", read.refused + " (the configurator would read an empty dictionary)");
    return result;
  }
  const Value& info = read.value;
  if (info.isError()) {
    const Value::Error& e = info.asError();
    check.error("Info.json", "not readable as JSON at line " + std::to_string(e.line) +
                                 ", column " + std::to_string(e.column) + ": " + e.message +
                                 " (the configurator would read an empty dictionary)");
    return result;
  }
  if (!info.isDictionary()) {
    check.error("Info.json", "the information dictionary must be a JSON object, found " +
                                 typeName(info));
    return result;
  }
  for (const auto& [name, value] : info.asDictionary()) {
    if (name == "bundleIdentifier") {
      if (!value.isString()) check.error(name, "expected a string, found " + typeName(value));
    } else if (name == "blacklist" || name == "whitelist") {
      stringList(value, name, check);
    } else if (name == "productSpecific") {
      if (!value.isDictionary()) {
        check.error(name, "expected a dictionary of hardware models, found " + typeName(value));
        continue;
      }
      for (const auto& [model, entry] : value.asDictionary()) {
        if (!entry.isDictionary()) {
          check.error(name + "." + model, "a model entry must be a dictionary");
          continue;
        }
        for (const auto& [groupName, group] : entry.asDictionary()) {
          if (groupNamed(groupName) == nullptr && groupName != "whenToLaunch") {
            check.warning(name + "." + model + "." + groupName,
                          "not a configuration group: ignored");
          }
        }
        check.source(entry, name + "." + model + ".");
      }
    } else if (groupNamed(name) == nullptr && name != "whenToLaunch") {
      check.warning(name, "unknown entry: the configurator ignores it");
    }
  }
  check.source(info, "");
  if (info.find("commonDefaults") == nullptr) {
    check.warning("commonDefaults",
                  "missing: without it only the lists are loaded, not the groups or model "
                  "entries");
  }
  return result;
}

}  // namespace kelo::tool
