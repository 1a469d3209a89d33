// warp_affine_kernel.h - the fixed-point bilinear affine warp of one to four
// interleaved byte channels, behind warpaffine_linear_SSE_C1 .. _C4 of
// qv_cv_utils_sse.cpp. Private to the kit.
#ifndef QVN_KIT_SRC_CV_WARP_AFFINE_KERNEL_H
#define QVN_KIT_SRC_CV_WARP_AFFINE_KERNEL_H

namespace quvas {
namespace kit {
namespace internal {

// Warps src (srcWidth x srcHeight, srcStride bytes a row) into dst through
// the inverse map M; N bytes a pixel. Outside pixels: see the kernel.
template <int N>
void WarpAffineBilinear(int srcHeight, int srcWidth, int srcStride, int dstHeight, int dstWidth,
                        int dstStride, unsigned char* dst, const unsigned char* src, const float* M,
                        unsigned int border);

extern template void WarpAffineBilinear<1>(int, int, int, int, int, int, unsigned char*,
                                           const unsigned char*, const float*, unsigned int);
extern template void WarpAffineBilinear<2>(int, int, int, int, int, int, unsigned char*,
                                           const unsigned char*, const float*, unsigned int);
extern template void WarpAffineBilinear<3>(int, int, int, int, int, int, unsigned char*,
                                           const unsigned char*, const float*, unsigned int);
extern template void WarpAffineBilinear<4>(int, int, int, int, int, int, unsigned char*,
                                           const unsigned char*, const float*, unsigned int);

}  // namespace internal
}  // namespace kit
}  // namespace quvas

#endif  // QVN_KIT_SRC_CV_WARP_AFFINE_KERNEL_H
