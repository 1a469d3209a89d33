// orientation_matrices.h - the affine matrices of the orientation words.
// Private to the kit.
#ifndef QVN_KIT_SRC_CV_ORIENTATION_MATRICES_H
#define QVN_KIT_SRC_CV_ORIENTATION_MATRICES_H

namespace quvas {
namespace kit {
namespace internal {

// Six coefficients m0 m1 m2 / m3 m4 m5 into m, for a width x height image:
// the forward map (upright to frame) and its inverse. An orientation word
// not listed (64 included) gives the identity.
void OrientationMatrix(unsigned ori, int width, int height, float* m);
void InverseOrientationMatrix(unsigned ori, int width, int height, float* m);

}  // namespace internal
}  // namespace kit
}  // namespace quvas

#endif  // QVN_KIT_SRC_CV_ORIENTATION_MATRICES_H
