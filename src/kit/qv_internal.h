// qv_internal.h - small helpers that several of the kit's source files need,
// kept in one place so that they cannot drift apart. Private: not installed.
#ifndef QVN_KIT_SRC_QV_INTERNAL_H
#define QVN_KIT_SRC_QV_INTERNAL_H

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

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

// The bit-pattern exponential: round(x * 2^20 / ln 2 + kExpBias), as the
// upper word of an IEEE double whose lower word is zero, is about e^x.
// kExpBias is the exponent bias 1023 * 2^20 less 60800, which centres the
// relative error.
constexpr float kExpScale = 1512775.0f;
constexpr float kExpBias = 1072632448.0f;

}  // namespace internal
}  // namespace kit
}  // namespace quvas

#endif  // QVN_KIT_SRC_QV_INTERNAL_H
