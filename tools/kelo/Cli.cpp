#include "tools/kelo/Cli.h"

#include "tools/kelo/Commands.h"

#ifndef KELO_VERSION
#define KELO_VERSION "0"
#endif

namespace kelo::tool {

namespace {

// The global options, on the top level and again on a command so that its help lists them.
void globals(CLI::App* app, Context& context) {
  app->add_option("--root", context.root, "device root to work under (default /)");
  app->add_option("--home", context.home, "home directory to work in (default your own)");
  app->add_flag("--json", context.json, "print data as JSON");
}

CLI::App* command(CLI::App* parent, const std::string& name, const std::string& about,
                  Invocation& inv) {
  CLI::App* sub = parent->add_subcommand(name, about);
  globals(sub, inv.context);
  return sub;
}

}  // namespace

void defineCommands(CLI::App& app, Invocation& inv) {
  app.description(
      "kelo: inspect and operate KeloAXLConfigLogger (configuration, preference domains, "
      "cross-process reports, metrics, logs).\n"
      "Exit codes: 0 done, 1 failed, 2 usage error, 3 not found.");
  app.name("kelo");
  app.set_version_flag("--version", std::string("kelo ") + KELO_VERSION);
  app.require_subcommand(1);
  app.fallthrough();
  globals(&app, inv.context);
  Context& c = inv.context;

  // config
  CLI::App* config = app.add_subcommand("config", "the configuration the daemons read");
  config->require_subcommand(1);
  command(config, "get", "print one key's value as the configurator reads it", inv)
      ->callback([&] { inv.run = [&] { return configGet(c, inv.key); }; })
      ->add_option("KEY", inv.key, "configuration key (case-sensitive)")
      ->required();
  command(config, "dump",
          "every key with its value and its source (bundle, model entry or override)", inv)
      ->callback([&] { inv.run = [&] { return configDump(c); }; });
  CLI::App* check = command(config, "check",
                            "validate a bundle, or the stored override: unknown keys, keys "
                            "outside their group, wrong types, values out of range",
                            inv);
  check->add_option("BUNDLE", inv.bundle, "bundle folder or its Info.json");
  check->add_flag("--override", inv.override,
                  "check the stored override (\"overideConfig\" in com.vorn.Kelo) instead");
  check->callback([&] { inv.run = [&] { return configCheck(c, inv.bundle, inv.override); }; });

  // defaults
  CLI::App* defaults = app.add_subcommand("defaults", "preference domains");
  defaults->require_subcommand(1);
  CLI::App* read = command(defaults, "read", "print a domain, or one key of it", inv);
  read->add_option("DOMAIN", inv.domain, "domain name, e.g. com.vorn.Kelo")->required();
  read->add_option("KEY", inv.readKey, "key to print");
  read->callback([&] { inv.run = [&] { return defaultsRead(c, inv.domain, inv.readKey); }; });
  CLI::App* write =
      command(defaults, "write",
              "write one key durably (integers, reals, booleans, strings, JSON dictionaries); the "
              "configuration override is checked against the configuration's keys first",
              inv);
  write->add_option("DOMAIN", inv.domain, "domain name")->required();
  write->add_option("KEY", inv.key, "key")->required();
  write->add_option("VALUE", inv.value, "value; {...} or [...] is read as JSON")->required();
  write->add_option("--type", inv.type, "force the type")
      ->check(CLI::IsMember({"auto", "int", "real", "bool", "string", "json"}))
      ->capture_default_str();
  write->add_flag("--force", inv.force, "store an override that fails the check anyway");
  write->callback([&] {
    inv.run = [&] { return defaultsWrite(c, inv.domain, inv.key, inv.value, inv.type, inv.force); };
  });
  CLI::App* del = command(defaults, "delete", "remove one key durably", inv);
  del->add_option("DOMAIN", inv.domain, "domain name")->required();
  del->add_option("KEY", inv.key, "key")->required();
  del->callback([&] { inv.run = [&] { return defaultsDelete(c, inv.domain, inv.key); }; });

  // report
  CLI::App* report =
      app.add_subcommand("report", "post a finished download to the statistics collector");
  report->require_subcommand(1);
  for (const char* kind : {"bgdownload", "nondisc"}) {
    CLI::App* sub =
        command(report, kind,
                std::string(kind) == "bgdownload" ? "a background download"
                                                  : "a non-discretionary background download",
                inv);
    sub->add_option("DATA", inv.data, "bytes transferred (below 2^44)")->required();
    sub->add_option("ENERGY", inv.energy, "energy used (at most 65535)")->required();
    sub->callback(
        [&, kind] { inv.run = [&, kind] { return tool::report(c, kind, inv.data, inv.energy); }; });
  }

  // metrics
  CLI::App* metrics = command(&app, "metrics", "the metrics the collector uploaded", inv);
  metrics->add_option("--format", inv.format, "output form")
      ->check(CLI::IsMember({"table", "json", "prometheus"}))
      ->capture_default_str();
  metrics->add_option("--db", inv.database, "metrics database (default: the home's own)");
  metrics->add_option("--textfile", inv.textfile,
                      "DIR: write the Prometheus form atomically to DIR/kelo.prom, for "
                      "node_exporter's textfile collector");
  metrics->callback(
      [&] { inv.run = [&] { return tool::metrics(c, inv.format, inv.database, inv.textfile); }; });

  // logs
  CLI::App* logs = app.add_subcommand("logs", "the loggers' files");
  logs->require_subcommand(1);
  command(logs, "path", "live logs, rotated logs and dumps", inv)->callback([&] {
    inv.run = [&] { return logsPath(c); };
  });
  CLI::App* tail = command(logs, "tail", "the last lines of a live log", inv);
  tail->add_flag("-f,--follow", inv.follow, "keep printing lines as they arrive");
  tail->add_flag("-F", inv.followName,
                 "follow the log by name: across rotation, and waiting for it to appear");
  tail->add_option("-n,--lines", inv.lines, "number of lines")->check(CLI::Range(0, 1000000));
  tail->add_option("--process", inv.process, "the daemon's process name (default: newest log)");
  tail->add_flag("--simple", inv.simple, "the simple logger's file instead of the detailed one");
  tail->callback([&] {
    inv.run = [&] {
      return logsTail(c, inv.follow || inv.followName, inv.followName, inv.lines, inv.process,
                      inv.simple);
    };
  });
}

}  // namespace kelo::tool
