// row.h - row kernels: the pixel loops of every image operation of the core
// and of the kit's image orientation, one row (or one strip) at a time.
//
// A row kernel knows nothing of tensors or images: it takes pointers, a
// width and a few constants, validates nothing and never logs. Each has a
// plain C twin (row_common.cpp) and an AVX2 version (row_avx2.cpp) that
// writes the same bytes; the drivers in planar.h call the AVX2 rows (the
// libraries are built for AVX2, there is no run-time dispatch), and the
// parity test holds every AVX2 row to its twin. An AVX2 row handles its own
// tail and never reads or writes a byte outside the ranges its comment
// names.
#ifndef QUVAS_CORE_SRC_KERNELS_ROW_H
#define QUVAS_CORE_SRC_KERNELS_ROW_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace quvas {
namespace kernels {

// ---------------------------------------------------------------------------
// Transposes (quarter turns). A strip is kTransposeRows<N> source rows of
// `width` pixels of N bytes; row i starts at src + i * src_stride (strides in
// bytes, either sign). Column j of the strip becomes destination row j:
//   dst + j * dst_stride + i * N  <-  src + i * src_stride + j * N.
// A quarter turn clockwise feeds the strip's rows bottom up (negative
// src_stride); a counter-clockwise one writes destination rows bottom up.
// ---------------------------------------------------------------------------
template <int N>
constexpr int kTransposeRows = N <= 2 ? 16 : 8;

void TransposeStrip1_C(const uint8_t* src, ptrdiff_t src_stride, uint8_t* dst,
                       ptrdiff_t dst_stride, int width);
void TransposeStrip2_C(const uint8_t* src, ptrdiff_t src_stride, uint8_t* dst,
                       ptrdiff_t dst_stride, int width);
void TransposeStrip3_C(const uint8_t* src, ptrdiff_t src_stride, uint8_t* dst,
                       ptrdiff_t dst_stride, int width);
void TransposeStrip4_C(const uint8_t* src, ptrdiff_t src_stride, uint8_t* dst,
                       ptrdiff_t dst_stride, int width);
void TransposeStrip1_AVX2(const uint8_t* src, ptrdiff_t src_stride, uint8_t* dst,
                          ptrdiff_t dst_stride, int width);
void TransposeStrip2_AVX2(const uint8_t* src, ptrdiff_t src_stride, uint8_t* dst,
                          ptrdiff_t dst_stride, int width);
void TransposeStrip3_AVX2(const uint8_t* src, ptrdiff_t src_stride, uint8_t* dst,
                          ptrdiff_t dst_stride, int width);
void TransposeStrip4_AVX2(const uint8_t* src, ptrdiff_t src_stride, uint8_t* dst,
                          ptrdiff_t dst_stride, int width);

// Any pixel size and any number of rows: the same map, pixel by pixel.
void TransposeAny_C(const uint8_t* src, ptrdiff_t src_stride, uint8_t* dst, ptrdiff_t dst_stride,
                    int width, int rows, int pixel_bytes);

// ---------------------------------------------------------------------------
// Mirrors: dst pixel x = src pixel width - 1 - x, pixels of N bytes. src and
// dst must not overlap. The AVX2 rows also prefetch, block by block, the
// bytes `prefetch` further on from each source block they read (the same
// columns of the next row, say); 0 prefetches nothing. A prefetch is only a
// hint: it never faults and changes no byte, so the twins ignore it.
// ---------------------------------------------------------------------------
void MirrorRow1_C(const uint8_t* src, uint8_t* dst, int width, ptrdiff_t prefetch);
void MirrorRow2_C(const uint8_t* src, uint8_t* dst, int width, ptrdiff_t prefetch);
void MirrorRow3_C(const uint8_t* src, uint8_t* dst, int width, ptrdiff_t prefetch);
void MirrorRow4_C(const uint8_t* src, uint8_t* dst, int width, ptrdiff_t prefetch);
void MirrorRow1_AVX2(const uint8_t* src, uint8_t* dst, int width, ptrdiff_t prefetch);
void MirrorRow2_AVX2(const uint8_t* src, uint8_t* dst, int width, ptrdiff_t prefetch);
void MirrorRow3_AVX2(const uint8_t* src, uint8_t* dst, int width, ptrdiff_t prefetch);
void MirrorRow4_AVX2(const uint8_t* src, uint8_t* dst, int width, ptrdiff_t prefetch);
void MirrorRowAny_C(const uint8_t* src, uint8_t* dst, int width, int pixel_bytes);

// ---------------------------------------------------------------------------
// Bilinear resize, 11-bit weights. Horizontal pass of one source row of
// src_width pixels of C bytes: for destination column d with left tap
// i = index[d] and packed weights pair[d] = (2048 - a) | a << 16,
//   out[d * C + k] = src[i * C + k] * (2048 - a) + src[(i + 1) * C + k] * a
// where the right tap is i itself when src_width is 1. index[d] must be at
// most src_width - 2 when src_width >= 2 (0 otherwise). out holds width * C
// int32 values. The _x2 form filters two rows with the same columns.
// ---------------------------------------------------------------------------
void ScaleColsBilinear1_C(const uint8_t* src, int src_width, const int32_t* index,
                          const int32_t* pair, int width, int32_t* out);
void ScaleColsBilinear2_C(const uint8_t* src, int src_width, const int32_t* index,
                          const int32_t* pair, int width, int32_t* out);
void ScaleColsBilinear3_C(const uint8_t* src, int src_width, const int32_t* index,
                          const int32_t* pair, int width, int32_t* out);
void ScaleColsBilinear4_C(const uint8_t* src, int src_width, const int32_t* index,
                          const int32_t* pair, int width, int32_t* out);
void ScaleColsBilinear1_AVX2(const uint8_t* src, int src_width, const int32_t* index,
                             const int32_t* pair, int width, int32_t* out);
void ScaleColsBilinear2_AVX2(const uint8_t* src, int src_width, const int32_t* index,
                             const int32_t* pair, int width, int32_t* out);
void ScaleColsBilinear3_AVX2(const uint8_t* src, int src_width, const int32_t* index,
                             const int32_t* pair, int width, int32_t* out);
void ScaleColsBilinear4_AVX2(const uint8_t* src, int src_width, const int32_t* index,
                             const int32_t* pair, int width, int32_t* out);
void ScaleColsBilinear1x2_AVX2(const uint8_t* src0, const uint8_t* src1, int src_width,
                               const int32_t* index, const int32_t* pair, int width,
                               int32_t* out0, int32_t* out1);
void ScaleColsBilinear4x2_AVX2(const uint8_t* src0, const uint8_t* src1, int src_width,
                               const int32_t* index, const int32_t* pair, int width,
                               int32_t* out0, int32_t* out1);

// Windowed column pass for one and two channels, when the taps lie close
// together (upscaling, and downscaling by up to about 3.5x for one channel
// or 1.7x for two). A block of 8 output values is two 16-byte windows of the
// source row, one per 128-bit half; a precomputed byte shuffle picks each
// value's tap pair out of its window as two 16-bit numbers and one
// multiply-add applies the pair's weights. That replaces a load per tap
// pair with two loads per 8 values, and gives the same sums as
// ScaleColsBilinear1/2 since only where the taps are read from changes.
struct ColsWindow {
    int columns = 0;             // leading destination columns covered
    std::vector<int32_t> at;     // per block: byte offsets of its two windows
    std::vector<uint8_t> mask;   // per block: 32 shuffle bytes
    std::vector<int32_t> weight; // per block: the 8 values' weight pairs
};
// Plans the leading columns of an index table (as ScaleColsBilinear takes:
// index[d] <= sw - 2, weight pairs in `pair`) for c = 1 or 2 bytes a pixel
// whose windows fit and stay inside the sw * c bytes of a row. columns is 0
// when none do, or sw < 2.
void PlanColsWindow(const int32_t* index, const int32_t* pair, int width, int sw, int c,
                    ColsWindow* plan);
// Writes plan.columns * c sums to out, reading only inside src's row.
void ScaleColsWindow_AVX2(const uint8_t* src, const ColsWindow& plan, int32_t* out);
void ScaleColsWindowx2_AVX2(const uint8_t* src0, const uint8_t* src1, const ColsWindow& plan,
                            int32_t* out0, int32_t* out1);

// Vertical pass: out[i] = (r0[i] * (2048 - a) + r1[i] * a + 2^21) >> 22 for
// horizontal results r0, r1 of the pass above and 0 <= a <= 2048.
void BlendRowsBilinear_C(const int32_t* r0, const int32_t* r1, int a, int n, uint8_t* out);
void BlendRowsBilinear_AVX2(const int32_t* r0, const int32_t* r1, int a, int n, uint8_t* out);

// ---------------------------------------------------------------------------
// Interleaved to planar: byte 0, 1, 2 of each of n pixels of 3 or 4 bytes
// to dst0, dst1, dst2 (a fourth byte is dropped).
// ---------------------------------------------------------------------------
void SplitRow3_C(const uint8_t* src, uint8_t* dst0, uint8_t* dst1, uint8_t* dst2, size_t n);
void SplitRow4_C(const uint8_t* src, uint8_t* dst0, uint8_t* dst1, uint8_t* dst2, size_t n);
void SplitRow3_AVX2(const uint8_t* src, uint8_t* dst0, uint8_t* dst1, uint8_t* dst2, size_t n);
void SplitRow4_AVX2(const uint8_t* src, uint8_t* dst0, uint8_t* dst1, uint8_t* dst2, size_t n);

// Planar to interleaved: pixel i = (src0[i], src1[i], src2[i] [, src3[i]]).
void MergeRow3_C(const uint8_t* src0, const uint8_t* src1, const uint8_t* src2, uint8_t* dst,
                 size_t n);
void MergeRow4_C(const uint8_t* src0, const uint8_t* src1, const uint8_t* src2,
                 const uint8_t* src3, uint8_t* dst, size_t n);
void MergeRow3_AVX2(const uint8_t* src0, const uint8_t* src1, const uint8_t* src2, uint8_t* dst,
                    size_t n);
void MergeRow4_AVX2(const uint8_t* src0, const uint8_t* src1, const uint8_t* src2,
                    const uint8_t* src3, uint8_t* dst, size_t n);

// ---------------------------------------------------------------------------
// B, G, R, A pixels to BT.601 luma with the weights rounded to 1/16384:
//   gray = (1868 B + 9617 G + 4899 R + 8192) >> 14
// ---------------------------------------------------------------------------
void BgraToGrayRow_C(const uint8_t* src, uint8_t* dst, size_t n);
void BgraToGrayRow_AVX2(const uint8_t* src, uint8_t* dst, size_t n);

// ---------------------------------------------------------------------------
// Two-plane YUV to three planes, 13-bit fixed point (the weights and biases
// are made by MakeYuvFixed in planar.h). For luma byte Y with chroma bytes
// (c0, c1), plane p = clamp((w0 Y + wa[p] c0 + wb[p] c1 + bias[p]) >> 13, 0,
// 255), >> an arithmetic shift. Luma pixel x takes chroma pair
// min(x / 2, uv_width - 1) of the row uv (uv_width >= 1 pairs), so a chroma
// row of floor(W/2) pairs serves an odd width too. The weights fit 16 bits.
// ---------------------------------------------------------------------------
struct YuvFixed {
    int32_t w0;
    int32_t wa[3], wb[3];
    int32_t bias[3];
};
constexpr int kYuvBits = 13;

inline uint8_t YuvPixel(const YuvFixed& f, int p, int y, int c0, int c1) {
    const int32_t v = (f.w0 * y + f.wa[p] * c0 + f.wb[p] * c1 + f.bias[p]) >> kYuvBits;
    return static_cast<uint8_t>(v < 0 ? 0 : v > 255 ? 255 : v);
}

void YuvToPlanesRow_C(const uint8_t* y, const uint8_t* uv, int uv_width, const YuvFixed& f,
                      uint8_t* out0, uint8_t* out1, uint8_t* out2, int width);
void YuvToPlanesRow_AVX2(const uint8_t* y, const uint8_t* uv, int uv_width, const YuvFixed& f,
                         uint8_t* out0, uint8_t* out1, uint8_t* out2, int width);

}  // namespace kernels
}  // namespace quvas

#endif  // QUVAS_CORE_SRC_KERNELS_ROW_H
