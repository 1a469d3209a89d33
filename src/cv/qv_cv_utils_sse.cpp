// qv_cv_utils_sse.cpp - vectorised fixed-point affine warps, float-to-byte
// mask conversion, and the tensor processing entry points that drive the
// core's image-process operations.
#include <qvn_kit/qvn_kit.hpp>

#include <quvas/utility/log.h>

#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "../kit/qv_internal.h"

// ===========================================================================
// Vectorised affine warps
// ===========================================================================

namespace quvas {
namespace kit {

// Internals live in their own namespace: other parts of this file keep
// helpers of their own in the same anonymous namespace.
namespace {
namespace warp_impl {

// Positions and 16-bit fixed-point weights of one block of eight destination
// columns. Every kernel shares this; only the per-pixel blend differs.
//
// Order of the single-precision operations, fixed because it decides the
// rounded weights bit for bit:
//   sx = fma(col, M0, bx), sy = fma(col, M3, by), bx = fma(row, M1, M2),
//   by = fma(row, M4, M5); ix, iy truncated toward zero; fx = sx - ix,
//   fy = sy - iy; w = round_half_even((a * b) * 65536) with a, b the two
//   factors (1 - fx or fx, 1 - fy or fy), the product rounded once and no
//   fused operation. Scaling by 65536 is exact, so it is immaterial whether
//   it is applied before or after the product of the two factors.
struct WarpBlock {
    __m256i ix, iy, w00, w10, w01, w11, inside;
};

inline WarpBlock warp_block(int col0, __m256 m0, __m256 m3, __m256 bx, __m256 by,
                            __m256i src_w_minus1, __m256i src_h_minus1) {
    const __m256i cols = _mm256_add_epi32(_mm256_set1_epi32(col0), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
    const __m256 xs = _mm256_cvtepi32_ps(cols);
    const __m256 sx = _mm256_fmadd_ps(xs, m0, bx);
    const __m256 sy = _mm256_fmadd_ps(xs, m3, by);
    WarpBlock b;
    b.ix = _mm256_cvttps_epi32(sx);
    b.iy = _mm256_cvttps_epi32(sy);
    const __m256 fx = _mm256_sub_ps(sx, _mm256_cvtepi32_ps(b.ix));
    const __m256 fy = _mm256_sub_ps(sy, _mm256_cvtepi32_ps(b.iy));
    const __m256 one = _mm256_set1_ps(1.0f);
    const __m256 scale = _mm256_set1_ps(65536.0f);
    const __m256 gx = _mm256_sub_ps(one, fx);
    const __m256 gy = _mm256_sub_ps(one, fy);
    b.w00 = _mm256_cvtps_epi32(_mm256_mul_ps(_mm256_mul_ps(gx, gy), scale));
    b.w10 = _mm256_cvtps_epi32(_mm256_mul_ps(_mm256_mul_ps(fx, gy), scale));
    b.w01 = _mm256_cvtps_epi32(_mm256_mul_ps(_mm256_mul_ps(gx, fy), scale));
    b.w11 = _mm256_cvtps_epi32(_mm256_mul_ps(_mm256_mul_ps(fx, fy), scale));
    // Inside: ix >= 0, ix + 1 < srcWidth, iy >= 0, iy + 1 < srcHeight. Out of
    // range positions and NaN truncate to INT_MIN and fail the first test.
    const __m256i minus1 = _mm256_set1_epi32(-1);
    const __m256i in_x = _mm256_and_si256(_mm256_cmpgt_epi32(b.ix, minus1), _mm256_cmpgt_epi32(src_w_minus1, b.ix));
    const __m256i in_y = _mm256_and_si256(_mm256_cmpgt_epi32(b.iy, minus1), _mm256_cmpgt_epi32(src_h_minus1, b.iy));
    b.inside = _mm256_and_si256(in_x, in_y);
    return b;
}

// ---- one channel --------------------------------------------------------

inline void warp_pixel_c1(const unsigned char* p, ptrdiff_t stride, int w00, int w10, int w01, int w11,
                          unsigned char* out) {
    const int sum = p[0] * w00 + p[1] * w10 + p[stride] * w01 + p[stride + 1] * w11 + 32768;
    *out = static_cast<unsigned char>(sum >> 16);  // low byte, no clamp
}

// Selects byte k of every 32-bit lane into that lane's low byte.
inline __m256i lane_byte(__m256i v, int k) {
    const int z = static_cast<int>(0x80808000u);
    return _mm256_shuffle_epi8(v, _mm256_setr_epi32(z | k, z | (4 + k), z | (8 + k), z | (12 + k),
                                                    z | k, z | (4 + k), z | (8 + k), z | (12 + k)));
}

// Eight one-channel pixels wholly inside. A 32-bit read at the top-left
// sample gives s00 and s10 in bytes 0 and 1; the lower row is read two bytes
// early (bytes 2 and 3), so neither read runs past the source's last byte.
inline void warp_block8_c1(const unsigned char* src, int stride, const WarpBlock& b, unsigned char* out) {
    const __m256i off = _mm256_add_epi32(_mm256_mullo_epi32(b.iy, _mm256_set1_epi32(stride)), b.ix);
    const __m256i t = _mm256_i32gather_epi32(reinterpret_cast<const int*>(src), off, 1);
    const __m256i u = _mm256_i32gather_epi32(reinterpret_cast<const int*>(src + stride - 2), off, 1);
    __m256i sum = _mm256_add_epi32(_mm256_mullo_epi32(lane_byte(t, 0), b.w00), _mm256_mullo_epi32(lane_byte(t, 1), b.w10));
    sum = _mm256_add_epi32(sum, _mm256_mullo_epi32(lane_byte(u, 2), b.w01));
    sum = _mm256_add_epi32(sum, _mm256_mullo_epi32(lane_byte(u, 3), b.w11));
    const __m256i r = _mm256_srai_epi32(_mm256_add_epi32(sum, _mm256_set1_epi32(32768)), 16);
    // Low byte of each result, no clamp; four bytes per 128-bit half.
    const __m256i pick = _mm256_shuffle_epi8(
        r, _mm256_setr_epi8(0, 4, 8, 12, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1,
                            0, 4, 8, 12, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1));
    const __m256i q = _mm256_permutevar8x32_epi32(pick, _mm256_setr_epi32(0, 4, 0, 0, 0, 0, 0, 0));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm256_castsi256_si128(q));
}

// ---- two to four channels: one pixel per 256-bit vector ------------------
//
// Two 8-byte reads fetch a pixel's neighbourhood (16-byte reads measured
// slower on a whole-frame turn): the top row from the
// top-left sample on, the lower row ending at the bottom-right sample's last
// byte (8 - 2N bytes early), so no read leaves the source. One byte shuffle
// spreads the channels of the left samples (s00 | s01) over the 32-bit lanes
// of the two halves, another those of the right samples (s10 | s11); lanes
// past N hold zero. Two multiplies by (w00 | w01) and (w10 | w11) and a sum
// of the halves give the channel sums side by side.

struct alignas(32) ByteMask {
    int8_t v[32];
};

template <int N>
constexpr ByteMask pixel_mask(bool right) {
    ByteMask m{};
    const int back = 8 - 2 * N;
    for (int half = 0; half < 2; ++half)
        for (int lane = 0; lane < 4; ++lane)
            for (int k = 0; k < 4; ++k) {
                int v = -128;  // high bit: the byte becomes zero
                if (k == 0 && lane < N) v = (half == 0 ? 0 : 8 + back) + (right ? N : 0) + lane;
                m.v[half * 16 + lane * 4 + k] = static_cast<int8_t>(v);
            }
    return m;
}

template <int N>
struct PixelMasks {
    static constexpr ByteMask left = pixel_mask<N>(false);
    static constexpr ByteMask right = pixel_mask<N>(true);
};

// Channel products of one pixel: (s00 * w00 | s01 * w01) + (s10 * w10 | s11 * w11),
// each half N lanes wide, zero beyond.
template <int N>
inline __m256i pixel_products(const unsigned char* p, ptrdiff_t stride, __m256i w_left, __m256i w_right) {
    constexpr int kBack = 8 - 2 * N;
    const __m128i top = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p));
    const __m128i bottom = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p + stride - kBack));
    const __m256i both = _mm256_broadcastsi128_si256(_mm_unpacklo_epi64(top, bottom));
    const __m256i left = _mm256_shuffle_epi8(both, _mm256_load_si256(reinterpret_cast<const __m256i*>(PixelMasks<N>::left.v)));
    const __m256i right = _mm256_shuffle_epi8(both, _mm256_load_si256(reinterpret_cast<const __m256i*>(PixelMasks<N>::right.v)));
    return _mm256_add_epi32(_mm256_mullo_epi32(left, w_left), _mm256_mullo_epi32(right, w_right));
}

