// The inline gates of the C logging front (kelo/logging.h): each caller tests one byte before
// it calls into the library at all. They start open, so the first call creates the loggers;
// afterwards they follow the loggers' canWriteToFile flags.
#ifndef KELO_LOGGING_GATES_H_
#define KELO_LOGGING_GATES_H_

namespace kelo::logging {

// `detailed`: the detailed logger can write (KELO_CLOG, KELO_ConsoleLog). `either`: either
// logger can write (KELO_CLOG_MASK). Callers serialise updates so the two stay consistent.
void setGates(bool detailed, bool either);

}  // namespace kelo::logging

#endif  // KELO_LOGGING_GATES_H_
