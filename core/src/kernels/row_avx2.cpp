// row_avx2.cpp - the AVX2 row kernels of the turns, mirrors, splits, merges
// and colour conversions (the resize rows are in row_resize_avx2.cpp). Each
// writes exactly the bytes of its C twin in row_common.cpp, which also
// finishes its tail: the vector loops below stop where a whole vector step
// would no longer fit.
#include <immintrin.h>

#include <cstring>

#include "row.h"
#include "row_avx2_util.h"

namespace quvas {
namespace kernels {

using namespace avx2;

namespace {

// ---------------------------------------------------------------------------
// Transposes
// ---------------------------------------------------------------------------

// Transposes two 16 x 16 byte blocks at once, one in each 128-bit half of
// r[0..15] (all unpacks stay within a half). Four rounds of interleaving
// (bytes, then pairs, quads and eights) move byte j of row i to byte i of
// row j.
inline void Transpose16x16BytesX2(__m256i r[16]) {
    __m256i a[16];
    __m256i b[16];
    // a[8g + k]: columns 8g..8g+7 of rows 2k, 2k+1.
    for (int k = 0; k < 8; ++k) {
        a[k] = _mm256_unpacklo_epi8(r[2 * k], r[2 * k + 1]);
        a[8 + k] = _mm256_unpackhi_epi8(r[2 * k], r[2 * k + 1]);
    }
    // b[4c + m]: columns 4c..4c+3 of rows 4m..4m+3.
    for (int g = 0; g < 2; ++g) {
        for (int m = 0; m < 4; ++m) {
            b[8 * g + m] = _mm256_unpacklo_epi16(a[8 * g + 2 * m], a[8 * g + 2 * m + 1]);
            b[8 * g + 4 + m] = _mm256_unpackhi_epi16(a[8 * g + 2 * m], a[8 * g + 2 * m + 1]);
        }
    }
    // a[4c + 2p + q]: columns 4c + 2q, 4c + 2q + 1 of rows 8p..8p+7.
    for (int c = 0; c < 4; ++c) {
        for (int p = 0; p < 2; ++p) {
            a[4 * c + 2 * p] = _mm256_unpacklo_epi32(b[4 * c + 2 * p], b[4 * c + 2 * p + 1]);
            a[4 * c + 2 * p + 1] = _mm256_unpackhi_epi32(b[4 * c + 2 * p], b[4 * c + 2 * p + 1]);
        }
    }
    // r[j]: column j of all 16 rows.
    for (int c = 0; c < 4; ++c) {
        for (int q = 0; q < 2; ++q) {
            r[4 * c + 2 * q] = _mm256_unpacklo_epi64(a[4 * c + q], a[4 * c + 2 + q]);
            r[4 * c + 2 * q + 1] = _mm256_unpackhi_epi64(a[4 * c + q], a[4 * c + 2 + q]);
        }
    }
}

// Transposes the 8 x 8 block of 32-bit lanes held in r[0..7].
inline void Transpose8x8(__m256 r[8]) {
    const __m256 t0 = _mm256_unpacklo_ps(r[0], r[1]);
    const __m256 t1 = _mm256_unpackhi_ps(r[0], r[1]);
    const __m256 t2 = _mm256_unpacklo_ps(r[2], r[3]);
    const __m256 t3 = _mm256_unpackhi_ps(r[2], r[3]);
    const __m256 t4 = _mm256_unpacklo_ps(r[4], r[5]);
    const __m256 t5 = _mm256_unpackhi_ps(r[4], r[5]);
    const __m256 t6 = _mm256_unpacklo_ps(r[6], r[7]);
    const __m256 t7 = _mm256_unpackhi_ps(r[6], r[7]);
    const __m256 s0 = _mm256_shuffle_ps(t0, t2, _MM_SHUFFLE(1, 0, 1, 0));
    const __m256 s1 = _mm256_shuffle_ps(t0, t2, _MM_SHUFFLE(3, 2, 3, 2));
    const __m256 s2 = _mm256_shuffle_ps(t1, t3, _MM_SHUFFLE(1, 0, 1, 0));
    const __m256 s3 = _mm256_shuffle_ps(t1, t3, _MM_SHUFFLE(3, 2, 3, 2));
    const __m256 s4 = _mm256_shuffle_ps(t4, t6, _MM_SHUFFLE(1, 0, 1, 0));
    const __m256 s5 = _mm256_shuffle_ps(t4, t6, _MM_SHUFFLE(3, 2, 3, 2));
    const __m256 s6 = _mm256_shuffle_ps(t5, t7, _MM_SHUFFLE(1, 0, 1, 0));
    const __m256 s7 = _mm256_shuffle_ps(t5, t7, _MM_SHUFFLE(3, 2, 3, 2));
    r[0] = _mm256_permute2f128_ps(s0, s4, 0x20);
    r[1] = _mm256_permute2f128_ps(s1, s5, 0x20);
    r[2] = _mm256_permute2f128_ps(s2, s6, 0x20);
    r[3] = _mm256_permute2f128_ps(s3, s7, 0x20);
    r[4] = _mm256_permute2f128_ps(s0, s4, 0x31);
    r[5] = _mm256_permute2f128_ps(s1, s5, 0x31);
    r[6] = _mm256_permute2f128_ps(s2, s6, 0x31);
    r[7] = _mm256_permute2f128_ps(s3, s7, 0x31);
}

// Eight pixels of four or three bytes held as the eight 32-bit lanes of an
// AVX register (a three-byte pixel gets a zero fourth byte).
struct Lanes4 {
    static __m256 Load(const uint8_t* p) { return _mm256_loadu_ps(reinterpret_cast<const float*>(p)); }
    static void Store(uint8_t* p, __m256 v) { _mm256_storeu_ps(reinterpret_cast<float*>(p), v); }
};

struct Lanes3 {
    // Reads exactly the 24 bytes of the eight pixels: bytes 0-15 feed the low
    // half, bytes 8-23 the high half.
    static __m256 Load(const uint8_t* p) {
        const __m256i both = Join(Load128(p), Load128(p + 8));
        const __m256i spread = _mm256_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1,
                                                4, 5, 6, -1, 7, 8, 9, -1, 10, 11, 12, -1, 13, 14, 15, -1);
        return _mm256_castsi256_ps(_mm256_shuffle_epi8(both, spread));
    }
    // Writes exactly 24 bytes.
    static void Store(uint8_t* p, __m256 v) {
        const __m256i pack = _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1,
                                              0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
        __m256i b = _mm256_shuffle_epi8(_mm256_castps_si256(v), pack);
        b = _mm256_permutevar8x32_epi32(b, _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7));
        Store128(p, _mm256_castsi256_si128(b));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(p + 16), _mm256_extracti128_si256(b, 1));
    }
};

