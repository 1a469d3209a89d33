// The core's image kernels against OpenCV and against plain scalar
// definitions written here, on random images of awkward sizes; and every
// refusal with its message and an untouched destination.
#include <quvas/kernel/functional.h>
#include <quvas/runtime/tensor.h>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "cv_support.h"
#include "log_capture.hpp"
#include "test_support.h"

namespace {

namespace rt = quvas::runtime;
namespace fn = quvas::kernel::functional;
using quvas::kernel::YUVCvtMatrix;
using qvntest::AllBytes;
using qvntest::MaxDiff;
using rt::TensorPtr;
using rt::TensorShape;

rt::DeviceCPU& Device() {
    static rt::DeviceCPU device;
    return device;
}

// A three-dim tensor of owned storage, every byte `fill`; 0xAB marks bytes
// a refused call must leave alone.
TensorPtr WithLayout(int d0, int d1, int d2, int32_t layout, int32_t type = rt::data_type::kUInt8,
                     uint8_t fill = 0xAB) {
    return qvntest::FilledTensor(Device(), {d0, d1, d2}, layout, fill, type);
}
TensorPtr Hwc(int h, int w, int c, uint8_t fill = 0) { return WithLayout(h, w, c, rt::layout::kHWC, rt::data_type::kUInt8, fill); }
TensorPtr Chw(int c, int h, int w, uint8_t fill = 0) { return WithLayout(c, h, w, rt::layout::kCHW, rt::data_type::kUInt8, fill); }

// An owned copy of a continuous u8 Mat as {rows, cols, channels}.
TensorPtr FromMat(const cv::Mat& m) {
    return Device().CreateTensor(
        TensorShape({m.rows, m.cols, m.channels()}, rt::data_type::kUInt8, rt::layout::kHWC), m.data);
}

// A view of an HWC tensor as a Mat.
cv::Mat AsMat(const TensorPtr& t) {
    const auto& d = t->shape().dims;
    return cv::Mat(d[0], d[1], CV_8UC(d[2]), t->data());
}

cv::Mat RandomMat(int h, int w, int c, std::mt19937& rng) {
    cv::Mat m(h, w, CV_8UC(c));
    qvntest::FillRandom(m.data, m.total() * m.elemSize(), rng);
    return m;
}

// ---------------------------------------------------------------------------
// Crop
// ---------------------------------------------------------------------------

// The window cut by OpenCV ROI copies, the pad filling what lies outside.
TEST(Crop, OutsideIsPaddedOnEverySide) {
    std::mt19937 rng(12);
    struct Region {
        int x, y, w, h;
    };
    // Inside, left/top overhang, right/bottom overhang, larger than src on all
    // sides, wholly outside each way, one pixel, the whole image.
    const Region regions[] = {{2, 3, 11, 7},  {-3, -2, 10, 8}, {15, 9, 12, 7}, {-5, -4, 30, 21},
                              {40, 0, 3, 3},  {-9, 0, 4, 4},   {0, 30, 5, 2},  {0, -7, 5, 3},
                              {6, 4, 1, 1},   {0, 0, 19, 13},  {18, 12, 1, 1}};
    for (int ch : {1, 2, 3, 4, 5}) {
        const cv::Mat src = RandomMat(13, 19, ch, rng);
        TensorPtr s = FromMat(src);
        for (const Region& r : regions) {
            TensorPtr d = Hwc(r.h, r.w, ch, 0xEE);
            fn::F_Crop_U8_HWC_Memcpy(s, r.x, r.y, r.w, r.h, 99, d);
            EXPECT_EQ(MaxDiff(AsMat(d), qvntest::CropPad(src, r.x, r.y, r.w, r.h, 99)), 0)
                << "channels " << ch << " region " << r.x << "," << r.y << " " << r.w << "x" << r.h;
        }
    }
}

TEST(Crop, FarOutsideCoordinatesDoNotOverflow) {
    TensorPtr s = Hwc(4, 4, 1, 5);
    TensorPtr d = Hwc(2, 3, 1, 0);
    fn::F_Crop_U8_HWC_Memcpy(s, 2147483647 - 1, 2147483647 - 1, 3, 2, 42, d);
    EXPECT_TRUE(AllBytes(d, 42));
    fn::F_Crop_U8_HWC_Memcpy(s, -2147483647, -2147483647, 3, 2, 43, d);
    EXPECT_TRUE(AllBytes(d, 43));
}

// ---------------------------------------------------------------------------
// Resize
// ---------------------------------------------------------------------------

struct ResizeCase {
    int sw, sh, dw, dh;
};

// Down and up by several factors, odd sizes, width + 1, one-pixel sources
// and destinations, one axis unchanged.
const ResizeCase kResizeCases[] = {
    {1920, 1080, 256, 256}, {640, 480, 320, 240}, {640, 480, 160, 120}, {300, 200, 40, 27},
    {97, 61, 73, 45},       {64, 48, 48, 36},     {64, 48, 24, 18},     {33, 17, 66, 34},
    {31, 19, 100, 77},      {64, 64, 65, 65},     {65, 1, 130, 3},      {1, 1, 5, 7},
    {1, 9, 4, 4},           {10, 10, 1, 1},       {257, 129, 257, 131}, {129, 257, 131, 257},
    {2, 2, 3, 3},           {7, 3, 2, 9},         {256, 256, 640, 360}, {45, 45, 45, 45},
};

using ResizeFn = void (*)(const TensorPtr&, const TensorPtr&);

ResizeFn ResizeFor(int ch) {
    return ch == 1   ? fn::F_Resize_Bilinear_HWC_U8_C1_Fallback
           : ch == 2 ? fn::F_Resize_Bilinear_HWC_U8_C2_Fallback
                     : fn::F_Resize_Bilinear_HWC_U8_C4_Fallback;
}

// Real-valued bilinear interpolation with half-pixel centres, each axis
// clamped to the edge pixel, rounded to nearest.
cv::Mat BilinearReference(const cv::Mat& src, int dw, int dh) {
    const int ch = src.channels();
    cv::Mat out(dh, dw, src.type());
    auto taps = [](int d, int s_size, int d_size, int* i0, int* i1, double* a) {
        double f = (d + 0.5) * s_size / d_size - 0.5;
        if (f < 0) f = 0;
        *i0 = static_cast<int>(std::floor(f));
        *a = f - *i0;
        if (*i0 >= s_size - 1) {
            *i0 = s_size - 1;
            *a = 0;
        }
        *i1 = std::min(*i0 + 1, s_size - 1);
    };
    for (int y = 0; y < dh; ++y) {
        int y0, y1;
        double ay;
        taps(y, src.rows, dh, &y0, &y1, &ay);
        for (int x = 0; x < dw; ++x) {
            int x0, x1;
            double ax;
            taps(x, src.cols, dw, &x0, &x1, &ax);
            for (int c = 0; c < ch; ++c) {
                auto p = [&](int yy, int xx) { return static_cast<double>(src.ptr(yy)[xx * ch + c]); };
                const double top = p(y0, x0) * (1 - ax) + p(y0, x1) * ax;
                const double bottom = p(y1, x0) * (1 - ax) + p(y1, x1) * ax;
                out.ptr(y)[x * ch + c] =
                    static_cast<uint8_t>(std::lround(top * (1 - ay) + bottom * ay));
            }
        }
    }
    return out;
}

TEST(Resize, WithinTwoOfOpenCVAndOneOfExactBilinear) {
    cv::setNumThreads(1);
    std::mt19937 rng(21);
    for (int ch : {1, 2, 4}) {
        for (const ResizeCase& k : kResizeCases) {
            const cv::Mat src = RandomMat(k.sh, k.sw, ch, rng);
            TensorPtr s = FromMat(src);
            TensorPtr d = Hwc(k.dh, k.dw, ch, 0xEE);
            ResizeFn(ResizeFor(ch))(s, d);
            cv::Mat ref;
            cv::resize(src, ref, cv::Size(k.dw, k.dh), 0, 0, cv::INTER_LINEAR);
            const std::string what = std::to_string(ch) + " ch " + std::to_string(k.sw) + "x" +
                                     std::to_string(k.sh) + " -> " + std::to_string(k.dw) + "x" +
                                     std::to_string(k.dh);
            EXPECT_LE(MaxDiff(AsMat(d), ref), 2) << what;
            EXPECT_LE(MaxDiff(AsMat(d), BilinearReference(src, k.dw, k.dh)), 1) << what;
            if (k.sw == k.dw && k.sh == k.dh) {
                EXPECT_EQ(MaxDiff(AsMat(d), src), 0) << what;
            }
        }
    }
}

// Turns, flips and the splits of four-byte pixels into planes: their drivers
// are held to the pixel definitions in test_kernel_rows.cpp, and every
// orientation and packed format goes through these entry points against
// cv::rotate / cv::flip and a byte pick in test_frame_to_tensor.cpp.

// ---------------------------------------------------------------------------
// Gray
// ---------------------------------------------------------------------------

// Pure colours: 0.299 * 255 = 76.2, 0.587 * 255 = 149.7, 0.114 * 255 = 29.1,
// repeated past two vector blocks so that blocks and tail both count. Random
// pixels go through this entry point against OpenCV in
// test_frame_to_tensor.cpp, and the rows against their twin in
// test_kernel_rows.cpp.
TEST(ColourPlanes, GrayIsBt601) {
    const uint8_t colours[4][4] = {{0, 0, 255, 0}, {0, 255, 0, 0}, {255, 0, 0, 0}, {255, 255, 255, 255}};
    const uint8_t grays[4] = {76, 150, 29, 255};
    std::vector<uint8_t> pixels, want;
    for (int i = 0; i < 37; ++i) {
        pixels.insert(pixels.end(), colours[i % 4], colours[i % 4] + 4);
        want.push_back(grays[i % 4]);
    }
    TensorPtr s = Device().CreateBGRA8888Tensor(1, 37, pixels.data());
    TensorPtr d = Hwc(1, 37, 1);
    fn::F_ColorCvt_BGRA8888_To_Gray8_Fallback(s, d);
    EXPECT_EQ(0, std::memcmp(d->data(), want.data(), 37));
    // Any {H', W', 1} destination of the same pixel count takes the same bytes
    // in the source's row order (the gray converter's swapped size).
    TensorPtr column = Hwc(37, 1, 1, 0xEE);
    fn::F_ColorCvt_BGRA8888_To_Gray8_Fallback(s, column);
    EXPECT_EQ(0, std::memcmp(column->data(), want.data(), 37));
}

// ---------------------------------------------------------------------------
// Two-plane YUV
// ---------------------------------------------------------------------------

std::shared_ptr<YUVCvtMatrix> Matrix(std::initializer_list<float> values) {
    auto m = std::make_shared<YUVCvtMatrix>();
    int i = 0;
    for (float v : values) m->m[i++] = v;
    return m;
}

// BT.709, BT.601 full range, BT.601 in sixty-fourths and the same with the
// chroma bytes swapped, for either channel order (the kit's matrices); and
// odd values that exercise negative weights, a luma gain and offsets.
std::vector<std::shared_ptr<YUVCvtMatrix>> Matrices() {
    std::vector<std::shared_ptr<YUVCvtMatrix>> all;
    for (const auto& block : qvntest::kYuvMatrix) {
        for (const auto& row : block) {
            all.push_back(std::make_shared<YUVCvtMatrix>());
            std::memcpy(all.back()->m, row, sizeof(row));
        }
    }
    all.push_back(Matrix({0.8f, -1.25f, 0.5f, 2.5f, -3.9f, 0.125f, -0.75f, 123.f, 0.25f, 0.75f}));
    return all;
}

// The documented fixed-point definition, 13 fractional bits.
uint8_t YuvFixedReference(const YUVCvtMatrix& m, int plane, int y, int c0, int c1) {
    const double one = 8192.0;
    const double a = m.m[1 + 2 * plane], b = m.m[2 + 2 * plane];
    const long w0 = std::lround(m.m[0] * one), wa = std::lround(a * one), wb = std::lround(b * one);
    const long bias = std::lround(-(a * m.m[8] + b * m.m[9]) * 255.0 * one) + 4096;
    const long sum = w0 * y + wa * c0 + wb * c1 + bias;
    const long v = static_cast<long>(std::floor(sum / one));
    return static_cast<uint8_t>(std::clamp<long>(v, 0, 255));
}


struct YuvSize {
    int w, h, uv_w, uv_h;
};

// Even and odd sizes with floor-sized chroma, width + 1 of the vector step,
// one pixel, and chroma planes larger than needed.
const YuvSize kYuvSizes[] = {{64, 32, 32, 16},   {65, 33, 32, 16},  {1, 1, 1, 1},     {2, 2, 1, 1},
                             {3, 5, 1, 2},       {33, 3, 16, 1},    {97, 7, 48, 3},   {640, 480, 320, 240},
                             {31, 9, 16, 5},     {96, 4, 60, 2}};

TEST(YuvPlanes, EqualsTheFixedPointDefinitionAndIsWithinOneOfRealValues) {
    std::mt19937 rng(51);
    for (const auto& matrix : Matrices()) {
        for (const YuvSize& s : kYuvSizes) {
            const cv::Mat y = RandomMat(s.h, s.w, 1, rng);
            const cv::Mat uv = RandomMat(s.uv_h, s.uv_w, 2, rng);
            TensorPtr d = Chw(3, s.h, s.w, 0xEE);
            fn::F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback(FromMat(y), FromMat(uv), matrix, d);
            int mismatches = 0, worst_real = 0;
            for (int p = 0; p < 3; ++p) {
                for (int r = 0; r < s.h; ++r) {
                    for (int x = 0; x < s.w; ++x) {
                        const uint8_t* c =
                            uv.ptr(std::min(r / 2, s.uv_h - 1)) + 2 * std::min(x / 2, s.uv_w - 1);
                        const int luma = y.ptr(r)[x];
                        const uint8_t got = d->data()[(static_cast<size_t>(p) * s.h + r) * s.w + x];
                        if (got != YuvFixedReference(*matrix, p, luma, c[0], c[1])) ++mismatches;
                        const double real = std::clamp(qvntest::YuvReal(matrix->m, p, luma, c[0], c[1]), 0.0, 255.0);
                        worst_real = std::max(worst_real, std::abs(int(std::lround(real)) - got));
                    }
                }
            }
            EXPECT_EQ(mismatches, 0) << s.w << "x" << s.h;
            EXPECT_LE(worst_real, 1) << s.w << "x" << s.h;
        }
    }
}

// ---------------------------------------------------------------------------
// Refusals: message naming the kernel and both shapes, nothing written
// ---------------------------------------------------------------------------

struct Refusal {
    std::function<void()> call;
    TensorPtr watched;  // must stay 0xAB
    std::string message;
};

void ExpectRefused(const Refusal& r) {
    LogCapture capture;
    r.call();
    EXPECT_EQ(capture.Take(), std::vector<std::string>{r.message});
    if (r.watched) {
        EXPECT_TRUE(AllBytes(r.watched, 0xAB)) << r.message;
    }
}

// The refusal line: "<kernel>: src <shape> and dst <shape> do not fit: <why>",
// a shape being "{dims} (type T, layout L)".
std::string Misfit(const std::string& kernel, const std::string& src, const std::string& dst,
                   const std::string& why) {
    return kernel + ": src " + src + " and dst " + dst + " do not fit: " + why;
}
std::string H(const std::string& dims) { return dims + " (type 7, layout 1)"; }
std::string C(const std::string& dims) { return dims + " (type 7, layout 0)"; }

TEST(Refusals, GeometryKernels) {
    TensorPtr s3 = WithLayout(4, 6, 3, rt::layout::kHWC);
    TensorPtr d_wrong = WithLayout(4, 5, 3, rt::layout::kHWC);
    TensorPtr d_turn = WithLayout(6, 4, 3, rt::layout::kHWC);
    TensorPtr d_same = WithLayout(4, 6, 3, rt::layout::kHWC);
    TensorPtr d_ch = WithLayout(4, 6, 4, rt::layout::kHWC);
    TensorPtr chw = WithLayout(3, 4, 6, rt::layout::kCHW);
    TensorPtr f32 = WithLayout(4, 6, 3, rt::layout::kHWC, rt::data_type::kFloat32);
    TensorPtr no_storage = Device().CreateTensorExternal(
        TensorShape({4, 6, 3}, rt::data_type::kUInt8, rt::layout::kHWC), nullptr);
    const std::string s = H("{4, 6, 3}"), hw = "dst must be {H, W, C} of src";
    const std::string image = "dst must be a u8 HWC image", crop = "F_Crop_U8_HWC_Memcpy";
    const std::string region = "dst must be {h, w, C} of the region";

    const std::vector<Refusal> cases = {
        {[&] { fn::F_HFlip_HWC_Fallback(s3, d_wrong); }, d_wrong,
         Misfit("F_HFlip_HWC_Fallback", s, H("{4, 5, 3}"), hw)},
        {[&] { fn::F_Rotate_Clockwise90_HWC_Fallback(s3, d_same); }, d_same,
         Misfit("F_Rotate_Clockwise90_HWC_Fallback", s, s, "dst must be {W, H, C} of src")},
        {[&] { fn::F_Rotate_Clockwise180_HWC_Fallback(s3, d_turn); }, d_turn,
         Misfit("F_Rotate_Clockwise180_HWC_Fallback", s, H("{6, 4, 3}"), hw)},
        {[&] { fn::F_Rotate_Clockwise180_HWC_Fallback(nullptr, d_same); }, d_same,
         Misfit("F_Rotate_Clockwise180_HWC_Fallback", "null", s, "src must be a u8 HWC image")},
        {[&] { fn::F_Rotate_Clockwise90_HWC_Fallback(s3, nullptr); }, nullptr,
         Misfit("F_Rotate_Clockwise90_HWC_Fallback", s, "null", image)},
        {[&] { fn::F_HFlip_HWC_Fallback(s3, f32); }, f32,
         Misfit("F_HFlip_HWC_Fallback", s, "{4, 6, 3} (type 1, layout 1)", image)},
        {[&] { fn::F_VFlip_HWC_Fallback(s3, no_storage); }, nullptr,
         Misfit("F_VFlip_HWC_Fallback", s, s + " without storage", image)},
        {[&] { fn::F_HFlip_HWC_Fallback(d_same, d_same); }, d_same,
         Misfit("F_HFlip_HWC_Fallback", s, s, "src and dst share storage")},
        {[&] { fn::F_Crop_U8_HWC_Memcpy(s3, 0, 0, 6, 4, 0, d_ch); }, d_ch,
         Misfit(crop, s, H("{4, 6, 4}"), "src and dst must have the same channels")},
        {[&] { fn::F_Crop_U8_HWC_Memcpy(s3, 0, 0, 6, 5, 0, d_same); }, d_same, Misfit(crop, s, s, region)},
        {[&] { fn::F_Crop_U8_HWC_Memcpy(s3, 0, 0, 0, 4, 0, d_same); }, d_same,  // an empty region
         Misfit(crop, s, s, region)},
        {[&] { fn::F_Crop_U8_HWC_Memcpy(nullptr, 0, 0, 6, 4, 0, d_same); }, d_same,
         Misfit(crop, "null", s, "src must be a u8 HWC image")},
        {[&] { fn::F_Crop_U8_HWC_Memcpy(s3, 0, 0, 6, 4, 0, chw); }, chw, Misfit(crop, s, C("{3, 4, 6}"), image)},
    };
    for (const Refusal& r : cases) ExpectRefused(r);
    EXPECT_TRUE(AllBytes(s3, 0xAB));
}

TEST(Refusals, ResizeKernels) {
    TensorPtr c2 = WithLayout(8, 8, 2, rt::layout::kHWC);
    TensorPtr c4 = WithLayout(8, 8, 4, rt::layout::kHWC);
    TensorPtr d1 = WithLayout(3, 5, 1, rt::layout::kHWC);
    TensorPtr d4 = WithLayout(3, 5, 4, rt::layout::kHWC);
    TensorPtr plane2 = WithLayout(3, 5, 2, rt::layout::kPlane);
    const std::string r1 = "F_Resize_Bilinear_HWC_U8_C1_Fallback";
    const std::string r2 = "F_Resize_Bilinear_HWC_U8_C2_Fallback";
    const std::string r4 = "F_Resize_Bilinear_HWC_U8_C4_Fallback";
    const std::vector<Refusal> cases = {
        {[&] { fn::F_Resize_Bilinear_HWC_U8_C1_Fallback(c2, d1); }, d1,
         Misfit(r1, H("{8, 8, 2}"), H("{3, 5, 1}"), "src must be a u8 HWC image of 1 channel")},
        {[&] { fn::F_Resize_Bilinear_HWC_U8_C2_Fallback(c2, plane2); }, plane2,
         Misfit(r2, H("{8, 8, 2}"), "{3, 5, 2} (type 7, layout 23)", "dst must be a u8 HWC image of 2 channels")},
        {[&] { fn::F_Resize_Bilinear_HWC_U8_C4_Fallback(c4, d1); }, d1,
         Misfit(r4, H("{8, 8, 4}"), H("{3, 5, 1}"), "dst must be a u8 HWC image of 4 channels")},
        {[&] { fn::F_Resize_Bilinear_HWC_U8_C4_Fallback(nullptr, d4); }, d4,
         Misfit(r4, "null", H("{3, 5, 4}"), "src must be a u8 HWC image of 4 channels")},
        {[&] { fn::F_Resize_Bilinear_HWC_U8_C4_Fallback(c4, c4); }, c4,
         Misfit(r4, H("{8, 8, 4}"), H("{8, 8, 4}"), "src and dst share storage")},
    };
    for (const Refusal& r : cases) ExpectRefused(r);
}

TEST(Refusals, ColourKernels) {
    TensorPtr bgra = WithLayout(4, 6, 4, rt::layout::kHWC);
    TensorPtr bgr = WithLayout(4, 6, 3, rt::layout::kHWC);
    TensorPtr planes = WithLayout(3, 4, 6, rt::layout::kCHW);
    TensorPtr planes_small = WithLayout(3, 4, 5, rt::layout::kCHW);
    TensorPtr gray = WithLayout(4, 6, 1, rt::layout::kHWC);
    TensorPtr gray_small = WithLayout(3, 6, 1, rt::layout::kHWC);
    TensorPtr y = WithLayout(4, 6, 1, rt::layout::kHWC);
    TensorPtr uv = WithLayout(2, 3, 2, rt::layout::kHWC);
    TensorPtr uv_small = WithLayout(2, 2, 2, rt::layout::kHWC);
    auto bt601 = Matrix({1, 0, 1.402f, -0.3441363f, -0.7141363f, 1.772f, 0, 0, 0.5f, 0.5f});
    auto too_big = Matrix({1, 0, 4.0f, 0, 0, 0, 0, 0, 0.5f, 0.5f});
    auto nan = Matrix({1, 0, std::nanf(""), 0, 0, 0, 0, 0, 0.5f, 0.5f});
    // The two-plane converter names three tensors.
    const auto yuv = [](const std::string& y_dims, const std::string& uv_dims, const std::string& dst,
                        const std::string& why) {
        return "F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback: y " + H(y_dims) + ", uv " +
               H(uv_dims) + " and dst " + C(dst) + " do not fit: " + why;
    };
    const std::string four = "src must be a u8 HWC image of 4 channels";
    const std::string weights = "colour matrix weights must lie in (-4, 4) and offsets in [-4, 4]";
    const std::string gray_name = "F_ColorCvt_BGRA8888_To_Gray8_Fallback";
    const std::vector<Refusal> cases = {
        {[&] { fn::F_ColorCvt_BGRA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback(bgr, planes); }, planes,
         Misfit("F_ColorCvt_BGRA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback", H("{4, 6, 3}"), C("{3, 4, 6}"), four)},
        {[&] { fn::F_ColorCvt_RGBA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback(bgra, planes_small); }, planes_small,
         Misfit("F_ColorCvt_RGBA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback", H("{4, 6, 4}"), C("{3, 4, 5}"),
                "dst must be a u8 CHW image {3, H, W} of src")},
        {[&] { fn::F_ColorCvt_BGRA8888_To_Gray8_Fallback(bgra, gray_small); }, gray_small,
         Misfit(gray_name, H("{4, 6, 4}"), H("{3, 6, 1}"), "dst must be a u8 HWC image {H, W, 1} of src")},
        {[&] { fn::F_ColorCvt_BGRA8888_To_Gray8_Fallback(nullptr, gray); }, gray,
         Misfit(gray_name, "null", H("{4, 6, 1}"), four)},
        {[&] { fn::F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback(y, uv, bt601, planes_small); },
         planes_small, yuv("{4, 6, 1}", "{2, 3, 2}", "{3, 4, 5}", "dst must be a u8 CHW image {3, H, W} of y")},
        {[&] { fn::F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback(y, uv, nullptr, planes); },
         planes, yuv("{4, 6, 1}", "{2, 3, 2}", "{3, 4, 6}", "the colour matrix is missing")},
        {[&] { fn::F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback(y, uv, too_big, planes); },
         planes, yuv("{4, 6, 1}", "{2, 3, 2}", "{3, 4, 6}", weights)},
        {[&] { fn::F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback(y, uv, nan, planes); },
         planes, yuv("{4, 6, 1}", "{2, 3, 2}", "{3, 4, 6}", weights)},
        {[&] { fn::F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback(y, uv_small, bt601, planes); }, planes,
         yuv("{4, 6, 1}", "{2, 2, 2}", "{3, 4, 6}", "uv must be a u8 {H/2, W/2, 2} plane of chroma pairs")},
        {[&] { fn::F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback(uv, uv, bt601, planes); },
         planes, yuv("{2, 3, 2}", "{2, 3, 2}", "{3, 4, 6}", "y must be a u8 {H, W, 1} plane")},
    };
    for (const Refusal& r : cases) ExpectRefused(r);
}

}  // namespace