// One pixel finished on its own (blocks at the source's edge, row tails).
template <int N>
inline void warp_pixel_vec(const unsigned char* p, ptrdiff_t stride, __m256i w_left, __m256i w_right,
                           unsigned char* out) {
    const __m256i prod = pixel_products<N>(p, stride, w_left, w_right);
    __m128i sum = _mm_add_epi32(_mm256_castsi256_si128(prod), _mm256_extracti128_si256(prod, 1));
    sum = _mm_srai_epi32(_mm_add_epi32(sum, _mm_set1_epi32(32768)), 16);
    if (N == 4) {
        // Four channels side by side, narrowed with saturation to 0..255.
        _mm_storeu_si32(out, _mm_packus_epi16(_mm_packs_epi32(sum, sum), _mm_setzero_si128()));
    } else {
        // Low byte of each channel's sum, no clamp; exactly N bytes stored.
        const uint32_t v = static_cast<uint32_t>(_mm_cvtsi128_si32(
            _mm_shuffle_epi8(sum, _mm_setr_epi8(0, 4, 8, 12, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1))));
        std::memcpy(out, &v, N);
    }
}

// Sums of the halves of two pixels' products, rounded and shifted: (a | b).
inline __m256i finish_pair(__m256i a, __m256i b) {
    const __m256i sum = _mm256_add_epi32(_mm256_permute2x128_si256(a, b, 0x20), _mm256_permute2x128_si256(a, b, 0x31));
    return _mm256_srai_epi32(_mm256_add_epi32(sum, _mm256_set1_epi32(32768)), 16);
}

