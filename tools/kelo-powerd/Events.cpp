#include "tools/kelo-powerd/Events.h"

#include <climits>
#include <utility>

#include "kelo/Value.h"
#include "platform/Json.h"

namespace kelo::powerd {

namespace {

std::optional<int> smallInteger(const Value* v, int64_t low, int64_t high) {
  if (v == nullptr || v->type() != Value::Type::kInteger) return std::nullopt;
  const int64_t i = v->integerValue();
  if (i < low || i > high) return std::nullopt;
  return static_cast<int>(i);
}

}  // namespace

std::optional<uint64_t> unsignedFrom(const Value* v) {
  if (v == nullptr) return std::nullopt;
  if (v->type() == Value::Type::kInteger) {
    const int64_t i = v->integerValue();
    if (i < 0) return std::nullopt;
    return static_cast<uint64_t>(i);
  }
  if (v->type() != Value::Type::kReal) return std::nullopt;
  const double d = v->doubleValue();
  if (!(d >= 0)) return std::nullopt;
  if (d >= 18446744073709551616.0) return UINT64_MAX;
  return static_cast<uint64_t>(d);
}

Value unsignedValue(uint64_t n) {
  return n <= static_cast<uint64_t>(INT64_MAX) ? Value::integer(static_cast<int64_t>(n))
                                               : Value::real(static_cast<double>(n));
}

LineKind parseEventLine(std::string_view line, Event* event) {
  if (line.size() > kMaxLineBytes) return LineKind::kMalformed;
  const Value v = platform::parseJson(line);
  if (!v.isDictionary()) return LineKind::kMalformed;
  const Value* name = v.find("event");
  const std::optional<int> pid = smallInteger(v.find("pid"), 1, INT_MAX);
  if (name == nullptr || !name->isString() || !pid) return LineKind::kMalformed;
  const std::string& kind = name->asString();

  Event e;
  e.pid = *pid;
  if (const Value* time = v.find("time"); time != nullptr) {
    if (!time->isNumber()) return LineKind::kMalformed;
    e.time = time->doubleValue();
  }
  if (kind == "stopAll") {
    e.kind = Event::Kind::kStopAll;
  } else if (kind == "start" || kind == "stop") {
    e.kind = kind == "start" ? Event::Kind::kStart : Event::Kind::kStop;
    const Value* id = v.find("bundleID");
    const std::optional<int> type = smallInteger(v.find("updateType"), INT_MIN, INT_MAX);
    const std::optional<uint64_t> seq = unsignedFrom(v.find("seqNum"));
    if (id == nullptr || !id->isString() || id->asString().size() > kMaxBundleIdBytes || !type ||
        !seq) {
      return LineKind::kMalformed;
    }
    e.bundleId = id->asString();
    e.updateType = *type;
    e.seqNum = *seq;
  } else if (kind == "other") {
    return LineKind::kIgnored;
  } else {
    return LineKind::kMalformed;
  }
  *event = std::move(e);
  return LineKind::kEvent;
}

}  // namespace kelo::powerd
