// functional_geometry.cpp - crop, quarter turns and flips of u8 HWC images:
// the tensor checks, then the plane drivers of kernels/planar.h (which
// engine does each turn, and why, is in kernels/README.md).
#include <quvas/kernel/functional.h>

#include "functional_check.h"
#include "kernels/planar.h"

namespace quvas {
namespace kernel {
namespace functional {

using detail::AsHWC;
using detail::Image;
using detail::Refuse;

namespace {

// Checks src and dst for a pixel-moving kernel; dst must be {dh, dw, C}
// where (dh, dw) is (W, H) for a quarter turn and (H, W) otherwise.
bool CheckMove(const char* kernel, const TensorPtr& src, const TensorPtr& dst, bool quarter,
               Image* s, Image* d) {
    if (!AsHWC(src, s)) {
        Refuse(kernel, src, dst, "src must be a u8 HWC image");
        return false;
    }
    if (!AsHWC(dst, d)) {
        Refuse(kernel, src, dst, "dst must be a u8 HWC image");
        return false;
    }
    const int want_h = quarter ? s->w : s->h;
    const int want_w = quarter ? s->h : s->w;
    if (d->h != want_h || d->w != want_w || d->c != s->c) {
        Refuse(kernel, src, dst,
               quarter ? "dst must be {W, H, C} of src" : "dst must be {H, W, C} of src");
        return false;
    }
    if (detail::Overlap(*s, *d)) {
        Refuse(kernel, src, dst, "src and dst share storage");
        return false;
    }
    return true;
}

}  // namespace

void F_Crop_U8_HWC_Memcpy(const TensorPtr& src, int x, int y, int w, int h, uint8_t pad_value,
                          const TensorPtr& dst) {
    static const char* const kName = "F_Crop_U8_HWC_Memcpy";
    Image s, d;
    if (!AsHWC(src, &s)) return Refuse(kName, src, dst, "src must be a u8 HWC image");
    if (!AsHWC(dst, &d)) return Refuse(kName, src, dst, "dst must be a u8 HWC image");
    if (d.c != s.c) return Refuse(kName, src, dst, "src and dst must have the same channels");
    if (w <= 0 || h <= 0 || d.w != w || d.h != h) {
        return Refuse(kName, src, dst, "dst must be {h, w, C} of the region");
    }
    if (detail::Overlap(s, d)) return Refuse(kName, src, dst, "src and dst share storage");

    kernels::CopyRegionPadded(s.data, s.stride(), s.w, s.h, x, y, d.data, d.stride(), w, h, s.c,
                              pad_value);
}

void F_Rotate_Clockwise90_HWC_Fallback(const TensorPtr& src, const TensorPtr& dst) {
    Image s, d;
    if (!CheckMove("F_Rotate_Clockwise90_HWC_Fallback", src, dst, true, &s, &d)) return;
    kernels::RotateClockwise90(s.data, s.stride(), d.data, d.stride(), s.w, s.h, s.c);
}

void F_Rotate_Clockwise180_HWC_Fallback(const TensorPtr& src, const TensorPtr& dst) {
    Image s, d;
    if (!CheckMove("F_Rotate_Clockwise180_HWC_Fallback", src, dst, false, &s, &d)) return;
    kernels::Rotate180(s.data, s.stride(), d.data, d.stride(), s.w, s.h, s.c);
}

void F_Rotate_Clockwise270_HWC_Fallback(const TensorPtr& src, const TensorPtr& dst) {
    Image s, d;
    if (!CheckMove("F_Rotate_Clockwise270_HWC_Fallback", src, dst, true, &s, &d)) return;
    kernels::RotateClockwise270(s.data, s.stride(), d.data, d.stride(), s.w, s.h, s.c);
}

void F_HFlip_HWC_Fallback(const TensorPtr& src, const TensorPtr& dst) {
    Image s, d;
    if (!CheckMove("F_HFlip_HWC_Fallback", src, dst, false, &s, &d)) return;
    kernels::Mirror(s.data, s.stride(), d.data, d.stride(), s.w, s.h, s.c);
}

void F_VFlip_HWC_Fallback(const TensorPtr& src, const TensorPtr& dst) {
    Image s, d;
    if (!CheckMove("F_VFlip_HWC_Fallback", src, dst, false, &s, &d)) return;
    kernels::FlipVertical(s.data, s.stride(), d.data, d.stride(), s.stride(), s.h);
}

}  // namespace functional
}  // namespace kernel
}  // namespace quvas
