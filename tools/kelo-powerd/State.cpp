#include "tools/kelo-powerd/State.h"

#include <climits>
#include <utility>
#include <vector>

#include "kelo/Value.h"
#include "platform/Json.h"
#include "tools/kelo-powerd/Events.h"

namespace kelo::powerd {

namespace {

// A file of another layout is no state of ours: a new epoch begins.
constexpr int64_t kVersion = 1;

Value intervalValue(const IntervalKey& k) {
  return Value::array(
      {Value::string(k.bundleId), Value::integer(k.updateType), unsignedValue(k.seqNum)});
}

// Reads the fields of one state document; the first problem stops it with a message.
class Parser {
 public:
  explicit Parser(std::string* error) : error_(error) {}

  bool fail(const std::string& what) {
    if (error_ != nullptr && error_->empty()) *error_ = what;
    return false;
  }

  bool number(const Value* v, const char* name, uint64_t* out) {
    const std::optional<uint64_t> n = unsignedFrom(v);
    if (!n) return fail(std::string("\"") + name + "\" is not a non-negative integer");
    *out = *n;
    return true;
  }

  bool optionalNumber(const Value& d, const char* name, std::optional<uint64_t>* out) {
    const Value* v = d.find(name);
    if (v == nullptr) return true;
    uint64_t n = 0;
    if (!number(v, name, &n)) return false;
    *out = n;
    return true;
  }

  bool type(const Value* v, const char* name, int* out) {
    if (v == nullptr || v->type() != Value::Type::kInteger || v->integerValue() < INT_MIN ||
        v->integerValue() > INT_MAX) {
      return fail(std::string("\"") + name + "\" is not an update type");
    }
    *out = static_cast<int>(v->integerValue());
    return true;
  }

  bool text(const Value* v, const char* name, std::string* out) {
    if (v == nullptr || !v->isString() || v->asString().size() > kMaxBundleIdBytes) {
      return fail(std::string("\"") + name + "\" is not a string");
    }
    *out = v->asString();
    return true;
  }

  bool process(const Value& p, State* state) {
    if (!p.isDictionary()) return fail("a process is not an object");
    uint64_t pid = 0;
    TrackedProcess tracked;
    if (!number(p.find("pid"), "pid", &pid) ||
        !number(p.find("start"), "start", &tracked.startTicks) ||
        !optionalNumber(p, "cpu", &tracked.cpuTicks)) {
      return false;
    }
    if (pid == 0 || pid > INT_MAX) return fail("\"pid\" is out of range");
    const Value* open = p.find("open");
    if (open == nullptr || !open->isArray()) return fail("\"open\" is not an array");
    for (const Value& i : open->asArray()) {
      IntervalKey key;
      if (i.asArray().size() != 3) return fail("an interval is not [bundleID, updateType, seqNum]");
      if (!text(&i.asArray()[0], "bundleID", &key.bundleId) ||
          !type(&i.asArray()[1], "updateType", &key.updateType) ||
          !number(&i.asArray()[2], "seqNum", &key.seqNum)) {
        return false;
      }
      tracked.open.insert(std::move(key));
    }
    if (!state->processes.emplace(static_cast<int>(pid), std::move(tracked)).second) {
      return fail("a pid is listed twice");
    }
    return true;
  }

  bool total(const Value& t, State* state) {
    if (t.asArray().size() != 3 || !t.asArray()[2].isNumber() ||
        !(t.asArray()[2].doubleValue() >= 0)) {
      return fail("a total is not [bundleID, updateType, energy_mWh]");
    }
    WorkKey key;
    if (!text(&t.asArray()[0], "bundleID", &key.bundleId) ||
        !type(&t.asArray()[1], "updateType", &key.updateType)) {
      return false;
    }
    state->totals[std::move(key)] = t.asArray()[2].doubleValue();
    return true;
  }