// Eight pixels' products to 8 x 4 bytes in pixel order. The four-channel
// kernel narrows with saturation; the others keep each result's low byte.
template <int N>
inline __m256i finish_block(const __m256i* prod) {
    __m256i r[4];
    for (int k = 0; k < 4; ++k) {
        r[k] = finish_pair(prod[2 * k], prod[2 * k + 1]);
        if (N != 4) r[k] = _mm256_and_si256(r[k], _mm256_set1_epi32(0xff));
    }
    // packs: (p0 p2 | p1 p3) and (p4 p6 | p5 p7); packus: (p0 p2 p4 p6 | p1 p3 p5 p7).
    const __m256i bytes = _mm256_packus_epi16(_mm256_packs_epi32(r[0], r[1]), _mm256_packs_epi32(r[2], r[3]));
    return _mm256_permutevar8x32_epi32(bytes, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7));
}

template <int N>
inline void store_block(__m256i px, unsigned char* out);

template <>
inline void store_block<4>(__m256i px, unsigned char* out) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), px);
}

template <>
inline void store_block<3>(__m256i px, unsigned char* out) {
    // Drop every fourth byte; exactly 24 bytes stored.
    const __m256i packed = _mm256_shuffle_epi8(
        px, _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1,
                             0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1));
    const __m128i lo = _mm256_castsi256_si128(packed);
    const __m128i hi = _mm256_extracti128_si256(packed, 1);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), lo);
    _mm_storeu_si32(out + 8, _mm_srli_si128(lo, 8));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out + 12), hi);
    _mm_storeu_si32(out + 20, _mm_srli_si128(hi, 8));
}

template <>
inline void store_block<2>(__m256i px, unsigned char* out) {
    const __m256i packed = _mm256_shuffle_epi8(
        px, _mm256_setr_epi8(0, 1, 4, 5, 8, 9, 12, 13, -1, -1, -1, -1, -1, -1, -1, -1,
                             0, 1, 4, 5, 8, 9, 12, 13, -1, -1, -1, -1, -1, -1, -1, -1));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out),
                     _mm256_castsi256_si128(_mm256_permute4x64_epi64(packed, 0x08)));
}

template <int N>
inline void warp_border_pixel(unsigned char* out, unsigned int border) {
    if (N == 1) return;  // the one-channel kernel leaves outside pixels alone
    for (int c = 0; c < N; ++c) out[c] = static_cast<unsigned char>(border >> (8 * c));
}

