// Frame views: decoder-style planes with strides, three-plane 4:2:0 and
// colour descriptions, checked against
//  - the QVN_Image one-pass converter on the same frame packed tightly (the
//    view must not change a byte, whatever the strides and buffer ends);
//  - the same samples interleaved into a two-plane frame (three-plane reads);
//  - the textbook BT.601 / BT.709 conversion in doubles, rounded once.
#include <qvn_kit/frame_view.hpp>

#include <quvas/qvn_core.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "test_support.h"

using quvas::kit::FramePlane;
using quvas::kit::FrameView;
using quvas::kit::TensorPtr;
using quvas::kit::YuvMatrix;
using quvas::kit::YuvRange;
using quvas::runtime::DeviceCPU;
using qvntest::FilledTensor;

namespace {

constexpr int kPlanar = quvas::runtime::layout::kCHW;
constexpr int kGray = quvas::runtime::layout::kHWC;

struct Conversion {
    uint32_t ori;
    int crop[4];
    int th, tw;
    bool bgr;
};

const Conversion kConversions[] = {
    {0, {0, 0, 0, 0}, 36, 44, false},
    {QVN_ORIENT_FMT_ROTATE_90R | QVN_ORIENT_FMT_MIRROR, {6, 4, 30, 22}, 17, 13, true},
    {QVN_ORIENT_FMT_ROTATE_90L | QVN_ORIENT_FMT_FLIPV, {-5, -3, 40, 40}, 24, 20, false},
    {QVN_ORIENT_FMT_ROTATE_180, {20, 10, 30, 30}, 50, 46, true},
};

// Runs one conversion (planar or gray) through the view converters, or
// through the QVN_Image ones when `img` is given.
std::vector<uint8_t> Convert(DeviceCPU& dev, const FrameView* v, const QVN_Image* img,
                             const Conversion& c, bool gray) {
    namespace k = quvas::kit;
    if (!img) return qvntest::OnePassViewBytes(dev, *v, gray ? 1 : 3, c.th, c.tw, c.bgr, c.crop, 7, 0xAB);
    TensorPtr out = gray ? FilledTensor(dev, {c.th, c.tw, 1}, kGray, 0xAB)
                         : FilledTensor(dev, {3, c.th, c.tw}, kPlanar, 0xAB);
    const int x = c.crop[0], y = c.crop[1], w = c.crop[2], h = c.crop[3];
    if (gray) {
        k::QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_Gray8_TensorCPU(img, out, x, y, w, h, 7);
    } else {
        k::QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(img, out, c.bgr, x, y, w, h, 7);
    }
    return std::vector<uint8_t>(out->data(), out->data() + out->byte_size());
}

std::vector<uint8_t> ViaView(DeviceCPU& dev, const FrameView& v, const Conversion& c, bool gray) {
    return Convert(dev, &v, nullptr, c, gray);
}

// Copies `rows` rows of `row` bytes from a packed plane into `dst` at `stride`
// (the padding keeps whatever `dst` held: random bytes the converter must
// never read into the result).
const uint8_t* Restride(const uint8_t* src, size_t row, int rows, uint8_t* dst, size_t stride) {
    for (int r = 0; r < rows; ++r) std::memcpy(dst + r * stride, src + r * row, row);
    return dst;
}

// A w x h three-plane frame in one buffer: Y, then U, then V, each packed.
struct I420 {
    int w, h;
    std::vector<uint8_t> bytes;
    const uint8_t* y() const { return bytes.data(); }
    const uint8_t* u() const { return bytes.data() + w * h; }
    const uint8_t* v() const { return u() + (w / 2) * (h / 2); }
    // The same samples as a two-plane frame, U first (or V first).
    std::vector<uint8_t> Interleaved(bool v_first) const {
        std::vector<uint8_t> out(bytes.begin(), bytes.begin() + w * h);
        for (int i = 0; i < (w / 2) * (h / 2); ++i) {
            out.push_back(v_first ? v()[i] : u()[i]);
            out.push_back(v_first ? u()[i] : v()[i]);
        }
        return out;
    }
};

I420 RandomI420(int w, int h, uint32_t seed) {
    return I420{w, h, qvntest::RandomBytes(static_cast<size_t>(w) * h + 2 * (w / 2) * (h / 2), seed)};
}

FrameView ThreePlane(const I420& f, uint32_t ori, YuvMatrix m, YuvRange r) {
    FrameView v;
    v.pix_fmt = QVN_PIX_FMT_YUV420_A, v.ori_fmt = ori, v.width = f.w, v.height = f.h;
    v.planes[0] = {f.y(), f.w}, v.planes[1] = {f.u(), f.w / 2}, v.planes[2] = {f.v(), f.w / 2};
    v.matrix = m, v.range = r;
    return v;
}

}  // namespace