  bool state(const Value& d, State* state) {
    if (!d.isDictionary()) return fail("not a JSON object");
    const Value* version = d.find("version");
    if (version == nullptr || version->integerValue() != kVersion) return fail("not version 1");
    const Value* date = d.find("referenceDate");
    if (date == nullptr || date->type() != Value::Type::kInteger) {
      return fail("\"referenceDate\" is not an integer");
    }
    state->referenceDate = date->integerValue();
    if (const Value* boot = d.find("bootId");
        boot != nullptr && !text(boot, "bootId", &state->bootId)) {
      return false;
    }
    if (const Value* uptime = d.find("uptime"); uptime != nullptr) {
      if (!uptime->isNumber()) return fail("\"uptime\" is not a number");
      state->uptime = uptime->doubleValue();
    }
    if (!optionalNumber(d, "busyTicks", &state->busyTicks) ||
        !number(d.find("skippedLines"), "skippedLines", &state->skippedLines) ||
        !number(d.find("overLimit"), "overLimit", &state->overLimit)) {
      return false;
    }
    if (const Value* packages = d.find("packages"); packages != nullptr) {
      if (!packages->isDictionary()) return fail("\"packages\" is not an object");
      state->packages.emplace();
      for (const auto& [zone, energy] : packages->asDictionary()) {
        if (!number(&energy, "packages", &(*state->packages)[zone])) return false;
      }
    }
    if (const Value* j = d.find("journal"); j != nullptr) {
      state->journal.known = true;
      if (!number(j->find("device"), "device", &state->journal.device) ||
          !number(j->find("inode"), "inode", &state->journal.inode) ||
          !number(j->find("offset"), "offset", &state->journal.offset)) {
        return false;
      }
    }
    const Value* processes = d.find("processes");
    const Value* totals = d.find("totals");
    if (processes == nullptr || !processes->isArray() || totals == nullptr || !totals->isArray()) {
      return fail("\"processes\" or \"totals\" is not an array");
    }
    for (const Value& p : processes->asArray()) {
      if (!process(p, state)) return false;
    }
    for (const Value& t : totals->asArray()) {
      if (!total(t, state)) return false;
    }
    return true;
  }

 private:
  std::string* error_;
};

}  // namespace

std::string stateToJson(const State& s) {
  Value::Dictionary d;
  d.emplace("version", Value::integer(kVersion));
  d.emplace("referenceDate", Value::integer(s.referenceDate));
  d.emplace("bootId", Value::string(s.bootId));
  if (s.uptime) d.emplace("uptime", Value::real(*s.uptime));
  if (s.busyTicks) d.emplace("busyTicks", unsignedValue(*s.busyTicks));
  if (s.packages) {
    Value::Dictionary zones;
    for (const auto& [zone, energy] : *s.packages) zones.emplace(zone, unsignedValue(energy));
    d.emplace("packages", Value::dictionary(std::move(zones)));
  }
  if (s.journal.known) {
    d.emplace("journal", Value::dictionary({{"device", unsignedValue(s.journal.device)},
                                            {"inode", unsignedValue(s.journal.inode)},
                                            {"offset", unsignedValue(s.journal.offset)}}));
  }
  Value::Array processes;
  processes.reserve(s.processes.size());
  for (const auto& [pid, p] : s.processes) {
    Value::Array open;
    open.reserve(p.open.size());
    for (const IntervalKey& k : p.open) open.push_back(intervalValue(k));
    Value::Dictionary entry{{"pid", Value::integer(pid)},
                            {"start", unsignedValue(p.startTicks)},
                            {"open", Value::array(std::move(open))}};
    if (p.cpuTicks) entry.emplace("cpu", unsignedValue(*p.cpuTicks));
    processes.push_back(Value::dictionary(std::move(entry)));
  }
  d.emplace("processes", Value::array(std::move(processes)));
  Value::Array totals;
  totals.reserve(s.totals.size());
  for (const auto& [key, mwh] : s.totals) {
    totals.push_back(Value::array(
        {Value::string(key.bundleId), Value::integer(key.updateType), Value::real(mwh)}));
  }
  d.emplace("totals", Value::array(std::move(totals)));
  d.emplace("skippedLines", unsignedValue(s.skippedLines));
  d.emplace("overLimit", unsignedValue(s.overLimit));
  return platform::toJson(Value::dictionary(std::move(d))) + "\n";
}

std::optional<State> stateFromJson(const std::string& text, std::string* error) {
  const Value document = platform::parseJson(text);
  if (document.isError()) {
    const Value::Error& e = document.asError();
    if (error != nullptr) {
      *error =
          e.message + " at line " + std::to_string(e.line) + ", column " + std::to_string(e.column);
    }
    return std::nullopt;
  }
  State state;
  if (!Parser(error).state(document, &state)) return std::nullopt;
  return state;
}

}  // namespace kelo::powerd