// Weights of pixel i as (w00 x4 | w01 x4) and (w10 x4 | w11 x4). `lo` and
// `hi` are the 32-bit interleavings of the two weight vectors: pixels
// 0, 1, 4, 5 sit in `lo`, pixels 2, 3, 6, 7 in `hi`.
alignas(32) constexpr int32_t kPairIndex[4][8] = {
    {0, 0, 0, 0, 1, 1, 1, 1}, {2, 2, 2, 2, 3, 3, 3, 3}, {4, 4, 4, 4, 5, 5, 5, 5}, {6, 6, 6, 6, 7, 7, 7, 7}};

inline __m256i pixel_weights(__m256i lo, __m256i hi, int i) {
    const __m256i idx = _mm256_load_si256(reinterpret_cast<const __m256i*>(kPairIndex[(i & 1) | ((i >> 1) & 2)]));
    return _mm256_permutevar8x32_epi32((i & 2) ? hi : lo, idx);
}

// One block of eight one-channel pixels, at least one of them inside.
inline void warp_block_c1(const unsigned char* src, int stride, const WarpBlock& b, __m256i offs, int mask,
                          int count, unsigned char* o) {
    if (mask == 0xff && count == 8) {
        warp_block8_c1(src, stride, b, o);
        return;
    }
    alignas(32) int32_t off[8], w00[8], w10[8], w01[8], w11[8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(off), offs);
    _mm256_store_si256(reinterpret_cast<__m256i*>(w00), b.w00);
    _mm256_store_si256(reinterpret_cast<__m256i*>(w10), b.w10);
    _mm256_store_si256(reinterpret_cast<__m256i*>(w01), b.w01);
    _mm256_store_si256(reinterpret_cast<__m256i*>(w11), b.w11);
    for (int i = 0; i < count; ++i)  // outside pixels are left alone
        if ((mask >> i) & 1) warp_pixel_c1(src + off[i], stride, w00[i], w10[i], w01[i], w11[i], o + i);
}

// One block of eight pixels of N = 2..4 channels, at least one inside.
template <int N>
inline void warp_block_cn(const unsigned char* src, int stride, const WarpBlock& b, __m256i offs, int mask,
                          int count, unsigned int border, unsigned char* o) {
    alignas(32) int32_t off[8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(off), offs);
    const __m256i l_lo = _mm256_unpacklo_epi32(b.w00, b.w01), l_hi = _mm256_unpackhi_epi32(b.w00, b.w01);
    const __m256i r_lo = _mm256_unpacklo_epi32(b.w10, b.w11), r_hi = _mm256_unpackhi_epi32(b.w10, b.w11);
    if (mask == 0xff && count == 8) {
        __m256i prod[8];
#pragma GCC unroll 8
        for (int i = 0; i < 8; ++i)
            prod[i] = pixel_products<N>(src + off[i], stride, pixel_weights(l_lo, l_hi, i), pixel_weights(r_lo, r_hi, i));
        store_block<N>(finish_block<N>(prod), o);
        return;
    }
    // Straddles the edge of the source, or the end of the row.
    for (int i = 0; i < count; ++i) {
        if ((mask >> i) & 1) {
            warp_pixel_vec<N>(src + off[i], stride, pixel_weights(l_lo, l_hi, i), pixel_weights(r_lo, r_hi, i),
                              o + i * N);
        } else {
            warp_border_pixel<N>(o + i * N, border);
        }
    }
}

