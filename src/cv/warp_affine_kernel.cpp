// warp_affine_kernel.cpp - the vectorised fixed-point affine warp: one
// planned row at a time, eight destination columns a step in 256-bit
// vectors, with the few edge pixels done one by one exactly as defined.
#include "warp_affine_kernel.h"

#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <type_traits>

namespace quvas {
namespace kit {
namespace internal {

namespace {

// How a row is laid out. The positions of a row, sx(j) = fma(j, M0, bx) and
// sy(j) = fma(j, M3, by), are each monotone in the column j (an exact linear
// function rounded once), and a sample's tests are bounds on sx and sy:
//   inside  (ix >= 0, ix + 1 < W, ...)  <=>  -1 < sx < W - 1 and -1 < sy < H - 1,
//   plain   (inside, fx >= 0, fy >= 0)  <=>   0 <= sx < W - 1 and 0 <= sy < H - 1,
// since truncation toward zero maps (-1, 0) to 0. So each test holds on one
// span of columns. A row is planned once: border spans left and right, the
// few inside columns with a negative fraction (positions between -1 and 0,
// whose weights extrapolate) done one by one, and the plain span in between
// run branch-free eight columns a step.
//
// In the plain span fx, fy are in [0, 1): every weight is at most 65536 and
// the four sum to at most 65538, so each product s * w and the whole sum
// s00*w00 + s10*w10 + s01*w01 + s11*w11 + 32768 stay below 2^24. Single
// precision holds all of them exactly, and the fused multiply-adds below
// give the same integer as the 32-bit integer sum, in any order.

// ---- one pixel, exactly as defined (edges, tails, degenerate rows) --------

template <int N>
inline void store_border(unsigned char* out, unsigned int border) {
    if (N == 1) return;  // the one-channel kernel leaves outside pixels alone
    for (int c = 0; c < N; ++c) out[c] = static_cast<unsigned char>(border >> (8 * c));
}

template <int N>
inline void warp_pixel(const unsigned char* src, int stride, float wlim, float hlim, float sx, float sy,
                       unsigned int border, unsigned char* out) {
    // Bounds written on the floats (valid for a source of at least 2 x 2):
    // they also turn away NaN and positions too large to truncate.
    if (!(sx > -1.0f && sx < wlim && sy > -1.0f && sy < hlim)) {
        store_border<N>(out, border);
        return;
    }
    const int ix = static_cast<int>(sx), iy = static_cast<int>(sy);
    const float fx = sx - static_cast<float>(ix), fy = sy - static_cast<float>(iy);
    const float gx = 1.0f - fx, gy = 1.0f - fy;
    const int w00 = static_cast<int>(std::nearbyint(gx * gy * 65536.0f));
    const int w10 = static_cast<int>(std::nearbyint(fx * gy * 65536.0f));
    const int w01 = static_cast<int>(std::nearbyint(gx * fy * 65536.0f));
    const int w11 = static_cast<int>(std::nearbyint(fx * fy * 65536.0f));
    const unsigned char* p = src + static_cast<ptrdiff_t>(iy) * stride + static_cast<ptrdiff_t>(ix) * N;
    for (int c = 0; c < N; ++c) {
        const int v = (p[c] * w00 + p[N + c] * w10 + p[stride + c] * w01 + p[stride + N + c] * w11 + 32768) >> 16;
        out[c] = N == 4 ? static_cast<unsigned char>(std::min(255, std::max(0, v)))  // saturating narrow
                        : static_cast<unsigned char>(v);                              // low byte, no clamp
    }
}

// ---- spans ------------------------------------------------------------------

// First j in [0, n) where a monotone predicate (false ... false true ... true)
// holds, or n. Starts at a guess and gallops, so a good guess costs two tests.
template <class Pred>
inline int first_true(const Pred& p, int n, double guess) {
    int g = 0;
    if (guess >= n) {
        g = n;
    } else if (guess > 0) {
        g = static_cast<int>(guess);
    }
    if (g < n && p(g)) {
        int hi = g, lo = -1;
        for (int step = 1;; step *= 2) {
            const int k = hi - step;
            if (k < 0) break;
            if (!p(k)) {
                lo = k;
                break;
            }
            hi = k;
        }
        while (hi - lo > 1) {
            const int mid = lo + (hi - lo) / 2;
            (p(mid) ? hi : lo) = mid;
        }
        return hi;
    }
    if (g >= n) return n;
    int lo = g, hi = n;
    for (int step = 1;; step *= 2) {
        const int k = lo + step;
        if (k >= n) break;
        if (p(k)) {
            hi = k;
            break;
        }
        lo = k;
    }
    while (hi - lo > 1) {
        const int mid = lo + (hi - lo) / 2;
        (p(mid) ? hi : lo) = mid;
    }
    return hi;
}

struct Span {
    int lo, hi;  // columns [lo, hi); empty when lo >= hi
};

// Columns j of [0, n) where v(j) = fma(j, m, b) satisfies low(v) and v < upper.
template <class Low>
inline Span axis_span(float m, float b, float lower, const Low& low, float upper, int n) {
    auto v = [m, b](int j) { return std::fma(static_cast<float>(j), m, b); };
    if (m == 0.0f) return low(b) && b < upper ? Span{0, n} : Span{0, 0};
    const double to_lower = (static_cast<double>(lower) - b) / m;
    const double to_upper = (static_cast<double>(upper) - b) / m;
    if (m > 0.0f) {
        const int lo = first_true([&](int j) { return low(v(j)); }, n, to_lower);
        const int hi = first_true([&](int j) { return !(v(j) < upper); }, n, to_upper);
        return {lo, hi};
    }
    const int lo = first_true([&](int j) { return v(j) < upper; }, n, to_upper);
    const int hi = first_true([&](int j) { return !low(v(j)); }, n, to_lower);
    return {lo, hi};
}

inline Span intersect(Span a, Span b) { return {std::max(a.lo, b.lo), std::min(a.hi, b.hi)}; }

// ---- eight plain pixels a step ----------------------------------------------

struct Block8 {
    __m256i off;                  // byte offset of each top-left sample
    __m256 w00, w10, w01, w11;    // weights as exact floats
};

// Positions, offsets and weights of columns j .. j+7 (xs holds them as floats).
// Order of the single-precision operations as defined: sx = fma(x, M0, bx),
// ix = trunc(sx), fx = sx - ix, w = round_half_even(a * b * 65536). The factor
// 65536 is applied to the first factor instead of the product: scaling by a
// power of two is exact, so the rounded products are the same.
// `stride` holds the source stride as integers, or as floats when float_stride.
inline Block8 block8(__m256 xs, __m256 m0, __m256 m3, __m256 bx, __m256 by, __m256i stride, int n,
                     bool float_stride) {
    const __m256 sx = _mm256_fmadd_ps(xs, m0, bx);
    const __m256 sy = _mm256_fmadd_ps(xs, m3, by);
    const __m256 tx = _mm256_round_ps(sx, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
    const __m256 ty = _mm256_round_ps(sy, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
    const __m256 fx = _mm256_sub_ps(sx, tx), fy = _mm256_sub_ps(sy, ty);
    const __m256 one = _mm256_set1_ps(1.0f), scale = _mm256_set1_ps(65536.0f);
    const __m256 gx = _mm256_mul_ps(_mm256_sub_ps(one, fx), scale);
    const __m256 fxs = _mm256_mul_ps(fx, scale);
    const __m256 gy = _mm256_sub_ps(one, fy);
    constexpr int kNear = _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC;
    Block8 b;
    b.w00 = _mm256_round_ps(_mm256_mul_ps(gx, gy), kNear);
    b.w10 = _mm256_round_ps(_mm256_mul_ps(fxs, gy), kNear);
    b.w01 = _mm256_round_ps(_mm256_mul_ps(gx, fy), kNear);
    b.w11 = _mm256_round_ps(_mm256_mul_ps(fxs, fy), kNear);
    if (float_stride) {
        // iy * stride + ix * n, exact: the caller checked that every offset
        // of the source stays below 2^24.
        const __m256 xoff = n == 1 ? tx : _mm256_mul_ps(tx, _mm256_set1_ps(static_cast<float>(n)));
        b.off = _mm256_cvttps_epi32(_mm256_fmadd_ps(ty, _mm256_castsi256_ps(stride), xoff));
    } else {
        const __m256i ix = _mm256_cvttps_epi32(tx), iy = _mm256_cvttps_epi32(ty);
        const __m256i xoff = n == 1 ? ix : _mm256_mullo_epi32(ix, _mm256_set1_epi32(n));
        b.off = _mm256_add_epi32(_mm256_mullo_epi32(iy, stride), xoff);
    }
    return b;
}

// Rounded, shifted results of exact float sums: (sum + 32768) >> 16 in 0..255.
inline __m256i finish(__m256 sum) { return _mm256_srli_epi32(_mm256_cvttps_epi32(sum), 16); }

// Byte k of every 32-bit lane into that lane's low byte, the rest zero.
inline __m256i lane_byte_mask(int k) {
    const int z = static_cast<int>(0x80808000u);
    return _mm256_setr_epi32(z | k, z | (4 + k), z | (8 + k), z | (12 + k), z | k, z | (4 + k), z | (8 + k),
                             z | (12 + k));
}

// One channel in two passes over a row's plain span. The first computes
// weights and copies each pixel's four taps (s00 s10 from the top row, s01
// s11 from the lower one: one 32-bit word) into row buffers with plain loads
// and stores, as gathers are slow on some processors; the second blends
// eight pixels a step from the buffers. Splitting them keeps each loop small
// enough for the registers and lets the copies settle before they are read.
struct RowBuffers {
    explicit RowBuffers(int width)
        : store(new float[5 * static_cast<size_t>(width) + 8]),
          w00(store.get()),
          w10(w00 + width),
          w01(w10 + width),
          w11(w01 + width),
          taps(reinterpret_cast<uint16_t*>(w11 + width)) {}
    std::unique_ptr<float[]> store;
    float *w00, *w10, *w01, *w11;
    uint16_t* taps;  // two per pixel
};

// The buffers' addresses by value: stores through them then cannot change
// them, so they stay in registers.
struct RowPointers {
    float *w00, *w10, *w01, *w11;
    uint16_t* taps;
};

inline void collect8_c1(const unsigned char* src, int stride, const Block8& b, RowPointers buf, int k) {
    _mm256_storeu_ps(buf.w00 + k, b.w00);
    _mm256_storeu_ps(buf.w10 + k, b.w10);
    _mm256_storeu_ps(buf.w01 + k, b.w01);
    _mm256_storeu_ps(buf.w11 + k, b.w11);
    // Two offsets a 64-bit move out of the vector. Offsets in the plain span
    // are never negative: unsigned, they index without a sign extension.
    const __m128i lo = _mm256_castsi256_si128(b.off), hi = _mm256_extracti128_si256(b.off, 1);
    const uint64_t q[4] = {static_cast<uint64_t>(_mm_cvtsi128_si64(lo)), static_cast<uint64_t>(_mm_extract_epi64(lo, 1)),
                           static_cast<uint64_t>(_mm_cvtsi128_si64(hi)), static_cast<uint64_t>(_mm_extract_epi64(hi, 1))};
    uint16_t* t = buf.taps + 2 * k;
    const unsigned char* lower = src + stride;
    for (int i = 0; i < 8; ++i) {
        const uint32_t off = static_cast<uint32_t>(q[i / 2] >> (32 * (i % 2)));
        std::memcpy(t + 2 * i, src + off, 2);
        std::memcpy(t + 2 * i + 1, lower + off, 2);
    }
}

inline void blend8_c1(RowPointers buf, int k, unsigned char* out) {
    const __m256i t = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(buf.taps + 2 * k));
    const __m256 s00 = _mm256_cvtepi32_ps(_mm256_and_si256(t, _mm256_set1_epi32(0xff)));
    const __m256 s10 = _mm256_cvtepi32_ps(_mm256_shuffle_epi8(t, lane_byte_mask(1)));
    const __m256 s01 = _mm256_cvtepi32_ps(_mm256_shuffle_epi8(t, lane_byte_mask(2)));
    const __m256 s11 = _mm256_cvtepi32_ps(_mm256_srli_epi32(t, 24));
    __m256 sum = _mm256_fmadd_ps(s00, _mm256_loadu_ps(buf.w00 + k), _mm256_set1_ps(32768.0f));
    sum = _mm256_fmadd_ps(s10, _mm256_loadu_ps(buf.w10 + k), sum);
    sum = _mm256_fmadd_ps(s01, _mm256_loadu_ps(buf.w01 + k), sum);
    sum = _mm256_fmadd_ps(s11, _mm256_loadu_ps(buf.w11 + k), sum);
    const __m256i r = finish(sum);
    const __m128i q = _mm_packus_epi32(_mm256_castsi256_si128(r), _mm256_extracti128_si256(r, 1));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm_packus_epi16(q, q));
}

// Eight three-channel pixels from four bytes a pixel.
inline void store8_c3(__m256i px, unsigned char* out) {
    // Drop every fourth byte; exactly 24 bytes stored.
    const __m256i packed = _mm256_shuffle_epi8(
        px, _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1,
                             0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1));
    const __m256i q = _mm256_permutevar8x32_epi32(packed, _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm256_castsi256_si128(q));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out + 16), _mm256_extracti128_si256(q, 1));
}

// Two to four channels also run in two passes: the first stores each
// block's sample offsets and weights, the second reads the samples and
// blends.

// Three and four channels keep each pixel's weights as (left, right) pairs,
// one 8-byte pair a row, with the block's offsets, all reached from one
// pointer: the blend broadcasts a pair straight from memory.
struct Floats8 {
    alignas(32) uint32_t off[8];
    __m256 top_a, top_b, bot_a, bot_b;  // pairs of pixels 0 1 | 4 5 (a) and 2 3 | 6 7 (b)
};

inline void collect8_pairs(const Block8& b, Floats8* out) {
    _mm256_store_si256(reinterpret_cast<__m256i*>(out->off), b.off);
    _mm256_store_ps(reinterpret_cast<float*>(&out->top_a), _mm256_unpacklo_ps(b.w00, b.w10));
    _mm256_store_ps(reinterpret_cast<float*>(&out->top_b), _mm256_unpackhi_ps(b.w00, b.w10));
    _mm256_store_ps(reinterpret_cast<float*>(&out->bot_a), _mm256_unpacklo_ps(b.w01, b.w11));
    _mm256_store_ps(reinterpret_cast<float*>(&out->bot_b), _mm256_unpackhi_ps(b.w01, b.w11));
}

// A row pair of three- or four-channel samples, left and right interleaved
// per channel: (L0 R0 L1 R1 | L2 R2 L3 R3), from one broadcast and one
// in-lane shuffle; a fourth channel of three-channel pixels reads zero. The
// three-channel pair starts at byte `first` of the 8 bytes read.
template <int N, int first>
inline __m256 row_pair(const unsigned char* p) {
    int64_t v;
    std::memcpy(&v, p, 8);
    constexpr int l3 = N == 4 ? first + 3 : -1, r3 = N == 4 ? first + 7 : -1;
    const __m256i spread = _mm256_setr_epi8(first, -1, -1, -1, first + N, -1, -1, -1, first + 1, -1, -1, -1,
                                            first + N + 1, -1, -1, -1, first + 2, -1, -1, -1, first + N + 2, -1, -1,
                                            -1, l3, -1, -1, -1, r3, -1, -1, -1);
    return _mm256_cvtepi32_ps(_mm256_shuffle_epi8(_mm256_set1_epi64x(v), spread));
}

// A (left, right) weight pair repeated over the four channels.
inline __m256 weight_pair(const __m256* v, int slot) {
    return _mm256_castpd_ps(_mm256_broadcast_sd(reinterpret_cast<const double*>(v) + slot));
}

// `lower` is the source one row down (2 bytes early for three channels,
// whose upper pair is read 2 bytes late: both reads stay within the
// sample's two rows, as a row holds at least two pixels). Offsets in the
// plain span are never negative, so they index unsigned.
template <int N>
inline void blend8_f(const unsigned char* src, const unsigned char* lower, const Floats8& b, unsigned char* out) {
    const __m256 half = _mm256_set1_ps(16384.0f);  // 32768 split over the left and right lanes
    const uint32_t* off = b.off;
    __m256 acc[8];
#pragma GCC unroll 8
    for (int i = 0; i < 8; ++i) {
        // Where pixel i's pairs lie: pixels 0 1 4 5 in the a vectors, 2 3 6 7 in the b ones.
        const bool in_b = (i & 2) != 0;
        const int slot = (i & 1) + ((i & 4) >> 1);
        const __m256 top = row_pair<N, 0>(src + off[i]), bottom = row_pair<N, 2 * (4 - N)>(lower + off[i]);
        acc[i] = _mm256_fmadd_ps(top, weight_pair(in_b ? &b.top_b : &b.top_a, slot),
                                 _mm256_fmadd_ps(bottom, weight_pair(in_b ? &b.bot_b : &b.bot_a, slot), half));
    }
    __m256i r[4];
    for (int q = 0; q < 4; ++q) {
        // Left and right lanes summed, exactly (integers whose sum stays
        // below 2^24): (p c0 c1, p' c0 c1 | p c2 c3, p' c2 c3), p = 2q, p' = 2q + 1.
        r[q] = finish(_mm256_hadd_ps(acc[2 * q], acc[2 * q + 1]));
    }
    // Bytes: (p0 .. p7 channels 0 1 | p0 .. p7 channels 2 3), two bytes a pixel.
    const __m256i bytes = _mm256_packus_epi16(_mm256_packus_epi32(r[0], r[1]), _mm256_packus_epi32(r[2], r[3]));
    const __m128i c01 = _mm256_castsi256_si128(bytes), c23 = _mm256_extracti128_si256(bytes, 1);
    const __m128i p0123 = _mm_unpacklo_epi16(c01, c23), p4567 = _mm_unpackhi_epi16(c01, c23);
    if constexpr (N == 4) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out), p0123);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 16), p4567);
    } else {
        store8_c3(_mm256_inserti128_si256(_mm256_castsi128_si256(p0123), p4567, 1), out);
    }
}

