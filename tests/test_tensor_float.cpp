// Network input in one pass (frame_tensor.hpp), checked against
//  - the FrameView byte converters on a tensor of the picture's size (the
//    picture inside a letterbox is their output, the rest the pad byte);
//  - the normalisation written out below, bit for bit;
//  - a frame with a square and two coloured dots at known places, whose
//    images in the tensor must sit where the transform puts them;
//  - the crop-resize inverse of the crop geometry.
#include <qvn_kit/frame_tensor.hpp>
#include <qvn_kit/frame_view.hpp>

#include <quvas/qvn_core.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "log_capture.hpp"
#include "test_support.h"

using namespace quvas::kit;
using quvas::runtime::DeviceCPU;

namespace {


// The eight orientations (four turns, with and without the mirror), and the
// two with a vertical flip.
const uint32_t kOrients[] = {0,
                             QVN_ORIENT_FMT_ROTATE_90L,
                             QVN_ORIENT_FMT_ROTATE_90R,
                             QVN_ORIENT_FMT_ROTATE_180,
                             QVN_ORIENT_FMT_MIRROR,
                             QVN_ORIENT_FMT_ROTATE_90L | QVN_ORIENT_FMT_MIRROR,
                             QVN_ORIENT_FMT_ROTATE_90R | QVN_ORIENT_FMT_MIRROR,
                             QVN_ORIENT_FMT_ROTATE_180 | QVN_ORIENT_FMT_MIRROR,
                             QVN_ORIENT_FMT_FLIPV,
                             QVN_ORIENT_FMT_ROTATE_90R | QVN_ORIENT_FMT_FLIPV};

// A frame in memory, described by a view.
struct Frame {
    std::vector<uint8_t> bytes;
    FrameView view;
};

// Packed formats through FrameView_From_QVN_Image; three-plane 4:2:0 with
// padded rows.
Frame MakeFrame(uint32_t pix_fmt, int w, int h, uint32_t ori, const std::vector<uint8_t>& src) {
    Frame f;
    f.bytes = src;
    if (pix_fmt == QVN_PIX_FMT_YUV420_A) {
        const int ys = w + 5, cs = w / 2 + 3;
        f.bytes.assign(static_cast<size_t>(ys) * h + 2 * cs * (h / 2), 0);
        for (size_t i = 0; i < f.bytes.size(); ++i) f.bytes[i] = src[i % src.size()];
        f.view.pix_fmt = pix_fmt;
        f.view.ori_fmt = ori;
        f.view.width = w;
        f.view.height = h;
        f.view.planes[0] = {f.bytes.data(), ys};
        f.view.planes[1] = {f.bytes.data() + ys * h, cs};
        f.view.planes[2] = {f.bytes.data() + ys * h + cs * (h / 2), cs};
        return f;
    }
    const int channels = (pix_fmt == QVN_PIX_FMT_BGRA8888 || pix_fmt == QVN_PIX_FMT_RGBA8888) ? 4 : 1;
    QVN_Image img = qvntest::MakeImage(pix_fmt, w, h, channels, f.bytes.data(), ori);
    EXPECT_TRUE(FrameView_From_QVN_Image(&img, &f.view));
    return f;
}


bool FourByte(uint32_t pix_fmt) {
    return pix_fmt == QVN_PIX_FMT_BGRA8888 || pix_fmt == QVN_PIX_FMT_RGBA8888;
}

bool Quarter(uint32_t ori) {
    return (ori & (QVN_ORIENT_FMT_ROTATE_90L | QVN_ORIENT_FMT_ROTATE_90R)) != 0;
}

TensorOptions Options(int tw, int th, const int crop[4], bool gray, Letterbox lb) {
    TensorOptions o;
    o.width = tw, o.height = th, o.gray = gray, o.letterbox = lb;
    o.crop_x = crop[0], o.crop_y = crop[1], o.crop_w = crop[2], o.crop_h = crop[3];
    return o;
}

// The byte converters over a view on a tensor of w x h: the picture the
// letterbox must hold.
std::vector<uint8_t> ViewConverter(DeviceCPU& dev, const FrameView& v, const TensorOptions& o,
                                   int w, int h) {
    const int crop[4] = {o.crop_x, o.crop_y, o.crop_w, o.crop_h};
    return qvntest::OnePassViewBytes(dev, v, o.gray ? 1 : 3, h, w, o.to_bgr, crop, o.pad_value);
}

// The normalisation as the issue states it: a single-precision subtraction,
// then a single-precision division.
float Normalised(uint8_t b, float mean, float std) {
    volatile float diff = static_cast<float>(b) - mean;
    return diff / std;
}

constexpr uint32_t kSentinel = 0x7FC0BEEFu;  // a NaN the converter never writes

// An output buffer: bytes or floats (normalised with mean/std set `set`),
// planar or interleaved, with these strides in elements.
struct Layout {
    bool floats, planar;
    int set;
    ptrdiff_t row, plane;
};

}  // namespace

