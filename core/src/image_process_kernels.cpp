// image_process_kernels.cpp - the pixel work of ImageProcessFallback.
//
// Drivers loop over rows and call row kernels; each row kernel has an AVX2
// body and a scalar tail with the same arithmetic, so every byte is the same
// whichever path wrote it. The library is built for AVX2, so there is no
// run-time dispatch.
#include "image_process_kernels.h"

#include <immintrin.h>
#include <libyuv/planar_functions.h>
#include <libyuv/rotate.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>
#include <vector>

namespace quvas {
namespace kernel {
namespace ipk {
namespace {

inline __m256i Load256(const void* p) { return _mm256_loadu_si256(static_cast<const __m256i*>(p)); }
inline void Store256(void* p, __m256i v) { _mm256_storeu_si256(static_cast<__m256i*>(p), v); }
inline __m128i Load128(const void* p) { return _mm_loadu_si128(static_cast<const __m128i*>(p)); }
inline __m256i Join(__m128i lo, __m128i hi) {
    return _mm256_inserti128_si256(_mm256_castsi128_si256(lo), hi, 1);
}

// ---------------------------------------------------------------------------
// Interleaved -> planar
// ---------------------------------------------------------------------------

void SplitScalar(const uint8_t* src, int channels, size_t begin, size_t end, uint8_t* d0,
                 uint8_t* d1, uint8_t* d2) {
    for (size_t i = begin; i < end; ++i) {
        const uint8_t* p = src + i * static_cast<size_t>(channels);
        d0[i] = p[0];
        d1[i] = p[1];
        d2[i] = p[2];
    }
}

// 32 pixels of 4 bytes a step. An in-lane shuffle gathers each channel of 4
// pixels into one dword, a dword permute makes 8-byte runs of one channel,
// and 64-bit unpacks plus lane swaps join four such runs.
size_t Split4AVX2(const uint8_t* src, size_t pixels, uint8_t* d0, uint8_t* d1, uint8_t* d2) {
    const __m256i group = _mm256_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15,
                                           0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    size_t i = 0;
    for (; i + 32 <= pixels; i += 32) {
        const uint8_t* p = src + 4 * i;
        const __m256i a = _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(Load256(p), group), order);
        const __m256i b =
            _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(Load256(p + 32), group), order);
        const __m256i c =
            _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(Load256(p + 64), group), order);
        const __m256i d =
            _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(Load256(p + 96), group), order);
        // a: [ch0 ch1 | ch2 ch3] of pixels 0..7, b of 8..15, c of 16..23, d of 24..31.
        const __m256i ab02 = _mm256_unpacklo_epi64(a, b);
        const __m256i ab13 = _mm256_unpackhi_epi64(a, b);
        const __m256i cd02 = _mm256_unpacklo_epi64(c, d);
        const __m256i cd13 = _mm256_unpackhi_epi64(c, d);
        Store256(d0 + i, _mm256_permute2x128_si256(ab02, cd02, 0x20));
        Store256(d1 + i, _mm256_permute2x128_si256(ab13, cd13, 0x20));
        Store256(d2 + i, _mm256_permute2x128_si256(ab02, cd02, 0x31));
    }
    return i;
}

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

// 32 pixels of 3 bytes a step: lane 0 holds pixels 0..15, lane 1 pixels
// 16..31, so the classic three-shuffle split works on both halves at once.
size_t Split3AVX2(const uint8_t* src, size_t pixels, uint8_t* d0, uint8_t* d1, uint8_t* d2) {
    __m256i mask[3][3];
    for (int ch = 0; ch < 3; ++ch) {
        for (int part = 0; part < 3; ++part) {
            const __m128i m = Split3Mask(ch, part);
            mask[ch][part] = Join(m, m);
        }
    }
    uint8_t* dst[3] = {d0, d1, d2};
    size_t i = 0;
    for (; i + 32 <= pixels; i += 32) {
        const uint8_t* p = src + 3 * i;
        const __m256i v0 = Join(Load128(p), Load128(p + 48));
        const __m256i v1 = Join(Load128(p + 16), Load128(p + 64));
        const __m256i v2 = Join(Load128(p + 32), Load128(p + 80));
        for (int ch = 0; ch < 3; ++ch) {
            const __m256i x = _mm256_or_si256(
                _mm256_or_si256(_mm256_shuffle_epi8(v0, mask[ch][0]),
                                _mm256_shuffle_epi8(v1, mask[ch][1])),
                _mm256_shuffle_epi8(v2, mask[ch][2]));
            Store256(dst[ch] + i, x);
        }
    }
    return i;
}

