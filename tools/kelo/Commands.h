// The kelo commands. Each returns the process's exit code (Context.h).
#ifndef KELO_TOOLS_KELO_COMMANDS_H_
#define KELO_TOOLS_KELO_COMMANDS_H_

#include <optional>
#include <string>

#include "tools/kelo/Context.h"

namespace kelo::tool {

int configGet(const Context& context, const std::string& key);
int configDump(const Context& context);
int configCheck(const Context& context, const std::string& bundle);

int defaultsRead(const Context& context, const std::string& domain,
                 const std::optional<std::string>& key);
// `type` is "auto", "int", "real", "bool", "string" or "json".
int defaultsWrite(const Context& context, const std::string& domain, const std::string& key,
                  const std::string& value, const std::string& type);
int defaultsDelete(const Context& context, const std::string& domain, const std::string& key);

// `kind` is "bgdownload" or "nondisc".
int report(const Context& context, const std::string& kind, const std::string& data,
           const std::string& energy);

// `format` is "table", "json" or "prometheus"; an empty `database` is the default store.
int metrics(const Context& context, const std::string& format, const std::string& database);

int logsPath(const Context& context);
int logsTail(const Context& context, bool follow, int lines, const std::string& process,
             bool simple);

// Parses a whole decimal integer (sign allowed); nullopt for anything else or out of range.
std::optional<int64_t> parseInteger(const std::string& text);

}  // namespace kelo::tool

#endif  // KELO_TOOLS_KELO_COMMANDS_H_
