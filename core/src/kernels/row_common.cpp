// row_common.cpp - the plain C twins of the row kernels: the reference
// definitions the AVX2 rows are held to, and the tails and odd pixel sizes
// the drivers hand to them.
#include <algorithm>
#include <cstring>

#include "row.h"

namespace quvas {
namespace kernels {

namespace {

template <int N>
void TransposeStrip_C(const uint8_t* src, ptrdiff_t src_stride, uint8_t* dst,
                      ptrdiff_t dst_stride, int width) {
    for (int j = 0; j < width; ++j) {
        uint8_t* d = dst + j * dst_stride;
        for (int i = 0; i < kTransposeRows<N>; ++i) {
            std::memcpy(d + i * N, src + i * src_stride + j * N, N);
        }
    }
}

template <int N>
void TransposeFixed(const uint8_t* src, ptrdiff_t src_stride, uint8_t* dst, ptrdiff_t dst_stride,
                    int width, int rows) {
    for (int j = 0; j < width; ++j) {
        uint8_t* d = dst + j * dst_stride;
        const uint8_t* s = src + j * N;
        for (int i = 0; i < rows; ++i) std::memcpy(d + i * N, s + i * src_stride, N);
    }
}

template <int N>
void MirrorRow_C(const uint8_t* src, uint8_t* dst, int width) {
    for (int x = 0; x < width; ++x) std::memcpy(dst + x * N, src + (width - 1 - x) * N, N);
}

template <int C>
void ScaleCols_C(const uint8_t* src, int src_width, const int32_t* index, const int32_t* pair,
                 int width, int32_t* out) {
    const int next = src_width >= 2 ? C : 0;
    for (int d = 0; d < width; ++d) {
        const uint8_t* p = src + static_cast<size_t>(index[d]) * C;
        const int a = pair[d] >> 16;
        const int b = pair[d] & 0xFFFF;
        for (int k = 0; k < C; ++k) out[d * C + k] = p[k] * b + p[k + next] * a;
    }
}

}  // namespace

void TransposeStrip1_C(const uint8_t* src, ptrdiff_t ss, uint8_t* dst, ptrdiff_t ds, int width) {
    TransposeStrip_C<1>(src, ss, dst, ds, width);
}
void TransposeStrip2_C(const uint8_t* src, ptrdiff_t ss, uint8_t* dst, ptrdiff_t ds, int width) {
    TransposeStrip_C<2>(src, ss, dst, ds, width);
}
void TransposeStrip3_C(const uint8_t* src, ptrdiff_t ss, uint8_t* dst, ptrdiff_t ds, int width) {
    TransposeStrip_C<3>(src, ss, dst, ds, width);
}
void TransposeStrip4_C(const uint8_t* src, ptrdiff_t ss, uint8_t* dst, ptrdiff_t ds, int width) {
    TransposeStrip_C<4>(src, ss, dst, ds, width);
}

void TransposeAny_C(const uint8_t* src, ptrdiff_t ss, uint8_t* dst, ptrdiff_t ds, int width,
                    int rows, int n) {
    // The common sizes get a fixed-size copy (a register move each).
    switch (n) {
        case 1: return TransposeFixed<1>(src, ss, dst, ds, width, rows);
        case 2: return TransposeFixed<2>(src, ss, dst, ds, width, rows);
        case 3: return TransposeFixed<3>(src, ss, dst, ds, width, rows);
        case 4: return TransposeFixed<4>(src, ss, dst, ds, width, rows);
        case 6: return TransposeFixed<6>(src, ss, dst, ds, width, rows);
        case 8: return TransposeFixed<8>(src, ss, dst, ds, width, rows);
        case 12: return TransposeFixed<12>(src, ss, dst, ds, width, rows);
        case 16: return TransposeFixed<16>(src, ss, dst, ds, width, rows);
        default: break;
    }
    const size_t bytes = static_cast<size_t>(n);
    for (int j = 0; j < width; ++j) {
        uint8_t* d = dst + j * ds;
        const uint8_t* s = src + static_cast<ptrdiff_t>(j) * n;
        for (int i = 0; i < rows; ++i) std::memcpy(d + static_cast<ptrdiff_t>(i) * n, s + i * ss, bytes);
    }
}

void MirrorRow1_C(const uint8_t* src, uint8_t* dst, int width, ptrdiff_t) { MirrorRow_C<1>(src, dst, width); }
void MirrorRow2_C(const uint8_t* src, uint8_t* dst, int width, ptrdiff_t) { MirrorRow_C<2>(src, dst, width); }
void MirrorRow3_C(const uint8_t* src, uint8_t* dst, int width, ptrdiff_t) { MirrorRow_C<3>(src, dst, width); }
void MirrorRow4_C(const uint8_t* src, uint8_t* dst, int width, ptrdiff_t) { MirrorRow_C<4>(src, dst, width); }

void MirrorRowAny_C(const uint8_t* src, uint8_t* dst, int width, int n) {
    switch (n) {
        case 1: return MirrorRow_C<1>(src, dst, width);
        case 2: return MirrorRow_C<2>(src, dst, width);
        case 3: return MirrorRow_C<3>(src, dst, width);
        case 4: return MirrorRow_C<4>(src, dst, width);
        case 6: return MirrorRow_C<6>(src, dst, width);
        case 8: return MirrorRow_C<8>(src, dst, width);
        case 12: return MirrorRow_C<12>(src, dst, width);
        case 16: return MirrorRow_C<16>(src, dst, width);
        default: break;
    }
    const size_t bytes = static_cast<size_t>(n);
    for (int x = 0; x < width; ++x) {
        std::memcpy(dst + static_cast<ptrdiff_t>(x) * n,
                    src + static_cast<ptrdiff_t>(width - 1 - x) * n, bytes);
    }
}

void ScaleColsBilinear1_C(const uint8_t* src, int sw, const int32_t* index, const int32_t* pair,
                          int width, int32_t* out) {
    ScaleCols_C<1>(src, sw, index, pair, width, out);
}
void ScaleColsBilinear2_C(const uint8_t* src, int sw, const int32_t* index, const int32_t* pair,
                          int width, int32_t* out) {
    ScaleCols_C<2>(src, sw, index, pair, width, out);
}
void ScaleColsBilinear3_C(const uint8_t* src, int sw, const int32_t* index, const int32_t* pair,
                          int width, int32_t* out) {
    ScaleCols_C<3>(src, sw, index, pair, width, out);
}
void ScaleColsBilinear4_C(const uint8_t* src, int sw, const int32_t* index, const int32_t* pair,
                          int width, int32_t* out) {
    ScaleCols_C<4>(src, sw, index, pair, width, out);
}

void PlanColsWindow(const int32_t* index, const int32_t* pair, int width, int sw, int c,
                    ColsWindow* plan) {
    plan->columns = 0;
    plan->at.clear();
    plan->mask.clear();
    plan->weight.clear();
    if (sw < 2 || (c != 1 && c != 2)) return;
    const int per_half = 4 / c;  // columns in one 16-byte window
    const int64_t row_bytes = static_cast<int64_t>(sw) * c;
    int d = 0;
    for (; d + 2 * per_half <= width; d += 2 * per_half) {
        int32_t at[2];
        uint8_t mask[32];
        bool fits = true;
        for (int half = 0; half < 2 && fits; ++half) {
            const int first = d + half * per_half;
            // A window near the row's end starts 16 bytes before it.
            const int64_t base = std::min<int64_t>(static_cast<int64_t>(index[first]) * c, row_bytes - 16);
            fits = base >= 0;
            for (int j = 0; j < per_half && fits; ++j) {
                const int64_t off = static_cast<int64_t>(index[first + j]) * c - base;
                fits = off >= 0 && off + 2 * c - 1 < 16;
                for (int k = 0; k < c && fits; ++k) {
                    // Value j * c + k: bytes (tap, 0, next tap, 0) as two
                    // little-endian 16-bit numbers.
                    uint8_t* m = mask + 16 * half + 4 * (j * c + k);
                    m[0] = static_cast<uint8_t>(off + k);
                    m[1] = 0x80;
                    m[2] = static_cast<uint8_t>(off + k + c);
                    m[3] = 0x80;
                }
            }
            at[half] = static_cast<int32_t>(base);
        }
        if (!fits) break;
        plan->at.insert(plan->at.end(), at, at + 2);
        plan->mask.insert(plan->mask.end(), mask, mask + 32);
        for (int v = 0; v < 8; ++v) plan->weight.push_back(pair[d + v / c]);
    }
    plan->columns = d;
}

void BlendRowsBilinear_C(const int32_t* r0, const int32_t* r1, int a, int n, uint8_t* out) {
    const int b = 2048 - a;
    for (int i = 0; i < n; ++i) {
        out[i] = static_cast<uint8_t>((r0[i] * b + r1[i] * a + (1 << 21)) >> 22);
    }
}

void SplitRow3_C(const uint8_t* src, uint8_t* d0, uint8_t* d1, uint8_t* d2, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        d0[i] = src[3 * i];
        d1[i] = src[3 * i + 1];
        d2[i] = src[3 * i + 2];
    }
}

void SplitRow4_C(const uint8_t* src, uint8_t* d0, uint8_t* d1, uint8_t* d2, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        d0[i] = src[4 * i];
        d1[i] = src[4 * i + 1];
        d2[i] = src[4 * i + 2];
    }
}

