// fuzz_picture.cpp - qvn-kit's PNG and JPEG reader, and the JPEG planes
// reader, on arbitrary bytes: a picture it returns is within the pixel limit
// and fully allocated, planes have even sides within the decoded size and
// agree with the R,G,B reader on it; damaged data, bombs and other formats
// are ToolErrors with the input exit code.
#include "common.hpp"
#include "fuzz_common.hpp"
#include "image_io.hpp"
#include "jpeg_planes.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // A million pixels keeps every allocation far below -malloc_limit_mb.
    qvntool::ToolLimits().max_pixels = uint64_t{1} << 20;
    std::vector<uint8_t> bytes(data, data + size);
    int planes_w = 0, planes_h = 0;  // full-size planes, when they decode
    for (int reduce : {1, 8}) {
        try {
            qvntool::JpegPlanes p;
            if (!qvntool::DecodeJpegPlanes("fuzz", bytes, reduce, p)) continue;
            if (p.width < 2 || p.height < 2 || p.width % 2 != 0 || p.height % 2 != 0 ||
                p.width > p.decoded_width || p.decoded_width - p.width > 1 ||
                p.height > p.decoded_height || p.decoded_height - p.height > 1) {
                qvnfuzz::Fail("planes of a size that does not follow from the decoded one");
            }
            // The last chroma sample read lies inside the storage.
            const uint8_t* end = p.storage.data() + p.storage.size();
            if (p.plane[2] + (p.height / 2 - 1) * p.stride[2] + p.width / 2 > end) {
                qvnfuzz::Fail("planes outside their storage");
            }
            volatile uint8_t last = p.plane[0][(p.height - 1) * p.stride[0] + p.width - 1];
            (void)last;
            if (reduce == 1) planes_w = p.decoded_width, planes_h = p.decoded_height;
        } catch (const qvntool::ToolError& e) {
            if (e.code() != qvntool::kExitInput) qvnfuzz::Fail("planes refusal with another code");
        }
    }
    try {
        qvntool::Picture pic = qvntool::DecodePicture("fuzz", bytes);
        if (planes_w != 0 && (pic.width != planes_w || pic.height != planes_h)) {
            qvnfuzz::Fail("planes and R,G,B decode of different sizes");
        }
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
