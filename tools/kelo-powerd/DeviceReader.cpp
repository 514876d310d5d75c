#include "tools/kelo-powerd/DeviceReader.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <set>
#include <string_view>
#include <utility>

#include "platform/SafeFile.h"

namespace kelo::powerd {

using platform::listFolder;
using platform::readFile;
using platform::readHead;
using platform::ReadResult;

namespace {

// Every kernel file read here is a line or two; these bound what a hostile tree can make us hold.
constexpr std::size_t kSmallFileLimit = 4096;
// Only the first line of proc/stat is used; its "intr" line alone can be tens of kilobytes.
constexpr std::size_t kProcStatHead = 4096;

std::string_view trimmed(std::string_view text) {
  const auto space = [](char c) { return c == ' ' || c == '\n' || c == '\t' || c == '\r'; };
  while (!text.empty() && space(text.front())) text.remove_prefix(1);
  while (!text.empty() && space(text.back())) text.remove_suffix(1);
  return text;
}

std::optional<uint64_t> parseUnsigned(std::string_view text) {
  text = trimmed(text);
  uint64_t value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
  return value;
}

// The whitespace-separated fields of `text`.
std::vector<std::string_view> fields(std::string_view text) {
  std::vector<std::string_view> out;
  std::size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && (text[i] == ' ' || text[i] == '\n')) ++i;
    const std::size_t start = i;
    while (i < text.size() && text[i] != ' ' && text[i] != '\n') ++i;
    if (i > start) out.push_back(text.substr(start, i - start));
  }
  return out;
}

}  // namespace

std::optional<uint64_t> parseBusyTicks(const std::string& procStat) {
  const std::string_view text(procStat);
  const std::string_view line = text.substr(0, text.find('\n'));
  const std::vector<std::string_view> f = fields(line);
  // cpu user nice system idle iowait irq softirq [steal ...]; steal came with Linux 2.6.11.
  if (f.size() < 8 || f[0] != "cpu") return std::nullopt;
  uint64_t busy = 0;
  for (const std::size_t i : {1, 2, 3, 6, 7, 8}) {
    if (i >= f.size()) break;
    const std::optional<uint64_t> v = parseUnsigned(f[i]);
    if (!v) return std::nullopt;
    busy += *v;
  }
  return busy;
}

std::optional<ProcessTimes> parseProcessStat(const std::string& pidStat) {
  // The command name in parentheses may hold spaces and parentheses itself: the fields start
  // after the last ')'.
  const std::size_t paren = pidStat.rfind(')');
  if (paren == std::string::npos) return std::nullopt;
  const std::vector<std::string_view> f = fields(std::string_view(pidStat).substr(paren + 1));
  // Fields counted from the state (field 3 of proc(5)): utime 14, stime 15, starttime 22.
  constexpr std::size_t kUtime = 14 - 3;
  constexpr std::size_t kStime = 15 - 3;
  constexpr std::size_t kStart = 22 - 3;
  if (f.size() <= kStart) return std::nullopt;
  const auto utime = parseUnsigned(f[kUtime]);
  const auto stime = parseUnsigned(f[kStime]);
  const auto start = parseUnsigned(f[kStart]);
  if (!utime || !stime || !start) return std::nullopt;
  return ProcessTimes{*start, *utime + *stime};
}

namespace {

std::string withoutTrailingSlashes(std::string path) {
  while (!path.empty() && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace

RootReader::RootReader(std::string root) : root_(withoutTrailingSlashes(std::move(root))) {}

std::string RootReader::path(const std::string& relative) const { return root_ + "/" + relative; }

std::optional<std::vector<PackageCounter>> RootReader::packageCounters() {
  const std::string folder = path("sys/class/powercap");
  std::vector<PackageCounter> counters;
  std::set<std::string> names;
  for (const std::string& zone : listFolder(folder)) {
    if (std::count(zone.begin(), zone.end(), ':') != 1) continue;
    const std::string base = folder + "/" + zone + "/";
    const ReadResult name = readFile(base + "name", kSmallFileLimit);
    if (!name.ok) continue;  // a control type such as "intel-rapl" has no name: not a zone
    const std::string n(trimmed(name.data));
    if (n.rfind("package", 0) != 0 || !names.insert(n).second) continue;
    const ReadResult energy = readFile(base + "energy_uj", kSmallFileLimit);
    const ReadResult range = readFile(base + "max_energy_range_uj", kSmallFileLimit);
    const auto e = energy.ok ? parseUnsigned(energy.data) : std::nullopt;
    const auto r = range.ok ? parseUnsigned(range.data) : std::nullopt;
    // One package that cannot be read makes the sum meaningless.
    if (!e || !r) return std::nullopt;
    counters.push_back({zone, *e, *r});
  }
  if (counters.empty()) return std::nullopt;
  return counters;
}

std::optional<uint64_t> RootReader::busyTicks() {
  const ReadResult stat = readHead(path("proc/stat"), kProcStatHead);
  if (!stat.ok) return std::nullopt;
  return parseBusyTicks(stat.data);
}

std::optional<double> RootReader::uptime() {
  const ReadResult text = readFile(path("proc/uptime"), kSmallFileLimit);
  if (!text.ok) return std::nullopt;
  const std::vector<std::string_view> f = fields(text.data);
  if (f.empty()) return std::nullopt;
  double seconds = 0;
  const auto [end, ec] = std::from_chars(f[0].data(), f[0].data() + f[0].size(), seconds);
  if (ec != std::errc() || end != f[0].data() + f[0].size() || !(seconds >= 0)) return std::nullopt;
  return seconds;
}

std::optional<ProcessTimes> RootReader::processTimes(int pid) {
  if (pid <= 0) return std::nullopt;
  const ReadResult stat = readFile(path("proc/" + std::to_string(pid) + "/stat"), kSmallFileLimit);
  if (!stat.ok) return std::nullopt;
  return parseProcessStat(stat.data);
}

std::optional<double> RootReader::batteryCapacity() {
  const std::string folder = path("sys/class/power_supply");
  for (const std::string& supply : listFolder(folder)) {
    const std::string base = folder + "/" + supply + "/";
    const ReadResult type = readFile(base + "type", kSmallFileLimit);
    if (!type.ok || trimmed(type.data) != "Battery") continue;
    const auto number = [&](const char* file) -> std::optional<uint64_t> {
      const ReadResult r = readFile(base + file, kSmallFileLimit);
      return r.ok ? parseUnsigned(r.data) : std::nullopt;
    };
    // microwatt-hours; or microampere-hours times microvolts, 1e-12 Wh.
    if (const auto energy = number("energy_full_design")) return static_cast<double>(*energy) / 1e3;
    const auto charge = number("charge_full_design");
    const auto voltage = number("voltage_min_design");
    if (charge && voltage) {
      return static_cast<double>(*charge) * static_cast<double>(*voltage) / 1e9;
    }
    return std::nullopt;
  }
  return std::nullopt;
}

std::string RootReader::bootId() {
  const ReadResult id = readFile(path("proc/sys/kernel/random/boot_id"), kSmallFileLimit);
  return id.ok ? std::string(trimmed(id.data)) : std::string();
}

double RootReader::ticksPerSecond() {
  const long ticks = ::sysconf(_SC_CLK_TCK);
  return ticks > 0 ? static_cast<double>(ticks) : 100.0;
}

}  // namespace kelo::powerd
