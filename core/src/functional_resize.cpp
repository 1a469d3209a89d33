// functional_resize.cpp - bilinear resize of u8 HWC images (1, 2, 4 channels).
//
// Sampling: destination pixel centre d + 0.5 maps to source position
//   f = (d + 0.5) * src / dst - 0.5   (computed in double, rounded to float),
// s = floor(f), weight a = f - s on pixel s + 1 and 1 - a on pixel s. A
// position left of the first centre (f < 0) or at or past the last one
// (s >= src - 1) takes the edge pixel alone. This is the half-pixel-centre
// convention of the usual linear resize of CV libraries.
//
// Arithmetic, fixed point: the weight a is rounded to A = round(a * 2048)
// (11 bits) and the other tap gets 2048 - A, so that the two always sum to
// 2048 and a flat image stays flat. A source row is first blended across:
//   h = p[s] * (2048 - Ax) + p[s + 1] * Ax                        (19 bits)
// then two such rows down:
//   out = (h[sy] * (2048 - Ay) + h[sy + 1] * Ay + 2^21) >> 22
// Both passes are exact integer arithmetic; the vector and scalar paths give
// the same bytes. Against real-valued bilinear interpolation the result is
// off by at most one.
//
// Only the source rows a destination row needs are blended across, and the
// last two of them are kept, so that upscaling blends each row once.
#include <quvas/kernel/functional.h>

#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "functional_check.h"

namespace quvas {
namespace kernel {
namespace functional {

using detail::AsHWC;
using detail::Image;
using detail::Refuse;

namespace {

constexpr int kBits = 11;
constexpr int kOne = 1 << kBits;

// First tap and fixed-point weight of its right/lower neighbour for each
// destination position along one axis.
void AxisTaps(int src, int dst, std::vector<int32_t>* first, std::vector<int32_t>* weight) {
    first->resize(dst);
    weight->resize(dst);
    const double scale = static_cast<double>(src) / dst;
    for (int d = 0; d < dst; ++d) {
        float f = static_cast<float>((d + 0.5) * scale - 0.5);
        int s = static_cast<int>(std::floor(f));
        f -= static_cast<float>(s);
        if (s < 0) {
            s = 0;
            f = 0.f;
        }
        if (s >= src - 1) {
            s = src - 1;
            f = 0.f;
        }
        int a = static_cast<int>(std::lround(f * kOne));
        // Keep the two taps adjacent and inside the image: the last pixel
        // alone is the second tap of the one before it at full weight.
        if (s == src - 1 && src > 1) {
            s = src - 2;
            a = kOne;
        }
        (*first)[d] = s;
        (*weight)[d] = a;
    }
}

// Horizontal pass, plain: any row, any position.
template <int C>
void BlendAcrossScalar(const uint8_t* row, int src_w, const int32_t* first, const int32_t* weight,
                       int begin, int end, int32_t* out) {
    for (int d = begin; d < end; ++d) {
        const size_t s0 = static_cast<size_t>(first[d]) * C;
        const size_t s1 = static_cast<size_t>(std::min(first[d] + 1, src_w - 1)) * C;
        const int a = weight[d];
        for (int ch = 0; ch < C; ++ch) {
            out[d * C + ch] = row[s0 + ch] * (kOne - a) + row[s1 + ch] * a;
        }
    }
}

// Horizontal pass, AVX2. `offset` holds byte offsets first * C; `pairs`
// holds one (2048 - A) | A << 16 per output value (per pixel and channel).
// Both taps of a pixel are adjacent, so one load fetches them: 2 bytes for
// one channel, 4 for two, 8 for four. Plain loads and inserts beat the
// gather instructions on the processors we run on. Returns where the plain
// loop must take over.
template <int C>
int BlendAcrossAVX2(const uint8_t* row, const int32_t* offset, const int32_t* pairs, int dst_w,
                    int32_t* out);

template <typename T>
inline int Load(const uint8_t* p) {
    T v;
    std::memcpy(&v, p, sizeof(v));
    return static_cast<int>(v);
}

template <>
int BlendAcrossAVX2<1>(const uint8_t* row, const int32_t* offset, const int32_t* pairs, int dst_w,
                       int32_t* out) {
    int d = 0;
    for (; d + 8 <= dst_w; d += 8) {
        const int32_t* o = offset + d;
        // (p[s], p[s + 1]) of 8 pixels as 16-bit pairs.
        __m128i v = _mm_cvtsi32_si128(Load<uint16_t>(row + o[0]));
        v = _mm_insert_epi16(v, Load<uint16_t>(row + o[1]), 1);
        v = _mm_insert_epi16(v, Load<uint16_t>(row + o[2]), 2);
        v = _mm_insert_epi16(v, Load<uint16_t>(row + o[3]), 3);
        v = _mm_insert_epi16(v, Load<uint16_t>(row + o[4]), 4);
        v = _mm_insert_epi16(v, Load<uint16_t>(row + o[5]), 5);
        v = _mm_insert_epi16(v, Load<uint16_t>(row + o[6]), 6);
        v = _mm_insert_epi16(v, Load<uint16_t>(row + o[7]), 7);
        const __m256i w = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(pairs + d));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + d),
                            _mm256_madd_epi16(_mm256_cvtepu8_epi16(v), w));
    }
    return d;
}

template <>
int BlendAcrossAVX2<2>(const uint8_t* row, const int32_t* offset, const int32_t* pairs, int dst_w,
                       int32_t* out) {
    // Per pixel (c0 s, c1 s, c0 s+1, c1 s+1) -> (c0 s, c0 s+1, c1 s, c1 s+1).
    const __m256i order = _mm256_setr_epi8(0, 1, 4, 5, 2, 3, 6, 7, 8, 9, 12, 13, 10, 11, 14, 15,
                                           0, 1, 4, 5, 2, 3, 6, 7, 8, 9, 12, 13, 10, 11, 14, 15);
    int d = 0;
    for (; d + 4 <= dst_w; d += 4) {
        const int32_t* o = offset + d;
        __m128i v = _mm_cvtsi32_si128(Load<uint32_t>(row + o[0]));
        v = _mm_insert_epi32(v, Load<uint32_t>(row + o[1]), 1);
        v = _mm_insert_epi32(v, Load<uint32_t>(row + o[2]), 2);
        v = _mm_insert_epi32(v, Load<uint32_t>(row + o[3]), 3);
        const __m256i a = _mm256_shuffle_epi8(_mm256_cvtepu8_epi16(v), order);
        const __m256i w = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(pairs + d * 2));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + d * 2), _mm256_madd_epi16(a, w));
    }
    return d;
}