// Two channels: pixels i and i + 4 share a vector, one a half. A pixel's
// row of samples is four bytes (s00 c0 c1, s10 c0 c1), its weights (w00 w00
// w10 w10), built with in-lane shuffles only; the channel sums are the two
// halves of each pixel's four lanes added. A block's offsets and weights lie
// side by side, reached from one pointer.
struct Pairs8 {
    alignas(32) uint32_t off[8];
    __m256 top[4], bottom[4];  // pixel pairs (0 4) (1 5) (2 6) (3 7)
};

inline void collect8_c2(const Block8& b, Pairs8* out) {
    _mm256_store_si256(reinterpret_cast<__m256i*>(out->off), b.off);
    const __m256 t_a = _mm256_unpacklo_ps(b.w00, b.w10), t_b = _mm256_unpackhi_ps(b.w00, b.w10);
    const __m256 u_a = _mm256_unpacklo_ps(b.w01, b.w11), u_b = _mm256_unpackhi_ps(b.w01, b.w11);
    float* t = reinterpret_cast<float*>(out->top);
    float* u = reinterpret_cast<float*>(out->bottom);
    _mm256_store_ps(t, _mm256_unpacklo_ps(t_a, t_a));
    _mm256_store_ps(t + 8, _mm256_unpackhi_ps(t_a, t_a));
    _mm256_store_ps(t + 16, _mm256_unpacklo_ps(t_b, t_b));
    _mm256_store_ps(t + 24, _mm256_unpackhi_ps(t_b, t_b));
    _mm256_store_ps(u, _mm256_unpacklo_ps(u_a, u_a));
    _mm256_store_ps(u + 8, _mm256_unpackhi_ps(u_a, u_a));
    _mm256_store_ps(u + 16, _mm256_unpacklo_ps(u_b, u_b));
    _mm256_store_ps(u + 24, _mm256_unpackhi_ps(u_b, u_b));
}

