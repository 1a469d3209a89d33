// functional.h - the core's image kernels on u8 tensors.
//
// Each kernel reads `src` and writes `dst`, whose shape the caller has made.
// A source and destination that do not fit the kernel (channel count, layout,
// sizes) are reported with utility::Assert naming the kernel and both shapes,
// and nothing is written: a kernel never writes outside a tensor's storage.
#ifndef QUVAS_KERNEL_FUNCTIONAL_H
#define QUVAS_KERNEL_FUNCTIONAL_H

#include <quvas/export.h>
#include <quvas/runtime/tensor.h>

#include <cstdint>
#include <memory>

namespace quvas {
namespace kernel {

// Colour matrix of the two-plane YUV converter. With Y the luma byte and
// (c0, c1) its chroma pair in memory order, on a 0..1 scale:
//   c0' = c0/255 - m[8], c1' = c1/255 - m[9]
//   plane 0 = m[0] Y + m[1] c0' + m[2] c1'
//   plane 1 = m[0] Y + m[3] c0' + m[4] c1'
//   plane 2 = m[0] Y + m[5] c0' + m[6] c1'      (m[7] reserved)
// scaled back to 0..255, rounded to nearest and saturated.
struct YUVCvtMatrix {
    float m[10];
};

namespace functional {

using runtime::TensorPtr;

// Copies the w x h region whose top-left corner is (x, y) of src into dst
// (dims {h, w, C}); what lies outside src is pad_value. Any channel count.
QUVAS_API void F_Crop_U8_HWC_Memcpy(const TensorPtr& src, int x, int y, int w, int h,
                                    uint8_t pad_value, const TensorPtr& dst);

// Bilinear resize to dst's size, half-pixel centres, 1, 2 or 4 channels.
QUVAS_API void F_Resize_Bilinear_HWC_U8_C1_Fallback(const TensorPtr& src, const TensorPtr& dst);
QUVAS_API void F_Resize_Bilinear_HWC_U8_C2_Fallback(const TensorPtr& src, const TensorPtr& dst);
QUVAS_API void F_Resize_Bilinear_HWC_U8_C4_Fallback(const TensorPtr& src, const TensorPtr& dst);

// Clockwise turns and flips of an HWC tensor of any channel count.
QUVAS_API void F_Rotate_Clockwise90_HWC_Fallback(const TensorPtr& src, const TensorPtr& dst);
QUVAS_API void F_Rotate_Clockwise180_HWC_Fallback(const TensorPtr& src, const TensorPtr& dst);
QUVAS_API void F_Rotate_Clockwise270_HWC_Fallback(const TensorPtr& src, const TensorPtr& dst);
QUVAS_API void F_HFlip_HWC_Fallback(const TensorPtr& src, const TensorPtr& dst);
QUVAS_API void F_VFlip_HWC_Fallback(const TensorPtr& src, const TensorPtr& dst);

// Y plane {H, W, 1} and interleaved chroma plane {H/2, W/2, 2} to three u8
// planes {3, H, W} (CHW) with the given matrix.
QUVAS_API void F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback(
    const TensorPtr& y, const TensorPtr& uv, const std::shared_ptr<YUVCvtMatrix>& matrix,
    const TensorPtr& dst);
// Four-byte HWC to R, G, B planes, reading the source as B,G,R,A or R,G,B,A.
QUVAS_API void F_ColorCvt_BGRA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback(const TensorPtr& src,
                                                                   const TensorPtr& dst);
QUVAS_API void F_ColorCvt_RGBA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback(const TensorPtr& src,
                                                                   const TensorPtr& dst);
// BT.601 luma of a source read as B, G, R, A into {H, W, 1}.
QUVAS_API void F_ColorCvt_BGRA8888_To_Gray8_Fallback(const TensorPtr& src, const TensorPtr& dst);

}  // namespace functional
}  // namespace kernel
}  // namespace quvas

#endif  // QUVAS_KERNEL_FUNCTIONAL_H
