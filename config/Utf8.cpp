#include "config/Utf8.h"

#include <cstdint>
#include <cstring>

namespace kelo::config {

bool isValidUtf8(const char* text, size_t size) {
  const auto* s = reinterpret_cast<const unsigned char*>(text);
  size_t i = 0;
  while (i < size) {
    // Keys are ASCII nearly always: skip eight plain bytes at a time.
    if (i + 8 <= size) {
      uint64_t word;
      std::memcpy(&word, s + i, 8);
      if ((word & 0x8080808080808080ull) == 0) {
        i += 8;
        continue;
      }
    }
    const unsigned char c = s[i];
    if (c < 0x80) {
      ++i;
      continue;
    }
    size_t length;
    unsigned char low = 0x80;  // bounds of the second byte, narrowed where needed
    unsigned char high = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) {
      length = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
      length = 3;
      if (c == 0xE0) low = 0xA0;   // overlong
      if (c == 0xED) high = 0x9F;  // surrogates
    } else if (c >= 0xF0 && c <= 0xF4) {
      length = 4;
      if (c == 0xF0) low = 0x90;   // overlong
      if (c == 0xF4) high = 0x8F;  // above U+10FFFF
    } else {
      return false;  // continuation byte, overlong C0/C1, or F5..FF
    }
    if (size - i < length) return false;
    if (s[i + 1] < low || s[i + 1] > high) return false;
    for (size_t k = 2; k < length; ++k) {
      if ((s[i + k] & 0xC0) != 0x80) return false;
    }
    i += length;
  }
  return true;
}

}  // namespace kelo::config
