#include "tools/kelo-powerd/PowerDaemon.h"

#include <cmath>
#include <cstdio>
#include <utility>

#include "kelo/Value.h"
#include "platform/Json.h"
#include "platform/SafeFile.h"
#include "tools/kelo-powerd/Events.h"
#include "tools/kelo-powerd/Journal.h"
#include "tools/kelo-powerd/Outputs.h"

namespace kelo::powerd {

using platform::kEnergyReportLimit;
using platform::kStateFileLimit;
using platform::moveAside;
using platform::Owner;
using platform::readFile;
using platform::ReadResult;
using platform::replaceFile;

namespace {

std::string underRoot(const std::string& root, const char* absolute) {
  std::string base = root;
  while (!base.empty() && base.back() == '/') base.pop_back();
  return base + absolute;
}

void toStandardError(const std::string& line) {
  std::fprintf(stderr, "kelo-powerd: %s\n", line.c_str());
}

}  // namespace

PowerDaemon::PowerDaemon(Settings settings, DeviceReader& reader, Warn warn)
    : settings_(std::move(settings)),
      reader_(reader),
      warn_(warn ? std::move(warn) : Warn(toStandardError)),
      journalPath_(underRoot(settings_.root, "/run/kelo/energy-events.jsonl")),
      reportPath_(underRoot(settings_.root, "/run/kelo/energy-report.json")),
      statePath_(underRoot(settings_.root, "/var/lib/kelo/powerd-state.json")),
      textfilePath_(settings_.textfileFolder.empty()
                        ? std::string()
                        : underRoot(settings_.textfileFolder, "/kelo_energy.prom")) {}

void PowerDaemon::open(double now) {
  const ReadResult file = readFile(statePath_, kStateFileLimit, Owner::kSelf);
  if (file.ok) {
    std::string error;
    if (std::optional<State> state = stateFromJson(file.data, &error)) {
      state_ = std::move(*state);
      return;
    }
    warn_(statePath_ + ": " + error + "; moved aside, a new energy epoch begins");
    moveAside(statePath_);
  } else if (!file.missing) {
    warn_(file.error + "; moved aside, a new energy epoch begins");
    moveAside(statePath_);
  }
  beginEpoch(now);
}

void PowerDaemon::beginEpoch(double now) {
  state_ = State{};
  state_.referenceDate = static_cast<int64_t>(std::floor(now));
  // Within the same second as the last epoch's start, or with the clock set back, the date must
  // still change: it is how the library learns that the counters restarted.
  const ReadResult previous = readFile(reportPath_, kEnergyReportLimit);
  if (previous.ok) {
    const Value report = platform::parseJson(previous.data);
    const Value* date = report.find("BLMEnergyReferenceDate");
    if (date != nullptr && date->isNumber()) {
      const double last = std::floor(date->doubleValue());
      if (last >= static_cast<double>(state_.referenceDate) && last < 9e15) {
        state_.referenceDate = static_cast<int64_t>(last) + 1;
      }
    }
  }
}

bool PowerDaemon::sample(double now) {
  noteBoot(state_, reader_.bootId());

  const JournalChunk chunk = readJournal(journalPath_, state_.journal, kJournalReadLimit);
  report("journal", chunk.error);
  if (chunk.lostTrack) {
    warn_(journalPath_ +
          ": rotated or truncated more than the last sample could follow; "
          "events in between may be missing");
  }
  std::vector<Event> events;
  events.reserve(chunk.lines.size());
  uint64_t skipped = 0;
  for (const std::string& line : chunk.lines) {
    if (line.empty()) continue;
    Event event;
    const LineKind kind = parseEventLine(line, &event);
    if (kind == LineKind::kEvent) {
      events.push_back(std::move(event));
    } else if (kind == LineKind::kMalformed) {
      ++skipped;
    }
  }
  if (skipped > 0) {
    warn_(journalPath_ + ": skipped " + std::to_string(skipped) + " malformed line" +
          (skipped == 1 ? "" : "s"));
  }
  state_.skippedLines += skipped;
  state_.journal = chunk.next;

  const uint64_t overLimit = state_.overLimit;
  const SampleSummary summary =
      attribute(state_, events, reader_, now, settings_.cpuWatts, settings_.limits);
  if (state_.overLimit != overLimit) {
    warn_("limits reached (" + std::to_string(settings_.limits.processes) + " processes, " +
          std::to_string(settings_.limits.openIntervals) + " open intervals, " +
          std::to_string(settings_.limits.totals) + " report entries): " +
          std::to_string(state_.overLimit - overLimit) + " events or attributions refused");
  }
  const std::optional<double> battery = reader_.batteryCapacity();

  // The state first: a report ahead of its state would, after a crash, be followed by a report
  // whose cumulative amounts went back.
  bool ok = write(statePath_, stateToJson(state_));
  ok = write(reportPath_, reportJson(state_, battery, summary.model)) && ok;
  if (!textfilePath_.empty()) ok = write(textfilePath_, prometheusText(state_, battery)) && ok;
  return ok;
}

bool PowerDaemon::write(const std::string& path, const std::string& data) {
  const std::string error = replaceFile(path, data, 0644);
  report(path, error);
  return error.empty();
}

void PowerDaemon::report(const std::string& kind, const std::string& line) {
  std::string& last = reported_[kind];
  if (line == last) return;
  last = line;
  if (!line.empty()) warn_(line);
}

}  // namespace kelo::powerd
