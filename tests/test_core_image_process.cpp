// The core's image-process operations: every code against OpenCV or a plain
// scalar definition written here, odd sizes, unaligned and page-end buffers,
// and every refusal with its exact message and an untouched output.
#include <quvas/kernel/image_process.h>
#include <quvas/runtime/tensor.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <random>
#include <string>
#include <vector>

#include "cv_support.h"
#include "log_capture.hpp"
#include "test_support.h"

namespace {

using qvntest::Guarded;
using quvas::kernel::ImageProcessFallback;
using quvas::runtime::Context;
using quvas::runtime::DeviceCPU;
using quvas::runtime::TensorPtr;
using quvas::runtime::TensorShape;
namespace op = quvas::kernel::op;
namespace layout = quvas::runtime::layout;
namespace dtype = quvas::runtime::data_type;

constexpr uint8_t kSentinel = 0xA5;

class ImageProcessTest : public ::testing::Test {
protected:
    TensorPtr Make(std::vector<int32_t> dims, int32_t lay, bool random = true) {
        TensorPtr t = qvntest::FilledTensor(dev_, std::move(dims), lay, kSentinel);
        if (random) qvntest::FillRandom(t->data(), t->byte_size(), rng_);
        return t;
    }
    // A random input living at the very end of a guarded page.
    TensorPtr MakeAtPageEnd(Guarded& buf, std::vector<int32_t> dims, int32_t lay) {
        qvntest::FillRandom(buf.data(), buf.size(), rng_);
        return dev_.CreateTensorExternal(TensorShape(std::move(dims), dtype::kUInt8, lay),
                                         buf.data());
    }
    void Run(TensorPtr in, TensorPtr out, int code) {
        proc_.ConvertPixel(in, out, code, ctx_);
    }
    void Run(TensorPtr in, TensorPtr out, float a, float b, float c, float d, int code) {
        proc_.ConvertPixel(in, out, a, b, c, d, code, ctx_);
    }

    DeviceCPU dev_;
    ImageProcessFallback proc_;
    std::shared_ptr<Context> ctx_ = std::make_shared<Context>();
    std::mt19937 rng_{20240611u};
};

bool AllSentinel(const TensorPtr& t) { return qvntest::AllBytes(t, kSentinel); }

cv::Mat AsMat(const TensorPtr& t, int rows, int cols, int channels, size_t offset = 0) {
    return cv::Mat(rows, cols, CV_8UC(channels), t->data() + offset);
}

// ---------------------------------------------------------------------------
// Interleaved -> planar: plane c of out is byte order[c] of every pixel.
// ---------------------------------------------------------------------------

TEST_F(ImageProcessTest, PackedToPlanarMatchesByteSelection) {
    struct Case { int code, channels, order[3]; };
    const Case cases[] = {{op::kPack4ToPlanar012, 4, {0, 1, 2}},
                          {op::kPack4ToPlanar210, 4, {2, 1, 0}},
                          {op::kPack3ToPlanar012, 3, {0, 1, 2}},
                          {op::kPack3ToPlanar210, 3, {2, 1, 0}}};
    const int sizes[][2] = {{1, 1}, {5, 7}, {17, 33}, {8, 32}, {31, 97}, {64, 64}};
    for (const Case& k : cases) {
        for (const auto& s : sizes) {
            const int h = s[0], w = s[1];
            Guarded buf(static_cast<size_t>(h) * w * k.channels, true);
            TensorPtr in = MakeAtPageEnd(buf, {h, w, k.channels}, layout::kHWC);
            TensorPtr out = Make({3, h, w}, layout::kCHW, false);
            Run(in, out, k.code);
            int bad = 0;
            for (int c = 0; c < 3; ++c)
                for (int p = 0; p < h * w; ++p)
                    bad += out->data()[c * h * w + p] != in->data()[p * k.channels + k.order[c]];
            EXPECT_EQ(bad, 0) << "code " << k.code << " size " << h << "x" << w;
        }
    }
}

// ---------------------------------------------------------------------------
// 4:2:0 -> RGB, full-range BT.601.
// ---------------------------------------------------------------------------

uint8_t Sat(long x) { return static_cast<uint8_t>(std::min(255L, std::max(0L, x))); }

// The documented integer arithmetic, written out plainly.
void YuvPixelFixed(int y, int u, int v, uint8_t rgb[3]) {
    const long du = u - 128, dv = v - 128;
    const auto fl = [](long num) {  // floor(num / 65536)
        return num >= 0 ? num / 65536 : -((-num + 65535) / 65536);
    };
    rgb[0] = Sat(y + fl(91881 * dv + 32768));
    rgb[1] = Sat(y + fl(-22553 * du - 46802 * dv + 32768));
    rgb[2] = Sat(y + fl(116130 * du + 32768));
}

TEST_F(ImageProcessTest, Yuv420MatchesFormulaAndOpenCV) {
    const int sizes[][2] = {{2, 2}, {4, 6}, {5, 7}, {3, 2}, {17, 33}, {64, 48}, {35, 99}};
    for (const auto& s : sizes) {
        const int h = s[0], w = s[1], ch = h / 2, cw = w / 2;
        Guarded buf(static_cast<size_t>(h) * w + 2 * static_cast<size_t>(ch) * cw, true);
        TensorPtr in = MakeAtPageEnd(buf, {h, w, 1}, layout::kYUV420Planar);
        TensorPtr out = Make({3, h, w}, layout::kCHW, false);
        Run(in, out, op::kYUV420PlanarToRGB);
        const uint8_t* Y = in->data();
        const uint8_t* U = Y + h * w;
        const uint8_t* V = U + ch * cw;
        cv::Mat ycrcb(h, w, CV_8UC3);
        int bad_fixed = 0;
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                const int c = std::min(y / 2, ch - 1) * cw + std::min(x / 2, cw - 1);
                uint8_t ref[3];
                YuvPixelFixed(Y[y * w + x], U[c], V[c], ref);
                for (int k = 0; k < 3; ++k) bad_fixed += out->data()[k * h * w + y * w + x] != ref[k];
                ycrcb.at<cv::Vec3b>(y, x) = cv::Vec3b(Y[y * w + x], V[c], U[c]);
            }
        }
        EXPECT_EQ(bad_fixed, 0) << h << "x" << w;
        // OpenCV's YCrCb is the same full-range transform with 3-digit weights.
        cv::Mat rgb;
        cv::cvtColor(ycrcb, rgb, cv::COLOR_YCrCb2RGB);
        std::vector<cv::Mat> planes;
        cv::split(rgb, planes);
        for (int k = 0; k < 3; ++k)
            EXPECT_LE(qvntest::MaxDiff(planes[k], AsMat(out, h, w, 1, k * h * w)), 2) << h << "x" << w;
    }
}

