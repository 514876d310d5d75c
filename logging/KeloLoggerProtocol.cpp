#include "kelo/KeloLoggerProtocol.h"

namespace kelo {

// Out of line, so that the interface's type information and virtual table live in the library.
KeloLoggerProtocol::~KeloLoggerProtocol() = default;

}  // namespace kelo
