// LOG_message, the one logging function the library offers its users. It is
// kept apart from api/log.h so that the installed headers do not need the
// platform's log header. Stateless; thread-safe as stdio is.
#ifndef TPA_API_LOG_MESSAGE_H_
#define TPA_API_LOG_MESSAGE_H_

#include "tpa/api/export.h"

// Prints `format` with its arguments to standard output, exactly as given: no
// prefix, tag or line end. The first two arguments are ignored. Returns what
// vfprintf returned. Kept for the library's users; the library never calls it.
extern "C" TPA_EXPORT int LOG_message(int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

#endif  // TPA_API_LOG_MESSAGE_H_