// Every format, orientation, crop, gray and colour, letterbox off / centred
// / top-left: the bytes are the byte converters' picture in a frame of the
// pad byte; the floats, planar and interleaved with padded strides, are
// those bytes normalised, bit for bit; strided and interleaved bytes are
// the same bytes; nothing between rows or planes is touched.
TEST(FrameTensor, FloatsAreTheBytesNormalisedBitForBit) {
    DeviceCPU dev;
    const int fw = 64, fh = 48;
    const std::vector<uint8_t> random = qvntest::RandomBytes(fw * fh * 4, 26);
    const uint32_t formats[] = {QVN_PIX_FMT_YUV420SP_A, QVN_PIX_FMT_YUV420SP_B,
                                QVN_PIX_FMT_YUV420SP_C, QVN_PIX_FMT_YUV420SP_D,
                                QVN_PIX_FMT_YUV420_A,   QVN_PIX_FMT_BGRA8888,
                                QVN_PIX_FMT_RGBA8888};
    const int crops[][4] = {{0, 0, 0, 0}, {6, 4, 30, 22}, {-7, -5, 50, 40}};
    // The usual ImageNet values, and extremes whose quotients overflow or go
    // subnormal.
    const std::vector<float> means[2] = {{123.675f, 116.28f, 103.53f}, {0.5f, -3.5f, 255.f}};
    const std::vector<float> stds[2] = {{58.395f, 57.12f, 57.375f}, {2e-38f, 3e38f, -5e-38f}};
    int checked = 0;
    // Wide and tall: letterboxes with pad columns and with pad rows.
    for (const auto& size : {std::pair<int, int>{23, 17}, std::pair<int, int>{17, 23}})
    for (uint32_t fmt : formats)
    for (uint32_t ori : kOrients) {
        const Frame frame = MakeFrame(fmt, fw, fh, ori, random);
        for (const auto& crop : crops)
        for (int gray = 0; gray < 2; ++gray)
        for (Letterbox lb : {Letterbox::kOff, Letterbox::kCentre, Letterbox::kTopLeft}) {
            SCOPED_TRACE(testing::Message() << "fmt " << fmt << " ori " << ori << " crop "
                                            << crop[0] << " gray " << gray << " lb " << int(lb));
            const int tw = size.first, th = size.second, C = gray ? 1 : 3;
            TensorOptions o = Options(tw, th, crop, gray != 0, lb);
            o.to_bgr = (ori & 1) != 0, o.pad_value = 7, o.letterbox_pad = 114;
            const size_t plane = static_cast<size_t>(tw) * th;
            std::vector<uint8_t> bytes(C * plane, 0xEE);
            TensorBuffer b;
            b.data = bytes.data();
            TensorTransform t;
            ASSERT_TRUE(QV_OnePass_Convert_FrameView_To_Tensor(frame.view, o, b, &t));
            const int px = t.picture_x, py = t.picture_y;
            const int pw = t.picture_width, ph = t.picture_height;
            ASSERT_TRUE(lb != Letterbox::kOff || (pw == tw && ph == th));
            // The older gray converter lays a turned four-byte frame's
            // picture out at the exchanged size.
            if (!(o.gray && FourByte(fmt) && Quarter(ori) && pw != ph)) {
                const std::vector<uint8_t> pic = ViewConverter(dev, frame.view, o, pw, ph);
                for (int c = 0; c < C; ++c)
                for (int y = 0; y < th; ++y)
                for (int x = 0; x < tw; ++x) {
                    const bool in = x >= px && x < px + pw && y >= py && y < py + ph;
                    ASSERT_EQ(bytes[c * plane + y * tw + x],
                              in ? pic[(c * ph + (y - py)) * pw + (x - px)] : 114)
                        << c << " " << x << " " << y;
                }
            }
            const Layout layouts[] = {
                {true, true, 0, tw + 2, (th + 1) * (tw + 2)}, {true, false, 0, tw * C + 5, 0},
                {true, true, 1, tw + 2, (th + 1) * (tw + 2)}, {true, false, 1, tw * C + 5, 0},
                {false, true, 0, tw, (th + 2) * tw},          {false, true, 0, tw + 3, (th + 2) * (tw + 3)},
                {false, false, 0, tw * C + 1, 0}};
            for (const Layout& l : layouts) {
                SCOPED_TRACE(testing::Message() << "floats " << l.floats << " planar " << l.planar
                                                << " set " << l.set << " row " << l.row);
                const size_t size_of = l.floats ? 4 : 1;
                const size_t total = size_of * (l.planar ? C * l.plane : th * l.row);
                std::vector<uint8_t> want(total, 0xEE);
                if (l.floats) {
                    for (size_t i = 0; i < total; i += 4) std::memcpy(&want[i], &kSentinel, 4);
                    o.mean.assign(means[l.set].begin(), means[l.set].begin() + C);
                    o.std.assign(stds[l.set].begin(), stds[l.set].begin() + C);
                } else {
                    o.mean.clear(), o.std.clear();
                }
                std::vector<uint8_t> got = want;
                for (int c = 0; c < C; ++c)
                for (int y = 0; y < th; ++y)
                for (int x = 0; x < tw; ++x) {
                    const size_t at = size_of * (l.planar ? c * l.plane + y * l.row + x
                                                          : y * l.row + x * C + c);
                    const uint8_t v = bytes[c * plane + y * tw + x];
                    const float f = l.floats ? Normalised(v, o.mean[c], o.std[c]) : 0.f;
                    if (l.floats) std::memcpy(&want[at], &f, 4);
                    else want[at] = v;
                }
                TensorBuffer lb_buf;
                lb_buf.data = got.data();
                lb_buf.element = l.floats ? TensorElement::kFloat32 : TensorElement::kUInt8;
                lb_buf.order = l.planar ? TensorOrder::kPlanar : TensorOrder::kInterleaved;
                lb_buf.row_stride = l.row, lb_buf.plane_stride = l.plane;
                ASSERT_TRUE(QV_OnePass_Convert_FrameView_To_Tensor(frame.view, o, lb_buf, nullptr));
                const auto bad = std::mismatch(got.begin(), got.end(), want.begin());
                ASSERT_TRUE(bad.first == got.end()) << "at byte " << (bad.first - got.begin());
            }
            ++checked;
        }
    }
    EXPECT_EQ(checked, 2 * 7 * 10 * 3 * 2 * 3);
}