template <int N, class L>
void TransposeLanes(const uint8_t* src, ptrdiff_t ss, uint8_t* dst, ptrdiff_t ds, int width) {
    int x = 0;
    for (; x + 8 <= width; x += 8) {
        __m256 r[8];
        for (int i = 0; i < 8; ++i) r[i] = L::Load(src + i * ss + x * N);
        Transpose8x8(r);
        uint8_t* d = dst + x * ds;
        for (int j = 0; j < 8; ++j) L::Store(d + j * ds, r[j]);
    }
    if (x < width) TransposeAny_C(src + x * N, ss, dst + x * ds, ds, width - x, 8, N);
}

}  // namespace

void TransposeStrip1_AVX2(const uint8_t* src, ptrdiff_t ss, uint8_t* dst, ptrdiff_t ds, int width) {
    int x = 0;
    for (; x + 32 <= width; x += 32) {
        __m256i r[16];
        for (int i = 0; i < 16; ++i) r[i] = Load256(src + i * ss + x);
        Transpose16x16BytesX2(r);
        // The low halves hold columns x..x+15, the high halves x+16..x+31.
        uint8_t* d = dst + x * ds;
        for (int j = 0; j < 16; ++j) {
            Store128(d + j * ds, _mm256_castsi256_si128(r[j]));
            Store128(d + (16 + j) * ds, _mm256_extracti128_si256(r[j], 1));
        }
    }
    if (x < width) TransposeAny_C(src + x, ss, dst + x * ds, ds, width - x, 16, 1);
}