inline __m256 two_rows_c2(const unsigned char* a, const unsigned char* b) {
    int32_t y;
    std::memcpy(&y, b, 4);
    return _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(_mm_insert_epi32(_mm_loadu_si32(a), y, 1)));
}

// `lower` is the source one row down; offsets in the plain span are never
// negative, so they index unsigned.
inline void blend8_c2(const unsigned char* src, const unsigned char* lower, const Pairs8& w, unsigned char* out) {
    const __m256 half = _mm256_set1_ps(16384.0f);  // 32768 split over the two lanes of a channel
    const uint32_t* off = w.off;
    __m256 pair[4];
#pragma GCC unroll 4
    for (int q = 0; q < 4; ++q) {
        const uint32_t o0 = off[q], o1 = off[q + 4];
        const __m256 top = two_rows_c2(src + o0, src + o1), bottom = two_rows_c2(lower + o0, lower + o1);
        const __m256 acc = _mm256_fmadd_ps(top, w.top[q], _mm256_fmadd_ps(bottom, w.bottom[q], half));
        // Lanes 0, 1 of each half: (c0, c1) of pixel q (low) and q + 4 (high).
        pair[q] = _mm256_add_ps(acc, _mm256_permute_ps(acc, 0x4e));
    }
    // (p0 p1 | p4 p5) and (p2 p3 | p6 p7), two lanes a pixel; then words in
    // pixel order (p0 .. p3 | p4 .. p7) and bytes.
    const __m256i a = finish(_mm256_shuffle_ps(pair[0], pair[1], 0x44));
    const __m256i b = finish(_mm256_shuffle_ps(pair[2], pair[3], 0x44));
    const __m256i words = _mm256_packus_epi32(a, b);
    const __m256i bytes = _mm256_permute4x64_epi64(_mm256_packus_epi16(words, words), 0x08);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm256_castsi256_si128(bytes));
}

