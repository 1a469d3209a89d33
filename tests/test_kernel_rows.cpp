// Row kernels of the core's pixel-kernel layer: every AVX2 row against its
// plain C twin, bit for bit, at every width from 1 to 130 (every tail of
// every vector step), from unaligned pointers, in buffers that end at a page
// boundary followed by an inaccessible page (an over-read or over-write
// faults) or start right after one (an under-read faults). The drivers are
// checked against the pixel-by-pixel definitions, written out here, at odd
// heights and widths; the resize and gray rows are held to their written
// definitions through the entry points in test_core_image_process.cpp and
// test_core_kernels.cpp.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "kernels/planar.h"
#include "kernels/row.h"
#include "test_support.h"

namespace {

namespace k = quvas::kernels;

using qvntest::Guarded;

std::mt19937& Rng() {
    static std::mt19937 rng(12);
    return rng;
}

void FillRandom(uint8_t* p, size_t n) { qvntest::FillRandom(p, n, Rng()); }

constexpr int kMaxWidth = 130;

// Both placements of the buffers, as the loops below run them.
constexpr bool kPlacements[] = {true, false};

// ---------------------------------------------------------------------------
// Transposes: a strip read with a positive and with a negative row stride
// (the two quarter turns), written with positive and negative strides.
// ---------------------------------------------------------------------------

using StripFn = void (*)(const uint8_t*, ptrdiff_t, uint8_t*, ptrdiff_t, int);

void CheckStrip(StripFn avx2, StripFn twin, int n, int rows) {
    for (bool at_end : kPlacements) {
        for (int width = 1; width <= kMaxWidth; ++width) {
            const ptrdiff_t ss = static_cast<ptrdiff_t>(width) * n + (width % 3);  // odd pads too
            const ptrdiff_t ds = static_cast<ptrdiff_t>(rows) * n + (width % 2);
            const size_t src_bytes = static_cast<size_t>(ss) * (rows - 1) + static_cast<size_t>(width) * n;
            const size_t dst_bytes = static_cast<size_t>(ds) * (width - 1) + static_cast<size_t>(rows) * n;
            Guarded src(src_bytes, at_end);
            FillRandom(src.data(), src_bytes);
            for (int sign : {1, -1}) {
                const uint8_t* s = sign > 0 ? src.data() : src.data() + ss * (rows - 1);
                // Destination rows written top down, then bottom up.
                for (bool up : {false, true}) {
                    Guarded a(dst_bytes, at_end), b(dst_bytes, !at_end);
                    std::memset(a.data(), up ? 0x5A : 0xA5, dst_bytes);
                    std::memset(b.data(), up ? 0x5A : 0xA5, dst_bytes);
                    const ptrdiff_t first = up ? ds * (width - 1) : 0;
                    avx2(s, sign * ss, a.data() + first, up ? -ds : ds, width);
                    twin(s, sign * ss, b.data() + first, up ? -ds : ds, width);
                    ASSERT_EQ(a.bytes(), b.bytes())
                        << "pixel " << n << " width " << width << " sign " << sign << (up ? " backwards" : "");
                }
            }
        }
    }
}

TEST(KernelRows, TransposeStripsMatchTheirTwins) {
    CheckStrip(k::TransposeStrip1_AVX2, k::TransposeStrip1_C, 1, k::kTransposeRows<1>);
    CheckStrip(k::TransposeStrip2_AVX2, k::TransposeStrip2_C, 2, k::kTransposeRows<2>);
    CheckStrip(k::TransposeStrip3_AVX2, k::TransposeStrip3_C, 3, k::kTransposeRows<3>);
    CheckStrip(k::TransposeStrip4_AVX2, k::TransposeStrip4_C, 4, k::kTransposeRows<4>);
}

// ---------------------------------------------------------------------------
// Mirrors
// ---------------------------------------------------------------------------

using MirrorFn = void (*)(const uint8_t*, uint8_t*, int, ptrdiff_t);

void CheckMirror(MirrorFn avx2, MirrorFn twin, int n) {
    for (bool at_end : kPlacements) {
        for (int width = 1; width <= kMaxWidth; ++width) {
            const size_t bytes = static_cast<size_t>(width) * n;
            Guarded src(bytes, at_end), a(bytes, at_end), b(bytes, !at_end);
            FillRandom(src.data(), bytes);
            // With and without prefetching the "next row" (here past the
            // guard page: a prefetch must neither fault nor change a byte).
            avx2(src.data(), a.data(), width, width % 2 ? 0 : 4096);
            twin(src.data(), b.data(), width, 0);
            ASSERT_EQ(a.bytes(), b.bytes()) << "pixel " << n << " width " << width;
        }
    }
}

TEST(KernelRows, MirrorRowsMatchTheirTwins) {
    CheckMirror(k::MirrorRow1_AVX2, k::MirrorRow1_C, 1);
    CheckMirror(k::MirrorRow2_AVX2, k::MirrorRow2_C, 2);
    CheckMirror(k::MirrorRow3_AVX2, k::MirrorRow3_C, 3);
    CheckMirror(k::MirrorRow4_AVX2, k::MirrorRow4_C, 4);
}

// ---------------------------------------------------------------------------
// Bilinear resize rows
// ---------------------------------------------------------------------------

using ColsFn = void (*)(const uint8_t*, int, const int32_t*, const int32_t*, int, int32_t*);

// A column table as the resizers build them: indices never decrease and stay
// at most sw - 2 (0 for a one-pixel row); weights anywhere in 0..2048, the
// ends included, with the last pixel reached as (sw - 2, 2048).
void RandomTable(int sw, int width, std::vector<int32_t>* index, std::vector<int32_t>* pair) {
    index->resize(width);
    pair->resize(width);
    const int top = sw >= 2 ? sw - 2 : 0;
    std::vector<int32_t> picks(width);
    for (int& p : picks) p = static_cast<int>(Rng()() % (top + 1));
    std::sort(picks.begin(), picks.end());
    for (int d = 0; d < width; ++d) {
        const uint32_t r = Rng()() % 8;
        const uint32_t a = r == 0 ? 0 : r == 1 ? 2048 : Rng()() % 2049;
        (*index)[d] = picks[d];
        (*pair)[d] = static_cast<int32_t>((2048 - a) | (a << 16));
    }
    // Every other table reaches the right end of the row (the last pixel as
    // the second tap), the others stop short of it, as a crop inside the
    // frame does.
    if (sw >= 2 && width > 1 && Rng()() % 2 == 0) {
        (*index)[width - 1] = top;
        (*pair)[width - 1] = static_cast<int32_t>(2048u << 16);
    }
}

void CheckCols(ColsFn avx2, ColsFn twin, int c) {
    std::vector<int32_t> index, pair;
    for (bool at_end : kPlacements) {
        for (int width = 1; width <= kMaxWidth; ++width) {
            for (int sw : {1, 2, 3, width, width + 7, 3 * width + 1}) {
                RandomTable(sw, width, &index, &pair);
                const size_t src_bytes = static_cast<size_t>(sw) * c;
                const size_t out_bytes = static_cast<size_t>(width) * c * 4;
                Guarded src(src_bytes, at_end), a(out_bytes, at_end), b(out_bytes, !at_end);
                FillRandom(src.data(), src_bytes);
                avx2(src.data(), sw, index.data(), pair.data(), width, a.as<int32_t>());
                twin(src.data(), sw, index.data(), pair.data(), width, b.as<int32_t>());
                ASSERT_EQ(a.bytes(), b.bytes()) << "channels " << c << " width " << width << " sw " << sw;
            }
        }
    }
}

TEST(KernelRows, BilinearColumnRowsMatchTheirTwins) {
    CheckCols(k::ScaleColsBilinear1_AVX2, k::ScaleColsBilinear1_C, 1);
    CheckCols(k::ScaleColsBilinear2_AVX2, k::ScaleColsBilinear2_C, 2);
    CheckCols(k::ScaleColsBilinear3_AVX2, k::ScaleColsBilinear3_C, 3);
    CheckCols(k::ScaleColsBilinear4_AVX2, k::ScaleColsBilinear4_C, 4);
    // Two rows at once against the twin on each.
    using PairFn = void (*)(const uint8_t*, const uint8_t*, int, const int32_t*, const int32_t*, int,
                            int32_t*, int32_t*);
    const struct {
        PairFn avx2;
        ColsFn twin;
        int c;
    } pairs[] = {{k::ScaleColsBilinear1x2_AVX2, k::ScaleColsBilinear1_C, 1},
                 {k::ScaleColsBilinear4x2_AVX2, k::ScaleColsBilinear4_C, 4}};
    std::vector<int32_t> index, pair;
    for (const auto& p : pairs) {
        for (int width = 1; width <= kMaxWidth; ++width) {
            for (int sw : {1, 2, width + 1, 2 * width + 3}) {
                RandomTable(sw, width, &index, &pair);
                const size_t src_bytes = static_cast<size_t>(sw) * p.c;
                Guarded s0(src_bytes, true), s1(src_bytes, false);
                FillRandom(s0.data(), src_bytes);
                FillRandom(s1.data(), src_bytes);
                const size_t out_bytes = static_cast<size_t>(width) * p.c * 4;
                Guarded a0(out_bytes, true), a1(out_bytes, false), b0(out_bytes, true), b1(out_bytes, true);
                p.avx2(s0.data(), s1.data(), sw, index.data(), pair.data(), width, a0.as<int32_t>(),
                       a1.as<int32_t>());
                p.twin(s0.data(), sw, index.data(), pair.data(), width, b0.as<int32_t>());
                p.twin(s1.data(), sw, index.data(), pair.data(), width, b1.as<int32_t>());
                ASSERT_EQ(a0.bytes(), b0.bytes()) << p.c << " width " << width << " sw " << sw;
                ASSERT_EQ(a1.bytes(), b1.bytes()) << p.c << " width " << width << " sw " << sw;
            }
        }
    }
}

// The windowed column pass takes the planned leading columns; it must give
// the twin's sums there, never touch a byte past the row (the source ends at
// a guard page), and the plan must cover the scales it exists for.
TEST(KernelRows, WindowedColumnRowsMatchTheTwins) {
    std::vector<int32_t> index, pair;
    for (int c : {1, 2}) {
        const ColsFn twin = c == 1 ? k::ScaleColsBilinear1_C : k::ScaleColsBilinear2_C;
        for (int width = 1; width <= kMaxWidth; ++width) {
            // Down by up to 4x, up, and random close picks.
            for (int sw : {width + 1, width * 2, width * 4, width / 2 + 2, -1}) {
                if (sw < 0) {
                    RandomTable(width + 3, width, &index, &pair);
                    sw = width + 3;
                } else {
                    const k::BilinearAxis axis = k::HalfPixelAxis(sw, width);
                    index = axis.index;
                    pair.resize(width);
                    for (int d = 0; d < width; ++d) {
                        pair[d] = static_cast<int32_t>((2048 - axis.weight[d]) | (axis.weight[d] << 16));
                    }
                }
                k::ColsWindow plan;
                k::PlanColsWindow(index.data(), pair.data(), width, sw, c, &plan);
                if (sw >= 16 && sw <= (c == 1 ? 3 : 1) * width) {
                    EXPECT_GT(plan.columns, width - 8 / c) << "c " << c << " width " << width << " sw " << sw;
                }
                const size_t src_bytes = static_cast<size_t>(sw) * c;
                Guarded s0(src_bytes, true), s1(src_bytes, true);
                FillRandom(s0.data(), src_bytes);
                FillRandom(s1.data(), src_bytes);
                const size_t n = static_cast<size_t>(plan.columns) * c;
                std::vector<int32_t> a(n), b0(static_cast<size_t>(width) * c), b1(b0.size()), x0(n), x1(n);
                k::ScaleColsWindow_AVX2(s0.data(), plan, a.data());
                k::ScaleColsWindowx2_AVX2(s0.data(), s1.data(), plan, x0.data(), x1.data());
                twin(s0.data(), sw, index.data(), pair.data(), width, b0.data());
                twin(s1.data(), sw, index.data(), pair.data(), width, b1.data());
                for (size_t i = 0; i < n; ++i) {
                    ASSERT_EQ(a[i], b0[i]) << "c " << c << " width " << width << " sw " << sw << " at " << i;
                    ASSERT_EQ(x0[i], b0[i]) << "c " << c << " width " << width << " sw " << sw << " at " << i;
                    ASSERT_EQ(x1[i], b1[i]) << "c " << c << " width " << width << " sw " << sw << " at " << i;
                }
            }
        }
    }
}

TEST(KernelRows, BilinearBlendRowsMatchTheirTwin) {
    for (bool at_end : kPlacements) {
        for (int n = 1; n <= kMaxWidth; ++n) {
            for (int a : {0, 1, 1023, 1024, 2047, 2048, static_cast<int>(Rng()() % 2049)}) {
                const size_t in_bytes = static_cast<size_t>(n) * 4;
                Guarded r0(in_bytes, at_end), r1(in_bytes, !at_end);
                // Horizontal sums lie in 0 .. 255 * 2048; the ends are included.
                for (int i = 0; i < n; ++i) {
                    const uint32_t pick = Rng()() % 8;
                    r0.as<int32_t>()[i] = pick == 0 ? 0 : pick == 1 ? 255 * 2048 : Rng()() % (255 * 2048 + 1);
                    r1.as<int32_t>()[i] = pick == 2 ? 0 : pick == 3 ? 255 * 2048 : Rng()() % (255 * 2048 + 1);
                }
                Guarded x(n, at_end), y(n, !at_end);
                k::BlendRowsBilinear_AVX2(r0.as<int32_t>(), r1.as<int32_t>(), a, n, x.data());
                k::BlendRowsBilinear_C(r0.as<int32_t>(), r1.as<int32_t>(), a, n, y.data());
                ASSERT_EQ(x.bytes(), y.bytes()) << "n " << n << " a " << a;
            }
        }
    }
}

// ---------------------------------------------------------------------------
// Splits, merges and gray: runs of n pixels.
// ---------------------------------------------------------------------------

TEST(KernelRows, SplitsMergesAndGrayMatchTheirTwins) {
    using SplitFn = void (*)(const uint8_t*, uint8_t*, uint8_t*, uint8_t*, size_t);
    const struct {
        SplitFn avx2, twin;
        int c;
    } splits[] = {{k::SplitRow3_AVX2, k::SplitRow3_C, 3}, {k::SplitRow4_AVX2, k::SplitRow4_C, 4}};
    for (bool at_end : kPlacements) {
        for (size_t n = 1; n <= kMaxWidth; ++n) {
            for (const auto& s : splits) {
                Guarded src(n * s.c, at_end);
                FillRandom(src.data(), n * s.c);
                Guarded a0(n, at_end), a1(n, !at_end), a2(n, at_end);
                Guarded b0(n, at_end), b1(n, at_end), b2(n, at_end);
                s.avx2(src.data(), a0.data(), a1.data(), a2.data(), n);
                s.twin(src.data(), b0.data(), b1.data(), b2.data(), n);
                ASSERT_EQ(a0.bytes(), b0.bytes()) << s.c << " " << n;
                ASSERT_EQ(a1.bytes(), b1.bytes()) << s.c << " " << n;
                ASSERT_EQ(a2.bytes(), b2.bytes()) << s.c << " " << n;
            }
            Guarded p0(n, at_end), p1(n, !at_end), p2(n, at_end), p3(n, !at_end);
            for (Guarded* p : {&p0, &p1, &p2, &p3}) FillRandom(p->data(), n);
            Guarded m3a(3 * n, at_end), m3b(3 * n, !at_end), m4a(4 * n, at_end), m4b(4 * n, !at_end);
            k::MergeRow3_AVX2(p0.data(), p1.data(), p2.data(), m3a.data(), n);
            k::MergeRow3_C(p0.data(), p1.data(), p2.data(), m3b.data(), n);
            ASSERT_EQ(m3a.bytes(), m3b.bytes()) << n;
            k::MergeRow4_AVX2(p0.data(), p1.data(), p2.data(), p3.data(), m4a.data(), n);
            k::MergeRow4_C(p0.data(), p1.data(), p2.data(), p3.data(), m4b.data(), n);
            ASSERT_EQ(m4a.bytes(), m4b.bytes()) << n;

            Guarded bgra(4 * n, at_end), ga(n, at_end), gb(n, !at_end);
            FillRandom(bgra.data(), 4 * n);
            if (n % 5 == 0) std::memset(bgra.data(), 255, 4 * n);  // the largest sums
            k::BgraToGrayRow_AVX2(bgra.data(), ga.data(), n);
            k::BgraToGrayRow_C(bgra.data(), gb.data(), n);
            ASSERT_EQ(ga.bytes(), gb.bytes()) << n;
        }
    }
}

TEST(KernelRows, YuvRowMatchesItsTwin) {
    // BT.601 full range, and weights near the limit that drive the sums far
    // past both ends of the byte range.
    const float matrices[2][10] = {
        {1.0f, 0.0f, 1.402f, -0.7141363f, -0.3441363f, 1.772f, 0.0f, 0.0f, 0.5f, 0.5f},
        {3.99f, -3.99f, 2.5f, -3.9f, 3.9f, -1.25f, 3.5f, 0.0f, -4.0f, 4.0f},
    };
    for (const float* m : matrices) {
        k::YuvFixed f;
        ASSERT_TRUE(k::MakeYuvFixed(m, &f));
        for (bool at_end : kPlacements) {
            for (int width = 1; width <= kMaxWidth; ++width) {
                // A full chroma row, and a short one whose last pair serves
                // the rest of the row.
                for (int uv_width : {std::max(1, width / 2), std::max(1, width / 3)}) {
                    Guarded y(width, at_end), uv(2 * static_cast<size_t>(uv_width), !at_end);
                    FillRandom(y.data(), width);
                    FillRandom(uv.data(), 2 * static_cast<size_t>(uv_width));
                    Guarded a0(width, at_end), a1(width, !at_end), a2(width, at_end);
                    Guarded b0(width, at_end), b1(width, at_end), b2(width, at_end);
                    k::YuvToPlanesRow_AVX2(y.data(), uv.data(), uv_width, f, a0.data(), a1.data(),
                                           a2.data(), width);
                    k::YuvToPlanesRow_C(y.data(), uv.data(), uv_width, f, b0.data(), b1.data(),
                                        b2.data(), width);
                    ASSERT_EQ(a0.bytes(), b0.bytes()) << width << " " << uv_width;
                    ASSERT_EQ(a1.bytes(), b1.bytes()) << width << " " << uv_width;
                    ASSERT_EQ(a2.bytes(), b2.bytes()) << width << " " << uv_width;
                }
            }
        }
    }
}

// ---------------------------------------------------------------------------
// Drivers against the pixel-by-pixel definitions.
// ---------------------------------------------------------------------------

TEST(KernelDrivers, TurnsAndMirrorsFollowTheDefinitions) {
    for (int n : {1, 2, 3, 4, 5, 7, 8, 12}) {
        // Heights of 128 and 256 make destination strides of a power of two,
        // which the quarter turns walk in narrower strips.
        for (int h : {1, 7, 9, 15, 17, 33, 65, 128, 256}) {
            for (int w : {1, 8, 31, 33, 61, 257, 300}) {
                const ptrdiff_t ss = static_cast<ptrdiff_t>(w) * n + 3;  // padded source rows
                std::vector<uint8_t> src(static_cast<size_t>(ss) * h);
                FillRandom(src.data(), src.size());
                auto at = [&](int x, int y) { return &src[static_cast<size_t>(y) * ss + static_cast<size_t>(x) * n]; };
                const size_t bytes = static_cast<size_t>(w) * h * n;
                std::vector<uint8_t> cw(bytes), ccw(bytes), half(bytes), mirror(bytes);
                k::RotateClockwise90(src.data(), ss, cw.data(), static_cast<ptrdiff_t>(h) * n, w, h, n);
                k::RotateClockwise270(src.data(), ss, ccw.data(), static_cast<ptrdiff_t>(h) * n, w, h, n);
                k::Rotate180(src.data(), ss, half.data(), static_cast<ptrdiff_t>(w) * n, w, h, n);
                k::Mirror(src.data(), ss, mirror.data(), static_cast<ptrdiff_t>(w) * n, w, h, n);
                for (int y = 0; y < h; ++y) {
                    for (int x = 0; x < w; ++x) {
                        // Turned images are h wide.
                        const size_t turned = (static_cast<size_t>(x) * h + (h - 1 - y)) * n;
                        const size_t turned_ccw = (static_cast<size_t>(w - 1 - x) * h + y) * n;
                        const size_t flipped = (static_cast<size_t>(h - 1 - y) * w + (w - 1 - x)) * n;
                        const size_t mirrored = (static_cast<size_t>(y) * w + (w - 1 - x)) * n;
                        ASSERT_EQ(0, std::memcmp(&cw[turned], at(x, y), n)) << n << " " << w << "x" << h;
                        ASSERT_EQ(0, std::memcmp(&ccw[turned_ccw], at(x, y), n)) << n << " " << w << "x" << h;
                        ASSERT_EQ(0, std::memcmp(&half[flipped], at(x, y), n)) << n << " " << w << "x" << h;
                        ASSERT_EQ(0, std::memcmp(&mirror[mirrored], at(x, y), n)) << n << " " << w << "x" << h;
                    }
                }
            }
        }
    }
}

}  // namespace
