// qv_internal.h - small helpers that several of the kit's source files need,
// kept in one place so that they cannot drift apart. Private: not installed.
#ifndef QVN_KIT_SRC_QV_INTERNAL_H
#define QVN_KIT_SRC_QV_INTERNAL_H

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include <qvn_kit/qvn_kit.h>

namespace quvas {
namespace kit {
namespace internal {

// Conversion toward zero with the hardware's answer (INT_MIN) for values an
// int cannot hold and for NaN, instead of undefined behaviour.
inline int TruncToInt(float v) { return _mm_cvtt_ss2si(_mm_set_ss(v)); }

// 32-bit wrapping arithmetic: sizes come from callers untouched, and a wild
// value must wrap like the 32-bit arithmetic it stands for instead of being
// undefined on overflow.
inline int32_t WrapAdd(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}
inline int32_t WrapSub(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}
inline int32_t WrapMul(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}

// True when the byte ranges [a, a + a_len) and [b, b + b_len) share a byte.
inline bool RangesOverlap(const void* a, size_t a_len, const void* b, size_t b_len) {
    const uintptr_t pa = reinterpret_cast<uintptr_t>(a);
    const uintptr_t pb = reinterpret_cast<uintptr_t>(b);
    return pa < pb + b_len && pb < pa + a_len;
}

// Groups of orientation flags (QVN_ORIENT_FMT) that the kit tests together.
// Either quarter turn: sizes exchange width and height.
constexpr uint32_t kQuarterTurns = QVN_ORIENT_FMT_ROTATE_90R | QVN_ORIENT_FMT_ROTATE_90L;
// Either half turn; the box-only one (64) is the identity for matrices.
constexpr uint32_t kHalfTurns = QVN_ORIENT_FMT_ROTATE_180 | QVN_ORIENT_FMT_BOX_ROTATE_180;
// Either flip: where only one flip operation exists, both ask for it.
constexpr uint32_t kFlips = QVN_ORIENT_FMT_FLIPV | QVN_ORIENT_FMT_MIRROR;

// The bit-pattern exponential (the heatmap decoders and the masks' sigmoid): round(x * 2^20 / ln 2 + kExpBias), as the
// upper word of an IEEE double whose lower word is zero, is about e^x.
// kExpBias is the exponent bias 1023 * 2^20 less 60800, which centres the
// relative error.
constexpr float kExpScale = 1512775.0f;
constexpr float kExpBias = 1072632448.0f;

}  // namespace internal
}  // namespace kit
}  // namespace quvas

#endif  // QVN_KIT_SRC_QV_INTERNAL_H
