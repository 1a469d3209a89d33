// Orientation matrices, crop-box rectification, crop copies and the
// crop-resize inverse matrices. Expected values come from the point
// formulas of the orientation flags (a flip first, then the turn), from
// clamp-to-edge copies (OpenCV's replicated border), and from explicit cases.
#include <qvn_kit/qvn_kit.hpp>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "test_support.h"

namespace {

namespace kit = quvas::kit;
using Bytes = std::vector<uint8_t>;

struct Pt {
    float x, y;
};

// Where an upright point lies in the frame, on a frame whose last column is
// W and last row is H (1 and 1 for normalised coordinates). `turn` is one of
// 0, 1 (quarter clockwise), 2 (quarter counter-clockwise), 4 (half);
// `flip` is 0, 8 (vertical) or 16 (mirror); the flip applies first, in the
// upright view, whose extents are swapped by a quarter turn.
Pt FlagsMap(unsigned turn, unsigned flip, Pt p, float W, float H) {
    const float UW = (turn == 1 || turn == 2) ? H : W;  // upright extents
    const float UH = (turn == 1 || turn == 2) ? W : H;
    if (flip == 8) p.y = UH - p.y;
    if (flip == 16) p.x = UW - p.x;
    switch (turn) {
        case 1: return {W - p.y, p.x};  // upright (x, y) at (1 - y, x)
        case 2: return {p.y, H - p.x};  // upright (x, y) at (y, 1 - x)
        case 4: return {W - p.x, H - p.y};
        default: return p;
    }
}

// The orientation words that have a matrix of their own: each is a turn
// and/or a flip; every other word is the identity for the matrix functions.
struct Combo {
    unsigned ori, turn, flip;
};
const Combo kMatrixWords[] = {{1, 1, 0},  {2, 2, 0},  {4, 4, 0},  {8, 0, 8},   {16, 0, 16}, {9, 1, 8},
                              {10, 2, 8}, {12, 4, 8}, {17, 1, 16}, {18, 2, 16}, {20, 4, 16}};

bool HasOwnMatrix(unsigned ori, Combo* out) {
    for (const Combo& c : kMatrixWords)
        if (c.ori == ori) {
            *out = c;
            return true;
        }
    return false;
}

Pt Apply(const float* m, Pt p) { return {m[0] * p.x + m[1] * p.y + m[2], m[3] * p.x + m[4] * p.y + m[5]}; }

// ---------------------------------------------------------------------------
// Matrices
// ---------------------------------------------------------------------------

TEST(AffineMatrices, ForwardMatchesFlagFormulasForEveryWord) {
    const Pt probes[] = {{0, 0}, {1, 0}, {0, 1}, {0.25f, 0.75f}, {3, 5}, {6.5f, 2}};
    for (unsigned ori = 0; ori < 130; ++ori) {
        for (auto [width, height] : {std::pair<int, int>{2, 2}, {8, 6}, {5, 9}}) {
            std::vector<float> m(6, -7.0f);
            kit::getAffineTransform(ori, width, height, m);
            ASSERT_EQ(m.size(), 6u);
            const float W = width - 1.0f, H = height - 1.0f;
            Combo c{};
            const bool own = HasOwnMatrix(ori, &c);
            for (Pt p : probes) {
                const Pt want = own ? FlagsMap(c.turn, c.flip, p, W, H) : p;
                const Pt got = Apply(m.data(), p);
                ASSERT_EQ(got.x, want.x) << "ori " << ori << " size " << width << "x" << height;
                ASSERT_EQ(got.y, want.y) << "ori " << ori << " size " << width << "x" << height;
            }
        }
    }
}

TEST(AffineMatrices, InverseReturnsEveryPointAndLeavesVectorEmpty) {
    const Pt probes[] = {{0, 0}, {7, 0}, {0, 4}, {2.5f, 3.25f}, {6, 5}};
    for (unsigned ori = 0; ori < 130; ++ori) {
        std::vector<float> fwd(6, 0.0f);
        kit::getAffineTransform(ori, 8, 6, fwd);
        std::vector<float> inv;
        inv.reserve(6);
        inv.push_back(42.0f);
        const float* storage = inv.data();
        kit::getAffineTransformInv(ori, 8, 6, inv);
        EXPECT_EQ(inv.size(), 0u);
        ASSERT_EQ(inv.data(), storage) << "the reserved storage carries the result";
        for (Pt p : probes) {
            const Pt back = Apply(inv.data(), Apply(fwd.data(), p));
            ASSERT_EQ(back.x, p.x) << "ori " << ori;
            ASSERT_EQ(back.y, p.y) << "ori " << ori;
        }
    }
}

// ---------------------------------------------------------------------------
// Normalised box rectification
// ---------------------------------------------------------------------------

struct Box {
    float x0, y0, x1, y1;
};

// Bounding box of the four corners mapped one by one.
Box MapBox(unsigned turn, unsigned flip, Box b, float W, float H) {
    const Pt c[4] = {FlagsMap(turn, flip, {b.x0, b.y0}, W, H), FlagsMap(turn, flip, {b.x1, b.y0}, W, H),
                     FlagsMap(turn, flip, {b.x0, b.y1}, W, H), FlagsMap(turn, flip, {b.x1, b.y1}, W, H)};
    Box r{c[0].x, c[0].y, c[0].x, c[0].y};
    for (const Pt& p : c) {
        r.x0 = std::min(r.x0, p.x);
        r.y0 = std::min(r.y0, p.y);
        r.x1 = std::max(r.x1, p.x);
        r.y1 = std::max(r.y1, p.y);
    }
    return r;
}

::testing::AssertionResult SameBox(const Box& got, const Box& want) {
    if (got.x0 == want.x0 && got.y0 == want.y0 && got.x1 == want.x1 && got.y1 == want.y1) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "got (" << got.x0 << ", " << got.y0 << ", " << got.x1 << ", "
                                         << got.y1 << "), want (" << want.x0 << ", " << want.y0 << ", "
                                         << want.x1 << ", " << want.y1 << ")";
}

// The orientation word of a bit combination: bit k of `combo` sets the k-th
// of the six bits a word can carry (1, 2, 4, 8, 16, 64).
unsigned WordOf(unsigned combo) {
    const unsigned bits[] = {1, 2, 4, 8, 16, 64};
    unsigned ori = 0;
    for (int k = 0; k < 6; ++k)
        if (combo & (1u << k)) ori |= bits[k];
    return ori;
}

// Box rules: vertical flip beats mirror; quarter turn 2 beats 1 beats the
// half turns 4 and 64.
void BoxRules(unsigned ori, unsigned* turn, unsigned* flip) {
    *flip = (ori & 8) ? 8 : ((ori & 16) ? 16 : 0);
    *turn = (ori & 2) ? 2 : (ori & 1) ? 1 : (ori & (4 | 64)) ? 4 : 0;
}

// Coordinates in 64ths keep every sum and difference exact.
const Box kBoxes[] = {{0.125f, 0.25f, 0.5f, 0.875f}, {0.0f, 0.0f, 1.0f, 1.0f}, {0.609375f, 0.03125f, 0.6875f, 0.5f},
                      {-0.25f, 0.5f, 0.25f, 1.25f}};

TEST(CropboxRectify, EveryBitCombinationByOrientation) {
    for (unsigned combo = 0; combo < 64; ++combo) {
        const unsigned ori = WordOf(combo);
        unsigned turn, flip;
        BoxRules(ori, &turn, &flip);
        for (const Box& b : kBoxes) {
            Box got = b;
            kit::Cropbox_Rectify(static_cast<QVN_ORIENT_FMT>(ori), got.x0, got.y0, got.x1, got.y1);
            EXPECT_TRUE(SameBox(got, MapBox(turn, flip, b, 1.0f, 1.0f))) << "ori " << ori;
        }
    }
}

TEST(CropboxRectify, ThroughTheImageMatrix) {
    for (unsigned ori = 0; ori < 70; ++ori) {
        Combo c{};
        const bool own = HasOwnMatrix(ori, &c);
        QVN_Image img = qvntest::MakeImage(0, 9, 5, 0, nullptr, ori, {});
        for (const Box& b : kBoxes) {
            Box got = b;
            kit::Cropbox_Rectify(&img, true, got.x0, got.y0, got.x1, got.y1);
            EXPECT_TRUE(SameBox(got, own ? MapBox(c.turn, c.flip, b, 1.0f, 1.0f) : b)) << "ori " << ori;
            // In pixels of the 9 x 5 frame (last column 8, last row 4).
            Box px{b.x0 * 8, b.y0 * 4, b.x1 * 8, b.y1 * 4};
            Box gotp = px;
            kit::Cropbox_Rectify(&img, false, gotp.x0, gotp.y0, gotp.x1, gotp.y1);
            EXPECT_TRUE(SameBox(gotp, own ? MapBox(c.turn, c.flip, px, 8.0f, 4.0f) : px)) << "ori " << ori;
        }
    }
}

// ---------------------------------------------------------------------------
// Pixel box rectification
// ---------------------------------------------------------------------------

struct IBox {
    int x0, y0, x1, y1;
};

TEST(RectifyCropbox, EveryBitCombinationAgainstPixelCorners) {
    // Frame 13 x 7. A box in the upright view; its corner pixels mapped by
    // the flag formulas with last column/row of the frame. The mirror bit is
    // not looked at here.
    const int fw = 13, fh = 7;
    const IBox boxes[] = {{2, 1, 5, 3}, {0, 0, 6, 6}, {-2, -1, 4, 2}, {3, 2, 15, 9}};
    for (unsigned combo = 0; combo < 64; ++combo) {
        const unsigned ori = WordOf(combo);
        unsigned turn, flip;
        BoxRules(ori, &turn, &flip);
        if (flip == 16) flip = 0;
        for (const IBox& b : boxes) {
            QVN_Image img = qvntest::MakeImage(0, fw, fh, 0, nullptr, ori, {});
            int x0 = b.x0, y0 = b.y0, x1 = b.x1, y1 = b.y1, w = b.x1 - b.x0 + 1, h = b.y1 - b.y0 + 1;
            const int ret = kit::rectify_cropbox(&img, x0, y0, x1, y1, w, h);
            const Box want = MapBox(turn, flip, {float(b.x0), float(b.y0), float(b.x1), float(b.y1)}, fw - 1.0f, fh - 1.0f);
            EXPECT_EQ(std::vector<int>({x0, y0, x1, y1}),
                      std::vector<int>({int(want.x0), int(want.y0), int(want.x1), int(want.y1)})) << "ori " << ori;
            EXPECT_EQ(w, x1 - x0 + 1);
            EXPECT_EQ(h, y1 - y0 + 1);
            EXPECT_EQ(ret, h);
        }
    }
}

// ---------------------------------------------------------------------------
// crop_for_image
// ---------------------------------------------------------------------------

QVN_Image Image(uint32_t fmt, uint32_t ori, int w, int h, uint8_t* data) {
    return qvntest::MakeImage(fmt, w, h, 0, data, ori, {});
}

TEST(CropForImage, PackedFormatsReplicateTheEdges) {
    // The box runs off the frame on every side; the copy must equal the frame
    // with its edges replicated outward (OpenCV's BORDER_REPLICATE).
    std::mt19937 rng(11);
    const int fw = 10, fh = 7;
    const IBox boxes[] = {{-2, -3, 11, 9}, {3, 1, 6, 4}, {-4, 2, 5, 10}, {4, -1, 14, 3}};
    for (uint32_t fmt : {5u, 6u, 10u, 11u}) {
        const int bpp = (fmt == 5 || fmt == 6) ? 4 : 3;
        const Bytes frame = qvntest::RandomBytes(static_cast<size_t>(fw) * fh * bpp, rng);
        const cv::Mat src(fh, fw, CV_8UC(bpp), const_cast<uint8_t*>(frame.data()));
        cv::Mat padded;
        cv::copyMakeBorder(src, padded, 8, 8, 8, 8, cv::BORDER_REPLICATE);
        for (const IBox& b : boxes) {
            const int w = b.x1 - b.x0 + 1, h = b.y1 - b.y0 + 1;
            const int pitch = w + 2;  // two spare pixels a row must stay untouched
            Bytes out(static_cast<size_t>(pitch) * (h + 1) * bpp, 0xEE);
            QVN_Image s = Image(fmt, 0, fw, fh, const_cast<uint8_t*>(frame.data()));
            QVN_Image d = Image(fmt, 99, pitch, h, out.data());
            d.channels = 0;
            kit::crop_for_image(&s, d, b.x0, b.y0, b.x1, b.y1, w, h);
            EXPECT_EQ(d.channels, bpp);
            EXPECT_EQ(d.ori_fmt, 0u);
            for (int y = 0; y < h + 1; ++y)
                for (int x = 0; x < pitch; ++x)
                    for (int c = 0; c < bpp; ++c) {
                        const uint8_t got = out[(static_cast<size_t>(y) * pitch + x) * bpp + c];
                        const uint8_t want = (y < h && x < w) ? padded.ptr<uint8_t>(y + b.y0 + 8)[(x + b.x0 + 8) * bpp + c] : 0xEE;
                        ASSERT_EQ(got, want) << "fmt " << fmt << " box " << b.x0 << "," << b.y0 << " at " << x << "," << y;
                    }
        }
    }
}

TEST(CropForImage, TurnedFrameCropsTheRectifiedBox) {
    // A half turn: the upright box (1,1)-(3,2) of a 6 x 5 frame is the frame's
    // box (2,2)-(4,3), copied as it lies in the frame.
    const int fw = 6, fh = 5;
    Bytes frame(fw * fh * 3);
    for (size_t i = 0; i < frame.size(); ++i) frame[i] = static_cast<uint8_t>(3 * i + 1);
    Bytes out(3 * 2 * 3, 0);
    QVN_Image s = Image(QVN_PIX_FMT_RGB888, QVN_ORIENT_FMT_ROTATE_180, fw, fh, frame.data());
    QVN_Image d = Image(QVN_PIX_FMT_RGB888, 0, 3, 2, out.data());
    kit::crop_for_image(&s, d, 1, 1, 3, 2, 3, 2);
    for (int y = 0; y < 2; ++y)
        EXPECT_EQ(std::memcmp(&out[y * 9], &frame[((2 + y) * fw + 2) * 3], 9), 0) << "row " << y;
    EXPECT_EQ(d.ori_fmt, static_cast<uint32_t>(QVN_ORIENT_FMT_ROTATE_180));
}

TEST(CropForImage, TwoPlaneChromaRowsGoInPairs) {
    // Rows 1..3 (three rows, the last one odd): Y rows 1..4 are copied and
    // chroma rows 0 and 1; 5 columns from column 2 become 4 bytes a row.
    const int fw = 8, fh = 6;
    for (uint32_t fmt : {8u, 9u}) {
        Bytes frame(fw * fh * 3 / 2);
        for (size_t i = 0; i < frame.size(); ++i) frame[i] = static_cast<uint8_t>(i);
        const int dw = 6, dh = 6;
        Bytes out(dw * dh * 3 / 2, 0xEE);
        QVN_Image s = Image(fmt, 0, fw, fh, frame.data());
        QVN_Image d = Image(fmt, 0, dw, dh, out.data());
        kit::crop_for_image(&s, d, 2, 1, 6, 3, 5, 3);
        Bytes want(out.size(), 0xEE);
        for (int r = 0; r < 4; ++r)
            for (int c = 0; c < 4; ++c) want[r * dw + c] = frame[(1 + r) * fw + 2 + c];
        for (int r = 0; r < 2; ++r)
            for (int c = 0; c < 4; ++c) want[dw * dh + r * dw + c] = frame[fw * fh + r * fw + 2 + c];
        EXPECT_EQ(out, want) << "fmt " << fmt;
    }
}

TEST(CropForImage, ThreePlaneRowsGoInPairs) {
    // Rows 2..4, columns 2..7 (6 bytes): Y rows 2..5; U and V rows 1 and 2,
    // 3 bytes from column 1 of each quarter plane.
    const int fw = 8, fh = 8;
    Bytes frame(fw * fh * 3 / 2);
    for (size_t i = 0; i < frame.size(); ++i) frame[i] = static_cast<uint8_t>(i * 7);
    const int dw = 8, dh = 6;
    Bytes out(dw * dh * 3 / 2, 0xEE);
    QVN_Image s = Image(QVN_PIX_FMT_YUV420_A, 0, fw, fh, frame.data());
    QVN_Image d = Image(QVN_PIX_FMT_YUV420_A, 0, dw, dh, out.data());
    kit::crop_for_image(&s, d, 2, 2, 7, 4, 6, 3);
    Bytes want(out.size(), 0xEE);
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 6; ++c) want[r * dw + c] = frame[(2 + r) * fw + 2 + c];
    const int su = fw * fh, sv = fw * fh * 5 / 4, du = dw * dh, dv = dw * dh * 5 / 4;
    for (int r = 0; r < 2; ++r)
        for (int c = 0; c < 3; ++c) {
            want[du + r * dw / 2 + c] = frame[su + (1 + r) * fw / 2 + 1 + c];
            want[dv + r * dw / 2 + c] = frame[sv + (1 + r) * fw / 2 + 1 + c];
        }
    EXPECT_EQ(out, want);
}

