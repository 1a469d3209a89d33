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
// Both passes are exact integer arithmetic, done by the resize rows of
// kernels/ (the image-process resizer shares them with its own sample
// positions; these are kernels::HalfPixelAxis). Against real-valued bilinear
// interpolation the result is off by at most one.
#include <quvas/kernel/functional.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "functional_check.h"
#include "kernels/planar.h"

namespace quvas {
namespace kernel {
namespace functional {

using detail::AsHWC;
using detail::Image;
using detail::Refuse;

namespace {

template <int C>
void ResizeBilinear(const Image& src, const Image& dst) {
    if (src.w == dst.w && src.h == dst.h) {
        std::memcpy(dst.data, src.data, src.bytes());
        return;
    }
    kernels::ResizeBilinear(src.data, src.stride(), src.w, src.h, dst.data, dst.stride(), dst.w,
                            dst.h, C, kernels::HalfPixelAxis(src.w, dst.w),
                            kernels::HalfPixelAxis(src.h, dst.h));
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