// ---------------------------------------------------------------------------
// Turns and mirror: byte-identical to cv::rotate / cv::flip per plane.
// ---------------------------------------------------------------------------

TEST_F(ImageProcessTest, TurnsAndMirrorMatchOpenCV) {
    struct Case { int code; bool swaps; int cv_code; };  // cv_code -2: flip
    const Case cases[] = {{op::kRotate90, true, cv::ROTATE_90_CLOCKWISE},
                          {op::kRotate180, false, cv::ROTATE_180},
                          {op::kRotate270, true, cv::ROTATE_90_COUNTERCLOCKWISE},
                          {op::kMirror, false, -2}};
    const int sizes[][3] = {{1, 1, 1}, {3, 1, 9}, {1, 9, 1}, {3, 17, 33}, {2, 67, 130}, {3, 64, 48}};
    for (const Case& k : cases) {
        for (const auto& s : sizes) {
            const int c = s[0], h = s[1], w = s[2];
            TensorPtr in = Make({c, h, w}, layout::kCHW);
            const int oh = k.swaps ? w : h, ow = k.swaps ? h : w;
            TensorPtr out = Make({c, oh, ow}, layout::kCHW, false);
            Run(in, out, k.code);
            for (int p = 0; p < c; ++p) {
                cv::Mat ref;
                const cv::Mat src = AsMat(in, h, w, 1, static_cast<size_t>(p) * h * w);
                if (k.cv_code == -2) {
                    cv::flip(src, ref, 1);
                } else {
                    cv::rotate(src, ref, k.cv_code);
                }
                EXPECT_EQ(qvntest::MaxDiff(ref, AsMat(out, oh, ow, 1, static_cast<size_t>(p) * oh * ow)), 0)
                    << "code " << k.code << " plane " << p << " of " << c << "x" << h << "x" << w;
            }
        }
    }
}

// ---------------------------------------------------------------------------
// Bilinear resize and crop-resize.
// ---------------------------------------------------------------------------