// ---------------------------------------------------------------------------
// 4:2:0 -> planar RGB
// ---------------------------------------------------------------------------

// Weights * 65536, rounded: 1.402, 0.344136, 0.714136, 1.772.
constexpr int kVR = 91881;
constexpr int kUG = 22553;
constexpr int kVG = 46802;
constexpr int kUB = 116130;

inline int OffsetR(int u, int v) {
    (void)u;
    return (kVR * (v - 128) + 32768) >> 16;
}
inline int OffsetG(int u, int v) { return (-kUG * (u - 128) - kVG * (v - 128) + 32768) >> 16; }
inline int OffsetB(int u, int v) {
    (void)v;
    return (kUB * (u - 128) + 32768) >> 16;
}

// Chroma offsets of one chroma row, widened to luma width: positions 2k and
// 2k + 1 both get chroma sample k; an odd last column reuses the last one.
void ChromaOffsets(const uint8_t* u, const uint8_t* v, int cw, int w, int16_t* dr, int16_t* dg,
                   int16_t* db) {
    int cx = 0;
    const __m256i k128 = _mm256_set1_epi32(128);
    const __m256i kHalf = _mm256_set1_epi32(32768);
    const __m256i vr = _mm256_set1_epi32(kVR);
    const __m256i ug = _mm256_set1_epi32(-kUG);
    const __m256i vg = _mm256_set1_epi32(-kVG);
    const __m256i ub = _mm256_set1_epi32(kUB);
    // 8 int32 -> 16 int16, each value twice.
    auto twice = [](__m256i x) {
        const __m256i p = _mm256_packs_epi32(x, x);
        return _mm256_unpacklo_epi16(p, p);
    };
    for (; cx + 8 <= cw; cx += 8) {
        const __m256i uu = _mm256_sub_epi32(
            _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(u + cx))), k128);
        const __m256i vv = _mm256_sub_epi32(
            _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(v + cx))), k128);
        const __m256i r = _mm256_srai_epi32(_mm256_add_epi32(_mm256_mullo_epi32(vv, vr), kHalf), 16);
        const __m256i g = _mm256_srai_epi32(
            _mm256_add_epi32(_mm256_add_epi32(_mm256_mullo_epi32(uu, ug), _mm256_mullo_epi32(vv, vg)),
                             kHalf),
            16);
        const __m256i b = _mm256_srai_epi32(_mm256_add_epi32(_mm256_mullo_epi32(uu, ub), kHalf), 16);
        Store256(dr + 2 * cx, twice(r));
        Store256(dg + 2 * cx, twice(g));
        Store256(db + 2 * cx, twice(b));
    }
    for (; cx < cw; ++cx) {
        const int r = OffsetR(u[cx], v[cx]);
        const int g = OffsetG(u[cx], v[cx]);
        const int b = OffsetB(u[cx], v[cx]);
        dr[2 * cx] = dr[2 * cx + 1] = static_cast<int16_t>(r);
        dg[2 * cx] = dg[2 * cx + 1] = static_cast<int16_t>(g);
        db[2 * cx] = db[2 * cx + 1] = static_cast<int16_t>(b);
    }
    if (w & 1) {
        dr[w - 1] = dr[w - 2];
        dg[w - 1] = dg[w - 2];
        db[w - 1] = db[w - 2];
    }
}

inline uint8_t Saturate(int x) { return static_cast<uint8_t>(x < 0 ? 0 : (x > 255 ? 255 : x)); }