// The driver shared by the four kernels: rows, blocks of eight columns, and
// the split of blocks into wholly outside / wholly inside / mixed.
template <int N>
void warp_affine_kernel(int srcHeight, int srcWidth, int srcStride, int dstHeight, int dstWidth,
                        int dstStride, unsigned char* dst, const unsigned char* src, const float* M,
                        unsigned int border) {
    if (N == 1 && (border & 0xffu) != 0 && dstHeight > 0) {
        std::memset(dst, static_cast<int>(border & 0xffu),
                    static_cast<size_t>(dstHeight) * static_cast<size_t>(dstStride));
    }
    const __m256 m0 = _mm256_set1_ps(M[0]);
    const __m256 m3 = _mm256_set1_ps(M[3]);
    const __m256i w_lim = _mm256_set1_epi32(srcWidth - 1);
    const __m256i h_lim = _mm256_set1_epi32(srcHeight - 1);
    const __m256i stride_v = _mm256_set1_epi32(srcStride);
    const __m256i pixel_v = _mm256_set1_epi32(N);
    unsigned char fill[8 * N] = {};
    for (int i = 0; i < 8; ++i) warp_border_pixel<N>(fill + i * N, border);

    for (int y = 0; y < dstHeight; ++y) {
        const float row = static_cast<float>(y);
        const __m256 bx = _mm256_set1_ps(std::fma(row, M[1], M[2]));
        const __m256 by = _mm256_set1_ps(std::fma(row, M[4], M[5]));
        unsigned char* out = dst + static_cast<ptrdiff_t>(y) * dstStride;
        for (int j = 0; j < dstWidth; j += 8) {
            const WarpBlock b = warp_block(j, m0, m3, bx, by, w_lim, h_lim);
            const int mask = _mm256_movemask_ps(_mm256_castsi256_ps(b.inside));
            const int count = std::min(8, dstWidth - j);
            unsigned char* o = out + static_cast<ptrdiff_t>(j) * N;
            if (mask == 0) {  // wholly outside the source
                if (N != 1) std::memcpy(o, fill, static_cast<size_t>(count) * N);
                continue;
            }
            // Offsets of the top-left samples (wrapped garbage where outside, never used).
            const __m256i offs = _mm256_add_epi32(_mm256_mullo_epi32(b.iy, stride_v), _mm256_mullo_epi32(b.ix, pixel_v));
            if constexpr (N == 1) {
                warp_block_c1(src, srcStride, b, offs, mask, count, o);
            } else {
                warp_block_cn<N>(src, srcStride, b, offs, mask, count, border, o);
            }
        }
    }
}

}  // namespace warp_impl
}  // namespace

void warpaffine_linear_SSE_C1(int srcHeight, int srcWidth, int srcStride, int /*channels*/,
                              int dstHeight, int dstWidth, int dstStride, unsigned char* dst,
                              const unsigned char* src, const float* M, unsigned int border) {
    warp_impl::warp_affine_kernel<1>(srcHeight, srcWidth, srcStride, dstHeight, dstWidth, dstStride, dst, src, M, border);
}

void warpaffine_linear_SSE_C2(int srcHeight, int srcWidth, int srcStride, int /*channels*/,
                              int dstHeight, int dstWidth, int dstStride, unsigned char* dst,
                              const unsigned char* src, const float* M, unsigned int border) {
    warp_impl::warp_affine_kernel<2>(srcHeight, srcWidth, srcStride, dstHeight, dstWidth, dstStride, dst, src, M, border);
}

void warpaffine_linear_SSE_C3(int srcHeight, int srcWidth, int srcStride, int /*channels*/,
                              int dstHeight, int dstWidth, int dstStride, unsigned char* dst,
                              const unsigned char* src, const float* M, unsigned int border) {
    warp_impl::warp_affine_kernel<3>(srcHeight, srcWidth, srcStride, dstHeight, dstWidth, dstStride, dst, src, M, border);
}

void warpaffine_linear_SSE_C4(int srcHeight, int srcWidth, int srcStride, int /*channels*/,
                              int dstHeight, int dstWidth, int dstStride, unsigned char* dst,
                              const unsigned char* src, const float* M, unsigned int border) {
    warp_impl::warp_affine_kernel<4>(srcHeight, srcWidth, srcStride, dstHeight, dstWidth, dstStride, dst, src, M, border);
}

