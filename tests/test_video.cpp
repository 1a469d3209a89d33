// test_video.cpp - the decoders' planes: JPEG straight to Y, Cb, Cr
// (TurboJPEG) and video files (FFmpeg), checked against libjpeg's own RGB
// decode and the textbook JFIF formula, and `qvn-kit video` and the JPEG
// planes route of `qvn-kit preprocess` run as a user runs them.
#include "common.hpp"
#include "jpeg_planes.hpp"
#include "test_support.h"

#include <gtest/gtest.h>
#include <jpeglib.h>
#include <turbojpeg.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

// A JPEG of `rgb` (w x h, R,G,B) compressed by TurboJPEG with the given
// chroma sampling; flags add TJFLAG_PROGRESSIVE. Gray sampling stores luma only.
std::vector<uint8_t> CompressJpeg(const std::vector<uint8_t>& rgb, int w, int h, int subsamp,
                                  int flags = 0) {
    tjhandle tj = tjInitCompress();
    unsigned char* out = nullptr;
    unsigned long size = 0;
    const int rc = tjCompress2(tj, rgb.data(), w, 0, h, TJPF_RGB, &out, &size, subsamp, 92,
                               flags);
    EXPECT_EQ(rc, 0) << tjGetErrorStr2(tj);
    std::vector<uint8_t> bytes(out, out + size);
    tjFree(out);
    tjDestroy(tj);
    return bytes;
}

// Smooth colour with some detail, so chroma placement matters.
std::vector<uint8_t> TestPicture(int w, int h, unsigned seed) {
    std::vector<uint8_t> noise = qvntest::RandomBytes(static_cast<size_t>(w) * h * 3, seed);
    std::vector<uint8_t> rgb(noise.size());
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const size_t i = (static_cast<size_t>(y) * w + x) * 3;
            rgb[i] = static_cast<uint8_t>(x * 255 / w / 2 + noise[i] / 4 + 40);
            rgb[i + 1] = static_cast<uint8_t>(y * 255 / h / 2 + noise[i + 1] / 4 + 30);
            rgb[i + 2] = static_cast<uint8_t>(200 - (x + y) * 100 / (w + h) + noise[i + 2] / 8);
        }
    }
    return rgb;
}

// libjpeg's own decode to R,G,B at 1/reduce, with chroma replicated over
// each 2x2 block (no smoothing), so each pixel follows from one Y and one
// Cb, Cr sample.
// With `gray`, libjpeg's gray output of a YCbCr file: its Y samples as they
// are.
std::vector<uint8_t> LibjpegDecode(const std::vector<uint8_t>& bytes, int reduce, bool gray,
                                   int& w, int& h) {
    jpeg_decompress_struct d;
    jpeg_error_mgr e;
    d.err = jpeg_std_error(&e);
    jpeg_create_decompress(&d);
    jpeg_mem_src(&d, bytes.data(), static_cast<unsigned long>(bytes.size()));
    jpeg_read_header(&d, TRUE);
    d.out_color_space = gray ? JCS_GRAYSCALE : JCS_RGB;
    d.do_fancy_upsampling = FALSE;
    d.scale_num = 1;
    d.scale_denom = static_cast<unsigned>(reduce);
    jpeg_start_decompress(&d);
    w = static_cast<int>(d.output_width);
    h = static_cast<int>(d.output_height);
    const int c = gray ? 1 : 3;
    std::vector<uint8_t> rgb(static_cast<size_t>(w) * h * c);
    while (d.output_scanline < d.output_height) {
        JSAMPROW row = rgb.data() + static_cast<size_t>(d.output_scanline) * w * c;
        jpeg_read_scanlines(&d, &row, 1);
    }
    jpeg_finish_decompress(&d);
    jpeg_destroy_decompress(&d);
    return rgb;
}

int Clamp255(double v) { return static_cast<int>(std::lround(std::min(255.0, std::max(0.0, v)))); }

// The largest difference between libjpeg's R,G,B and the JFIF formula
// applied to the planes (Y at each pixel, Cb and Cr of its 2x2 block).
int LargestJfifDifference(const qvntool::JpegPlanes& p, const std::vector<uint8_t>& rgb, int w) {
    int worst = 0;
    for (int y = 0; y < p.height; ++y) {
        for (int x = 0; x < p.width; ++x) {
            const double Y = p.plane[0][y * p.stride[0] + x];
            const double cb = p.plane[1][(y / 2) * p.stride[1] + x / 2] - 128.0;
            const double cr = p.plane[2][(y / 2) * p.stride[2] + x / 2] - 128.0;
            const int want[3] = {Clamp255(Y + 1.402 * cr),
                                 Clamp255(Y - 0.344136 * cb - 0.714136 * cr),
                                 Clamp255(Y + 1.772 * cb)};
            for (int c = 0; c < 3; ++c) {
                const int got = rgb[(static_cast<size_t>(y) * w + x) * 3 + c];
                worst = std::max(worst, std::abs(got - want[c]));
            }
        }
    }
    return worst;
}

