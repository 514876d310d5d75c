// Writes the manual pages (man/kelo.1, man/kelo-sim.1, man/kelo-powerd.8) and the bash
// completions (completions/<tool>) of the three tools into OUTDIR, from the same option
// definitions their parsers use. Usage: kelo_gendocs OUTDIR
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "tools/docs/Docs.h"
#include "tools/kelo-powerd/Cli.h"
#include "tools/kelo-sim/Cli.h"
#include "tools/kelo/Cli.h"

namespace {

bool write(const std::filesystem::path& path, const std::string& text) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  return static_cast<bool>(out.flush());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: kelo_gendocs OUTDIR\n");
    return 2;
  }
  const std::filesystem::path out = argv[1];
  using kelo::docs::Page;
  bool ok = true;

  kelo::tool::Invocation invocation;
  CLI::App kelo;
  kelo::tool::defineCommands(kelo, invocation);
  const Page keloPage{"kelo",
                      1,
                      "inspect and operate KeloAXLConfigLogger",
                      {{"0", "done"},
                       {"1", "the operation failed (unwritable file, malformed content, findings)"},
                       {"2", "usage error: the command line or a value on it is not valid"},
                       {"3", "the key, domain, bundle or file asked for does not exist"}},
                      {}};
  ok &= write(out / "man/kelo.1", kelo::docs::roffPage(kelo, keloPage));
  ok &= write(out / "completions/kelo", kelo::docs::bashCompletion(kelo));

  kelo::sim::CommandLine line;
  CLI::App sim;
  kelo::sim::defineOptions(sim, line);
  const Page simPage{"kelo-sim",
                     1,
                     "a simulated day of a background-scheduling daemon, for tuning questions",
                     {{"0", "done"},
                      {"1", "the run failed (unusable root, missing bundle or tool)"},
                      {"2", "usage error, including an unknown configuration key"}},
                     {{"$XDG_STATE_HOME/kelo-sim/root", "the default device root, made fresh"},
                      {"<prefix>/share/kelo/KeloConfiguration.bundle", "the default bundle"}}};
  ok &= write(out / "man/kelo-sim.1", kelo::docs::roffPage(sim, simPage));
  ok &= write(out / "completions/kelo-sim", kelo::docs::bashCompletion(sim));

  kelo::powerd::Options powerdOptions;
  CLI::App powerd{"", "kelo-powerd"};
  kelo::powerd::defineOptions(powerd, powerdOptions);
  const Page powerdPage{"kelo-powerd", 8, "power monitor for KeloAXLConfigLogger", {}, {}};
  ok &= write(out / "man/kelo-powerd.8", kelo::docs::roffFromText(powerd.help(), powerdPage));
  ok &= write(out / "completions/kelo-powerd", kelo::docs::bashCompletion(powerd));

  if (!ok) std::fprintf(stderr, "kelo_gendocs: cannot write under %s\n", argv[1]);
  return ok ? 0 : 1;
}
