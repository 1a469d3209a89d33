// Float maps to byte masks: whole 16-value vector blocks (round to nearest),
// then a scalar tail (truncation) that overwrites the last n mod 16 bytes.
#include <qvn_kit/qvn_kit.hpp>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace {

using quvas::kit::float01toUchar0255SSE;
using quvas::kit::sigmoid_float01toUchar0255SSE;
using Converter = void (*)(const float*, unsigned char*, int);

// The processor's float -> int32 conversion, written out: out of range and
// NaN give INT32_MIN; otherwise round to nearest even, or truncate.
int32_t ToInt(double v, bool round_nearest) {
    if (!(v > -2147483649.0 && v < 2147483648.0)) return INT32_MIN;
    const double r = round_nearest ? std::nearbyint(v) : std::trunc(v);
    return r >= 2147483648.0 ? INT32_MIN : static_cast<int32_t>(r);
}
uint8_t Clamp255(int32_t v) { return static_cast<uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v)); }

uint8_t ScaleVector(float x) { return Clamp255(ToInt(255.0f * x, true)); }
uint8_t ScaleTail(float x) { return Clamp255(ToInt(255.0f * x, false)); }

uint8_t SigmoidVector(float x) {
    const float t = std::fmaf(0.0f - x, 1512775.0f, 1072632448.0f);
    const uint64_t bits = static_cast<uint64_t>(static_cast<uint32_t>(ToInt(t, true))) << 32;
    double d;
    std::memcpy(&d, &bits, sizeof d);
    const float e = static_cast<float>(d);
    const float s = 1.0f / (e + 1.0f);
    return Clamp255(ToInt(s * 255.0f, true));
}
uint8_t SigmoidTail(float x) {
    const double s = 1.0 / (std::exp(static_cast<double>(-x)) + 1.0);
    return static_cast<uint8_t>(ToInt(s * 255.0, false) & 0xFF);
}

// Runs `fn` on n copies of `x`; returns {byte from the vector block, byte from
// the tail} using n = 16 and n = 1.
std::pair<int, int> BothPaths(Converter fn, float x) {
    std::vector<float> src(16, x);
    std::vector<uint8_t> dst(16, 0xA5);
    fn(src.data(), dst.data(), 16);
    const int vec = dst[0];
    std::fill(dst.begin(), dst.end(), 0xA5);
    fn(src.data(), dst.data(), 1);
    return {vec, dst[0]};
}

TEST(FloatToByte, StatedValuesOnBothPaths) {
    using P = std::pair<int, int>;
    EXPECT_EQ(BothPaths(float01toUchar0255SSE, 0.5f), P(128, 127));  // 127.5: even vs trunc
    EXPECT_EQ(BothPaths(float01toUchar0255SSE, -1.0f), P(0, 0));
    EXPECT_EQ(BothPaths(float01toUchar0255SSE, 2.0f), P(255, 255));
    EXPECT_EQ(BothPaths(float01toUchar0255SSE, 1.0f), P(255, 255));
    EXPECT_EQ(BothPaths(float01toUchar0255SSE, 0.0f), P(0, 0));
    // Far out of range: above 255 saturates, the conversion's INT32_MIN is 0.
    EXPECT_EQ(BothPaths(float01toUchar0255SSE, 200.0f), P(255, 255));
    EXPECT_EQ(BothPaths(float01toUchar0255SSE, 1e10f), P(0, 0));
    EXPECT_EQ(BothPaths(float01toUchar0255SSE, NAN), P(0, 0));

    EXPECT_EQ(BothPaths(sigmoid_float01toUchar0255SSE, 0.0f), P(129, 127));
    EXPECT_EQ(BothPaths(sigmoid_float01toUchar0255SSE, 1.0f), P(185, 186));
    EXPECT_EQ(BothPaths(sigmoid_float01toUchar0255SSE, 5.0f), P(253, 253));
    EXPECT_EQ(BothPaths(sigmoid_float01toUchar0255SSE, 50.0f), P(255, 255));
    EXPECT_EQ(BothPaths(sigmoid_float01toUchar0255SSE, -50.0f), P(0, 0));

    // A whole block of 0.5 and a 17th value in the tail.
    std::vector<float> src(32, 0.5f);
    std::vector<uint8_t> dst(32, 0);
    float01toUchar0255SSE(src.data(), dst.data(), 17);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(dst[i], 128) << i;
    EXPECT_EQ(dst[16], 127);
}