// ---- the driver shared by the four kernels -----------------------------------

// Columns done per pass pair.
constexpr int kPiece = 256;

}  // namespace

template <int N>
void WarpAffineBilinear(int srcHeight, int srcWidth, int srcStride, int dstHeight, int dstWidth,
                        int dstStride, unsigned char* dst, const unsigned char* src, const float* M,
                        unsigned int border) {
    if (N == 1 && (border & 0xffu) != 0 && dstHeight > 0) {
        std::memset(dst, static_cast<int>(border & 0xffu),
                    static_cast<size_t>(dstHeight) * static_cast<size_t>(dstStride));
    }
    if (dstWidth <= 0) return;
    if (srcWidth < 2 || srcHeight < 2) {
        // No sample has a right or lower neighbour: everything is outside.
        if (N != 1)
            for (int y = 0; y < dstHeight; ++y)
                for (int j = 0; j < dstWidth; ++j)
                    store_border<N>(dst + static_cast<ptrdiff_t>(y) * dstStride + static_cast<ptrdiff_t>(j) * N, border);
        return;
    }
    const float wlim = static_cast<float>(srcWidth - 1), hlim = static_cast<float>(srcHeight - 1);
    const __m256 m0 = _mm256_set1_ps(M[0]), m3 = _mm256_set1_ps(M[3]);
    // Offsets in single precision when every one is exact there.
    const bool float_stride = static_cast<int64_t>(srcHeight) * srcStride < (int64_t{1} << 24);
    const __m256i stride_v = float_stride ? _mm256_castps_si256(_mm256_set1_ps(static_cast<float>(srcStride)))
                                          : _mm256_set1_epi32(srcStride);
    const auto inside_low = [](float v) { return v > -1.0f; };
    const auto plain_low = [](float v) { return v >= 0.0f; };
    const bool finite_slopes = std::isfinite(M[0]) && std::isfinite(M[3]);
    std::unique_ptr<RowBuffers> row_buffers;
    std::unique_ptr<Pairs8[]> pairs;
    std::unique_ptr<Floats8[]> floats;
    RowPointers c1_buffers{};
    if (N == 1) {
        row_buffers.reset(new RowBuffers(dstWidth));
        c1_buffers = {row_buffers->w00, row_buffers->w10, row_buffers->w01, row_buffers->w11, row_buffers->taps};
    } else if (N == 2) {
        pairs.reset(new Pairs8[dstWidth / 8 + 1]);
    } else {
        floats.reset(new Floats8[dstWidth / 8 + 1]);
    }

    for (int y = 0; y < dstHeight; ++y) {
        const float row = static_cast<float>(y);
        const float bx = std::fma(row, M[1], M[2]), by = std::fma(row, M[4], M[5]);
        unsigned char* out = dst + static_cast<ptrdiff_t>(y) * dstStride;
        auto one_by_one = [&](int from, int to) {
            for (int j = from; j < to; ++j) {
                const float x = static_cast<float>(j);
                warp_pixel<N>(src, srcStride, wlim, hlim, std::fma(x, M[0], bx), std::fma(x, M[3], by), border,
                              out + static_cast<ptrdiff_t>(j) * N);
            }
        };
        if (!(finite_slopes && std::isfinite(bx) && std::isfinite(by))) {
            one_by_one(0, dstWidth);  // no monotone plan
            continue;
        }
        // Plain implies inside: a row that is plain throughout (a region well
        // within the source) needs no second plan.
        Span plain = intersect(axis_span(M[0], bx, 0.0f, plain_low, wlim, dstWidth),
                               axis_span(M[3], by, 0.0f, plain_low, hlim, dstWidth));
        const Span inside = plain.lo == 0 && plain.hi == dstWidth
                                ? plain
                                : intersect(axis_span(M[0], bx, -1.0f, inside_low, wlim, dstWidth),
                                            axis_span(M[3], by, -1.0f, inside_low, hlim, dstWidth));
        if (inside.lo >= inside.hi) {
            if (N != 1)
                for (int j = 0; j < dstWidth; ++j) store_border<N>(out + static_cast<ptrdiff_t>(j) * N, border);
            continue;
        }
        if (N != 1) {
            for (int j = 0; j < inside.lo; ++j) store_border<N>(out + static_cast<ptrdiff_t>(j) * N, border);
            for (int j = inside.hi; j < dstWidth; ++j) store_border<N>(out + static_cast<ptrdiff_t>(j) * N, border);
        }
        plain = intersect(plain, inside);
        if (plain.hi - plain.lo < 8) {
            one_by_one(inside.lo, inside.hi);
            continue;
        }
        one_by_one(inside.lo, plain.lo);
        one_by_one(plain.hi, inside.hi);
        const __m256 bxv = _mm256_set1_ps(bx), byv = _mm256_set1_ps(by);
        const __m256 steps = _mm256_setr_ps(0, 1, 2, 3, 4, 5, 6, 7);
        Floats8* next_floats = floats.get();
        Pairs8* next_pairs = pairs.get();
        int base = 0;  // first column of the piece being done; buffers are indexed from it
        auto run = [&](int j, auto float_offsets) {
            const Block8 b = block8(_mm256_add_ps(_mm256_set1_ps(static_cast<float>(j)), steps), m0, m3, bxv, byv,
                                    stride_v, N, decltype(float_offsets)::value);
            if constexpr (N == 1) {
                collect8_c1(src, srcStride, b, c1_buffers, j - base);
            } else if constexpr (N == 2) {
                collect8_c2(b, next_pairs++);
            } else {
                collect8_pairs(b, next_floats++);
            }
        };
        auto blend = [&](int col) {
            if constexpr (N == 1) {
                blend8_c1(c1_buffers, col - base, out + col);
            } else if constexpr (N == 2) {
                blend8_c2(src, src + srcStride, *next_pairs++, out + 2 * static_cast<ptrdiff_t>(col));
            } else {
                blend8_f<N>(src, src + srcStride - (4 - N) * 2, *next_floats++, out + static_cast<ptrdiff_t>(col) * N);
            }
        };
        // The span in pieces of up to kPiece columns, so that the buffers
        // stay in the first-level cache between the two passes; blocks of
        // eight from a piece's start, the last one ending at the span's end
        // (recomputing a few columns).
        auto span = [&](auto float_offsets) {
            for (int from = plain.lo; from < plain.hi; from += kPiece) {
                const int to = std::min(plain.hi, from + kPiece);
                base = std::max(plain.lo, std::min(from, to - 8));
                next_floats = floats.get();
                next_pairs = pairs.get();
                int j = from;
                for (; j + 8 <= to; j += 8) run(j, float_offsets);
                if (j < to) run(to - 8, float_offsets);
                next_floats = floats.get();
                next_pairs = pairs.get();
                for (j = from; j + 8 <= to; j += 8) blend(j);
                if (j < to) blend(to - 8);
            }
        };
        if (float_stride) {
            span(std::true_type{});
        } else {
            span(std::false_type{});
        }
    }
}

template void WarpAffineBilinear<1>(int, int, int, int, int, int, unsigned char*,
                                    const unsigned char*, const float*, unsigned int);
template void WarpAffineBilinear<2>(int, int, int, int, int, int, unsigned char*,
                                    const unsigned char*, const float*, unsigned int);
template void WarpAffineBilinear<3>(int, int, int, int, int, int, unsigned char*,
                                    const unsigned char*, const float*, unsigned int);
template void WarpAffineBilinear<4>(int, int, int, int, int, int, unsigned char*,
                                    const unsigned char*, const float*, unsigned int);

}  // namespace internal
}  // namespace kit
}  // namespace quvas