// out = saturate(y + offset) for one luma row and one plane.
void AddOffsets(const uint8_t* y, const int16_t* d, int w, uint8_t* out) {
    int x = 0;
    for (; x + 32 <= w; x += 32) {
        const __m256i yv = Load256(y + x);
        const __m256i lo = _mm256_add_epi16(_mm256_cvtepu8_epi16(_mm256_castsi256_si128(yv)),
                                            Load256(d + x));
        const __m256i hi = _mm256_add_epi16(_mm256_cvtepu8_epi16(_mm256_extracti128_si256(yv, 1)),
                                            Load256(d + x + 16));
        Store256(out + x, _mm256_permute4x64_epi64(_mm256_packus_epi16(lo, hi), 0xD8));
    }
    for (; x < w; ++x) out[x] = Saturate(y[x] + d[x]);
}

// ---------------------------------------------------------------------------
// Bilinear resampling
// ---------------------------------------------------------------------------

constexpr int kWeightBits = 11;
constexpr int kOne = 1 << kWeightBits;  // 2048

// Where each destination column (or row) reads: the left neighbour's index,
// the right neighbour's weight w (0..2048; the left one gets 2048 - w), and
// both weights packed as int16 pairs for madd. With src >= 2 the index is
// kept at most src - 2 so that the right neighbour is always index + 1; a
// sample on the last pixel becomes (src - 2, w = 2048), the same value.
struct Axis {
    std::vector<int32_t> index;
    std::vector<int32_t> weight;  // w
    std::vector<int32_t> pair;    // (2048 - w) | (w << 16)
};

Axis BuildAxis(int src, int dst, double lo, double hi) {
    Axis axis;
    axis.index.resize(dst);
    axis.weight.resize(dst);
    axis.pair.resize(dst);
    const double start = lo * src;
    const double step = (hi - lo) * src / dst;
    for (int d = 0; d < dst; ++d) {
        const double pos = start + (d + 0.5) * step - 0.5;
        int i;
        int w;
        if (!(pos > 0.0)) {
            i = 0;
            w = 0;
        } else if (pos >= src - 1) {
            i = src - 1;
            w = 0;
        } else {
            const double fl = std::floor(pos);
            i = static_cast<int>(fl);
            w = static_cast<int>((pos - fl) * kOne + 0.5);
            if (w == kOne) {
                ++i;
                w = 0;
            }
        }
        if (src >= 2 && i == src - 1) {
            i = src - 2;
            w = kOne;
        }
        axis.index[d] = i;
        axis.weight[d] = w;
        axis.pair[d] = static_cast<int32_t>(static_cast<uint32_t>(kOne - w) |
                                            (static_cast<uint32_t>(w) << 16));
    }
    return axis;
}

// Number of leading destination columns whose vector load stays inside the
// source row (indices never decrease along an axis).
int VectorSafePrefix(const Axis& axis, int src, int channels) {
    if (src < 2) return 0;
    // Bytes a vector body reads from the left neighbour on: 2 (one channel),
    // 8 (three or four channels).
    const int64_t reach = channels == 1 ? 2 : 8;
    int n = 0;
    const int count = static_cast<int>(axis.index.size());
    while (n < count &&
           static_cast<int64_t>(axis.index[n]) * channels + reach <= static_cast<int64_t>(src) * channels)
        ++n;
    return n;
}

// h[d * C + k] = s[i * C + k] * (2048 - w) + s[(i + 1) * C + k] * w, where
// `next` is C (or 0 for a one-pixel-wide source).
template <int C>
void HorizontalScalar(const uint8_t* s, const Axis& axis, int next, int begin, int end,
                      int32_t* h) {
    for (int d = begin; d < end; ++d) {
        const uint8_t* p = s + static_cast<size_t>(axis.index[d]) * C;
        const int b = axis.weight[d];
        const int a = kOne - b;
        for (int k = 0; k < C; ++k) h[d * C + k] = p[k] * a + p[k + next] * b;
    }
}

