// The scratch platform every fuzz target runs on: a device root and a home in a fresh folder, a
// fixed clock and process name, and a system log that discards its lines (the library writes one
// for every malformed file, which is most inputs). The services are singletons that live as long
// as the process, so this is installed once, before the first of them exists, and every input
// reuses the same folders. The folder sits on /dev/shm when that is writable: several targets
// fsync preference files on every input, and a RAM-backed folder makes that cheap.
#ifndef KELO_FUZZ_FUZZPLATFORM_H_
#define KELO_FUZZ_FUZZPLATFORM_H_

#include <fcntl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kelo/Overrides.h"
#include "kelo/Value.h"
#include "kelo/vsl.h"
#include "tests/support/Sandbox.h"

namespace kelo::fuzz {

// The fixed clock: 2025-11-21 10:56:00 UTC.
inline constexpr double kFuzzTime = 1763722560.0;
inline constexpr const char* kFuzzProcess = "kelofuzz";

// Reports a broken promise and aborts, which libFuzzer records as a crash with the input.
[[noreturn]] __attribute__((format(printf, 1, 2))) inline void fail(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::fputs("fuzz invariant violated: ", stderr);
  std::vfprintf(stderr, format, args);
  std::fputc('\n', stderr);
  va_end(args);
  std::abort();
}

struct Platform {
  std::string folder;
  std::string root;
  std::string home;
};

// Sets the platform up on the first call: the test sandbox, with the fixed clock and a system log
// that discards its lines. `extra` adds overrides of the caller's own (a metrics sink, say); it is
// only looked at on that first call.
inline Platform& platform(platform::Overrides extra = {}) {
  static test::Sandbox* const sandbox = [&extra] {
    if (::access("/dev/shm", W_OK) == 0) ::setenv("TMPDIR", "/dev/shm", 0);
    static test::Sandbox s(kFuzzTime);
    extra.processName = kFuzzProcess;
    extra.deviceAnswers = Value::dictionary({});
    extra.systemLog = [](int, const char*) {};
    s.install(std::move(extra));
    return &s;
  }();
  static Platform shared{std::filesystem::path(sandbox->rootPath()).parent_path().string(),
                         sandbox->rootPath(), sandbox->homePath()};
  return shared;
}

using test::Sandbox;

// Writes the default system bundle of this tree, read from the source folder the target was built
// from, at `infoPath` (by default the system bundle's place under the scratch device root).
inline void installDefaultBundle(const std::string& infoPath) {
  const std::string text =
      Sandbox::readFile(std::string(KELO_SOURCE_DIR) + "/data/KeloConfiguration.bundle/Info.json");
  if (text.empty()) fail("the default bundle could not be read from %s", KELO_SOURCE_DIR);
  Sandbox::writeFile(infoPath, text);
}
inline void installDefaultBundle() {
  installDefaultBundle(platform().root + "/System/Library/Kelo/KeloConfiguration.bundle/Info.json");
}

// A system log client whose lines go to /dev/null, for the dumps a target runs: what matters is
// that formatting whatever the input left is safe, not the text.
struct DumpClient {
  vsl_client_t client = nullptr;
  vsl_msg_t message = nullptr;
};
inline DumpClient discardingDumpClient() {
  DumpClient d;
  const int devNull = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  d.client = vsl_open(kFuzzProcess, "KeloDump", VSL_OPT_NO_DELAY);
  d.message = vsl_new(VSL_TYPE_MSG);
  if (devNull < 0 || d.client == nullptr || d.message == nullptr ||
      vsl_add_log_file(d.client, devNull) != 0) {
    fail("the dump client could not be set up");
  }
  return d;
}

// Keeps a fuzzed document's names within a small known set, so that the services' per-name state
// stays bounded however long the fuzzer runs. Every string of the `listKey` array (or, with
// `field`, every dictionary entry's `field`) that is not in `known` is replaced by one of them,
// picked by hash. nullopt when nothing needed replacing.
template <std::size_t N>
std::optional<Value> withKnownNames(const Value& document, const char* listKey, const char* field,
                                    const std::string_view (&known)[N]) {
  const Value* list = document.find(listKey);
  if (list == nullptr || !list->isArray()) return std::nullopt;
  const auto isKnown = [&known](const std::string& name) {
    for (std::string_view k : known) {
      if (k == name) return true;
    }
    return false;
  };
  bool changed = false;
  Value::Array mapped;
  for (const Value& entry : list->asArray()) {
    const Value* name = field != nullptr ? entry.find(field) : &entry;
    if (name == nullptr || !name->isString() || isKnown(name->asString())) {
      mapped.push_back(entry);
      continue;
    }
    const Value replacement =
        Value::string(std::string(known[std::hash<std::string>()(name->asString()) % N]));
    if (field != nullptr) {
      Value::Dictionary fields = entry.asDictionary();
      fields.insert_or_assign(field, replacement);
      mapped.push_back(Value::dictionary(std::move(fields)));
    } else {
      mapped.push_back(replacement);
    }
    changed = true;
  }
  if (!changed) return std::nullopt;
  Value::Dictionary top = document.asDictionary();
  top.insert_or_assign(listKey, Value::array(std::move(mapped)));
  return Value::dictionary(std::move(top));
}

}  // namespace kelo::fuzz

#endif  // KELO_FUZZ_FUZZPLATFORM_H_