// The documented sampling, written out plainly: source position of
// destination index d, its two neighbours and the right one's weight.
struct Tap { int i0, i1, w; };
Tap RefTap(int src, int dst, double lo, double hi, int d) {
    const double pos = lo * src + (d + 0.5) * ((hi - lo) * src / dst) - 0.5;
    if (pos <= 0) return {0, 0, 0};
    if (pos >= src - 1) return {src - 1, src - 1, 0};
    int i = static_cast<int>(std::floor(pos));
    int w = static_cast<int>(std::floor((pos - i) * 2048 + 0.5));
    if (w == 2048) {
        ++i;
        w = 0;
    }
    return {i, std::min(i + 1, src - 1), w};
}

std::vector<uint8_t> RefResample(const uint8_t* s, int sh, int sw, int c, int dh, int dw, double x0,
                                 double y0, double x1, double y1) {
    std::vector<uint8_t> out(static_cast<size_t>(dh) * dw * c);
    for (int dy = 0; dy < dh; ++dy) {
        const Tap ty = RefTap(sh, dh, y0, y1, dy);
        for (int dx = 0; dx < dw; ++dx) {
            const Tap tx = RefTap(sw, dw, x0, x1, dx);
            for (int k = 0; k < c; ++k) {
                const auto at = [&](int y, int x) { return long(s[(long(y) * sw + x) * c + k]); };
                const long top = at(ty.i0, tx.i0) * (2048 - tx.w) + at(ty.i0, tx.i1) * tx.w;
                const long bot = at(ty.i1, tx.i0) * (2048 - tx.w) + at(ty.i1, tx.i1) * tx.w;
                out[(size_t(dy) * dw + dx) * c + k] =
                    static_cast<uint8_t>((top * (2048 - ty.w) + bot * ty.w + (1 << 21)) >> 22);
            }
        }
    }
    return out;
}

int PlaneLayout(int channels) { return channels == 1 ? layout::kPlane : layout::kHWC; }
int ResizeCode(int channels) {
    return channels == 1 ? op::kResizePlane : channels == 3 ? op::kResizeHWC3 : op::kResizeHWC4;
}
int CropCode(int channels) {
    return channels == 1 ? op::kCropResizePlane
                         : channels == 3 ? op::kCropResizeHWC3 : op::kCropResizeHWC4;
}

TEST_F(ImageProcessTest, ResizeMatchesOpenCVAndDocumentedArithmetic) {
    // {in h, in w, out h, out w}: down, up, mixed, odd, degenerate.
    const int sizes[][4] = {{1080, 1920, 256, 256}, {37, 53, 111, 97}, {64, 48, 32, 24},
                            {17, 33, 40, 5},        {5, 3, 9, 11},     {1, 1, 3, 4},
                            {1, 40, 7, 9},          {40, 1, 9, 3},     {2, 2, 1, 1},
                            {99, 71, 99, 71}};
    for (int channels : {1, 3, 4}) {
        for (const auto& s : sizes) {
            const int h = s[0], w = s[1], oh = s[2], ow = s[3];
            Guarded buf(static_cast<size_t>(h) * w * channels, true);
            TensorPtr in = MakeAtPageEnd(buf, {h, w, channels}, PlaneLayout(channels));
            TensorPtr out = Make({oh, ow, channels}, PlaneLayout(channels), false);
            Run(in, out, ResizeCode(channels));
            const std::vector<uint8_t> ref =
                RefResample(in->data(), h, w, channels, oh, ow, 0, 0, 1, 1);
            EXPECT_EQ(std::memcmp(ref.data(), out->data(), ref.size()), 0)
                << channels << " ch " << h << "x" << w << " -> " << oh << "x" << ow;
            cv::Mat cv_out;
            cv::resize(AsMat(in, h, w, channels), cv_out, cv::Size(ow, oh), 0, 0, cv::INTER_LINEAR);
            EXPECT_LE(qvntest::MaxDiff(cv_out, AsMat(out, oh, ow, channels)), 2)
                << channels << " ch " << h << "x" << w << " -> " << oh << "x" << ow;
        }
    }
}

