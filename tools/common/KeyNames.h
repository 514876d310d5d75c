// The configuration keys as an operator types them: lookup, the nearest key to a misspelled
// one, and the check of a value meant for the configuration override.
#ifndef KELO_TOOLS_COMMON_KEYNAMES_H_
#define KELO_TOOLS_COMMON_KEYNAMES_H_

#include <string>

#include "config/ConfigKeys.h"
#include "kelo/Value.h"

namespace kelo::tools {

// The key of that exact (case-sensitive) name, or null.
const config::KeyInfo* findKey(const std::string& name);

// The known key closest to `name` by edit distance, case ignored.
std::string nearestKey(const std::string& name);

// A value typed on a command line: an integer, else a real, else true/false, else a string.
Value parseSetting(const std::string& text);

// Empty when `value` can stand under `key` in the override; otherwise why not: an unknown key
// (naming the nearest one), a type other than number or boolean, or a number outside the
// signed 64-bit range.
std::string checkSetting(const std::string& key, const Value& value);

}  // namespace kelo::tools

#endif  // KELO_TOOLS_COMMON_KEYNAMES_H_
