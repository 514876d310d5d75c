// Configuration bundles on Linux: a bundle is a directory whose information dictionary is the
// JSON object in "Info.json" inside it; its identifier is that dictionary's "bundleIdentifier".
//
// A Bundle is immutable once opened (the information dictionary is read once, at open), so it
// may be shared between threads freely.
#ifndef KELO_PLATFORM_BUNDLE_H_
#define KELO_PLATFORM_BUNDLE_H_

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kelo/Value.h"

namespace kelo::platform {

class Bundle {
 public:
  // The bundle at `directory` (a real file system path, already resolved under the device
  // root), or null when there is no directory there. A missing "Info.json" reads as an empty
  // dictionary. A malformed one (bad JSON, or JSON that is not an object) reads as an empty
  // dictionary too, and writes one LOG_WARNING line to the system log naming the file, line and
  // column, as the platform's own bundle reader would. Blocks on file reads; never throws.
  static std::shared_ptr<const Bundle> open(const std::string& directory);

  const std::string& path() const { return path_; }
  // Always a dictionary.
  const Value& infoDictionary() const { return info_; }
  // The entry of the information dictionary under `key`; a null Value when there is none.
  Value objectForInfoDictionaryKey(std::string_view key) const;
  // The "bundleIdentifier" entry when it is a string, else nullopt.
  std::optional<std::string> identifier() const;

  Bundle(std::string path, Value info) : path_(std::move(path)), info_(std::move(info)) {}

 private:
  const std::string path_;
  const Value info_;
};

}  // namespace kelo::platform

#endif  // KELO_PLATFORM_BUNDLE_H_
