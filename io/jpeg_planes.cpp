// jpeg_planes.cpp - JPEG to Y, Cb, Cr planes through TurboJPEG.
#include "jpeg_planes.hpp"

#include "error.hpp"
#include "limits.hpp"

#include <turbojpeg.h>

#include <memory>

namespace qvntool {
namespace {

struct TjCloser {
    void operator()(void* handle) const {
        if (handle != nullptr) tjDestroy(handle);
    }
};
using TjHandle = std::unique_ptr<void, TjCloser>;

TjHandle NewDecompressor() {
    TjHandle handle(tjInitDecompress());
    if (!handle) throw ToolError("cannot start the JPEG decoder: out of memory", 1);
    return handle;
}

const char* SamplingName(int subsamp) {
    switch (subsamp) {
        case TJSAMP_444: return "4:4:4";
        case TJSAMP_422: return "4:2:2";
        case TJSAMP_420: return "4:2:0";
        case TJSAMP_GRAY: return "gray";
        case TJSAMP_440: return "4:4:0";
        case TJSAMP_411: return "4:1:1";
        default: return "unknown";
    }
}

const char* ColourName(int colorspace) {
    switch (colorspace) {
        case TJCS_RGB: return "RGB";
        case TJCS_YCbCr: return "YCbCr";
        case TJCS_GRAY: return "gray";
        case TJCS_CMYK: return "CMYK";
        case TJCS_YCCK: return "YCCK";
        default: return "unknown";
    }
}

}  // namespace

JpegHeader ReadJpegHeader(const std::vector<uint8_t>& bytes) {
    JpegHeader header;
    header.sampling = header.colour = "unknown";
    TjHandle tj = NewDecompressor();
    int w = 0, h = 0, subsamp = -1, colorspace = -1;
    if (tjDecompressHeader3(tj.get(), bytes.data(), static_cast<unsigned long>(bytes.size()), &w,
                            &h, &subsamp, &colorspace) != 0) {
        return header;
    }
    header.width = w;
    header.height = h;
    header.sampling = SamplingName(subsamp);
    header.colour = ColourName(colorspace);
    header.planes420 = subsamp == TJSAMP_420 && colorspace == TJCS_YCbCr;
    return header;
}

int JpegScaledSide(int side, int reduce) {
    const tjscalingfactor factor{1, reduce};
    return TJSCALED(side, factor);
}

bool DecodeJpegPlanes(const std::string& path, const std::vector<uint8_t>& bytes, int reduce,
                      JpegPlanes& out) {
    if (reduce != 1 && reduce != 2 && reduce != 4 && reduce != 8) {
        throw ToolError("--reduce " + std::to_string(reduce) + " is not 1, 2, 4 or 8", kExitUsage);
    }
    const JpegHeader header = ReadJpegHeader(bytes);
    if (!header.planes420) return false;
    // Checked before the decoder allocates anything: a progressive JPEG
    // keeps the coefficients of the whole picture whatever the scale.
    if (static_cast<uint64_t>(header.width) * static_cast<uint64_t>(header.height) >
        ToolLimits().max_pixels) {
        throw ToolError("JPEG '" + path + "' of " + std::to_string(header.width) + "x" +
                            std::to_string(header.height) + " pixels is above the limit of " +
                            std::to_string(ToolLimits().max_pixels) +
                            " pixels (--max-pixels)",
                        kExitInput);
    }
    const int dw = JpegScaledSide(header.width, reduce);
    const int dh = JpegScaledSide(header.height, reduce);
    if (dw < 2 || dh < 2) return false;

    // Planes as TurboJPEG lays them out for this size (chroma rounded up),
    // in one buffer.
    int widths[3], heights[3];
    size_t offsets[3], total = 0;
    for (int c = 0; c < 3; ++c) {
        widths[c] = tjPlaneWidth(c, dw, TJSAMP_420);
        heights[c] = tjPlaneHeight(c, dh, TJSAMP_420);
        offsets[c] = total;
        total += static_cast<size_t>(widths[c]) * static_cast<size_t>(heights[c]);
    }
    std::vector<uint8_t> storage(total);
    unsigned char* planes[3];
    int strides[3];
    for (int c = 0; c < 3; ++c) {
        planes[c] = storage.data() + offsets[c];
        strides[c] = widths[c];
    }
    TjHandle tj = NewDecompressor();
    // A warning (data cut short, a corrupt scan) is an error, as it is for
    // the RGB reader; a progressive file of hundreds of scans is refused.
    const int flags = TJFLAG_STOPONWARNING | TJFLAG_LIMITSCANS;
    if (tjDecompressToYUVPlanes(tj.get(), bytes.data(), static_cast<unsigned long>(bytes.size()),
                                planes, dw, strides, dh, flags) != 0) {
        throw ToolError("cannot decode JPEG '" + path + "': " + tjGetErrorStr2(tj.get()),
                        kExitInput);
    }
    out.storage = std::move(storage);
    out.decoded_width = dw;
    out.decoded_height = dh;
    out.width = dw & ~1;
    out.height = dh & ~1;
    out.reduce = reduce;
    for (int c = 0; c < 3; ++c) {
        out.plane[c] = out.storage.data() + offsets[c];
        out.stride[c] = strides[c];
    }
    return true;
}

}  // namespace qvntool