// 16 rows by 8 columns a step: source rows i and i + 8 in the two halves of
// r[i], one 8 x 8 transpose of 16-bit pixels in each half (all unpacks stay
// within a half), so that each destination row gets 32 contiguous bytes.
void TransposeStrip2_AVX2(const uint8_t* src, ptrdiff_t ss, uint8_t* dst, ptrdiff_t ds, int width) {
    int x = 0;
    for (; x + 8 <= width; x += 8) {
        __m256i r[8];
        for (int i = 0; i < 8; ++i) {
            r[i] = Join(Load128(src + i * ss + x * 2), Load128(src + (i + 8) * ss + x * 2));
        }
        __m256i a[8], b[8];
        for (int i = 0; i < 4; ++i) {
            a[2 * i] = _mm256_unpacklo_epi16(r[2 * i], r[2 * i + 1]);
            a[2 * i + 1] = _mm256_unpackhi_epi16(r[2 * i], r[2 * i + 1]);
        }
        for (int h = 0; h < 2; ++h) {
            b[4 * h + 0] = _mm256_unpacklo_epi32(a[4 * h + 0], a[4 * h + 2]);  // columns 0, 1
            b[4 * h + 1] = _mm256_unpackhi_epi32(a[4 * h + 0], a[4 * h + 2]);  // columns 2, 3
            b[4 * h + 2] = _mm256_unpacklo_epi32(a[4 * h + 1], a[4 * h + 3]);  // columns 4, 5
            b[4 * h + 3] = _mm256_unpackhi_epi32(a[4 * h + 1], a[4 * h + 3]);  // columns 6, 7
        }
        uint8_t* d = dst + x * ds;
        for (int j = 0; j < 8; ++j) {
            const __m256i col = (j & 1) ? _mm256_unpackhi_epi64(b[j / 2], b[4 + j / 2])
                                        : _mm256_unpacklo_epi64(b[j / 2], b[4 + j / 2]);
            Store256(d + j * ds, col);
        }
    }
    if (x < width) TransposeAny_C(src + x * 2, ss, dst + x * ds, ds, width - x, 16, 2);
}

void TransposeStrip3_AVX2(const uint8_t* src, ptrdiff_t ss, uint8_t* dst, ptrdiff_t ds, int width) {
    TransposeLanes<3, Lanes3>(src, ss, dst, ds, width);
}

void TransposeStrip4_AVX2(const uint8_t* src, ptrdiff_t ss, uint8_t* dst, ptrdiff_t ds, int width) {
    TransposeLanes<4, Lanes4>(src, ss, dst, ds, width);
}

// ---------------------------------------------------------------------------
// Mirrors: blocks taken from the right end of the source row, reversed and
// stored from the left of the destination; the middle pixels left over go
// through the twin.
// ---------------------------------------------------------------------------

void MirrorRow1_AVX2(const uint8_t* src, uint8_t* dst, int width, ptrdiff_t prefetch) {
    const __m256i reverse = _mm256_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0,
                                             15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
    int x = 0;
    for (; x + 32 <= width; x += 32) {
        const uint8_t* s = src + width - 32 - x;
        if (prefetch) Prefetch(s + prefetch);
        const __m256i v = Load256(s);
        Store256(dst + x, _mm256_permute4x64_epi64(_mm256_shuffle_epi8(v, reverse), 0x4E));
    }
    if (x < width) MirrorRow1_C(src, dst + x, width - x, 0);
}