// One channel: the two neighbours of each column are one 16-bit load; four
// of them make a 64-bit word, two words a vector of 8 columns, which is
// widened and blended. (vpgatherdd, or a round trip through memory, is
// slower on the machines we target.)
int HorizontalAVX2_1(const uint8_t* s, const Axis& axis, int safe, int32_t* h) {
    const int32_t* index = axis.index.data();
    auto pair = [&](int d) {
        uint16_t v;
        std::memcpy(&v, s + index[d], 2);
        return static_cast<uint64_t>(v);
    };
    int d = 0;
    for (; d + 8 <= safe; d += 8) {
        const uint64_t lo = pair(d) | pair(d + 1) << 16 | pair(d + 2) << 32 | pair(d + 3) << 48;
        const uint64_t hi =
            pair(d + 4) | pair(d + 5) << 16 | pair(d + 6) << 32 | pair(d + 7) << 48;
        const __m256i px = _mm256_cvtepu8_epi16(
            _mm_set_epi64x(static_cast<long long>(hi), static_cast<long long>(lo)));
        Store256(h + d, _mm256_madd_epi16(px, Load256(axis.pair.data() + d)));
    }
    return d;
}

// Both rows of a pair at once, sharing the column indices: when downsizing
// neither row is cached, and two independent load streams keep more loads
// in flight.
int HorizontalAVX2_1x2(const uint8_t* s0, const uint8_t* s1, const Axis& axis, int safe,
                       int32_t* h0, int32_t* h1) {
    const int32_t* index = axis.index.data();
    int d = 0;
    for (; d + 8 <= safe; d += 8) {
        uint64_t a[2] = {0, 0}, b[2] = {0, 0};
        for (int k = 0; k < 8; ++k) {
            uint16_t p, q;
            std::memcpy(&p, s0 + index[d + k], 2);
            std::memcpy(&q, s1 + index[d + k], 2);
            a[k >> 2] |= static_cast<uint64_t>(p) << (16 * (k & 3));
            b[k >> 2] |= static_cast<uint64_t>(q) << (16 * (k & 3));
        }
        const __m256i wt = Load256(axis.pair.data() + d);
        const __m256i pa = _mm256_cvtepu8_epi16(
            _mm_set_epi64x(static_cast<long long>(a[1]), static_cast<long long>(a[0])));
        const __m256i pb = _mm256_cvtepu8_epi16(
            _mm_set_epi64x(static_cast<long long>(b[1]), static_cast<long long>(b[0])));
        Store256(h0 + d, _mm256_madd_epi16(pa, wt));
        Store256(h1 + d, _mm256_madd_epi16(pb, wt));
    }
    return d;
}

int HorizontalAVX2_4(const uint8_t* s, const Axis& axis, int safe, int32_t* h) {
    // Two 4-byte pixels -> (p0c0, p1c0, p0c1, p1c1, ...) as int16.
    const __m256i spread = _mm256_setr_epi8(0, -1, 4, -1, 1, -1, 5, -1, 2, -1, 6, -1, 3, -1, 7, -1,
                                            0, -1, 4, -1, 1, -1, 5, -1, 2, -1, 6, -1, 3, -1, 7,
                                            -1);
    int d = 0;
    for (; d + 2 <= safe; d += 2) {
        const __m128i lo =
            _mm_loadl_epi64(reinterpret_cast<const __m128i*>(s + 4 * static_cast<size_t>(axis.index[d])));
        const __m128i hi = _mm_loadl_epi64(
            reinterpret_cast<const __m128i*>(s + 4 * static_cast<size_t>(axis.index[d + 1])));
        const __m256i px = _mm256_shuffle_epi8(Join(lo, hi), spread);
        const __m256i wt = Join(_mm_set1_epi32(axis.pair[d]), _mm_set1_epi32(axis.pair[d + 1]));
        Store256(h + 4 * d, _mm256_madd_epi16(px, wt));
    }
    return d;
}