TEST_F(ImageProcessTest, CropResizeMatchesDocumentedSampling) {
    struct Box { float a, b, c, d; };
    const Box boxes[] = {{0.1f, 0.2f, 0.7f, 0.9f},  {0.25f, 0.25f, 0.5f, 0.75f},
                         {-0.2f, -0.1f, 0.6f, 1.3f}, {0.9f, 0.8f, 1.4f, 1.1f},
                         {0.33f, 0.4f, 0.34f, 0.41f}, {0.f, 0.f, 1.f, 1.f},
                         // Wholly outside: every sample is an edge pixel.
                         {-0.5f, -0.4f, -0.1f, -0.05f}, {1.0f, 1.2f, 2.0f, 1.5f}};
    const int sizes[][4] = {{1080, 1920, 256, 256}, {37, 53, 19, 23}, {7, 5, 31, 29}};
    for (int channels : {1, 3, 4}) {
        for (const auto& s : sizes) {
            const int h = s[0], w = s[1], oh = s[2], ow = s[3];
            TensorPtr in = Make({h, w, channels}, PlaneLayout(channels));
            for (const Box& bx : boxes) {
                TensorPtr out = Make({oh, ow, channels}, PlaneLayout(channels), false);
                Run(in, out, bx.a, bx.b, bx.c, bx.d, CropCode(channels));
                const std::vector<uint8_t> ref =
                    RefResample(in->data(), h, w, channels, oh, ow, bx.a, bx.b, bx.c, bx.d);
                EXPECT_EQ(std::memcmp(ref.data(), out->data(), ref.size()), 0)
                    << channels << " ch " << h << "x" << w << " box " << bx.a << "," << bx.b
                    << "," << bx.c << "," << bx.d;
            }
        }
    }
}

// ---------------------------------------------------------------------------
// Refusals: exact message, output untouched.
// ---------------------------------------------------------------------------

TEST_F(ImageProcessTest, RefusalsLogAndLeaveOutputUntouched) {
    const std::string who = "ImageProcessFallback::ConvertPixel: ";
    TensorPtr hwc3 = Make({4, 6, 3}, layout::kHWC);
    TensorPtr hwc4 = Make({4, 6, 4}, layout::kHWC);
    TensorPtr chw = Make({3, 4, 6}, layout::kCHW, false);
    TensorPtr chw_wide = Make({3, 4, 7}, layout::kCHW, false);
    TensorPtr plane = Make({4, 6, 1}, layout::kPlane, false);
    TensorPtr yuv_thin = Make({1, 6, 1}, layout::kYUV420Planar);
    TensorPtr floats = dev_.CreateTensor(TensorShape({4, 6, 3}, dtype::kFloat32, layout::kHWC),
                                         nullptr);
    TensorShape far_shape({4, 6, 3}, dtype::kUInt8, layout::kHWC, 0x20002);
    TensorPtr far = dev_.CreateTensor(far_shape, nullptr);
    TensorPtr empty = dev_.CreateTensorExternal(TensorShape({3, 4, 6}, dtype::kUInt8, layout::kCHW),
                                                nullptr);
    TensorPtr two_dims = Make({4, 6}, layout::kHWC);
    TensorPtr null;

    const std::string e_chw = "{3, 4, 6} type 7 layout 0";
    const std::string e_hwc3 = "{4, 6, 3} type 7 layout 1";
    const std::string e_plane = "{4, 6, 1} type 7 layout 23";
    const std::string pack3 = "expects in u8 HWC {H, W, 3} and out u8 CHW {3, H, W}, got in ";
    const std::string pack4 = "expects in u8 HWC {H, W, 4} and out u8 CHW {3, H, W}, got in ";
    struct Case {
        TensorPtr in, out;
        int code;
        bool box;
        float b[4];
        std::string message;
    };
    const Case cases[] = {
        {hwc3, chw, 2, false, {}, "unknown code 2 (in " + e_hwc3 + ", out " + e_chw + ")"},
        {null, chw, 60, false, {}, "code 60 " + pack3 + "null, out " + e_chw},
        {hwc3, chw, 1, false, {}, "code 1 " + pack4 + e_hwc3 + ", out " + e_chw},
        {hwc4, chw, 4, false, {}, "code 4 " + pack3 + "{4, 6, 4} type 7 layout 1, out " + e_chw},
        {floats, chw, 4, false, {}, "code 4 " + pack3 + "{4, 6, 3} type 1 layout 1, out " + e_chw},
        {far, chw, 4, false, {}, "code 4 " + pack3 + "{4, 6, 3} type 7 layout 1 location 0x20002, out " + e_chw},
        {hwc3, empty, 4, false, {}, "code 4 " + pack3 + e_hwc3 + ", out {3, 4, 6} type 7 layout 0 without storage"},
        {two_dims, chw, 4, false, {}, "code 4 " + pack3 + "{4, 6} type 7 layout 1, out " + e_chw},
        {yuv_thin, chw, 32, false, {},
         "code 32 expects in a u8 4:2:0 frame {H, W, 1} (layout 24, H and W at least 2) and out u8 "
         "CHW {3, H, W}, got in {1, 6, 1} type 7 layout 24, out " + e_chw},
        {chw, chw, 50, false, {},
         "code 50 expects in u8 CHW {C, H, W} and out u8 CHW {C, W, H}, got in " + e_chw + ", out " + e_chw},
        {chw, chw_wide, 53, false, {},
         "code 53 expects in u8 CHW {C, H, W} and out u8 CHW {C, H, W}, got in " + e_chw +
             ", out {3, 4, 7} type 7 layout 0"},
        {hwc3, plane, 77, false, {},
         "code 77 expects in and out u8 planes {H, W, 1} (layout 23 or 1), got in " + e_hwc3 + ", out " + e_plane},
        {hwc3, plane, 83, false, {},
         "code 83 expects in and out u8 HWC {H, W, 3}, got in " + e_hwc3 + ", out " + e_plane},
        {hwc4, plane, 88, true, {0, 0, 1, 1},
         "code 88 expects in and out u8 HWC {H, W, 4}, got in {4, 6, 4} type 7 layout 1, out " + e_plane},
        {hwc3, plane, 85, false, {}, "code 85 needs a crop box (in " + e_hwc3 + ", out " + e_plane + ")"},
        {hwc3, chw, 60, true, {0, 0, 1, 1}, "code 60 takes no crop box (in " + e_hwc3 + ", out " + e_chw + ")"},
        {plane, plane, 77, false, {},
         "code 77 cannot work in place, in " + e_plane + " and out " + e_plane + " share storage"},
    };
    for (const Case& k : cases) {
        if (k.out && k.out->data()) std::memset(k.out->data(), kSentinel, k.out->byte_size());
        LogCapture capture;
        if (k.box) {
            Run(k.in, k.out, k.b[0], k.b[1], k.b[2], k.b[3], k.code);
        } else {
            Run(k.in, k.out, k.code);
        }
        EXPECT_EQ(capture.Take(), std::vector<std::string>{who + k.message});
        if (k.out && k.out->data()) {
            EXPECT_TRUE(AllSentinel(k.out)) << k.message;
        }
    }
}

