#include <kelo/Overrides.h>
#include <kelo/Value.h>
#include <kelo/kelo.h>

#include <cstdio>
#include <filesystem>

int main() {
  // A scratch device root with no bundle: the configurator starts empty.
  const auto root = std::filesystem::temp_directory_path() / "kelo-consumer-root";
  std::filesystem::create_directories(root);
  kelo::platform::Overrides overrides;
  overrides.deviceRoot = root.string();
  overrides.homeDirectory = root.string();
  kelo::platform::installOverrides(overrides);

  const kelo::Value v = kelo::Value::real(2.9);
  std::printf("c++ consumer: integer reading of 2.9 is %lld, missing key reads %lld\n",
              static_cast<long long>(v.integerValue()), getStateForC("noSuchKey"));
  return v.integerValue() == 2 && getStateForC("noSuchKey") == -1 ? 0 : 1;
}