void AffineInvQvimageBilinearSSE(const QVN_Image* src, QVN_Image* dst, unsigned int border, float* M) {
    const int W = src->width, H = src->height;
    const int w = dst->width, h = dst->height;
    // Both chroma planes are half size: same linear part, half the translation.
    const float Mc[6] = {M[0], M[1], M[2] * 0.5f, M[3], M[4], M[5] * 0.5f};
    const unsigned int chroma1 = (border >> 8) & 0xffu;   // first chroma component
    const unsigned int chroma2 = (border >> 16) & 0xffu;  // second chroma component
    const size_t sn = static_cast<size_t>(W) * H;
    const size_t dn = static_cast<size_t>(w) * h;
    switch (src->pix_fmt) {
        case QVN_PIX_FMT_BGRA8888:
        case QVN_PIX_FMT_RGBA8888:
            warpaffine_linear_SSE_C4(H, W, 4 * W, 4, h, w, 4 * w, dst->data, src->data, M, border);
            break;
        case QVN_PIX_FMT_RGB888:
        case QVN_PIX_FMT_BGR888:
            warpaffine_linear_SSE_C3(H, W, 3 * W, 3, h, w, 3 * w, dst->data, src->data, M, border);
            break;
        case QVN_PIX_FMT_GRAY8:
            warpaffine_linear_SSE_C1(H, W, W, 1, h, w, w, dst->data, src->data, M, border);
            break;
        case QVN_PIX_FMT_YUV420SP_C:
        case QVN_PIX_FMT_YUV420SP_D:
            warpaffine_linear_SSE_C1(H, W, W, 1, h, w, w, dst->data, src->data, M, border);
            warpaffine_linear_SSE_C2(H / 2, W / 2, 2 * (W / 2), 2, h / 2, w / 2, 2 * (w / 2),
                                     dst->data + dn, src->data + sn, Mc, chroma1 | (chroma2 << 8));
            break;
        case QVN_PIX_FMT_YUV420_A: {
            warpaffine_linear_SSE_C1(H, W, W, 1, h, w, w, dst->data, src->data, M, border);
            const size_t sq = static_cast<size_t>(W / 2) * (H / 2);
            const size_t dq = static_cast<size_t>(w / 2) * (h / 2);
            warpaffine_linear_SSE_C1(H / 2, W / 2, W / 2, 1, h / 2, w / 2, w / 2, dst->data + dn,
                                     src->data + sn, Mc, chroma1);
            warpaffine_linear_SSE_C1(H / 2, W / 2, W / 2, 1, h / 2, w / 2, w / 2, dst->data + dn + dq,
                                     src->data + sn + sq, Mc, chroma2);
            break;
        }
        default:
            quvas::utility::Log(QVN_LOG_LEVEL_ERROR,
                                "unsupported image pixel format for affine_inv_qvimage_bilinear");
            break;
    }
}

}  // namespace kit
}  // namespace quvas

// ===========================================================================
// Float-to-byte output conversion
// ===========================================================================

// Both converters run whole 16-value blocks while the block start is below n,
// so they read and write up to 15 elements past n (callers size both buffers
// for n rounded up to 16). The last n mod 16 elements are then recomputed by
// a scalar rule that converts differently (truncation instead of rounding);
// those bytes are the results callers have always received.

namespace quvas {
namespace kit {

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
    const __m128 t = _mm_fmadd_ps(_mm_sub_ps(_mm_setzero_ps(), x), _mm_set1_ps(internal::kExpScale),
                                  _mm_set1_ps(internal::kExpBias));
    const __m128i k = _mm_cvtps_epi32(t);
    const __m128i zero = _mm_setzero_si128();
    const __m128 e = _mm_movelh_ps(_mm_cvtpd_ps(_mm_castsi128_pd(_mm_unpacklo_epi32(zero, k))),
                                   _mm_cvtpd_ps(_mm_castsi128_pd(_mm_unpackhi_epi32(zero, k))));
    const __m128 one = _mm_set1_ps(1.0f);
    const __m128 s = _mm_div_ps(one, _mm_add_ps(e, one));
    return _mm_cvtps_epi32(_mm_mul_ps(s, _mm_set1_ps(255.0f)));
}

}  // namespace

void float01toUchar0255SSE(const float* src, unsigned char* dst, int n) {
    for (int i = 0; i < n; i += 16) {
        const __m128i a = Scale255(_mm_loadu_ps(src + i));
        const __m128i b = Scale255(_mm_loadu_ps(src + i + 4));
        const __m128i c = Scale255(_mm_loadu_ps(src + i + 8));
        const __m128i d = Scale255(_mm_loadu_ps(src + i + 12));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i), PackToBytes(a, b, c, d));
    }
    const int rest = n % 16;
    for (int i = n - rest; i < n; ++i) {
        // Truncation toward zero; cvttss2si gives INT32_MIN when out of range.
        const int v = _mm_cvttss_si32(_mm_set_ss(255.0f * src[i]));
        dst[i] = static_cast<unsigned char>(v < 0 ? 0 : (v > 255 ? 255 : v));
    }
}

