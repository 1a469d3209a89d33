// Score and heatmap decoding: softmax, box helpers and SoftArgMax. The
// decoders are compared with plain scalar loops written here from the rules
// (bit for bit) and with a float64 soft-argmax using the true exponential.
#include <qvn_kit/qvn_kit.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

#include "test_support.h"

namespace {

using quvas::kit::SoftArgMax;

// ---------------------------------------------------------------------------
// Softmax and box helpers
// ---------------------------------------------------------------------------

std::vector<float> SoftmaxRef(const std::vector<float>& in) {
    std::vector<float> out(in.size());
    double sum = 0;
    for (size_t i = 0; i < in.size(); ++i) {
        out[i] = static_cast<float>(std::exp(static_cast<double>(in[i])));
        sum += out[i];
    }
    for (float& v : out) v = static_cast<float>(v / sum);
    return out;
}

TEST(Softmax, MatchesDefinitionInPlaceAndOutOfPlace) {
    std::mt19937 rng(11);
    std::normal_distribution<float> dist(0.0f, 4.0f);
    std::vector<float> in(1000);
    for (float& v : in) v = dist(rng);
    const std::vector<float> want = SoftmaxRef(in);
    std::vector<float> out(in.size());
    quvas::kit::softmax_float(in.data(), out.data(), static_cast<int>(in.size()));
    EXPECT_EQ(0, std::memcmp(out.data(), want.data(), out.size() * sizeof(float)));
    std::vector<float> inplace = in;
    quvas::kit::softmax_float(inplace.data(), inplace.data(), static_cast<int>(in.size()));
    EXPECT_EQ(0, std::memcmp(inplace.data(), want.data(), out.size() * sizeof(float)));
}

TEST(Softmax, EqualInputsCountsAndOverflow) {
    for (int count : {1, 2, 4, 5, 8}) {
        std::vector<float> in(count, 3.25f), out(count, -1.0f);
        quvas::kit::softmax_float(in.data(), out.data(), count);
        for (float v : out) EXPECT_FLOAT_EQ(v, 1.0f / count) << count;
    }
    float out[2] = {-7.0f, -7.0f};
    const float in[2] = {1.0f, 2.0f};
    quvas::kit::softmax_float(in, out, 0);
    quvas::kit::softmax_float(in, out, -3);
    EXPECT_EQ(out[0], -7.0f);
    EXPECT_EQ(out[1], -7.0f);

    // No maximum shift: e^88 still fits f32, e^89 is infinite and gives NaN.
    const float ok[2] = {88.0f, 0.0f};
    quvas::kit::softmax_float(ok, out, 2);
    EXPECT_FLOAT_EQ(out[0], 1.0f);
    EXPECT_TRUE(std::isfinite(out[1]));
    const float big[2] = {89.0f, 0.0f};
    quvas::kit::softmax_float(big, out, 2);
    EXPECT_TRUE(std::isnan(out[0]));
    EXPECT_EQ(out[1], 0.0f);
}

void ExpectRect(QVN_Rect2D r, float x0, float y0, float x1, float y1) {
    EXPECT_EQ(std::vector<float>({r.x0, r.y0, r.x1, r.y1}), std::vector<float>({x0, y0, x1, y1}));
}

TEST(BoxHelpers, ExtendAndAdjust) {
    // 10 x 4 box centred on (7, 5): a 10 x 10 square, then scaled by 1.5.
    ExpectRect(quvas::kit::extend_bbox({2, 3, 12, 7}, 1.0f), 2, 0, 12, 10);
    ExpectRect(quvas::kit::extend_bbox({2, 3, 12, 7}, 1.5f), -0.5f, -2.5f, 14.5f, 12.5f);
    ExpectRect(quvas::kit::extend_bbox({0, 0, 2, 6}, 0.5f), -0.5f, 1.5f, 2.5f, 4.5f);

    // No padding: edges truncated toward zero (-0.5 -> 0, 9.9 -> 9), then the
    // square of side max(w, h) about the truncated box's centre.
    ExpectRect(quvas::kit::adjust_bbox({-0.5f, 1.7f, 9.9f, 5.2f}, 0, 0, 0, 0, 1, 1), 0, -1.5f,
               9, 7.5f);
    // Negative top/left grow, positive bottom/right grow; y scaled by 1.2.
    // nx = 0..120, ny = 15..75 -> side 120, centre (60, 45).
    ExpectRect(quvas::kit::adjust_bbox({10, 20, 110, 70}, -0.1f, 0.1f, -0.1f, 0.1f, 1.0f, 1.2f),
               0, -27, 120, 117);
    // The padded edge is one fused multiply-add: 0.7f * 10 - 6 is just below 1
    // (truncates to 0); a separately rounded product would give 7 - 6 = 1.
    ExpectRect(quvas::kit::adjust_bbox({0, -6, 10, 4}, 0.7f, 0, 0, 0, 1, 1), 0, -3, 10, 7);
}

// ---------------------------------------------------------------------------
// SoftArgMax: scalar references written from the rules
// ---------------------------------------------------------------------------

// float -> int32 as the processor does it: NaN / out of range give INT32_MIN.
int32_t ToInt(float v, bool round_nearest) {
    if (!(v >= -2147483648.0f && v < 2147483648.0f)) return INT32_MIN;
    return static_cast<int32_t>(round_nearest ? std::nearbyint(v) : std::trunc(v));
}
float FastExpRef(float v, bool round_nearest) {
    const float s = std::fmaf(v, 1512775.0f, 1072632448.0f);
    const uint64_t bits = static_cast<uint64_t>(static_cast<uint32_t>(ToInt(s, round_nearest)))
                          << 32;
    double d;
    std::memcpy(&d, &bits, sizeof d);
    return static_cast<float>(d);
}
float Coord(int i, int n) { return std::fmaf(static_cast<float>(i) / (n - 1), 2.0f, -1.0f); }

struct Result {
    std::vector<float> x, y, conf, wsum, exps;
};

Result RefDecode(const std::vector<float>& d, int W, int H, int C, float beta) {
    Result r{std::vector<float>(C), std::vector<float>(C), std::vector<float>(C, 1.0f),
             std::vector<float>(C), std::vector<float>(d.size())};
    for (int c = 0, i = 0; c < C; ++c) {
        float s = 0, sx = 0, sy = 0;
        for (int row = 0; row < H; ++row)
            for (int k = 0; k < W; ++k, ++i) {
                const float e = r.exps[i] = FastExpRef(d[i] * beta, false);
                s += e;
                sx = std::fmaf(Coord(k, W), e, sx);
                sy = std::fmaf(Coord(row, H), e, sy);
            }
        r.wsum[c] = s;
        r.x[c] = sx / s;
        r.y[c] = sy / s;
    }
    return r;
}

// The same means, then the variance about them over the weight sum.
Result RefNoSqrt(const std::vector<float>& d, int W, int H, int C, float beta) {
    Result r = RefDecode(d, W, H, C, beta);
    for (int c = 0; c < C; ++c) {
        const float* p = d.data() + c * W * H;
        float var = 0;
        for (int i = 0; i < W * H; ++i) {
            const double dx = Coord(i % W, W) - r.x[c], dy = Coord(i / W, H) - r.y[c];
            var = static_cast<float>(var + FastExpRef(p[i] * beta, false) * (dx * dx + dy * dy));
        }
        r.conf[c] = var / r.wsum[c];
    }
    return r;
}

// Four lanes; lane j of group g in row r of plane c reads stream position
// 4 * ((c * H + r) * (W / 4) + g) + j, whatever W is.
Result RefVector(const std::vector<float>& d, int W, int H, int C, float beta, bool sqrt_conf) {
    Result r{std::vector<float>(C), std::vector<float>(C), std::vector<float>(C), {}, {}};
    const int G = W / 4;
    auto at = [&](int c, int row, int g, int j) { return d[4 * ((c * H + row) * G + g) + j]; };
    for (int c = 0; c < C; ++c) {
        float s[4] = {}, sx[4] = {}, sy[4] = {}, acc[4] = {};
        for (int row = 0; row < H; ++row)
            for (int g = 0; g < G; ++g)
                for (int j = 0; j < 4; ++j) {
                    const float e = FastExpRef(at(c, row, g, j) * beta, true);
                    s[j] += e;
                    sx[j] = std::fmaf(e, Coord(4 * g + j, W), sx[j]);
                    sy[j] = std::fmaf(e, Coord(row, H), sy[j]);
                }
        const float sum = ((s[0] + s[1]) + s[2]) + s[3];
        const float mx = (((sx[0] + sx[1]) + sx[2]) + sx[3]) / sum;
        const float my = (((sy[0] + sy[1]) + sy[2]) + sy[3]) / sum;
        for (int row = 0; row < H; ++row) {
            const float dy = Coord(row, H) - my;
            for (int g = 0; g < G; ++g)
                for (int j = 0; j < 4; ++j) {
                    const float dx = Coord(4 * g + j, W) - mx;
                    const float t = std::fmaf(dx, dx, dy * dy);
                    const float w = FastExpRef(at(c, row, g, j) * beta, true) / sum;
                    acc[j] = acc[j] + w * t;
                }
        }
        const float var = ((acc[2] + acc[3]) + acc[1]) + acc[0];
        r.x[c] = mx;
        r.y[c] = my;
        r.conf[c] = sqrt_conf ? std::sqrt(var) : var;
    }
    return r;
}

// Bit-for-bit comparison (NaN equal to NaN of any payload is not enough:
// compare the patterns, but accept any NaN for any NaN).
void ExpectSameBits(const float* got, const std::vector<float>& want, const char* what) {
    for (size_t i = 0; i < want.size(); ++i) {
        if (std::isnan(want[i]) && std::isnan(got[i])) continue;
        uint32_t a, b;
        std::memcpy(&a, &got[i], 4);
        std::memcpy(&b, &want[i], 4);
        EXPECT_EQ(a, b) << what << "[" << i << "] got " << got[i] << " want " << want[i];
    }
}

void ExpectSameResult(const SoftArgMax& s, const Result& want) {
    ExpectSameBits(s.x_out, want.x, "x");
    ExpectSameBits(s.y_out, want.y, "y");
    ExpectSameBits(s.confidence, want.conf, "conf");
}

enum Variant { kScalar, kNoSqrt, kSseSqrt, kSseNoSqrt };
void Decode(SoftArgMax& s, Variant v, const float* d, int C, int H, int W) {
    switch (v) {
        case kScalar: s.Decode_CHW_F32(d, C, H, W); break;
        case kNoSqrt: s.Decode_WithConfidenceNoSqrt_CHW_F32(d, C, H, W); break;
        case kSseSqrt: s.Decode_WithConfidence_CHW_F32_SSE(d, C, H, W); break;
        case kSseNoSqrt: s.Decode_WithConfidenceNoSqrt_CHW_F32_SSE(d, C, H, W); break;
    }
}

TEST(SoftArgMax, ScalarDecodersMatchReferenceBitForBit) {
    struct Shape { int W, H, C; float beta; };
    for (Shape sh : {Shape{64, 48, 17, 2.5f}, Shape{7, 5, 3, 1.0f}, Shape{2, 2, 1, 10.0f}}) {
        const auto d = qvntest::RandomFloats(sh.W * sh.H * sh.C, -4.0f, 4.0f, 3 + sh.W);
        SoftArgMax s(sh.W, sh.H, sh.C, sh.beta);
        s.Decode_CHW_F32(d.data(), sh.C, sh.H, sh.W);
        const Result want = RefDecode(d, sh.W, sh.H, sh.C, sh.beta);
        ExpectSameResult(s, want);
        ExpectSameBits(s.weight_sum, want.wsum, "weight_sum");
        ExpectSameBits(s.exp_buffer, want.exps, "exp_buffer");

        // The variance variant leaves weight_sum and exp_buffer alone.
        s.weight_sum[0] = -5.0f;
        s.exp_buffer[0] = -6.0f;
        s.Decode_WithConfidenceNoSqrt_CHW_F32(d.data(), sh.C, sh.H, sh.W);
        ExpectSameResult(s, RefNoSqrt(d, sh.W, sh.H, sh.C, sh.beta));
        EXPECT_EQ(s.weight_sum[0], -5.0f);
        EXPECT_EQ(s.exp_buffer[0], -6.0f);
    }
}

TEST(SoftArgMax, VectorDecodersMatchLaneReferenceBitForBit) {
    struct Shape { int W, H, C; };
    // Multiples of 4, plus W = 6 / 3 / 9: each row takes W / 4 groups of four
    // straight from the stream, so later rows read shifted (and W < 4
    // contributes nothing: x = y = 0/0).
    for (Shape sh : {Shape{64, 48, 17}, Shape{96, 72, 3}, Shape{8, 2, 2}, Shape{6, 5, 3},
                     Shape{9, 4, 2}, Shape{3, 4, 2}, Shape{4, 3, 1}}) {
        const auto d = qvntest::RandomFloats(sh.W * sh.H * sh.C, -3.0f, 3.0f, 17 + sh.W);
        SoftArgMax s(sh.W, sh.H, sh.C, 1.75f);
        s.weight_sum[0] = -5.0f;
        s.exp_buffer[0] = -6.0f;
        for (bool with_sqrt : {false, true}) {
            Decode(s, with_sqrt ? kSseSqrt : kSseNoSqrt, d.data(), sh.C, sh.H, sh.W);
            ExpectSameResult(s, RefVector(d, sh.W, sh.H, sh.C, 1.75f, with_sqrt));
        }
        EXPECT_EQ(s.weight_sum[0], -5.0f);
        EXPECT_EQ(s.exp_buffer[0], -6.0f);
        if (sh.W < 4) {
            EXPECT_TRUE(std::isnan(s.x_out[0]) && std::isnan(s.y_out[1]));
            EXPECT_EQ(s.confidence[0], 0.0f);
        }
    }
}

TEST(SoftArgMax, ExponentialBitPatternAndNoClamping) {
    // e^0 ~ 0.971: the pattern 0x3FEF1280'00000000 read as a double.
    // Below about -709 the pattern is garbage, above ~710.5 it overflows the
    // integer conversion (INT32_MIN: -0.0).
    const std::vector<float> d = {0.0f, 1.0f, -800.0f, 720.0f, -3000.0f, 5.0f};
    SoftArgMax s(3, 2, 1, 1.0f);
    s.Decode_CHW_F32(d.data(), 1, 2, 3);
    EXPECT_EQ(s.exp_buffer[0], 0.97100830078125f);
    EXPECT_NEAR(s.exp_buffer[1], std::exp(1.0f), 0.04f * std::exp(1.0f));
    EXPECT_TRUE(std::isinf(s.exp_buffer[2]) && s.exp_buffer[2] < 0);
    EXPECT_TRUE(s.exp_buffer[3] == 0.0f && std::signbit(s.exp_buffer[3]));
    EXPECT_TRUE(s.exp_buffer[4] == 0.0f && std::signbit(s.exp_buffer[4]));
    ExpectSameBits(s.exp_buffer, RefDecode(d, 3, 2, 1, 1.0f).exps, "exp_buffer");

    // The vector exponential rounds where the scalar one truncates: a sum of
    // -0.956 gives integer 0 (+0.0) in the scalar decoders but -1 (a NaN
    // pattern) in the vector ones.
    std::vector<float> p(16, 0.0f);
    p[5] = -0x1.628658p+9f;  // ~ -709.0496
    SoftArgMax v(4, 4, 1, 1.0f);
    v.Decode_WithConfidenceNoSqrt_CHW_F32(p.data(), 1, 4, 4);
    EXPECT_TRUE(std::isfinite(v.x_out[0]) && std::isfinite(v.confidence[0]));
    v.Decode_WithConfidenceNoSqrt_CHW_F32_SSE(p.data(), 1, 4, 4);
    EXPECT_TRUE(std::isnan(v.x_out[0]) && std::isnan(v.confidence[0]));
}

TEST(SoftArgMax, CloseToFloat64SoftArgMax) {
    // Smooth Gaussian heatmaps. The approximate exponential's relative error
    // lies in [-3.94%, +1.97%], so the weights are off by a factor within
    // [0.96, 1.02]: the mean moves by at most 0.062 * (mean distance) <= 0.062 *
    // std, and the variance by a factor within [0.94, 1.07].
    const int W = 64, H = 48, C = 17;
    const float beta = 3.0f;
    std::mt19937 rng(99);
    std::uniform_real_distribution<float> u(0.15f, 0.85f);
    std::vector<float> d(W * H * C);
    std::vector<double> ex(C), ey(C), ev(C);
    for (int c = 0; c < C; ++c) {
        const float cx = u(rng) * W, cy = u(rng) * H, sd = 1.5f + 4 * u(rng);
        double s = 0, sx = 0, sy = 0;
        float* p = d.data() + c * W * H;
        for (int i = 0; i < W * H; ++i) {
            const float dx = i % W - cx, dy = i / W - cy;
            p[i] = 4.0f * std::exp(-(dx * dx + dy * dy) / (2 * sd * sd));
            const double e = std::exp(static_cast<double>(p[i]) * beta);
            s += e;
            sx += e * (2.0 * (i % W) / (W - 1) - 1);
            sy += e * (2.0 * (i / W) / (H - 1) - 1);
        }
        ex[c] = sx / s;
        ey[c] = sy / s;
        double var = 0;
        for (int i = 0; i < W * H; ++i) {
            const double dx = 2.0 * (i % W) / (W - 1) - 1 - ex[c];
            const double dy = 2.0 * (i / W) / (H - 1) - 1 - ey[c];
            var += std::exp(static_cast<double>(p[i]) * beta) * (dx * dx + dy * dy);
        }
        ev[c] = var / s;
    }
    for (Variant v : {kScalar, kNoSqrt, kSseSqrt, kSseNoSqrt}) {
        SoftArgMax s(W, H, C, beta);
        Decode(s, v, d.data(), C, H, W);
        for (int c = 0; c < C; ++c) {
            const double tol = 0.0625 * std::sqrt(ev[c]) + 1e-5;
            EXPECT_NEAR(s.x_out[c], ex[c], tol) << v << " c=" << c;
            EXPECT_NEAR(s.y_out[c], ey[c], tol) << v << " c=" << c;
            if (v == kScalar) continue;
            const double var = v == kSseSqrt ? double(s.confidence[c]) * s.confidence[c]
                                             : s.confidence[c];
            EXPECT_NEAR(var / ev[c], 1.0, 0.07) << v << " c=" << c;
        }
    }
}

TEST(SoftArgMax, RejectedCallsLeavePreviousResults) {
    const int W = 8, H = 6, C = 2;
    const auto d = qvntest::RandomFloats(W * H * C, -2.0f, 2.0f, 5);
    const auto other = qvntest::RandomFloats(W * H * C, -2.0f, 2.0f, 6);
    for (Variant v : {kScalar, kNoSqrt, kSseSqrt, kSseNoSqrt}) {
        SoftArgMax s(W, H, C, 1.0f);
        Decode(s, v, d.data(), C, H, W);
        const std::vector<float> x(s.x_out, s.x_out + C), y(s.y_out, s.y_out + C),
            cf(s.confidence, s.confidence + C), ws(s.weight_sum, s.weight_sum + C);
        Decode(s, v, nullptr, C, H, W);
        Decode(s, v, other.data(), W, H, C);  // constructor order by mistake
        Decode(s, v, other.data(), C + 1, H, W);
        Decode(s, v, other.data(), C, H - 1, W);
        Decode(s, v, other.data(), C, H, W + 4);
        ExpectSameBits(s.x_out, x, "x");
        ExpectSameBits(s.y_out, y, "y");
        ExpectSameBits(s.confidence, cf, "conf");
        ExpectSameBits(s.weight_sum, ws, "weight_sum");
    }
}

TEST(SoftArgMax, ZeroHeightGivesNaNInVarianceDecoder) {
    SoftArgMax s(4, 0, 2, 1.0f);
    const float dummy = 0.0f;
    s.Decode_WithConfidenceNoSqrt_CHW_F32(&dummy, 2, 0, 4);
    for (int c = 0; c < 2; ++c) {
        EXPECT_TRUE(std::isnan(s.x_out[c]));
        EXPECT_TRUE(std::isnan(s.y_out[c]));
        EXPECT_TRUE(std::isnan(s.confidence[c]));
    }
}

}  // namespace