TEST_F(ImageProcessTest, BadCropBoxesAreRefused) {
    TensorPtr in = Make({4, 6, 3}, layout::kHWC);
    TensorPtr out = Make({2, 3, 3}, layout::kHWC, false);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    struct Case { float a, b, c, d; const char* text; };
    const Case cases[] = {{0.5f, 0.f, 0.5f, 1.f, "(0.5, 0, 0.5, 1)"},
                          {0.f, 0.75f, 1.f, 0.25f, "(0, 0.75, 1, 0.25)"},
                          {nan, 0.f, 1.f, 1.f, "(nan, 0, 1, 1)"},
                          {0.f, 0.f, inf, 1.f, "(0, 0, inf, 1)"}};
    for (const Case& k : cases) {
        LogCapture capture;
        Run(in, out, k.a, k.b, k.c, k.d, op::kCropResizeHWC3);
        EXPECT_EQ(capture.Take(), std::vector<std::string>{
                                      "ImageProcessFallback::ConvertPixel: code 87 needs a finite box "
                                      "with x0 < x1 and y0 < y1, got " + std::string(k.text) +
                                      " for in {4, 6, 3} type 7 layout 1, out {2, 3, 3} type 7 layout 1"});
        EXPECT_TRUE(AllSentinel(out));
    }
}

TEST_F(ImageProcessTest, NullContextAndPlaneLayoutsAreAccepted) {
    // The kit hands plane views (layout 23); a Y tensor of the device has
    // layout 1 with one channel. Both resize the same way, with no context.
    TensorPtr y = dev_.CreateYPlane8BitTensor(12, 10, nullptr);
    for (size_t i = 0; i < y->byte_size(); ++i) y->data()[i] = static_cast<uint8_t>(rng_());
    TensorPtr view = dev_.CreateTensorExternal(TensorShape({12, 10, 1}, dtype::kUInt8, layout::kPlane),
                                               y->data());
    TensorPtr a = Make({5, 7, 1}, layout::kPlane, false);
    TensorPtr b = Make({5, 7, 1}, layout::kHWC, false);
    proc_.ConvertPixel(y, a, op::kResizePlane, nullptr);
    proc_.ConvertPixel(view, b, op::kResizePlane, nullptr);
    EXPECT_EQ(std::memcmp(a->data(), b->data(), 35), 0);
    EXPECT_FALSE(AllSentinel(a));
}

}  // namespace
