// The exported C entries of the energy service. Each obtains the shared service and forwards;
// no exception crosses the C boundary (the only one possible is running out of memory, which
// yields the neutral result).
#include "kelo/AmpvexStub.h"
#include "kelo/energy.h"

extern "C" {

int64_t energyConsumedForNonDiscDownload(void) {
  try {
    return kelo::AmpvexStub::instance()->energyConsumedForNonDiscDownload();
  } catch (...) {
    return 0;
  }
}

int64_t energyConsumedForBackgroundDownload(void) {
  try {
    return kelo::AmpvexStub::instance()->energyConsumedForBackgroundDownload();
  } catch (...) {
    return 0;
  }
}

void energyConsumedRefresh(void) {
  try {
    kelo::AmpvexStub::instance()->energyConsumedRefresh();
  } catch (...) {
  }
}

void energyStartLogging(const char* bundleId, int16_t type, uint64_t seqNum) {
  try {
    kelo::AmpvexStub::instance()->energyStartLogging(bundleId, type, seqNum);
  } catch (...) {
  }
}

void energyStopLogging(const char* bundleId, int16_t type, uint64_t seqNum) {
  try {
    kelo::AmpvexStub::instance()->energyStopLogging(bundleId, type, seqNum);
  } catch (...) {
  }
}

}  // extern "C"