TEST(CropForImage, UnsupportedFormatIsLoggedAndNothingCopied) {
    for (uint32_t fmt : {0u, 2u, 3u, 4u, 7u, 12u, 13u, 14u, 15u}) {
        Bytes frame(16 * 16 * 4, 1), out(16 * 16 * 4, 0xEE);
        QVN_Image s = Image(fmt, 4, 16, 16, frame.data());
        QVN_Image d = Image(fmt, 0, 16, 16, out.data());
        LogCapture log;
        kit::crop_for_image(&s, d, 0, 0, 7, 7, 8, 8);
        EXPECT_EQ(log.Take(), std::vector<std::string>{"unsupported input image format!"}) << "fmt " << fmt;
        EXPECT_EQ(out, Bytes(16 * 16 * 4, 0xEE));
        EXPECT_EQ(d.ori_fmt, 4u);
    }
}

// ---------------------------------------------------------------------------
// Crop-resize inverse matrices
// ---------------------------------------------------------------------------

TEST(CropResizeInverse, MapsResizedPixelsBackToTheFrame) {
    float m[9];
    kit::cal_crop_resize_inv_param(40, 30, 300, 200, 150, 400, m);
    EXPECT_EQ(std::vector<float>(m, m + 9), (std::vector<float>{2.0f, 0, 40, 0, 0.5f, 30, 0, 0, 1}));
    float f[9];
    kit::cal_crop_resize_inv_float_param(40.5f, -3.25f, 300.0f, 200.0f, 150.0f, 400.0f, f);
    EXPECT_EQ(std::vector<float>(f, f + 9), (std::vector<float>{2.0f, 0, 40.5f, 0, 0.5f, -3.25f, 0, 0, 1}));
    kit::cal_crop_resize_inv_param(0, 0, 1, 1, 3, 3, m);
    EXPECT_EQ(m[0], 1.0f / 3.0f);
    EXPECT_EQ(m[4], 1.0f / 3.0f);
}

}  // namespace