template <>
int BlendAcrossAVX2<4>(const uint8_t* row, const int32_t* offset, const int32_t* pairs, int dst_w,
                       int32_t* out) {
    // Per pixel (B G R A at s, B G R A at s+1) -> (B B G G R R A A).
    const __m256i order = _mm256_setr_epi8(0, 1, 8, 9, 2, 3, 10, 11, 4, 5, 12, 13, 6, 7, 14, 15,
                                           0, 1, 8, 9, 2, 3, 10, 11, 4, 5, 12, 13, 6, 7, 14, 15);
    int d = 0;
    for (; d + 2 <= dst_w; d += 2) {
        const __m128i lo = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(row + offset[d]));
        const __m128i hi = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(row + offset[d + 1]));
        const __m256i a = _mm256_shuffle_epi8(_mm256_cvtepu8_epi16(_mm_unpacklo_epi64(lo, hi)), order);
        const __m256i w = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(pairs + d * 4));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + d * 4), _mm256_madd_epi16(a, w));
    }
    return d;
}

// Vertical pass: out[i] = (r0[i] * b0 + r1[i] * b1 + 2^21) >> 22.
void BlendDown(const int32_t* r0, const int32_t* r1, int b0, int b1, int n, uint8_t* out) {
    constexpr int kShift = 2 * kBits;
    constexpr int kRound = 1 << (kShift - 1);
    const __m256i vb0 = _mm256_set1_epi32(b0);
    const __m256i vb1 = _mm256_set1_epi32(b1);
    const __m256i round = _mm256_set1_epi32(kRound);
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    int i = 0;
    for (; i + 32 <= n; i += 32) {
        __m256i s[4];
        for (int k = 0; k < 4; ++k) {
            const __m256i x0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(r0 + i + 8 * k));
            const __m256i x1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(r1 + i + 8 * k));
            const __m256i sum = _mm256_add_epi32(_mm256_mullo_epi32(x0, vb0),
                                                 _mm256_mullo_epi32(x1, vb1));
            s[k] = _mm256_srai_epi32(_mm256_add_epi32(sum, round), kShift);
        }
        const __m256i bytes =
            _mm256_packus_epi16(_mm256_packs_epi32(s[0], s[1]), _mm256_packs_epi32(s[2], s[3]));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + i),
                            _mm256_permutevar8x32_epi32(bytes, order));
    }
    for (; i < n; ++i) out[i] = static_cast<uint8_t>((r0[i] * b0 + r1[i] * b1 + kRound) >> kShift);
}

