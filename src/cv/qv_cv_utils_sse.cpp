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

// ===========================================================================
// Vectorised affine warps
// ===========================================================================

namespace quvas {
namespace kit {

namespace {

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

// ---- one pixel at a time (blocks that straddle the frame edge, row tails) --

template <int N>
inline void warp_pixel(const unsigned char* src, ptrdiff_t stride, int ix, int iy, int w00, int w10,
                       int w01, int w11, unsigned char* out) {
    const unsigned char* p = src + iy * stride + static_cast<ptrdiff_t>(ix) * N;
    const unsigned char* q = p + stride;
    for (int c = 0; c < N; ++c) {
        const int sum = p[c] * w00 + p[N + c] * w10 + q[c] * w01 + q[N + c] * w11 + 32768;
        out[c] = static_cast<unsigned char>(sum >> 16);  // low byte, no clamp
    }
}

// Four channels side by side in one 128-bit vector, narrowed with saturation.
template <>
inline void warp_pixel<4>(const unsigned char* src, ptrdiff_t stride, int ix, int iy, int w00,
                          int w10, int w01, int w11, unsigned char* out) {
    const unsigned char* p = src + iy * stride + static_cast<ptrdiff_t>(ix) * 4;
    const unsigned char* q = p + stride;
    const __m128i s00 = _mm_cvtepu8_epi32(_mm_loadu_si32(p));
    const __m128i s10 = _mm_cvtepu8_epi32(_mm_loadu_si32(p + 4));
    const __m128i s01 = _mm_cvtepu8_epi32(_mm_loadu_si32(q));
    const __m128i s11 = _mm_cvtepu8_epi32(_mm_loadu_si32(q + 4));
    __m128i sum = _mm_add_epi32(_mm_mullo_epi32(s00, _mm_set1_epi32(w00)), _mm_mullo_epi32(s10, _mm_set1_epi32(w10)));
    sum = _mm_add_epi32(sum, _mm_mullo_epi32(s01, _mm_set1_epi32(w01)));
    sum = _mm_add_epi32(sum, _mm_mullo_epi32(s11, _mm_set1_epi32(w11)));
    sum = _mm_srai_epi32(_mm_add_epi32(sum, _mm_set1_epi32(32768)), 16);
    const __m128i packed = _mm_packus_epi16(_mm_packs_epi32(sum, sum), _mm_setzero_si128());
    _mm_storeu_si32(out, packed);
}

// ---- eight pixels at once (blocks wholly inside the source) --------------

// Selects byte k of every 32-bit lane into that lane's low byte.
inline __m256i lane_byte(__m256i v, int k) {
    const int z = static_cast<int>(0x80808000u);
    return _mm256_shuffle_epi8(v, _mm256_setr_epi32(z | k, z | (4 + k), z | (8 + k), z | (12 + k),
                                                    z | k, z | (4 + k), z | (8 + k), z | (12 + k)));
}

inline __m256i blend8(__m256i s00, __m256i s10, __m256i s01, __m256i s11, const WarpBlock& b) {
    __m256i sum = _mm256_add_epi32(_mm256_mullo_epi32(s00, b.w00), _mm256_mullo_epi32(s10, b.w10));
    sum = _mm256_add_epi32(sum, _mm256_mullo_epi32(s01, b.w01));
    sum = _mm256_add_epi32(sum, _mm256_mullo_epi32(s11, b.w11));
    return _mm256_srai_epi32(_mm256_add_epi32(sum, _mm256_set1_epi32(32768)), 16);
}

inline __m256i gather32(const unsigned char* base, __m256i offsets) {
    return _mm256_i32gather_epi32(reinterpret_cast<const int*>(base), offsets, 1);
}

template <int N>
void warp_block8(const unsigned char* src, int stride, const WarpBlock& b, unsigned char* out);

// One channel: a 32-bit read at the top-left sample gives s00 and s10 in bytes
// 0 and 1; the lower row is read two bytes early (bytes 2 and 3) so that
// neither read runs past the source's last byte.
template <>
inline void warp_block8<1>(const unsigned char* src, int stride, const WarpBlock& b, unsigned char* out) {
    const __m256i off = _mm256_add_epi32(_mm256_mullo_epi32(b.iy, _mm256_set1_epi32(stride)), b.ix);
    const __m256i t = gather32(src, off);
    const __m256i u = gather32(src + stride - 2, off);
    const __m256i r = blend8(lane_byte(t, 0), lane_byte(t, 1), lane_byte(u, 2), lane_byte(u, 3), b);
    // Low byte of each result, no clamp; four bytes per 128-bit half.
    const __m256i pick = _mm256_shuffle_epi8(
        r, _mm256_setr_epi8(0, 4, 8, 12, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1,
                            0, 4, 8, 12, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1));
    const __m256i q = _mm256_permutevar8x32_epi32(pick, _mm256_setr_epi32(0, 4, 0, 0, 0, 0, 0, 0));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm256_castsi256_si128(q));
}

template <>
inline void warp_block8<2>(const unsigned char* src, int stride, const WarpBlock& b, unsigned char* out) {
    const __m256i off = _mm256_add_epi32(_mm256_mullo_epi32(b.iy, _mm256_set1_epi32(stride)),
                                         _mm256_slli_epi32(b.ix, 1));
    const __m256i t = gather32(src, off);           // s00.c0 s00.c1 s10.c0 s10.c1
    const __m256i u = gather32(src + stride, off);  // s01.c0 s01.c1 s11.c0 s11.c1
    const __m256i r0 = blend8(lane_byte(t, 0), lane_byte(t, 2), lane_byte(u, 0), lane_byte(u, 2), b);
    const __m256i r1 = blend8(lane_byte(t, 1), lane_byte(t, 3), lane_byte(u, 1), lane_byte(u, 3), b);
    const __m256i v = _mm256_or_si256(lane_byte(r0, 0), _mm256_slli_epi32(lane_byte(r1, 0), 8));
    const __m256i pack = _mm256_shuffle_epi8(
        v, _mm256_setr_epi8(0, 1, 4, 5, 8, 9, 12, 13, -1, -1, -1, -1, -1, -1, -1, -1,
                            0, 1, 4, 5, 8, 9, 12, 13, -1, -1, -1, -1, -1, -1, -1, -1));
    const __m256i q = _mm256_permute4x64_epi64(pack, 0x08);  // 64-bit lanes 0 and 2 to the front
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm256_castsi256_si128(q));
}

// Three channels: two 32-bit reads per row, at the pixel and two bytes on,
// cover both 3-byte neighbours without reading past the right-hand one.
template <>
inline void warp_block8<3>(const unsigned char* src, int stride, const WarpBlock& b, unsigned char* out) {
    const __m256i off = _mm256_add_epi32(_mm256_mullo_epi32(b.iy, _mm256_set1_epi32(stride)),
                                         _mm256_add_epi32(b.ix, _mm256_slli_epi32(b.ix, 1)));
    const __m256i t0 = gather32(src, off);               // s00.c0 s00.c1 s00.c2 s10.c0
    const __m256i t1 = gather32(src + 2, off);           // s00.c2 s10.c0 s10.c1 s10.c2
    const __m256i u0 = gather32(src + stride, off);      // s01.c0 s01.c1 s01.c2 s11.c0
    const __m256i u1 = gather32(src + stride + 2, off);  // s01.c2 s11.c0 s11.c1 s11.c2
    const __m256i r0 = blend8(lane_byte(t0, 0), lane_byte(t0, 3), lane_byte(u0, 0), lane_byte(u0, 3), b);
    const __m256i r1 = blend8(lane_byte(t0, 1), lane_byte(t1, 2), lane_byte(u0, 1), lane_byte(u1, 2), b);
    const __m256i r2 = blend8(lane_byte(t0, 2), lane_byte(t1, 3), lane_byte(u0, 2), lane_byte(u1, 3), b);
    __m256i v = _mm256_or_si256(lane_byte(r0, 0), _mm256_slli_epi32(lane_byte(r1, 0), 8));
    v = _mm256_or_si256(v, _mm256_slli_epi32(lane_byte(r2, 0), 16));
    const __m256i pack = _mm256_shuffle_epi8(
        v, _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1,
                            0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1));
    // Exactly 24 bytes: nothing past the block may be touched.
    const __m128i lo = _mm256_castsi256_si128(pack);
    const __m128i hi = _mm256_extracti128_si256(pack, 1);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), lo);
    _mm_storeu_si32(out + 8, _mm_srli_si128(lo, 8));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out + 12), hi);
    _mm_storeu_si32(out + 20, _mm_srli_si128(hi, 8));
}

