#include "tools/kelo/Context.h"

#include <cinttypes>
#include <cstdio>

#include "kelo/Overrides.h"
#include "platform/Json.h"

namespace kelo::tool {

void Context::install() const {
  platform::Overrides overrides;
  if (!root.empty()) overrides.deviceRoot = root;
  if (!home.empty()) overrides.homeDirectory = home;
  platform::installOverrides(overrides);
}

int fail(int code, const std::string& message) {
  std::fprintf(stderr, "kelo: %s\n", message.c_str());
  return code;
}

void printValue(const Value& value, bool json) {
  if (!json) {
    switch (value.type()) {
      case Value::Type::kString:
        std::printf("%s\n", value.asString().c_str());
        return;
      case Value::Type::kInteger:
        std::printf("%" PRId64 "\n", value.integerValue());
        return;
      case Value::Type::kBoolean:
        std::printf("%s\n", value.asBoolean() ? "true" : "false");
        return;
      default:
        break;
    }
  }
  std::printf("%s\n", platform::toJson(value, true).c_str());
}

}  // namespace kelo::tool
