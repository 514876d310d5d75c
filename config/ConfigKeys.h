// The fixed set of configuration keys, in load order, with the group each is read from, and a
// collision-free hash from key bytes to key id found at compile time.
#ifndef KELO_CONFIG_CONFIGKEYS_H_
#define KELO_CONFIG_CONFIGKEYS_H_

#include <array>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

namespace kelo::config {

enum class Group : uint8_t {
  kCommonDefaults,
  kWhenToLaunch,  // nested inside "commonDefaults"
  kFetchBudget,
  kVPSD,
  kPushBudget,
  kHaven,  // stored and pushed to other processes' preferences by updateHavenConfiguration
  kPredictionParameters,
  kBackgroundDownload,
};

struct GroupInfo {
  Group group;
  std::string_view name;
};

// The order in which a source's groups are read.
inline constexpr std::array<GroupInfo, 8> kGroupOrder = {{
    {Group::kCommonDefaults, "commonDefaults"},
    {Group::kWhenToLaunch, "whenToLaunch"},
    {Group::kFetchBudget, "fetchBudget"},
    {Group::kVPSD, "VPSD"},
    {Group::kPushBudget, "pushBudget"},
    {Group::kHaven, "haven"},
    {Group::kPredictionParameters, "PredictionParameters"},
    {Group::kBackgroundDownload, "backgroundDownload"},
}};

struct KeyInfo {
  std::string_view name;
  Group group;
};

inline constexpr int kKeyCount = 77;

inline constexpr std::array<KeyInfo, kKeyCount> kKeys = {{
    {"wifiChargerConnectedAge", Group::kCommonDefaults},
    {"wifiChargerNoPrewarmSince", Group::kCommonDefaults},
    {"wifiChargerWasLaunched", Group::kCommonDefaults},
    {"globalDataBudget", Group::kCommonDefaults},
    {"timeThreshold", Group::kCommonDefaults},
    {"wifiDataScaleKth", Group::kCommonDefaults},
    {"cellDataScaleKth", Group::kCommonDefaults},
    {"globalPowerBudget", Group::kCommonDefaults},
    {"dataMinSlot", Group::kCommonDefaults},
    {"maxDataBudgetCarry", Group::kCommonDefaults},
    {"powerNonactivePC", Group::kCommonDefaults},
    {"loggingMode", Group::kCommonDefaults},
    {"maxFetchApps", Group::kCommonDefaults},
    {"probabilityCutOff", Group::kCommonDefaults},
    {"refreshResourceTimePeriod", Group::kCommonDefaults},
    {"maxFetchAppsAllowed", Group::kCommonDefaults},
    {"numOfFetchAppsAllowed", Group::kCommonDefaults},
    {"coalesceTime", Group::kCommonDefaults},
    {"externalTriggerTimeLimit", Group::kCommonDefaults},
    {"LaunchTimeLimit", Group::kCommonDefaults},
    {"tickTockTimeLimit", Group::kCommonDefaults},
    {"heartbeatTimeLimit", Group::kCommonDefaults},
    {"retryPushQueueTimeLimit", Group::kCommonDefaults},
    {"recentlyLaunchedTimeLimit", Group::kCommonDefaults},
    {"delayedLaunchTimeLimit", Group::kCommonDefaults},
    {"delayedLaunchTimeFuzzy", Group::kCommonDefaults},
    {"enableManagedConfiguration", Group::kCommonDefaults},
    {"enableLiveListCheck", Group::kCommonDefaults},
    {"enableBlackListCheck", Group::kCommonDefaults},
    {"enableOpportunisticFetchCheck", Group::kCommonDefaults},
    {"enableForeGroundAppCheck", Group::kCommonDefaults},
    {"enableBudgeting", Group::kCommonDefaults},
    {"enableWasRecentlyLaunched", Group::kCommonDefaults},
    {"enableAppSwitcherCheck", Group::kCommonDefaults},
    {"enableWhiteListCheck", Group::kCommonDefaults},
    {"enableDelayLaunch", Group::kCommonDefaults},
    {"disableFetch", Group::kCommonDefaults},
    {"disableHighPriorityPush", Group::kCommonDefaults},
    {"disableLowPriorityPush", Group::kCommonDefaults},
    {"disableTrending", Group::kCommonDefaults},
    {"enableEmptyTimeDateByPass", Group::kCommonDefaults},
    {"enableChargeWifi", Group::kCommonDefaults},
    {"semaphoreWaitTime", Group::kCommonDefaults},
    {"delayLPLaunchPeriod", Group::kCommonDefaults},
    {"expiryTimeOfDeletedApps", Group::kCommonDefaults},
    {"outOfBandBackwardCount", Group::kCommonDefaults},
    {"outOfBandForwardCount", Group::kCommonDefaults},
    {"outOfBandTotalCount", Group::kCommonDefaults},
    {"allowFetchSlideToUnlock", Group::kWhenToLaunch},
    {"allowNextDayForecasting", Group::kWhenToLaunch},
    {"allowPowerOnWake", Group::kWhenToLaunch},
    {"allowTrending", Group::kWhenToLaunch},
    {"fetchAppDataBudget", Group::kFetchBudget},
    {"fetchAppPowerBudget", Group::kFetchBudget},
    {"globalTopicLimit", Group::kVPSD},
    {"singleTopicLimit", Group::kVPSD},
    {"timerLimitReset", Group::kVPSD},
    {"pushAppDataBudget", Group::kPushBudget},
    {"pushAppPowerBudget", Group::kPushBudget},
    {"recentWeight", Group::kPredictionParameters},
    {"recentSubslotWeight0", Group::kPredictionParameters},
    {"recentSubslotWeight1", Group::kPredictionParameters},
    {"recentSubslotWeight2", Group::kPredictionParameters},
    {"recentSubslotWeight3", Group::kPredictionParameters},
    {"dailyWeight", Group::kPredictionParameters},
    {"weeklyWeight", Group::kPredictionParameters},
    {"scoreCutoff", Group::kPredictionParameters},
    {"backgroundNDiscretionPower", Group::kBackgroundDownload},
    {"backgroundDataBudget", Group::kBackgroundDownload},
    {"backgroundDataMin", Group::kBackgroundDownload},
    {"backgroundDataCarry", Group::kBackgroundDownload},
    {"backgroundNDiscretionDataBudget", Group::kBackgroundDownload},
    {"backgroundNDiscretionDataMin", Group::kBackgroundDownload},
    {"backgroundNDiscretionDataCarry", Group::kBackgroundDownload},
    {"TSBackgroundContentFetchingProcessAssertionDuration", Group::kHaven},
    {"TSBackgroundDownloadProcessAssertionDuration", Group::kHaven},
    {"HVBackgroundFetchWatchdogExtension", Group::kHaven},
}};

namespace detail {

inline constexpr int kBucketBits = 10;
inline constexpr size_t kBucketCount = size_t{1} << kBucketBits;

// Up to eight bytes at `p` as a little-endian word.
constexpr uint64_t loadWord(const char* p, size_t n) {
  if (n == 0) return 0;  // an empty view may have no storage at all
  if (std::is_constant_evaluated()) {
    uint64_t w = 0;
    for (size_t i = 0; i < n; ++i) w |= uint64_t{static_cast<unsigned char>(p[i])} << (8 * i);
    return w;
  }
  uint64_t w = 0;
  std::memcpy(&w, p, n);
  return w;
}

// Reads the first and the last eight bytes and the length: the keys differ in those, and two
// unaligned loads cost less than hashing every byte. Lookups compare the whole key afterwards.
constexpr uint32_t bucketOf(std::string_view key, uint64_t seed) {
  const size_t n = key.size();
  uint64_t head;
  uint64_t tail = 0;
  if (n >= 8) {
    head = loadWord(key.data(), 8);
    tail = loadWord(key.data() + n - 8, 8);
  } else {
    head = loadWord(key.data(), n);
  }
  uint64_t h = (head * 0x9E3779B97F4A7C15ull + tail) ^ n;
  h *= seed;
  h ^= h >> 29;
  h *= 0xBF58476D1CE4E5B9ull;
  return static_cast<uint32_t>(h >> (64 - kBucketBits));
}

constexpr bool collisionFree(uint64_t seed) {
  std::array<bool, kBucketCount> used{};
  for (const KeyInfo& k : kKeys) {
    const uint32_t b = bucketOf(k.name, seed);
    if (used[b]) return false;
    used[b] = true;
  }
  return true;
}

constexpr uint64_t findSeed() {
  uint64_t state = 0x243F6A8885A308D3ull;
  for (int attempt = 0; attempt < 100000; ++attempt) {
    state += 0x9E3779B97F4A7C15ull;
    const uint64_t seed = state | 1;
    if (collisionFree(seed)) return seed;
  }
  return 0;
}

inline constexpr uint64_t kSeed = findSeed();
static_assert(kSeed != 0, "no collision-free seed for the configuration keys");

// Bucket -> key id + 1; 0 for an empty bucket.
constexpr std::array<uint8_t, kBucketCount> makeBuckets() {
  std::array<uint8_t, kBucketCount> buckets{};
  for (int id = 0; id < kKeyCount; ++id) {
    buckets[bucketOf(kKeys[static_cast<size_t>(id)].name, kSeed)] = static_cast<uint8_t>(id + 1);
  }
  return buckets;
}

inline constexpr std::array<uint8_t, kBucketCount> kBuckets = makeBuckets();

constexpr bool keysAreLongAscii() {
  for (const KeyInfo& k : kKeys) {
    if (k.name.size() < 8) return false;
    for (char c : k.name) {
      if (static_cast<unsigned char>(c) >= 0x80) return false;
    }
  }
  return true;
}
// keyId compares whole eight-byte words; getStateForC skips the UTF-8 check on a hit.
static_assert(keysAreLongAscii(), "configuration keys must be ASCII and at least 8 bytes");

}  // namespace detail

// The id of `key` (its index in kKeys) by exact, case-sensitive match; -1 for any other string.
inline int keyId(std::string_view key) {
  if (key.size() < 8) return -1;  // shorter than every key
  const uint8_t entry = detail::kBuckets[detail::bucketOf(key, detail::kSeed)];
  if (entry == 0) return -1;
  const std::string_view name = kKeys[entry - 1u].name;
  const size_t n = key.size();
  if (name.size() != n) return -1;
  // Every key is at least eight bytes long: compare word by word, the last word overlapping,
  // which beats a call to memcmp for keys this short.
  for (size_t i = 0; i + 8 < n; i += 8) {
    if (detail::loadWord(name.data() + i, 8) != detail::loadWord(key.data() + i, 8)) return -1;
  }
  if (detail::loadWord(name.data() + n - 8, 8) != detail::loadWord(key.data() + n - 8, 8)) {
    return -1;
  }
  return entry - 1;
}

}  // namespace kelo::config

#endif  // KELO_CONFIG_CONFIGKEYS_H_
