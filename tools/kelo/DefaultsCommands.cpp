#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "platform/Json.h"
#include "platform/Preferences.h"
#include "tools/kelo/Commands.h"

namespace kelo::tool {

namespace {

std::optional<double> parseReal(const std::string& text) {
  if (text.empty()) return std::nullopt;
  errno = 0;
  char* end = nullptr;
  const double d = std::strtod(text.c_str(), &end);
  if (errno != 0 || end != text.c_str() + text.size() || !std::isfinite(d)) return std::nullopt;
  return d;
}

std::optional<bool> parseBoolean(const std::string& text) {
  if (text == "true" || text == "yes" || text == "YES") return true;
  if (text == "false" || text == "no" || text == "NO") return false;
  return std::nullopt;
}

// The value the text stands for, or an error value saying why it is not one.
Value parseValue(const std::string& text, const std::string& type) {
  if (type == "string") return Value::string(text);
  if (type == "int") {
    if (auto i = parseInteger(text)) return Value::integer(*i);
    return Value::error("\"" + text + "\" is not an integer");
  }
  if (type == "real") {
    if (auto d = parseReal(text)) return Value::real(*d);
    return Value::error("\"" + text + "\" is not a real number");
  }
  if (type == "bool") {
    if (auto b = parseBoolean(text)) return Value::boolean(*b);
    return Value::error("\"" + text + "\" is not a boolean (true, false, yes, no)");
  }
  const bool looksJson = !text.empty() && (text[0] == '{' || text[0] == '[');
  if (type == "json" || looksJson) {
    Value v = platform::parseJson(text, "VALUE");
    if (v.isError()) {
      const Value::Error& e = v.asError();
      return Value::error("malformed JSON value at line " + std::to_string(e.line) + ", column " +
                          std::to_string(e.column) + ": " + e.message);
    }
    return v;
  }
  if (auto i = parseInteger(text)) return Value::integer(*i);
  if (auto d = parseReal(text)) return Value::real(*d);
  if (auto b = parseBoolean(text)) return Value::boolean(*b);
  return Value::string(text);
}

bool domainExists(const platform::PreferencesDomain& domain) {
  struct stat st;
  return ::stat(domain.path().c_str(), &st) == 0;
}

int invalidDomain(const std::string& name) {
  return fail(kExitUsage, "\"" + name +
                              "\" is not a valid domain name (a non-empty name without '/', "
                              "not \".\" or \"..\")");
}

}  // namespace

std::optional<int64_t> parseInteger(const std::string& text) {
  if (text.empty()) return std::nullopt;
  errno = 0;
  char* end = nullptr;
  const long long v = std::strtoll(text.c_str(), &end, 10);
  if (errno != 0 || end != text.c_str() + text.size() || std::isspace(static_cast<unsigned char>(text[0]))) {
    return std::nullopt;
  }
  return static_cast<int64_t>(v);
}

int defaultsRead(const Context& context, const std::string& name,
                 const std::optional<std::string>& key) {
  if (!platform::PreferencesDomain::isValidName(name)) return invalidDomain(name);
  context.install();
  auto domain = platform::PreferencesDomain::open(name);
  if (!domain || !domainExists(*domain)) {
    return fail(kExitNotFound, "unknown domain \"" + name + "\" (no " +
                                   (domain ? domain->path() : name) + ")");
  }
  const Value contents = domain->contents();
  if (!key) {
    printValue(contents, true);
    return kExitOk;
  }
  const Value* v = contents.find(*key);
  if (v == nullptr) return fail(kExitNotFound, "domain \"" + name + "\" has no key \"" + *key + "\"");
  printValue(*v, context.json);
  return kExitOk;
}

int defaultsWrite(const Context& context, const std::string& name, const std::string& key,
                  const std::string& text, const std::string& type, bool force) {
  if (!platform::PreferencesDomain::isValidName(name)) return invalidDomain(name);
  if (key.empty()) return fail(kExitUsage, "the key must not be empty");
  const Value value = parseValue(text, type);
  if (value.isError()) return fail(kExitUsage, "malformed value: " + value.asError().message);
  if (name == "com.vorn.Kelo" && key == "overideConfig" && !force) {
    const BundleCheck check = checkOverride(value, "overideConfig");
    if (check.errors() > 0) {
      for (const Finding& f : check.findings) {
        if (f.error) std::fprintf(stderr, "kelo: %s: %s\n", f.where.c_str(), f.message.c_str());
      }
      return fail(kExitUsage, "override not stored (--force stores it anyway)");
    }
  }
  context.install();
  auto domain = platform::PreferencesDomain::open(name);
  if (!domain || !domain->write(key, value)) {
    return fail(kExitFailure, "could not write \"" + key + "\" into " +
                                  (domain ? domain->path() : name) + " (see the system log)");
  }
  return kExitOk;
}

int defaultsDelete(const Context& context, const std::string& name, const std::string& key) {
  if (!platform::PreferencesDomain::isValidName(name)) return invalidDomain(name);
  context.install();
  auto domain = platform::PreferencesDomain::open(name);
  if (!domain || !domainExists(*domain)) {
    return fail(kExitNotFound, "unknown domain \"" + name + "\"");
  }
  if (domain->contents().find(key) == nullptr) {
    return fail(kExitNotFound, "domain \"" + name + "\" has no key \"" + key + "\"");
  }
  if (!domain->remove(key)) {
    return fail(kExitFailure, "could not delete \"" + key + "\" from " + domain->path());
  }
  return kExitOk;
}

}  // namespace kelo::tool
