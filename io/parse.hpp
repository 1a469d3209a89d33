// parse.hpp - option values as users type them, shared by the tool's
// options and the Python module's arguments.
#ifndef QVN_IO_PARSE_HPP
#define QVN_IO_PARSE_HPP

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qvntool {

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
// Frame formats for input frames, by the names of the pixel-format table:
// nv12, nv21, bgra, rgba, yuv420sp_a, yuv420sp_b. Returns the QVN_PIX_FMT
// value.
uint32_t ParseFrameFormat(const std::string& text);
const char* FrameFormatName(uint32_t pix_fmt);

// Lower-case extension with the dot (".png"), or "" when none.
std::string Extension(const std::string& path);

}  // namespace qvntool

#endif  // QVN_IO_PARSE_HPP
