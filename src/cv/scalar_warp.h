// scalar_warp.h - the scalar inverse-affine bilinear warp of K interleaved
// byte channels, behind affine_inv_image_bilinear_c1 .. _c4 of
// qv_cv_utils.cpp. Header-only so that each exported warp is compiled with
// its channel count as a constant. Private to the kit.
#ifndef QVN_KIT_SRC_CV_SCALAR_WARP_H
#define QVN_KIT_SRC_CV_SCALAR_WARP_H

#include <cmath>
#include <cstddef>
#include <cstring>

#include "../kit/qv_internal.h"

namespace quvas {
namespace kit {
namespace internal {

// Bilinear inverse-affine warp of K interleaved byte channels. Only points
// whose 2 x 2 neighbourhood lies wholly in the source are sampled; every
// other destination pixel keeps `border`.
template <int K>
inline void AffineInvBilinear(const unsigned char* src, int src_w, int src_h, unsigned char* dst,
                              int dst_w, int dst_h, unsigned char border, const float* M) {
    std::memset(dst, border, static_cast<size_t>(dst_w) * static_cast<size_t>(dst_h) * K);
    if (dst_h == 0 || dst_w == 0) return;
    const float m0 = M[0], m1 = M[1], m2 = M[2], m3 = M[3], m4 = M[4], m5 = M[5];
    const float right_edge = static_cast<float>(src_w - 1);
    const float bottom_edge = static_cast<float>(src_h - 1);
    const size_t pitch = static_cast<size_t>(src_w) * K;
    for (int y = 0; y < dst_h; ++y) {
        const float fy_pos = static_cast<float>(y);
        unsigned char* out = dst + static_cast<size_t>(y) * dst_w * K;
        for (int x = 0; x < dst_w; ++x, out += K) {
            const float fx_pos = static_cast<float>(x);
            const float sx = std::fma(fx_pos, m0, fy_pos * m1) + m2;
            // Truncation toward zero gives INT_MIN for values out of the int range
            // or NaN, which then simply count as outside.
            const int xi = TruncToInt(sx);
            if (xi < 0) continue;
            const float sy = std::fma(fy_pos, m4, fx_pos * m3) + m5;
            const int yi = TruncToInt(sy);
            if (yi < 0 || xi >= src_w - 1 || yi >= src_h - 1) continue;

            // A point in (-1, 0) truncates onto row or column 0 and takes it whole.
            const float fx = sx >= 0.0f ? sx - static_cast<float>(xi) : 0.0f;
            const float fy = sy >= 0.0f ? sy - static_cast<float>(yi) : 0.0f;
            const unsigned char* p00 = src + static_cast<size_t>(yi) * pitch + static_cast<size_t>(xi) * K;
            const unsigned char* p01 = (sx > 0.0f && sx < right_edge) ? p00 + K : p00;
            const size_t down = (sy >= 0.0f && sy < bottom_edge) ? pitch : 0;
            const unsigned char* p10 = p00 + down;
            const unsigned char* p11 = p01 + down;
            const float gx = 1.0f - fx;
            const float gy = 1.0f - fy;
            for (int c = 0; c < K; ++c) {
                const float top = std::fma(static_cast<float>(p00[c]), gx, static_cast<float>(p01[c]) * fx);
                const float bottom = std::fma(static_cast<float>(p10[c]), gx, static_cast<float>(p11[c]) * fx);
                const float v = std::fma(top, gy, bottom * fy);
                out[c] = v > 255.0f ? 255 : static_cast<unsigned char>(static_cast<int>(v));
            }
        }
    }
}

}  // namespace internal
}  // namespace kit
}  // namespace quvas

#endif  // QVN_KIT_SRC_CV_SCALAR_WARP_H
