// The preferences store on Linux: one JSON object per domain, in the file
// <home>/Library/Preferences/<domain>.json.
//
// Changes are staged in the handle and made durable by synchronize(): under an advisory lock
// (flock on <domain>.json.lock) the current file is read, the staged changes applied, and the
// result written to a temporary file that is fsynced, renamed over the domain file, and made
// permanent by an fsync of the folder. Any number of threads and processes may write one domain
// at once without losing a key. Readers never see a half-written file, and the temporary file of
// a writer that died mid-write is removed by the next write of the domain.
//
// A domain file that does not parse is moved aside to <domain>.json.corrupt (or .corrupt.N when
// that exists) with one system-log line naming file, line and column, and reads as empty; it is
// never overwritten. A domain file that is a symbolic link, not a regular file, or owned by
// another user is refused: it reads as empty, is never written, and each refusal writes a
// system-log line. Files are created 0644, folders 0755. Every file operation goes through
// platform::fileSystem(), so failures can be injected. Nothing here throws.
#ifndef KELO_PLATFORM_PREFERENCES_H_
#define KELO_PLATFORM_PREFERENCES_H_

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kelo/Value.h"

namespace kelo::platform {

class PreferencesDomain {
 public:
  // A name is valid when it is non-empty, at most 200 bytes, holds no '/' or NUL, and is not
  // "." or "..": it always names a file inside the preferences folder.
  static bool isValidName(std::string_view name);
  // <home>/Library/Preferences
  static std::string directory();
  // The names of the domains that have a file in the folder, sorted.
  static std::vector<std::string> listDomains();

  // A handle on `name` for the current home directory; null for an invalid name. Opening
  // touches no file.
  static std::shared_ptr<PreferencesDomain> open(const std::string& name);

  const std::string& name() const { return name_; }
  const std::string& path() const { return path_; }

  // Stage a change; it reaches the file at the next synchronize(). A null `value` removes.
  void setInteger(const std::string& key, int64_t value);
  void setValue(const std::string& key, Value value);
  void removeValue(const std::string& key);

  // Makes every staged change durable before it returns; with nothing staged it writes
  // nothing. Returns false when the file could not be written (one system-log line says why);
  // the changes then stay staged for the next call. Blocks on the domain's lock and on fsync.
  bool synchronize();

  // The domain's persistent contents with the staged changes on top: always a dictionary
  // (empty when the file is missing, malformed or refused). Blocks on file reads.
  Value contents() const;

  // Stage and synchronize in one call (the durable write of a single key).
  bool write(const std::string& key, Value value);
  bool remove(const std::string& key);

  PreferencesDomain(std::string name, std::string directory);

 private:
  const std::string name_;
  const std::string directory_;
  const std::string path_;
  mutable std::mutex mutex_;
  // Staged changes, guarded by mutex_; nullopt removes the key.
  std::map<std::string, std::optional<Value>> pending_;
  // What this handle last found or left in the file, as text and as contents, guarded by
  // mutex_: a synchronize() whose changes a file of the same text already holds writes nothing.
  struct Known {
    std::string text;
    Value::Dictionary contents;
  };
  std::optional<Known> known_;
  bool knownHoldsPendingLocked() const;
};

}  // namespace kelo::platform

#endif  // KELO_PLATFORM_PREFERENCES_H_
