// float_to_byte.cpp - network output maps to byte masks: the scaling and
// the sigmoid converters behind float01toUchar0255SSE and
// sigmoid_float01toUchar0255SSE of qv_cv_utils_sse.cpp.
//
// Both converters run whole 16-value blocks while the block start is below n,
// so they read and write up to 15 elements past n (callers size both buffers
// for n rounded up to 16). The last n mod 16 elements are then recomputed by
// a scalar rule that converts differently (truncation instead of rounding);
// those bytes are the results callers have always received.
#include "float_to_byte.h"

#include <immintrin.h>

#include <cmath>

#include "../kit/qv_internal.h"

namespace quvas {
namespace kit {
namespace internal {

namespace {

// 32-bit lanes to bytes with unsigned saturation: 32 -> 16 bits, then 16 -> 8
// bits. packus_epi16 takes signed words, so words above 0x7FFF are first
// capped at 255; every integer above 255 then becomes 255, every negative one
// (including the INT32_MIN of an out-of-range conversion) 0.
inline __m128i PackToBytes(__m128i a, __m128i b, __m128i c, __m128i d) {
    const __m128i cap = _mm_set1_epi16(255);
    const __m128i ab = _mm_min_epu16(_mm_packus_epi32(a, b), cap);
    const __m128i cd = _mm_min_epu16(_mm_packus_epi32(c, d), cap);
    return _mm_packus_epi16(ab, cd);
}

inline __m128i Scale255(__m128 x) {
    return _mm_cvtps_epi32(_mm_mul_ps(x, _mm_set1_ps(255.0f)));
}

// 255 / (1 + e^-x) with the bit-pattern exponential: (0 - x) * 2^20/ln2 plus
// the exponent bias, rounded to an integer, is the upper word of a double.
inline __m128i Sigmoid255(__m128 x) {
    const __m128 t = _mm_fmadd_ps(_mm_sub_ps(_mm_setzero_ps(), x), _mm_set1_ps(kExpScale),
                                  _mm_set1_ps(kExpBias));
    const __m128i k = _mm_cvtps_epi32(t);
    const __m128i zero = _mm_setzero_si128();
    const __m128 e = _mm_movelh_ps(_mm_cvtpd_ps(_mm_castsi128_pd(_mm_unpacklo_epi32(zero, k))),
                                   _mm_cvtpd_ps(_mm_castsi128_pd(_mm_unpackhi_epi32(zero, k))));
    const __m128 one = _mm_set1_ps(1.0f);
    const __m128 s = _mm_div_ps(one, _mm_add_ps(e, one));
    return _mm_cvtps_epi32(_mm_mul_ps(s, _mm_set1_ps(255.0f)));
}

// Both converters: whole blocks of sixteen by the vector rule while the
// block starts below n, then the last n mod 16 bytes again by the scalar
// rule. The rules are template arguments, so each loop is compiled with its
// own rule inlined.
template <__m128i (*kVector)(__m128), unsigned char (*kScalar)(float)>
inline void ConvertBlocks(const float* src, unsigned char* dst, int n) {
    for (int i = 0; i < n; i += 16) {
        const __m128i a = kVector(_mm_loadu_ps(src + i));
        const __m128i b = kVector(_mm_loadu_ps(src + i + 4));
        const __m128i c = kVector(_mm_loadu_ps(src + i + 8));
        const __m128i d = kVector(_mm_loadu_ps(src + i + 12));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i), PackToBytes(a, b, c, d));
    }
    const int rest = n % 16;
    for (int i = n - rest; i < n; ++i) dst[i] = kScalar(src[i]);
}

inline unsigned char ScaleTail(float x) {
    // Truncation toward zero; cvttss2si gives INT32_MIN when out of range.
    const int v = _mm_cvttss_si32(_mm_set_ss(255.0f * x));
    return static_cast<unsigned char>(v < 0 ? 0 : (v > 255 ? 255 : v));
}

inline unsigned char SigmoidTail(float x) {
    const double e = std::exp(static_cast<double>(-x));
    const double v = 1.0 / (e + 1.0) * 255.0;
    // v lies in 0..255 (NaN input gives INT32_MIN); the low byte is kept.
    return static_cast<unsigned char>(_mm_cvttsd_si32(_mm_set_sd(v)));
}

}  // namespace

void FloatToBytes(const float* src, unsigned char* dst, int n) {
    ConvertBlocks<Scale255, ScaleTail>(src, dst, n);
}

void SigmoidToBytes(const float* src, unsigned char* dst, int n) {
    ConvertBlocks<Sigmoid255, SigmoidTail>(src, dst, n);
}

}  // namespace internal
}  // namespace kit
}  // namespace quvas
