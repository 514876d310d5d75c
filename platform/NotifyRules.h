// Who may use a notification name: the name rules, the folder that holds the state files, and
// the checks made when a state file is opened.
#ifndef KELO_PLATFORM_NOTIFYRULES_H_
#define KELO_PLATFORM_NOTIFYRULES_H_

#include <cstdint>
#include <memory>
#include <string>

#include "platform/NotifyStateFile.h"

namespace kelo::platform::notify {

// Not empty, not too long, no '/', neither "." nor "..".
bool validName(const char* name);
// The notification folder under the device root.
std::string folderPath();
// Makes `path` and the folders above it (0755). True when every level exists afterwards.
bool makeFolder(const std::string& path);

enum class Access { kWrite, kRead };

// Opens (or creates) the state file of `name`. kWrite needs a folder the caller may write and a
// file it may write; kRead settles for a readable file and creates it only when the folder
// allows. The file must be a regular file (a link is never followed) owned by the caller or by
// the folder's owner.
uint32_t openStateFile(const char* name, Access access, std::shared_ptr<StateFile>* out);

}  // namespace kelo::platform::notify

#endif  // KELO_PLATFORM_NOTIFYRULES_H_
