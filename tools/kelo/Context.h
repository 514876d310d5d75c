// What every kelo command shares: the device root and home it works on, the output form, and
// the exit codes.
#ifndef KELO_TOOLS_KELO_CONTEXT_H_
#define KELO_TOOLS_KELO_CONTEXT_H_

#include <string>

#include "kelo/Value.h"

namespace kelo::tool {

enum ExitCode : int {
  kExitOk = 0,
  kExitFailure = 1,   // the operation failed (unwritable file, malformed content, findings)
  kExitUsage = 2,     // the command line or a value on it is not valid
  kExitNotFound = 3,  // the key, domain, bundle or file asked for does not exist
};

struct Context {
  std::string root;  // device root ("" for the platform's own)
  std::string home;  // home directory ("" for the user's own)
  bool json = false;

  // Points the library at root and home. Call once, before the first service is used.
  void install() const;
};

// Prints `message` on standard error as "kelo: message" and returns `code`.
int fail(int code, const std::string& message);
// Prints a value: JSON when asked for, else a plain form (scalars bare, containers as JSON).
void printValue(const Value& value, bool json);

}  // namespace kelo::tool

#endif  // KELO_TOOLS_KELO_CONTEXT_H_
