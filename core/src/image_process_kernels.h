// image_process_kernels.h - the pixel work of ImageProcessFallback that is
// its own: the 4:2:0 conversion and the resizer's sample positions. Turns,
// mirror, splits and the resize rows are the shared drivers of
// kernels/planar.h.
//
// Everything here works on contiguous 8-bit images whose shapes the caller
// has already checked; nothing validates, logs or throws (except std::vector
// allocation). The arithmetic of each kernel is fixed bit for bit and written
// down in core/IMAGE_PROCESS.md.
#ifndef QUVAS_CORE_IMAGE_PROCESS_KERNELS_H
#define QUVAS_CORE_IMAGE_PROCESS_KERNELS_H

#include <cstddef>
#include <cstdint>

namespace quvas {
namespace kernel {
namespace ipk {

// Three-plane 4:2:0 frame (luma h x w, then u and v of (h/2) x (w/2)) ->
// planar R, G, B of h x w with the full-range BT.601 weights. Odd sizes:
// the last luma row / column reuses the last chroma row / column.
// Needs h >= 2 and w >= 2.
void Yuv420ToPlanarRgb(const uint8_t* y, const uint8_t* u, const uint8_t* v, int h, int w,
                       uint8_t* r, uint8_t* g, uint8_t* b);

// Bilinear resample of an interleaved image of `channels` (1, 3 or 4) bytes
// a pixel, src sw x sh, into dst dw x dh. Source position of destination
// column dx: x0 * sw + (dx + 0.5) * ((x1 - x0) * sw / dw) - 0.5, likewise for
// rows; positions outside the frame repeat the edge. A plain resize is the
// box (0, 0, 1, 1).
void ResampleBilinear(const uint8_t* src, int sw, int sh, uint8_t* dst, int dw, int dh,
                      int channels, double x0, double y0, double x1, double y1);

}  // namespace ipk
}  // namespace kernel
}  // namespace quvas

#endif  // QUVAS_CORE_IMAGE_PROCESS_KERNELS_H