void sigmoid_float01toUchar0255SSE(const float* src, unsigned char* dst, int n) {
    for (int i = 0; i < n; i += 16) {
        const __m128i a = Sigmoid255(_mm_loadu_ps(src + i));
        const __m128i b = Sigmoid255(_mm_loadu_ps(src + i + 4));
        const __m128i c = Sigmoid255(_mm_loadu_ps(src + i + 8));
        const __m128i d = Sigmoid255(_mm_loadu_ps(src + i + 12));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i), PackToBytes(a, b, c, d));
    }
    const int rest = n % 16;
    for (int i = n - rest; i < n; ++i) {
        const double e = std::exp(static_cast<double>(-src[i]));
        const double v = 1.0 / (e + 1.0) * 255.0;
        // v lies in 0..255 (NaN input gives INT32_MIN); the low byte is kept.
        dst[i] = static_cast<unsigned char>(_mm_cvttsd_si32(_mm_set_sd(v)));
    }
}

}  // namespace kit
}  // namespace quvas


// ===========================================================================
// Tensor processing pipeline
// ===========================================================================

#include <quvas/qvn_core.h>

namespace quvas {
namespace kit {

namespace {

using runtime::Context;
using runtime::DeviceCPU;
using runtime::TensorShape;

// The core's operation codes, data type, layout and location codes, by the
// names its headers give them.
namespace code = kernel::op;
using runtime::data_type::kUInt8;
using runtime::layout::kCHW;
using runtime::layout::kPlane;
using runtime::location::kMainMemory;

// The operations are virtual on the core's base class; calling through it
// lets a caller hand in any implementation of the fallback's interface.
inline kernel::ImageProcess* Base(kernel::ImageProcessFallback* proc) { return proc; }

TensorShape KitShape(std::vector<int32_t> dims, int32_t layout) {
    TensorShape shape;
    shape.dims = std::move(dims);
    shape.data_type = kUInt8;
    shape.layout = layout;
    shape.location = kMainMemory;
    shape.extra.step_size = 0;
    shape.extra.serializable_type.clear();
    return shape;
}

// Views of a three-plane 4:2:0 frame stored at `data` with luma dims {h, w}:
// luma, then two quarter-size chroma planes. None owns the memory.
struct PlaneViews {
    TensorPtr plane[3];
};

PlaneViews MakePlaneViews(DeviceCPU* dev, const TensorPtr& frame) {
    const std::vector<int32_t>& dims = frame->shape().dims;
    const uint32_t h = static_cast<uint32_t>(dims[0]);
    const uint32_t w = static_cast<uint32_t>(dims[1]);
    const size_t luma = static_cast<size_t>(h) * w;
    const std::vector<int32_t> chroma_dims = {static_cast<int32_t>(h >> 1),
                                              static_cast<int32_t>(w >> 1), 1};
    uint8_t* data = frame->data();
    PlaneViews views;
    views.plane[0] = dev->CreateTensorExternal(
        KitShape({static_cast<int32_t>(h), static_cast<int32_t>(w), 1}, kPlane), data);
    views.plane[1] = dev->CreateTensorExternal(KitShape(chroma_dims, kPlane), data + luma);
    views.plane[2] =
        dev->CreateTensorExternal(KitShape(chroma_dims, kPlane), data + luma + (luma >> 2));
    return views;
}

}  // namespace

QVN_API void ConvertColorProcessSSE(TensorPtr& in, TensorPtr& out, QVN_PIX_FMT fmt,
                                    kernel::ImageProcessFallback* proc,
                                    std::shared_ptr<Context> ctx) {
    int op = code::kPack3ToPlanar210;
    switch (fmt) {
        case QVN_PIX_FMT_YUV420_A: op = code::kYUV420PlanarToRGB; break;
        case QVN_PIX_FMT_BGRA8888: op = code::kPack4ToPlanar210; break;
        case QVN_PIX_FMT_RGBA8888: op = code::kPack4ToPlanar012; break;
        case QVN_PIX_FMT_RGB888: op = code::kPack3ToPlanar012; break;
        default: break;  // BGR888 and everything else take the default code
    }
    Base(proc)->ConvertPixel(in, out, op, ctx);
}

QVN_API void ConvertColorProcessSSEToBGRTensor(TensorPtr& in, TensorPtr& out, QVN_PIX_FMT fmt,
                                               kernel::ImageProcessFallback* proc,
                                               std::shared_ptr<Context> ctx) {
    int op = code::kPack3ToPlanar210;
    switch (fmt) {
        case QVN_PIX_FMT_YUV420_A: op = code::kYUV420PlanarToRGB; break;
        case QVN_PIX_FMT_BGRA8888: op = code::kPack4ToPlanar012; break;
        case QVN_PIX_FMT_RGBA8888: op = code::kPack4ToPlanar210; break;
        case QVN_PIX_FMT_BGR888: op = code::kPack3ToPlanar012; break;
        default: break;  // RGB888 and everything else take the default code
    }
    Base(proc)->ConvertPixel(in, out, op, ctx);
}

QVN_API void TransformMatrixProcessSSE(TensorPtr& in, TensorPtr& out, QVN_ORIENT_FMT flags,
                                       kernel::ImageProcessFallback* proc,
                                       std::shared_ptr<Context> ctx) {
    const std::vector<int32_t>& d = in->shape().dims;
    // A quarter turn exchanges the last two dims; anything else keeps the
    // input's shape.
    const TensorShape turned = KitShape({d[0], d[2], d[1]}, kCHW);
    const TensorShape same = in->shape();
    DeviceCPU* dev = ctx->device;
    const uint32_t f = static_cast<uint32_t>(flags);

    TensorPtr mid;
    if (f & 0x01u) {
        mid = dev->CreateTensor(turned, nullptr);
        Base(proc)->ConvertPixel(in, mid, code::kRotate270, ctx);
    } else if (f & 0x02u) {
        mid = dev->CreateTensor(turned, nullptr);
        Base(proc)->ConvertPixel(in, mid, code::kRotate90, ctx);
    } else if (f & 0x44u) {
        mid = dev->CreateTensor(same, nullptr);
        Base(proc)->ConvertPixel(in, mid, code::kRotate180, ctx);
    } else {
        // Callers have always paid for this allocation; its result is unused
        // and no pixel of the input is copied.
        dev->CreateTensor(same, nullptr);
        mid = in;
    }

    // Both flip bits ask the core for its one mirror operation.
    if (f & 0x18u) {
        Base(proc)->ConvertPixel(mid, out, code::kMirror, ctx);
    } else {
        out = mid;
    }
}

QVN_API void ResizeProcessSSE(TensorPtr& in, TensorPtr& out, QVN_PIX_FMT fmt,
                              kernel::ImageProcessFallback* proc, std::shared_ptr<Context> ctx) {
    switch (fmt) {
        case QVN_PIX_FMT_RGB888:
        case QVN_PIX_FMT_BGR888:
            Base(proc)->ConvertPixel(in, out, code::kResizeHWC3, ctx);
            return;
        case QVN_PIX_FMT_BGRA8888:
        case QVN_PIX_FMT_RGBA8888:
            Base(proc)->ConvertPixel(in, out, code::kResizeHWC4, ctx);
            return;
        case QVN_PIX_FMT_YUV420_A: {
            PlaneViews src = MakePlaneViews(ctx->device, in);
            PlaneViews dst = MakePlaneViews(ctx->device, out);
            for (int i = 0; i < 3; ++i) {
                Base(proc)->ConvertPixel(src.plane[i], dst.plane[i], code::kResizePlane, ctx);
            }
            return;
        }
        default:
            return;  // not a format this path resizes
    }
}

QVN_API void CropResizeProcessSSE(TensorPtr& in, TensorPtr& out, QVN_PIX_FMT fmt,
                                  kernel::ImageProcessFallback* proc,
                                  std::shared_ptr<Context> ctx, float a, float b, float c,
                                  float d) {
    // The box is normalised, so the same four values serve the full-size luma
    // plane and the half-size chroma planes.
    switch (fmt) {
        case QVN_PIX_FMT_RGB888:
        case QVN_PIX_FMT_BGR888:
            Base(proc)->ConvertPixel(in, out, a, b, c, d, code::kCropResizeHWC3, ctx);
            return;
        case QVN_PIX_FMT_BGRA8888:
        case QVN_PIX_FMT_RGBA8888:
            Base(proc)->ConvertPixel(in, out, a, b, c, d, code::kCropResizeHWC4, ctx);
            return;
        case QVN_PIX_FMT_YUV420_A: {
            PlaneViews src = MakePlaneViews(ctx->device, in);
            PlaneViews dst = MakePlaneViews(ctx->device, out);
            for (int i = 0; i < 3; ++i) {
                Base(proc)->ConvertPixel(src.plane[i], dst.plane[i], a, b, c, d,
                                         code::kCropResizePlane, ctx);
            }
            return;
        }
        default:
            return;  // not a format this path crops
    }
}

}  // namespace kit
}  // namespace quvas
