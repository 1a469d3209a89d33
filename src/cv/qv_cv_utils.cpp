// qv_cv_utils.cpp - crop geometry and affine matrices per orientation,
// scalar inverse-affine bilinear warps, planar-to-interleaved conversion,
// and small dense matrix utilities.
#include <qvn_kit/qvn_kit.hpp>

#include <quvas/utility/log.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "kernels/planar.h"
#include "kernels/row.h"
#include "../kit/qv_internal.h"

// ===========================================================================
// Affine matrices and crop geometry
// ===========================================================================

namespace quvas {
namespace kit {

namespace {

// Writes six coefficients m0 m1 m2 / m3 m4 m5.
inline void geom_put6(float* m, float a, float b, float c, float d, float e, float f) {
    m[0] = a;
    m[1] = b;
    m[2] = c;
    m[3] = d;
    m[4] = e;
    m[5] = f;
}

// The orientation flags by name.
constexpr unsigned kTurnRight = QVN_ORIENT_FMT_ROTATE_90R;
constexpr unsigned kTurnLeft = QVN_ORIENT_FMT_ROTATE_90L;
constexpr unsigned kHalfTurn = QVN_ORIENT_FMT_ROTATE_180;
constexpr unsigned kFlipV = QVN_ORIENT_FMT_FLIPV;
constexpr unsigned kMirror = QVN_ORIENT_FMT_MIRROR;

// The matrix tables switch on the whole orientation word: a flip combined
// with a turn is its own entry (each equal to another word's matrix), and 64
// (a half turn meant for boxes only) is not listed, so matrices treat it as
// the identity.
void geom_forward_matrix(unsigned ori, int width, int height, float* m) {
    const float W = static_cast<float>(width) - 1.0f;
    const float H = static_cast<float>(height) - 1.0f;
    switch (ori) {
        case kTurnRight: geom_put6(m, 0.f, -1.f, W, 1.f, 0.f, 0.f); break;
        case kTurnLeft: geom_put6(m, 0.f, 1.f, 0.f, -1.f, 0.f, H); break;
        case kHalfTurn: geom_put6(m, -1.f, 0.f, W, 0.f, -1.f, H); break;
        case kFlipV:
        case kHalfTurn | kMirror: geom_put6(m, 1.f, 0.f, 0.f, 0.f, -1.f, H); break;
        case kFlipV | kTurnRight:
        case kMirror | kTurnLeft: geom_put6(m, 0.f, 1.f, 0.f, 1.f, 0.f, 0.f); break;
        case kFlipV | kTurnLeft:
        case kMirror | kTurnRight: geom_put6(m, 0.f, -1.f, W, -1.f, 0.f, H); break;
        case kFlipV | kHalfTurn:
        case kMirror: geom_put6(m, -1.f, 0.f, W, 0.f, 1.f, 0.f); break;
        default: geom_put6(m, 1.f, 0.f, 0.f, 0.f, 1.f, 0.f); break;
    }
}

void geom_inverse_matrix(unsigned ori, int width, int height, float* m) {
    const float W = static_cast<float>(width) - 1.0f;
    const float H = static_cast<float>(height) - 1.0f;
    switch (ori) {
        case kTurnRight: geom_put6(m, 0.f, 1.f, 0.f, -1.f, 0.f, W); break;
        case kTurnLeft: geom_put6(m, 0.f, -1.f, H, 1.f, 0.f, 0.f); break;
        case kHalfTurn: geom_put6(m, -1.f, 0.f, W, 0.f, -1.f, H); break;
        case kFlipV:
        case kHalfTurn | kMirror: geom_put6(m, 1.f, 0.f, 0.f, 0.f, -1.f, H); break;
        case kFlipV | kTurnRight:
        case kMirror | kTurnLeft: geom_put6(m, 0.f, 1.f, 0.f, 1.f, 0.f, 0.f); break;
        case kFlipV | kTurnLeft:
        case kMirror | kTurnRight: geom_put6(m, 0.f, -1.f, H, -1.f, 0.f, W); break;
        case kFlipV | kHalfTurn:
        case kMirror: geom_put6(m, -1.f, 0.f, W, 0.f, 1.f, 0.f); break;
        default: geom_put6(m, 1.f, 0.f, 0.f, 0.f, 1.f, 0.f); break;
    }
}

}  // namespace

void getAffineTransform(const unsigned& ori, const int& width, const int& height,
                        std::vector<float>& m) {
    // The caller hands a vector that already holds six elements.
    geom_forward_matrix(ori, width, height, m.data());
}

void getAffineTransformInv(const unsigned& ori, const int& width, const int& height,
                           std::vector<float>& m) {
    // Long-standing interface: the vector ends up empty and the coefficients
    // live in its reserved storage, read back through m.data().
    m.clear();
    geom_inverse_matrix(ori, width, height, m.data());
}

void Cropbox_Rectify(const QVN_Image* img, const bool& normalized, float& x0, float& y0,
                     float& x1, float& y1) {
    std::vector<float> m(6, 0.0f);
    // A 2 x 2 "image" makes W = H = 1, so the matrix works on 0..1 values.
    const int width = normalized ? 2 : img->width;
    const int height = normalized ? 2 : img->height;
    getAffineTransform(img->ori_fmt, width, height, m);

    const float xs[4] = {x0, x1, x0, x1};
    const float ys[4] = {y0, y0, y1, y1};
    float tx[4];
    float ty[4];
    for (int i = 0; i < 4; ++i) {
        tx[i] = std::fma(m[0], xs[i], m[1] * ys[i]) + m[2];
        ty[i] = std::fma(m[3], xs[i], m[4] * ys[i]) + m[5];
    }
    x0 = std::min(std::min(tx[0], tx[1]), std::min(tx[2], tx[3]));
    y0 = std::min(std::min(ty[0], ty[1]), std::min(ty[2], ty[3]));
    x1 = std::max(std::max(tx[0], tx[1]), std::max(tx[2], tx[3]));
    y1 = std::max(std::max(ty[0], ty[1]), std::max(ty[2], ty[3]));
}

void Cropbox_Rectify(QVN_ORIENT_FMT ori, float& x0, float& y0, float& x1, float& y1) {
    const unsigned o = static_cast<unsigned>(ori);
    float a = x0;
    float b = y0;
    float c = x1;
    float d = y1;
    const float w = x1 - x0;
    const float h = y1 - y0;
    // One flip at most: a vertical flip takes precedence over a mirror.
    if (o & kFlipV) {
        b = 1.0f - y1;
        d = 1.0f - y0;
    } else if (o & kMirror) {
        a = 1.0f - x1;
        c = 1.0f - x0;
    }
    if (o & kTurnLeft) {
        x0 = b;
        y0 = 1.0f - (a + w);
        x1 = b + h;
        y1 = 1.0f - a;
    } else if (o & kTurnRight) {
        x0 = 1.0f - (b + h);
        y0 = a;
        x1 = 1.0f - b;
        y1 = a + w;
    } else if (!(o & internal::kHalfTurns)) {
        x0 = a;
        y0 = b;
        x1 = c;
        y1 = d;
    } else {
        // For boxes, 64 is a half turn just like 4.
        x0 = 1.0f - c;
        y0 = 1.0f - d;
        x1 = 1.0f - a;
        y1 = 1.0f - b;
    }
}

int rectify_cropbox(const QVN_Image* img, int& x0, int& y0, int& x1, int& y1, int& w, int& h) {
    const unsigned o = img->ori_fmt;
    int A = img->width;
    int B = img->height;
    if (o & internal::kQuarterTurns) std::swap(A, B);
    const int x0in = x0;
    int ya = y0;
    int yb = y1;
    if (o & kFlipV) {
        ya = B - (h + y0);
        yb = B - 1 - y0;
    }
    if (o & kTurnLeft) {
        x0 = ya;
        y0 = A - (w + x0in);
        x1 = ya + h - 1;
        y1 = A - 1 - x0in;
    } else if (o & kTurnRight) {
        x0 = B - (h + ya);
        y0 = x0in;
        x1 = B - 1 - ya;
        y1 = x0in + w - 1;
    } else if (o & internal::kHalfTurns) {
        x0 = (A - 1) - x1;
        y0 = (B - 1) - yb;
        x1 = (A - 1) - x0in;
        y1 = (B - 1) - ya;
    } else {
        y0 = ya;
        y1 = yb;
    }
    w = x1 - x0 + 1;
    h = y1 - y0 + 1;
    return h;
}

namespace {

// Packed formats: copy the part of the box inside the frame, then replicate
// the edge rows and columns into the part outside it.
void geom_crop_packed(const QVN_Image* src, QVN_Image& dst, int bpp, int x0, int y0, int w,
                      int h, int r0, int r1, int c0, int c1) {
    if (r0 > r1 || c0 > c1) return;  // nothing of the box lies inside the frame
    const size_t src_pitch = static_cast<size_t>(src->width) * bpp;
    const size_t dst_pitch = static_cast<size_t>(dst.width) * bpp;
    const int left = std::max(-x0, 0);
    const size_t row_bytes = static_cast<size_t>(c1 - c0 + 1) * bpp;
    const uint8_t* s = src->data;
    uint8_t* d = dst.data;
    auto src_row = [&](int r) { return s + static_cast<size_t>(r) * src_pitch + static_cast<size_t>(c0) * bpp; };
    auto dst_row = [&](int r) { return d + static_cast<size_t>(r) * dst_pitch + static_cast<size_t>(left) * bpp; };

    for (int r = r0; r <= r1; ++r) std::memcpy(dst_row(r - y0), src_row(r), row_bytes);
    for (int r = 0; r < r0 - y0; ++r) std::memcpy(dst_row(r), src_row(r0), row_bytes);
    for (int r = r1 - y0 + 1; r < h; ++r) std::memcpy(dst_row(r), src_row(r1), row_bytes);

    const int right = left + (c1 - c0 + 1);  // first column after the copied block
    for (int r = 0; r < h; ++r) {
        uint8_t* row = d + static_cast<size_t>(r) * dst_pitch;
        for (int c = 0; c < left; ++c) std::memcpy(row + c * bpp, row + left * bpp, bpp);
        for (int c = right; c < w; ++c) std::memcpy(row + c * bpp, row + (right - 1) * bpp, bpp);
    }
}

}  // namespace

void crop_for_image(const QVN_Image* src, QVN_Image& dst, int x0, int y0, int x1, int y1, int w,
                    int h) {
    rectify_cropbox(src, x0, y0, x1, y1, w, h);
    const int r0 = std::max(y0, 0);
    const int r1 = std::min(y1, src->height - 1);
    const int c0 = std::max(x0, 0);
    const int c1 = std::min(x1, src->width - 1);
    const int left = std::max(-x0, 0);

    // This copy's own list of formats, not the pixel-format table's: it cuts
    // only the two-plane formats 8 and 9 (whole chroma pairs) and format 1,
    // and refuses gray; callers depend on exactly this list.
    switch (src->pix_fmt) {
        case QVN_PIX_FMT_BGRA8888:
        case QVN_PIX_FMT_RGBA8888:
            dst.channels = 4;
            geom_crop_packed(src, dst, 4, x0, y0, w, h, r0, r1, c0, c1);
            break;
        case QVN_PIX_FMT_RGB888:
        case QVN_PIX_FMT_BGR888:
            dst.channels = 3;
            geom_crop_packed(src, dst, 3, x0, y0, w, h, r0, r1, c0, c1);
            break;
        case QVN_PIX_FMT_YUV420SP_C:
        case QVN_PIX_FMT_YUV420SP_D: {
            // Chroma pairs must stay whole: an even number of bytes a row.
            const int bytes = (c1 - c0 + 1) & ~1;
            if (bytes <= 0) break;
            const size_t sw = static_cast<size_t>(src->width);
            const size_t dw = static_cast<size_t>(dst.width);
            const uint8_t* s_uv = src->data + static_cast<size_t>(src->height) * sw;
            uint8_t* d_uv = dst.data + static_cast<size_t>(dst.height) * dw;
            // Rows go in pairs; an odd last row is copied with the one after it.
            for (int r = r0; r <= r1; r += 2) {
                const int dr = r - y0;
                std::memcpy(dst.data + dr * dw + left, src->data + r * sw + c0, bytes);
                std::memcpy(dst.data + (dr + 1) * dw + left, src->data + (r + 1) * sw + c0, bytes);
                std::memcpy(d_uv + (dr / 2) * dw + left, s_uv + (r / 2) * sw + c0, bytes);
            }
            break;
        }
        case QVN_PIX_FMT_YUV420_A: {
            const int bytes = (c1 - c0 + 1) & ~1;
            if (bytes <= 0) break;
            const int sw = src->width;
            const int dw = dst.width;
            const size_t s_n = static_cast<size_t>(src->width) * src->height;
            const size_t d_n = static_cast<size_t>(dst.width) * dst.height;
            const uint8_t* s_u = src->data + s_n;
            const uint8_t* s_v = src->data + s_n * 5 / 4;
            uint8_t* d_u = dst.data + d_n;
            uint8_t* d_v = dst.data + d_n * 5 / 4;
            for (int r = r0; r <= r1; r += 2) {
                const int dr = r - y0;
                std::memcpy(dst.data + static_cast<size_t>(dr) * dw + left,
                            src->data + static_cast<size_t>(r) * sw + c0, bytes);
                std::memcpy(dst.data + static_cast<size_t>(dr + 1) * dw + left,
                            src->data + static_cast<size_t>(r + 1) * sw + c0, bytes);
                const size_t s_off = static_cast<size_t>((r / 2) * sw / 2 + c0 / 2);
                const size_t d_off = static_cast<size_t>((dr / 2) * dw / 2 + left / 2);
                std::memcpy(d_u + d_off, s_u + s_off, bytes / 2);
                std::memcpy(d_v + d_off, s_v + s_off, bytes / 2);
            }
            break;
        }
        default:
            quvas::utility::Log(QVN_LOG_LEVEL_ERROR, "unsupported input image format!");
            break;
    }
    dst.ori_fmt = src->ori_fmt;
}

void cal_crop_resize_inv_param(int x, int y, int crop_w, int crop_h, int dst_w, int dst_h,
                               float* out) {
    out[0] = static_cast<float>(crop_w) / static_cast<float>(dst_w);
    out[1] = 0.0f;
    out[2] = static_cast<float>(x);
    out[3] = 0.0f;
    out[4] = static_cast<float>(crop_h) / static_cast<float>(dst_h);
    out[5] = static_cast<float>(y);
    out[6] = 0.0f;
    out[7] = 0.0f;
    out[8] = 1.0f;
}

void cal_crop_resize_inv_float_param(float x, float y, float crop_w, float crop_h, float dst_w,
                                     float dst_h, float* out) {
    out[0] = crop_w / dst_w;
    out[1] = 0.0f;
    out[2] = x;
    out[3] = 0.0f;
    out[4] = crop_h / dst_h;
    out[5] = y;
    out[6] = 0.0f;
    out[7] = 0.0f;
    out[8] = 1.0f;
}

}  // namespace kit
}  // namespace quvas

