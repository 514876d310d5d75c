// Manual pages and bash completion from a command line's CLI11 definitions.
#ifndef KELO_TOOLS_DOCS_DOCS_H_
#define KELO_TOOLS_DOCS_DOCS_H_

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace kelo::docs {

struct Page {
  std::string name;  // "kelo"
  int section = 1;
  std::string summary;  // the NAME line after the dash
  std::vector<std::pair<std::string, std::string>> exitStatus;
  std::vector<std::pair<std::string, std::string>> files;
};

// A roff manual page: synopsis, description, the options of the program and of every command
// (its path, positionals and options).
std::string roffPage(const CLI::App& app, const Page& page);

// A roff page from a manual already laid out as text (sections at the margin, indented
// paragraphs), as a program's --help may print it.
std::string roffFromText(const std::string& text, const Page& page);

// A bash completion function for the program: commands, then the options of the command
// reached, and file names after an option that takes a value.
std::string bashCompletion(const CLI::App& app);

// The option's spelling: "-n, --lines".
std::string optionNames(const CLI::Option* option);

}  // namespace kelo::docs

#endif  // KELO_TOOLS_DOCS_DOCS_H_
