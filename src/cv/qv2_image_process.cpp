// qv2_image_process.cpp - camera frame to network input tensor: the
// exported converters.
//
// A frame (two-plane YUV 4:2:0, BGRA or RGBA) is optionally cropped, resized
// bilinearly, turned and mirrored upright according to its ori_fmt, and
// converted into planar R,G,B / B,G,R bytes or into gray. Each converter
// checks its output, places the crop box in the frame and hands the rest to
// one of two pipelines: the step-by-step one (frame_stepwise.cpp), which
// runs the core's functional kernels on intermediate tensors, or the one-pass
// one (frame_one_pass.cpp), which makes the same bytes without them.
#include <qvn_kit/qvn_kit.hpp>

#include <quvas/qvn_core.h>

#include "../kit/qv_internal.h"
#include "frame_convert.h"

namespace quvas {
namespace kit {

using internal::CropBox;
using internal::kLayoutGray;
using internal::kLayoutPlanar;

namespace internal {

namespace {
constexpr const char* kOnePassPlanar =
    "QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU";
constexpr const char* kOnePassGray =
    "QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_Gray8_TensorCPU";
}  // namespace

using runtime::data_type::kUInt8;
using runtime::location::kMainMemory;

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

}  // namespace internal

using internal::CheckOutput;
using internal::FrameCropBox;

QVN_API void QV_BinlinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(
    const QVN_Image* img, TensorPtr& o_tensor, const bool& to_bgr) {
    CheckOutput(o_tensor, kLayoutPlanar);
    internal::StepwisePlanar(img, o_tensor, to_bgr, CropBox(), 0);
}

QVN_API void QV_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(
    const QVN_Image* img, TensorPtr& o_tensor, const bool& to_bgr, const int& crop_x,
    const int& crop_y, const int& crop_w, const int& crop_h, const unsigned char& pad_value) {
    CheckOutput(o_tensor, kLayoutPlanar);
    const CropBox box = FrameCropBox(img, crop_x, crop_y, crop_w, crop_h);
    internal::StepwisePlanar(img, o_tensor, to_bgr, box, pad_value);
}

QVN_API void QV_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_Gray8_TensorCPU(
    const QVN_Image* img, TensorPtr& o_tensor, const int& crop_x, const int& crop_y,
    const int& crop_w, const int& crop_h, const unsigned char& pad_value) {
    CheckOutput(o_tensor, kLayoutGray);
    const CropBox box = FrameCropBox(img, crop_x, crop_y, crop_w, crop_h);
    internal::StepwiseGray(img, o_tensor, box, pad_value);
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

QVN_API void QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(
    const QVN_Image* img, TensorPtr& o_tensor, const bool& to_bgr, const int& crop_x,
    const int& crop_y, const int& crop_w, const int& crop_h, const unsigned char& pad_value) {
    CheckOutput(o_tensor, kLayoutPlanar);
    const CropBox box = FrameCropBox(img, crop_x, crop_y, crop_w, crop_h);
    if (internal::RefusedFormat(img)) return;
    internal::OnePassPlanar(internal::ViewOfImage(img), o_tensor, to_bgr, box, pad_value,
                            internal::kOnePassPlanar);
}

QVN_API void QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_Gray8_TensorCPU(
    const QVN_Image* img, TensorPtr& o_tensor, const int& crop_x, const int& crop_y,
    const int& crop_w, const int& crop_h, const unsigned char& pad_value) {
    CheckOutput(o_tensor, kLayoutGray);
    const CropBox box = FrameCropBox(img, crop_x, crop_y, crop_w, crop_h);
    if (internal::RefusedFormat(img)) return;
    internal::OnePassGray(internal::ViewOfImage(img), o_tensor, box, pad_value,
                          internal::kOnePassGray);
}

}  // namespace kit
}  // namespace quvas
