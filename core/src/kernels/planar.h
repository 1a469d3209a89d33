// planar.h - plane drivers: loop over the rows (or strips) of an image and
// call the row kernels of row.h. They validate nothing: the callers (the
// core's functional kernels and image-process operations, the kit's image
// orientation and layout converters) check their tensors or records once and
// hand over pointers, strides (bytes, rows may be padded) and sizes. Every
// driver needs w >= 1 and h >= 1, and src and dst must not overlap.
//
// Which engine does each operation, and why, is written down in README.md
// beside this file.
#ifndef QUVAS_CORE_SRC_KERNELS_PLANAR_H
#define QUVAS_CORE_SRC_KERNELS_PLANAR_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "row.h"

namespace quvas {
namespace kernels {

// Quarter turns of a w x h image of pixels of n bytes (any n >= 1) into the
// h x w dst. Clockwise: dst(x, y) = src(y, h - 1 - x); counter-clockwise:
// dst(x, y) = src(w - 1 - y, x).
void RotateClockwise90(const uint8_t* src, ptrdiff_t src_stride, uint8_t* dst,
                       ptrdiff_t dst_stride, int w, int h, int n);
void RotateClockwise270(const uint8_t* src, ptrdiff_t src_stride, uint8_t* dst,
                        ptrdiff_t dst_stride, int w, int h, int n);
// Half turn: dst(x, y) = src(w - 1 - x, h - 1 - y).
void Rotate180(const uint8_t* src, ptrdiff_t src_stride, uint8_t* dst, ptrdiff_t dst_stride,
               int w, int h, int n);
// Mirror left-right: dst(x, y) = src(w - 1 - x, y).
void Mirror(const uint8_t* src, ptrdiff_t src_stride, uint8_t* dst, ptrdiff_t dst_stride, int w,
            int h, int n);
// Upside down: dst row y = src row h - 1 - y, row_bytes each.
void FlipVertical(const uint8_t* src, ptrdiff_t src_stride, uint8_t* dst, ptrdiff_t dst_stride,
                  size_t row_bytes, int h);

// Copies the w x h region at (x, y) of a sw x sh image of pixels of n bytes;
// region pixels outside the image get `pad` in every byte. x and y may lie
// anywhere in the int range.
void CopyRegionPadded(const uint8_t* src, ptrdiff_t src_stride, int sw, int sh, int x, int y,
                      uint8_t* dst, ptrdiff_t dst_stride, int w, int h, int n, uint8_t pad);

// Bilinear resize with 11-bit weights. Each caller builds its own table for
// each axis (their sample positions are rounded differently): per
// destination column or row, the left/upper tap and the weight a (0..2048) of
// its neighbour, with index <= src - 2 when src >= 2 (0 otherwise).
struct BilinearAxis {
    std::vector<int32_t> index;
    std::vector<int32_t> weight;
};
// src is sw x sh pixels of c bytes (c = 1, 2, 3 or 4), dst dw x dh.
// Allocates two rows of intermediate sums.
void ResizeBilinear(const uint8_t* src, ptrdiff_t src_stride, int sw, int sh, uint8_t* dst,
                    ptrdiff_t dst_stride, int dw, int dh, int c, const BilinearAxis& xs,
                    const BilinearAxis& ys);
// The same resize over source rows made on demand: fetch(ctx, sy, slot)
// returns row sy of the sw x sh source. A row fetched for slot 0 or 1 must
// stay valid until the next fetch for the same slot (the one-pass converter
// builds padded rows of a crop reaching outside the frame this way, without
// copying the crop).
using RowFetch = const uint8_t* (*)(void* ctx, int sy, int slot);
void ResizeBilinearRows(RowFetch fetch, void* ctx, int sw, int sh, uint8_t* dst,
                        ptrdiff_t dst_stride, int dw, int dh, int c, const BilinearAxis& xs,
                        const BilinearAxis& ys);
// Sample positions of the core's functional resize (F_Resize_Bilinear_*):
// destination centre d + 0.5 maps to f = (d + 0.5) * src / dst - 0.5
// (double, rounded to float); s = floor(f), a = round((f - s) * 2048); a
// position left of the first centre or at/after the last takes the edge
// pixel alone (the last pixel as the second tap of the one before it at full
// weight).
BilinearAxis HalfPixelAxis(int src, int dst);

// Two-plane YUV to three planes (row.h: YuvToPlanesRow). MakeYuvFixed turns
// the ten values of a YUVCvtMatrix into the fixed-point weights and is false
// when a weight is not in (-4, 4) (or rounds to 32768 in magnitude) or an
// offset m[8], m[9] is not in [-4, 4]. YuvToPlanes writes w x h luma pixels
// into three planes at dst, dst + plane_bytes, dst + 2 plane_bytes (rows
// ds apart); luma row r takes chroma row min(r / 2, uv_h - 1).
bool MakeYuvFixed(const float m[10], YuvFixed* f);
void YuvToPlanes(const uint8_t* y, ptrdiff_t y_stride, const uint8_t* uv, ptrdiff_t uv_stride,
                 int uv_w, int uv_h, const YuvFixed& f, uint8_t* dst, ptrdiff_t dst_stride,
                 size_t plane_bytes, int w, int h);

// n interleaved pixels of 3 or 4 bytes: bytes 0, 1, 2 to dst0, dst1, dst2.
void SplitPlanes(const uint8_t* src, int channels, size_t n, uint8_t* dst0, uint8_t* dst1,
                 uint8_t* dst2);
// n pixels of 3 or 4 planes into interleaved pixels (src3 unused for 3).
void MergePlanes(const uint8_t* src0, const uint8_t* src1, const uint8_t* src2,
                 const uint8_t* src3, int channels, size_t n, uint8_t* dst);
// n B, G, R, A pixels to BT.601 gray.
void BgraToGray(const uint8_t* src, uint8_t* dst, size_t n);

}  // namespace kernels
}  // namespace quvas

#endif  // QUVAS_CORE_SRC_KERNELS_PLANAR_H
