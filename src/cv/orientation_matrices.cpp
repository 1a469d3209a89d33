// orientation_matrices.cpp - the 2x3 affine matrix that belongs to each
// orientation word, forward (upright to frame) and inverse, behind
// getAffineTransform and getAffineTransformInv of qv_cv_utils.cpp.
#include "orientation_matrices.h"

#include <qvn_kit/qvn_kit.h>

namespace quvas {
namespace kit {
namespace internal {

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

}  // namespace

// The matrix tables switch on the whole orientation word: a flip combined
// with a turn is its own entry (each equal to another word's matrix), and 64
// (a half turn meant for boxes only) is not listed, so matrices treat it as
// the identity.
void OrientationMatrix(unsigned ori, int width, int height, float* m) {
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

void InverseOrientationMatrix(unsigned ori, int width, int height, float* m) {
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

}  // namespace internal
}  // namespace kit
}  // namespace quvas
