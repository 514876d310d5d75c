#include "kelo/KeloConfigurator.h"

#include <cstring>
#include <utility>
#include <vector>

#include "config/Bundles.h"
#include "config/ConfigKeys.h"
#include "config/ConfigStore.h"
#include "config/Utf8.h"
#include "kelo/logging.h"
#include "kelo/vsl.h"
#include "platform/Bundle.h"
#include "platform/Facts.h"
#include "platform/Json.h"
#include "platform/Preferences.h"
#include "platform/Singleton.h"

namespace kelo {

namespace {

// Outside the class so that getStateForC can peek at it without creating it.
platform::Singleton<KeloConfigurator> gShared;

constexpr const char* kOverrideDomain = "com.vorn.Kelo";
constexpr const char* kOverrideKey = "overideConfig";
constexpr const char* kHavenDomain = "com.vorn.haven";
constexpr const char* kTessdDomain = "com.vorn.tessd";
// sysctlbyname("hw.machine") fills a buffer of this size.
constexpr size_t kModelBufferSize = 64;

std::shared_ptr<const platform::Bundle> openBundle() {
  if (auto mobile = config::openMobileBundle()) return mobile;
  return config::openSystemBundle();
}

// A group of `source`; a null Value when absent. "whenToLaunch" lives inside "commonDefaults".
Value groupOf(const Value& source, const config::GroupInfo& group) {
  const Value* holder = &source;
  if (group.group == config::Group::kWhenToLaunch) {
    holder = source.find("commonDefaults");
    if (holder == nullptr) return Value();
  }
  const Value* found = holder->find(group.name);
  return found != nullptr ? *found : Value();
}

// `value` present in the sense of the sources: JSON null stands for "no value".
const Value* entryOf(const Value& group, std::string_view key) {
  const Value* v = group.find(key);
  return v != nullptr && !v->isNull() ? v : nullptr;
}

}  // namespace

KeloConfigurator::KeloConfigurator()
    : dictOfConfigurations_(std::make_unique<config::ConfigStore>()),
      appBlackMap_(std::make_shared<SharedDictionary>()) {
  platform::sealOverrides();
  std::lock_guard<std::mutex> load(loadMutex_);
  std::shared_ptr<const platform::Bundle> bundle = config::openMobileBundle();
  hvDomain_ = platform::PreferencesDomain::open(kHavenDomain);
  tsbdDDomain_ = platform::PreferencesDomain::open(kTessdDomain);
  if (bundle == nullptr) bundle = config::openSystemBundle();
  if (bundle == nullptr) return;
  {
    std::lock_guard<std::mutex> lock(snapshotMutex_);
    bundle_ = std::move(bundle);
  }
  loadBundleConfigurationsLocked();
}

KeloConfigurator::~KeloConfigurator() = default;

KeloConfigurator* KeloConfigurator::sharedInstance() {
  return gShared.get([] { return new KeloConfigurator(); });
}

void KeloConfigurator::reloadBundleFromDisk() {
  std::lock_guard<std::mutex> load(loadMutex_);
  std::shared_ptr<const platform::Bundle> bundle = openBundle();
  if (bundle == nullptr) return;
  {
    std::lock_guard<std::mutex> lock(snapshotMutex_);
    bundle_ = std::move(bundle);
  }
  loadBundleConfigurationsLocked();
}

int64_t KeloConfigurator::getStateFor(const std::string& key) { return stateFor(key, key.c_str()); }

int64_t KeloConfigurator::stateFor(std::string_view key, const char* printable) {
  int64_t reading;
  if (dictOfConfigurations_->find(key, &reading)) return reading;
  KELO_CLOG("Kelo keyword missing in dict %s", printable);
  return -1;
}

void KeloConfigurator::loadBundleConfigurations() {
  std::lock_guard<std::mutex> load(loadMutex_);
  loadBundleConfigurationsLocked();
}

void KeloConfigurator::loadBundleConfigurationsLocked() {
  const std::shared_ptr<const platform::Bundle> bundle = currentBundle();
  // With no bundle every entry reads as absent: the whitelist goes, the override still loads.
  const Value blacklist = bundle ? bundle->objectForInfoDictionaryKey("blacklist") : Value();
  const Value whitelist = bundle ? bundle->objectForInfoDictionaryKey("whitelist") : Value();

  {
    std::vector<Value::Dictionary::value_type> entries;
    for (const Value& entry : blacklist.asArray()) {
      // Only strings name applications; anything else cannot be a key of the map.
      if (entry.isString()) entries.emplace_back(entry.asString(), Value::boolean(true));
    }
    appBlackMap_->merge(std::move(entries));
  }
  {
    std::shared_ptr<const Value::Array> whiteList;
    if (whitelist.isArray()) whiteList = std::make_shared<const Value::Array>(whitelist.asArray());
    std::lock_guard<std::mutex> lock(snapshotMutex_);
    appWhiteListArray_ = std::move(whiteList);
  }

  if (bundle && !bundle->objectForInfoDictionaryKey("commonDefaults").isNull()) {
    loadConfigurationsLocked(bundle->infoDictionary());
    std::string model = platform::hardwareModel();
    if (model.size() >= kModelBufferSize) model.resize(kModelBufferSize - 1);
    if (config::isValidUtf8(model.data(), model.size())) {
      const Value productSpecific = bundle->objectForInfoDictionaryKey("productSpecific");
      if (const Value* entry = entryOf(productSpecific, model)) loadConfigurationsLocked(*entry);
    }
  }

  if (auto domain = platform::PreferencesDomain::open(kOverrideDomain)) {
    domain->synchronize();
    const Value contents = domain->contents();
    if (const Value* override = entryOf(contents, kOverrideKey))
      loadConfigurationsLocked(*override);
  }
}

void KeloConfigurator::loadConfigurations(const Value& source) {
  std::lock_guard<std::mutex> load(loadMutex_);
  loadConfigurationsLocked(source);
}

void KeloConfigurator::loadConfigurationsLocked(const Value& source) {
  for (const config::GroupInfo& group : config::kGroupOrder) {
    const Value values = groupOf(source, group);
    if (group.group == config::Group::kHaven) {
      updateHavenConfigurationLocked(values);
      continue;
    }
    if (!values.isDictionary()) continue;
    for (int id = 0; id < config::kKeyCount; ++id) {
      const config::KeyInfo& key = config::kKeys[static_cast<size_t>(id)];
      if (key.group != group.group) continue;
      if (const Value* v = entryOf(values, key.name)) {
        dictOfConfigurations_->store(id, v->integerValue());
      }
    }
  }
}

void KeloConfigurator::updateHavenConfiguration(const Value& group) {
  std::lock_guard<std::mutex> load(loadMutex_);
  updateHavenConfigurationLocked(group);
}

void KeloConfigurator::updateHavenConfigurationLocked(const Value& group) {
  if (!group.isDictionary()) return;
  for (int id = 0; id < config::kKeyCount; ++id) {
    const config::KeyInfo& key = config::kKeys[static_cast<size_t>(id)];
    if (key.group != config::Group::kHaven) continue;
    const Value* v = entryOf(group, key.name);
    if (v == nullptr) continue;
    const int64_t reading = v->integerValue();
    dictOfConfigurations_->store(id, reading);
    // "HV..." belongs to the home-screen process, both "TS..." keys to the UI daemon.
    const std::shared_ptr<platform::PreferencesDomain>& domain =
        key.name.starts_with("HV") ? hvDomain_ : tsbdDDomain_;
    if (domain == nullptr) continue;
    const std::string name(key.name);
    domain->setInteger(name, reading);
    domain->synchronize();
  }
}

void KeloConfigurator::logAll(vsl_client_t client, vsl_msg_t withMsg, int32_t withLevel) {
  std::shared_ptr<const platform::Bundle> bundle;
  std::shared_ptr<const Value::Array> whiteList;
  {
    std::lock_guard<std::mutex> lock(snapshotMutex_);
    bundle = bundle_;
    whiteList = appWhiteListArray_;
  }
  const std::optional<std::string> identifier =
      bundle ? bundle->identifier() : std::optional<std::string>();
  vsl_log(client, withMsg, withLevel, "CONFIG-------->");
  vsl_log(client, withMsg, withLevel, "bundle %s", identifier ? identifier->c_str() : "(null)");
  vsl_log(client, withMsg, withLevel, "White list");
  if (whiteList) {
    for (const Value& entry : *whiteList) {
      const std::string text = entry.isString() ? entry.asString() : platform::toJson(entry);
      vsl_log(client, withMsg, withLevel, "%s", text.c_str());
    }
  }
  vsl_log(client, withMsg, withLevel, "Config Dictionary");
  for (int id = 0; id < config::kKeyCount; ++id) {
    int64_t reading;
    if (!dictOfConfigurations_->find(id, &reading)) continue;
    const std::string name(config::kKeys[static_cast<size_t>(id)].name);
    vsl_log(client, withMsg, withLevel, "key: %s   value:%lld", name.c_str(),
            static_cast<long long>(reading));
  }
  vsl_log(client, withMsg, withLevel, "<--------CONFIG");
}

void KeloConfigurator::logLight(vsl_client_t, vsl_msg_t, int32_t) {}

std::shared_ptr<const SharedDictionary> KeloConfigurator::appBlackMap() const {
  return appBlackMap_;
}

std::shared_ptr<const Value::Array> KeloConfigurator::appWhiteListArray() const {
  std::lock_guard<std::mutex> lock(snapshotMutex_);
  return appWhiteListArray_;
}

std::shared_ptr<const platform::Bundle> KeloConfigurator::currentBundle() const {
  std::lock_guard<std::mutex> lock(snapshotMutex_);
  return bundle_;
}

}  // namespace kelo

extern "C" long long getStateForC(const char* key) {
  if (key == nullptr) return 0;
  const std::string_view view(key);
  try {
    // Every key is ASCII, so a key the store holds is valid UTF-8 as it stands: the validation
    // is needed only on a miss, and a lookup in an existing store has no effect to undo. The
    // store is not created for a key that fails the validation.
    int64_t reading;
    if (kelo::KeloConfigurator* existing = kelo::gShared.peek();
        existing != nullptr && existing->dictOfConfigurations_->find(view, &reading)) {
      return reading;
    }
    if (!kelo::config::isValidUtf8(view.data(), view.size())) return 0;
    return kelo::KeloConfigurator::sharedInstance()->stateFor(view, key);
  } catch (...) {
    // Only an allocation failure while creating the configurator can get here.
    return -1;
  }
}
