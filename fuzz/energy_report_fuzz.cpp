// The power daemon's energy report file through the default power monitor backend and the
// energy service's refresh. Whatever the file holds, the refresh must charge what it can and
// read wrong types as absent: the capacity and the reference date the service keeps are the
// file's when they are numbers, and absent otherwise.
#include <fcntl.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "fuzz/FuzzPlatform.h"
#include "kelo/AmpvexStub.h"
#include "kelo/vsl.h"
#include "platform/Json.h"

namespace {

// Every bundle identifier becomes a record in a pool for the life of the process, so reports are
// charged to these few only: an identifier outside them is replaced by one of them.
constexpr std::string_view kApps[] = {
    "com.example.app",   "com.example.mail",      "com.example.news", "com.example.maps", "", "a",
    "\xc3\xa9t\xc3\xa9", "com.example.app.widget"};

struct Target {
  std::string reportPath;
  kelo::AmpvexStub* stub = nullptr;
  kelo::fuzz::DumpClient dump;
};

Target* gTarget = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kelo::fuzz::Platform& p = kelo::fuzz::platform();
  auto* t = new Target();
  t->reportPath = p.root + "/run/kelo/energy-report.json";
  kelo::fuzz::installDefaultBundle();
  t->stub = kelo::AmpvexStub::instance();
  t->dump = kelo::fuzz::discardingDumpClient();
  gTarget = t;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Target& t = *gTarget;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const kelo::Value parsed = kelo::platform::parseJson(text);
  if (const std::optional<kelo::Value> mapped =
          kelo::fuzz::withKnownNames(parsed, "BLMEnergyForKelo", "bundleID", kApps)) {
    kelo::fuzz::Sandbox::writeFile(t.reportPath, kelo::platform::toJson(*mapped));
  } else {
    kelo::fuzz::Sandbox::writeFile(t.reportPath, std::string(text));
  }

  t.stub->energyConsumedRefresh();
  // The readings wait on the service's queue, so the refresh posted above has run by now.
  t.stub->energyConsumedForFetch();
  t.stub->energyConsumedForPush();
  t.stub->energyConsumedForBackgroundDownload();
  t.stub->energyConsumedForNonDiscDownload();
  if (t.stub->energyConsumedForFetch() != 0 || t.stub->energyConsumedForPush() != 0 ||
      t.stub->energyConsumedForBackgroundDownload() != 0 ||
      t.stub->energyConsumedForNonDiscDownload() != 0) {
    kelo::fuzz::fail("a second reading without a refresh was not 0");
  }

  const kelo::Value* capacity = parsed.find("BLMBatteryCapacity");
  const double expectedCapacity =
      capacity != nullptr && capacity->isNumber() ? capacity->doubleValue() : 0.0;
  if (t.stub->getBatteryCapacity() != expectedCapacity) {
    kelo::fuzz::fail("battery capacity %f, the report says %f", t.stub->getBatteryCapacity(),
                     expectedCapacity);
  }
  const kelo::Value* date = parsed.find("BLMEnergyReferenceDate");
  const std::optional<double> referenceDate = t.stub->startAmpvexLiteDate();
  if (date != nullptr && date->isNumber()) {
    if (!referenceDate || *referenceDate != date->doubleValue()) {
      kelo::fuzz::fail("the reference date is not the report's");
    }
  } else if (referenceDate) {
    kelo::fuzz::fail("a reference date kept from a report without one");
  }
  t.stub->logAll(t.dump.client, t.dump.message, VSL_LEVEL_INFO);
  return 0;
}