// ===========================================================================
// Inverse-affine bilinear sampling and planar-to-interleaved conversion
// ===========================================================================

namespace quvas {
namespace kit {

namespace {

// Truncation toward zero (internal::TruncToInt) gives INT_MIN for values out
// of the int range or NaN, which then simply count as outside.
using internal::TruncToInt;

// Bilinear inverse-affine warp of K interleaved byte channels. Only points
// whose 2 x 2 neighbourhood lies wholly in the source are sampled; every
// other destination pixel keeps `border`.
template <int K>
void geom_affine_inv_bilinear(const unsigned char* src, int src_w, int src_h, unsigned char* dst,
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

}  // namespace

void affine_inv_image_bilinear_c1(const unsigned char* src, int src_w, int src_h, unsigned char* dst,
                                  int dst_w, int dst_h, unsigned char border, float* M) {
    geom_affine_inv_bilinear<1>(src, src_w, src_h, dst, dst_w, dst_h, border, M);
}

void affine_inv_image_bilinear_c2(const unsigned char* src, int src_w, int src_h, unsigned char* dst,
                                  int dst_w, int dst_h, unsigned char border, float* M) {
    geom_affine_inv_bilinear<2>(src, src_w, src_h, dst, dst_w, dst_h, border, M);
}

void affine_inv_image_bilinear_c3(const unsigned char* src, int src_w, int src_h, unsigned char* dst,
                                  int dst_w, int dst_h, unsigned char border, float* M) {
    geom_affine_inv_bilinear<3>(src, src_w, src_h, dst, dst_w, dst_h, border, M);
}

void affine_inv_image_bilinear_c4(const unsigned char* src, int src_w, int src_h, unsigned char* dst,
                                  int dst_w, int dst_h, unsigned char border, float* M) {
    geom_affine_inv_bilinear<4>(src, src_w, src_h, dst, dst_w, dst_h, border, M);
}

void affine_inv_qvimage_bilinear(const QVN_Image* src, QVN_Image* dst, unsigned char border,
                                 float* M) {
    const int sw = src->width, sh = src->height;
    const int dw = dst->width, dh = dst->height;
    // Chroma planes are half size on both sides: the linear terms carry over,
    // the translation halves. Empty chroma is mid-grey whatever `border` is.
    float Mc[6] = {M[0], M[1], 0.5f * M[2], M[3], M[4], 0.5f * M[5]};
    const unsigned char kChromaBorder = 128;
    const size_t sn = static_cast<size_t>(sw) * sh;
    const size_t dn = static_cast<size_t>(dw) * dh;
    // The dispatch is this function's own, not the pixel-format table's: it
    // leaves out formats 2, 3 and 4 and fills both chroma planes with 128
    // whatever `border` says, where the vector dispatcher
    // (AffineInvQvimageBilinearSSE) takes their border from `border`'s
    // bytes 1 and 2. Both are what their callers rely on.
    switch (src->pix_fmt) {
        case QVN_PIX_FMT_BGRA8888:
        case QVN_PIX_FMT_RGBA8888:
            affine_inv_image_bilinear_c4(src->data, sw, sh, dst->data, dw, dh, border, M);
            break;
        case QVN_PIX_FMT_RGB888:
        case QVN_PIX_FMT_BGR888:
            affine_inv_image_bilinear_c3(src->data, sw, sh, dst->data, dw, dh, border, M);
            break;
        case QVN_PIX_FMT_GRAY8:
            affine_inv_image_bilinear_c1(src->data, sw, sh, dst->data, dw, dh, border, M);
            break;
        case QVN_PIX_FMT_YUV420SP_C:
        case QVN_PIX_FMT_YUV420SP_D:
            affine_inv_image_bilinear_c1(src->data, sw, sh, dst->data, dw, dh, border, M);
            affine_inv_image_bilinear_c2(src->data + sn, sw / 2, sh / 2, dst->data + dn, dw / 2,
                                         dh / 2, kChromaBorder, Mc);
            break;
        case QVN_PIX_FMT_YUV420_A: {
            affine_inv_image_bilinear_c1(src->data, sw, sh, dst->data, dw, dh, border, M);
            const size_t sq = static_cast<size_t>(sw / 2) * (sh / 2);
            const size_t dq = static_cast<size_t>(dw / 2) * (dh / 2);
            affine_inv_image_bilinear_c1(src->data + sn, sw / 2, sh / 2, dst->data + dn, dw / 2,
                                         dh / 2, kChromaBorder, Mc);
            affine_inv_image_bilinear_c1(src->data + sn + sq, sw / 2, sh / 2, dst->data + dn + dq,
                                         dw / 2, dh / 2, kChromaBorder, Mc);
            break;
        }
        default:
            quvas::utility::Log(QVN_LOG_LEVEL_ERROR,
                                "unsupported image pixel format for affine_inv_qvimage_bilinear");
            break;
    }
}

// Planar to interleaved: the merge rows of the core's kernel layer.
namespace kernels = quvas::kernels;

int post_getRGB_HWC_from_RGB_CHW(QVN_Image* src, QVN_Image* dst) {
    const int n = src->width * src->height;
    if (n < 1) return 0;
    const size_t count = static_cast<size_t>(n);
    const uint8_t* p0 = src->data;
    // In place (or any overlap) the vector rows could read bytes they already
    // wrote; the plain row keeps the pixel-by-pixel left-to-right order.
    if (internal::RangesOverlap(src->data, count * 3, dst->data, count * 3)) {
        kernels::MergeRow3_C(p0, p0 + count, p0 + 2 * count, dst->data, count);
    } else {
        kernels::MergePlanes(p0, p0 + count, p0 + 2 * count, nullptr, 3, count, dst->data);
    }
    return 0;
}

int post_getRGBA_HWC_from_RGBA_CHW(QVN_Image* src, QVN_Image* dst) {
    const int n = src->width * src->height;
    if (n < 1) return 0;
    const size_t count = static_cast<size_t>(n);
    const uint8_t* p0 = src->data;
    if (internal::RangesOverlap(src->data, count * 4, dst->data, count * 4)) {
        kernels::MergeRow4_C(p0, p0 + count, p0 + 2 * count, p0 + 3 * count, dst->data, count);
    } else {
        kernels::MergePlanes(p0, p0 + count, p0 + 2 * count, p0 + 3 * count, 4, count, dst->data);
    }
    return 0;
}

}  // namespace kit
}  // namespace quvas

// ===========================================================================
// Small dense matrix utilities
// ===========================================================================

namespace quvas {
namespace kit {

namespace {

// The (n-1)x(n-1) matrix left when row `skip_row` and column `skip_col` are
// taken out of the leading n x n block of `mat`.
template <typename T>
std::vector<std::vector<T>> Minor(const std::vector<std::vector<T>>& mat, int n, int skip_row,
                                  int skip_col) {
    std::vector<std::vector<T>> minor;
    minor.reserve(static_cast<size_t>(n - 1));
    for (int r = 0; r < n; ++r) {
        if (r == skip_row) continue;
        std::vector<T> row;
        row.reserve(static_cast<size_t>(n - 1));
        for (int c = 0; c < n; ++c) {
            if (c != skip_col) row.push_back(mat[r][c]);
        }
        minor.push_back(std::move(row));
    }
    return minor;
}

// (-1)^k, as the cofactor sign.
template <typename T>
T CofactorSign(int k) {
    return static_cast<T>(static_cast<int>(std::pow(-1.0, k)));
}

}  // namespace

// Cofactor expansion along the first column. Meant for the 2x2..4x4
// matrices of geometry code: the cost grows as n!.
template <typename T>
T Determinant(const std::vector<std::vector<T>>& mat, int n) {
    if (n == 1) return mat[0][0];
    if (n == 2) return std::fma(mat[0][0], mat[1][1], -(mat[0][1] * mat[1][0]));
    if (n <= 0) return T(0);
    T det = T(0);
    for (int i = 0; i < n; ++i) {
        const std::vector<std::vector<T>> minor = Minor(mat, n, i, 0);
        const T sign = CofactorSign<T>(i + 2);
        det = std::fma(sign * mat[i][0], Determinant(minor, n - 1), det);
    }
    return det;
}

// The matrix of cofactors, element (i, j) being the cofactor of mat[i][j].
// It is deliberately not transposed (Inverse relies on that). The cofactor
// of a 1x1 matrix is the determinant of the empty matrix, 1.
template <typename T>
int Adjoint(const std::vector<std::vector<T>>& mat, std::vector<std::vector<T>>& out, int n) {
    if (n < 1) {
        out.clear();
        return 0;
    }
    out.resize(static_cast<size_t>(n));
    for (std::vector<T>& row : out) row.resize(static_cast<size_t>(n));
    if (n == 1) {
        out[0][0] = T(1);
        return 0;
    }
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < n; ++j) {
            const std::vector<std::vector<T>> minor = Minor(mat, n, i, j);
            out[i][j] = Determinant(minor, n - 1) * CofactorSign<T>(i + j);
        }
    }
    return 0;
}

// Cofactors over the determinant, without the transposition: for a
// non-symmetric matrix this is the transpose of the inverse, which is what
// the callers of this routine expect. `out` is untouched on failure.
template <typename T>
int Inverse(const std::vector<std::vector<T>>& mat, std::vector<std::vector<T>>& out, int n) {
    bool square = static_cast<long long>(mat.size()) == n;
    for (size_t r = 0; square && r < mat.size(); ++r) {
        square = static_cast<long long>(mat[r].size()) == n;
    }
    if (!square) {
        quvas::utility::Log(16, "mat must be square matrix.");
        return -1;
    }
    const T det = Determinant(mat, n);
    if (std::fabs(static_cast<double>(det)) < 1e-5) {
        quvas::utility::Log(16, "mat's determinant can't equal 0");
        return -1;
    }
    std::vector<std::vector<T>> cof;
    const int r = Adjoint(mat, cof, n);
    const T inv_det = T(1) / det;
    out.resize(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) {
        out[i].resize(static_cast<size_t>(n));
        for (int j = 0; j < n; ++j) {
            out[i][j] = static_cast<T>(static_cast<double>(cof[i][j]) * static_cast<double>(inv_det));
        }
    }
    return r;
}

template QVN_API float Determinant<float>(const std::vector<std::vector<float>>&, int);
template QVN_API int Adjoint<float>(const std::vector<std::vector<float>>&,
                                    std::vector<std::vector<float>>&, int);
template QVN_API int Inverse<float>(const std::vector<std::vector<float>>&,
                                    std::vector<std::vector<float>>&, int);

}  // namespace kit
}  // namespace quvas
