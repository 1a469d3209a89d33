// qv_softargmax.cpp - SoftArgMax: construction and the scalar decoders.
//
// A decoder object serves one fixed CHW heatmap shape. Each plane is scaled by
// beta, exponentiated with the bit-pattern approximation, and the
// probability-weighted mean of the normalised pixel coordinates is the point.
#include <qvn_kit/qvn_kit.hpp>

#include "qv_softargmax_impl.h"

#include <cstdint>
#include <cstdlib>

namespace quvas {
namespace kit {

namespace {

// Shapes are trusted; products wrap like the 32-bit arithmetic they stand for.
using internal::WrapMul;

inline int32_t RoundUp4(int32_t n) {
    return static_cast<int32_t>((static_cast<uint32_t>(n) + 3u) & ~3u);
}

// calloc of `count` floats; a negative count becomes a huge request, which
// fails and leaves a null array that the (then empty) loops never touch.
inline float* AllocFloats(int32_t count) {
    return static_cast<float*>(
        std::calloc(static_cast<size_t>(static_cast<int64_t>(count)), sizeof(float)));
}

struct PlaneSums {
    float sum, sx, sy;  // exponentials of the plane just computed
    float var;          // spread of the plane whose exponentials were in temp
};

// One sweep over an H x W plane of the variance decoder. kSpread: accumulate
// the weighted squared distance about (x, y) of the exponentials held in
// `temp` (each term formed in f64, the running total kept in f32). kExp:
// compute the exponentials of `plane` and their sums, storing each into
// `temp` right after the spread has read that element.
template <bool kSpread, bool kExp>
PlaneSums PlanePass(const float* plane, float beta, float* temp, const float* line_x,
                    const float* line_y, int W, int H, float x, float y) {
    float sum = 0.0f, sx = 0.0f, sy = 0.0f, var = 0.0f;
    for (int r = 0; r < H; ++r) {
        const double dy = static_cast<double>(line_y[r] - y);
        const double dy2 = dy * dy;
        for (int k = 0; k < W; ++k) {
            float* t = temp + r * W + k;
            if (kSpread) {
                const double dx = static_cast<double>(line_x[k] - x);
                var = static_cast<float>(static_cast<double>(var) +
                                         static_cast<double>(*t) * (dx * dx + dy2));
            }
            if (kExp) {
                const float e = detail::FastExp(plane[r * W + k] * beta);
                sx = std::fmaf(e, line_x[k], sx);
                sy = std::fmaf(e, line_y[r], sy);
                sum += e;
                *t = e;
            }
        }
    }
    return {sum, sx, sy, var};
}

}  // namespace

SoftArgMax::SoftArgMax(const int& width_, const int& height_, const int& channels_,
                       const float& beta_)
    : width(width_),
      height(height_),
      channels(channels_),
      heatmap_bytes(WrapMul(WrapMul(WrapMul(width_, height_), channels_), 4)),
      beta(beta_) {
    const int32_t plane = WrapMul(width, height);
    exp_buffer = AllocFloats(WrapMul(plane, channels));
    weight_sum = AllocFloats(channels);
    x_out = AllocFloats(channels);
    y_out = AllocFloats(channels);
    confidence = AllocFloats(channels);
    grid_x = AllocFloats(RoundUp4(plane));
    grid_y = AllocFloats(RoundUp4(plane));
    line_x = AllocFloats(RoundUp4(width));
    line_y = AllocFloats(RoundUp4(height));

    for (int r = 0; r < height; ++r) {
        const float y = detail::NormalisedCoord(r, height);
        line_y[r] = y;
        for (int k = 0; k < width; ++k) {
            grid_x[r * width + k] = detail::NormalisedCoord(k, width);
            grid_y[r * width + k] = y;
        }
    }
    for (int k = 0; k < width; ++k) line_x[k] = detail::NormalisedCoord(k, width);
}

SoftArgMax::~SoftArgMax() {
    std::free(exp_buffer);
    std::free(weight_sum);
    std::free(x_out);
    std::free(y_out);
    std::free(confidence);
    std::free(grid_x);
    std::free(grid_y);
    std::free(line_x);
    std::free(line_y);
}

void SoftArgMax::Decode_CHW_F32(const float* data, const int& channels_, const int& height_,
                                const int& width_) {
    if (data == nullptr || channels_ != channels || height_ != height || width_ != width) return;
    if (channels <= 0) return;

    int index = 0;  // runs on from plane to plane over the whole CHW array
    for (int c = 0; c < channels; ++c) {
        confidence[c] = 0.0f;
        // f32 accumulators in registers: the same operations in the same order
        // as accumulating in weight_sum / x_out / y_out, without a store and
        // reload per element (exp_buffer might alias them as far as the
        // compiler knows).
        float sum = 0.0f, sx = 0.0f, sy = 0.0f;
        for (int r = 0; r < height; ++r) {
            const float y = detail::NormalisedCoord(r, height);
            for (int k = 0; k < width; ++k, ++index) {
                const float x = detail::NormalisedCoord(k, width);
                const float e = detail::FastExp(data[index] * beta);
                exp_buffer[index] = e;
                sum += e;
                sx = std::fmaf(x, e, sx);
                sy = std::fmaf(y, e, sy);
            }
        }
        weight_sum[c] = sum;
        x_out[c] = sx / sum;
        y_out[c] = sy / sum;
        confidence[c] = 1.0f;
    }
}

void SoftArgMax::Decode_WithConfidenceNoSqrt_CHW_F32(const float* data, const int& channels_,
                                                     const int& height_, const int& width_) {
    if (data == nullptr || channels_ != channels || height_ != height || width_ != width) return;

    // A negative 32-bit count throws std::bad_array_new_length here.
    float* temp = new float[WrapMul(height, width)];
    for (int c = 0; c < channels; ++c) {
        x_out[c] = 0.0f;
        y_out[c] = 0.0f;
    }

    if (channels > 0) {
        const int64_t plane_size = WrapMul(height, width);
        PlaneSums next = PlanePass<false, true>(data, beta, temp, line_x, line_y, width, height,
                                           0.0f, 0.0f);
        for (int c = 0; c < channels; ++c) {
            const PlaneSums cur = next;
            const float x = cur.sx / cur.sum;
            const float y = cur.sy / cur.sum;
            x_out[c] = x;
            y_out[c] = y;
            // The spread of plane c and the exponentials of plane c + 1 share
            // one loop: both are long serial chains, so they overlap.
            if (c + 1 < channels) {
                next = PlanePass<true, true>(data + (c + 1) * plane_size, beta, temp, line_x,
                                             line_y, width, height, x, y);
            } else {
                next = PlanePass<true, false>(nullptr, beta, temp, line_x, line_y, width,
                                              height, x, y);
            }
            confidence[c] = next.var / cur.sum;
        }
    }
    delete[] temp;
}

}  // namespace kit
}  // namespace quvas
