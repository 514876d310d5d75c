// A configuration bundle's Info.json through the configurator: the reload from disk, a direct
// load of what the file parses to, and the dump. The bundle reader must turn anything that is not
// a JSON object into an empty dictionary, and the whitelist the configurator keeps must be the
// bundle's own.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "fuzz/FuzzPlatform.h"
#include "kelo/KeloConfigurator.h"
#include "kelo/vsl.h"
#include "platform/Bundle.h"
#include "platform/Json.h"

namespace {

constexpr const char* kBundle = "/System/Library/Kelo/KeloConfiguration.bundle";

// Every name a loaded blacklist holds stays in the configurator's map for the life of the process
// (and each reload copies the map), so the names are confined to these few: a name outside them
// is replaced by one of them before the file is written.
constexpr std::string_view kNames[] = {
    "com.vorn.Diagnostics", "com.vorn.SetupAssistant", "com.example.app", "", "\xc3\xa9", "a"};

struct Target {
  std::string bundleFolder;
  std::string infoPath;
  kelo::KeloConfigurator* configurator = nullptr;
  kelo::fuzz::DumpClient dump;
};

Target* gTarget = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kelo::fuzz::Platform& p = kelo::fuzz::platform();
  auto* t = new Target();
  t->bundleFolder = p.root + kBundle;
  t->infoPath = t->bundleFolder + "/Info.json";
  kelo::fuzz::installDefaultBundle(t->infoPath);
  t->configurator = kelo::KeloConfigurator::sharedInstance();
  t->dump = kelo::fuzz::discardingDumpClient();
  gTarget = t;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Target& t = *gTarget;
  std::string text(reinterpret_cast<const char*>(data), size);
  if (const std::optional<kelo::Value> mapped = kelo::fuzz::withKnownNames(
          kelo::platform::parseJson(text), "blacklist", nullptr, kNames)) {
    text = kelo::platform::toJson(*mapped);
  }
  kelo::fuzz::Sandbox::writeFile(t.infoPath, text);

  t.configurator->reloadBundleFromDisk();

  const std::shared_ptr<const kelo::platform::Bundle> bundle =
      kelo::platform::Bundle::open(t.bundleFolder);
  if (bundle == nullptr) kelo::fuzz::fail("the bundle folder was not found");
  const kelo::Value& info = bundle->infoDictionary();
  if (!info.isDictionary()) kelo::fuzz::fail("an information dictionary that is not a dictionary");
  const kelo::Value parsed = kelo::platform::parseJson(text);
  const kelo::Value expectedInfo = parsed.isDictionary() ? parsed : kelo::Value::dictionary({});
  if (!(info == expectedInfo)) kelo::fuzz::fail("the bundle reads otherwise than its file parses");

  // The reload kept this bundle's whitelist as it stands, and no whitelist when it has none.
  const std::shared_ptr<const kelo::Value::Array> whiteList = t.configurator->appWhiteListArray();
  const kelo::Value* listed = info.find("whitelist");
  if (listed != nullptr && listed->isArray()) {
    if (whiteList == nullptr || !(*whiteList == listed->asArray())) {
      kelo::fuzz::fail("the whitelist differs from the bundle's");
    }
  } else if (whiteList != nullptr) {
    kelo::fuzz::fail("a whitelist kept from a bundle that has none");
  }
  if (t.configurator->appBlackMap() == nullptr) kelo::fuzz::fail("a null blacklist map");

  // A direct load takes any value; the parse of a malformed file is an error value.
  t.configurator->loadConfigurations(info);
  t.configurator->loadConfigurations(parsed);

  t.configurator->logAll(t.dump.client, t.dump.message, VSL_LEVEL_INFO);
  return 0;
}
