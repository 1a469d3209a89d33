// qv2_image_process.cpp - camera frame to network input tensor.
//
// A frame (two-plane YUV 4:2:0, BGRA or RGBA) is optionally cropped, resized
// bilinearly, turned and mirrored upright according to its ori_fmt, and
// converted into planar R,G,B / B,G,R bytes or into gray. The pixel work is
// all done by the core's functional kernels; this file only decides which
// kernel runs on which tensor, with which sizes and which colour matrix.
//
// Every intermediate tensor is held by a shared_ptr and dropped as soon as the
// next step has consumed it, so an exception thrown by the core (a refused
// size, a failed allocation) leaves nothing behind.
#include <qvn_kit/qvn_kit.hpp>

#include <quvas/qvn_core.h>

#include <immintrin.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "../kit/qv_internal.h"

namespace quvas {
namespace kit {

namespace {

using runtime::DeviceCPU;
namespace F = kernel::functional;

using runtime::data_type::kUInt8;
using runtime::location::kMainMemory;
constexpr int32_t kLayoutPlanar = runtime::layout::kCHW;  // {C, H, W}
constexpr int32_t kLayoutGray = runtime::layout::kHWC;    // {H, W, 1}

constexpr const char* kBadFormat = "Invaild pixel format of input image.";

// Owned creator of one kind of u8 HWC tensor (Y, UV, BGRA, RGBA).
using Creator = TensorPtr (DeviceCPU::*)(const unsigned&, const unsigned&, const void*);
using Kernel = void (*)(const TensorPtr&, const TensorPtr&);

using internal::TruncToInt;
using internal::WrapAdd;
using internal::WrapMul;
using internal::WrapSub;

struct CropBox {
    bool active = false;
    int x = 0;
    int y = 0;
    int w = 0;
    int h = 0;
};

// The crop is given in upright coordinates; the frame's own orientation moves
// it to where the region really lies in the sensor image.
CropBox FrameCropBox(const QVN_Image* img, int crop_x, int crop_y, int crop_w, int crop_h) {
    float x0 = static_cast<float>(crop_x);
    float y0 = static_cast<float>(crop_y);
    float x1 = static_cast<float>(WrapSub(WrapAdd(crop_x, crop_w), 1));
    float y1 = static_cast<float>(WrapSub(WrapAdd(crop_y, crop_h), 1));
    CropBox box;
    if (WrapMul(crop_w, crop_h) > 0) {
        Cropbox_Rectify(img, false, x0, y0, x1, y1);
        box.active = true;
    }
    box.x = TruncToInt(x0);
    box.y = TruncToInt(y0);
    box.w = WrapAdd(WrapSub(TruncToInt(x1), box.x), 1);
    box.h = WrapAdd(WrapSub(TruncToInt(y1), box.y), 1);
    return box;
}

// The output checks report and let the work go on: a caller with a slightly
// wrong tensor still gets as much as the core can do with it.
void CheckOutput(const TensorPtr& o_tensor, int32_t layout) {
    const runtime::TensorShape& shape = o_tensor->shape();
    utility::Assert(shape.data_type == kUInt8, "o_tensor must be a UInt8 DataType Tensor.");
    utility::Assert(shape.layout == layout, "o_tensor must be a HWC Layout Tensor.");
    utility::Assert(shape.location == kMainMemory,
                    "o_tensor must be a MainMemory Location Tensor.");
}

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

// Colour weights handed to the two-plane converter, positions 0..7 (8 and 9
// are the chroma offsets 0.5, 0.5). Rows: formats 2, 3, 8, 9; the second
// block is the B,G,R output, red and blue weights exchanged. Formats 8 and 9
// carry the BT.601 weights in 64ths and differ only in chroma byte order.
constexpr float kYUVWeights[2][4][8] = {
    {
        {1.0f, 0.0f, 1.5748f, -0.46812427f, -0.18732427f, 1.8556f, 0.0f, 0.0f},
        {1.0f, 0.0f, 1.402f, -0.7141363f, -0.3441363f, 1.772f, 0.0f, 0.0f},
        {1.0f, 0.0f, 1.40625f, -0.34375f, -0.71875f, 2.078125f, 0.0f, 0.0f},
        {1.0f, 1.40625f, 0.0f, -0.71875f, -0.34375f, 0.0f, 2.078125f, 0.0f},
    },
    {
        {1.0f, 1.8556f, 0.0f, -0.46812427f, -0.18732427f, 0.0f, 1.5748f, 0.0f},
        {1.0f, 1.772f, 0.0f, -0.7141363f, -0.3441363f, 0.0f, 1.402f, 0.0f},
        {1.0f, 2.078125f, 0.0f, -0.34375f, -0.71875f, 0.0f, 1.40625f, 0.0f},
        {1.0f, 0.0f, 2.078125f, -0.71875f, -0.34375f, 1.40625f, 0.0f, 0.0f},
    },
};

std::shared_ptr<kernel::YUVCvtMatrix> MakeYUVMatrix(bool to_bgr, uint32_t pix_fmt) {
    int row = 0;
    switch (pix_fmt) {
        case QVN_PIX_FMT_YUV420SP_A: row = 0; break;
        case QVN_PIX_FMT_YUV420SP_B: row = 1; break;
        case QVN_PIX_FMT_YUV420SP_C: row = 2; break;
        default: row = 3; break;  // QVN_PIX_FMT_YUV420SP_D
    }
    auto matrix = std::make_shared<kernel::YUVCvtMatrix>();
    const float* weights = kYUVWeights[to_bgr ? 1 : 0][row];
    for (int i = 0; i < 8; ++i) matrix->m[i] = weights[i];
    matrix->m[8] = 0.5f;
    matrix->m[9] = 0.5f;
    return matrix;
}

bool IsTwoPlaneYUV(uint32_t pix_fmt) {
    return pix_fmt == QVN_PIX_FMT_YUV420SP_A || pix_fmt == QVN_PIX_FMT_YUV420SP_B ||
           pix_fmt == QVN_PIX_FMT_YUV420SP_C || pix_fmt == QVN_PIX_FMT_YUV420SP_D;
}

// Wraps the caller's frame (no copy) as the planes the geometry works on;
// `luma_only` leaves the chroma plane of a YUV frame unwrapped. Returns the
// number of planes, 0 for a format that is not an input frame.
int WrapFrame(const QVN_Image* img, DeviceCPU* dev, Plane* planes, bool luma_only = false) {
    const unsigned h = static_cast<unsigned>(img->height);
    const unsigned w = static_cast<unsigned>(img->width);
    uint8_t* data = img->data;
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
    if (img->pix_fmt == QVN_PIX_FMT_BGRA8888) {
        planes[0] = {dev->CreateBGRA8888TensorExternal(h, w, data),
                     &DeviceCPU::CreateBGRA8888Tensor, false,
                     &F::F_Resize_Bilinear_HWC_U8_C4_Fallback};
        return 1;
    }
    if (img->pix_fmt == QVN_PIX_FMT_RGBA8888) {
        planes[0] = {dev->CreateRGBA8888TensorExternal(h, w, data),
                     &DeviceCPU::CreateRGBA8888Tensor, false,
                     &F::F_Resize_Bilinear_HWC_U8_C4_Fallback};
        return 1;
    }
    return 0;
}

bool IsInputFrameFormat(uint32_t pix_fmt) {
    return IsTwoPlaneYUV(pix_fmt) || pix_fmt == QVN_PIX_FMT_BGRA8888 ||
           pix_fmt == QVN_PIX_FMT_RGBA8888;
}

// Shared body of the two planar converters.
void ConvertToPlanar(const QVN_Image* img, TensorPtr& o_tensor, bool to_bgr, const CropBox& box,
                     uint8_t pad_value) {
    if (!IsInputFrameFormat(img->pix_fmt)) {
        utility::Assert(false, "%s", kBadFormat);
        return;
    }
    DeviceCPU* dev = o_tensor->device();
    const std::vector<int32_t>& dims = o_tensor->shape().dims;
    const unsigned t_h = static_cast<unsigned>(dims[1]);
    const unsigned t_w = static_cast<unsigned>(dims[2]);
    // With a quarter turn still to come, resize to the turned size so that the
    // turn lands on the output's size.
    const bool quarter = (img->ori_fmt & 3u) != 0;
    const unsigned r_h = quarter ? t_w : t_h;
    const unsigned r_w = quarter ? t_h : t_w;

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
    const bool reads_as_bgra = (img->pix_fmt == QVN_PIX_FMT_BGRA8888) != to_bgr;
    if (reads_as_bgra) {
        F::F_ColorCvt_BGRA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback(planes[0].t, o_tensor);
    } else {
        F::F_ColorCvt_RGBA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback(planes[0].t, o_tensor);
    }
}

}  // namespace

QVN_API void QV_BinlinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(
    const QVN_Image* img, TensorPtr& o_tensor, const bool& to_bgr) {
    CheckOutput(o_tensor, kLayoutPlanar);
    ConvertToPlanar(img, o_tensor, to_bgr, CropBox(), 0);
}

QVN_API void QV_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(
    const QVN_Image* img, TensorPtr& o_tensor, const bool& to_bgr, const int& crop_x,
    const int& crop_y, const int& crop_w, const int& crop_h, const unsigned char& pad_value) {
    CheckOutput(o_tensor, kLayoutPlanar);
    const CropBox box = FrameCropBox(img, crop_x, crop_y, crop_w, crop_h);
    ConvertToPlanar(img, o_tensor, to_bgr, box, pad_value);
}

QVN_API void QV_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_Gray8_TensorCPU(
    const QVN_Image* img, TensorPtr& o_tensor, const int& crop_x, const int& crop_y,
    const int& crop_w, const int& crop_h, const unsigned char& pad_value) {
    CheckOutput(o_tensor, kLayoutGray);
    const CropBox box = FrameCropBox(img, crop_x, crop_y, crop_w, crop_h);
    if (!IsInputFrameFormat(img->pix_fmt)) {
        utility::Assert(false, "%s", kBadFormat);
        return;
    }
    DeviceCPU* dev = o_tensor->device();
    const std::vector<int32_t>& dims = o_tensor->shape().dims;
    const unsigned t_h = static_cast<unsigned>(dims[0]);
    const unsigned t_w = static_cast<unsigned>(dims[1]);
    // The gray output is never turned: the orientation only moves the crop box
    // and swaps the resize size.
    const bool quarter = (img->ori_fmt & 3u) != 0;
    const unsigned r_h = quarter ? t_w : t_h;
    const unsigned r_w = quarter ? t_h : t_w;

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
    StepPlanes(planes, 1, dev, r_h, r_w, nullptr);
    F::F_ColorCvt_BGRA8888_To_Gray8_Fallback(planes[0].t, o_tensor);
}

QVN_API void QV_Crop_NearestResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(
    const QVN_Image*, TensorPtr&, const bool&, const int&, const int&, const int&, const int&,
    const unsigned char&) {
    // Exported for callers built against it; no nearest-neighbour path exists.
}

QVN_API void QV_Crop_Resize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(
    const QVN_Image*, TensorPtr&, const bool&, const int&, const int&, const int&, const int&,
    const unsigned char&, const char*) {
    // Exported for callers built against it; the method name is not consulted.
}

}  // namespace kit
}  // namespace quvas
