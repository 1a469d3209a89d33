// Inverse-affine warps: the scalar float samplers and the fixed-point vector
// kernels, each compared bit for bit with a plain per-pixel definition
// written here from the arithmetic they promise, and with OpenCV on smooth
// images; their image dispatchers; planar-to-interleaved conversion.
#include <qvn_kit/qvn_kit.hpp>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "test_support.h"

namespace {

namespace kit = quvas::kit;
using qvntest::Guarded;
using qvntest::MakeImage;
using qvntest::RandomBytes;
using Bytes = std::vector<uint8_t>;

// ---------------------------------------------------------------------------
// Reference definitions
// ---------------------------------------------------------------------------

// Truncation toward zero as a double, so that no out-of-range float is ever
// converted to int (NaN and huge values simply fail the range tests).
inline bool trunc_in_range(float v, double lo, double hi, int* out) {
    const double t = std::trunc(static_cast<double>(v));
    if (!(t >= lo && t < hi)) return false;
    *out = static_cast<int>(t);
    return true;
}

// Float sampler: border everywhere, then every destination pixel whose
// source point has its whole 2 x 2 neighbourhood inside is interpolated.
void RefFloatWarp(int K, const uint8_t* src, int sw, int sh, uint8_t* dst, int dw, int dh,
                  uint8_t border, const float* M) {
    std::fill(dst, dst + static_cast<size_t>(dw) * dh * K, border);
    for (int y = 0; y < dh; ++y) {
        for (int x = 0; x < dw; ++x) {
            const float X = static_cast<float>(x), Y = static_cast<float>(y);
            const float sx = std::fma(X, M[0], Y * M[1]) + M[2];
            const float sy = std::fma(Y, M[4], X * M[3]) + M[5];
            int xi, yi;
            if (!trunc_in_range(sx, 0.0, sw - 1.0, &xi)) continue;
            if (!trunc_in_range(sy, 0.0, sh - 1.0, &yi)) continue;
            const float fx = sx >= 0.0f ? sx - static_cast<float>(xi) : 0.0f;
            const float fy = sy >= 0.0f ? sy - static_cast<float>(yi) : 0.0f;
            const int x1 = (sx > 0.0f && sx < static_cast<float>(sw - 1)) ? xi + 1 : xi;
            const int y1 = (sy >= 0.0f && sy < static_cast<float>(sh - 1)) ? yi + 1 : yi;
            for (int c = 0; c < K; ++c) {
                auto at = [&](int px, int py) { return static_cast<float>(src[(py * sw + px) * K + c]); };
                const float top = std::fma(at(xi, yi), 1.0f - fx, at(x1, yi) * fx);
                const float bot = std::fma(at(xi, y1), 1.0f - fx, at(x1, y1) * fx);
                const float v = std::fma(top, 1.0f - fy, bot * fy);
                dst[(y * dw + x) * K + c] = v > 255.0f ? 255 : static_cast<uint8_t>(std::trunc(v));
            }
        }
    }
}

// Fixed-point kernel with 16-bit weights, each rounded half to even from
// its own product; outside pixels and storage differ by channel count.
void RefFixedWarp(int N, int sh, int sw, int sstride, int dh, int dw, int dstride, uint8_t* dst,
                  const uint8_t* src, const float* M, unsigned border) {
    if (N == 1 && (border & 0xff) != 0) {
        std::fill(dst, dst + static_cast<size_t>(dh) * dstride, static_cast<uint8_t>(border));
    }
    for (int y = 0; y < dh; ++y) {
        const float bx = std::fma(static_cast<float>(y), M[1], M[2]);
        const float by = std::fma(static_cast<float>(y), M[4], M[5]);
        for (int x = 0; x < dw; ++x) {
            uint8_t* out = dst + static_cast<size_t>(y) * dstride + static_cast<size_t>(x) * N;
            const float sx = std::fma(static_cast<float>(x), M[0], bx);
            const float sy = std::fma(static_cast<float>(x), M[3], by);
            int ix, iy;
            const bool inside = trunc_in_range(sx, 0.0, sw - 1.0, &ix) &&
                                trunc_in_range(sy, 0.0, sh - 1.0, &iy);
            if (!inside) {
                for (int c = 0; c < N && N > 1; ++c) out[c] = static_cast<uint8_t>(border >> (8 * c));
                continue;
            }
            const float fx = sx - static_cast<float>(ix);
            const float fy = sy - static_cast<float>(iy);
            const int w00 = static_cast<int>(std::nearbyint((1.0f - fx) * (1.0f - fy) * 65536.0f));
            const int w10 = static_cast<int>(std::nearbyint(fx * (1.0f - fy) * 65536.0f));
            const int w01 = static_cast<int>(std::nearbyint((1.0f - fx) * fy * 65536.0f));
            const int w11 = static_cast<int>(std::nearbyint(fx * fy * 65536.0f));
            for (int c = 0; c < N; ++c) {
                auto s = [&](int px, int py) { return static_cast<int>(src[py * sstride + px * N + c]); };
                const int v = (s(ix, iy) * w00 + s(ix + 1, iy) * w10 + s(ix, iy + 1) * w01 +
                               s(ix + 1, iy + 1) * w11 + 32768) >> 16;
                out[c] = N == 4 ? static_cast<uint8_t>(std::clamp(v, 0, 255)) : static_cast<uint8_t>(v & 0xff);
            }
        }
    }
}

using FloatWarpFn = void (*)(const unsigned char*, int, int, unsigned char*, int, int, unsigned char, float*);
using FixedWarpFn = void (*)(int, int, int, int, int, int, int, unsigned char*, const unsigned char*,
                             const float*, unsigned int);
const FloatWarpFn kFloatWarp[5] = {nullptr, kit::affine_inv_image_bilinear_c1, kit::affine_inv_image_bilinear_c2,
                                   kit::affine_inv_image_bilinear_c3, kit::affine_inv_image_bilinear_c4};
const FixedWarpFn kFixedWarp[5] = {nullptr, kit::warpaffine_linear_SSE_C1, kit::warpaffine_linear_SSE_C2,
                                   kit::warpaffine_linear_SSE_C3, kit::warpaffine_linear_SSE_C4};

// ---------------------------------------------------------------------------
// Inputs
// ---------------------------------------------------------------------------

// A destination-to-source matrix: the inverse of a turn, scale, shear and
// translation chosen at random, some of them far off the frame; now and then
// a degenerate or overflowing one.
std::vector<float> RandomInverseMatrix(std::mt19937& rng, int sw, int sh) {
    std::uniform_real_distribution<double> u(0.0, 1.0);
    const int kind = static_cast<int>(u(rng) * 20);
    if (kind == 0) return {1e9f, 3e9f, -2e9f, -1e9f, 2e9f, 5e9f};  // truncation overflows
    if (kind == 1) return {0.0f, 0.0f, static_cast<float>(u(rng) * sw), 0.0f, 0.0f, static_cast<float>(u(rng) * sh)};
    const double angle = (u(rng) * 2.0 - 1.0) * 3.14159265358979;
    const double scale = 0.3 + u(rng) * 2.5;
    const double shear = (u(rng) - 0.5) * 0.6;
    const double c = std::cos(angle) * scale, s = std::sin(angle) * scale;
    const double a = c, b = -s + shear * c, d = s, e = c + shear * s;
    double tx = (u(rng) - 0.5) * 2.5 * sw, ty = (u(rng) - 0.5) * 2.5 * sh;
    if (kind == 2) tx = -3.0 * sw;  // wholly off the frame
    if (kind == 3) ty = 4.0 * sh;
    if (kind == 4) { tx = -0.5; ty = -0.25; }
    if (kind == 5 || kind == 6) {
        // Upright or nearly so, starting between -1 and 0: the first columns
        // and rows sample with negative fractions (extrapolated weights).
        tx = -u(rng);
        ty = -u(rng);
        if (kind == 5) return {static_cast<float>(scale), 0.0f, static_cast<float>(tx), 0.0f,
                               static_cast<float>(scale), static_cast<float>(ty)};
        return {static_cast<float>(scale), static_cast<float>(shear * 0.1), static_cast<float>(tx),
                static_cast<float>(-shear * 0.1), static_cast<float>(scale), static_cast<float>(ty)};
    }
    return {static_cast<float>(a), static_cast<float>(b), static_cast<float>(tx),
            static_cast<float>(d), static_cast<float>(e), static_cast<float>(ty)};
}

const unsigned kBorderWords[] = {0u, 0x80u, 0x00332211u, 0xFFFFFFFFu, 0xA5C30000u, 0x01020304u};

// ---------------------------------------------------------------------------
// Fixed-point vector kernels against the plain definition
// ---------------------------------------------------------------------------

class FixedWarp : public ::testing::TestWithParam<int> {};

TEST_P(FixedWarp, MatchesPlainDefinitionOnRandomMatrices) {
    const int N = GetParam();
    std::mt19937 rng(1234 + N);
    std::uniform_int_distribution<int> size(1, 61), pad(0, 9);
    for (int trial = 0; trial < 700; ++trial) {
        // Every destination width 1..70 ten times: rows shorter than a block,
        // whole blocks, and spans with a few columns left over.
        const int sw = size(rng), sh = size(rng), dw = 1 + trial % 70, dh = size(rng);
        const int sstride = sw * N + (trial % 3 == 0 ? 0 : pad(rng));
        const int dstride = dw * N + (trial % 2 == 0 ? 0 : pad(rng));
        const unsigned border = kBorderWords[trial % 6];
        const std::vector<float> M = RandomInverseMatrix(rng, sw, sh);
        const Bytes src = RandomBytes(static_cast<size_t>(sstride) * sh, rng);
        const Bytes before = RandomBytes(static_cast<size_t>(dstride) * dh, rng);
        Bytes got = before, want = before;
        kFixedWarp[N](sh, sw, sstride, N, dh, dw, dstride, got.data(), src.data(), M.data(), border);
        RefFixedWarp(N, sh, sw, sstride, dh, dw, dstride, want.data(), src.data(), M.data(), border);
        ASSERT_EQ(got, want) << "C" << N << " trial " << trial << " src " << sw << "x" << sh << " dst " << dw
                             << "x" << dh << " border " << std::hex << border;
    }
}

TEST_P(FixedWarp, ReadsAndWritesNothingOutsideTheBuffers) {
    // Turns and shifts that sample the first and last rows and columns of a
    // source that touches an inaccessible page on either side, into a
    // destination of every width 1..70 that ends at an inaccessible page.
    const int N = GetParam();
    std::mt19937 rng(77 + N);
    for (bool at_end : {true, false}) {
        for (int sw : {2, 3, 9, 33, 70}) {
            const int sh = 5;
            Guarded src(static_cast<size_t>(sw) * N * sh, at_end);
            const Bytes content = RandomBytes(src.size(), rng);
            std::memcpy(src.data(), content.data(), content.size());
            for (float angle : {0.0f, 0.02f, 1.5707964f, 3.1415927f, -0.7f}) {
                const float c = std::cos(angle), s = std::sin(angle);
                const float M[6] = {c, -s, at_end ? sw - 1.6f : -0.4f, s, c, at_end ? sh - 1.6f : -0.4f};
                for (int dw = 1; dw <= 70; ++dw) {
                    const int dh = 3;
                    Guarded got(static_cast<size_t>(dw) * dh * N, true);
                    std::memset(got.data(), 7, got.size());
                    Bytes want(got.size(), 7);
                    kFixedWarp[N](sh, sw, sw * N, N, dh, dw, dw * N, got.data(), src.data(), M, 0x44332211u);
                    RefFixedWarp(N, sh, sw, sw * N, dh, dw, dw * N, want.data(), src.data(), M, 0x44332211u);
                    ASSERT_EQ(Bytes(got.data(), got.data() + got.size()), want)
                        << "C" << N << " source width " << sw << " angle " << angle << " width " << dw;
                }
            }
        }
    }
}

TEST_P(FixedWarp, RowsLongerThanOnePieceMatchPlainDefinition) {
    // The kernels work through long rows in pieces of 256 columns: widths on
    // both sides of one and two pieces, some leaving a last piece shorter
    // than a block of eight. Every column samples well inside the source.
    const int N = GetParam();
    std::mt19937 rng(99 + N);
    const int sw = 300, sh = 40, dh = 4;
    const Bytes src = RandomBytes(static_cast<size_t>(sw) * N * sh, rng);
    const float M[6] = {0.55f, 0.02f, 0.3f, -0.01f, 0.9f, 5.2f};
    for (int dw : {255, 256, 257, 259, 263, 264, 270, 511, 515, 520}) {
        const Bytes before = RandomBytes(static_cast<size_t>(dw) * N * dh, rng);
        Bytes got = before, want = before;
        kFixedWarp[N](sh, sw, sw * N, N, dh, dw, dw * N, got.data(), src.data(), M, 0x44332211u);
        RefFixedWarp(N, sh, sw, sw * N, dh, dw, dw * N, want.data(), src.data(), M, 0x44332211u);
        ASSERT_EQ(got, want) << "C" << N << " width " << dw;
    }
}

TEST_P(FixedWarp, BothSamplersCloseToOpenCVOnSmoothImages) {
    // OpenCV quantises positions to 1/32 pixel; on a smooth image that moves
    // a sample by at most one or two levels, and the float sampler's
    // truncation costs at most one more. Compared where both sample a
    // neighbourhood wholly inside the source.
    const int N = GetParam();
    const int sw = 97, sh = 71, dw = 83, dh = 66;
    cv::Mat src(sh, sw, CV_8UC(N));
    for (int y = 0; y < sh; ++y)
        for (int x = 0; x < sw; ++x)
            for (int c = 0; c < N; ++c)
                src.ptr<uint8_t>(y)[x * N + c] = static_cast<uint8_t>(20 + 0.6 * (x + y) + 25 * c + 15 * std::sin(x * 0.1 + c));
    float M[6] = {0.9f, -0.35f, 20.0f, 0.3f, 0.95f, -5.0f};
    cv::Mat fixed(dh, dw, CV_8UC(N), cv::Scalar::all(0)), flt(dh, dw, CV_8UC(N)), peer;
    kFixedWarp[N](sh, sw, static_cast<int>(src.step), N, dh, dw, static_cast<int>(fixed.step), fixed.data, src.data, M, 0);
    kFloatWarp[N](src.data, sw, sh, flt.data, dw, dh, 0, M);
    cv::warpAffine(src, peer, cv::Matx23f(M[0], M[1], M[2], M[3], M[4], M[5]), cv::Size(dw, dh),
                   cv::INTER_LINEAR | cv::WARP_INVERSE_MAP, cv::BORDER_CONSTANT);
    int compared = 0, worst_fixed = 0, worst_float = 0;
    for (int y = 0; y < dh; ++y) {
        for (int x = 0; x < dw; ++x) {
            const float sx = M[0] * x + M[1] * y + M[2], sy = M[3] * x + M[4] * y + M[5];
            if (!(sx >= 0.5f && sx < sw - 2.5f && sy >= 0.5f && sy < sh - 2.5f)) continue;
            ++compared;
            for (int c = 0; c < N; ++c) {
                const int want = peer.ptr<uint8_t>(y)[x * N + c];
                worst_fixed = std::max(worst_fixed, std::abs(fixed.ptr<uint8_t>(y)[x * N + c] - want));
                worst_float = std::max(worst_float, std::abs(flt.ptr<uint8_t>(y)[x * N + c] - want));
            }
        }
    }
    EXPECT_GT(compared, dw * dh / 2);
    EXPECT_LE(worst_fixed, 2);
    EXPECT_LE(worst_float, 2);
}

INSTANTIATE_TEST_SUITE_P(Channels, FixedWarp, ::testing::Values(1, 2, 3, 4));

// ---------------------------------------------------------------------------
// Fixed-point kernels: cases with values that follow from the arithmetic
// ---------------------------------------------------------------------------

TEST(FixedWarpCases, HalfPixelShiftRoundsHalvesUpAndExtrapolatesAtColumnZero) {
    // Column j maps to x = j - 0.5. From column 1 on, fx = 0.5: the mean of
    // two neighbours, an exact half rounded up. Column 0 maps to -0.5:
    // truncation gives 0 and fx = -0.5, so the weights are 1.5 and -0.5 of
    // 65536 and the sample is taken as inside.
    const float M[6] = {1, 0, -0.5f, 0, 1, 0};
    // (10*98304 - 50*32768 + 32768) >> 16 = -10: low byte 246, saturated 0.
    // (200*98304 - 10*32768 + 32768) >> 16 = 295: low byte 39, saturated 255.
    const uint8_t a[2] = {10, 200}, b[2] = {50, 10}, low[2] = {246, 39}, sat[2] = {0, 255};
    const int sw = 24, dw = 20;
    std::mt19937 rng(6);
    for (int k = 0; k < 2; ++k) {
        for (int N = 1; N <= 4; ++N) {
            Bytes src = RandomBytes(static_cast<size_t>(sw) * 2 * N, rng);
            for (int c = 0; c < N; ++c) src[c] = a[k], src[N + c] = b[k];
            Bytes dst(static_cast<size_t>(dw) * N, 1);
            kFixedWarp[N](2, sw, sw * N, N, 1, dw, dw * N, dst.data(), src.data(), M, 0);
            for (int c = 0; c < N; ++c) EXPECT_EQ(dst[c], N == 4 ? sat[k] : low[k]) << "C" << N;
            for (int i = N; i < dw * N; ++i) ASSERT_EQ(dst[i], (src[i - N] + src[i] + 1) / 2) << "C" << N << " " << i;
        }
    }
}

// ---------------------------------------------------------------------------
// Scalar float samplers
// ---------------------------------------------------------------------------

class FloatWarp : public ::testing::TestWithParam<int> {};

TEST_P(FloatWarp, MatchesPlainDefinitionOnRandomMatrices) {
    const int K = GetParam();
    std::mt19937 rng(99 + K);
    std::uniform_int_distribution<int> size(1, 53);
    for (int trial = 0; trial < 500; ++trial) {
        const int sw = size(rng), sh = size(rng), dw = size(rng), dh = size(rng);
        std::vector<float> M = RandomInverseMatrix(rng, sw, sh);
        const uint8_t border = static_cast<uint8_t>(kBorderWords[trial % 6] >> 8);
        const Bytes src = RandomBytes(static_cast<size_t>(sw) * sh * K, rng);
        Bytes got(static_cast<size_t>(dw) * dh * K + 16, 3), want = got;
        kFloatWarp[K](src.data(), sw, sh, got.data(), dw, dh, border, M.data());
        RefFloatWarp(K, src.data(), sw, sh, want.data(), dw, dh, border, M.data());
        ASSERT_EQ(got, want) << "c" << K << " trial " << trial;
    }
}

INSTANTIATE_TEST_SUITE_P(Channels, FloatWarp, ::testing::Values(1, 2, 3, 4));

TEST(FloatWarpCases, NoRowsOrNoColumnsNothingWritten) {
    const Bytes src(11 * 7 * 4, 9);
    float I[6] = {1, 0, 0, 0, 1, 0};
    for (int K = 1; K <= 4; ++K) {
        Bytes none(4, 77);
        kFloatWarp[K](src.data(), 11, 7, none.data(), 5, 0, 0, I);
        kFloatWarp[K](src.data(), 11, 7, none.data(), 0, 5, 0, I);
        EXPECT_EQ(none, Bytes(4, 77));
    }
}

// ---------------------------------------------------------------------------
// Image dispatchers
// ---------------------------------------------------------------------------

struct Plane {
    size_t offset;
    int w, h, channels;
};

// Plane layout of a frame, as the dispatchers are to see it.
std::vector<Plane> PlanesOf(uint32_t fmt, int w, int h) {
    const size_t n = static_cast<size_t>(w) * h;
    switch (fmt) {
        case QVN_PIX_FMT_BGRA8888:
        case QVN_PIX_FMT_RGBA8888: return {{0, w, h, 4}};
        case QVN_PIX_FMT_RGB888:
        case QVN_PIX_FMT_BGR888: return {{0, w, h, 3}};
        case QVN_PIX_FMT_GRAY8: return {{0, w, h, 1}};
        case QVN_PIX_FMT_YUV420SP_C:
        case QVN_PIX_FMT_YUV420SP_D: return {{0, w, h, 1}, {n, w / 2, h / 2, 2}};
        case QVN_PIX_FMT_YUV420_A:
            return {{0, w, h, 1}, {n, w / 2, h / 2, 1}, {n + static_cast<size_t>(w / 2) * (h / 2), w / 2, h / 2, 1}};
        default: return {};
    }
}

size_t BytesOf(uint32_t fmt, int w, int h) {
    size_t total = 0;
    for (const Plane& p : PlanesOf(fmt, w, h)) total = std::max(total, p.offset + static_cast<size_t>(p.w) * p.h * p.channels);
    return total;
}

const uint32_t kWarpFormats[] = {QVN_PIX_FMT_BGRA8888, QVN_PIX_FMT_RGBA8888, QVN_PIX_FMT_RGB888, QVN_PIX_FMT_BGR888,
                                 QVN_PIX_FMT_GRAY8,    QVN_PIX_FMT_YUV420SP_C, QVN_PIX_FMT_YUV420SP_D,
                                 QVN_PIX_FMT_YUV420_A};

TEST(WarpDispatch, EveryFormatPlaneByPlane) {
    std::mt19937 rng(2024);
    const int sw = 37, sh = 29, dw = 23, dh = 19;  // odd sizes: halves round toward zero
    float M[6] = {0.93f, 0.41f, -3.5f, -0.38f, 1.07f, 9.25f};
    const float Mc[6] = {M[0], M[1], 0.5f * M[2], M[3], M[4], 0.5f * M[5]};
    for (uint32_t fmt : kWarpFormats) {
        Bytes src = RandomBytes(BytesOf(fmt, sw, sh), rng);
        const size_t dbytes = BytesOf(fmt, dw, dh);
        Bytes got_f(dbytes + 8, 0x5A), got_v(dbytes + 8, 0x5A);
        QVN_Image s = MakeImage(fmt, sw, sh, 0, src.data());
        QVN_Image d = MakeImage(fmt, dw, dh, 0, got_f.data());
        kit::affine_inv_qvimage_bilinear(&s, &d, 17, M);
        d.data = got_v.data();
        const unsigned border = 0x00CCBB11u;
        kit::AffineInvQvimageBilinearSSE(&s, &d, border, M);

        Bytes want_f(dbytes + 8, 0x5A), want_v(dbytes + 8, 0x5A);
        const auto sp = PlanesOf(fmt, sw, sh), dp = PlanesOf(fmt, dw, dh);
        for (size_t k = 0; k < sp.size(); ++k) {
            const float* m = k == 0 ? M : Mc;
            // Scalar: chroma planes use 128. Vector: byte 1 for the first
            // chroma component, byte 2 for the second, both in one word for
            // interleaved pairs.
            const uint8_t fb = k == 0 ? 17 : 128;
            const unsigned vb = k == 0 ? border : (sp[k].channels == 2 ? 0xCCBBu : (k == 1 ? 0xBBu : 0xCCu));
            const int C = sp[k].channels;
            RefFloatWarp(C, src.data() + sp[k].offset, sp[k].w, sp[k].h, want_f.data() + dp[k].offset, dp[k].w,
                         dp[k].h, fb, m);
            RefFixedWarp(C, sp[k].h, sp[k].w, sp[k].w * C, dp[k].h, dp[k].w, dp[k].w * C,
                         want_v.data() + dp[k].offset, src.data() + sp[k].offset, m, vb);
        }
        EXPECT_EQ(got_f, want_f) << "scalar, format " << fmt;
        EXPECT_EQ(got_v, want_v) << "vector, format " << fmt;
    }
}

TEST(WarpDispatch, UnsupportedFormatsAreLoggedAndLeaveDestination) {
    for (uint32_t fmt : {0u, 2u, 3u, 4u, 12u, 13u, 14u, 15u}) {
        Bytes src(64 * 4, 1), dst(64 * 4, 0xAB);
        QVN_Image s = MakeImage(fmt, 8, 8, 0, src.data()), d = MakeImage(fmt, 8, 8, 0, dst.data());
        float I[6] = {1, 0, 0, 0, 1, 0};
        LogCapture log;
        kit::affine_inv_qvimage_bilinear(&s, &d, 0, I);
        kit::AffineInvQvimageBilinearSSE(&s, &d, 0x7F7F7F7Fu, I);
        const std::vector<std::string> want(2, "unsupported image pixel format for affine_inv_qvimage_bilinear");
        EXPECT_EQ(log.Take(), want) << "format " << fmt;
        EXPECT_EQ(dst, Bytes(64 * 4, 0xAB));
    }
}

// ---------------------------------------------------------------------------
// Planar to interleaved
// ---------------------------------------------------------------------------

// The definition, one pixel at a time in increasing order; on overlapping
// buffers this order is what fixes the result.
void RefInterleave(int planes, const uint8_t* src, uint8_t* dst, int n) {
    for (int i = 0; i < n; ++i)
        for (int p = 0; p < planes; ++p) dst[planes * i + p] = src[static_cast<size_t>(p) * n + i];
}

int Interleave(int planes, QVN_Image* s, QVN_Image* d) {
    return planes == 3 ? kit::post_getRGB_HWC_from_RGB_CHW(s, d) : kit::post_getRGBA_HWC_from_RGBA_CHW(s, d);
}

TEST(PlanarToInterleaved, SeparateAndOverlappingBuffersAroundThe32PixelStep) {
    std::mt19937 rng(32);
    for (int planes : {3, 4}) {
        for (int n : {1, 2, 15, 16, 31, 32, 33, 47, 63, 64, 65, 96, 97, 1031}) {
            // One buffer holds the planes and, shifted, the interleaved output;
            // the last shift puts the output wholly after the planes.
            const size_t len = static_cast<size_t>(n) * planes;
            for (size_t dst_at : {size_t{40}, size_t{41}, size_t{45}, size_t{80}, size_t{37}, 45 + len}) {
                Bytes got = RandomBytes(2 * len + 90, rng), want = got;
                QVN_Image s = MakeImage(QVN_PIX_FMT_RGB888, n, 1, 0, got.data() + 40);
                QVN_Image d = MakeImage(QVN_PIX_FMT_UNKNOW, 0, 0, 0, got.data() + dst_at);
                const QVN_Image d_before = d;
                EXPECT_EQ(Interleave(planes, &s, &d), 0);
                RefInterleave(planes, want.data() + 40, want.data() + dst_at, n);
                ASSERT_EQ(got, want) << planes << " planes, " << n << " pixels, output at " << dst_at;
                EXPECT_EQ(std::memcmp(&d, &d_before, sizeof d), 0) << "destination fields are not touched";
            }
        }
    }
}

TEST(PlanarToInterleaved, NoPixelsNothingDone) {
    Bytes src(16, 1), dst(16, 2);
    for (int planes : {3, 4}) {
        QVN_Image s = MakeImage(QVN_PIX_FMT_RGB888, 0, 4, 0, src.data()), d = MakeImage(QVN_PIX_FMT_RGB888, 0, 4, 0, dst.data());
        EXPECT_EQ(Interleave(planes, &s, &d), 0);
        s.width = -2;  // a negative product counts as empty too
        EXPECT_EQ(Interleave(planes, &s, &d), 0);
        EXPECT_EQ(dst, Bytes(16, 2));
    }
}

}  // namespace