void MergeRow3_C(const uint8_t* s0, const uint8_t* s1, const uint8_t* s2, uint8_t* dst, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        dst[3 * i] = s0[i];
        dst[3 * i + 1] = s1[i];
        dst[3 * i + 2] = s2[i];
    }
}

void MergeRow4_C(const uint8_t* s0, const uint8_t* s1, const uint8_t* s2, const uint8_t* s3,
                 uint8_t* dst, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        dst[4 * i] = s0[i];
        dst[4 * i + 1] = s1[i];
        dst[4 * i + 2] = s2[i];
        dst[4 * i + 3] = s3[i];
    }
}

void BgraToGrayRow_C(const uint8_t* src, uint8_t* dst, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        const uint8_t* p = src + 4 * i;
        dst[i] = static_cast<uint8_t>((1868 * p[0] + 9617 * p[1] + 4899 * p[2] + 8192) >> 14);
    }
}

void YuvToPlanesRow_C(const uint8_t* y, const uint8_t* uv, int uv_width, const YuvFixed& f,
                      uint8_t* out0, uint8_t* out1, uint8_t* out2, int width) {
    uint8_t* out[3] = {out0, out1, out2};
    for (int x = 0; x < width; ++x) {
        const int pair = x / 2 < uv_width - 1 ? x / 2 : uv_width - 1;
        const uint8_t* c = uv + 2 * pair;
        for (int p = 0; p < 3; ++p) out[p][x] = YuvPixel(f, p, y[x], c[0], c[1]);
    }
}

}  // namespace kernels
}  // namespace quvas
