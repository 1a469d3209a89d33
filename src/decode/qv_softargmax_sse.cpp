// qv_softargmax_sse.cpp - the four-wide SoftArgMax decoders.
//
// The input is consumed as one continuous stream, four values per group and
// floor(W / 4) groups per row, with no remainder step: rows must be a multiple
// of four long. For any other width the tail columns are skipped and every
// later row is read from a shifted position; callers depend on exactly this
// stream layout, so it is kept as is.
#include <qvn_kit/qvn_kit.hpp>

#include "qv_softargmax_impl.h"

#include <immintrin.h>

#include <cmath>
#include <cstdint>
#include <memory>

namespace quvas {
namespace kit {

namespace {

// Shapes are trusted; products wrap like the 32-bit arithmetic they stand for.
using internal::WrapMul;

// Four-wide bit-pattern exponential of v (already multiplied by beta). Unlike
// the scalar version the sum is converted with rounding to nearest (the
// default MXCSR mode); each integer becomes the upper word of a double, which
// is then narrowed to f32.
inline __m128 FastExp4(__m128 v) {
    const __m128 s = _mm_fmadd_ps(v, _mm_set1_ps(internal::kExpScale), _mm_set1_ps(internal::kExpBias));
    const __m128i k = _mm_cvtps_epi32(s);
    const __m128i zero = _mm_setzero_si128();
    const __m128d lo = _mm_castsi128_pd(_mm_unpacklo_epi32(zero, k));  // lanes 0, 1
    const __m128d hi = _mm_castsi128_pd(_mm_unpackhi_epi32(zero, k));  // lanes 2, 3
    return _mm_movelh_ps(_mm_cvtpd_ps(lo), _mm_cvtpd_ps(hi));
}

// Lane sums in the two fixed orders the results are defined by.
inline float ReduceForward(__m128 v) {  // ((l0 + l1) + l2) + l3
    alignas(16) float l[4];
    _mm_store_ps(l, v);
    return ((l[0] + l[1]) + l[2]) + l[3];
}

inline float ReduceHighFirst(__m128 v) {  // ((l2 + l3) + l1) + l0
    alignas(16) float l[4];
    _mm_store_ps(l, v);
    return ((l[2] + l[3]) + l[1]) + l[0];
}

struct PlaneSums {
    __m128 e = _mm_setzero_ps();  // lane sums of exponentials
    __m128 x = _mm_setzero_ps();  // lane sums of e * column x
    __m128 y = _mm_setzero_ps();  // lane sums of e * row y
};

// One group of four: exponentials of the next four stream values, kept for
// the spread pass and accumulated into the plane's lane sums.
inline void ExpGroup(const float* src, __m128 beta, const float* col, __m128 y, float* e_out,
                     PlaneSums& s) {
    const __m128 e = FastExp4(_mm_mul_ps(_mm_loadu_ps(src), beta));
    _mm_storeu_ps(e_out, e);
    s.e = _mm_add_ps(s.e, e);
    s.x = _mm_fmadd_ps(e, _mm_loadu_ps(col), s.x);
    s.y = _mm_fmadd_ps(e, y, s.y);
}

// Spread pass of one plane over the exponential buffer. When kNext is set the
// same loop also runs the exponential pass of the following plane, which
// overwrites each group of the buffer right after it has been read: the two
// dependency chains overlap, and every value is computed in the same order as
// in two separate passes.
template <bool kNext>
__m128 SpreadPass(int H, int groups, int W, const float* row, const float* col, float* ebuf,
                  float my, float mx, float sum, __m128 beta, const float*& stream,
                  PlaneSums& next_out) {
    // Locals, so that the accumulators stay in registers.
    const float* src = stream;
    PlaneSums next = next_out;
    const __m128 vsum = _mm_set1_ps(sum);
    const __m128 vmx = _mm_set1_ps(mx);
    __m128 acc = _mm_setzero_ps();
    for (int r = 0; r < H; ++r) {
        const float dy = row[r] - my;
        const __m128 dy2 = _mm_set1_ps(dy * dy);
        const __m128 y = _mm_set1_ps(row[r]);
        float* erow = ebuf + r * W;
        for (int g = 0; g < groups; ++g) {
            const __m128 dx = _mm_sub_ps(_mm_loadu_ps(col + 4 * g), vmx);
            const __m128 t = _mm_fmadd_ps(dx, dx, dy2);
            // Each weight is divided by the plane's sum before accumulation.
            const __m128 w = _mm_div_ps(_mm_loadu_ps(erow + 4 * g), vsum);
            acc = _mm_add_ps(acc, _mm_mul_ps(w, t));
            if (kNext) {
                ExpGroup(src, beta, col + 4 * g, y, erow + 4 * g, next);
                src += 4;
            }
        }
    }
    stream = src;
    next_out = next;
    return acc;
}

// ---- two planes at once ------------------------------------------------------
//
// Every plane's lane sums are chains of dependent adds and fused
// multiply-adds, one step per group; a single plane's chain leaves most of
// the processor idle. Two planes side by side in the halves of 256-bit
// vectors (plane c low, c + 1 high) run two chains in the time of one, and
// each lane still sums its own plane's values in the same order, so every
// result is bit for bit that of one plane at a time.

// Eight-wide exponential: FastExp4 on each half.
inline __m256 FastExp8(__m256 v) {
    const __m256 s = _mm256_fmadd_ps(v, _mm256_set1_ps(internal::kExpScale), _mm256_set1_ps(internal::kExpBias));
    const __m256i k = _mm256_cvtps_epi32(s);
    const __m256i zero = _mm256_setzero_si256();
    // (k0 k1 | k4 k5) and (k2 k3 | k6 k7) as doubles, narrowed to f32.
    const __m128 a = _mm256_cvtpd_ps(_mm256_castsi256_pd(_mm256_unpacklo_epi32(zero, k)));
    const __m128 b = _mm256_cvtpd_ps(_mm256_castsi256_pd(_mm256_unpackhi_epi32(zero, k)));
    return _mm256_set_m128(_mm_movehl_ps(b, a), _mm_movelh_ps(a, b));
}

struct PairSums {
    __m256 e = _mm256_setzero_ps();
    __m256 x = _mm256_setzero_ps();
    __m256 y = _mm256_setzero_ps();
};

// One group of each of two planes: lo from plane c's stream, hi from c + 1's.
inline void ExpGroupPair(const float* lo, const float* hi, __m256 beta, const float* col, __m256 y,
                         float* e_out, PairSums& s) {
    const __m256 e = FastExp8(_mm256_mul_ps(_mm256_loadu2_m128(hi, lo), beta));
    _mm256_storeu_ps(e_out, e);
    s.e = _mm256_add_ps(s.e, e);
    s.x = _mm256_fmadd_ps(e, _mm256_broadcast_ps(reinterpret_cast<const __m128*>(col)), s.x);
    s.y = _mm256_fmadd_ps(e, y, s.y);
}

// The spread pass of two planes over their exponentials (eight floats a
// group in `ebuf`), optionally running the exponential pass of the next two
// planes in the same loop, as SpreadPass does for one.
template <bool kNext>
__m256 SpreadPassPair(int H, int groups, const float* row, const float* col, float* ebuf, const float my[2],
                      const float mx[2], const float sum[2], __m256 beta, const float* next_lo,
                      const float* next_hi, PairSums& next_out) {
    PairSums next = next_out;
    const __m256 vsum = _mm256_setr_m128(_mm_set1_ps(sum[0]), _mm_set1_ps(sum[1]));
    const __m256 vmx = _mm256_setr_m128(_mm_set1_ps(mx[0]), _mm_set1_ps(mx[1]));
    __m256 acc = _mm256_setzero_ps();
    for (int r = 0; r < H; ++r) {
        const float dy0 = row[r] - my[0], dy1 = row[r] - my[1];
        const __m256 dy2 = _mm256_setr_m128(_mm_set1_ps(dy0 * dy0), _mm_set1_ps(dy1 * dy1));
        const __m256 y = _mm256_set1_ps(row[r]);
        float* erow = ebuf + static_cast<ptrdiff_t>(r) * groups * 8;
        for (int g = 0; g < groups; ++g) {
            const __m256 dx = _mm256_sub_ps(_mm256_broadcast_ps(reinterpret_cast<const __m128*>(col + 4 * g)), vmx);
            const __m256 t = _mm256_fmadd_ps(dx, dx, dy2);
            const __m256 w = _mm256_div_ps(_mm256_loadu_ps(erow + 8 * g), vsum);
            acc = _mm256_add_ps(acc, _mm256_mul_ps(w, t));
            if (kNext) {
                ExpGroupPair(next_lo, next_hi, beta, col + 4 * g, y, erow + 8 * g, next);
                next_lo += 4;
                next_hi += 4;
            }
        }
    }
    next_out = next;
    return acc;
}

// Shared body of the two vector variants: x_out, y_out and the weighted
// variance (or its square root) in confidence.
template <bool kSqrt>
void DecodeWithConfidence4(const SoftArgMax& sam, const float* data) {
    const int W = sam.width;
    const int H = sam.height;
    const int C = sam.channels;
    const int groups = W / 4;

    // Per-call coordinate lines and exponential buffer (the object's tables
    // are deliberately not used here).
    std::unique_ptr<float[]> col(new float[W]);
    std::unique_ptr<float[]> row(new float[H]);
    std::unique_ptr<float[]> ebuf(new float[WrapMul(H, W)]());
    for (int k = 0; k < W; ++k) col[k] = detail::NormalisedCoord(k, W);
    for (int r = 0; r < H; ++r) row[r] = detail::NormalisedCoord(r, H);
    for (int c = 0; c < C; ++c) {
        sam.x_out[c] = 0.0f;
        sam.y_out[c] = 0.0f;
        sam.confidence[c] = 0.0f;
    }
    if (C <= 0) return;

    const __m128 beta = _mm_set1_ps(sam.beta);
    const float* src = data;  // continuous stream over all rows and planes

    // Planes two at a time, the last one of an odd count alone below.
    const int pairs = C / 2;
    if (pairs > 0 && groups > 0) {
        const ptrdiff_t plane = static_cast<ptrdiff_t>(H) * groups * 4;  // stream values a plane
        std::unique_ptr<float[]> ebuf2(new float[static_cast<size_t>(plane) * 2]);
        const __m256 beta8 = _mm256_set1_ps(sam.beta);
        PairSums next;
        {
            const float* lo = src;
            const float* hi = src + plane;
            for (int r = 0; r < H; ++r) {
                const __m256 y = _mm256_set1_ps(row[r]);
                float* erow = ebuf2.get() + static_cast<ptrdiff_t>(r) * groups * 8;
                for (int g = 0; g < groups; ++g, lo += 4, hi += 4)
                    ExpGroupPair(lo, hi, beta8, col.get() + 4 * g, y, erow + 8 * g, next);
            }
        }
        for (int p = 0; p < pairs; ++p) {
            const PairSums cur = next;
            next = PairSums();
            float sum[2], mx[2], my[2];
            for (int h = 0; h < 2; ++h) {
                auto half = [h](__m256 v) { return h ? _mm256_extractf128_ps(v, 1) : _mm256_castps256_ps128(v); };
                sum[h] = ReduceForward(half(cur.e));
                mx[h] = ReduceForward(half(cur.x)) / sum[h];
                my[h] = ReduceForward(half(cur.y)) / sum[h];
                sam.x_out[2 * p + h] = mx[h];
                sam.y_out[2 * p + h] = my[h];
            }
            const float* next_lo = src + 2 * plane * (p + 1);
            const __m256 acc = p + 1 < pairs
                                   ? SpreadPassPair<true>(H, groups, row.get(), col.get(), ebuf2.get(), my, mx, sum,
                                                          beta8, next_lo, next_lo + plane, next)
                                   : SpreadPassPair<false>(H, groups, row.get(), col.get(), ebuf2.get(), my, mx,
                                                           sum, beta8, next_lo, next_lo + plane, next);
            for (int h = 0; h < 2; ++h) {
                const float var = ReduceHighFirst(h ? _mm256_extractf128_ps(acc, 1) : _mm256_castps256_ps128(acc));
                sam.confidence[2 * p + h] = kSqrt ? std::sqrt(var) : var;
            }
        }
        src += 2 * plane * pairs;
    }
    const int first_single = groups > 0 ? 2 * pairs : 0;
    if (first_single >= C) return;

    PlaneSums next;
    for (int r = 0; r < H; ++r) {
        const __m128 y = _mm_set1_ps(row[r]);
        float* erow = ebuf.get() + r * W;
        for (int g = 0; g < groups; ++g, src += 4)
            ExpGroup(src, beta, col.get() + 4 * g, y, erow + 4 * g, next);
    }
    for (int c = first_single; c < C; ++c) {
        const PlaneSums cur = next;
        next = PlaneSums();
        const float sum = ReduceForward(cur.e);
        const float mx = ReduceForward(cur.x) / sum;
        const float my = ReduceForward(cur.y) / sum;
        sam.x_out[c] = mx;
        sam.y_out[c] = my;
        const __m128 acc =
            c + 1 < C
                ? SpreadPass<true>(H, groups, W, row.get(), col.get(), ebuf.get(), my, mx, sum,
                                   beta, src, next)
                : SpreadPass<false>(H, groups, W, row.get(), col.get(), ebuf.get(), my, mx, sum,
                                    beta, src, next);
        const float var = ReduceHighFirst(acc);
        sam.confidence[c] = kSqrt ? std::sqrt(var) : var;
    }
}

}  // namespace

void SoftArgMax::Decode_WithConfidence_CHW_F32_SSE(const float* data, const int& channels_,
                                                   const int& height_, const int& width_) {
    if (data == nullptr || channels_ != channels || height_ != height || width_ != width) return;
    DecodeWithConfidence4<true>(*this, data);
}

void SoftArgMax::Decode_WithConfidenceNoSqrt_CHW_F32_SSE(const float* data,
                                                         const int& channels_,
                                                         const int& height_,
                                                         const int& width_) {
    if (data == nullptr || channels_ != channels || height_ != height || width_ != width) return;
    DecodeWithConfidence4<false>(*this, data);
}

}  // namespace kit
}  // namespace quvas