namespace {

// A 320 x 240 frame: black, a white 60 x 40 square at (200, 60), a red
// 12 x 12 dot at (34, 164) and a blue one at (144, 194) (frame pixels, as
// stored). No two of the eight orientations put them in the same places.
constexpr int kFw = 320, kFh = 240;
constexpr float kSquare[4] = {200, 60, 60, 40};
constexpr float kRed[2] = {40, 170}, kBlue[2] = {150, 200};  // dot centres

std::vector<uint8_t> MarkerBgra(uint32_t pix_fmt) {
    std::vector<uint8_t> px(kFw * kFh * 4, 0);
    const int red = pix_fmt == QVN_PIX_FMT_BGRA8888 ? 2 : 0;
    const int marks[3][7] = {{200, 60, 60, 40, 255, 255, 255},  // x, y, w, h, R, G, B
                             {34, 164, 12, 12, 255, 0, 0},
                             {144, 194, 12, 12, 0, 0, 255}};
    for (const auto& m : marks)
    for (int y = m[1]; y < m[1] + m[3]; ++y)
    for (int x = m[0]; x < m[0] + m[2]; ++x) {
        uint8_t* p = &px[(y * kFw + x) * 4];
        p[red] = uint8_t(m[4]), p[1] = uint8_t(m[5]), p[2 - red] = uint8_t(m[6]), p[3] = 255;
    }
    return px;
}

// Luma plane with the same square (dots left out), chroma neutral.
std::vector<uint8_t> MarkerNv(void) {
    std::vector<uint8_t> px(kFw * kFh * 3 / 2, 128);
    std::fill(px.begin(), px.begin() + kFw * kFh, 0);
    for (int y = 60; y < 100; ++y) std::fill(&px[y * kFw + 200], &px[y * kFw + 260], 255);
    return px;
}

// Bounding box (x, y, w, h, in continuous tensor pixels) and centroid of the
// pixels `pick` selects; the plane is w x h bytes.
struct Found {
    float box[4];
    float centre[2];
    int count;
};

template <typename Pick>
Found Find(int w, int h, Pick pick) {
    Found f{{0, 0, 0, 0}, {0, 0}, 0};
    int x0 = w, y0 = h, x1 = -1, y1 = -1;
    double sx = 0, sy = 0;
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            if (!pick(x, y)) continue;
            x0 = std::min(x0, x), y0 = std::min(y0, y), x1 = std::max(x1, x), y1 = std::max(y1, y);
            sx += x + 0.5, sy += y + 0.5;
            ++f.count;
        }
    }
    if (f.count == 0) return f;
    f.box[0] = x0, f.box[1] = y0, f.box[2] = x1 + 1 - x0, f.box[3] = y1 + 1 - y0;
    f.centre[0] = static_cast<float>(sx / f.count), f.centre[1] = static_cast<float>(sy / f.count);
    return f;
}

