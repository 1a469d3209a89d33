// float_to_byte.h - float maps (0..1, or raw scores through a sigmoid) to
// bytes 0..255. Private to the kit; both read and write whole blocks of 16
// past n (see float_to_byte.cpp).
#ifndef QVN_KIT_SRC_CV_FLOAT_TO_BYTE_H
#define QVN_KIT_SRC_CV_FLOAT_TO_BYTE_H

namespace quvas {
namespace kit {
namespace internal {

void FloatToBytes(const float* src, unsigned char* dst, int n);
void SigmoidToBytes(const float* src, unsigned char* dst, int n);

}  // namespace internal
}  // namespace kit
}  // namespace quvas

#endif  // QVN_KIT_SRC_CV_FLOAT_TO_BYTE_H
