// KeloConfigurator: the library's store of tuning values, read by key as signed 64-bit
// integers.
//
// Values come from a configuration bundle (the mobile bundle if there is one, else the system
// bundle), its per-hardware-model entry under "productSpecific", and the "overideConfig"
// dictionary of preferences domain "com.vorn.Kelo", loaded in that order so that each later
// source replaces the keys it supplies. Nothing is ever removed from the store: a key keeps its
// last loaded value until the process ends. Three "haven" keys are also written into the
// preferences of two other processes.
//
// Threads: lookups (getStateFor, getStateForC) run on any thread, take no lock and never see a
// torn value, also while a reload runs on another thread. Loads run on the caller's thread and
// are serialised against each other. appBlackMap() hands out the blacklist map itself, a
// SharedDictionary that each reload grows in one step: a holder sees later reloads' entries, and
// a read racing a reload on another thread sees the map before or after it, never half of it.
// appWhiteListArray() returns the whitelist loaded last, which a later reload replaces whole.
#ifndef KELO_CONFIG_KELOCONFIGURATOR_H_
#define KELO_CONFIG_KELOCONFIGURATOR_H_

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "kelo/KeloLoggerProtocol.h"
#include "kelo/SharedDictionary.h"
#include "kelo/Value.h"
#include "kelo/config.h"
#include "kelo/export.h"

namespace kelo {

namespace platform {
class Bundle;
class PreferencesDomain;
}  // namespace platform
namespace config {
class ConfigStore;
}  // namespace config

class KELO_EXPORT KeloConfigurator : public KeloLoggerProtocol {
 public:
  // Chooses the bundle and loads every source (blocks on their files). With no bundle at
  // either path nothing is read, not even the preferences override, and every lookup yields -1.
  KeloConfigurator();
  ~KeloConfigurator() override;
  KeloConfigurator(const KeloConfigurator&) = delete;
  KeloConfigurator& operator=(const KeloConfigurator&) = delete;

  // The one configurator of the process, created on the first call (which reads the bundle on
  // the calling thread) and never destroyed.
  static KeloConfigurator* sharedInstance();

  // Chooses the bundle again and reloads every source over the current contents. With no bundle
  // at either path nothing changes.
  void reloadBundleFromDisk();

  // The integer reading of the value under `key` (exact, case-sensitive): a number truncated
  // toward zero, a boolean 1 or 0, a string its leading decimal integer, anything else 0.
  // A key that no source supplied logs "Kelo keyword missing in dict <key>" and yields -1.
  // Lock-free.
  int64_t getStateFor(const std::string& key);

  // Loads the bundle's lists, its base values and this model's entry (only when the bundle has
  // "commonDefaults"), then the preferences override.
  void loadBundleConfigurations();

  // Copies the known keys of one source dictionary into the store, group by group, and hands its
  // "haven" group to updateHavenConfiguration. A null `source` (the absent source), a missing
  // group and a null entry are skipped; values of any other type are stored as they are.
  void loadConfigurations(const Value& source);

  // Stores each of the three haven keys that `group` holds and writes its integer reading into
  // "com.vorn.tessd" or "com.vorn.haven", synchronising that domain once per key written.
  // A null group does nothing.
  void updateHavenConfiguration(const Value& group);

  // The dump: the bundle's identifier, the whitelist and every stored key with its reading.
  // Called on a logger's queue; takes only a short lock that no log call is made under.
  void logAll(vsl_client_t client, vsl_msg_t withMsg, int32_t withLevel) override;
  // The configurator has no light dump.
  void logLight(vsl_client_t client, vsl_msg_t withMsg, int32_t withLevel) override;

  // Bundle identifier -> boolean true for every entry any loaded "blacklist" named: the map
  // itself, the same object for the configurator's lifetime. Never null.
  std::shared_ptr<const SharedDictionary> appBlackMap() const;
  // The last loaded bundle's "whitelist" as it stands; null when that bundle had none.
  std::shared_ptr<const Value::Array> appWhiteListArray() const;

 private:
  friend long long ::getStateForC(const char* key);

  int64_t stateFor(std::string_view key, const char* printable);
  void loadBundleConfigurationsLocked();
  void loadConfigurationsLocked(const Value& source);
  void updateHavenConfigurationLocked(const Value& group);
  std::shared_ptr<const platform::Bundle> currentBundle() const;

  // Serialises loads; never taken by lookups, nor held while logging through KELO_CLOG.
  std::mutex loadMutex_;
  // Guards the pointers below that a load replaces; held only to copy or swap a pointer.
  mutable std::mutex snapshotMutex_;

  std::shared_ptr<const platform::Bundle> bundle_;  // snapshotMutex_
  // Constant after construction; its slots are atomic.
  const std::unique_ptr<config::ConfigStore> dictOfConfigurations_;
  // Constant after construction; updated whole by loads, read anywhere.
  const std::shared_ptr<SharedDictionary> appBlackMap_;
  std::shared_ptr<const Value::Array> appWhiteListArray_;  // snapshotMutex_
  // Constant after construction.
  std::shared_ptr<platform::PreferencesDomain> hvDomain_;
  std::shared_ptr<platform::PreferencesDomain> tsbdDDomain_;
};

}  // namespace kelo

#endif  // KELO_CONFIG_KELOCONFIGURATOR_H_
