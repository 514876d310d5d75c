#include <sstream>

#include "tools/docs/Docs.h"

namespace kelo::docs {

namespace {

struct Level {
  std::string path;  // " config get"
  std::string words;
  std::string valued;  // options that take a value, "|"-separated for a case pattern
};

void collect(const CLI::App& app, const std::string& path, std::vector<Level>* levels) {
  Level level{path, "", ""};
  for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; })) {
    level.words += sub->get_name() + " ";
  }
  for (const CLI::Option* o : app.get_options([](const CLI::Option*) { return true; })) {
    if (o->get_positional()) continue;
    for (const std::string& s : o->get_snames()) {
      level.words += "-" + s + " ";
      if (o->get_expected_min() > 0) level.valued += "|-" + s;
    }
    for (const std::string& l : o->get_lnames()) {
      level.words += "--" + l + " ";
      if (o->get_expected_min() > 0) level.valued += "|--" + l;
    }
  }
  levels->push_back(level);
  for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; })) {
    collect(*sub, path + " " + sub->get_name(), levels);
  }
}

std::string functionName(const std::string& name) {
  std::string out = "_";
  for (char c : name) out += c == '-' ? '_' : c;
  return out;
}

}  // namespace

std::string bashCompletion(const CLI::App& app) {
  std::vector<Level> levels;
  collect(app, "", &levels);
  const std::string fn = functionName(app.get_name());
  std::ostringstream out;
  out << "# bash completion for " << app.get_name() << ", generated from its option definitions\n"
      << fn << "() {\n"
      << "  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]} path= i\n"
      << "  for ((i = 1; i < COMP_CWORD; i++)); do\n"
      << "    case \"$path ${COMP_WORDS[i]}\" in\n";
  std::string known;
  for (const Level& l : levels) {
    if (!l.path.empty()) known += (known.empty() ? "" : "|") + ("\"" + l.path + "\"");
  }
  if (!known.empty()) out << "      " << known << ") path=\"$path ${COMP_WORDS[i]}\" ;;\n";
  out << "    esac\n  done\n  local words= valued=\n  case \"$path\" in\n";
  for (const Level& l : levels) {
    out << "    \"" << l.path << "\") words=\"" << l.words << "\"; valued=\""
        << (l.valued.empty() ? "" : l.valued.substr(1)) << "\" ;;\n";
  }
  out << "  esac\n"
      << "  case \"|$valued|\" in\n"
      << "    *\"|$prev|\"*) COMPREPLY=($(compgen -f -- \"$cur\")); return ;;\n"
      << "  esac\n"
      << "  COMPREPLY=($(compgen -W \"$words\" -- \"$cur\"))\n"
      << "}\n"
      << "complete -F " << fn << " " << app.get_name() << "\n";
  return out.str();
}

}  // namespace kelo::docs
