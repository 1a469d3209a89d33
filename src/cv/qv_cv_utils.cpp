// qv_cv_utils.cpp - crop geometry and affine matrices per orientation,
// scalar inverse-affine bilinear warps, planar-to-interleaved conversion,
// and small dense matrix utilities.
#include <qvn_kit/qvn_kit.hpp>

#include <quvas/utility/log.h>

#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

// ===========================================================================
// Affine matrices and crop geometry
// ===========================================================================

// ===========================================================================
// Inverse-affine bilinear sampling and planar-to-interleaved conversion
// ===========================================================================

// ===========================================================================
// Small dense matrix utilities
// ===========================================================================
