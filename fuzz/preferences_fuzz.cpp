// A preference domain file's bytes through the store: reading it, then a durable write of one
// key. A well-formed domain must read as its file parses and keep every entry through the write;
// a malformed one must read as empty and be moved aside intact, never overwritten.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "fuzz/FuzzPlatform.h"
#include "platform/Json.h"
#include "platform/Preferences.h"

namespace {

constexpr const char* kDomain = "com.vorn.fuzz";
constexpr const char* kKey = "fuzzWrite";

struct Target {
  std::shared_ptr<kelo::platform::PreferencesDomain> domain;
  std::string path;
  int64_t writes = 0;
};

Target* gTarget = nullptr;

// Earlier inputs leave .corrupt files behind; each input starts without them so that the one it
// makes has the first name.
void removeAsideFiles(const Target& t) {
  std::error_code ignored;
  std::filesystem::remove(t.path + ".corrupt", ignored);
  for (int i = 1; i <= 9; ++i) {
    std::filesystem::remove(t.path + ".corrupt." + std::to_string(i), ignored);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kelo::fuzz::platform();
  auto* t = new Target();
  t->domain = kelo::platform::PreferencesDomain::open(kDomain);
  if (t->domain == nullptr) kelo::fuzz::fail("the domain could not be opened");
  t->path = t->domain->path();
  gTarget = t;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Target& t = *gTarget;
  removeAsideFiles(t);
  const std::string original(reinterpret_cast<const char*>(data), size);
  kelo::fuzz::Sandbox::writeFile(t.path, original);
  const kelo::Value parsed = kelo::platform::parseJson(original);
  const bool wellFormed = parsed.isDictionary();

  const kelo::Value contents = t.domain->contents();
  if (wellFormed ? !(contents == parsed) : !(contents == kelo::Value::dictionary({}))) {
    kelo::fuzz::fail("the domain reads otherwise than its file (%s)",
                     wellFormed ? "well-formed" : "malformed");
  }

  const int64_t written = ++t.writes;
  if (!t.domain->write(kKey, kelo::Value::integer(written))) kelo::fuzz::fail("the write failed");

  kelo::Value::Dictionary expected;
  if (wellFormed) expected = parsed.asDictionary();
  expected.insert_or_assign(kKey, kelo::Value::integer(written));
  const std::string after = kelo::fuzz::Sandbox::readFile(t.path);
  if (!(kelo::platform::parseJson(after) == kelo::Value::dictionary(std::move(expected)))) {
    kelo::fuzz::fail("the write lost or changed an entry");
  }

  const bool movedAside = kelo::fuzz::Sandbox::exists(t.path + ".corrupt");
  const std::string aside = kelo::fuzz::Sandbox::readFile(t.path + ".corrupt");
  if (wellFormed && movedAside) kelo::fuzz::fail("a well-formed domain was moved aside");
  if (!wellFormed && (!movedAside || aside != original)) {
    kelo::fuzz::fail("a malformed domain was not kept aside as it was");
  }
  return 0;
}
