#include "tools/common/KeyNames.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace kelo::tools {

namespace {

std::size_t editDistance(const std::string& a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t up = row[j];
      const bool same = std::tolower(static_cast<unsigned char>(a[i - 1])) ==
                        std::tolower(static_cast<unsigned char>(b[j - 1]));
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (same ? 0 : 1)});
      diagonal = up;
    }
  }
  return row[b.size()];
}

}  // namespace

const config::KeyInfo* findKey(const std::string& name) {
  for (const config::KeyInfo& k : config::kKeys) {
    if (k.name == name) return &k;
  }
  return nullptr;
}

std::string nearestKey(const std::string& name) {
  std::string_view best = config::kKeys[0].name;
  std::size_t bestDistance = editDistance(name, best);
  for (const config::KeyInfo& k : config::kKeys) {
    const std::size_t d = editDistance(name, k.name);
    if (d < bestDistance) {
      bestDistance = d;
      best = k.name;
    }
  }
  return std::string(best);
}

Value parseSetting(const std::string& text) {
  if (!text.empty() && !std::isspace(static_cast<unsigned char>(text[0]))) {
    char* end = nullptr;
    errno = 0;
    const long long i = std::strtoll(text.c_str(), &end, 10);
    if (errno == 0 && end == text.c_str() + text.size()) return Value::integer(i);
    errno = 0;
    const double d = std::strtod(text.c_str(), &end);
    if (end == text.c_str() + text.size()) return Value::real(d);
  }
  if (text == "true" || text == "false") return Value::boolean(text == "true");
  return Value::string(text);
}

std::string checkSetting(const std::string& key, const Value& value) {
  if (findKey(key) == nullptr) {
    return "unknown configuration key \"" + key + "\" (did you mean \"" + nearestKey(key) + "\"?)";
  }
  switch (value.type()) {
    case Value::Type::kInteger:
    case Value::Type::kBoolean:
      return "";
    case Value::Type::kReal: {
      const double d = value.doubleValue();
      // 2^63 itself is already outside.
      if (!std::isfinite(d) || d >= 9223372036854775808.0 || d < -9223372036854775808.0) {
        char text[64];
        std::snprintf(text, sizeof text, "%g", d);
        return "\"" + key + "\": " + text +
               " is outside the signed 64-bit range the configuration reads";
      }
      return "";
    }
    default:
      return "\"" + key + "\" takes a number or a boolean, not " +
             (value.type() == Value::Type::kString ? "a string" : "a container");
  }
}

}  // namespace kelo::tools
