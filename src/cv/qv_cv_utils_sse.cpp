// qv_cv_utils_sse.cpp - the exported entry points of the vectorised affine
// warps, the float-to-byte mask converters and the tensor processing
// pipeline. Each concern's work lives in a file of its own:
// warp_affine_kernel.cpp, float_to_byte.cpp and tensor_pipeline.cpp.
#include <qvn_kit/qvn_kit.hpp>

#include <quvas/utility/log.h>

#include <cstddef>
#include <memory>

#include "float_to_byte.h"
#include "tensor_pipeline.h"
#include "warp_affine_kernel.h"

namespace quvas {
namespace kit {

// ===========================================================================
// Vectorised affine warps
// ===========================================================================

void warpaffine_linear_SSE_C1(int srcHeight, int srcWidth, int srcStride, int /*channels*/,
                              int dstHeight, int dstWidth, int dstStride, unsigned char* dst,
                              const unsigned char* src, const float* M, unsigned int border) {
    internal::WarpAffineBilinear<1>(srcHeight, srcWidth, srcStride, dstHeight, dstWidth, dstStride, dst, src, M,
                                    border);
}

void warpaffine_linear_SSE_C2(int srcHeight, int srcWidth, int srcStride, int /*channels*/,
                              int dstHeight, int dstWidth, int dstStride, unsigned char* dst,
                              const unsigned char* src, const float* M, unsigned int border) {
    internal::WarpAffineBilinear<2>(srcHeight, srcWidth, srcStride, dstHeight, dstWidth, dstStride, dst, src, M,
                                    border);
}

void warpaffine_linear_SSE_C3(int srcHeight, int srcWidth, int srcStride, int /*channels*/,
                              int dstHeight, int dstWidth, int dstStride, unsigned char* dst,
                              const unsigned char* src, const float* M, unsigned int border) {
    internal::WarpAffineBilinear<3>(srcHeight, srcWidth, srcStride, dstHeight, dstWidth, dstStride, dst, src, M,
                                    border);
}

void warpaffine_linear_SSE_C4(int srcHeight, int srcWidth, int srcStride, int /*channels*/,
                              int dstHeight, int dstWidth, int dstStride, unsigned char* dst,
                              const unsigned char* src, const float* M, unsigned int border) {
    internal::WarpAffineBilinear<4>(srcHeight, srcWidth, srcStride, dstHeight, dstWidth, dstStride, dst, src, M,
                                    border);
}

// The dispatch is this function's own, not the pixel-format table's: it
// takes gray and leaves out formats 2, 3 and 4 and the four-byte format 12,
// and its chroma planes take their border from bytes 1 and 2 of `border`,
// where the scalar dispatcher (affine_inv_qvimage_bilinear) fills them with
// 128. Both are what their callers rely on.
void AffineInvQvimageBilinearSSE(const QVN_Image* src, QVN_Image* dst, unsigned int border, float* M) {
    const int W = src->width, H = src->height;
    const int w = dst->width, h = dst->height;
    // Both chroma planes are half size: same linear part, half the translation.
    const float Mc[6] = {M[0], M[1], M[2] * 0.5f, M[3], M[4], M[5] * 0.5f};
    const unsigned int chroma1 = (border >> 8) & 0xffu;   // first chroma component
    const unsigned int chroma2 = (border >> 16) & 0xffu;  // second chroma component
    const size_t sn = static_cast<size_t>(W) * H;
    const size_t dn = static_cast<size_t>(w) * h;
    switch (src->pix_fmt) {
        case QVN_PIX_FMT_BGRA8888:
        case QVN_PIX_FMT_RGBA8888:
            warpaffine_linear_SSE_C4(H, W, 4 * W, 4, h, w, 4 * w, dst->data, src->data, M, border);
            break;
        case QVN_PIX_FMT_RGB888:
        case QVN_PIX_FMT_BGR888:
            warpaffine_linear_SSE_C3(H, W, 3 * W, 3, h, w, 3 * w, dst->data, src->data, M, border);
            break;
        case QVN_PIX_FMT_GRAY8:
            warpaffine_linear_SSE_C1(H, W, W, 1, h, w, w, dst->data, src->data, M, border);
            break;
        case QVN_PIX_FMT_YUV420SP_C:
        case QVN_PIX_FMT_YUV420SP_D:
            warpaffine_linear_SSE_C1(H, W, W, 1, h, w, w, dst->data, src->data, M, border);
            warpaffine_linear_SSE_C2(H / 2, W / 2, 2 * (W / 2), 2, h / 2, w / 2, 2 * (w / 2),
                                     dst->data + dn, src->data + sn, Mc, chroma1 | (chroma2 << 8));
            break;
        case QVN_PIX_FMT_YUV420_A: {
            warpaffine_linear_SSE_C1(H, W, W, 1, h, w, w, dst->data, src->data, M, border);
            const size_t sq = static_cast<size_t>(W / 2) * (H / 2);
            const size_t dq = static_cast<size_t>(w / 2) * (h / 2);
            warpaffine_linear_SSE_C1(H / 2, W / 2, W / 2, 1, h / 2, w / 2, w / 2, dst->data + dn,
                                     src->data + sn, Mc, chroma1);
            warpaffine_linear_SSE_C1(H / 2, W / 2, W / 2, 1, h / 2, w / 2, w / 2, dst->data + dn + dq,
                                     src->data + sn + sq, Mc, chroma2);
            break;
        }
        default:
            quvas::utility::Log(QVN_LOG_LEVEL_ERROR,
                                "unsupported image pixel format for affine_inv_qvimage_bilinear");
            break;
    }
}

// ===========================================================================
// Float-to-byte output conversion
// ===========================================================================

void float01toUchar0255SSE(const float* src, unsigned char* dst, int n) {
    internal::FloatToBytes(src, dst, n);
}

void sigmoid_float01toUchar0255SSE(const float* src, unsigned char* dst, int n) {
    internal::SigmoidToBytes(src, dst, n);
}

// ===========================================================================
// Tensor processing pipeline
// ===========================================================================

QVN_API void ConvertColorProcessSSE(TensorPtr& in, TensorPtr& out, QVN_PIX_FMT fmt,
                                    kernel::ImageProcessFallback* proc,
                                    std::shared_ptr<runtime::Context> ctx) {
    internal::ConvertColourPlanes(in, out, fmt, /*to_bgr=*/false, proc, ctx);
}

QVN_API void ConvertColorProcessSSEToBGRTensor(TensorPtr& in, TensorPtr& out, QVN_PIX_FMT fmt,
                                               kernel::ImageProcessFallback* proc,
                                               std::shared_ptr<runtime::Context> ctx) {
    internal::ConvertColourPlanes(in, out, fmt, /*to_bgr=*/true, proc, ctx);
}

QVN_API void TransformMatrixProcessSSE(TensorPtr& in, TensorPtr& out, QVN_ORIENT_FMT flags,
                                       kernel::ImageProcessFallback* proc,
                                       std::shared_ptr<runtime::Context> ctx) {
    internal::TurnAndMirror(in, out, flags, proc, ctx);
}

QVN_API void ResizeProcessSSE(TensorPtr& in, TensorPtr& out, QVN_PIX_FMT fmt,
                              kernel::ImageProcessFallback* proc,
                              std::shared_ptr<runtime::Context> ctx) {
    internal::ResizeFrame(in, out, fmt, proc, ctx);
}

QVN_API void CropResizeProcessSSE(TensorPtr& in, TensorPtr& out, QVN_PIX_FMT fmt,
                                  kernel::ImageProcessFallback* proc,
                                  std::shared_ptr<runtime::Context> ctx, float a, float b, float c,
                                  float d) {
    internal::CropResizeFrame(in, out, fmt, proc, ctx, a, b, c, d);
}

}  // namespace kit
}  // namespace quvas
