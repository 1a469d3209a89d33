// functional_color.cpp - colour conversions of u8 images into planes.
//
// Two-plane YUV to three planes, fixed point. With the matrix m of
// YUVCvtMatrix, S = 13 fractional bits and round() to nearest (halves away
// from zero), computed in double once per call:
//   W0 = round(m0 * 2^S), and for output plane p with chroma weights (a, b) =
//   (m1, m2), (m3, m4), (m5, m6):   Wa = round(a * 2^S), Wb = round(b * 2^S),
//   Bp = round(-(a * m8 + b * m9) * 255 * 2^S) + 2^(S-1)
// and for luma byte Y with chroma bytes (c0, c1):
//   plane p = clamp((W0 * Y + Wa * c0 + Wb * c1 + Bp) >> S, 0, 255)
// (>> is an arithmetic shift, i.e. floor). All sums are exact in 32 bits.
// The real-valued result 255 * (m0 Y/255 + a (c0/255 - m8) + b (c1/255 - m9))
// rounded to nearest differs from this by at most 1, and only when it lies
// within about 0.05 of a half. Luma pixel (x, y) takes the chroma pair at
// (min(x/2, uv width - 1), min(y/2, uv height - 1)), so a chroma plane of
// floor(W/2) x floor(H/2) pairs serves an odd-sized luma plane too. The
// weights must lie in (-4, 4) (and round to at most 32767 in magnitude) and
// the offsets m8, m9 in [-4, 4]; m7 is not read.
//
// Four-byte pixels to planes only move bytes, and gray is BT.601 luma with
// the weights rounded to 1/16384: both are rows of kernels/ (row.h), whose
// checks live here.
#include <quvas/kernel/functional.h>
#include <quvas/utility/log.h>

#include <algorithm>
#include <cmath>

#include "functional_check.h"
#include "kernels/planar.h"

namespace quvas {
namespace kernel {
namespace functional {

using detail::AsCHW;
using detail::AsHWC;
using detail::Image;
using detail::Refuse;

namespace {

// Four-byte HWC to three planes: plane p receives byte pick[p] of each pixel.
void Pack4ToPlanes(const Image& s, const Image& d, const int pick[3]) {
    const size_t plane = static_cast<size_t>(d.h) * d.w;  // rows are packed on both sides
    uint8_t* by_byte[3];
    for (int p = 0; p < 3; ++p) by_byte[pick[p]] = d.data + plane * p;
    kernels::SplitPlanes(s.data, 4, plane, by_byte[0], by_byte[1], by_byte[2]);
}

void Pack4(const char* kernel, const TensorPtr& src, const TensorPtr& dst, const int pick[3]) {
    Image s, d;
    if (!AsHWC(src, &s) || s.c != 4) {
        return Refuse(kernel, src, dst, "src must be a u8 HWC image of 4 channels");
    }
    if (!AsCHW(dst, &d) || d.c != 3 || d.h != s.h || d.w != s.w) {
        return Refuse(kernel, src, dst, "dst must be a u8 CHW image {3, H, W} of src");
    }
    if (detail::Overlap(s, d)) return Refuse(kernel, src, dst, "src and dst share storage");
    Pack4ToPlanes(s, d, pick);
}

// --- two-plane YUV --------------------------------------------------------

void YuvToPlanes(const Image& y, const Image& uv, const kernels::YuvFixed& f, const Image& d) {
    kernels::YuvToPlanes(y.data, static_cast<ptrdiff_t>(y.stride()), uv.data,
                         static_cast<ptrdiff_t>(uv.stride()), uv.w, uv.h, f, d.data,
                         static_cast<ptrdiff_t>(d.w), static_cast<size_t>(d.h) * d.w, y.w, y.h);
}

void RefuseYuv(const TensorPtr& y, const TensorPtr& uv, const TensorPtr& dst, const char* reason) {
    utility::Assert(false, "%s: y %s, uv %s and dst %s do not fit: %s",
                    "F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback",
                    detail::ShapeText(y).c_str(), detail::ShapeText(uv).c_str(),
                    detail::ShapeText(dst).c_str(), reason);
}

}  // namespace

void F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback(const TensorPtr& y, const TensorPtr& uv,
                                                       const std::shared_ptr<YUVCvtMatrix>& matrix,
                                                       const TensorPtr& dst) {
    Image yi, ci, d;
    if (!AsHWC(y, &yi) || yi.c != 1) return RefuseYuv(y, uv, dst, "y must be a u8 {H, W, 1} plane");
    if (!AsHWC(uv, &ci) || ci.c != 2 || ci.h < yi.h / 2 || ci.w < yi.w / 2) {
        return RefuseYuv(y, uv, dst, "uv must be a u8 {H/2, W/2, 2} plane of chroma pairs");
    }
    if (!AsCHW(dst, &d) || d.c != 3 || d.h != yi.h || d.w != yi.w) {
        return RefuseYuv(y, uv, dst, "dst must be a u8 CHW image {3, H, W} of y");
    }
    if (detail::Overlap(yi, d) || detail::Overlap(ci, d)) {
        return RefuseYuv(y, uv, dst, "a source and dst share storage");
    }
    if (!matrix) return RefuseYuv(y, uv, dst, "the colour matrix is missing");
    kernels::YuvFixed fixed;
    if (!kernels::MakeYuvFixed(matrix->m, &fixed)) {
        return RefuseYuv(y, uv, dst,
                         "colour matrix weights must lie in (-4, 4) and offsets in [-4, 4]");
    }
    YuvToPlanes(yi, ci, fixed, d);
}

void F_ColorCvt_BGRA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback(const TensorPtr& src,
                                                         const TensorPtr& dst) {
    static const int kPick[3] = {2, 1, 0};
    Pack4("F_ColorCvt_BGRA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback", src, dst, kPick);
}

void F_ColorCvt_RGBA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback(const TensorPtr& src,
                                                         const TensorPtr& dst) {
    static const int kPick[3] = {0, 1, 2};
    Pack4("F_ColorCvt_RGBA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback", src, dst, kPick);
}

void F_ColorCvt_BGRA8888_To_Gray8_Fallback(const TensorPtr& src, const TensorPtr& dst) {
    static const char* const kName = "F_ColorCvt_BGRA8888_To_Gray8_Fallback";
    Image s, d;
    if (!AsHWC(src, &s) || s.c != 4) {
        return Refuse(kName, src, dst, "src must be a u8 HWC image of 4 channels");
    }
    // The destination may have other dims than the source as long as it holds
    // one byte per source pixel: the gray converter resizes a frame with a
    // pending quarter turn to the swapped size and never turns it, so its
    // {T_h, T_w, 1} output receives the {T_w, T_h} picture row after row.
    if (!AsHWC(dst, &d) || d.c != 1 ||
        static_cast<size_t>(d.h) * static_cast<size_t>(d.w) !=
            static_cast<size_t>(s.h) * static_cast<size_t>(s.w)) {
        return Refuse(kName, src, dst, "dst must be a u8 HWC image {H, W, 1} of src");
    }
    if (detail::Overlap(s, d)) return Refuse(kName, src, dst, "src and dst share storage");
    kernels::BgraToGray(s.data, d.data, static_cast<size_t>(s.h) * s.w);
}

}  // namespace functional
}  // namespace kernel
}  // namespace quvas