void ExpectRoundTrip(const TensorTransform& t) {
    std::vector<float> pts;
    for (float y = -5.f; y < t.tensor_height + 5; y += 3.7f) {
        for (float x = -5.f; x < t.tensor_width + 5; x += 3.3f) {
            pts.push_back(x);
            pts.push_back(y);
        }
    }
    std::vector<float> frame(pts.size()), back(pts.size());
    TensorTransform_Points_To_Frame(t, pts.data(), frame.data(), pts.size() / 2);
    TensorTransform_Points_To_Tensor(t, frame.data(), back.data(), pts.size() / 2);
    for (size_t i = 0; i < pts.size(); ++i) ASSERT_NEAR(back[i], pts[i], 1e-4) << i;
}

void ExpectBoxNear(const float* got, const float* want, float tol_x, float tol_y) {
    EXPECT_NEAR(got[0], want[0], tol_x);
    EXPECT_NEAR(got[1], want[1], tol_y);
    EXPECT_NEAR(got[0] + got[2], want[0] + want[2], tol_x);
    EXPECT_NEAR(got[1] + got[3], want[1] + want[3], tol_y);
}

}  // namespace

// The square and the dots through all eight orientations, with and without
// a crop (inside the frame and reaching past it) and letterbox: the
// transform puts the square's frame box on the square found in the tensor
// within one tensor pixel and each dot's centre on the dot's centroid; gray
// output is never turned and its transform says so; tensor -> frame ->
// tensor comes back within 1e-4 pixels.
TEST(FrameTensor, MarkersLandWhereTheTransformSays) {
    const int tw = 96, th = 80;
    const float square[4] = {kSquare[0] / kFw, kSquare[1] / kFh, kSquare[2] / kFw,
                             kSquare[3] / kFh};
    for (uint32_t fmt : {QVN_PIX_FMT_BGRA8888, QVN_PIX_FMT_RGBA8888, QVN_PIX_FMT_YUV420SP_B}) {
        const bool yuv = fmt == QVN_PIX_FMT_YUV420SP_B;
        const std::vector<uint8_t> px = yuv ? MarkerNv() : MarkerBgra(fmt);
        for (int i = 0; i < 8; ++i) {
            const uint32_t ori = kOrients[i];
            const Frame frame = MakeFrame(fmt, kFw, kFh, ori, px);
            const int uw = Quarter(ori) ? kFh : kFw, uh = Quarter(ori) ? kFw : kFh;
            const int crops[][4] = {{0, 0, 0, 0}, {16, 12, uw - 40, uh - 30},
                                    {-20, -15, uw + 40, uh + 30}};
            for (const auto& crop : crops) {
                for (Letterbox lb : {Letterbox::kOff, Letterbox::kCentre, Letterbox::kTopLeft}) {
                    for (int gray = 0; gray < 2; ++gray) {
                        if (yuv && !gray) continue;  // the luma square alone
                        SCOPED_TRACE(testing::Message() << "fmt " << fmt << " ori " << ori << " crop "
                                                        << crop[0] << " lb " << int(lb) << " gray " << gray);
                        const TensorOptions o = Options(tw, th, crop, gray != 0, lb);
                        const int C = o.gray ? 1 : 3;
                        std::vector<uint8_t> out(C * tw * th);
                        TensorBuffer b;
                        b.data = out.data();
                        TensorTransform t;
                        ASSERT_TRUE(QV_OnePass_Convert_FrameView_To_Tensor(frame.view, o, b, &t));
                        TensorTransform alone;
                        ASSERT_TRUE(QV_FrameView_Tensor_Transform(frame.view, o, &alone));
                        ASSERT_EQ(0, std::memcmp(&alone, &t, sizeof t));
                        const uint8_t* g = out.data() + (C == 3 ? tw * th : 0);
                        const Found sq = Find(tw, th, [&](int x, int y) { return g[y * tw + x] > 128; });
                        ASSERT_GT(sq.count, 0);
                        float want[4];
                        TensorTransform_Boxes_To_Tensor(t, square, want, 1);
                        ExpectBoxNear(sq.box, want, 1.0f, 1.0f);
                        if (o.gray && Quarter(ori)) {
                            // Not turned: the square keeps its frame shape.
                            EXPECT_GT(want[2] / want[3], 1.0f);
                        }
                        if (C == 3) {
                            const uint8_t* r = out.data();
                            const uint8_t* bl = out.data() + 2 * tw * th;
                            for (int dot = 0; dot < 2; ++dot) {
                                const uint8_t* ch = dot == 0 ? r : bl;
                                const Found f = Find(tw, th, [&](int x, int y) {
                                    return ch[y * tw + x] > 128 && g[y * tw + x] < 100;
                                });
                                ASSERT_GT(f.count, 0) << "dot " << dot;
                                const float* c = dot == 0 ? kRed : kBlue;
                                const float at[2] = {c[0] / kFw, c[1] / kFh};
                                float p[2];
                                TensorTransform_Points_To_Tensor(t, at, p, 1);
                                EXPECT_NEAR(f.centre[0], p[0], 1.0f) << "dot " << dot;
                                EXPECT_NEAR(f.centre[1], p[1], 1.0f) << "dot " << dot;
                            }
                        }
                        // The way back: the square found goes back onto the
                        // frame's square within one tensor pixel's worth.
                        float back[4];
                        TensorTransform_Boxes_To_Frame(t, sq.box, back, 1);
                        const float tol_x = std::fabs(float(t.to_frame[0]) + float(t.to_frame[1]));
                        const float tol_y = std::fabs(float(t.to_frame[3]) + float(t.to_frame[4]));
                        ExpectBoxNear(back, square, tol_x, tol_y);
                        ExpectRoundTrip(t);
                    }
                }
            }
        }
    }
}