void MirrorRow2_AVX2(const uint8_t* src, uint8_t* dst, int width, ptrdiff_t prefetch) {
    const __m256i reverse = _mm256_setr_epi8(14, 15, 12, 13, 10, 11, 8, 9, 6, 7, 4, 5, 2, 3, 0, 1,
                                             14, 15, 12, 13, 10, 11, 8, 9, 6, 7, 4, 5, 2, 3, 0, 1);
    int x = 0;
    for (; x + 16 <= width; x += 16) {
        const uint8_t* s = src + 2 * (width - 16 - x);
        if (prefetch) Prefetch(s + prefetch);
        const __m256i v = Load256(s);
        Store256(dst + 2 * x, _mm256_permute4x64_epi64(_mm256_shuffle_epi8(v, reverse), 0x4E));
    }
    if (x < width) MirrorRow2_C(src, dst + 2 * x, width - x, 0);
}

// Both halves of one shuffle read the same 24 bytes: the low half takes
// pixels 7..4 from bytes 8-23, the high half pixels 3..0 from bytes 0-15.
// Exactly 24 bytes are read and written.
void MirrorRow3_AVX2(const uint8_t* src, uint8_t* dst, int width, ptrdiff_t prefetch) {
    const __m256i reverse = _mm256_setr_epi8(13, 14, 15, 10, 11, 12, 7, 8, 9, 4, 5, 6, -1, -1, -1, -1,
                                             9, 10, 11, 6, 7, 8, 3, 4, 5, 0, 1, 2, -1, -1, -1, -1);
    const __m256i order = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7);
    int x = 0;
    for (; x + 8 <= width; x += 8) {
        const uint8_t* s = src + 3 * (width - 8 - x);
        if (prefetch) Prefetch(s + prefetch);
        __m256i v = Join(Load128(s + 8), Load128(s));
        v = _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(v, reverse), order);
        Store128(dst + 3 * x, _mm256_castsi256_si128(v));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(dst + 3 * x + 16), _mm256_extracti128_si256(v, 1));
    }
    if (x < width) MirrorRow3_C(src, dst + 3 * x, width - x, 0);
}

void MirrorRow4_AVX2(const uint8_t* src, uint8_t* dst, int width, ptrdiff_t prefetch) {
    const __m256i reverse = _mm256_setr_epi32(7, 6, 5, 4, 3, 2, 1, 0);
    int x = 0;
    for (; x + 8 <= width; x += 8) {
        const uint8_t* s = src + 4 * (width - 8 - x);
        if (prefetch) Prefetch(s + prefetch);
        const __m256i v = Load256(s);
        Store256(dst + 4 * x, _mm256_permutevar8x32_epi32(v, reverse));
    }
    if (x < width) MirrorRow4_C(src, dst + 4 * x, width - x, 0);
}

// ---------------------------------------------------------------------------
// Splits and merges
// ---------------------------------------------------------------------------

// 32 pixels of 4 bytes a step. An in-lane shuffle gathers each channel of 4
// pixels into one dword, a dword permute makes 8-byte runs of one channel,
// and 64-bit unpacks plus lane swaps join four such runs.
void SplitRow4_AVX2(const uint8_t* src, uint8_t* d0, uint8_t* d1, uint8_t* d2, size_t n) {
    const __m256i group = _mm256_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15,
                                           0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    auto grouped = [&](const uint8_t* p) {
        return _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(Load256(p), group), order);
    };
    size_t i = 0;
    for (; i + 32 <= n; i += 32) {
        const uint8_t* p = src + 4 * i;
        const __m256i a = grouped(p), b = grouped(p + 32), c = grouped(p + 64), d = grouped(p + 96);
        // a: [ch0 ch1 | ch2 ch3] of pixels 0..7, b of 8..15, c of 16..23, d of 24..31.
        const __m256i ab02 = _mm256_unpacklo_epi64(a, b);
        const __m256i ab13 = _mm256_unpackhi_epi64(a, b);
        const __m256i cd02 = _mm256_unpacklo_epi64(c, d);
        const __m256i cd13 = _mm256_unpackhi_epi64(c, d);
        Store256(d0 + i, _mm256_permute2x128_si256(ab02, cd02, 0x20));
        Store256(d1 + i, _mm256_permute2x128_si256(ab13, cd13, 0x20));
        Store256(d2 + i, _mm256_permute2x128_si256(ab02, cd02, 0x31));
    }
    if (i < n) SplitRow4_C(src + 4 * i, d0 + i, d1 + i, d2 + i, n - i);
}