// Every packed frame format through a view with padded rows, in a buffer
// ending at a guard page, gives exactly the bytes of the packed QVN_Image.
TEST(FrameView, StridedPlanesGiveThePackedFramesBytes) {
    DeviceCPU dev;
    const int w = 58, h = 42;
    const uint32_t formats[] = {QVN_PIX_FMT_YUV420SP_A, QVN_PIX_FMT_YUV420SP_B,
                                QVN_PIX_FMT_YUV420SP_C, QVN_PIX_FMT_YUV420SP_D,
                                QVN_PIX_FMT_BGRA8888, QVN_PIX_FMT_RGBA8888};
    for (uint32_t fmt : formats) {
        const bool yuv = fmt != QVN_PIX_FMT_BGRA8888 && fmt != QVN_PIX_FMT_RGBA8888;
        const size_t row = yuv ? w : w * 4;
        std::vector<uint8_t> packed = qvntest::RandomBytes(yuv ? w * h * 3 / 2 : w * h * 4, fmt);
        const size_t stride = row + 13;  // odd padding after every row
        const size_t chroma_stride = w + 5;
        const size_t luma_bytes = stride * (h - 1) + row;
        qvntest::Guarded buffer(luma_bytes + (yuv ? chroma_stride * (h / 2 - 1) + w : 0), true);
        std::mt19937 rng(fmt);
        qvntest::FillRandom(buffer.data(), buffer.size(), rng);
        FrameView v;
        v.pix_fmt = fmt, v.width = w, v.height = h;
        v.planes[0] = {Restride(packed.data(), row, h, buffer.data(), stride),
                       static_cast<ptrdiff_t>(stride)};
        if (yuv) {
            v.planes[1] = {Restride(packed.data() + w * h, w, h / 2, buffer.data() + luma_bytes,
                                    chroma_stride),
                           static_cast<ptrdiff_t>(chroma_stride)};
        }
        for (const Conversion& c : kConversions) {
            v.ori_fmt = c.ori;
            const QVN_Image img = qvntest::MakeImage(fmt, w, h, yuv ? 1 : 4, packed.data(), c.ori);
            FrameView from_image;
            ASSERT_TRUE(quvas::kit::FrameView_From_QVN_Image(&img, &from_image));
            for (bool gray : {false, true}) {
                SCOPED_TRACE("format " + std::to_string(fmt) + " ori " + std::to_string(c.ori) +
                             (gray ? " gray" : " planar"));
                const std::vector<uint8_t> want = Convert(dev, nullptr, &img, c, gray);
                EXPECT_EQ(ViaView(dev, v, c, gray), want);
                EXPECT_EQ(ViaView(dev, from_image, c, gray), want);
            }
        }
    }
}

// A three-plane frame reads as the same samples interleaved into a two-plane
// frame with the same colour description, in either chroma byte order.
TEST(FrameView, ThreePlanesReadAsInterleavedPairs) {
    DeviceCPU dev;
    const I420 f = RandomI420(62, 46, 5);
    const std::vector<uint8_t> nv12 = f.Interleaved(false), nv21 = f.Interleaved(true);
    const struct {
        YuvMatrix m;
        YuvRange r;
    } descriptions[] = {{YuvMatrix::kBT601, YuvRange::kFull},
                        {YuvMatrix::kBT709, YuvRange::kLimited},
                        {YuvMatrix::kDefault, YuvRange::kDefault}};
    for (const auto& d : descriptions) {
        for (const Conversion& c : kConversions) {
            FrameView three = ThreePlane(f, c.ori, d.m, d.r);
            FrameView two = three;
            two.pix_fmt = QVN_PIX_FMT_YUV420SP_C;
            two.planes[1] = {nv12.data() + f.w * f.h, f.w};
            two.planes[2] = {};
            FrameView two_vu = two;
            two_vu.pix_fmt = QVN_PIX_FMT_YUV420SP_D;
            two_vu.planes[1] = {nv21.data() + f.w * f.h, f.w};
            if (d.m == YuvMatrix::kDefault) {
                // Untagged: a 46-line frame is standard definition video.
                two.matrix = two_vu.matrix = YuvMatrix::kBT601;
                two.range = two_vu.range = YuvRange::kLimited;
            }
            for (bool gray : {false, true}) {
                SCOPED_TRACE("ori " + std::to_string(c.ori) + (gray ? " gray" : " planar"));
                const std::vector<uint8_t> got = ViaView(dev, three, c, gray);
                EXPECT_EQ(got, ViaView(dev, two, c, gray));
                EXPECT_EQ(got, ViaView(dev, two_vu, c, gray));
            }
        }
    }
}

