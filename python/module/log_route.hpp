// log_route.hpp - the kit's log lines, handed to Python's logging.
//
// The kit reports problems only through the core's log callback, which may
// run on any thread. The callback installed here never touches Python: it
// appends the line to a buffer of the calling thread, and the wrapper hands
// the buffered lines to logging.getLogger("qvn_kit") once it holds the GIL
// again. The kit starts no threads, so every line lands in the buffer of the
// thread that made the call.
#pragma once

#include <string>

namespace qvnpy {

// The callback given to QVN_SetLogCallback.
int CollectLogLine(const char* text);

// A line of the module's own, emitted with the kit's (a refusal that a
// function reports by its result rather than by raising).
void NoteLogLine(std::string text);

// Emits what the kit logged during a wrapper, also when the wrapper throws.
// Every function that calls into the kit holds one.
struct LogFlush {
    LogFlush() = default;
    LogFlush(const LogFlush&) = delete;
    LogFlush& operator=(const LogFlush&) = delete;
    ~LogFlush();
};

}  // namespace qvnpy
