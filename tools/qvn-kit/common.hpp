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
constexpr int kExitUsage = 2;     // bad option value, unknown name, an option over a limit
constexpr int kExitInput = 3;     // missing, unreadable, malformed or oversized input
constexpr int kExitOutput = 4;    // output could not be written
constexpr int kExitLibrary = 5;   // the library refused the input

// Limits that keep a hostile or mistaken input from taking the machine's
// memory: pixels of any picture, frame, crop, tensor or warp the tool makes
// (--max-pixels, at most 2^31 - 1 so that no pixel count the kit forms in
// 32-bit signed arithmetic wraps) and bytes of any input file
// (--max-input-mb).
struct Limits {
    uint64_t max_pixels = uint64_t{1} << 26;  // 67,108,864: 8192 x 8192
    uint64_t max_input_bytes = uint64_t{1} << 30;
};
Limits& ToolLimits();
// ToolError(code) when w x h, counted in 64 bits, is above --max-pixels.
// `what` names the thing ("crop", "PNG 'a.png'").
void CheckPixels(uint64_t w, uint64_t h, const std::string& what, int code);
// ToolError(kExitUsage) unless `value` is finite; `option` is its name.
float Finite(float value, const char* option);

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
// Reads a whole file; ToolError naming the file when it cannot or when it is
// longer than --max-input-mb (which also stops endless inputs like /dev/zero).
std::vector<uint8_t> ReadFileBytes(const std::string& path);

// Prepares `path` through a temporary file: `write` fills the temporary, and
// the output only appears when the whole run succeeds (CommitOutputs), so a
// run that fails at its last frame leaves none of its earlier outputs. On
// commit a regular file (or no file) is replaced by renaming, keeping the old
// file's permission bits; a symbolic link is followed and its target
// replaced; a FIFO or character device is written in place and stays what it
// is. Directories, block devices, sockets and dangling links are refused.
void WriteAtomically(const std::string& path,
                     const std::function<void(const std::string& tmp_path)>& write);
// Moves every prepared output into place; ToolError(kExitOutput) if one
// cannot be (those not yet moved are removed).
void CommitOutputs();
// Removes every prepared output that was not committed.
void DiscardOutputs();
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

// Captures the core's log lines. Every line the kit logs reports a refusal
// (a rejected argument or a tensor that does not fit), after which the output
// may be unfilled, so a captured line turns into a failure at the next
// CheckLibrary.
void InstallLogRoute();
// ToolError(kExitLibrary) "<what>: <the library's first line>" when the
// library logged anything since the last check.
void CheckLibrary(const std::string& what);

// A note for the user ("qvn-kit: note: <text>"), printed when the run
// succeeds; a failed run prints only its error.
void Notice(const std::string& text);
void FlushNotices();

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
