// Strict UTF-8 validation for keys that arrive through the C interface.
#ifndef KELO_CONFIG_UTF8_H_
#define KELO_CONFIG_UTF8_H_

#include <cstddef>

namespace kelo::config {

// True when the `size` bytes at `text` are well-formed UTF-8: no overlong forms, no surrogates
// (U+D800..U+DFFF), nothing above U+10FFFF, no stray continuation bytes, no truncated sequence.
bool isValidUtf8(const char* text, size_t size);

}  // namespace kelo::config

#endif  // KELO_CONFIG_UTF8_H_
