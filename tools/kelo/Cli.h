// The command line of kelo: every command and option is defined here once, for the parser and for
// the manual page and shell completion generated from the same definitions.
#ifndef KELO_TOOLS_KELO_CLI_H_
#define KELO_TOOLS_KELO_CLI_H_

#include <CLI/CLI.hpp>
#include <functional>
#include <optional>
#include <string>

#include "tools/kelo/Context.h"

namespace kelo::tool {

// What the command line asked for.
struct Invocation {
  Context context;
  std::string key;
  std::string bundle;
  bool override = false;
  std::string domain;
  std::string value;
  std::optional<std::string> readKey;
  std::string type = "auto";
  bool force = false;
  std::string data;
  std::string energy;
  std::string format = "table";
  std::string database;
  std::string textfile;
  bool follow = false;
  bool followName = false;  // -F: follow the name across rotation, wait for it to appear
  int lines = 20;
  std::string process;
  bool simple = false;
  // The chosen command, set by parsing.
  std::function<int()> run;
};

// Defines every command and option on `app`, bound to `inv`. The global options are accepted,
// and listed, by every command.
void defineCommands(CLI::App& app, Invocation& inv);

}  // namespace kelo::tool

#endif  // KELO_TOOLS_KELO_CLI_H_
