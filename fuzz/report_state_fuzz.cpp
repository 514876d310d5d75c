// A notification state word (the first 8 input bytes, little-endian) through the real report
// path: the state is set and the name posted, the collector's handler decodes it on its queue.
// Type 1 adds a background download, type 2 a non-discretionary one; any other word changes no
// sum. Each post must be delivered once: a lost or repeated delivery shows in the sums.
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>

#include "fuzz/FuzzPlatform.h"
#include "kelo/AppLaunchStatsCumu.h"
#include "platform/Notify.h"
#include "platform/SerialQueue.h"

namespace {

constexpr const char* kReportName = "com.vorn.Kelo.CUMUNotificationReport";

// Uploads would go to a database under the scratch home; nothing here needs them.
class NoMetrics final : public kelo::platform::MetricsSink {
 public:
  void setValue(const std::string&, int64_t) override {}
  void addValue(const std::string&, int64_t) override {}
};

// A second registration of the report name, made after the collector's. A post delivers the
// registrations in the order they were made, so once this one has run, the collector's delivery
// has run or sits on its queue, where a snapshot waits for it.
struct Listener {
  std::mutex mutex;
  std::condition_variable changed;
  uint64_t deliveries = 0;
};

struct Target {
  kelo::AppLaunchStatsCumu* collector = nullptr;
  std::unique_ptr<kelo::platform::SerialQueue> queue;
  Listener listener;
  int postToken = 0;
};

Target* gTarget = nullptr;

int64_t wrapped(int64_t a, uint64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) + b);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kelo::platform::Overrides extra;
  extra.metrics = std::make_shared<NoMetrics>();
  kelo::fuzz::platform(std::move(extra));
  auto* t = new Target();
  t->collector = kelo::AppLaunchStatsCumu::sharedInstance();
  // The first cycle starts listening for reports.
  t->collector->newCycleWithApps({});
  if (t->collector->snapshot().BGReportToken == 0) {
    kelo::fuzz::fail("the collector is not listening");
  }

  t->queue = std::make_unique<kelo::platform::SerialQueue>("com.vorn.Kelo.fuzz.listener");
  Listener* listener = &t->listener;
  int token = 0;
  if (kelo::platform::notify_register_dispatch(kReportName, &token, t->queue.get(),
                                               [listener](int) {
                                                 std::lock_guard<std::mutex> lock(listener->mutex);
                                                 ++listener->deliveries;
                                                 listener->changed.notify_all();
                                               }) != kelo::platform::kNotifyStatusOk ||
      kelo::platform::notify_register_check(kReportName, &t->postToken) !=
          kelo::platform::kNotifyStatusOk) {
    kelo::fuzz::fail("the report name could not be registered");
  }
  gTarget = t;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Target& t = *gTarget;
  uint8_t word[8] = {};
  std::memcpy(word, data, size < sizeof word ? size : sizeof word);
  uint64_t state = 0;
  for (int i = 7; i >= 0; --i) state = (state << 8) | word[i];

  const kelo::AppLaunchStatsCumu::Snapshot before = t.collector->snapshot();
  uint64_t seen;
  {
    std::lock_guard<std::mutex> lock(t.listener.mutex);
    seen = t.listener.deliveries;
  }
  if (kelo::platform::notify_set_state(t.postToken, state) != kelo::platform::kNotifyStatusOk ||
      kelo::platform::notify_post(kReportName) != kelo::platform::kNotifyStatusOk) {
    kelo::fuzz::fail("the report could not be posted");
  }
  {
    std::unique_lock<std::mutex> lock(t.listener.mutex);
    if (!t.listener.changed.wait_for(lock, std::chrono::seconds(5),
                                     [&] { return t.listener.deliveries != seen; })) {
      kelo::fuzz::fail("a post was not delivered within 5 s");
    }
  }
  // The handler adds the amounts through the collector's own operations, which post a further
  // task: the first snapshot waits for the handler (if it was queued rather than run at once),
  // the second for the task it posted.
  t.collector->snapshot();
  const kelo::AppLaunchStatsCumu::Snapshot after = t.collector->snapshot();

  const uint64_t type = state & 0xF;
  const uint64_t amount = (state >> 4) & 0xFFFFFFFFFFFull;
  const uint64_t energy = state >> 48;
  kelo::AppLaunchStatsCumu::Snapshot expected = before;
  if (state != 0 && type == 1) {
    expected.avgDownloadsize = wrapped(before.avgDownloadsize, amount);
    expected.avgPWConsumed = wrapped(before.avgPWConsumed, energy);
    expected.totalBGDownloads =
        static_cast<int32_t>(static_cast<uint32_t>(before.totalBGDownloads) + 1u);
    expected.hasStats |= kelo::AppLaunchStatsCumu::kFlagBackgroundDownload;
  } else if (state != 0 && type == 2) {
    expected.totalNonDiscDownload = wrapped(before.totalNonDiscDownload, amount);
    expected.totalNonDiscEnergy = wrapped(before.totalNonDiscEnergy, energy);
  }
  if (after.avgDownloadsize != expected.avgDownloadsize ||
      after.avgPWConsumed != expected.avgPWConsumed ||
      after.totalBGDownloads != expected.totalBGDownloads || after.hasStats != expected.hasStats ||
      after.totalNonDiscDownload != expected.totalNonDiscDownload ||
      after.totalNonDiscEnergy != expected.totalNonDiscEnergy) {
    kelo::fuzz::fail(
        "state %016llx: the sums moved otherwise than its decoding says: downloads %d -> %d, "
        "size %lld -> %lld, energy %lld -> %lld, non-discretionary %lld -> %lld and %lld -> %lld",
        static_cast<unsigned long long>(state), before.totalBGDownloads, after.totalBGDownloads,
        static_cast<long long>(before.avgDownloadsize),
        static_cast<long long>(after.avgDownloadsize), static_cast<long long>(before.avgPWConsumed),
        static_cast<long long>(after.avgPWConsumed),
        static_cast<long long>(before.totalNonDiscDownload),
        static_cast<long long>(after.totalNonDiscDownload),
        static_cast<long long>(before.totalNonDiscEnergy),
        static_cast<long long>(after.totalNonDiscEnergy));
  }
  return 0;
}
