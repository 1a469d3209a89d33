// planar.cpp - plane drivers over the row kernels (see planar.h).
#include "planar.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>
#include <utility>

#include "row.h"

namespace quvas {
namespace kernels {

namespace {

using StripFn = void (*)(const uint8_t*, ptrdiff_t, uint8_t*, ptrdiff_t, int);

// Source columns per strip call. A strip call writes `kStripCols` destination
// rows; with tiles of a few strips those rows stay in cache until whole
// 64-byte lines of each are written, and the source rows are read as long
// sequential runs (square 32 x 32 or 64 x 64 tiles measured 1.1 to 2x slower
// on 1920 x 1080 frames).
constexpr int kStripCols = 256;

// A strip writes part of each destination line it touches and the tile's
// next strips the rest. Where the destination stride is a multiple of a
// power of two from 128 bytes on, those lines crowd into few sets of a 32 KB
// 8-way L1 (64 sets of 64-byte lines) and a 256-column strip evicts them
// before they are complete: 256 x 256 pixels of 4 bytes took 4x the time of
// 1 byte. Columns a strip, so that its lines fit in half the ways of the
// sets they map to.
int StripColumns(ptrdiff_t ds) {
    const ptrdiff_t stride = ds < 0 ? -ds : ds;
    if (stride % 64 != 0) return kStripCols;
    const int sets = 64 / std::gcd(static_cast<int>(stride / 64 % 64), 64);
    return std::clamp(sets * 8 / 2, 16, kStripCols);
}

// Quarter turn through transposes of strips of `rows` source rows, `tile`
// source rows per tile. The last h % rows source rows go through the plain
// transpose.
void TurnQuarter(StripFn strip, int rows, int tile, const uint8_t* src, ptrdiff_t ss, uint8_t* dst,
                 ptrdiff_t ds, int w, int h, int n, bool clockwise) {
    const int strip_cols = StripColumns(ds);
    const int full = h / rows * rows;
    // Source row y lands in destination column h - 1 - y (clockwise) or y;
    // source column x in destination row x (clockwise) or w - 1 - x.
    const ptrdiff_t dstep = clockwise ? ds : -ds;
    uint8_t* const dst_row0 = clockwise ? dst : dst + static_cast<ptrdiff_t>(w - 1) * ds;
    for (int ty = 0; ty < full; ty += tile) {
        const int ty_end = std::min(ty + tile, full);
        for (int tx = 0; tx < w; tx += strip_cols) {
            const int cols = std::min(strip_cols, w - tx);
            for (int y0 = ty; y0 < ty_end; y0 += rows) {
                const uint8_t* s;
                ptrdiff_t sstep;
                ptrdiff_t col;
                if (clockwise) {
                    // Rows bottom up, so that each transposed row is already
                    // in destination order.
                    s = src + static_cast<ptrdiff_t>(y0 + rows - 1) * ss;
                    sstep = -ss;
                    col = h - rows - y0;
                } else {
                    s = src + static_cast<ptrdiff_t>(y0) * ss;
                    sstep = ss;
                    col = y0;
                }
                strip(s + static_cast<ptrdiff_t>(tx) * n, sstep,
                      dst_row0 + tx * dstep + col * n, dstep, cols);
            }
        }
    }
    if (full < h) {
        const int left = h - full;
        if (clockwise) {
            TransposeAny_C(src + static_cast<ptrdiff_t>(h - 1) * ss, -ss, dst_row0, dstep, w, left, n);
        } else {
            TransposeAny_C(src + static_cast<ptrdiff_t>(full) * ss, ss,
                           dst_row0 + static_cast<ptrdiff_t>(full) * n, dstep, w, left, n);
        }
    }
}

// Any other pixel size: 32 x 32 pixel tiles, so that the rows a tile reads
// stay in L1 while its columns are walked.
void TurnQuarterAny(const uint8_t* src, ptrdiff_t ss, uint8_t* dst, ptrdiff_t ds, int w, int h,
                    int n, bool clockwise) {
    constexpr int kTile = 32;
    const ptrdiff_t dstep = clockwise ? ds : -ds;
    uint8_t* const dst_row0 = clockwise ? dst : dst + static_cast<ptrdiff_t>(w - 1) * ds;
    for (int ty = 0; ty < h; ty += kTile) {
        const int rows = std::min(kTile, h - ty);
        const uint8_t* s = clockwise ? src + static_cast<ptrdiff_t>(ty + rows - 1) * ss
                                     : src + static_cast<ptrdiff_t>(ty) * ss;
        const ptrdiff_t col = clockwise ? h - rows - ty : ty;
        for (int tx = 0; tx < w; tx += kTile) {
            TransposeAny_C(s + static_cast<ptrdiff_t>(tx) * n, clockwise ? -ss : ss,
                           dst_row0 + tx * dstep + col * n, dstep, std::min(kTile, w - tx), rows, n);
        }
    }
}

void Turn(const uint8_t* src, ptrdiff_t ss, uint8_t* dst, ptrdiff_t ds, int w, int h, int n,
          bool clockwise) {
    switch (n) {
        case 1:
            // 16-row strips, 64 rows a tile: whole 64-byte destination lines
            // (and for two bytes, 32-byte stores; 0.83 of 8-row strips).
            return TurnQuarter(TransposeStrip1_AVX2, 16, 64, src, ss, dst, ds, w, h, 1, clockwise);
        case 2:
            return TurnQuarter(TransposeStrip2_AVX2, 16, 64, src, ss, dst, ds, w, h, 2, clockwise);
        case 3:
            return TurnQuarter(TransposeStrip3_AVX2, 8, 16, src, ss, dst, ds, w, h, 3, clockwise);
        case 4:
            return TurnQuarter(TransposeStrip4_AVX2, 8, 16, src, ss, dst, ds, w, h, 4, clockwise);
        default:
            return TurnQuarterAny(src, ss, dst, ds, w, h, n, clockwise);
    }
}

// Mirrors h rows; dst row y receives src row y, or src row h - 1 - y when
// upside_down (a half turn).
//
// A mirrored row is read from its right end, a descending run that the
// hardware prefetcher picks up only after a few lines. A half turn reads the
// whole image as one such run; a mirror restarts it at every row and
// measured 1.3 to 2x slower than the half turn for the same bytes. So while
// a row is mirrored, the next source row is prefetched at the same columns.
void MirrorRows(const uint8_t* src, ptrdiff_t ss, uint8_t* dst, ptrdiff_t ds, int w, int h, int n,
                bool upside_down) {
    void (*row)(const uint8_t*, uint8_t*, int, ptrdiff_t) = nullptr;
    switch (n) {
        case 1: row = MirrorRow1_AVX2; break;
        case 2: row = MirrorRow2_AVX2; break;
        case 3: row = MirrorRow3_AVX2; break;
        case 4: row = MirrorRow4_AVX2; break;
        default: break;
    }
    for (int y = 0; y < h; ++y) {
        const uint8_t* s = src + static_cast<ptrdiff_t>(upside_down ? h - 1 - y : y) * ss;
        uint8_t* d = dst + static_cast<ptrdiff_t>(y) * ds;
        if (row) {
            row(s, d, w, !upside_down && y + 1 < h ? ss : 0);
        } else {
            MirrorRowAny_C(s, d, w, n);
        }
    }
}

}  // namespace

void RotateClockwise90(const uint8_t* src, ptrdiff_t ss, uint8_t* dst, ptrdiff_t ds, int w, int h,
                       int n) {
    Turn(src, ss, dst, ds, w, h, n, true);
}

void RotateClockwise270(const uint8_t* src, ptrdiff_t ss, uint8_t* dst, ptrdiff_t ds, int w, int h,
                        int n) {
    Turn(src, ss, dst, ds, w, h, n, false);
}

void Rotate180(const uint8_t* src, ptrdiff_t ss, uint8_t* dst, ptrdiff_t ds, int w, int h, int n) {
    MirrorRows(src, ss, dst, ds, w, h, n, true);
}

void Mirror(const uint8_t* src, ptrdiff_t ss, uint8_t* dst, ptrdiff_t ds, int w, int h, int n) {
    MirrorRows(src, ss, dst, ds, w, h, n, false);
}

void FlipVertical(const uint8_t* src, ptrdiff_t ss, uint8_t* dst, ptrdiff_t ds, size_t row_bytes,
                  int h) {
    for (int y = 0; y < h; ++y) {
        std::memcpy(dst + static_cast<ptrdiff_t>(y) * ds, src + static_cast<ptrdiff_t>(h - 1 - y) * ss,
                    row_bytes);
    }
}

void CopyRegionPadded(const uint8_t* src, ptrdiff_t ss, int sw, int sh, int x, int y, uint8_t* dst,
                      ptrdiff_t ds, int w, int h, int n, uint8_t pad) {
    const size_t c = static_cast<size_t>(n);
    // Columns [x_begin, x_end) of the region lie inside src; 64-bit so that a
    // region far outside the image cannot overflow.
    const int64_t x_begin = std::max<int64_t>(x, 0);
    const int64_t x_end = std::min<int64_t>(static_cast<int64_t>(x) + w, sw);
    const size_t left = static_cast<size_t>(std::clamp<int64_t>(x_begin - x, 0, w));
    const size_t inside = x_end > x_begin ? static_cast<size_t>(x_end - x_begin) : 0;
    const size_t right = static_cast<size_t>(w) - std::min<size_t>(left + inside, w);
    const size_t row_bytes = static_cast<size_t>(w) * c;
    for (int r = 0; r < h; ++r) {
        uint8_t* out = dst + static_cast<ptrdiff_t>(r) * ds;
        const int64_t sy = static_cast<int64_t>(y) + r;
        if (sy < 0 || sy >= sh || inside == 0) {
            std::memset(out, pad, row_bytes);
            continue;
        }
        std::memset(out, pad, left * c);
        std::memcpy(out + left * c, src + static_cast<ptrdiff_t>(sy) * ss + x_begin * n, inside * c);
        std::memset(out + (left + inside) * c, pad, right * c);
    }
}

BilinearAxis HalfPixelAxis(int src, int dst) {
    constexpr int kOne = 2048;
    BilinearAxis axis;
    axis.index.resize(dst);
    axis.weight.resize(dst);
    const double scale = static_cast<double>(src) / dst;
    for (int d = 0; d < dst; ++d) {
        float f = static_cast<float>((d + 0.5) * scale - 0.5);
        int s = static_cast<int>(std::floor(f));
        f -= static_cast<float>(s);
        if (s < 0) {
            s = 0;
            f = 0.f;
        }
        if (s >= src - 1) {
            s = src - 1;
            f = 0.f;
        }
        int a = static_cast<int>(std::lround(f * kOne));
        // Keep the two taps adjacent and inside the image: the last pixel
        // alone is the second tap of the one before it at full weight.
        if (s == src - 1 && src > 1) {
            s = src - 2;
            a = kOne;
        }
        axis.index[d] = s;
        axis.weight[d] = a;
    }
    return axis;
}

void ResizeBilinearRows(RowFetch fetch, void* ctx, int sw, int sh, uint8_t* dst, ptrdiff_t ds,
                        int dw, int dh, int c, const BilinearAxis& xs, const BilinearAxis& ys) {
    using ColsFn = void (*)(const uint8_t*, int, const int32_t*, const int32_t*, int, int32_t*);
    ColsFn cols = c == 1   ? ScaleColsBilinear1_AVX2
                  : c == 2 ? ScaleColsBilinear2_AVX2
                  : c == 3 ? ScaleColsBilinear3_AVX2
                           : ScaleColsBilinear4_AVX2;
    // Both weights of a column as the int16 pair the vector rows multiply.
    std::vector<int32_t> pair(dw);
    for (int d = 0; d < dw; ++d) {
        const uint32_t a = static_cast<uint32_t>(xs.weight[d]);
        pair[d] = static_cast<int32_t>((2048u - a) | (a << 16));
    }
    const int32_t* index = xs.index.data();
    const int n = dw * c;  // values per destination row
    const size_t row_bytes = static_cast<size_t>(sw) * c;
    ColsWindow window;
    PlanColsWindow(index, pair.data(), dw, sw, c, &window);
    const int wc = window.columns;
    const auto scale = [&](const uint8_t* row, int32_t* out) {
        if (wc > 0) ScaleColsWindow_AVX2(row, window, out);
        if (wc < dw) cols(row, sw, index + wc, pair.data() + wc, dw - wc, out + wc * c);
    };
    // Two filtered rows and the source rows they hold, reused while the
    // destination rows keep sampling them (upscaling filters each source row
    // once).
    std::vector<int32_t> buffer(2 * static_cast<size_t>(n));
    int32_t* rows[2] = {buffer.data(), buffer.data() + n};
    int have[2] = {-1, -1};
    for (int dy = 0; dy < dh; ++dy) {
        const int r0 = ys.index[dy];
        const int r1 = sh >= 2 ? r0 + 1 : r0;
        if ((c == 1 || c == 2 || c == 4) && r0 != r1 && have[0] != r0 && have[1] != r0 &&
            have[1] != r1) {
            // Neither row is held, as when downsizing: both in one pass.
            const uint8_t* s0 = fetch(ctx, r0, 0);
            const uint8_t* s1 = fetch(ctx, r1, 1);
            // Two rows of one byte value each, as the padding of a crop that
            // reaches past the frame: every horizontal sum is that value
            // times 2048 (the weights of a column sum to 2048), so the whole
            // destination row is one byte. A row of an image differs within
            // its first bytes, so the test costs next to nothing there.
            if (std::memcmp(s0, s0 + 1, row_bytes - 1) == 0 &&
                std::memcmp(s1, s1 + 1, row_bytes - 1) == 0) {
                const int a = ys.weight[dy];
                const int v = (s0[0] * 2048 * (2048 - a) + s1[0] * 2048 * a + (1 << 21)) >> 22;
                std::memset(dst + static_cast<ptrdiff_t>(dy) * ds, v, static_cast<size_t>(n));
                have[0] = have[1] = -1;
                continue;
            }
            if (wc > 0) ScaleColsWindowx2_AVX2(s0, s1, window, rows[0], rows[1]);
            if (wc < dw) {
                const int32_t* pi = pair.data() + wc;
                if (c == 2) {
                    cols(s0, sw, index + wc, pi, dw - wc, rows[0] + wc * c);
                    cols(s1, sw, index + wc, pi, dw - wc, rows[1] + wc * c);
                } else {
                    (c == 1 ? ScaleColsBilinear1x2_AVX2 : ScaleColsBilinear4x2_AVX2)(
                        s0, s1, sw, index + wc, pi, dw - wc, rows[0] + wc * c, rows[1] + wc * c);
                }
            }
            have[0] = r0;
            have[1] = r1;
        }
        if (have[0] != r0) {
            if (have[1] == r0) {
                std::swap(rows[0], rows[1]);
                std::swap(have[0], have[1]);
            } else {
                scale(fetch(ctx, r0, 0), rows[0]);
                have[0] = r0;
            }
        }
        if (have[1] != r1) {
            scale(fetch(ctx, r1, 1), rows[1]);
            have[1] = r1;
        }
        BlendRowsBilinear_AVX2(rows[0], rows[1], ys.weight[dy], n, dst + static_cast<ptrdiff_t>(dy) * ds);
    }
}

namespace {

struct PlainRows {
    const uint8_t* src;
    ptrdiff_t stride;
};

const uint8_t* FetchPlainRow(void* ctx, int sy, int /*slot*/) {
    const PlainRows* image = static_cast<const PlainRows*>(ctx);
    return image->src + static_cast<ptrdiff_t>(sy) * image->stride;
}

}  // namespace

void ResizeBilinear(const uint8_t* src, ptrdiff_t ss, int sw, int sh, uint8_t* dst, ptrdiff_t ds,
                    int dw, int dh, int c, const BilinearAxis& xs, const BilinearAxis& ys) {
    PlainRows image{src, ss};
    ResizeBilinearRows(&FetchPlainRow, &image, sw, sh, dst, ds, dw, dh, c, xs, ys);
}

bool MakeYuvFixed(const float m[10], YuvFixed* f) {
    const double one = 1 << kYuvBits;
    for (int k = 0; k <= 6; ++k) {
        if (!(std::fabs(m[k]) < 4.0f)) return false;
    }
    if (!(std::fabs(m[8]) <= 4.0f) || !(std::fabs(m[9]) <= 4.0f)) return false;
    f->w0 = static_cast<int32_t>(std::lround(m[0] * one));
    for (int p = 0; p < 3; ++p) {
        const double a = m[1 + 2 * p];
        const double b = m[2 + 2 * p];
        f->wa[p] = static_cast<int32_t>(std::lround(a * one));
        f->wb[p] = static_cast<int32_t>(std::lround(b * one));
        f->bias[p] = static_cast<int32_t>(std::lround(-(a * m[8] + b * m[9]) * 255.0 * one)) +
                     (1 << (kYuvBits - 1));
    }
    // The vector rows multiply 16-bit weights: a weight that rounds to
    // +-32768 (|m| just under 4) is out too.
    const int32_t* all[] = {&f->w0, f->wa, f->wa + 1, f->wa + 2, f->wb, f->wb + 1, f->wb + 2};
    for (const int32_t* w : all) {
        if (*w < -32767 || *w > 32767) return false;
    }
    return true;
}

void YuvToPlanes(const uint8_t* y, ptrdiff_t ys, const uint8_t* uv, ptrdiff_t uvs, int uv_w,
                 int uv_h, const YuvFixed& f, uint8_t* dst, ptrdiff_t ds, size_t plane_bytes,
                 int w, int h) {
    for (int r = 0; r < h; ++r) {
        const int cr = r / 2 < uv_h - 1 ? r / 2 : uv_h - 1;
        uint8_t* out = dst + static_cast<ptrdiff_t>(r) * ds;
        YuvToPlanesRow_AVX2(y + static_cast<ptrdiff_t>(r) * ys,
                            uv + static_cast<ptrdiff_t>(cr) * uvs, uv_w, f, out,
                            out + plane_bytes, out + 2 * plane_bytes, w);
    }
}

void SplitPlanes(const uint8_t* src, int channels, size_t n, uint8_t* dst0, uint8_t* dst1,
                 uint8_t* dst2) {
    if (channels == 4) {
        SplitRow4_AVX2(src, dst0, dst1, dst2, n);
    } else {
        SplitRow3_AVX2(src, dst0, dst1, dst2, n);
    }
}

void MergePlanes(const uint8_t* src0, const uint8_t* src1, const uint8_t* src2,
                 const uint8_t* src3, int channels, size_t n, uint8_t* dst) {
    if (channels == 4) {
        MergeRow4_AVX2(src0, src1, src2, src3, dst, n);
    } else {
        MergeRow3_AVX2(src0, src1, src2, dst, n);
    }
}

void BgraToGray(const uint8_t* src, uint8_t* dst, size_t n) { BgraToGrayRow_AVX2(src, dst, n); }

}  // namespace kernels
}  // namespace quvas