// Letterbox sizes and places, worked by hand from the rule in the header.
TEST(FrameTensor, LetterboxFitsRoundsAndCentres) {
    std::vector<uint8_t> px(kFw * kFh * 4, 0);
    struct Case {
        uint32_t fmt, ori;
        bool gray;
        int crop[4];
        int tw, th;
        Letterbox lb;
        int x, y, w, h;  // the picture
    };
    const Case cases[] = {
        // 320 x 240 into 256 x 256: 256 x 192, 32 rows above.
        {QVN_PIX_FMT_BGRA8888, 0, false, {0, 0, 0, 0}, 256, 256, Letterbox::kCentre, 0, 32, 256, 192},
        // A quarter turn stands it up: 192 x 256.
        {QVN_PIX_FMT_BGRA8888, QVN_ORIENT_FMT_ROTATE_90L, false, {0, 0, 0, 0}, 256, 256, Letterbox::kCentre, 32, 0, 192, 256},
        // Gray is not turned: it keeps 256 x 192.
        {QVN_PIX_FMT_BGRA8888, QVN_ORIENT_FMT_ROTATE_90L, true, {0, 0, 0, 0}, 256, 256, Letterbox::kCentre, 0, 32, 256, 192},
        // 300 x 200 into 101 x 100: 101 x 67.33 -> 67; 33 rows left, 16 above, 17 below.
        {QVN_PIX_FMT_BGRA8888, 0, false, {10, 20, 300, 200}, 101, 100, Letterbox::kCentre, 0, 16, 101, 67},
        // 200 x 100 into 25 x 25: 12.5 rounds up to 13; (25 - 13) / 2 = 6.
        {QVN_PIX_FMT_RGBA8888, 0, false, {0, 0, 200, 100}, 25, 25, Letterbox::kCentre, 0, 6, 25, 13},
        {QVN_PIX_FMT_RGBA8888, 0, false, {0, 0, 200, 100}, 25, 25, Letterbox::kTopLeft, 0, 0, 25, 13},
        // 300 x 2 would be 0.33 high: 4:2:0 colour keeps two rows, gray one.
        {QVN_PIX_FMT_YUV420SP_B, 0, false, {0, 0, 300, 2}, 50, 50, Letterbox::kCentre, 0, 24, 50, 2},
        {QVN_PIX_FMT_YUV420SP_B, 0, true, {0, 0, 300, 2}, 50, 50, Letterbox::kCentre, 0, 24, 50, 1},
        // 100 x 300 into 100 x 100: 33.33 -> 33 wide; 67 columns left, 33
        // on the left, 34 on the right.
        {QVN_PIX_FMT_BGRA8888, 0, false, {0, 0, 100, 300}, 100, 100, Letterbox::kCentre, 33, 0, 33, 100},
        // 2 x 300 would be 0.33 wide: two columns, or one for gray.
        {QVN_PIX_FMT_YUV420SP_A, 0, false, {0, 0, 2, 300}, 50, 50, Letterbox::kCentre, 24, 0, 2, 50},
        {QVN_PIX_FMT_YUV420SP_A, 0, true, {0, 0, 2, 300}, 50, 50, Letterbox::kTopLeft, 0, 0, 1, 50},
        // Exactly the tensor's shape: no pad.
        {QVN_PIX_FMT_BGRA8888, 0, false, {0, 0, 160, 120}, 40, 30, Letterbox::kCentre, 0, 0, 40, 30},
    };
    for (const Case& c : cases) {
        const Frame frame = MakeFrame(c.fmt, kFw, kFh, c.ori, px);
        TensorTransform t;
        ASSERT_TRUE(QV_FrameView_Tensor_Transform(frame.view, Options(c.tw, c.th, c.crop, c.gray, c.lb), &t));
        const int got[6] = {t.picture_x, t.picture_y, t.picture_width, t.picture_height,
                            t.tensor_width, t.tensor_height};
        const int want[6] = {c.x, c.y, c.w, c.h, c.tw, c.th};
        EXPECT_TRUE(std::equal(got, got + 6, want)) << got[0] << " " << got[1] << " " << got[2] << " " << got[3];
    }
}

