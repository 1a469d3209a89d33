// tensor_pipeline.h - the work behind the tensor processing entry points
// of qv_cv_utils_sse.cpp: which operation of the core's image-process kernel
// runs for a format or an orientation, on which plane views or intermediate
// tensors. No pixel is touched here. Private to the kit.
#ifndef QVN_KIT_SRC_CV_TENSOR_PIPELINE_H
#define QVN_KIT_SRC_CV_TENSOR_PIPELINE_H

#include <qvn_kit/qvn_kit.hpp>

#include <memory>

namespace quvas {
namespace kit {
namespace internal {

using ContextPtr = std::shared_ptr<runtime::Context>;

// Colour conversion into planar R,G,B (to_bgr false) or B,G,R.
void ConvertColourPlanes(TensorPtr& in, TensorPtr& out, QVN_PIX_FMT fmt, bool to_bgr,
                         kernel::ImageProcessFallback* proc, const ContextPtr& ctx);
// First matching turn, then the mirror; `out` may be reseated.
void TurnAndMirror(TensorPtr& in, TensorPtr& out, QVN_ORIENT_FMT flags,
                   kernel::ImageProcessFallback* proc, const ContextPtr& ctx);
void ResizeFrame(TensorPtr& in, TensorPtr& out, QVN_PIX_FMT fmt,
                 kernel::ImageProcessFallback* proc, const ContextPtr& ctx);
void CropResizeFrame(TensorPtr& in, TensorPtr& out, QVN_PIX_FMT fmt,
                     kernel::ImageProcessFallback* proc, const ContextPtr& ctx, float a, float b,
                     float c, float d);

}  // namespace internal
}  // namespace kit
}  // namespace quvas

#endif  // QVN_KIT_SRC_CV_TENSOR_PIPELINE_H
