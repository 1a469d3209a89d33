// frame_view.cpp - frames as decoders deliver them: the FrameView checks and
// the one-pass converters over a view. A view goes through the same crop
// placement and the same one-pass pipeline as a packed QVN_Image (which is
// converted by making a view of it), so the two cannot drift apart.
#include <qvn_kit/frame_view.hpp>

#include <quvas/qvn_core.h>

#include <cinttypes>
#include <cstddef>

#include "frame_convert.h"

namespace quvas {
namespace kit {

namespace {

using internal::CropBox;

constexpr int kErr = 16;

constexpr const char* kViewPlanar =
    "QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_FrameView_To_U8_CHW_TensorCPU";
constexpr const char* kViewGray =
    "QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_FrameView_To_Gray8_TensorCPU";

// The QVN_Image that the crop geometry reads its sides and orientation from.
QVN_Image GeometryOf(const FrameView& view) {
    QVN_Image img{};
    img.pix_fmt = view.pix_fmt;
    img.ori_fmt = view.ori_fmt;
    img.width = view.width;
    img.height = view.height;
    return img;
}

bool KnownDescription(const FrameView& view) {
    return view.matrix <= YuvMatrix::kBT709 && view.range <= YuvRange::kFull;
}

}  // namespace

QVN_API bool FrameView_From_QVN_Image(const QVN_Image* img, FrameView* view) {
    if (img == nullptr || view == nullptr || img->data == nullptr) return false;
    if (!pixfmt::IsViewFrame(img->pix_fmt)) return false;
    *view = internal::ViewOfImage(img);
    return true;
}

QVN_API bool Is_Valid_FrameView(const FrameView& view) {
    using utility::Log;
    const pixfmt::Format* format = pixfmt::Find(view.pix_fmt);
    if (format == nullptr || !format->view_frame) {
        Log(kErr, "Invalid FrameView: pixel format %" PRIu32 " is not a frame format.",
            view.pix_fmt);
        return false;
    }
    const bool yuv = pixfmt::IsFourTwoZero(view.pix_fmt);
    const int least = yuv ? 2 : 1;
    if (view.width < least || view.height < least) {
        Log(kErr, "Invalid FrameView: %" PRId32 "x%" PRId32 " is smaller than %dx%d.",
            view.width, view.height, least, least);
        return false;
    }
    if (!KnownDescription(view)) {
        Log(kErr, "Invalid FrameView: unknown colour matrix or range.");
        return false;
    }
    // Bytes of one row of each plane: luma (or packed pixels), then chroma.
    const ptrdiff_t w = view.width;
    ptrdiff_t row[3] = {w * (yuv ? 1 : format->luma_bytes), 0, 0};
    int planes = 1;
    if (format->layout == pixfmt::Layout::kTwoPlane420) {
        row[1] = (w >> 1) * 2;
        planes = 2;
    } else if (format->layout == pixfmt::Layout::kThreePlane420) {
        row[1] = row[2] = w >> 1;
        planes = 3;
    }
    for (int p = 0; p < planes; ++p) {
        if (view.planes[p].data == nullptr) {
            Log(kErr, "Invalid FrameView: plane %d is NULL.", p);
            return false;
        }
        if (view.planes[p].stride < row[p]) {
            Log(kErr, "Invalid FrameView: plane %d has a stride of %td bytes, less than its row of %td.",
                p, view.planes[p].stride, row[p]);
            return false;
        }
    }
    return true;
}

QVN_API void QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_FrameView_To_U8_CHW_TensorCPU(
    const FrameView& view, TensorPtr& o_tensor, const bool& to_bgr, const int& crop_x,
    const int& crop_y, const int& crop_w, const int& crop_h, const unsigned char& pad_value) {
    if (!Is_Valid_FrameView(view)) return;
    internal::CheckOutput(o_tensor, internal::kLayoutPlanar);
    const QVN_Image geometry = GeometryOf(view);
    const CropBox box = internal::FrameCropBox(&geometry, crop_x, crop_y, crop_w, crop_h);
    internal::OnePassPlanar(view, o_tensor, to_bgr, box, pad_value, kViewPlanar);
}

QVN_API void QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_FrameView_To_Gray8_TensorCPU(
    const FrameView& view, TensorPtr& o_tensor, const int& crop_x, const int& crop_y,
    const int& crop_w, const int& crop_h, const unsigned char& pad_value) {
    if (!Is_Valid_FrameView(view)) return;
    internal::CheckOutput(o_tensor, internal::kLayoutGray);
    const QVN_Image geometry = GeometryOf(view);
    const CropBox box = internal::FrameCropBox(&geometry, crop_x, crop_y, crop_w, crop_h);
    internal::OnePassGray(view, o_tensor, box, pad_value, kViewGray);
}

}  // namespace kit
}  // namespace quvas
