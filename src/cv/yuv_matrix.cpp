// yuv_matrix.cpp - the colour of 4:2:0 frames: the weights the frame
// converters hand to the core's two-plane YUV converter (the pixel-format
// table says which row a format takes; the numbers live here, once), and the
// weights of a frame view's own colour description (BT.601 / BT.709, limited
// or full range) for the one-pass converter.
#include <algorithm>
#include <cmath>
#include <memory>

#include "frame_convert.h"
#include "kernels/planar.h"

namespace quvas {
namespace kit {
namespace internal {

namespace {

// Colour weights handed to the two-plane converter, positions 0..7 (8 and 9
// are the chroma offsets 0.5, 0.5). Rows in the order of the format table's
// yuv_weights (formats 2, 3, 8, 9); the second block is the B,G,R output,
// red and blue weights exchanged. Formats 8 and 9 carry the BT.601 weights in
// 64ths and differ only in chroma byte order.
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

// Luma and chroma weights of the two standards: Kr, Kb (Kg = 1 - Kr - Kb).
struct Standard {
    double kr, kb;
};
constexpr Standard kBT601 = {0.299, 0.114};
constexpr Standard kBT709 = {0.2126, 0.0722};

// Untagged three-plane frames are video: limited range, BT.601 up to 576
// lines (standard definition) and BT.709 above, as players assume.
constexpr int kStandardDefinitionLines = 576;

bool UsesBT709(const FrameView& v) {
    if (v.matrix != YuvMatrix::kDefault) return v.matrix == YuvMatrix::kBT709;
    if (pixfmt::IsTwoPlane(v.pix_fmt)) return v.pix_fmt == QVN_PIX_FMT_YUV420SP_A;
    return v.height > kStandardDefinitionLines;
}

int32_t Fixed(double w) { return static_cast<int32_t>(std::lround(w * (1 << kernels::kYuvBits))); }

}  // namespace

FrameView ViewOfImage(const QVN_Image* img) {
    FrameView v;
    v.pix_fmt = img->pix_fmt;
    v.ori_fmt = img->ori_fmt;
    v.width = img->width;
    v.height = img->height;
    const pixfmt::Format* f = pixfmt::Find(img->pix_fmt);
    const ptrdiff_t w = img->width;
    const ptrdiff_t h = img->height;
    if (f == nullptr) return v;
    switch (f->layout) {
        case pixfmt::Layout::kTwoPlane420:
            v.planes[0] = {img->data, w};
            v.planes[1] = {img->data + w * h, (w >> 1) * 2};
            break;
        case pixfmt::Layout::kThreePlane420:
            v.planes[0] = {img->data, w};
            v.planes[1] = {img->data + w * h, w >> 1};
            v.planes[2] = {img->data + w * h + (w >> 1) * (h >> 1), w >> 1};
            break;
        case pixfmt::Layout::kPacked: v.planes[0] = {img->data, w * f->luma_bytes}; break;
        default: break;
    }
    return v;
}

bool ViewIsLimited(const FrameView& v) {
    if (v.range != YuvRange::kDefault) return v.range == YuvRange::kLimited;
    return pixfmt::LayoutOf(v.pix_fmt) == pixfmt::Layout::kThreePlane420;
}

kernels::YuvFixed ViewYuvFixed(const FrameView& v, bool to_bgr) {
    kernels::YuvFixed f;
    if (pixfmt::IsTwoPlane(v.pix_fmt) && v.matrix == YuvMatrix::kDefault &&
        v.range == YuvRange::kDefault) {
        // The format's own weights, exactly as the QVN_Image converters use them.
        kernels::MakeYuvFixed(MakeYUVMatrix(to_bgr, v.pix_fmt)->m, &f);
        return f;
    }
    const Standard k = UsesBT709(v) ? kBT709 : kBT601;
    const double kg = 1.0 - k.kr - k.kb;
    const bool limited = ViewIsLimited(v);
    const double ys = limited ? 255.0 / 219.0 : 1.0;
    const double cs = limited ? 255.0 / 224.0 : 1.0;
    // R, G, B as weights of (U - 128, V - 128).
    const double wu[3] = {0.0, -2.0 * k.kb * (1.0 - k.kb) / kg, 2.0 * (1.0 - k.kb)};
    const double wv[3] = {2.0 * (1.0 - k.kr), -2.0 * k.kr * (1.0 - k.kr) / kg, 0.0};
    const bool v_first = pixfmt::Find(v.pix_fmt)->chroma_vu;
    f.w0 = Fixed(ys);
    for (int p = 0; p < 3; ++p) {
        const int src = to_bgr ? 2 - p : p;
        const int32_t u = Fixed(wu[src] * cs);
        const int32_t vv = Fixed(wv[src] * cs);
        f.wa[p] = v_first ? vv : u;
        f.wb[p] = v_first ? u : vv;
        f.bias[p] = -(limited ? 16 : 0) * f.w0 - 128 * (u + vv) + (1 << (kernels::kYuvBits - 1));
    }
    return f;
}

void ExpandLimitedLuma(uint8_t* data, size_t n) {
    uint8_t table[256];
    for (int y = 0; y < 256; ++y) {
        const long v = std::lround((y - 16) * 255.0 / 219.0);
        table[y] = static_cast<uint8_t>(std::clamp(v, 0L, 255L));
    }
    for (size_t i = 0; i < n; ++i) data[i] = table[data[i]];
}

std::shared_ptr<kernel::YUVCvtMatrix> MakeYUVMatrix(bool to_bgr, uint32_t pix_fmt) {
    // Only two-plane frames get here, and every one of them has a row.
    const int row = pixfmt::Find(pix_fmt)->yuv_weights;
    auto matrix = std::make_shared<kernel::YUVCvtMatrix>();
    const float* weights = kYUVWeights[to_bgr ? 1 : 0][row];
    for (int i = 0; i < 8; ++i) matrix->m[i] = weights[i];
    matrix->m[8] = 0.5f;
    matrix->m[9] = 0.5f;
    return matrix;
}

}  // namespace internal
}  // namespace kit
}  // namespace quvas
