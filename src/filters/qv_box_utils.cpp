// qv_box_utils.cpp - softmax over a score vector and the two helpers that
// turn a detected rectangle into a square crop region for the next stage.
#include <qvn_kit/qvn_kit.hpp>

#include <immintrin.h>

#include <algorithm>
#include <cmath>

namespace quvas {
namespace kit {

namespace {

// Truncation toward zero through the processor's conversion: an out-of-range
// value gives INT32_MIN instead of undefined behaviour.
inline float TruncToWholeUnit(float v) {
    return static_cast<float>(_mm_cvttss_si32(_mm_set_ss(v)));
}

}  // namespace

// No maximum is subtracted before exponentiation. Model outputs this is used
// on are small logits, and subtracting the maximum would change the last bits
// of every result; inputs above about 88 overflow f32 and give NaN.
void softmax_float(const float* input, float* output, int count) {
    if (count < 1) return;
    double sum = 0.0;
    for (int i = 0; i < count; ++i) {
        // Read before write: input and output may be the same array.
        const float e = static_cast<float>(std::exp(static_cast<double>(input[i])));
        output[i] = e;
        sum += static_cast<double>(e);
    }
    for (int i = 0; i < count; ++i) {
        output[i] = static_cast<float>(static_cast<double>(output[i]) / sum);
    }
}

QVN_Rect2D extend_bbox(QVN_Rect2D rect, float scale) {
    const float w = rect.x1 - rect.x0;
    const float h = rect.y1 - rect.y0;
    const float cx2 = rect.x0 + rect.x1;  // doubled centre
    const float cy2 = rect.y0 + rect.y1;
    const float half = std::max(h, w) * 0.5f;
    const float d = half * scale;
    QVN_Rect2D out;
    out.x0 = std::fmaf(cx2, 0.5f, -d);
    out.y0 = std::fmaf(cy2, 0.5f, -d);
    out.x1 = std::fmaf(cx2, 0.5f, d);
    out.y1 = std::fmaf(cy2, 0.5f, d);
    return out;
}

QVN_Rect2D adjust_bbox(QVN_Rect2D rect, float top, float bottom, float left, float right,
                       float scale_x, float scale_y) {
    const float h = rect.y1 - rect.y0;
    const float w = rect.x1 - rect.x0;
    // Padding is a fraction of the box size; the padded edges are snapped to
    // whole pixels by truncation toward zero.
    const float ny0 = TruncToWholeUnit(std::fmaf(top, h, rect.y0));
    const float ny1 = TruncToWholeUnit(std::fmaf(bottom, h, rect.y1));
    const float nx0 = TruncToWholeUnit(std::fmaf(left, w, rect.x0));
    const float nx1 = TruncToWholeUnit(std::fmaf(right, w, rect.x1));
    const float side = std::max(ny1 - ny0, nx1 - nx0);
    const float half = side * 0.5f;
    const float ex = half * scale_x;
    const float ey = half * scale_y;
    const float cx = (nx0 + nx1) * 0.5f;
    const float cy = (ny0 + ny1) * 0.5f;
    QVN_Rect2D out;
    out.x0 = cx - ex;
    out.y0 = cy - ey;
    out.x1 = cx + ex;
    out.y1 = cy + ey;
    return out;
}

}  // namespace kit
}  // namespace quvas
