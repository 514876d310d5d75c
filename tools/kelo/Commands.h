// The kelo commands. Each returns the process's exit code (Context.h).
#ifndef KELO_TOOLS_KELO_COMMANDS_H_
#define KELO_TOOLS_KELO_COMMANDS_H_

#include <optional>
#include <string>

#include "tools/kelo/BundleCheck.h"
#include "tools/kelo/Context.h"

namespace kelo::tool {

int configGet(const Context& context, const std::string& key);
int configDump(const Context& context);
// Checks the bundle at `bundle`, or with `override` the stored preferences override.
int configCheck(const Context& context, const std::string& bundle, bool override);
// Prints a check's findings; kExitFailure when it found errors.
int printCheck(const Context& context, const BundleCheck& check);

int defaultsRead(const Context& context, const std::string& domain,
                 const std::optional<std::string>& key);
// `type` is "auto", "int", "real", "bool", "string" or "json". The configuration override
// ("overideConfig" in "com.vorn.Kelo") is checked first and refused with errors unless `force`.
int defaultsWrite(const Context& context, const std::string& domain, const std::string& key,
                  const std::string& value, const std::string& type, bool force);
int defaultsDelete(const Context& context, const std::string& domain, const std::string& key);

// `kind` is "bgdownload" or "nondisc".
int report(const Context& context, const std::string& kind, const std::string& data,
           const std::string& energy);

// `format` is "table", "json" or "prometheus"; an empty `database` is the default store.
// A non-empty `textfile` folder receives the Prometheus form as kelo.prom, written atomically.
int metrics(const Context& context, const std::string& format, const std::string& database,
            const std::string& textfile);

int logsPath(const Context& context);
// `byName`: follow the path rather than the open file (across rotation), and wait for a log
// that does not exist yet.
int logsTail(const Context& context, bool follow, bool byName, int lines,
             const std::string& process, bool simple);

// Parses a whole decimal integer (sign allowed); nullopt for anything else or out of range.
std::optional<int64_t> parseInteger(const std::string& text);

}  // namespace kelo::tool

#endif  // KELO_TOOLS_KELO_COMMANDS_H_
