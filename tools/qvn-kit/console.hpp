// console.hpp - what the tool shows while it runs: a progress bar and the
// times of the demo's steps.
#ifndef QVN_TOOL_CONSOLE_HPP
#define QVN_TOOL_CONSOLE_HPP

#include <string>

namespace qvntool {

// Progress on stderr, drawn only when stderr is a terminal.
class Progress {
public:
    Progress(const std::string& label, long total);
    ~Progress();
    void Step(long done);

private:
    std::string label_;
    long total_;
    bool active_;
};

// Seconds between two calls, from a monotonic clock.
class Stopwatch {
public:
    Stopwatch();
    double Seconds() const;

private:
    double start_;
};

}  // namespace qvntool

#endif  // QVN_TOOL_CONSOLE_HPP
