// The receiving end of the cross-process download report.
#include "kelo/AppLaunchStatsCumu.h"
#include "kelo/logging.h"
#include "platform/Notify.h"
#include "stats/StatsInternal.h"

namespace kelo {

void AppLaunchStatsCumu::registerReports() {
  int token = 0;
  const uint32_t status = platform::notify_register_dispatch(
      kReportNotificationName, &token, cumuQueue_.get(), [this](int t) { handleReport(t); });
  // A failed registration leaves the token 0, so the next cycle tries again.
  if (status == platform::kNotifyStatusOk) BGReportToken_ = token;
}

void AppLaunchStatsCumu::handleReport(int token) {
  uint64_t state = 0;
  if (platform::notify_get_state(token, &state) != platform::kNotifyStatusOk) return;
  if (state == 0) return;
  const auto type = static_cast<int64_t>(state & 0xF);
  const auto data = static_cast<int64_t>((state >> 4) & 0xFFFFFFFFFFFull);
  const auto energy = static_cast<int64_t>(state >> 48);
  KELO_CLOG("notification rcv on type %lld, data %lld, pw %lld", static_cast<long long>(type),
            static_cast<long long>(data), static_cast<long long>(energy));
  if (type == 2) {
    nonDiscretionaryAdd(static_cast<uint64_t>(data), static_cast<uint64_t>(energy));
  } else if (type == 1) {
    backgroundSucceeds(data, energy);
  }
}

}  // namespace kelo