template <>
inline void warp_block8<4>(const unsigned char* src, int stride, const WarpBlock& b, unsigned char* out) {
    const __m256i off = _mm256_add_epi32(_mm256_mullo_epi32(b.iy, _mm256_set1_epi32(stride)),
                                         _mm256_slli_epi32(b.ix, 2));
    const __m256i t0 = gather32(src, off);           // s00, four channels
    const __m256i t1 = gather32(src + 4, off);       // s10
    const __m256i u0 = gather32(src + stride, off);  // s01
    const __m256i u1 = gather32(src + stride + 4, off);
    const __m256i zero = _mm256_setzero_si256();
    const __m256i top = _mm256_set1_epi32(255);
    __m256i v = zero;
    for (int c = 0; c < 4; ++c) {
        __m256i r = blend8(lane_byte(t0, c), lane_byte(t1, c), lane_byte(u0, c), lane_byte(u1, c), b);
        r = _mm256_min_epi32(_mm256_max_epi32(r, zero), top);  // the saturation of the 4-channel kernel
        v = _mm256_or_si256(v, _mm256_slli_epi32(r, 8 * c));
    }
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), v);
}

template <int N>
inline void warp_border_pixel(unsigned char* out, unsigned int border) {
    if (N == 1) return;  // the one-channel kernel leaves outside pixels alone
    for (int c = 0; c < N; ++c) out[c] = static_cast<unsigned char>(border >> (8 * c));
}

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
    unsigned char fill[8 * N];
    for (int i = 0; i < 8; ++i) warp_border_pixel<N>(fill + i * N, border);

    alignas(32) int32_t ix[8], iy[8], w00[8], w10[8], w01[8], w11[8], in[8];
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
            if (mask == 0xff && count == 8) {
                warp_block8<N>(src, srcStride, b, o);
                continue;
            }
            if (mask == 0) {
                if (N != 1) std::memcpy(o, fill, static_cast<size_t>(count) * N);
                continue;
            }
            // Straddles the edge of the source (or the end of the row).
            _mm256_store_si256(reinterpret_cast<__m256i*>(ix), b.ix);
            _mm256_store_si256(reinterpret_cast<__m256i*>(iy), b.iy);
            _mm256_store_si256(reinterpret_cast<__m256i*>(w00), b.w00);
            _mm256_store_si256(reinterpret_cast<__m256i*>(w10), b.w10);
            _mm256_store_si256(reinterpret_cast<__m256i*>(w01), b.w01);
            _mm256_store_si256(reinterpret_cast<__m256i*>(w11), b.w11);
            _mm256_store_si256(reinterpret_cast<__m256i*>(in), b.inside);
            for (int i = 0; i < count; ++i) {
                if (in[i]) {
                    warp_pixel<N>(src, srcStride, ix[i], iy[i], w00[i], w10[i], w01[i], w11[i], o + i * N);
                } else {
                    warp_border_pixel<N>(o + i * N, border);
                }
            }
        }
    }
}

}  // namespace

