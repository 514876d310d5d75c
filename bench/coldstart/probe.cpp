// What a daemon does first, as a whole process: starts with the library, installs its folders,
// logs one line through the detailed logger and reads one configuration key. Usage:
// kelo_coldstart_probe FOLDER, where FOLDER holds root/ (the device root with the default bundle)
// and home/.
#include <string>

#include "kelo/Overrides.h"
#include "kelo/config.h"
#include "kelo/logging.h"

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  kelo::platform::Overrides overrides;
  overrides.deviceRoot = std::string(argv[1]) + "/root";
  overrides.homeDirectory = std::string(argv[1]) + "/home";
  overrides.systemLog = [](int, const char*) {};
  kelo::platform::installOverrides(std::move(overrides));
  KELO_CLOGMODE(true);
  KELO_CLOG("cold start");
  return getStateForC("globalPowerBudget") > 0 ? 0 : 1;
}
