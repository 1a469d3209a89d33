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

inline int32_t Mul32(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}

// Four-wide bit-pattern exponential of v (already multiplied by beta). Unlike
// the scalar version the sum is converted with rounding to nearest (the
// default MXCSR mode); each integer becomes the upper word of a double, which
// is then narrowed to f32.
inline __m128 FastExp4(__m128 v) {
    const __m128 s = _mm_fmadd_ps(v, _mm_set1_ps(detail::kExpScale), _mm_set1_ps(detail::kExpBias));
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
    std::unique_ptr<float[]> ebuf(new float[Mul32(H, W)]());
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
    PlaneSums next;
    for (int r = 0; r < H; ++r) {
        const __m128 y = _mm_set1_ps(row[r]);
        float* erow = ebuf.get() + r * W;
        for (int g = 0; g < groups; ++g, src += 4)
            ExpGroup(src, beta, col.get() + 4 * g, y, erow + 4 * g, next);
    }
    for (int c = 0; c < C; ++c) {
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
