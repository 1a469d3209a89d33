// image_process_kernels.cpp - the 4:2:0 conversion of ImageProcessFallback
// and the sample positions of its resizer; the resize itself runs on the
// shared rows of kernels/.
#include "image_process_kernels.h"

#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>
#include <vector>

#include "kernels/planar.h"

namespace quvas {
namespace kernel {
namespace ipk {
namespace {

inline __m256i Load256(const void* p) { return _mm256_loadu_si256(static_cast<const __m256i*>(p)); }
inline void Store256(void* p, __m256i v) { _mm256_storeu_si256(static_cast<__m256i*>(p), v); }

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

// Where each destination column (or row) reads: the left neighbour's index
// and the right neighbour's weight w (0..2048; the left one gets 2048 - w).
// With src >= 2 the index is kept at most src - 2 so that the right
// neighbour is always index + 1; a sample on the last pixel becomes
// (src - 2, w = 2048), the same value.
kernels::BilinearAxis BuildAxis(int src, int dst, double lo, double hi) {
    kernels::BilinearAxis axis;
    axis.index.resize(dst);
    axis.weight.resize(dst);
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
    }
    return axis;
}

}  // namespace

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
    kernels::ResizeBilinear(src, static_cast<ptrdiff_t>(sw) * channels, sw, sh, dst,
                            static_cast<ptrdiff_t>(dw) * channels, dw, dh, channels,
                            BuildAxis(sw, dw, x0, x1), BuildAxis(sh, dh, y0, y1));
}

}  // namespace ipk
}  // namespace kernel
}  // namespace quvas
