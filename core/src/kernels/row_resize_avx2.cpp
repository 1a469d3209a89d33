// row_resize_avx2.cpp - the AVX2 rows of the bilinear resize: the column
// passes (one tap pair per column, or the windowed pass planned by
// PlanColsWindow) and the blend of two column-passed rows. Each writes
// exactly the bytes of its C twin in row_common.cpp, which also finishes its
// tail.
#include <immintrin.h>

#include <cstring>

#include "row.h"
#include "row_avx2_util.h"

namespace quvas {
namespace kernels {

using namespace avx2;

// ---------------------------------------------------------------------------
// Bilinear resize
// ---------------------------------------------------------------------------

// One channel: the two taps of each column are one 16-bit load; four of them
// make a 64-bit word, two words a vector of 8 columns, widened and blended.
// (vpgatherdd, or a round trip through memory, is slower on the machines we
// target.) A one-pixel-wide row has no second tap to load.
void ScaleColsBilinear1_AVX2(const uint8_t* src, int sw, const int32_t* index,
                             const int32_t* pair, int width, int32_t* out) {
    auto taps = [&](int d) {
        uint16_t v;
        std::memcpy(&v, src + index[d], 2);
        return static_cast<uint64_t>(v);
    };
    int d = 0;
    if (sw >= 2) {
        for (; d + 8 <= width; d += 8) {
            const uint64_t lo = taps(d) | taps(d + 1) << 16 | taps(d + 2) << 32 | taps(d + 3) << 48;
            const uint64_t hi = taps(d + 4) | taps(d + 5) << 16 | taps(d + 6) << 32 | taps(d + 7) << 48;
            const __m256i px = _mm256_cvtepu8_epi16(
                _mm_set_epi64x(static_cast<long long>(hi), static_cast<long long>(lo)));
            Store256(out + d, _mm256_madd_epi16(px, Load256(pair + d)));
        }
    }
    if (d < width) ScaleColsBilinear1_C(src, sw, index + d, pair + d, width - d, out + d);
}

// Both rows of a pair at once, sharing the column indices: when downsizing
// neither row is cached, and two independent load streams keep more loads
// in flight.
void ScaleColsBilinear1x2_AVX2(const uint8_t* s0, const uint8_t* s1, int sw, const int32_t* index,
                               const int32_t* pair, int width, int32_t* out0, int32_t* out1) {
    int d = 0;
    if (sw >= 2) {
        for (; d + 8 <= width; d += 8) {
            uint64_t a[2] = {0, 0}, b[2] = {0, 0};
            for (int k = 0; k < 8; ++k) {
                uint16_t p, q;
                std::memcpy(&p, s0 + index[d + k], 2);
                std::memcpy(&q, s1 + index[d + k], 2);
                a[k >> 2] |= static_cast<uint64_t>(p) << (16 * (k & 3));
                b[k >> 2] |= static_cast<uint64_t>(q) << (16 * (k & 3));
            }
            const __m256i wt = Load256(pair + d);
            const __m256i pa = _mm256_cvtepu8_epi16(
                _mm_set_epi64x(static_cast<long long>(a[1]), static_cast<long long>(a[0])));
            const __m256i pb = _mm256_cvtepu8_epi16(
                _mm_set_epi64x(static_cast<long long>(b[1]), static_cast<long long>(b[0])));
            Store256(out0 + d, _mm256_madd_epi16(pa, wt));
            Store256(out1 + d, _mm256_madd_epi16(pb, wt));
        }
    }
    if (d < width) {
        ScaleColsBilinear1_C(s0, sw, index + d, pair + d, width - d, out0 + d);
        ScaleColsBilinear1_C(s1, sw, index + d, pair + d, width - d, out1 + d);
    }
}

// Two channels, 4 columns a step: per column (c0 s, c1 s, c0 s+1, c1 s+1)
// becomes (c0 s, c0 s+1, c1 s, c1 s+1), and each column's weight pair is
// repeated for its two channels.
void ScaleColsBilinear2_AVX2(const uint8_t* src, int sw, const int32_t* index,
                             const int32_t* pair, int width, int32_t* out) {
    const __m256i order = _mm256_setr_epi8(0, 1, 4, 5, 2, 3, 6, 7, 8, 9, 12, 13, 10, 11, 14, 15,
                                           0, 1, 4, 5, 2, 3, 6, 7, 8, 9, 12, 13, 10, 11, 14, 15);
    const __m256i twice = _mm256_setr_epi32(0, 0, 1, 1, 2, 2, 3, 3);
    auto taps = [&](int d) {
        uint32_t v;
        std::memcpy(&v, src + 2 * static_cast<size_t>(index[d]), 4);
        return static_cast<int>(v);
    };
    int d = 0;
    if (sw >= 2) {
        for (; d + 4 <= width; d += 4) {
            __m128i v = _mm_cvtsi32_si128(taps(d));
            v = _mm_insert_epi32(v, taps(d + 1), 1);
            v = _mm_insert_epi32(v, taps(d + 2), 2);
            v = _mm_insert_epi32(v, taps(d + 3), 3);
            const __m256i px = _mm256_shuffle_epi8(_mm256_cvtepu8_epi16(v), order);
            const __m256i wt = _mm256_permutevar8x32_epi32(_mm256_castsi128_si256(Load128(pair + d)), twice);
            Store256(out + 2 * d, _mm256_madd_epi16(px, wt));
        }
    }
    if (d < width) ScaleColsBilinear2_C(src, sw, index + d, pair + d, width - d, out + 2 * d);
}

// Three channels, 2 columns a step: each column's four int32 results overlap
// the next column's first, which a later step or the twin writes again, so
// a step runs only while a column follows it. Its 8-byte loads reach 2 bytes
// past the right tap: columns whose load would leave the row go to the twin.
void ScaleColsBilinear3_AVX2(const uint8_t* src, int sw, const int32_t* index,
                             const int32_t* pair, int width, int32_t* out) {
    const __m256i spread = _mm256_setr_epi8(0, -1, 3, -1, 1, -1, 4, -1, 2, -1, 5, -1, -1, -1, -1, -1,
                                            0, -1, 3, -1, 1, -1, 4, -1, 2, -1, 5, -1, -1, -1, -1, -1);
    int safe = sw >= 2 ? width : 0;
    while (safe > 0 && 3 * static_cast<int64_t>(index[safe - 1]) + 8 > 3 * static_cast<int64_t>(sw)) --safe;
    if (safe == width) --safe;  // keep a column after the last step
    int d = 0;
    for (; d + 2 <= safe; d += 2) {
        const __m128i lo = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(src + 3 * static_cast<size_t>(index[d])));
        const __m128i hi = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(src + 3 * static_cast<size_t>(index[d + 1])));
        const __m256i px = _mm256_shuffle_epi8(Join(lo, hi), spread);
        const __m256i wt = Join(_mm_set1_epi32(pair[d]), _mm_set1_epi32(pair[d + 1]));
        const __m256i r = _mm256_madd_epi16(px, wt);
        Store128(out + 3 * d, _mm256_castsi256_si128(r));
        Store128(out + 3 * d + 3, _mm256_extracti128_si256(r, 1));
    }
    if (d < width) ScaleColsBilinear3_C(src, sw, index + d, pair + d, width - d, out + 3 * d);
}