template <int C>
void ResizeBilinear(const Image& src, const Image& dst) {
    if (src.w == dst.w && src.h == dst.h) {
        std::memcpy(dst.data, src.data, src.bytes());
        return;
    }
    std::vector<int32_t> x_first, x_weight, y_first, y_weight;
    AxisTaps(src.w, dst.w, &x_first, &x_weight);
    AxisTaps(src.h, dst.h, &y_first, &y_weight);

    const int n = dst.w * C;  // values per destination row
    // The vector loads read both taps at once, so they need two pixels per
    // row; offsets are kept in 32 bits.
    const bool vector = src.w >= 2 && src.stride() < static_cast<size_t>(1) << 30;
    std::vector<int32_t> offset, pairs;
    if (vector) {
        offset.resize(dst.w);
        pairs.resize(n);
        for (int d = 0; d < dst.w; ++d) {
            offset[d] = x_first[d] * C;
            const int32_t a = x_weight[d];
            for (int ch = 0; ch < C; ++ch) pairs[d * C + ch] = (kOne - a) | (a << 16);
        }
    }

    // Two blended rows and the source rows they hold.
    std::vector<int32_t> buffer(2 * static_cast<size_t>(n));
    int32_t* rows[2] = {buffer.data(), buffer.data() + n};
    int held[2] = {-1, -1};
    auto blend_across = [&](int sy, int32_t* out) {
        const uint8_t* row = src.row(sy);
        int begin = 0;
        if (vector) {
            begin = BlendAcrossAVX2<C>(row, offset.data(), pairs.data(), dst.w, out);
        }
        BlendAcrossScalar<C>(row, src.w, x_first.data(), x_weight.data(), begin, dst.w, out);
    };
    for (int dy = 0; dy < dst.h; ++dy) {
        const int sy0 = y_first[dy];
        const int sy1 = std::min(sy0 + 1, src.h - 1);
        int k0 = held[0] == sy0 ? 0 : held[1] == sy0 ? 1 : -1;
        int k1 = held[0] == sy1 ? 0 : held[1] == sy1 ? 1 : -1;
        if (k0 < 0) {
            k0 = k1 == 0 ? 1 : 0;
            blend_across(sy0, rows[k0]);
            held[k0] = sy0;
        }
        if (k1 < 0) {
            k1 = 1 - k0;
            blend_across(sy1, rows[k1]);
            held[k1] = sy1;
        }
        const int a = y_weight[dy];
        BlendDown(rows[k0], rows[k1], kOne - a, a, n, dst.row(dy));
    }
}

template <int C>
void Resize(const char* kernel, const TensorPtr& src, const TensorPtr& dst) {
    Image s, d;
    if (!AsHWC(src, &s) || s.c != C) {
        return Refuse(kernel, src, dst,
                      C == 1   ? "src must be a u8 HWC image of 1 channel"
                      : C == 2 ? "src must be a u8 HWC image of 2 channels"
                               : "src must be a u8 HWC image of 4 channels");
    }
    if (!AsHWC(dst, &d) || d.c != C) {
        return Refuse(kernel, src, dst,
                      C == 1   ? "dst must be a u8 HWC image of 1 channel"
                      : C == 2 ? "dst must be a u8 HWC image of 2 channels"
                               : "dst must be a u8 HWC image of 4 channels");
    }
    if (detail::Overlap(s, d)) return Refuse(kernel, src, dst, "src and dst share storage");
    // Blended rows are indexed with int.
    if (d.stride() > static_cast<size_t>(std::numeric_limits<int>::max())) {
        return Refuse(kernel, src, dst, "dst rows are too long");
    }
    ResizeBilinear<C>(s, d);
}

}  // namespace

void F_Resize_Bilinear_HWC_U8_C1_Fallback(const TensorPtr& src, const TensorPtr& dst) {
    Resize<1>("F_Resize_Bilinear_HWC_U8_C1_Fallback", src, dst);
}

void F_Resize_Bilinear_HWC_U8_C2_Fallback(const TensorPtr& src, const TensorPtr& dst) {
    Resize<2>("F_Resize_Bilinear_HWC_U8_C2_Fallback", src, dst);
}

void F_Resize_Bilinear_HWC_U8_C4_Fallback(const TensorPtr& src, const TensorPtr& dst) {
    Resize<4>("F_Resize_Bilinear_HWC_U8_C4_Fallback", src, dst);
}

}  // namespace functional
}  // namespace kernel
}  // namespace quvas
