// frame_stepwise.cpp - the step-by-step frame converter: each step (crop,
// resize, turn, mirror, colour) is one of the core's functional kernels from
// one owned tensor into the next. Every intermediate tensor is held by a
// shared_ptr and dropped as soon as the next step has consumed it, so an
// exception thrown by the core (a refused size, a failed allocation) leaves
// nothing behind.
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "frame_convert.h"

namespace quvas {
namespace kit {
namespace internal {

namespace {

using runtime::DeviceCPU;
namespace F = kernel::functional;

using Kernel = void (*)(const TensorPtr&, const TensorPtr&);

// One plane of the frame on its way to the output. A two-plane YUV frame has
// a full-size luma plane and a half-size interleaved chroma plane; a packed
// frame is a single full-size four-byte plane.
struct Plane {
    TensorPtr t;
    Creator make;   // owned creator of this plane's kind
    bool half;      // chroma at half resolution
    Kernel resize;  // bilinear resize for this plane's channel count
};

// Crop every plane: all destinations are made first, then filled. Chroma is
// cut at half the luma box; its size is read back from the tensor made.
void CropPlanes(Plane* planes, int count, DeviceCPU* dev, const CropBox& box, uint8_t pad) {
    TensorPtr dst[2];
    for (int i = 0; i < count; ++i) {
        const int h = planes[i].half ? box.h / 2 : box.h;
        const int w = planes[i].half ? box.w / 2 : box.w;
        dst[i] = (dev->*planes[i].make)(static_cast<unsigned>(h), static_cast<unsigned>(w),
                                        nullptr);
    }
    for (int i = 0; i < count; ++i) {
        if (planes[i].half) {
            const std::vector<int32_t>& dims = dst[i]->shape().dims;
            F::F_Crop_U8_HWC_Memcpy(planes[i].t, box.x / 2, box.y / 2, dims[1], dims[0], pad,
                                    dst[i]);
        } else {
            F::F_Crop_U8_HWC_Memcpy(planes[i].t, box.x, box.y, box.w, box.h, pad, dst[i]);
        }
        planes[i].t = std::move(dst[i]);
    }
}

// Run `kernel` (or each plane's resize when `kernel` is null) from every plane
// into a fresh owned plane of h x w (chroma: h >> 1, w >> 1).
void StepPlanes(Plane* planes, int count, DeviceCPU* dev, unsigned h, unsigned w, Kernel kernel) {
    TensorPtr dst[2];
    for (int i = 0; i < count; ++i) {
        const unsigned shift = planes[i].half ? 1u : 0u;
        dst[i] = (dev->*planes[i].make)(h >> shift, w >> shift, nullptr);
    }
    for (int i = 0; i < count; ++i) {
        (kernel != nullptr ? kernel : planes[i].resize)(planes[i].t, dst[i]);
        planes[i].t = std::move(dst[i]);
    }
}

// Undoing the frame's turn: only the first matching bit counts.
Kernel TurnKernel(uint32_t ori) {
    if (ori & QVN_ORIENT_FMT_ROTATE_90L) return &F::F_Rotate_Clockwise90_HWC_Fallback;
    if (ori & QVN_ORIENT_FMT_ROTATE_90R) return &F::F_Rotate_Clockwise270_HWC_Fallback;
    if (ori & QVN_ORIENT_FMT_ROTATE_180) return &F::F_Rotate_Clockwise180_HWC_Fallback;
    return nullptr;
}

// Undoing the frame's mirror: a horizontal mirror shadows a vertical flip.
Kernel MirrorKernel(uint32_t ori) {
    if (ori & QVN_ORIENT_FMT_MIRROR) return &F::F_HFlip_HWC_Fallback;
    if (ori & QVN_ORIENT_FMT_FLIPV) return &F::F_VFlip_HWC_Fallback;
    return nullptr;
}

// Wraps the caller's frame (no copy) as the planes the geometry works on;
// `luma_only` leaves the chroma plane of a YUV frame unwrapped. Returns the
// number of planes, 0 for a format that is not an input frame.
int WrapFrame(const QVN_Image* img, DeviceCPU* dev, Plane* planes, bool luma_only = false) {
    const unsigned h = static_cast<unsigned>(img->height);
    const unsigned w = static_cast<unsigned>(img->width);
    uint8_t* data = img->data;
    if (!IsInputFrameFormat(img->pix_fmt)) return 0;
    if (IsTwoPlaneYUV(img->pix_fmt)) {
        planes[0] = {dev->CreateYPlane8BitTensorExternal(h, w, data),
                     &DeviceCPU::CreateYPlane8BitTensor, false,
                     &F::F_Resize_Bilinear_HWC_U8_C1_Fallback};
        if (luma_only) return 1;
        planes[1] = {dev->CreateUVPlane8BitTensorExternal(h >> 1, w >> 1,
                                                          data + static_cast<size_t>(h) * w),
                     &DeviceCPU::CreateUVPlane8BitTensor, true,
                     &F::F_Resize_Bilinear_HWC_U8_C2_Fallback};
        return 2;
    }
    // Four bytes a pixel: wrapped as what the bytes are.
    if (IsBgraFrame(img->pix_fmt)) {
        planes[0] = {dev->CreateBGRA8888TensorExternal(h, w, data),
                     &DeviceCPU::CreateBGRA8888Tensor, false,
                     &F::F_Resize_Bilinear_HWC_U8_C4_Fallback};
    } else {
        planes[0] = {dev->CreateRGBA8888TensorExternal(h, w, data),
                     &DeviceCPU::CreateRGBA8888Tensor, false,
                     &F::F_Resize_Bilinear_HWC_U8_C4_Fallback};
    }
    return 1;
}

}  // namespace

void StepwisePlanar(const QVN_Image* img, TensorPtr& o_tensor, bool to_bgr, const CropBox& box,
                    uint8_t pad_value) {
    if (RefusedFormat(img)) return;
    DeviceCPU* dev = o_tensor->device();
    const Sizes size = OutputSizes(img->ori_fmt, o_tensor, /*gray=*/false);
    const unsigned t_h = static_cast<unsigned>(size.t_h);
    const unsigned t_w = static_cast<unsigned>(size.t_w);
    const unsigned r_h = static_cast<unsigned>(size.r_h);
    const unsigned r_w = static_cast<unsigned>(size.r_w);

    Plane planes[2] = {};
    const int count = WrapFrame(img, dev, planes);
    if (box.active) CropPlanes(planes, count, dev, box, pad_value);
    StepPlanes(planes, count, dev, r_h, r_w, nullptr);
    if (Kernel turn = TurnKernel(img->ori_fmt)) StepPlanes(planes, count, dev, t_h, t_w, turn);
    if (Kernel mirror = MirrorKernel(img->ori_fmt)) {
        StepPlanes(planes, count, dev, t_h, t_w, mirror);
    }

    if (count == 2) {
        F::F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback(
            planes[0].t, planes[1].t, MakeYUVMatrix(to_bgr, img->pix_fmt), o_tensor);
        return;
    }
    // B,G,R output is made by reading the source in the other byte order.
    const bool reads_as_bgra = IsBgraFrame(img->pix_fmt) != to_bgr;
    if (reads_as_bgra) {
        F::F_ColorCvt_BGRA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback(planes[0].t, o_tensor);
    } else {
        F::F_ColorCvt_RGBA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback(planes[0].t, o_tensor);
    }
}

void StepwiseGray(const QVN_Image* img, TensorPtr& o_tensor, const CropBox& box,
                  uint8_t pad_value) {
    if (RefusedFormat(img)) return;
    DeviceCPU* dev = o_tensor->device();
    // The gray output is never turned: the orientation only moves the crop box
    // and swaps the resize size.
    const Sizes size = OutputSizes(img->ori_fmt, o_tensor, /*gray=*/true);

    Plane planes[2] = {};
    // Gray needs luma only: the chroma plane of a YUV frame is never touched.
    WrapFrame(img, dev, planes, /*luma_only=*/true);
    if (box.active) CropPlanes(planes, 1, dev, box, pad_value);
    if (IsTwoPlaneYUV(img->pix_fmt)) {
        F::F_Resize_Bilinear_HWC_U8_C1_Fallback(planes[0].t, o_tensor);
        return;
    }
    // RGBA frames go through the same B,G,R,A gray kernel (red and blue
    // weights in swapped roles): the behaviour detectors were tuned with.
    StepPlanes(planes, 1, dev, static_cast<unsigned>(size.r_h), static_cast<unsigned>(size.r_w),
               nullptr);
    F::F_ColorCvt_BGRA8888_To_Gray8_Fallback(planes[0].t, o_tensor);
}

}  // namespace internal
}  // namespace kit
}  // namespace quvas