// Four channels, 2 columns a step: per column (B G R A at s, B G R A at s+1)
// as 16-bit (B B G G R R A A) against its repeated weight pair.
void ScaleColsBilinear4_AVX2(const uint8_t* src, int sw, const int32_t* index,
                             const int32_t* pair, int width, int32_t* out) {
    const __m256i spread = _mm256_setr_epi8(0, -1, 4, -1, 1, -1, 5, -1, 2, -1, 6, -1, 3, -1, 7, -1,
                                            0, -1, 4, -1, 1, -1, 5, -1, 2, -1, 6, -1, 3, -1, 7, -1);
    int d = 0;
    if (sw >= 2) {
        for (; d + 2 <= width; d += 2) {
            const __m128i lo = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(src + 4 * static_cast<size_t>(index[d])));
            const __m128i hi = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(src + 4 * static_cast<size_t>(index[d + 1])));
            const __m256i px = _mm256_shuffle_epi8(Join(lo, hi), spread);
            const __m256i wt = Join(_mm_set1_epi32(pair[d]), _mm_set1_epi32(pair[d + 1]));
            Store256(out + 4 * d, _mm256_madd_epi16(px, wt));
        }
    }
    if (d < width) ScaleColsBilinear4_C(src, sw, index + d, pair + d, width - d, out + 4 * d);
}

