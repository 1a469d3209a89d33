// common.hpp - what every subcommand of qvn-kit shares: the error type that
// becomes one line on stderr, parsers of option values, files that appear
// only when complete, and the progress bar.
#ifndef QVN_TOOL_COMMON_HPP
#define QVN_TOOL_COMMON_HPP

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace qvntool {

// A fault in the user's input or environment. main() prints
// "qvn-kit: <what>" and exits with the code.
class ToolError : public std::runtime_error {
public:
    explicit ToolError(const std::string& what, int code = 1)
        : std::runtime_error(what), code_(code) {}
    int code() const { return code_; }

private:
    int code_;
};

// Exit codes.
constexpr int kExitUsage = 2;     // bad option value, unknown name
constexpr int kExitInput = 3;     // missing, unreadable or malformed input
constexpr int kExitOutput = 4;    // output could not be written
constexpr int kExitLibrary = 5;   // the library refused the input

struct Size2 {
    int w = 0;
    int h = 0;
};

// "640x480" -> {640, 480}; both positive.
Size2 ParseSize(const std::string& text, const char* what);
// "3x256x256" -> {3, 256, 256}; all positive.
std::vector<int> ParseDims(const std::string& text, const char* what, size_t count);
// "a,b,c" -> exactly `count` finite floats.
std::vector<float> ParseFloats(const std::string& text, const char* what, size_t count);
// "a,b,c" -> exactly `count` integers.
std::vector<int> ParseInts(const std::string& text, const char* what, size_t count);
// Orientation flags: a number (17) or names joined by '|' or '+'
// ("rotate90r|mirror"). Names: upright, rotate90r, rotate90l, rotate180,
// flipv, mirror, box_rotate180.
uint32_t ParseOrientation(const std::string& text);
std::string OrientationName(uint32_t flags);
// Frame formats for input frames: nv12, nv21, bgra, rgba, yuv420sp_a,
// yuv420sp_b. Returns the QVN_PIX_FMT value.
uint32_t ParseFrameFormat(const std::string& text);
const char* FrameFormatName(uint32_t pix_fmt);

// Lower-case extension with the dot (".png"), or "" when none.
std::string Extension(const std::string& path);
// Reads a whole file; ToolError naming the file when it cannot.
std::vector<uint8_t> ReadFileBytes(const std::string& path);

// Writes `path` through a temporary file in the same directory that is
// renamed over `path` only when `write` returns normally; on an exception the
// temporary is removed and the exception goes on. Nothing partial is left.
void WriteAtomically(const std::string& path,
                     const std::function<void(const std::string& tmp_path)>& write);
void WriteTextAtomically(const std::string& path, const std::string& text);
void WriteBytesAtomically(const std::string& path, const void* data, size_t size);

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

// Routes the core's log lines to stderr as "qvn-kit: library: <text>".
void InstallLogRoute();

// Seconds between two calls, from a monotonic clock.
class Stopwatch {
public:
    Stopwatch();
    double Seconds() const;

private:
    double start_;
};

}  // namespace qvntool

#endif  // QVN_TOOL_COMMON_HPP
