// row_avx2_util.h - unaligned loads and stores and the lane join that every
// AVX2 row file uses; inline, so each row loop keeps them in registers.
#ifndef QVN_CORE_KERNELS_ROW_AVX2_UTIL_H
#define QVN_CORE_KERNELS_ROW_AVX2_UTIL_H

#include <immintrin.h>

#include <cstdint>

namespace quvas {
namespace kernels {
namespace avx2 {

inline __m256i Load256(const void* p) { return _mm256_loadu_si256(static_cast<const __m256i*>(p)); }
inline void Store256(void* p, __m256i v) { _mm256_storeu_si256(static_cast<__m256i*>(p), v); }
inline __m128i Load128(const void* p) { return _mm_loadu_si128(static_cast<const __m128i*>(p)); }
inline void Store128(void* p, __m128i v) { _mm_storeu_si128(static_cast<__m128i*>(p), v); }
inline void Prefetch(const uint8_t* p) { _mm_prefetch(reinterpret_cast<const char*>(p), _MM_HINT_T0); }
inline __m256i Join(__m128i lo, __m128i hi) {
    return _mm256_inserti128_si256(_mm256_castsi128_si256(lo), hi, 1);
}

}  // namespace avx2
}  // namespace kernels
}  // namespace quvas

#endif  // QVN_CORE_KERNELS_ROW_AVX2_UTIL_H
