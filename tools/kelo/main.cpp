// kelo: the command-line companion of KeloAXLConfigLogger for the people who tune and operate
// the background-scheduling daemons: configuration, preference domains, reports, metrics, logs.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <optional>
#include <string>

#include "tools/kelo/Commands.h"
#include "tools/kelo/Context.h"

using kelo::tool::Context;

int main(int argc, char** argv) {
  Context context;
  int status = kelo::tool::kExitOk;

  CLI::App app{"kelo: inspect and operate KeloAXLConfigLogger (configuration, preference "
               "domains, cross-process reports, metrics, logs).\n"
               "Exit codes: 0 done, 1 failed, 2 usage error, 3 not found."};
  app.require_subcommand(1);
  app.fallthrough();
  app.add_option("--root", context.root, "device root to work under (default /)");
  app.add_option("--home", context.home, "home directory to work in (default your own)");
  app.add_flag("--json", context.json, "print data as JSON");

  // config
  CLI::App* config = app.add_subcommand("config", "the configuration the daemons read");
  config->require_subcommand(1);
  std::string key;
  config->add_subcommand("get", "print one key's value as the configurator reads it")
      ->callback([&] { status = kelo::tool::configGet(context, key); })
      ->add_option("KEY", key, "configuration key (case-sensitive)")
      ->required();
  config->add_subcommand("dump", "every key with its value and its source (bundle, model entry "
                                 "or override)")
      ->callback([&] { status = kelo::tool::configDump(context); });
  std::string bundle;
  config->add_subcommand("check", "validate a bundle: unknown keys, keys outside their group, "
                                  "wrong types")
      ->callback([&] { status = kelo::tool::configCheck(context, bundle); })
      ->add_option("BUNDLE", bundle, "bundle folder or its Info.json")
      ->required();

  // defaults
  CLI::App* defaults = app.add_subcommand("defaults", "preference domains");
  defaults->require_subcommand(1);
  std::string domain;
  std::string value;
  std::optional<std::string> readKey;
  CLI::App* read = defaults->add_subcommand("read", "print a domain, or one key of it");
  read->add_option("DOMAIN", domain, "domain name, e.g. com.vorn.Kelo")->required();
  read->add_option("KEY", readKey, "key to print");
  read->callback([&] { status = kelo::tool::defaultsRead(context, domain, readKey); });
  std::string type = "auto";
  CLI::App* write = defaults->add_subcommand(
      "write", "write one key durably (integers, reals, booleans, strings, JSON dictionaries)");
  write->add_option("DOMAIN", domain, "domain name")->required();
  write->add_option("KEY", key, "key")->required();
  write->add_option("VALUE", value, "value; {...} or [...] is read as JSON")->required();
  write->add_option("--type", type, "force the type")
      ->check(CLI::IsMember({"auto", "int", "real", "bool", "string", "json"}))
      ->capture_default_str();
  write->callback([&] { status = kelo::tool::defaultsWrite(context, domain, key, value, type); });
  CLI::App* del = defaults->add_subcommand("delete", "remove one key durably");
  del->add_option("DOMAIN", domain, "domain name")->required();
  del->add_option("KEY", key, "key")->required();
  del->callback([&] { status = kelo::tool::defaultsDelete(context, domain, key); });

  // report
  CLI::App* reportCommand =
      app.add_subcommand("report", "post a finished download to the statistics collector");
  reportCommand->require_subcommand(1);
  std::string data;
  std::string energy;
  for (const char* kind : {"bgdownload", "nondisc"}) {
    CLI::App* sub = reportCommand->add_subcommand(
        kind, std::string(kind) == "bgdownload" ? "a background download"
                                                : "a non-discretionary background download");
    sub->add_option("DATA", data, "bytes transferred (below 2^44)")->required();
    sub->add_option("ENERGY", energy, "energy used (at most 65535)")->required();
    sub->callback([&, kind] { status = kelo::tool::report(context, kind, data, energy); });
  }

  // metrics
  std::string format = "table";
  std::string database;
  CLI::App* metrics = app.add_subcommand("metrics", "the metrics the collector uploaded");
  metrics->add_option("--format", format, "output form")
      ->check(CLI::IsMember({"table", "json", "prometheus"}))
      ->capture_default_str();
  metrics->add_option("--db", database, "metrics database (default: the home's own)");
  metrics->callback([&] { status = kelo::tool::metrics(context, format, database); });

  // logs
  CLI::App* logs = app.add_subcommand("logs", "the loggers' files");
  logs->require_subcommand(1);
  logs->add_subcommand("path", "live logs, rotated logs and dumps")
      ->callback([&] { status = kelo::tool::logsPath(context); });
  bool follow = false;
  int lines = 20;
  std::string process;
  bool simple = false;
  CLI::App* tail = logs->add_subcommand("tail", "the last lines of a live log");
  tail->add_flag("-f,--follow", follow, "keep printing lines as they arrive");
  tail->add_option("-n,--lines", lines, "number of lines")->check(CLI::Range(0, 1000000));
  tail->add_option("--process", process, "the daemon's process name (default: newest log)");
  tail->add_flag("--simple", simple, "the simple logger's file instead of the detailed one");
  tail->callback([&] { status = kelo::tool::logsTail(context, follow, lines, process, simple); });

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    return kelo::tool::kExitUsage;
  }
  return status;
}
