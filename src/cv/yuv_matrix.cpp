// yuv_matrix.cpp - the colour weights the frame converters hand to the
// core's two-plane YUV converter. The pixel-format table says which row a
// format takes; the numbers live here, once.
#include <memory>

#include "frame_convert.h"

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

}  // namespace

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