// 4:2:0 JPEGs, baseline and progressive, odd and even sides, at every DCT
// scale: the planes hold what libjpeg decodes (the JFIF formula over them
// gives libjpeg's R,G,B within its fixed-point rounding), the odd last
// column and row are left out, and the other samplings are told apart.
TEST(JpegPlanes, FourTwoZeroPlanesAreWhatLibjpegDecodes) {
    struct Case {
        int w, h, flags, reduce;
    };
    const Case cases[] = {{64, 48, 0, 1},  {35, 27, 0, 1},  {70, 54, TJFLAG_PROGRESSIVE, 1},
                          {80, 64, 0, 2},  {99, 77, 0, 4},  {130, 96, TJFLAG_PROGRESSIVE, 8}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.w) + "x" + std::to_string(c.h) + " /" +
                     std::to_string(c.reduce) + (c.flags != 0 ? " progressive" : ""));
        const std::vector<uint8_t> jpg =
            CompressJpeg(TestPicture(c.w, c.h, 7), c.w, c.h, TJSAMP_420, c.flags);
        const qvntool::JpegHeader header = qvntool::ReadJpegHeader(jpg);
        EXPECT_TRUE(header.planes420);
        EXPECT_EQ(header.sampling, "4:2:0");
        qvntool::JpegPlanes planes;
        ASSERT_TRUE(qvntool::DecodeJpegPlanes("t.jpg", jpg, c.reduce, planes));
        int w = 0, h = 0;
        const std::vector<uint8_t> luma = LibjpegDecode(jpg, c.reduce, true, w, h);
        EXPECT_EQ(planes.decoded_width, w);
        EXPECT_EQ(planes.decoded_height, h);
        // Scaled sides round up: ceil(side / reduce).
        EXPECT_EQ(w, (c.w + c.reduce - 1) / c.reduce);
        EXPECT_EQ(planes.width, w - w % 2);
        EXPECT_EQ(planes.height, h - h % 2);
        int luma_diff = 0;
        for (int y = 0; y < planes.height; ++y) {
            for (int x = 0; x < planes.width; ++x) {
                luma_diff = std::max(luma_diff, std::abs(planes.plane[0][y * planes.stride[0] + x] -
                                                         luma[static_cast<size_t>(y) * w + x]));
            }
        }
        EXPECT_EQ(luma_diff, 0);
        // Scaled, libjpeg's R,G,B decode enlarges chroma in its inverse DCT
        // rather than repeating samples; at full size both repeat them.
        if (c.reduce == 1) {
            const std::vector<uint8_t> rgb = LibjpegDecode(jpg, 1, false, w, h);
            EXPECT_LE(LargestJfifDifference(planes, rgb, w), 1);
        }
    }

    // Other samplings and gray are not a 4:2:0 frame.
    const std::vector<uint8_t> rgb = TestPicture(32, 32, 3);
    const std::pair<int, const char*> others[] = {
        {TJSAMP_444, "4:4:4"}, {TJSAMP_422, "4:2:2"}, {TJSAMP_GRAY, "gray"}};
    for (const auto& o : others) {
        const std::vector<uint8_t> jpg = CompressJpeg(rgb, 32, 32, o.first);
        const qvntool::JpegHeader header = qvntool::ReadJpegHeader(jpg);
        EXPECT_EQ(header.sampling, o.second);
        EXPECT_FALSE(header.planes420);
        qvntool::JpegPlanes planes;
        EXPECT_FALSE(qvntool::DecodeJpegPlanes("t.jpg", jpg, 1, planes)) << o.second;
    }

    // A file cut short is refused, not filled with gray; so is a picture
    // above --max-pixels, before it is decoded.
    const std::vector<uint8_t> full = CompressJpeg(TestPicture(64, 64, 5), 64, 64, TJSAMP_420);
    const std::vector<uint8_t> cut(full.begin(), full.begin() + full.size() / 2);
    qvntool::JpegPlanes planes;
    try {
        qvntool::DecodeJpegPlanes("cut.jpg", cut, 1, planes);
        ADD_FAILURE() << "a JPEG cut short decoded";
    } catch (const qvntool::ToolError& e) {
        EXPECT_EQ(e.code(), qvntool::kExitInput);
        EXPECT_NE(std::string(e.what()).find("cannot decode JPEG 'cut.jpg'"), std::string::npos);
    }
    const uint64_t saved = qvntool::ToolLimits().max_pixels;
    qvntool::ToolLimits().max_pixels = 64 * 64 - 1;
    EXPECT_THROW(qvntool::DecodeJpegPlanes("big.jpg", full, 8, planes), qvntool::ToolError);
    qvntool::ToolLimits().max_pixels = saved;
    EXPECT_EQ(planes.plane[0], nullptr);
}

}  // namespace
