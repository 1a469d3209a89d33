// frame_convert.h - what the two frame-to-tensor pipelines share: the crop
// box in frame pixels, the format questions they ask the pixel-format table,
// the colour matrix, and the pipelines themselves. The exported converters of
// qv2_image_process.cpp check their output, place the crop box and call one
// of the pipelines: the step-by-step one (frame_stepwise.cpp, the core's
// functional kernels on intermediate tensors) or the one-pass one
// (frame_one_pass.cpp, the same bytes without the tensors). Private.
#ifndef QVN_KIT_SRC_CV_FRAME_CONVERT_H
#define QVN_KIT_SRC_CV_FRAME_CONVERT_H

#include <qvn_kit/frame_view.hpp>
#include <qvn_kit/qvn_kit.hpp>

#include <quvas/qvn_core.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "../kit/qv_internal.h"
#include "kernels/row.h"
#include "pixel_format.h"

namespace quvas {
namespace kit {
namespace internal {

constexpr const char* kBadFormat = "Invaild pixel format of input image.";

// The converters' output layouts: planar {C, H, W}, gray {H, W, 1}.
constexpr int32_t kLayoutPlanar = runtime::layout::kCHW;
constexpr int32_t kLayoutGray = runtime::layout::kHWC;

// Owned creator of one kind of u8 HWC tensor (Y, UV, BGRA, RGBA).
using Creator = TensorPtr (runtime::DeviceCPU::*)(const unsigned&, const unsigned&, const void*);

// The crop in frame pixels; inactive means the whole frame.
struct CropBox {
    bool active = false;
    int x = 0;
    int y = 0;
    int w = 0;
    int h = 0;
};

// Input frames are the table's: two-plane 4:2:0 (luma plane, then one
// interleaved chroma plane) or four bytes a pixel, read as B,G,R,A when red
// sits at byte 2 and as R,G,B,A otherwise.
inline bool IsInputFrameFormat(uint32_t pix_fmt) { return pixfmt::IsInputFrame(pix_fmt); }
inline bool IsTwoPlaneYUV(uint32_t pix_fmt) { return pixfmt::IsTwoPlane(pix_fmt); }
inline bool IsBgraFrame(uint32_t pix_fmt) {
    return pixfmt::IsFourByteColour(pix_fmt) && pixfmt::Find(pix_fmt)->red_byte == 2;
}

// Refuses, through the core's Assert, a frame that is not an input frame;
// every pipeline asks this first.
inline bool RefusedFormat(const QVN_Image* img) {
    if (IsInputFrameFormat(img->pix_fmt)) return false;
    utility::Assert(false, "%s", kBadFormat);
    return true;
}

// The output's size (t_h, t_w: the planar output's dims 1 and 2, the gray
// output's dims 0 and 1) and the size the resize makes (r_h, r_w): exchanged
// while a quarter turn is still to come, so that the turn lands on the
// output's size. The gray output is never turned, but its resize size is
// exchanged all the same.
struct Sizes {
    int t_h, t_w, r_h, r_w;
};

inline Sizes OutputSizes(uint32_t ori_fmt, const TensorPtr& o_tensor, bool gray) {
    const std::vector<int32_t>& dims = o_tensor->shape().dims;
    Sizes s;
    s.t_h = gray ? dims[0] : dims[1];
    s.t_w = gray ? dims[1] : dims[2];
    const bool quarter = (ori_fmt & kQuarterTurns) != 0;
    s.r_h = quarter ? s.t_w : s.t_h;
    s.r_w = quarter ? s.t_h : s.t_w;
    return s;
}

// The crop box of the upright view moved into the frame (crop_w * crop_h > 0
// activates it), and the output checks that report and let the work go on
// (qv2_image_process.cpp).
CropBox FrameCropBox(const QVN_Image* img, int crop_x, int crop_y, int crop_w, int crop_h);
void CheckOutput(const TensorPtr& o_tensor, int32_t layout);

// The colour matrix handed to the two-plane converter (yuv_matrix.cpp).
std::shared_ptr<kernel::YUVCvtMatrix> MakeYUVMatrix(bool to_bgr, uint32_t pix_fmt);

// A packed QVN_Image as a view over its memory: rows of width x bytes per
// pixel, (w/2) x (h/2) chroma pairs right after the luma plane, the format's
// own colour. Nothing is checked beyond what the format needs.
FrameView ViewOfImage(const QVN_Image* img);

// The fixed-point colour weights of a 4:2:0 view for the one-pass converter:
// the format's own matrix where the view keeps the default description,
// otherwise the textbook BT.601 / BT.709 conversion in the view's range, with
// the chroma samples c0, c1 in the order they lie in memory (three-plane
// frames are interleaved U, V). Limited range is expanded by the weights and
// the bias, so it costs nothing extra (yuv_matrix.cpp).
kernels::YuvFixed ViewYuvFixed(const FrameView& view, bool to_bgr);
// The range a 4:2:0 view is read in, defaults resolved: the two-plane
// formats are full range, three-plane frames limited (what an untagged
// video stream is).
bool ViewIsLimited(const FrameView& view);
// n limited-range luma bytes stretched to full range in place:
// round((Y - 16) * 255 / 219), clamped to 0..255.
void ExpandLimitedLuma(uint8_t* data, size_t n);

// The pipelines. The step-by-step ones refuse a format that is not an input
// frame first; the one-pass ones take a view whose format the caller has
// checked, and name `caller` in their refusal of an output they cannot fill.
void StepwisePlanar(const QVN_Image* img, TensorPtr& o_tensor, bool to_bgr, const CropBox& box,
                    uint8_t pad_value);
void StepwiseGray(const QVN_Image* img, TensorPtr& o_tensor, const CropBox& box,
                  uint8_t pad_value);
// Where a picture's rows go when they are not written as planes: rows(ctx,
// y0, n, data, plane) takes rows y0 .. y0 + n - 1 of the three channels,
// t_w bytes each, packed, channel c at data + c * plane; data is valid
// during the call only. Rows come in bands of kSinkBand (or the whole
// picture), while they are still in the cache.
struct RowSink {
    void (*rows)(void* ctx, int y0, int n, const uint8_t* data, size_t plane);
    void* ctx;
};
constexpr int kSinkBand = 16;

// The one-pass pictures themselves, for a view whose format and sizes the
// caller has checked (at least 2 x 2 for 4:2:0 colour): the crop region
// resized, turned and mirrored into three packed t_w x t_h planes at `out`,
// planes t_w * t_h bytes apart, or handed row by row to `sink` when it is not
// null (`out` unused); or, for gray, resized to w x h and never turned.
void PlanarPicture(const FrameView& view, bool to_bgr, const CropBox& box, uint8_t pad, int t_w,
                   int t_h, uint8_t* out, const RowSink* sink);
void GrayPicture(const FrameView& view, const CropBox& box, uint8_t pad, int w, int h,
                 uint8_t* out);
void OnePassPlanar(const FrameView& view, TensorPtr& o_tensor, bool to_bgr, const CropBox& box,
                   uint8_t pad, const char* caller);
void OnePassGray(const FrameView& view, TensorPtr& o_tensor, const CropBox& box, uint8_t pad,
                 const char* caller);

}  // namespace internal
}  // namespace kit
}  // namespace quvas

#endif  // QVN_KIT_SRC_CV_FRAME_CONVERT_H
