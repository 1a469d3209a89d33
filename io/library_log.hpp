// library_log.hpp - the core's log lines as failures of the run.
#ifndef QVN_IO_LIBRARY_LOG_HPP
#define QVN_IO_LIBRARY_LOG_HPP

#include <string>

namespace qvntool {

// Captures the core's log lines. Every line the kit logs reports a refusal
// (a rejected argument or a tensor that does not fit), after which the output
// may be unfilled, so a captured line turns into a failure at the next
// CheckLibrary.
void InstallLogRoute();
// ToolError(kExitLibrary) "<what>: <the library's first line>" when the
// library logged anything since the last check.
void CheckLibrary(const std::string& what);

}  // namespace qvntool

#endif  // QVN_IO_LIBRARY_LOG_HPP
