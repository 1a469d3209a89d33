// limits.cpp - the pixel and byte limits.
#include "limits.hpp"

#include "error.hpp"

#include <cmath>

namespace qvntool {

Limits& ToolLimits() {
    static Limits limits;
    return limits;
}

void CheckPixels(uint64_t w, uint64_t h, const std::string& what, int code) {
    const uint64_t limit = ToolLimits().max_pixels;
    // Both factors are below 2^32 wherever they come from, so the product fits.
    if (w > 0xFFFFFFFFu || h > 0xFFFFFFFFu || w * h > limit) {
        throw ToolError(what + " of " + std::to_string(w) + "x" + std::to_string(h) +
                            " pixels is above the limit of " + std::to_string(limit) +
                            " pixels (--max-pixels)",
                        code);
    }
}

float Finite(float value, const char* option) {
    if (!std::isfinite(value)) {
        throw ToolError(std::string(option) + " must be a finite number", kExitUsage);
    }
    return value;
}

uint64_t PictureFileLimit() {
    // --max-pixels is below 2^31, so the product stays far from wrapping.
    return ToolLimits().max_pixels * kPictureFileBytesPerPixel + kPictureFileSlack;
}

}  // namespace qvntool
