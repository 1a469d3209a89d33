// jpeg_planes.hpp - a JPEG decoded to its own Y, Cb, Cr planes (TurboJPEG),
// without libjpeg's chroma upsampling and colour conversion.
//
// A JFIF file stores full-range BT.601 YCbCr; when its chroma is kept at
// half width and half height (4:2:0) the decoded planes are exactly a
// three-plane 4:2:0 frame (Y, U, V) that the kit's one-pass converters read
// in place. Other JPEGs (4:4:4, 4:2:2, 4:4:0, 4:1:1, gray, RGB, CMYK/YCCK)
// are not a 4:2:0 frame: DecodeJpegPlanes says so and the caller takes the
// RGB route (ReadPicture).
#ifndef QVN_IO_JPEG_PLANES_HPP
#define QVN_IO_JPEG_PLANES_HPP

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qvntool {

// What the JPEG's header says, read without decoding.
struct JpegHeader {
    int width = 0;
    int height = 0;
    // "4:2:0", "4:2:2", "4:4:4", "4:4:0", "4:1:1", "gray" or "unknown".
    std::string sampling;
    // "YCbCr", "RGB", "gray", "CMYK", "YCCK" or "unknown".
    std::string colour;
    // 4:2:0 YCbCr: decodable to a three-plane 4:2:0 frame.
    bool planes420 = false;
};

// Reads the header from the file's bytes. A header TurboJPEG cannot read
// (damage, a sampling it has no name for) gives planes420 false and
// "unknown" fields rather than an error: the RGB route then reports the
// fault in its own words, or decodes what it can.
JpegHeader ReadJpegHeader(const std::vector<uint8_t>& bytes);

// Y, Cb, Cr planes of a decoded 4:2:0 JPEG, full-range BT.601 (JFIF).
// width and height are even: a decoded side of odd length loses its last
// column or row (4:2:0 frames need even sides), so a picture keeps all but
// at most one column and one row. The chroma planes hold (width / 2) x
// (height / 2) samples that are read, rows `stride[1]` / `stride[2]` apart.
struct JpegPlanes {
    int width = 0;
    int height = 0;
    // The decoded size before the odd column or row was left out.
    int decoded_width = 0;
    int decoded_height = 0;
    int reduce = 1;  // the DCT scale's denominator: 1, 2, 4 or 8
    const uint8_t* plane[3] = {nullptr, nullptr, nullptr};
    ptrdiff_t stride[3] = {0, 0, 0};
    std::vector<uint8_t> storage;  // what plane[] points into

    JpegPlanes() = default;
    JpegPlanes(const JpegPlanes&) = delete;
    JpegPlanes& operator=(const JpegPlanes&) = delete;
};

// The scaled size TurboJPEG decodes a side of `side` pixels to at 1/reduce.
int JpegScaledSide(int side, int reduce);

// Decodes a JPEG's bytes to planes at 1/reduce scale (reduce 1, 2, 4 or 8,
// scaled in the DCT). False, with `out` untouched, when the JPEG is not
// 4:2:0 YCbCr or its scaled picture is narrower or lower than 2 pixels.
// ToolError(kExitInput) naming `path` for a damaged JPEG (any warning of
// the decoder, a file cut short included), one of more than 500 scans, and
// a picture above --max-pixels (checked before anything is allocated);
// ToolError(kExitUsage) for another `reduce`.
bool DecodeJpegPlanes(const std::string& path, const std::vector<uint8_t>& bytes, int reduce,
                      JpegPlanes& out);

}  // namespace qvntool

#endif  // QVN_IO_JPEG_PLANES_HPP
