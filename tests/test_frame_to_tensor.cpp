// Frame-to-tensor converters, checked three ways:
//  - whole conversions against a reference built here step by step: crop with
//    padding by OpenCV ROI copies, bilinear resize, turns and flips by
//    cv::rotate / cv::flip, and colour by the scalar formula of the core's
//    documented YUV matrix (or a plain byte pick for four-byte frames);
//  - the one-pass converters byte for byte against the step-by-step ones;
//  - refusals, output checks with their exact messages, and exceptions that
//    must leave nothing allocated (the leak check of AddressSanitizer).
//
// Resize is the one step whose rounding is the core's own: the reference runs
// the core's bilinear kernel (held to OpenCV's INTER_LINEAR and to the exact
// bilinear definition in test_core_kernels.cpp); everything around it here is
// independent, and must match exactly or to the colour formula's rounding.
#include <qvn_kit/qvn_kit.hpp>

#include <quvas/qvn_core.h>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "cv_support.h"
#include "log_capture.hpp"
#include "test_support.h"

using quvas::kit::TensorPtr;
using quvas::runtime::DeviceCPU;
using quvas::runtime::TensorShape;

namespace {

namespace F = quvas::kernel::functional;
namespace kit = quvas::kit;

// The converters under test, by shorter names.
const auto Whole = kit::QV_BinlinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU;
const auto Planar = kit::QV_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU;
const auto Gray = kit::QV_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_Gray8_TensorCPU;
const auto OnePassPlanar =
    kit::QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU;
const auto OnePassGray =
    kit::QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_Gray8_TensorCPU;

const char* const kBadFormat = "Invaild pixel format of input image.";
const char* const kBadType = "o_tensor must be a UInt8 DataType Tensor.";
const char* const kBadLayout = "o_tensor must be a HWC Layout Tensor.";
const char* const kBadLocation = "o_tensor must be a MainMemory Location Tensor.";

bool IsYUV(uint32_t fmt) { return fmt == 2 || fmt == 3 || fmt == 8 || fmt == 9; }

// A tightly packed frame, exactly as large as the planes the kit wraps, so
// that any read past them is caught by AddressSanitizer.
struct Frame {
    QVN_Image img{};
    std::vector<uint8_t> bytes;
};

Frame MakeFrame(uint32_t fmt, uint32_t ori, int w, int h, uint32_t seed) {
    Frame f;
    const size_t size = IsYUV(fmt) ? static_cast<size_t>(w) * h + (h / 2) * (w / 2) * 2
                                   : static_cast<size_t>(w) * h * 4;
    f.bytes.resize(size);
    std::mt19937 rng(seed);
    for (uint8_t& b : f.bytes) b = static_cast<uint8_t>(rng() >> 24);
    f.img = qvntest::MakeImage(fmt, w, h, IsYUV(fmt) ? 1 : 4, f.bytes.data(), ori);
    return f;
}

// ---------------------------------------------------------------------------
// The reference.
// ---------------------------------------------------------------------------

// Where an upright crop box lies in the frame: the forward matrix of the
// orientation word (the whole word selects a row; unlisted words are the
// identity), applied to the four corners, bounding box taken.
struct Box {
    bool active = false;
    int x = 0, y = 0, w = 0, h = 0;
};

Box FrameBox(const QVN_Image& img, int cx, int cy, int cw, int ch) {
    Box box;
    if (cw * ch <= 0) return box;
    const float W = static_cast<float>(img.width) - 1.0f;
    const float H = static_cast<float>(img.height) - 1.0f;
    float m[6] = {1, 0, 0, 0, 1, 0};
    auto set = [&m](float a, float b, float c, float d, float e, float f) {
        m[0] = a, m[1] = b, m[2] = c, m[3] = d, m[4] = e, m[5] = f;
    };
    switch (img.ori_fmt) {
        case 1: set(0, -1, W, 1, 0, 0); break;
        case 2: set(0, 1, 0, -1, 0, H); break;
        case 4: set(-1, 0, W, 0, -1, H); break;
        case 8: case 20: set(1, 0, 0, 0, -1, H); break;
        case 9: case 18: set(0, 1, 0, 1, 0, 0); break;
        case 10: case 17: set(0, -1, W, -1, 0, H); break;
        case 12: case 16: set(-1, 0, W, 0, 1, 0); break;
        default: break;
    }
    const float xs[2] = {static_cast<float>(cx), static_cast<float>(cx + cw - 1)};
    const float ys[2] = {static_cast<float>(cy), static_cast<float>(cy + ch - 1)};
    float x0 = INFINITY, y0 = INFINITY, x1 = -INFINITY, y1 = -INFINITY;
    for (float x : xs) {
        for (float y : ys) {
            const float tx = m[0] * x + m[1] * y + m[2];
            const float ty = m[3] * x + m[4] * y + m[5];
            x0 = std::min(x0, tx), x1 = std::max(x1, tx);
            y0 = std::min(y0, ty), y1 = std::max(y1, ty);
        }
    }
    box.active = true;
    box.x = static_cast<int>(x0);
    box.y = static_cast<int>(y0);
    box.w = static_cast<int>(x1) - box.x + 1;
    box.h = static_cast<int>(y1) - box.y + 1;
    return box;
}

cv::Mat Resize(const cv::Mat& src_in, int h, int w) {
    static DeviceCPU device;
    cv::Mat src = src_in.clone();
    const int c = src.channels();
    cv::Mat dst(h, w, src.type(), cv::Scalar::all(0));
    TensorPtr s = device.CreateTensorExternal(TensorShape({src.rows, src.cols, c}, 7, 1), src.data);
    TensorPtr d = device.CreateTensorExternal(TensorShape({h, w, c}, 7, 1), dst.data);
    if (c == 1) F::F_Resize_Bilinear_HWC_U8_C1_Fallback(s, d);
    if (c == 2) F::F_Resize_Bilinear_HWC_U8_C2_Fallback(s, d);
    if (c == 4) F::F_Resize_Bilinear_HWC_U8_C4_Fallback(s, d);
    return dst;
}

// Undo the frame's orientation: bit 2 turns clockwise, else bit 1 turns
// counter-clockwise, else bit 4 turns half; then bit 16 mirrors, else bit 8
// flips vertically.
cv::Mat Upright(const cv::Mat& src, uint32_t ori) {
    cv::Mat a = src.clone(), b;
    if (ori & 2) {
        cv::rotate(a, b, cv::ROTATE_90_CLOCKWISE), a = b.clone();
    } else if (ori & 1) {
        cv::rotate(a, b, cv::ROTATE_90_COUNTERCLOCKWISE), a = b.clone();
    } else if (ori & 4) {
        cv::rotate(a, b, cv::ROTATE_180), a = b.clone();
    }
    if (ori & 16) {
        cv::flip(a, b, 1), a = b.clone();
    } else if (ori & 8) {
        cv::flip(a, b, 0), a = b.clone();
    }
    return a;
}

const float* MatrixRow(bool to_bgr, uint32_t fmt) {
    const int row = fmt == 2 ? 0 : fmt == 3 ? 1 : fmt == 8 ? 2 : 3;
    return qvntest::kYuvMatrix[to_bgr ? 1 : 0][row];
}

// Planar 3 x th x tw bytes.
std::vector<uint8_t> ExpectedPlanar(const Frame& f, bool to_bgr, const Box& box, uint8_t pad,
                                    int th, int tw) {
    const QVN_Image& img = f.img;
    const bool quarter = (img.ori_fmt & 3) != 0;
    const int rh = quarter ? tw : th, rw = quarter ? th : tw;
    std::vector<uint8_t> out(static_cast<size_t>(3) * th * tw);
    if (IsYUV(img.pix_fmt)) {
        cv::Mat y(img.height, img.width, CV_8UC1, img.data);
        cv::Mat uv(img.height / 2, img.width / 2, CV_8UC2,
                   img.data + static_cast<size_t>(img.width) * img.height);
        if (box.active) {
            y = qvntest::CropPad(y, box.x, box.y, box.w, box.h, pad);
            uv = qvntest::CropPad(uv, box.x / 2, box.y / 2, box.w / 2, box.h / 2, pad);
        }
        y = Upright(Resize(y, rh, rw), img.ori_fmt);
        uv = Upright(Resize(uv, rh / 2, rw / 2), img.ori_fmt);
        const float* m = MatrixRow(to_bgr, img.pix_fmt);
        for (int r = 0; r < th; ++r) {
            for (int c = 0; c < tw; ++c) {
                // Each chroma pair covers 2 x 2 luma pixels; an odd last row
                // or column reuses the last pair.
                const cv::Vec2b ch =
                    uv.at<cv::Vec2b>(std::min(r / 2, uv.rows - 1), std::min(c / 2, uv.cols - 1));
                for (int p = 0; p < 3; ++p) {
                    const double v = qvntest::YuvReal(m, p, y.at<uint8_t>(r, c), ch[0], ch[1]);
                    out[(static_cast<size_t>(p) * th + r) * tw + c] =
                        static_cast<uint8_t>(std::clamp(std::lround(v), 0L, 255L));
                }
            }
        }
        return out;
    }
    cv::Mat in(img.height, img.width, CV_8UC4, img.data);
    if (box.active) in = qvntest::CropPad(in, box.x, box.y, box.w, box.h, pad);
    in = Upright(Resize(in, rh, rw), img.ori_fmt);
    // Byte positions of R, G, B in the frame's pixels.
    const int pos_bgra[3] = {2, 1, 0}, pos_rgba[3] = {0, 1, 2};
    const int* pos = img.pix_fmt == QVN_PIX_FMT_BGRA8888 ? pos_bgra : pos_rgba;
    const int order_rgb[3] = {0, 1, 2}, order_bgr[3] = {2, 1, 0};
    const int* order = to_bgr ? order_bgr : order_rgb;
    for (int p = 0; p < 3; ++p) {
        for (int r = 0; r < th; ++r) {
            for (int c = 0; c < tw; ++c) {
                out[(static_cast<size_t>(p) * th + r) * tw + c] =
                    in.at<cv::Vec4b>(r, c)[pos[order[p]]];
            }
        }
    }
    return out;
}

// Gray th x tw: luma of a YUV frame resized straight to the output; four-byte
// frames resized to the (possibly swapped) size and read as B, G, R, A.
std::vector<uint8_t> ExpectedGray(const Frame& f, const Box& box, uint8_t pad, int th, int tw) {
    const QVN_Image& img = f.img;
    const bool quarter = (img.ori_fmt & 3) != 0;
    cv::Mat g;
    if (IsYUV(img.pix_fmt)) {
        cv::Mat y(img.height, img.width, CV_8UC1, img.data);
        if (box.active) y = qvntest::CropPad(y, box.x, box.y, box.w, box.h, pad);
        g = Resize(y, th, tw);
    } else {
        cv::Mat in(img.height, img.width, CV_8UC4, img.data);
        if (box.active) in = qvntest::CropPad(in, box.x, box.y, box.w, box.h, pad);
        cv::cvtColor(Resize(in, quarter ? tw : th, quarter ? th : tw), g, cv::COLOR_BGRA2GRAY);
    }
    return std::vector<uint8_t>(g.datastart, g.dataend);
}

// ---------------------------------------------------------------------------
// Running the kit.
// ---------------------------------------------------------------------------

constexpr uint8_t kUntouched = 0xAB;
using Dims = std::vector<int32_t>;

class FrameToTensor : public ::testing::Test {
protected:
    TensorPtr Output(std::vector<int32_t> dims, int32_t layout, int32_t type = 7,
                     uint32_t location = 0x10001) {
        return qvntest::FilledTensor(device, std::move(dims), layout, kUntouched, type, location);
    }
    DeviceCPU device;
};

// Every sample within `tolerance`; on failure, the largest difference and
// where the first one beyond the tolerance lies.
::testing::AssertionResult Within(const std::vector<uint8_t>& want, const TensorPtr& got,
                                  int tolerance) {
    if (got->byte_size() != want.size()) {
        return ::testing::AssertionFailure()
               << "output has " << got->byte_size() << " bytes, reference " << want.size();
    }
    const uint8_t* g = got->data();
    int max = 0;
    size_t beyond = 0, first = 0;
    for (size_t i = 0; i < want.size(); ++i) {
        const int e = std::abs(static_cast<int>(want[i]) - static_cast<int>(g[i]));
        if (e > tolerance && beyond++ == 0) first = i;
        max = std::max(max, e);
    }
    if (beyond == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure()
           << beyond << " samples beyond " << tolerance << ", max diff " << max
           << ", first at sample " << first << " (want " << int(want[first]) << ", got "
           << int(g[first]) << ")";
}

bool Untouched(const TensorPtr& t) { return qvntest::AllBytes(t, kUntouched); }

const uint32_t kFormats[] = {2, 3, 8, 9, 5, 6};
// Every single bit, the combinations a frame can carry, the shadowed pairs
// (1|2, 16|8) and the word with every bit set.
const uint32_t kOrients[] = {0,  1,  2,  3,  4,  5,  6,  8,  9,  10, 12, 16, 17,
                             18, 20, 24, 25, 26, 28, 64, 65, 66, 68, 72, 80, 127};

struct CropCase {
    const char* what;
    int x, y, w, h;
};
// Frames are 64 x 48; targets 24 x 40 (rows x columns).
const CropCase kCrops[] = {
    {"whole frame", 0, 0, 0, 0},
    {"inside", 7, 5, 30, 22},
    {"over the top-left corner", -9, -5, 28, 20},
    {"over the bottom-right corner", 41, 31, 30, 25},
};
constexpr int kW = 64, kH = 48, kTH = 24, kTW = 40;

// Gray never turns: a four-byte frame with a pending quarter turn is resized
// to tw x th and that picture fills the th x tw tensor row after row.
TEST_F(FrameToTensor, PlanarAndGrayMatchReferenceForEveryFormatOrientationAndCrop) {
    LogCapture log;
    const uint8_t pad = 0x5A;
    for (uint32_t fmt : kFormats) {
        const bool yuv = IsYUV(fmt);
        for (uint32_t ori : kOrients) {
            const Frame f = MakeFrame(fmt, ori, kW, kH, fmt * 1000 + ori);
            for (const CropCase& crop : kCrops) {
                SCOPED_TRACE(::testing::Message() << "format " << fmt << " ori " << ori << " " << crop.what);
                const Box box = FrameBox(f.img, crop.x, crop.y, crop.w, crop.h);
                TensorPtr gray = Output({kTH, kTW, 1}, 1);
                Gray(&f.img, gray, crop.x, crop.y, crop.w, crop.h, pad);
                EXPECT_TRUE(Within(ExpectedGray(f, box, pad, kTH, kTW), gray, yuv ? 0 : 1));
                for (bool to_bgr : {false, true}) {
                    TensorPtr out = Output({3, kTH, kTW}, 0);
                    Planar(&f.img, out, to_bgr, crop.x, crop.y, crop.w, crop.h, pad);
                    EXPECT_TRUE(Within(ExpectedPlanar(f, to_bgr, box, pad, kTH, kTW), out, yuv ? 1 : 0)) << to_bgr;
                    if (crop.w == 0) {
                        // The whole-frame converter is the same conversion.
                        TensorPtr whole = Output({3, kTH, kTW}, 0);
                        Whole(&f.img, whole, to_bgr);
                        ASSERT_EQ(0, std::memcmp(whole->data(), out->data(), out->byte_size()));
                    }
                }
            }
        }
    }
    EXPECT_TRUE(log.Take().empty());
}

// Sizes that are not multiples of anything: odd frame, odd crop origin, odd
// output (its chroma planes are the halved sizes, rounded down).
TEST_F(FrameToTensor, PlanarHandlesOddFramesAndUpscaling) {
    for (uint32_t fmt : kFormats) {
        for (uint32_t ori : {0u, 2u, 17u}) {
            const Frame f = MakeFrame(fmt, ori, 37, 29, 77 + fmt);
            for (bool to_bgr : {false, true}) {
                SCOPED_TRACE(::testing::Message() << "format " << fmt << " ori " << ori);
                TensorPtr out = Output({3, 51, 63}, 0);
                Planar(&f.img, out, to_bgr, 3, 1, 21, 17, 0);
                const Box box = FrameBox(f.img, 3, 1, 21, 17);
                EXPECT_TRUE(Within(ExpectedPlanar(f, to_bgr, box, 0, 51, 63), out, IsYUV(fmt) ? 1 : 0));
            }
        }
    }
}

// A crop with no area converts the whole frame; two negative sizes make a
// positive area and the box is taken between the given corners.
TEST_F(FrameToTensor, CropSizesWithoutAreaConvertTheWholeFrame) {
    for (uint32_t fmt : {9u, 5u}) {
        const Frame f = MakeFrame(fmt, 0, kW, kH, 5);
        TensorPtr whole = Output({3, kTH, kTW}, 0);
        Whole(&f.img, whole, false);
        const int sizes[][2] = {{0, 20}, {20, 0}, {-4, 3}, {3, -4}, {0, 0}};
        for (const auto& s : sizes) {
            SCOPED_TRACE(::testing::Message() << fmt << ": " << s[0] << " x " << s[1]);
            TensorPtr out = Output({3, kTH, kTW}, 0);
            Planar(&f.img, out, false, 9, 7, s[0], s[1], 0x77);
            EXPECT_EQ(0, std::memcmp(whole->data(), out->data(), out->byte_size()));
        }
        // x from 30 back to 25, y from 20 back to 17: the box 25..30 x 17..20.
        TensorPtr out = Output({3, kTH, kTW}, 0);
        Planar(&f.img, out, false, 30, 20, -4, -2, 0);
        Box box;
        box.active = true, box.x = 25, box.y = 17, box.w = 6, box.h = 4;
        EXPECT_TRUE(Within(ExpectedPlanar(f, false, box, 0, kTH, kTW), out, IsYUV(fmt) ? 1 : 0));
    }
}

// A one-row frame has no chroma rows at all; gray never needs them.
TEST_F(FrameToTensor, GrayOfOneRowFrameNeedsNoChroma) {
    for (uint32_t fmt : {2u, 9u}) {
        const Frame f = MakeFrame(fmt, 0, 16, 1, 12);  // 16 luma bytes, nothing else
        ASSERT_EQ(f.bytes.size(), 16u);
        TensorPtr out = Output({1, 8, 1}, 1);
        Gray(&f.img, out, 0, 0, 0, 0, 0);
        EXPECT_TRUE(Within(ExpectedGray(f, Box(), 0, 1, 8), out, 0));
    }
}

// ---------------------------------------------------------------------------
// Refusals, output checks and the placeholders.
// ---------------------------------------------------------------------------

TEST_F(FrameToTensor, RefusedFormatsWriteNothing) {
    for (uint32_t fmt : {0u, 1u, 4u, 7u, 10u, 11u, 12u, 13u, 14u, 15u}) {
        SCOPED_TRACE(fmt);
        std::vector<uint8_t> bytes(kW * kH * 4, 1);
        QVN_Image img{};
        img.pix_fmt = fmt, img.width = kW, img.height = kH, img.data = bytes.data();
        TensorPtr planar = Output({3, kTH, kTW}, 0), gray = Output({kTH, kTW, 1}, 1);
        LogCapture log;
        Whole(&img, planar, false);
        Planar(&img, planar, true, 2, 2, 10, 10, 0);
        Gray(&img, gray, 2, 2, 10, 10, 0);
        EXPECT_EQ(log.Take(), std::vector<std::string>(3, kBadFormat));  // one line each
        EXPECT_TRUE(Untouched(planar) && Untouched(gray));
    }
}

// A failed output check is reported and the conversion still runs: a tensor
// in another location is still filled with the right pixels.
TEST_F(FrameToTensor, OutputChecksReportAndGoOn) {
    const Frame f = MakeFrame(8, 0, kW, kH, 21);
    {
        LogCapture log;
        TensorPtr out = Output({3, kTH, kTW}, 0, 7, 0x20002);
        Whole(&f.img, out, false);
        EXPECT_EQ(log.Take(), std::vector<std::string>({kBadLocation}));
        EXPECT_TRUE(Within(ExpectedPlanar(f, false, Box(), 0, kTH, kTW), out, 1));
    }
    {
        LogCapture log;
        TensorPtr out = Output({kTH, kTW, 1}, 1, 7, 0);
        Gray(&f.img, out, 0, 0, 0, 0, 0);
        EXPECT_EQ(log.Take(), std::vector<std::string>({kBadLocation}));
        EXPECT_TRUE(Within(ExpectedGray(f, Box(), 0, kTH, kTW), out, 0));
    }
    // All three wrong: three messages, in order, before anything else.
    const Frame bgra = MakeFrame(5, 0, kW, kH, 22);
    for (int which = 0; which < 3; ++which) {
        SCOPED_TRACE(which);
        LogCapture log;
        const bool gray = which == 2;
        // Wrong type (u16), wrong layout (the planar layout for gray and the
        // other way round), wrong location.
        TensorPtr out = Output(gray ? Dims({kTH, kTW, 1}) : Dims({3, kTH, kTW}), gray ? 0 : 1, 6,
                               0x10002);
        if (which == 0) Whole(&bgra.img, out, false);
        if (which == 1) Planar(&bgra.img, out, false, 1, 1, 30, 30, 0);
        if (which == 2) Gray(&bgra.img, out, 1, 1, 30, 30, 0);
        std::vector<std::string> lines = log.Take();
        lines.resize(std::min<size_t>(lines.size(), 3));
        EXPECT_EQ(lines, std::vector<std::string>({kBadType, kBadLayout, kBadLocation}));
    }
    // A refused format after failed checks: both reported, nothing written.
    {
        LogCapture log;
        QVN_Image img = bgra.img;
        img.pix_fmt = 10;
        TensorPtr out = Output({3, kTH, kTW}, 0, 1);
        Whole(&img, out, false);
        EXPECT_EQ(log.Take(), std::vector<std::string>({kBadType, kBadFormat}));
        EXPECT_TRUE(Untouched(out));
    }
}

TEST_F(FrameToTensor, PlaceholdersLeaveTheOutputAlone) {
    LogCapture log;
    TensorPtr out = Output({3, kTH, kTW}, 0);
    quvas::kit::QV_Crop_NearestResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(
        nullptr, out, false, 0, 0, 10, 10, 0);
    quvas::kit::QV_Crop_Resize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(
        nullptr, out, true, 0, 0, 10, 10, 0, "bilinear");
    TensorPtr wrong = Output({3, kTH, kTW}, 1, 1, 0);
    quvas::kit::QV_Crop_NearestResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(
        nullptr, wrong, false, 0, 0, 10, 10, 0);
    EXPECT_TRUE(Untouched(out) && Untouched(wrong));
    EXPECT_TRUE(log.Take().empty());
}

// ---------------------------------------------------------------------------
// Exceptions from the core part-way through. Whatever was made before the
// failing step is released on the way out (AddressSanitizer's leak check
// would report it otherwise); the output is not written.
// ---------------------------------------------------------------------------

TEST_F(FrameToTensor, ThrowingCoreLeavesNothingBehind) {
    struct Case {
        const char* what;
        uint32_t fmt, ori;
        int crop_w, crop_h;
        Dims dims;
    };
    const Case cases[] = {
        // A one-row crop: the luma crop is made, the chroma crop has no rows.
        {"one-row crop", 9, 0, 20, 1, {3, kTH, kTW}},
        // A one-row output: crops and luma resize made, chroma resize refused.
        {"one-row output", 2, 0, 20, 20, {3, 1, kTW}},
        // A one-column output with a quarter turn pending: same, swapped.
        {"one-column output turned", 3, 2, 20, 20, {3, kTH, 1}},
        // A crop no tensor can hold.
        {"huge crop", 5, 0, INT_MAX, 1, {3, kTH, kTW}},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(k.what);
        Frame f = MakeFrame(k.fmt, k.ori, kW, kH, 9);
        TensorPtr out = Output(k.dims, 0);
        EXPECT_THROW(Planar(&f.img, out, false, 0, 0, k.crop_w, k.crop_h, 0), std::invalid_argument);
        EXPECT_TRUE(Untouched(out));
        EXPECT_EQ(out.use_count(), 1);
    }
}

// ---------------------------------------------------------------------------
// The one-pass converters: exactly what the step-by-step ones give.
// ---------------------------------------------------------------------------

// What one conversion left: the output bytes, the log lines, or the text of
// the exception it threw.
struct Outcome {
    std::vector<uint8_t> bytes;
    std::vector<std::string> log;
    std::string thrown;
};

template <typename Convert>
Outcome Capture(const TensorPtr& out, Convert convert) {
    LogCapture log;
    Outcome o;
    try {
        convert();
    } catch (const std::exception& e) {
        o.thrown = e.what();
    }
    o.bytes.assign(out->data(), out->data() + out->byte_size());
    o.log = log.Take();
    return o;
}

TEST_F(FrameToTensor, OnePassEqualsStepByStep) {
    struct Size {
        int fw, fh, th, tw;
    };
    // Downscaling, odd frame and tensor sizes, upscaling, and sizes too
    // small for a chroma plane (both paths must throw the same).
    const Size sizes[] = {{64, 48, 24, 40}, {37, 23, 7, 5}, {6, 4, 19, 26}, {64, 48, 1, 9}};
    const CropCase crops[] = {
        {"whole frame", 0, 0, 0, 0},         {"inside", 7, 5, 30, 22},
        {"over the top-left", -9, -5, 28, 20}, {"over the bottom-right", 21, 13, 60, 45},
        {"wholly outside", 90, -70, 12, 9},   {"one pixel", 3, 2, 1, 1},
    };
    int compared = 0, thrown = 0;
    for (const Size& z : sizes) {
        for (uint32_t fmt : kFormats) {
            for (uint32_t ori : kOrients) {
                const Frame f = MakeFrame(fmt, ori, z.fw, z.fh, 7 * fmt + ori + z.fw);
                for (const CropCase& c : crops) {
                    SCOPED_TRACE(::testing::Message() << z.fw << "x" << z.fh << " -> " << z.th
                                                      << "x" << z.tw << " format " << fmt
                                                      << " ori " << ori << " " << c.what);
                    // R,G,B planes, B,G,R planes, then gray.
                    for (int kind = 0; kind < 3; ++kind) {
                        const bool gray = kind == 2, to_bgr = kind == 1;
                        const Dims dims = gray ? Dims{z.th, z.tw, 1} : Dims{3, z.th, z.tw};
                        TensorPtr a = Output(dims, gray), b = Output(dims, gray);
                        const Outcome steps = Capture(a, [&] {
                            if (gray) Gray(&f.img, a, c.x, c.y, c.w, c.h, 0x5A);
                            if (!gray) Planar(&f.img, a, to_bgr, c.x, c.y, c.w, c.h, 0x5A);
                        });
                        const Outcome one = Capture(b, [&] {
                            if (gray) OnePassGray(&f.img, b, c.x, c.y, c.w, c.h, 0x5A);
                            if (!gray) OnePassPlanar(&f.img, b, to_bgr, c.x, c.y, c.w, c.h, 0x5A);
                        });
                        EXPECT_EQ(one.thrown, steps.thrown) << "kind " << kind;
                        EXPECT_EQ(one.log, steps.log) << "kind " << kind;
                        EXPECT_TRUE(one.bytes == steps.bytes) << "kind " << kind;
                        ++compared;
                        thrown += !steps.thrown.empty();
                    }
                }
            }
        }
    }
    // Most conversions produce bytes; the chroma-less sizes throw.
    EXPECT_GT(thrown, 0);
    EXPECT_LT(thrown, compared / 3);
}

// Outputs the one-pass converter cannot fill: one line, nothing written. The
// output checks still report first, as in the step-by-step converter.
TEST_F(FrameToTensor, OnePassRefusesOutputsItCannotFill) {
    const Frame f = MakeFrame(9, 1, kW, kH, 5);
    LogCapture log;
    TensorPtr hwc = Output({kTH, kTW, 3}, 1);
    OnePassPlanar(&f.img, hwc, false, 0, 0, 0, 0, 0);
    EXPECT_EQ(log.Take(),
              std::vector<std::string>(
                  {"o_tensor must be a HWC Layout Tensor.",
                   "QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_"
                   "TensorCPU: o_tensor must be a u8 CHW tensor {3, H, W} with storage"}));
    EXPECT_TRUE(Untouched(hwc));
    TensorPtr two = Output({kTH, kTW, 2}, 1);
    OnePassGray(&f.img, two, 0, 0, 0, 0, 0);
    EXPECT_EQ(log.Take(),
              std::vector<std::string>(
                  {"QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_Gray8_"
                   "TensorCPU: o_tensor must be a u8 HWC tensor {H, W, 1} with storage"}));
    EXPECT_TRUE(Untouched(two));
}

}  // namespace