// Both rows of a pair at once, as for one channel: the column offsets and
// weights are loaded once for the two rows.
void ScaleColsBilinear4x2_AVX2(const uint8_t* s0, const uint8_t* s1, int sw, const int32_t* index,
                               const int32_t* pair, int width, int32_t* out0, int32_t* out1) {
    const __m256i spread = _mm256_setr_epi8(0, -1, 4, -1, 1, -1, 5, -1, 2, -1, 6, -1, 3, -1, 7, -1,
                                            0, -1, 4, -1, 1, -1, 5, -1, 2, -1, 6, -1, 3, -1, 7, -1);
    auto taps = [](const uint8_t* s, size_t at) {
        return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(s + at));
    };
    int d = 0;
    if (sw >= 2) {
        for (; d + 2 <= width; d += 2) {
            const size_t a = 4 * static_cast<size_t>(index[d]);
            const size_t b = 4 * static_cast<size_t>(index[d + 1]);
            const __m256i wt = _mm256_permutevar8x32_epi32(
                _mm256_castsi128_si256(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(pair + d))),
                _mm256_setr_epi32(0, 0, 0, 0, 1, 1, 1, 1));
            const __m256i p0 = _mm256_shuffle_epi8(Join(taps(s0, a), taps(s0, b)), spread);
            const __m256i p1 = _mm256_shuffle_epi8(Join(taps(s1, a), taps(s1, b)), spread);
            Store256(out0 + 4 * d, _mm256_madd_epi16(p0, wt));
            Store256(out1 + 4 * d, _mm256_madd_epi16(p1, wt));
        }
    }
    if (d < width) {
        ScaleColsBilinear4_C(s0, sw, index + d, pair + d, width - d, out0 + 4 * d);
        ScaleColsBilinear4_C(s1, sw, index + d, pair + d, width - d, out1 + 4 * d);
    }
}

void ScaleColsWindow_AVX2(const uint8_t* src, const ColsWindow& plan, int32_t* out) {
    const int blocks = static_cast<int>(plan.at.size() / 2);
    const int32_t* at = plan.at.data();
    const uint8_t* mask = plan.mask.data();
    const int32_t* weight = plan.weight.data();
    for (int b = 0; b < blocks; ++b) {
        const __m256i px = _mm256_shuffle_epi8(Join(Load128(src + at[2 * b]), Load128(src + at[2 * b + 1])),
                                               Load256(mask + 32 * b));
        Store256(out + 8 * b, _mm256_madd_epi16(px, Load256(weight + 8 * b)));
    }
}

void ScaleColsWindowx2_AVX2(const uint8_t* s0, const uint8_t* s1, const ColsWindow& plan,
                            int32_t* out0, int32_t* out1) {
    const int blocks = static_cast<int>(plan.at.size() / 2);
    const int32_t* at = plan.at.data();
    const uint8_t* mask = plan.mask.data();
    const int32_t* weight = plan.weight.data();
    for (int b = 0; b < blocks; ++b) {
        const __m256i m = Load256(mask + 32 * b);
        const __m256i w = Load256(weight + 8 * b);
        const int32_t lo = at[2 * b], hi = at[2 * b + 1];
        const __m256i p0 = _mm256_shuffle_epi8(Join(Load128(s0 + lo), Load128(s0 + hi)), m);
        const __m256i p1 = _mm256_shuffle_epi8(Join(Load128(s1 + lo), Load128(s1 + hi)), m);
        Store256(out0 + 8 * b, _mm256_madd_epi16(p0, w));
        Store256(out1 + 8 * b, _mm256_madd_epi16(p1, w));
    }
}

// 32 values a step: two 32-bit products, rounding and shift, then packs with
// saturation (values never exceed 255) and one lane fix-up.
void BlendRowsBilinear_AVX2(const int32_t* r0, const int32_t* r1, int a, int n, uint8_t* out) {
    const __m256i vb = _mm256_set1_epi32(2048 - a);
    const __m256i va = _mm256_set1_epi32(a);
    const __m256i half = _mm256_set1_epi32(1 << 21);
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    auto blend = [&](int at) {
        const __m256i x = _mm256_add_epi32(_mm256_mullo_epi32(Load256(r0 + at), vb),
                                           _mm256_mullo_epi32(Load256(r1 + at), va));
        return _mm256_srai_epi32(_mm256_add_epi32(x, half), 22);
    };
    int i = 0;
    for (; i + 32 <= n; i += 32) {
        const __m256i p01 = _mm256_packs_epi32(blend(i), blend(i + 8));
        const __m256i p23 = _mm256_packs_epi32(blend(i + 16), blend(i + 24));
        Store256(out + i, _mm256_permutevar8x32_epi32(_mm256_packus_epi16(p01, p23), order));
    }
    if (i < n) BlendRowsBilinear_C(r0 + i, r1 + i, a, n - i, out + i);
}

}  // namespace kernels
}  // namespace quvas
