// frame_convert.h - what the two frame-to-tensor pipelines share: the crop
// box in frame pixels, the format questions they ask the pixel-format table,
// the colour matrix, and the pipelines themselves. The exported converters of
// qv2_image_process.cpp check their output, place the crop box and call one
// of the pipelines: the step-by-step one (frame_stepwise.cpp, the core's
// functional kernels on intermediate tensors) or the one-pass one
// (frame_one_pass.cpp, the same bytes without the tensors). Private.
#ifndef QVN_KIT_SRC_CV_FRAME_CONVERT_H
#define QVN_KIT_SRC_CV_FRAME_CONVERT_H

#include <qvn_kit/qvn_kit.hpp>

#include <quvas/qvn_core.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "../kit/qv_internal.h"
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

inline Sizes OutputSizes(const QVN_Image* img, const TensorPtr& o_tensor, bool gray) {
    const std::vector<int32_t>& dims = o_tensor->shape().dims;
    Sizes s;
    s.t_h = gray ? dims[0] : dims[1];
    s.t_w = gray ? dims[1] : dims[2];
    const bool quarter = (img->ori_fmt & kQuarterTurns) != 0;
    s.r_h = quarter ? s.t_w : s.t_h;
    s.r_w = quarter ? s.t_h : s.t_w;
    return s;
}

// The colour matrix handed to the two-plane converter (yuv_matrix.cpp).
std::shared_ptr<kernel::YUVCvtMatrix> MakeYUVMatrix(bool to_bgr, uint32_t pix_fmt);

// The pipelines; each refuses a format that is not an input frame first.
void StepwisePlanar(const QVN_Image* img, TensorPtr& o_tensor, bool to_bgr, const CropBox& box,
                    uint8_t pad_value);
void StepwiseGray(const QVN_Image* img, TensorPtr& o_tensor, const CropBox& box,
                  uint8_t pad_value);
void OnePassPlanar(const QVN_Image* img, TensorPtr& o_tensor, bool to_bgr, const CropBox& box,
                   uint8_t pad);
void OnePassGray(const QVN_Image* img, TensorPtr& o_tensor, const CropBox& box, uint8_t pad);

}  // namespace internal
}  // namespace kit
}  // namespace quvas

#endif  // QVN_KIT_SRC_CV_FRAME_CONVERT_H
