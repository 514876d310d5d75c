// The one place the tools replace a whole file, on the library's file layer (platform/SafeFile.h):
// written beside it, flushed, then renamed over it, so that a reader sees the old file or the new
// one, never a part, and a link at the path is replaced, never followed.
#ifndef KELO_TOOLS_COMMON_REPLACEFILE_H_
#define KELO_TOOLS_COMMON_REPLACEFILE_H_

#include <string>

namespace kelo::tools {

// False with `error` naming the path and the reason.
bool replaceFile(const std::string& path, const std::string& text, std::string* error);

}  // namespace kelo::tools

#endif  // KELO_TOOLS_COMMON_REPLACEFILE_H_
