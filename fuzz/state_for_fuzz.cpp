// getStateForC with arbitrary bytes: a key that is not UTF-8 yields 0 without a lookup, any other
// key yields what the configurator's own lookup gives (-1 for a key no source supplied), and no
// key can crash the call.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/FuzzPlatform.h"
#include "kelo/KeloConfigurator.h"
#include "kelo/config.h"

namespace {

// Written apart from the library's validator on purpose, from the definition of the encoding:
// decode each sequence to its code point and reject what the decoding does not allow.
bool wellFormedUtf8(const std::string& s) {
  size_t i = 0;
  while (i < s.size()) {
    const auto lead = static_cast<unsigned char>(s[i]);
    size_t extra;
    uint32_t cp;
    uint32_t minimum;
    if (lead < 0x80) {
      ++i;
      continue;
    } else if ((lead & 0xE0) == 0xC0) {
      extra = 1, cp = lead & 0x1F, minimum = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
      extra = 2, cp = lead & 0x0F, minimum = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
      extra = 3, cp = lead & 0x07, minimum = 0x10000;
    } else {
      return false;
    }
    if (s.size() - i <= extra) return false;
    for (size_t k = 1; k <= extra; ++k) {
      const auto c = static_cast<unsigned char>(s[i + k]);
      if ((c & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (c & 0x3F);
    }
    if (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    i += extra + 1;
  }
  return true;
}

bool ascii(const std::string& s) {
  for (const char c : s) {
    if (static_cast<unsigned char>(c) >= 0x80) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // The default bundle, so that known keys have values and a hit takes the lock-free path.
  kelo::fuzz::installDefaultBundle();
  // The configurator is deliberately not created here: the first valid key creates it, an
  // invalid one must not.
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A C string ends at its first NUL: the key is what comes before it.
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const std::string key(bytes.c_str());
  const long long reading = getStateForC(bytes.c_str());
  if (!wellFormedUtf8(key)) {
    if (reading != 0) kelo::fuzz::fail("a key that is not UTF-8 read %lld, not 0", reading);
    return 0;
  }
  const int64_t expected = kelo::KeloConfigurator::sharedInstance()->getStateFor(key);
  if (reading != expected) {
    kelo::fuzz::fail("getStateForC read %lld where the configurator reads %lld", reading,
                     static_cast<long long>(expected));
  }
  // Every key of the table is ASCII.
  if (!ascii(key) && reading != -1) {
    kelo::fuzz::fail("a non-ASCII key read %lld, not -1", reading);
  }
  return 0;
}