namespace {

// Shuffle mask that moves byte 3 * j + channel of a 48-byte group, as far as
// it lies in the 16-byte part `part`, to position j.
__m128i Split3Mask(int channel, int part) {
    alignas(16) int8_t m[16];
    for (int j = 0; j < 16; ++j) {
        const int at = 3 * j + channel - 16 * part;
        m[j] = (at >= 0 && at < 16) ? static_cast<int8_t>(at) : static_cast<int8_t>(-128);
    }
    return _mm_load_si128(reinterpret_cast<const __m128i*>(m));
}

// The inverse: byte 16 * block + j of the 48 interleaved bytes comes from
// pixel (16 * block + j) / 3 of plane (16 * block + j) % 3.
__m128i Merge3Mask(int block, int plane) {
    alignas(16) int8_t m[16];
    for (int j = 0; j < 16; ++j) {
        const int at = 16 * block + j;
        m[j] = at % 3 == plane ? static_cast<int8_t>(at / 3) : static_cast<int8_t>(-128);
    }
    return _mm_load_si128(reinterpret_cast<const __m128i*>(m));
}

}  // namespace

// 32 pixels of 3 bytes a step: lane 0 holds pixels 0..15, lane 1 pixels
// 16..31, so the classic three-shuffle split works on both halves at once.
void SplitRow3_AVX2(const uint8_t* src, uint8_t* d0, uint8_t* d1, uint8_t* d2, size_t n) {
    __m256i mask[3][3];
    for (int ch = 0; ch < 3; ++ch) {
        for (int part = 0; part < 3; ++part) {
            const __m128i m = Split3Mask(ch, part);
            mask[ch][part] = Join(m, m);
        }
    }
    uint8_t* dst[3] = {d0, d1, d2};
    size_t i = 0;
    for (; i + 32 <= n; i += 32) {
        const uint8_t* p = src + 3 * i;
        const __m256i v0 = Join(Load128(p), Load128(p + 48));
        const __m256i v1 = Join(Load128(p + 16), Load128(p + 64));
        const __m256i v2 = Join(Load128(p + 32), Load128(p + 80));
        for (int ch = 0; ch < 3; ++ch) {
            const __m256i x = _mm256_or_si256(
                _mm256_or_si256(_mm256_shuffle_epi8(v0, mask[ch][0]), _mm256_shuffle_epi8(v1, mask[ch][1])),
                _mm256_shuffle_epi8(v2, mask[ch][2]));
            Store256(dst[ch] + i, x);
        }
    }
    if (i < n) SplitRow3_C(src + 3 * i, d0 + i, d1 + i, d2 + i, n - i);
}

// 32 pixels a step; lane 0 builds the 48 bytes of pixels 0..15, lane 1 those
// of pixels 16..31.
void MergeRow3_AVX2(const uint8_t* s0, const uint8_t* s1, const uint8_t* s2, uint8_t* dst,
                    size_t n) {
    __m256i mask[3][3];
    for (int block = 0; block < 3; ++block) {
        for (int plane = 0; plane < 3; ++plane) {
            const __m128i m = Merge3Mask(block, plane);
            mask[block][plane] = Join(m, m);
        }
    }
    size_t i = 0;
    for (; i + 32 <= n; i += 32) {
        const __m256i a = Load256(s0 + i), b = Load256(s1 + i), c = Load256(s2 + i);
        __m256i out[3];
        for (int k = 0; k < 3; ++k) {
            out[k] = _mm256_or_si256(
                _mm256_or_si256(_mm256_shuffle_epi8(a, mask[k][0]), _mm256_shuffle_epi8(b, mask[k][1])),
                _mm256_shuffle_epi8(c, mask[k][2]));
        }
        uint8_t* o = dst + 3 * i;
        Store256(o, _mm256_permute2x128_si256(out[0], out[1], 0x20));       // bytes 0..31
        Store256(o + 32, _mm256_permute2x128_si256(out[2], out[0], 0x30));  // 32..47 | 48..63
        Store256(o + 64, _mm256_permute2x128_si256(out[1], out[2], 0x31));  // 64..95
    }
    if (i < n) MergeRow3_C(s0 + i, s1 + i, s2 + i, dst + 3 * i, n - i);
}

