// fuzz_picture.cpp - qvn-kit's PNG and JPEG reader on arbitrary bytes: a
// picture it returns is within the pixel limit and fully allocated; damaged
// data, bombs and other formats are ToolErrors with the input exit code.
#include "common.hpp"
#include "fuzz_common.hpp"
#include "image_io.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // A million pixels keeps every allocation far below -malloc_limit_mb.
    qvntool::ToolLimits().max_pixels = uint64_t{1} << 20;
    std::vector<uint8_t> bytes(data, data + size);
    try {
        qvntool::Picture pic = qvntool::DecodePicture("fuzz", bytes);
        if (pic.width <= 0 || pic.height <= 0 ||
            static_cast<uint64_t>(pic.width) * pic.height > qvntool::ToolLimits().max_pixels) {
            qvnfuzz::Fail("picture size outside the limits");
        }
        if (pic.channels != 1 && pic.channels != 3 && pic.channels != 4) {
            qvnfuzz::Fail("unexpected channel count");
        }
        if (pic.pixels.size() != static_cast<size_t>(pic.width) * pic.height * pic.channels) {
            qvnfuzz::Fail("pixel buffer of the wrong size");
        }
    } catch (const qvntool::ToolError& e) {
        if (e.code() != qvntool::kExitInput) qvnfuzz::Fail("picture refusal with another code");
    }
    return 0;
}
