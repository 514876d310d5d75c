// JSON, the encoding of the library's files on disk (bundles, preferences, device answers,
// energy reports). Only this file and its source know the JSON library.
#ifndef KELO_PLATFORM_JSON_H_
#define KELO_PLATFORM_JSON_H_

#include <string>
#include <string_view>

#include "kelo/Value.h"
#include "platform/SafeFile.h"

namespace kelo::platform {

// Nesting deeper than this is refused as malformed.
inline constexpr int kMaxJsonDepth = 64;

// Parses one JSON document. Integers that fit 64 bits become integers, other numbers reals.
// Malformed or over-deep input gives an error value naming `fileName`, line and column.
// Never throws.
Value parseJson(std::string_view text, std::string_view fileName = {});

// A JSON file read through readFile: `missing` for no such file, else `refused` names the path
// and why the file was not read (a link, a FIFO, too large...), else `value` holds the document
// or an error value naming the file, line and column.
struct JsonFile {
  bool missing = false;
  std::string refused;
  Value value;
};
JsonFile readJsonFile(const std::string& path, std::size_t limit, Owner owner = Owner::kAnyone);

// Serialises a value; dates become seconds since 1970, error values null. Invalid UTF-8 in
// strings is replaced. Never throws.
std::string toJson(const Value& value, bool pretty = false);

}  // namespace kelo::platform

#endif  // KELO_PLATFORM_JSON_H_