void MergeRow4_AVX2(const uint8_t* s0, const uint8_t* s1, const uint8_t* s2, const uint8_t* s3,
                    uint8_t* dst, size_t n) {
    size_t i = 0;
    for (; i + 32 <= n; i += 32) {
        const __m256i a = Load256(s0 + i), b = Load256(s1 + i), c = Load256(s2 + i), d = Load256(s3 + i);
        const __m256i ab_lo = _mm256_unpacklo_epi8(a, b), ab_hi = _mm256_unpackhi_epi8(a, b);
        const __m256i cd_lo = _mm256_unpacklo_epi8(c, d), cd_hi = _mm256_unpackhi_epi8(c, d);
        // Within each lane: pixels 0-3, 4-7 (lo) and 8-11, 12-15 (hi).
        const __m256i p0 = _mm256_unpacklo_epi16(ab_lo, cd_lo);
        const __m256i p1 = _mm256_unpackhi_epi16(ab_lo, cd_lo);
        const __m256i p2 = _mm256_unpacklo_epi16(ab_hi, cd_hi);
        const __m256i p3 = _mm256_unpackhi_epi16(ab_hi, cd_hi);
        uint8_t* o = dst + 4 * i;
        Store256(o, _mm256_permute2x128_si256(p0, p1, 0x20));
        Store256(o + 32, _mm256_permute2x128_si256(p2, p3, 0x20));
        Store256(o + 64, _mm256_permute2x128_si256(p0, p1, 0x31));
        Store256(o + 96, _mm256_permute2x128_si256(p2, p3, 0x31));
    }
    if (i < n) MergeRow4_C(s0 + i, s1 + i, s2 + i, s3 + i, dst + 4 * i, n - i);
}

// ---------------------------------------------------------------------------
// Gray
// ---------------------------------------------------------------------------

// Per 32-bit pixel B G R A: the even bytes (B, R) and the odd bytes (G, A)
// as 16-bit pairs, each multiplied and summed with pmaddwd, so that no
// unpacking to 16 bits and no horizontal add is needed.
void BgraToGrayRow_AVX2(const uint8_t* src, uint8_t* dst, size_t n) {
    const __m256i w_br = _mm256_set1_epi32(1868 | 4899 << 16);
    const __m256i w_ga = _mm256_set1_epi32(9617);
    const __m256i low_bytes = _mm256_set1_epi16(0x00FF);
    const __m256i round = _mm256_set1_epi32(1 << 13);
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    auto luma = [&](const uint8_t* p) {
        const __m256i v = Load256(p);
        const __m256i br = _mm256_and_si256(v, low_bytes);
        const __m256i ga = _mm256_srli_epi16(v, 8);
        const __m256i sum = _mm256_add_epi32(_mm256_madd_epi16(br, w_br), _mm256_madd_epi16(ga, w_ga));
        return _mm256_srli_epi32(_mm256_add_epi32(sum, round), 14);
    };
    size_t i = 0;
    for (; i + 32 <= n; i += 32) {
        const uint8_t* p = src + 4 * i;
        const __m256i bytes = _mm256_packus_epi16(_mm256_packs_epi32(luma(p), luma(p + 32)),
                                                  _mm256_packs_epi32(luma(p + 64), luma(p + 96)));
        Store256(dst + i, _mm256_permutevar8x32_epi32(bytes, order));
    }
    if (i < n) BgraToGrayRow_C(src + 4 * i, dst + i, n - i);
}