// Three channels: each pixel's four int32 results overlap the next pixel's
// first; the stores go in order, and the row buffer has one spare int32.
int HorizontalAVX2_3(const uint8_t* s, const Axis& axis, int safe, int32_t* h) {
    const __m256i spread = _mm256_setr_epi8(0, -1, 3, -1, 1, -1, 4, -1, 2, -1, 5, -1, -1, -1, -1,
                                            -1, 0, -1, 3, -1, 1, -1, 4, -1, 2, -1, 5, -1, -1, -1,
                                            -1, -1);
    int d = 0;
    for (; d + 2 <= safe; d += 2) {
        const __m128i lo =
            _mm_loadl_epi64(reinterpret_cast<const __m128i*>(s + 3 * static_cast<size_t>(axis.index[d])));
        const __m128i hi = _mm_loadl_epi64(
            reinterpret_cast<const __m128i*>(s + 3 * static_cast<size_t>(axis.index[d + 1])));
        const __m256i px = _mm256_shuffle_epi8(Join(lo, hi), spread);
        const __m256i wt = Join(_mm_set1_epi32(axis.pair[d]), _mm_set1_epi32(axis.pair[d + 1]));
        const __m256i r = _mm256_madd_epi16(px, wt);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(h + 3 * d), _mm256_castsi256_si128(r));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(h + 3 * d + 3), _mm256_extracti128_si256(r, 1));
    }
    return d;
}

template <int C>
void Horizontal(const uint8_t* s, const Axis& axis, int next, int safe, int32_t* h) {
    int d = 0;
    if (C == 1) d = HorizontalAVX2_1(s, axis, safe, h);
    if (C == 3) d = HorizontalAVX2_3(s, axis, safe, h);
    if (C == 4) d = HorizontalAVX2_4(s, axis, safe, h);
    HorizontalScalar<C>(s, axis, next, d, static_cast<int>(axis.index.size()), h);
}

// out = (h0 * (2048 - w) + h1 * w + 2^21) >> 22; never above 255.
void Vertical(const int32_t* h0, const int32_t* h1, int w, int n, uint8_t* out) {
    const int a = kOne - w;
    const __m256i va = _mm256_set1_epi32(a);
    const __m256i vb = _mm256_set1_epi32(w);
    const __m256i half = _mm256_set1_epi32(1 << (2 * kWeightBits - 1));
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    auto blend = [&](int at) {
        const __m256i x = _mm256_add_epi32(_mm256_mullo_epi32(Load256(h0 + at), va),
                                           _mm256_mullo_epi32(Load256(h1 + at), vb));
        return _mm256_srai_epi32(_mm256_add_epi32(x, half), 2 * kWeightBits);
    };
    int i = 0;
    for (; i + 32 <= n; i += 32) {
        const __m256i p01 = _mm256_packs_epi32(blend(i), blend(i + 8));
        const __m256i p23 = _mm256_packs_epi32(blend(i + 16), blend(i + 24));
        Store256(out + i, _mm256_permutevar8x32_epi32(_mm256_packus_epi16(p01, p23), order));
    }
    for (; i < n; ++i) {
        out[i] = static_cast<uint8_t>((h0[i] * a + h1[i] * w + (1 << (2 * kWeightBits - 1))) >>
                                      (2 * kWeightBits));
    }
}

