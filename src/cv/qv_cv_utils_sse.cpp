// qv_cv_utils_sse.cpp - vectorised fixed-point affine warps, float-to-byte
// mask conversion, and the tensor processing entry points that drive the
// core's image-process operations.
#include <qvn_kit/qvn_kit.hpp>

#include <quvas/utility/log.h>

#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

// ===========================================================================
// Vectorised affine warps
// ===========================================================================

// ===========================================================================
// Float-to-byte output conversion
// ===========================================================================

// ===========================================================================
// Tensor processing pipeline
// ===========================================================================