// Without a turn, tensor -> frame is the crop-resize inverse of the crop
// geometry (frame pixels from pixels of the resized crop), shifted by the
// letterbox's offset: the same numbers to float precision.
TEST(FrameTensor, AgreesWithTheCropResizeInverse) {
    std::vector<uint8_t> px(kFw * kFh * 4, 0);
    const Frame frame = MakeFrame(QVN_PIX_FMT_BGRA8888, kFw, kFh, 0, px);
    const int crops[][4] = {{0, 0, 0, 0}, {37, 21, 150, 101}, {-30, -12, 377, 90}};
    for (const auto& crop : crops) {
        for (Letterbox lb : {Letterbox::kOff, Letterbox::kCentre}) {
            TensorTransform t;
            ASSERT_TRUE(QV_FrameView_Tensor_Transform(frame.view, Options(61, 47, crop, false, lb), &t));
            const bool whole = crop[2] == 0;
            float inv[9];
            cal_crop_resize_inv_param(whole ? 0 : crop[0], whole ? 0 : crop[1],
                                      whole ? kFw : crop[2], whole ? kFh : crop[3],
                                      t.picture_width, t.picture_height, inv);
            for (float y = -3.f; y < 50; y += 2.9f) {
                for (float x = -3.f; x < 64; x += 3.1f) {
                    const float p[2] = {x, y};
                    float f[2];
                    TensorTransform_Points_To_Frame(t, p, f, 1);
                    const float ix = inv[0] * (x - t.picture_x) + inv[1] * (y - t.picture_y) + inv[2];
                    const float iy = inv[3] * (x - t.picture_x) + inv[4] * (y - t.picture_y) + inv[5];
                    ASSERT_NEAR(f[0] * kFw, ix, 1e-4f * std::max(1.f, std::fabs(ix)));
                    ASSERT_NEAR(f[1] * kFh, iy, 1e-4f * std::max(1.f, std::fabs(iy)));
                }
            }
        }
    }
}