// Colour of every matrix and range against the textbook conversion in
// doubles, rounded once: the frame is converted at its own size, upright, so
// pixel (x, y) takes luma (x, y) and chroma (x / 2, y / 2) and nothing else.
TEST(FrameView, ColourFollowsTheTextbookWithinOne) {
    DeviceCPU dev;
    const I420 f = RandomI420(64, 48, 9);
    for (YuvMatrix m : {YuvMatrix::kBT601, YuvMatrix::kBT709}) {
        const double kr = m == YuvMatrix::kBT601 ? 0.299 : 0.2126;
        const double kb = m == YuvMatrix::kBT601 ? 0.114 : 0.0722;
        const double kg = 1 - kr - kb;
        for (YuvRange r : {YuvRange::kLimited, YuvRange::kFull}) {
            const bool lim = r == YuvRange::kLimited;
            const FrameView v = ThreePlane(f, 0, m, r);
            const Conversion same = {0, {0, 0, 0, 0}, f.h, f.w, false};
            const std::vector<uint8_t> got = ViaView(dev, v, same, false);
            const std::vector<uint8_t> gray = ViaView(dev, v, same, true);
            int worst = 0;
            for (int y = 0; y < f.h; ++y) {
                for (int x = 0; x < f.w; ++x) {
                    const int ci = (y / 2) * (f.w / 2) + x / 2;
                    const double Y = lim ? (f.y()[y * f.w + x] - 16) * 255.0 / 219 : f.y()[y * f.w + x];
                    const double cs = lim ? 255.0 / 224 : 1.0;
                    const double U = (f.u()[ci] - 128) * cs, V = (f.v()[ci] - 128) * cs;
                    const double rgb[3] = {Y + 2 * (1 - kr) * V,
                                           Y - 2 * kb * (1 - kb) / kg * U - 2 * kr * (1 - kr) / kg * V,
                                           Y + 2 * (1 - kb) * U};
                    for (int p = 0; p < 3; ++p) {
                        const int want = static_cast<int>(std::lround(std::clamp(rgb[p], 0.0, 255.0)));
                        worst = std::max(worst, std::abs(got[(p * f.h + y) * f.w + x] - want));
                    }
                    const int want_gray = static_cast<int>(std::lround(std::clamp(Y, 0.0, 255.0)));
                    EXPECT_EQ(gray[y * f.w + x], want_gray);
                }
            }
            EXPECT_LE(worst, 1) << "matrix " << int(m) << " range " << int(r);
        }
    }
}

// Views the converters cannot read are refused with one line, output untouched.
TEST(FrameView, RefusesWhatItCannotRead) {
    DeviceCPU dev;
    const I420 f = RandomI420(8, 6, 1);
    const FrameView good = ThreePlane(f, 0, YuvMatrix::kDefault, YuvRange::kDefault);
    const auto refused = [&](void (*spoil)(FrameView&), const char* line) {
        FrameView v = good;
        spoil(v);
        LogCapture log;
        TensorPtr out = FilledTensor(dev, {3, 4, 4}, kPlanar, 0x5A);
        quvas::kit::QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_FrameView_To_U8_CHW_TensorCPU(
            v, out, false, 0, 0, 0, 0, 0);
        EXPECT_EQ(log.Take(), std::vector<std::string>{line});
        EXPECT_TRUE(qvntest::AllBytes(out, 0x5A));
    };
    refused([](FrameView& v) { v.pix_fmt = QVN_PIX_FMT_GRAY8; },
            "Invalid FrameView: pixel format 7 is not a frame format.");
    refused([](FrameView& v) { v.width = 1; }, "Invalid FrameView: 1x6 is smaller than 2x2.");
    refused([](FrameView& v) { v.planes[2].data = nullptr; }, "Invalid FrameView: plane 2 is NULL.");
    refused([](FrameView& v) { v.planes[0].stride = 7; },
            "Invalid FrameView: plane 0 has a stride of 7 bytes, less than its row of 8.");
    refused([](FrameView& v) { v.range = static_cast<YuvRange>(3); },
            "Invalid FrameView: unknown colour matrix or range.");
    EXPECT_TRUE(quvas::kit::Is_Valid_FrameView(good));
    QVN_Image three = qvntest::MakeImage(QVN_PIX_FMT_YUV420_A, 8, 6, 1, const_cast<uint8_t*>(f.y()));
    FrameView from_image;
    ASSERT_TRUE(quvas::kit::FrameView_From_QVN_Image(&three, &from_image));
    EXPECT_EQ(from_image.planes[2].data, f.v());
    three.pix_fmt = QVN_PIX_FMT_GRAY8;
    EXPECT_FALSE(quvas::kit::FrameView_From_QVN_Image(&three, &from_image));
}
