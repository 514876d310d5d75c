#include <sstream>

#include "tools/docs/Docs.h"

#ifndef KELO_VERSION
#define KELO_VERSION "0"
#endif

namespace kelo::docs {

namespace {

// Text safe in roff: backslashes and hyphens escaped, no line starting with a control character.
std::string escape(const std::string& text) {
  std::string out;
  bool lineStart = true;
  for (char c : text) {
    if (lineStart && (c == '.' || c == '\'')) out += "\\&";
    if (c == '\\') {
      out += "\\e";
    } else if (c == '-') {
      out += "\\-";
    } else {
      out += c;
    }
    lineStart = c == '\n';
  }
  return out;
}

std::string upper(std::string s) {
  for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

std::string header(const Page& page) {
  return ".TH " + upper(escape(page.name)) + " " + std::to_string(page.section) +
         " \"\" \"KeloAXLConfigLogger " KELO_VERSION "\" \"" +
         (page.section == 8 ? "System Administration" : "User Commands") + "\"\n.SH NAME\n" +
         escape(page.name) + " \\- " + escape(page.summary) + "\n";
}

std::string valueName(const CLI::Option* option) {
  const std::string type = option->get_type_name();
  if (option->get_expected_min() == 0 || type.empty() || type[0] == ':') return "";
  return type.substr(0, type.find(':'));
}

void options(std::ostringstream& out, const CLI::App& app, bool skipGlobals) {
  for (const CLI::Option* o : app.get_options([](const CLI::Option*) { return true; })) {
    if (o->get_positional()) continue;
    const std::string names = optionNames(o);
    if (skipGlobals && names == "-h, --help") continue;
    if (skipGlobals && (names == "--root" || names == "--home" || names == "--json")) continue;
    out << ".TP\n.B " << escape(names);
    if (const std::string v = valueName(o); !v.empty()) out << " \\fI" << escape(v) << "\\fR";
    std::string text = o->get_description();
    if (!o->get_default_str().empty()) text += " (default: " + o->get_default_str() + ")";
    out << "\n" << escape(text) << "\n";
  }
}

void commands(std::ostringstream& out, const CLI::App& app, const std::string& path) {
  for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; })) {
    const std::string here = path + " " + sub->get_name();
    if (sub->get_subcommands([](const CLI::App*) { return true; }).empty()) {
      std::string usage = here;
      for (const CLI::Option* o : sub->get_options([](const CLI::Option*) { return true; })) {
        if (!o->get_positional()) continue;
        usage += o->get_required() ? " " + o->get_name() : " [" + o->get_name() + "]";
      }
      out << ".SS \"" << escape(usage) << "\"\n" << escape(sub->get_description()) << "\n";
      options(out, *sub, true);
    } else {
      commands(out, *sub, here);
    }
  }
}

}  // namespace

std::string optionNames(const CLI::Option* option) {
  std::string names;
  for (const std::string& s : option->get_snames()) names += (names.empty() ? "-" : ", -") + s;
  for (const std::string& l : option->get_lnames()) names += (names.empty() ? "--" : ", --") + l;
  return names;
}

std::string roffPage(const CLI::App& app, const Page& page) {
  std::ostringstream out;
  out << header(page);
  const bool hasCommands = !app.get_subcommands([](const CLI::App*) { return true; }).empty();
  out << ".SH SYNOPSIS\n.B " << escape(page.name) << "\n[\\fIOPTIONS\\fR]"
      << (hasCommands ? " \\fICOMMAND\\fR [\\fIARGUMENTS\\fR]" : "") << "\n";
  std::string description = app.get_description();
  const std::size_t exits = description.find("\nExit codes:");
  if (exits != std::string::npos) description.resize(exits);
  out << ".SH DESCRIPTION\n" << escape(description) << "\n";
  out << ".SH OPTIONS\n";
  if (hasCommands) out << "These options are taken by every command as well.\n";
  options(out, app, false);
  if (hasCommands) {
    out << ".SH COMMANDS\n";
    commands(out, app, page.name);
  }
  if (!page.files.empty()) {
    out << ".SH FILES\n";
    for (const auto& [term, text] : page.files)
      out << ".TP\n" << escape(term) << "\n" << escape(text) << "\n";
  }
  out << ".SH EXIT STATUS\n";
  for (const auto& [code, text] : page.exitStatus) {
    out << ".TP\n.B " << escape(code) << "\n" << escape(text) << "\n";
  }
  return out.str();
}

std::string roffFromText(const std::string& text, const Page& page) {
  std::ostringstream out;
  out << header(page);
  std::istringstream in(text);
  std::string line;
  bool inSection = false;
  bool skipName = false;
  while (std::getline(in, line)) {
    if (!line.empty() && line[0] != ' ') {
      if (inSection) out << ".fi\n";
      skipName = line == "NAME";  // the header wrote it
      inSection = !skipName;
      if (inSection) out << ".SH " << escape(line) << "\n.nf\n";
      continue;
    }
    if (inSection) out << escape(line.size() >= 7 ? line.substr(7) : line) << "\n";
  }
  if (inSection) out << ".fi\n";
  return out.str();
}

}  // namespace kelo::docs