void warpaffine_linear_SSE_C1(int srcHeight, int srcWidth, int srcStride, int /*channels*/,
                              int dstHeight, int dstWidth, int dstStride, unsigned char* dst,
                              const unsigned char* src, const float* M, unsigned int border) {
    warp_affine_kernel<1>(srcHeight, srcWidth, srcStride, dstHeight, dstWidth, dstStride, dst, src, M, border);
}

void warpaffine_linear_SSE_C2(int srcHeight, int srcWidth, int srcStride, int /*channels*/,
                              int dstHeight, int dstWidth, int dstStride, unsigned char* dst,
                              const unsigned char* src, const float* M, unsigned int border) {
    warp_affine_kernel<2>(srcHeight, srcWidth, srcStride, dstHeight, dstWidth, dstStride, dst, src, M, border);
}

void warpaffine_linear_SSE_C3(int srcHeight, int srcWidth, int srcStride, int /*channels*/,
                              int dstHeight, int dstWidth, int dstStride, unsigned char* dst,
                              const unsigned char* src, const float* M, unsigned int border) {
    warp_affine_kernel<3>(srcHeight, srcWidth, srcStride, dstHeight, dstWidth, dstStride, dst, src, M, border);
}

void warpaffine_linear_SSE_C4(int srcHeight, int srcWidth, int srcStride, int /*channels*/,
                              int dstHeight, int dstWidth, int dstStride, unsigned char* dst,
                              const unsigned char* src, const float* M, unsigned int border) {
    warp_affine_kernel<4>(srcHeight, srcWidth, srcStride, dstHeight, dstWidth, dstStride, dst, src, M, border);
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

// ===========================================================================
// Tensor processing pipeline
// ===========================================================================
