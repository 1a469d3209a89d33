// log.h - logging, assertions, clock and version of the core runtime.
//
// Levels: 1 verbose, 2 debug, 4 info, 8 warning, 16 error. A message is
// emitted when its level is at or above the threshold (8 at start). With a
// callback set, the callback receives exactly the formatted text and nothing
// goes to stderr; without one, a line "<tag> <mark> <text>" goes to stderr.
// All functions are thread-safe.
#ifndef QUVAS_UTILITY_LOG_H
#define QUVAS_UTILITY_LOG_H

#include <quvas/export.h>

#include <string>

namespace quvas {
namespace utility {

enum LogLevel : int {
    kLogVerbose = 1,
    kLogDebug = 2,
    kLogInfo = 4,
    kLogWarning = 8,
    kLogError = 16,
};

// Formats printf-style (any length), emits when `level` passes the threshold,
// and returns the formatted text either way.
QUVAS_API std::string Log(int level, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// When `condition` is false, logs the formatted text at level 16. Never aborts
// and never throws: the caller's work goes on.
QUVAS_API void Assert(bool condition, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// Each returns 0 on success and non-zero on failure.
QUVAS_API int SetLogTag(const char* tag);                      // NULL refused
QUVAS_API int SetLogCallback(int (*callback)(const char*));   // NULL restores stderr
QUVAS_API int SetLogLevel(unsigned level);                     // 0 refused
QUVAS_API int GetLogLevel(unsigned* level);                    // NULL refused

// A monotonic clock: ticks, and ticks per second.
QUVAS_API double getTickCount();
QUVAS_API double getTickFrequency();

}  // namespace utility
}  // namespace quvas

// The core runtime's version (1.0).
QUVAS_API void QVN_Get_Core_Version(unsigned& major, unsigned& minor);

#endif  // QUVAS_UTILITY_LOG_H
