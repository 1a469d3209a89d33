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

namespace quvas {
namespace kit {

namespace {

// The (n-1)x(n-1) matrix left when row `skip_row` and column `skip_col` are
// taken out of the leading n x n block of `mat`.
template <typename T>
std::vector<std::vector<T>> Minor(const std::vector<std::vector<T>>& mat, int n, int skip_row,
                                  int skip_col) {
    std::vector<std::vector<T>> minor;
    minor.reserve(static_cast<size_t>(n - 1));
    for (int r = 0; r < n; ++r) {
        if (r == skip_row) continue;
        std::vector<T> row;
        row.reserve(static_cast<size_t>(n - 1));
        for (int c = 0; c < n; ++c) {
            if (c != skip_col) row.push_back(mat[r][c]);
        }
        minor.push_back(std::move(row));
    }
    return minor;
}

// (-1)^k, as the cofactor sign.
template <typename T>
T CofactorSign(int k) {
    return static_cast<T>(static_cast<int>(std::pow(-1.0, k)));
}

}  // namespace

// Cofactor expansion along the first column. Meant for the 2x2..4x4
// matrices of geometry code: the cost grows as n!.
template <typename T>
T Determinant(const std::vector<std::vector<T>>& mat, int n) {
    if (n == 1) return mat[0][0];
    if (n == 2) return std::fma(mat[0][0], mat[1][1], -(mat[0][1] * mat[1][0]));
    if (n <= 0) return T(0);
    T det = T(0);
    for (int i = 0; i < n; ++i) {
        const std::vector<std::vector<T>> minor = Minor(mat, n, i, 0);
        const T sign = CofactorSign<T>(i + 2);
        det = std::fma(sign * mat[i][0], Determinant(minor, n - 1), det);
    }
    return det;
}

// The matrix of cofactors, element (i, j) being the cofactor of mat[i][j].
// It is deliberately not transposed (Inverse relies on that). The cofactor
// of a 1x1 matrix is the determinant of the empty matrix, 1.
template <typename T>
int Adjoint(const std::vector<std::vector<T>>& mat, std::vector<std::vector<T>>& out, int n) {
    if (n < 1) {
        out.clear();
        return 0;
    }
    out.resize(static_cast<size_t>(n));
    for (std::vector<T>& row : out) row.resize(static_cast<size_t>(n));
    if (n == 1) {
        out[0][0] = T(1);
        return 0;
    }
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < n; ++j) {
            const std::vector<std::vector<T>> minor = Minor(mat, n, i, j);
            out[i][j] = Determinant(minor, n - 1) * CofactorSign<T>(i + j);
        }
    }
    return 0;
}

// Cofactors over the determinant, without the transposition: for a
// non-symmetric matrix this is the transpose of the inverse, which is what
// the callers of this routine expect. `out` is untouched on failure.
template <typename T>
int Inverse(const std::vector<std::vector<T>>& mat, std::vector<std::vector<T>>& out, int n) {
    bool square = static_cast<long long>(mat.size()) == n;
    for (size_t r = 0; square && r < mat.size(); ++r) {
        square = static_cast<long long>(mat[r].size()) == n;
    }
    if (!square) {
        quvas::utility::Log(16, "mat must be square matrix.");
        return -1;
    }
    const T det = Determinant(mat, n);
    if (std::fabs(static_cast<double>(det)) < 1e-5) {
        quvas::utility::Log(16, "mat's determinant can't equal 0");
        return -1;
    }
    std::vector<std::vector<T>> cof;
    const int r = Adjoint(mat, cof, n);
    const T inv_det = T(1) / det;
    out.resize(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) {
        out[i].resize(static_cast<size_t>(n));
        for (int j = 0; j < n; ++j) {
            out[i][j] = static_cast<T>(static_cast<double>(cof[i][j]) * static_cast<double>(inv_det));
        }
    }
    return r;
}

template QVN_API float Determinant<float>(const std::vector<std::vector<float>>&, int);
template QVN_API int Adjoint<float>(const std::vector<std::vector<float>>&,
                                    std::vector<std::vector<float>>&, int);
template QVN_API int Inverse<float>(const std::vector<std::vector<float>>&,
                                    std::vector<std::vector<float>>&, int);

}  // namespace kit
}  // namespace quvas