template <int C>
void Resample(const uint8_t* src, int sw, int sh, uint8_t* dst, int dw, int dh, double x0,
              double y0, double x1, double y1) {
    const Axis xs = BuildAxis(sw, dw, x0, x1);
    const Axis ys = BuildAxis(sh, dh, y0, y1);
    const int safe = VectorSafePrefix(xs, sw, C);
    const int next = sw >= 2 ? C : 0;
    const size_t stride = static_cast<size_t>(sw) * C;
    const int row = dw * C;
    const size_t padded = static_cast<size_t>(row) + 8;
    std::vector<int32_t> buffer(2 * padded);
    int32_t* rows[2] = {buffer.data(), buffer.data() + padded};
    int have[2] = {-1, -1};
    for (int dy = 0; dy < dh; ++dy) {
        const int r0 = ys.index[dy];
        const int r1 = sh >= 2 ? r0 + 1 : r0;
        if (C == 1 && r0 != r1 && have[0] != r0 && have[1] != r0 && have[1] != r1) {
            const uint8_t* s0 = src + r0 * stride;
            const uint8_t* s1 = src + r1 * stride;
            const int d = HorizontalAVX2_1x2(s0, s1, xs, safe, rows[0], rows[1]);
            HorizontalScalar<C>(s0, xs, next, d, dw, rows[0]);
            HorizontalScalar<C>(s1, xs, next, d, dw, rows[1]);
            have[0] = r0;
            have[1] = r1;
        }
        if (have[0] != r0) {
            if (have[1] == r0) {
                std::swap(rows[0], rows[1]);
                std::swap(have[0], have[1]);
            } else {
                Horizontal<C>(src + r0 * stride, xs, next, safe, rows[0]);
                have[0] = r0;
            }
        }
        if (have[1] != r1) {
            Horizontal<C>(src + r1 * stride, xs, next, safe, rows[1]);
            have[1] = r1;
        }
        Vertical(rows[0], rows[1], ys.weight[dy], row, dst + static_cast<size_t>(dy) * row);
    }
}

}  // namespace

void SplitPlanes(const uint8_t* src, int channels, size_t pixels, uint8_t* dst0, uint8_t* dst1,
                 uint8_t* dst2) {
    const size_t done = channels == 4 ? Split4AVX2(src, pixels, dst0, dst1, dst2)
                                      : Split3AVX2(src, pixels, dst0, dst1, dst2);
    SplitScalar(src, channels, done, pixels, dst0, dst1, dst2);
}

void Yuv420ToPlanarRgb(const uint8_t* y, const uint8_t* u, const uint8_t* v, int h, int w,
                       uint8_t* r, uint8_t* g, uint8_t* b) {
    const int cw = w / 2;
    const int ch = h / 2;
    // Room for the vector stores of a whole chroma block past cw.
    const size_t len = static_cast<size_t>(w) + 32;
    std::vector<int16_t> offsets(3 * len);
    int16_t* dr = offsets.data();
    int16_t* dg = dr + len;
    int16_t* db = dg + len;
    const size_t ww = static_cast<size_t>(w);
    for (int cy = 0; cy < ch; ++cy) {
        const size_t c_at = static_cast<size_t>(cy) * cw;
        ChromaOffsets(u + c_at, v + c_at, cw, w, dr, dg, db);
        const int last = cy == ch - 1 ? h : 2 * cy + 2;
        for (int yy = 2 * cy; yy < last; ++yy) {
            const size_t at = static_cast<size_t>(yy) * ww;
            AddOffsets(y + at, dr, w, r + at);
            AddOffsets(y + at, dg, w, g + at);
            AddOffsets(y + at, db, w, b + at);
        }
    }
}

void ResampleBilinear(const uint8_t* src, int sw, int sh, uint8_t* dst, int dw, int dh,
                      int channels, double x0, double y0, double x1, double y1) {
    switch (channels) {
        case 1:
            Resample<1>(src, sw, sh, dst, dw, dh, x0, y0, x1, y1);
            break;
        case 3:
            Resample<3>(src, sw, sh, dst, dw, dh, x0, y0, x1, y1);
            break;
        default:
            Resample<4>(src, sw, sh, dst, dw, dh, x0, y0, x1, y1);
            break;
    }
}

void TurnPlane90(const uint8_t* src, int h, int w, uint8_t* dst) {
    libyuv::RotatePlane(src, w, dst, h, w, h, libyuv::kRotate90);
}

void TurnPlane180(const uint8_t* src, int h, int w, uint8_t* dst) {
    libyuv::RotatePlane(src, w, dst, w, w, h, libyuv::kRotate180);
}

void TurnPlane270(const uint8_t* src, int h, int w, uint8_t* dst) {
    libyuv::RotatePlane(src, w, dst, h, w, h, libyuv::kRotate270);
}

void MirrorPlane(const uint8_t* src, int h, int w, uint8_t* dst) {
    libyuv::MirrorPlane(src, w, dst, w, w, h);
}

}  // namespace ipk
}  // namespace kernel
}  // namespace quvas