// Each refusal: false, one level-16 line, nothing written to the buffer or
// the transform.
TEST(FrameTensor, RefusesBadInputWithOneLineAndWritesNothing) {
    std::vector<uint8_t> px(64 * 48 * 4, 9);
    const Frame nv = MakeFrame(QVN_PIX_FMT_YUV420SP_A, 64, 48, 0, px);
    const Frame bgra = MakeFrame(QVN_PIX_FMT_BGRA8888, 64, 48, 0, px);
    FrameView empty = bgra.view;
    empty.width = 0;
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    const std::string f = "QV_OnePass_Convert_FrameView_To_Tensor: ";
    struct Case {
        const FrameView* view;
        bool gray, floats;
        int tw, th;
        int crop_w, crop_h;
        Letterbox lb;
        std::vector<float> mean, std;
        ptrdiff_t row, plane;
        bool null_data;
        std::string line;
    };
    const Case cases[] = {
        {&bgra.view, false, true, 6, 4, 0, 0, Letterbox::kOff, {1, 2}, {1, 1, 1}, 0, 0, false,
         f + "mean and std need one value per channel (3), got 2 and 3."},
        {&bgra.view, true, true, 6, 4, 0, 0, Letterbox::kOff, {1, 2, 3}, {1, 2, 3}, 0, 0, false,
         f + "mean and std need one value per channel (1), got 3 and 3."},
        {&bgra.view, false, true, 6, 4, 0, 0, Letterbox::kOff, {1, 2, 3}, {1, 0, 1}, 0, 0, false,
         f + "std[1] is 0; it must be finite and non-zero."},
        {&bgra.view, false, true, 6, 4, 0, 0, Letterbox::kOff, {1, 2, 3}, {1, 1, -0.f}, 0, 0, false,
         f + "std[2] is -0; it must be finite and non-zero."},
        {&bgra.view, false, true, 6, 4, 0, 0, Letterbox::kOff, {1, 2, 3}, {nan, 1, 1}, 0, 0, false,
         f + "std[0] is nan; it must be finite and non-zero."},
        {&bgra.view, true, true, 6, 4, 0, 0, Letterbox::kOff, {0}, {-inf}, 0, 0, false,
         f + "std[0] is -inf; it must be finite and non-zero."},
        {&bgra.view, false, true, 6, 4, 0, 0, Letterbox::kOff, {1, inf, 3}, {1, 1, 1}, 0, 0, false,
         f + "mean[1] is inf; it must be finite."},
        {&nv.view, false, false, 1, 5, 0, 0, Letterbox::kCentre, {}, {}, 0, 0, false,
         f + "a 1x5 tensor cannot hold a picture of at least 2x2."},
        {&bgra.view, true, false, 0, 4, 0, 0, Letterbox::kCentre, {}, {}, 0, 0, false,
         f + "a 0x4 tensor cannot hold a picture of at least 1x1."},
        {&nv.view, false, false, 6, 4, 1, 9, Letterbox::kOff, {}, {}, 0, 0, false,
         f + "a 1x9 crop of a 4:2:0 frame is less than 2x2."},
        {&bgra.view, false, false, 6, 4, 0, 0, Letterbox::kOff, {}, {}, 0, 0, true,
         f + "the output buffer is NULL."},
        {&bgra.view, false, true, 6, 4, 0, 0, Letterbox::kOff, {1, 2, 3}, {1, 1, 1}, 5, 0, false,
         f + "a row stride of 5 cannot hold a row of 6."},
        {&bgra.view, false, false, 6, 4, 0, 0, Letterbox::kOff, {}, {}, 7, 26, false,
         f + "a plane stride of 26 cannot hold a plane of 27."},
        {&empty, false, false, 6, 4, 0, 0, Letterbox::kOff, {}, {}, 0, 0, false,
         "Invalid FrameView: 0x48 is smaller than 1x1."},
    };
    LogCapture log;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        TensorOptions o;
        o.width = c.tw, o.height = c.th, o.gray = c.gray, o.letterbox = c.lb;
        o.crop_w = c.crop_w, o.crop_h = c.crop_h;
        o.mean = c.mean, o.std = c.std;
        std::vector<uint32_t> buf(1024, kSentinel);
        TensorBuffer b;
        b.data = c.null_data ? nullptr : buf.data();
        b.element = c.floats ? TensorElement::kFloat32 : TensorElement::kUInt8;
        b.row_stride = c.row, b.plane_stride = c.plane;
        TensorTransform t;
        t.picture_x = -77;
        EXPECT_FALSE(QV_OnePass_Convert_FrameView_To_Tensor(*c.view, o, b, &t));
        const std::vector<std::string> lines = log.Take();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_NE(lines[0].find(c.line), std::string::npos) << lines[0];
        EXPECT_EQ(t.picture_x, -77);
        EXPECT_EQ(std::count(buf.begin(), buf.end(), kSentinel), 1024);
    }
    // The transform alone names itself and skips the buffer's checks.
    TensorOptions o;
    o.width = 1, o.height = 5;
    TensorTransform t;
    EXPECT_FALSE(QV_FrameView_Tensor_Transform(nv.view, o, &t));
    const std::vector<std::string> lines = log.Take();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("QV_FrameView_Tensor_Transform: a 1x5 tensor cannot hold a picture of at least 2x2."),
              std::string::npos);
    // Bytes take no mean or std.
    o.width = 6, o.height = 4;
    std::vector<uint8_t> bytes(72);
    TensorBuffer b;
    b.data = bytes.data();
    EXPECT_TRUE(QV_OnePass_Convert_FrameView_To_Tensor(bgra.view, o, b, nullptr));
    EXPECT_TRUE(log.Take().empty());
}
