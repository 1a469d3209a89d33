// limits.hpp - the limits that keep a hostile or mistaken input from taking
// the machine's memory, and the checks against them.
#ifndef QVN_IO_LIMITS_HPP
#define QVN_IO_LIMITS_HPP

#include <cstdint>
#include <string>

namespace qvntool {

// Pixels of any picture, frame, crop, tensor or warp the tool makes
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

// The longest picture file any accepted picture can come in: a PNG of
// --max-pixels pixels stored without compression at the widest sample
// (16-bit R,G,B,A: 8 bytes a pixel), with room for its row filters, the
// deflate framing and its chunks. A longer file can never be accepted, so
// it is refused before it is read.
constexpr uint64_t kPictureFileBytesPerPixel = 9;
constexpr uint64_t kPictureFileSlack = uint64_t{1} << 20;
uint64_t PictureFileLimit();

}  // namespace qvntool

#endif  // QVN_IO_LIMITS_HPP
