// kelo-powerd: the power monitor that writes the energy report of KeloAXLConfigLogger on Linux.
// `kelo-powerd --help` prints its manual page.
#include <signal.h>
#include <time.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cmath>
#include <filesystem>

#include "tools/kelo-powerd/Cli.h"
#include "tools/kelo-powerd/DeviceReader.h"
#include "tools/kelo-powerd/PowerDaemon.h"

namespace {

double wallClock() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

double monotonicClock() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Waits up to `seconds` for one of `signals`; true when one arrived.
bool signalled(const sigset_t& signals, double seconds) {
  if (seconds <= 0) return false;
  timespec timeout;
  timeout.tv_sec = static_cast<time_t>(seconds);
  timeout.tv_nsec = static_cast<long>((seconds - std::floor(seconds)) * 1e9);
  const int received = ::sigtimedwait(&signals, nullptr, &timeout);
  return received > 0;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace kelo::powerd;
  Options options;
  CLI::App app{"kelo-powerd", "kelo-powerd"};
  defineOptions(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    return kExitUsage;
  }

  Settings settings;
  settings.root = std::filesystem::absolute(options.root).lexically_normal().string();
  settings.cpuWatts = options.cpuWatts;
  if (!options.textfile.empty()) {
    settings.textfileFolder =
        std::filesystem::absolute(options.textfile).lexically_normal().string();
  }
  RootReader reader(settings.root);
  PowerDaemon daemon(settings, reader);
  daemon.open(wallClock());
  if (options.once) return daemon.sample(wallClock()) ? kExitOk : kExitFailed;

  // The signals that stop the daemon are taken synchronously, as the wait between samples, so
  // that a sample is never cut short half way through its writes.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  sigaddset(&stop, SIGINT);
  sigprocmask(SIG_BLOCK, &stop, nullptr);
  double next = monotonicClock();
  for (;;) {
    daemon.sample(wallClock());
    next += options.interval;
    double now = monotonicClock();
    // After a suspend or a stall, start again from now rather than catch up sample by sample.
    if (next < now) next = now + options.interval;
    for (; now < next; now = monotonicClock()) {
      if (signalled(stop, next - now)) return kExitOk;
    }
  }
}