// 32 luma pixels a step use 16 chroma pairs starting at pair x / 2: each
// pair's three weighted chroma sums are made once and spread to its two luma
// pixels.
void YuvToPlanesRow_AVX2(const uint8_t* y, const uint8_t* uv, int uv_width, const YuvFixed& f,
                         uint8_t* out0, uint8_t* out1, uint8_t* out2, int width) {
    uint8_t* out[3] = {out0, out1, out2};
    // (W0, 0) against (Y, 0).
    const __m256i w0 =
        _mm256_set1_epi32(static_cast<int32_t>(static_cast<uint32_t>(f.w0) & 0xFFFFu));
    __m256i wc[3], bias[3];
    for (int p = 0; p < 3; ++p) {
        wc[p] = _mm256_set1_epi32(static_cast<int32_t>((static_cast<uint32_t>(f.wa[p]) & 0xFFFFu) |
                                                      (static_cast<uint32_t>(f.wb[p]) << 16)));
        bias[p] = _mm256_set1_epi32(f.bias[p]);
    }
    const __m256i dup_lo = _mm256_setr_epi32(0, 0, 1, 1, 2, 2, 3, 3);
    const __m256i dup_hi = _mm256_setr_epi32(4, 4, 5, 5, 6, 6, 7, 7);
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    int x = 0;
    for (; x + 32 <= width && x / 2 + 16 <= uv_width; x += 32) {
        const __m256i ca = _mm256_cvtepu8_epi16(Load128(uv + x));
        const __m256i cb = _mm256_cvtepu8_epi16(Load128(uv + x + 16));
        const __m128i y0 = Load128(y + x);
        const __m128i y1 = Load128(y + x + 16);
        const __m256i l0 = _mm256_madd_epi16(_mm256_cvtepu8_epi32(y0), w0);
        const __m256i l1 = _mm256_madd_epi16(_mm256_cvtepu8_epi32(_mm_srli_si128(y0, 8)), w0);
        const __m256i l2 = _mm256_madd_epi16(_mm256_cvtepu8_epi32(y1), w0);
        const __m256i l3 = _mm256_madd_epi16(_mm256_cvtepu8_epi32(_mm_srli_si128(y1, 8)), w0);
        for (int p = 0; p < 3; ++p) {
            const __m256i chroma_a = _mm256_add_epi32(_mm256_madd_epi16(ca, wc[p]), bias[p]);
            const __m256i chroma_b = _mm256_add_epi32(_mm256_madd_epi16(cb, wc[p]), bias[p]);
            const __m256i s0 = _mm256_srai_epi32(
                _mm256_add_epi32(l0, _mm256_permutevar8x32_epi32(chroma_a, dup_lo)), kYuvBits);
            const __m256i s1 = _mm256_srai_epi32(
                _mm256_add_epi32(l1, _mm256_permutevar8x32_epi32(chroma_a, dup_hi)), kYuvBits);
            const __m256i s2 = _mm256_srai_epi32(
                _mm256_add_epi32(l2, _mm256_permutevar8x32_epi32(chroma_b, dup_lo)), kYuvBits);
            const __m256i s3 = _mm256_srai_epi32(
                _mm256_add_epi32(l3, _mm256_permutevar8x32_epi32(chroma_b, dup_hi)), kYuvBits);
            const __m256i bytes = _mm256_packus_epi16(_mm256_packs_epi32(s0, s1),
                                                      _mm256_packs_epi32(s2, s3));
            Store256(out[p] + x, _mm256_permutevar8x32_epi32(bytes, order));
        }
    }
    for (; x < width; ++x) {
        const int pair = x / 2 < uv_width - 1 ? x / 2 : uv_width - 1;
        const uint8_t* c = uv + 2 * pair;
        for (int p = 0; p < 3; ++p) out[p][x] = YuvPixel(f, p, y[x], c[0], c[1]);
    }
}

}  // namespace kernels
}  // namespace quvas
