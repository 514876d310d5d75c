// The data-source interface of the loggers. A source writes its state through the system log
// client and message handles it is given, at the level it is given, with vsl_log.
//
// Both operations are called on the logger's queue: a source must not log through the C logging
// front (KELO_CLOG and friends) from inside them, since that would wait on the same queue. They
// may run while the source's owner changes its state on another thread, so a source reads its
// fields in a way that is safe against that (atomics or a short lock never held while logging).
#ifndef KELO_LOGGING_KELOLOGGERPROTOCOL_H_
#define KELO_LOGGING_KELOLOGGERPROTOCOL_H_

#include <cstdint>

#include "kelo/export.h"
#include "kelo/vsl.h"

namespace kelo {

class KELO_EXPORT KeloLoggerProtocol {
 public:
  virtual ~KeloLoggerProtocol();
  // Writes the whole state: called for a full dump, with level 6.
  virtual void logAll(vsl_client_t client, vsl_msg_t withMsg, int32_t withLevel) = 0;
  // Writes a short summary: called each time a logger's file has just been opened, with level 6.
  virtual void logLight(vsl_client_t client, vsl_msg_t withMsg, int32_t withLevel) = 0;
};

}  // namespace kelo

#endif  // KELO_LOGGING_KELOLOGGERPROTOCOL_H_
