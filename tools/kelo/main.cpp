// kelo: the command-line companion of KeloAXLConfigLogger for the people who tune and operate
// the background-scheduling daemons: configuration, preference domains, reports, metrics, logs.
#include <CLI/CLI.hpp>

#include "tools/kelo/Cli.h"

int main(int argc, char** argv) {
  kelo::tool::Invocation inv;
  CLI::App app;
  kelo::tool::defineCommands(app, inv);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    return kelo::tool::kExitUsage;
  }
  return inv.run ? inv.run() : kelo::tool::kExitOk;
}