// Every n from 0 to 40 against the two rules, bit for bit. The source holds
// exactly n rounded up to 16 floats (ASan reports any read beyond); the
// destination has guard bytes after that size which must stay untouched.
void CheckAllLengths(Converter fn, uint8_t (*vec_rule)(float), uint8_t (*tail_rule)(float),
                     float lo, float hi) {
    std::mt19937 rng(1234);
    std::uniform_real_distribution<float> dist(lo, hi);
    const float specials[] = {0.5f, -0.0f, 1.0f, -3.0f, 1000.0f, -1000.0f, 1e9f, NAN};
    for (int n = 0; n <= 40; ++n) {
        const int padded = (n + 15) / 16 * 16;
        std::vector<float> src(padded);
        for (int i = 0; i < padded; ++i) src[i] = (i % 7 == 3) ? specials[i % 8] : dist(rng);
        constexpr int kGuard = 32;
        std::vector<uint8_t> dst(padded + kGuard, 0xA5);
        fn(src.data(), dst.data(), n);
        const int vec_end = n - n % 16;
        for (int i = 0; i < n; ++i) {
            const uint8_t want = i < vec_end ? vec_rule(src[i]) : tail_rule(src[i]);
            ASSERT_EQ(dst[i], want) << "n=" << n << " i=" << i << " x=" << src[i];
        }
        // The last block is processed whole: its bytes past n hold the vector
        // rule's results (callers must not rely on them, but they are written).
        for (int i = n; i < padded; ++i) ASSERT_EQ(dst[i], vec_rule(src[i])) << "n=" << n;
        for (int i = padded; i < padded + kGuard; ++i) ASSERT_EQ(dst[i], 0xA5) << "n=" << n;
    }
}

TEST(FloatToByte, EveryLengthMatchesScalarRules) {
    CheckAllLengths(float01toUchar0255SSE, ScaleVector, ScaleTail, -0.2f, 1.2f);
    CheckAllLengths(sigmoid_float01toUchar0255SSE, SigmoidVector, SigmoidTail, -8.0f, 8.0f);
}

TEST(FloatToByte, MatchesOpenCVConvertToInVectorBlocks) {
    // OpenCV rounds x * 255 to nearest even and saturates, like the vector rule.
    const int n = 256 * 64;
    cv::Mat src(1, n, CV_32F);
    cv::RNG rng(7);
    rng.fill(src, cv::RNG::UNIFORM, -0.5, 1.5);
    src.at<float>(0, 5) = 0.5f;
    std::vector<uint8_t> ours(n);
    float01toUchar0255SSE(src.ptr<float>(), ours.data(), n);
    cv::Mat peer;
    src.convertTo(peer, CV_8U, 255.0);
    EXPECT_EQ(0, std::memcmp(ours.data(), peer.ptr<uint8_t>(), n));
}

TEST(FloatToByte, SigmoidCloseToExactLogistic) {
    // The bit-pattern exponential is off by -3.9%..+2.0% (relative). Since
    // d(sigma)/d(ln e) = sigma (1 - sigma) <= 1/4, the byte moves by at most
    // 255 * 0.25 * 0.04 = 2.6 plus rounding: within 3 of round(255 sigma(x)).
    const int n = 4096;
    std::vector<float> src(n);
    for (int i = 0; i < n; ++i) src[i] = -12.0f + 24.0f * i / n;
    std::vector<uint8_t> dst(n);
    sigmoid_float01toUchar0255SSE(src.data(), dst.data(), n);
    for (int i = 0; i < n; ++i) {
        const double exact = 255.0 / (1.0 + std::exp(-static_cast<double>(src[i])));
        ASSERT_NEAR(dst[i], std::nearbyint(exact), 3.0) << src[i];
    }
}

}  // namespace
