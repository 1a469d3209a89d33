// Determinant, cofactor matrix and (transposed) inverse of small matrices held
// as rows: the stated examples, exact integer cases against a permutation
// expansion written here, random 1x1..4x4 matrices against Eigen, and the two
// refusals with their log lines.
#include <qvn_kit/qvn_kit.hpp>

#include <Eigen/Dense>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "log_capture.hpp"

namespace {

using quvas::kit::Adjoint;
using quvas::kit::Determinant;
using quvas::kit::Inverse;
using Rows = std::vector<std::vector<float>>;

// Leibniz formula over all permutations of the leading n x n block, in
// double: exact for the small-integer matrices used below.
double LeibnizDet(const Rows& m, int n) {
    if (n <= 0) return 1.0;  // the empty product
    std::vector<int> p(n);
    std::iota(p.begin(), p.end(), 0);
    double det = 0.0;
    do {
        int inversions = 0;
        for (int i = 0; i < n; ++i)
            for (int j = i + 1; j < n; ++j) inversions += p[i] > p[j];
        double term = (inversions % 2) ? -1.0 : 1.0;
        for (int i = 0; i < n; ++i) term *= m[i][p[i]];
        det += term;
    } while (std::next_permutation(p.begin(), p.end()));
    return det;
}

Rows Without(const Rows& m, int n, int row, int col) {
    Rows out;
    for (int r = 0; r < n; ++r) {
        if (r == row) continue;
        out.emplace_back();
        for (int c = 0; c < n; ++c)
            if (c != col) out.back().push_back(m[r][c]);
    }
    return out;
}

Eigen::MatrixXd ToEigen(const Rows& m) {
    Eigen::MatrixXd e(m.size(), m.size());
    for (size_t r = 0; r < m.size(); ++r)
        for (size_t c = 0; c < m.size(); ++c) e(r, c) = m[r][c];
    return e;
}

TEST(MatrixUtils, StatedExamples) {
    Rows out;
    ASSERT_EQ(Inverse(Rows{{2.0f}}, out, 1), 0);
    EXPECT_EQ(out, (Rows{{0.5f}}));

    // det -2; the result is the transpose of [[-2, 1], [1.5, -0.5]].
    ASSERT_EQ(Inverse(Rows{{1, 2}, {3, 4}}, out, 2), 0);
    EXPECT_EQ(out, (Rows{{-2.0f, 1.5f}, {1.0f, -0.5f}}));

    // A symmetric matrix: transposed or not, the true inverse.
    ASSERT_EQ(Inverse(Rows{{2, 1}, {1, 1}}, out, 2), 0);
    EXPECT_EQ(out, (Rows{{1.0f, -1.0f}, {-1.0f, 2.0f}}));
}

TEST(MatrixUtils, DeterminantCases) {
    EXPECT_EQ(Determinant(Rows{{7.5f}}, 1), 7.5f);
    EXPECT_EQ(Determinant(Rows{}, 0), 0.0f);
    EXPECT_EQ(Determinant(Rows{{1, 2}, {3, 4}}, -3), 0.0f);
    // Only the leading n x n block counts.
    EXPECT_EQ(Determinant(Rows{{1, 2, 9}, {3, 4, 9}, {9, 9, 9}}, 2), -2.0f);

    // The 2x2 rule is one fused multiply-add: with a = d = 1 + 2^-12 the
    // product a d = 1 + 2^-11 + 2^-24 is kept whole, where a rounded product
    // would lose the 2^-24.
    const float a = 1.0f + std::ldexp(1.0f, -12);
    EXPECT_EQ(Determinant(Rows{{a, 1}, {1, a}}, 2), std::ldexp(1.0f, -11) + std::ldexp(1.0f, -24));

    // Integer matrices up to 5x5: exact against the permutation expansion.
    std::mt19937 rng(7);
    std::uniform_int_distribution<int> small(-4, 4);
    for (int n = 1; n <= 5; ++n) {
        for (int rep = 0; rep < 20; ++rep) {
            Rows m(n, std::vector<float>(n));
            for (auto& row : m)
                for (float& v : row) v = static_cast<float>(small(rng));
            EXPECT_EQ(Determinant(m, n), static_cast<float>(LeibnizDet(m, n))) << "n=" << n;
        }
    }
}

TEST(MatrixUtils, AdjointIsTheUntransposedCofactorMatrix) {
    std::mt19937 rng(11);
    std::uniform_int_distribution<int> small(-5, 5);
    for (int n = 2; n <= 4; ++n) {
        Rows m(n, std::vector<float>(n));
        for (auto& row : m)
            for (float& v : row) v = static_cast<float>(small(rng));
        Rows out(n + 3, std::vector<float>(n + 2, 99.0f));  // reshaped to n x n
        ASSERT_EQ(Adjoint(m, out, n), 0);
        ASSERT_EQ(out.size(), static_cast<size_t>(n));
        for (int i = 0; i < n; ++i) {
            ASSERT_EQ(out[i].size(), static_cast<size_t>(n));
            for (int j = 0; j < n; ++j) {
                const double cof = ((i + j) % 2 ? -1.0 : 1.0) * LeibnizDet(Without(m, n, i, j), n - 1);
                EXPECT_EQ(out[i][j], static_cast<float>(cof)) << n << " " << i << " " << j;
            }
        }
    }
    Rows out{{1, 2}, {3, 4}};
    EXPECT_EQ(Adjoint(Rows{{3.0f}}, out, 1), 0);
    EXPECT_EQ(out, (Rows{{1.0f}}));
    EXPECT_EQ(Adjoint(Rows{}, out, 0), 0);
    EXPECT_TRUE(out.empty());
}

// Random well-conditioned matrices: Determinant agrees with Eigen's LU, and
// Inverse is the transpose of Eigen's inverse; A times Inverse(A)^T is I.
TEST(MatrixUtils, RandomMatricesAgainstEigen) {
    std::mt19937 rng(2024);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    for (int n = 1; n <= 4; ++n) {
        for (int rep = 0; rep < 200; ++rep) {
            Rows m(n, std::vector<float>(n));
            for (int r = 0; r < n; ++r)
                for (int c = 0; c < n; ++c) m[r][c] = u(rng) + (r == c ? 2.5f : 0.0f);
            const Eigen::MatrixXd e = ToEigen(m);
            const double det = e.determinant();
            EXPECT_NEAR(Determinant(m, n), det, 1e-5 * std::abs(det));

            Rows out;
            ASSERT_EQ(Inverse(m, out, n), 0);
            const Eigen::MatrixXd inv_t = e.inverse().transpose();
            const Eigen::MatrixXd got = ToEigen(out);
            EXPECT_LE((got - inv_t).cwiseAbs().maxCoeff(), 1e-5) << "n=" << n;
            EXPECT_LE((e * got.transpose() - Eigen::MatrixXd::Identity(n, n)).cwiseAbs().maxCoeff(),
                      1e-5);
        }
    }
}

TEST(MatrixUtils, RefusalsLogAndLeaveOutputAlone) {
    const Rows keep{{42.0f}};
    struct Case {
        Rows mat;
        int n;
        const char* message;
    };
    const Case cases[] = {
        {{{1, 2, 3}, {4, 5, 6}}, 2, "mat must be square matrix."},
        {{{1, 2}, {3, 4}}, 3, "mat must be square matrix."},
        {{{1, 2}, {3}}, 2, "mat must be square matrix."},
        {{{1, 2}, {3, 4}}, -1, "mat must be square matrix."},
        {{{1, 2}, {2, 4}}, 2, "mat's determinant can't equal 0"},
        {{{1, 2, 3}, {4, 5, 6}, {7, 8, 9}}, 3, "mat's determinant can't equal 0"},
        {{{1e-3f, 0}, {0, 1e-3f}}, 2, "mat's determinant can't equal 0"},  // |det| 1e-6
        {{}, 0, "mat's determinant can't equal 0"},
    };
    for (const Case& c : cases) {
        LogCapture capture;
        Rows out = keep;
        EXPECT_EQ(Inverse(c.mat, out, c.n), -1) << c.message;
        EXPECT_EQ(out, keep);
        EXPECT_EQ(capture.Take(), std::vector<std::string>{c.message});
    }
    // Just above the threshold (|det| = 2e-5) is accepted, silently.
    LogCapture capture;
    Rows out;
    EXPECT_EQ(Inverse(Rows{{1e-2f, 0}, {0, 2e-3f}}, out, 2), 0);
    EXPECT_TRUE(capture.Take().empty());
    EXPECT_FLOAT_EQ(out[1][1], 500.0f);
}

}  // namespace
