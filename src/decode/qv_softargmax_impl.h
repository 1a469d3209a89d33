// qv_softargmax_impl.h - pieces shared by the scalar and vector heatmap
// decoders: the normalised pixel coordinate and the bit-pattern exponential
// (its constants are the kit's, in qv_internal.h, shared with the masks' sigmoid).
#ifndef QVN_SRC_DECODE_QV_SOFTARGMAX_IMPL_H
#define QVN_SRC_DECODE_QV_SOFTARGMAX_IMPL_H

#include <immintrin.h>

#include <cmath>
#include <cstdint>
#include <cstring>

#include "../kit/qv_internal.h"

namespace quvas {
namespace kit {
namespace detail {

// Pixel `index` of an axis with `count` samples, mapped to [-1, 1]: the first
// sample is -1, the last +1. A one-sample axis divides by zero (NaN).
inline float NormalisedCoord(int index, int count) {
    return std::fmaf(static_cast<float>(index) / static_cast<float>(count - 1), 2.0f, -1.0f);
}

inline float DoubleFromUpperWord(int32_t upper) {
    const uint64_t bits = static_cast<uint64_t>(static_cast<uint32_t>(upper)) << 32;
    double d;
    std::memcpy(&d, &bits, sizeof(d));
    return static_cast<float>(d);
}

// Scalar exponential: truncation toward zero. No clamping: below about -709
// the pattern is meaningless (negative, NaN or tiny) and callers get it as is.
// The conversion goes through cvttss2si so that out-of-range sums give
// INT32_MIN (the pattern of -0.0) rather than undefined behaviour.
inline float FastExp(float v) {
    const float s = std::fmaf(v, internal::kExpScale, internal::kExpBias);
    return DoubleFromUpperWord(_mm_cvttss_si32(_mm_set_ss(s)));
}

}  // namespace detail
}  // namespace kit
}  // namespace quvas

#endif  // QVN_SRC_DECODE_QV_SOFTARGMAX_IMPL_H
