#include "platform/Bundle.h"

#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "platform/Facts.h"
#include "platform/Json.h"

namespace kelo::platform {

namespace {

void warnMalformed(const std::string& file, int line, int column, const std::string& why) {
  char text[1024];
  std::snprintf(text, sizeof text, "%s:%d:%d: malformed bundle information dictionary: %s",
                file.c_str(), line, column, why.c_str());
  warnOnce(LOG_WARNING, text);
}

Value readInfoDictionary(const std::string& file) {
  JsonFile read = readJsonFile(file, kBundleInfoLimit);
  if (read.missing) return Value::dictionary({});
  if (!read.refused.empty()) {
    warnOnce(LOG_WARNING, read.refused + "; bundle information dictionary not read");
    return Value::dictionary({});
  }
  Value& info = read.value;
  if (info.isError()) {
    const Value::Error& e = info.asError();
    warnMalformed(file, e.line, e.column, e.message);
    return Value::dictionary({});
  }
  if (!info.isDictionary()) {
    warnMalformed(file, 1, 1, "the top level is not an object");
    return Value::dictionary({});
  }
  return std::move(info);
}

}  // namespace

std::shared_ptr<const Bundle> Bundle::open(const std::string& directory) {
  struct stat st;
  if (directory.empty() || ::stat(directory.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    return nullptr;
  }
  return std::make_shared<const Bundle>(directory, readInfoDictionary(directory + "/Info.json"));
}

Value Bundle::objectForInfoDictionaryKey(std::string_view key) const {
  const Value* v = info_.find(key);
  return v != nullptr ? *v : Value();
}

std::optional<std::string> Bundle::identifier() const {
  const Value* v = info_.find("bundleIdentifier");
  if (v == nullptr || !v->isString()) return std::nullopt;
  return v->asString();
}

}  // namespace kelo::platform
