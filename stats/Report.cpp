#include <cstdint>

#include "kelo/stats.h"
#include "platform/Notify.h"

namespace {

constexpr char kReportNotification[] = "com.vorn.Kelo.CUMUNotificationReport";

// Type in bits 0-3, data in bits 4-47, energy in bits 48-63; whatever does not fit is dropped.
uint64_t packReport(int64_t type, int64_t data, int64_t energy) {
  return ((static_cast<uint64_t>(data) << 4) & 0xFFFFFFFFFFF0ULL) |
         (static_cast<uint64_t>(type) & 0xFULL) | (static_cast<uint64_t>(energy) << 48);
}

}  // namespace

extern "C" {

void reportCumu(int64_t type, int64_t data, int64_t energy) {
  using namespace kelo::platform;
  int token = 0;
  if (notify_register_check(kReportNotification, &token) != kNotifyStatusOk) return;
  // A report whose state could not be stored must not wake the collector with a stale one.
  if (notify_set_state(token, packReport(type, data, energy)) == kNotifyStatusOk) {
    notify_post(kReportNotification);
  }
  notify_cancel(token);
}

void reportCumuBackgroundDownload(int64_t data, int64_t energy) { reportCumu(1, data, energy); }

void reportCumuNonDiscretionaryBackgroundDownload(int64_t data, int64_t energy) {
  reportCumu(2, data, energy);
}

}  // extern "C"
