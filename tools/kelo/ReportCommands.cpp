#include "kelo/stats.h"
#include "platform/Notify.h"
#include "tools/kelo/Commands.h"

namespace kelo::tool {

int report(const Context& context, const std::string& kind, const std::string& dataText,
           const std::string& energyText) {
  const std::optional<int64_t> data = parseInteger(dataText);
  const std::optional<int64_t> energy = parseInteger(energyText);
  if (!data || *data < 0) return fail(kExitUsage, "DATA must be a whole number of bytes: " + dataText);
  if (!energy || *energy < 0) return fail(kExitUsage, "ENERGY must be a whole number: " + energyText);
  if (*data >= (int64_t{1} << 44)) {
    return fail(kExitUsage, "DATA must be below 2^44: a report carries it in 44 bits");
  }
  if (*energy > 0xFFFF) return fail(kExitUsage, "ENERGY must be at most 65535: a report carries it in 16 bits");
  context.install();
  // The report functions drop a report they cannot post without a word; check first, so that
  // the operator hears of it.
  int token = 0;
  const uint32_t status =
      platform::notify_register_check("com.vorn.Kelo.CUMUNotificationReport", &token);
  if (status != platform::kNotifyStatusOk) {
    return fail(kExitFailure, "cannot post the report notification (status " +
                                  std::to_string(status) +
                                  "): the notification folder is missing or not writable");
  }
  platform::notify_cancel(token);
  if (kind == "bgdownload") {
    reportCumuBackgroundDownload(*data, *energy);
  } else {
    reportCumuNonDiscretionaryBackgroundDownload(*data, *energy);
  }
  return kExitOk;
}

}  // namespace kelo::tool
