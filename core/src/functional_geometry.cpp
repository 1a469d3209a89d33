// functional_geometry.cpp - crop, quarter turns and flips of u8 HWC images.
//
// Turns and flips only move whole pixels, so they are exact. libyuv's
// vectorised plane and ARGB routines (which see a pixel as an opaque 1 or 4
// byte unit, 2 for its interleaved chroma mirror) do the flips and the
// one-byte quarter turn; two- and four-byte quarter turns use 8 x 8 block
// transposes of our own (libyuv's four-byte turn is slower than a plain
// transpose); any other pixel size goes through a tiled loop templated on
// the pixel size.
#include <quvas/kernel/functional.h>

#include <immintrin.h>
#include <libyuv.h>

#include <algorithm>
#include <cstring>

#include "functional_check.h"

namespace quvas {
namespace kernel {
namespace functional {

using detail::AsHWC;
using detail::Image;
using detail::Refuse;

namespace {

// A pixel of P bytes, copied as a unit.
template <int P>
struct Pixel {
    uint8_t b[P];
};

enum class Turn { k90, k180, k270 };

// Source coordinate (sx, sy) of destination pixel (x, y) for a clockwise
// turn; src is sw wide and sh high.
//   90:  dst(x, y) = src(y, sh - 1 - x)
//   270: dst(x, y) = src(sw - 1 - y, x)
// Tiles of 32 x 32 keep both the rows read and the rows written in cache.
template <int P>
void TurnQuarterTiled(const Image& src, const Image& dst, Turn turn) {
    using Px = Pixel<P>;
    constexpr int kTile = 32;
    const Px* s = reinterpret_cast<const Px*>(src.data);
    Px* d = reinterpret_cast<Px*>(dst.data);
    const ptrdiff_t sw = src.w;
    for (int ty = 0; ty < dst.h; ty += kTile) {
        const int ye = std::min(ty + kTile, dst.h);
        for (int tx = 0; tx < dst.w; tx += kTile) {
            const int xe = std::min(tx + kTile, dst.w);
            for (int y = ty; y < ye; ++y) {
                Px* out = d + static_cast<ptrdiff_t>(y) * dst.w;
                if (turn == Turn::k90) {
                    // Walks up column y of src.
                    const Px* in = s + static_cast<ptrdiff_t>(src.h - 1 - tx) * sw + y;
                    for (int x = tx; x < xe; ++x, in -= sw) out[x] = *in;
                } else {
                    // Walks down column sw - 1 - y of src.
                    const Px* in = s + static_cast<ptrdiff_t>(tx) * sw + (sw - 1 - y);
                    for (int x = tx; x < xe; ++x, in += sw) out[x] = *in;
                }
            }
        }
    }
}

// Reverses the pixel order of every row; with flip_rows, row y of dst comes
// from row h - 1 - y of src (a half turn), otherwise from row y (a mirror).
template <int P>
void ReverseRows(const Image& src, const Image& dst, bool flip_rows) {
    using Px = Pixel<P>;
    for (int y = 0; y < src.h; ++y) {
        const Px* in =
            reinterpret_cast<const Px*>(src.row(flip_rows ? src.h - 1 - y : y)) + src.w - 1;
        Px* out = reinterpret_cast<Px*>(dst.row(y));
        for (int x = 0; x < src.w; ++x) out[x] = in[-x];
    }
}

// The same for pixels whose size is only known at run time.
void TurnQuarterAny(const Image& src, const Image& dst, Turn turn) {
    const size_t c = static_cast<size_t>(src.c);
    for (int y = 0; y < dst.h; ++y) {
        uint8_t* out = dst.row(y);
        for (int x = 0; x < dst.w; ++x) {
            const int sx = turn == Turn::k90 ? y : src.w - 1 - y;
            const int sy = turn == Turn::k90 ? src.h - 1 - x : x;
            std::memcpy(out + x * c, src.row(sy) + sx * c, c);
        }
    }
}

void ReverseRowsAny(const Image& src, const Image& dst, bool flip_rows) {
    const size_t c = static_cast<size_t>(src.c);
    for (int y = 0; y < src.h; ++y) {
        const uint8_t* in = src.row(flip_rows ? src.h - 1 - y : y);
        uint8_t* out = dst.row(y);
        for (int x = 0; x < src.w; ++x) std::memcpy(out + x * c, in + (src.w - 1 - x) * c, c);
    }
}

// Transposes the 8 x 8 block of 4-byte pixels at s (row stride ss pixels):
// column j of the block becomes the row at d + j * ds, in reverse order when
// `reverse` is set.
inline void Block8x8(const uint32_t* s, ptrdiff_t ss, uint32_t* d, ptrdiff_t ds, bool reverse) {
    __m256i r[8];
    for (int i = 0; i < 8; ++i) r[i] = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s + i * ss));
    __m256i t[8], u[8];
    for (int i = 0; i < 4; ++i) {
        t[2 * i] = _mm256_unpacklo_epi32(r[2 * i], r[2 * i + 1]);
        t[2 * i + 1] = _mm256_unpackhi_epi32(r[2 * i], r[2 * i + 1]);
    }
    for (int h = 0; h < 2; ++h) {  // rows 0-3, then rows 4-7
        u[4 * h + 0] = _mm256_unpacklo_epi64(t[4 * h + 0], t[4 * h + 2]);  // columns 0, 4
        u[4 * h + 1] = _mm256_unpackhi_epi64(t[4 * h + 0], t[4 * h + 2]);  // columns 1, 5
        u[4 * h + 2] = _mm256_unpacklo_epi64(t[4 * h + 1], t[4 * h + 3]);  // columns 2, 6
        u[4 * h + 3] = _mm256_unpackhi_epi64(t[4 * h + 1], t[4 * h + 3]);  // columns 3, 7
    }
    __m256i col[8];
    for (int j = 0; j < 4; ++j) {
        col[j] = _mm256_permute2x128_si256(u[j], u[4 + j], 0x20);
        col[4 + j] = _mm256_permute2x128_si256(u[j], u[4 + j], 0x31);
    }
    const __m256i backwards = _mm256_setr_epi32(7, 6, 5, 4, 3, 2, 1, 0);
    for (int j = 0; j < 8; ++j) {
        if (reverse) col[j] = _mm256_permutevar8x32_epi32(col[j], backwards);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + j * ds), col[j]);
    }
}

// The same for 2-byte pixels.
inline void Block8x8(const uint16_t* s, ptrdiff_t ss, uint16_t* d, ptrdiff_t ds, bool reverse) {
    __m128i r[8];
    for (int i = 0; i < 8; ++i) r[i] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i * ss));
    __m128i a[8], b[8];
    for (int i = 0; i < 4; ++i) {
        a[2 * i] = _mm_unpacklo_epi16(r[2 * i], r[2 * i + 1]);
        a[2 * i + 1] = _mm_unpackhi_epi16(r[2 * i], r[2 * i + 1]);
    }
    for (int h = 0; h < 2; ++h) {
        b[4 * h + 0] = _mm_unpacklo_epi32(a[4 * h + 0], a[4 * h + 2]);  // columns 0, 1
        b[4 * h + 1] = _mm_unpackhi_epi32(a[4 * h + 0], a[4 * h + 2]);  // columns 2, 3
        b[4 * h + 2] = _mm_unpacklo_epi32(a[4 * h + 1], a[4 * h + 3]);  // columns 4, 5
        b[4 * h + 3] = _mm_unpackhi_epi32(a[4 * h + 1], a[4 * h + 3]);  // columns 6, 7
    }
    const __m128i backwards = _mm_setr_epi8(14, 15, 12, 13, 10, 11, 8, 9, 6, 7, 4, 5, 2, 3, 0, 1);
    for (int j = 0; j < 8; ++j) {
        __m128i col = (j & 1) ? _mm_unpackhi_epi64(b[j / 2], b[4 + j / 2])
                              : _mm_unpacklo_epi64(b[j / 2], b[4 + j / 2]);
        if (reverse) col = _mm_shuffle_epi8(col, backwards);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + j * ds), col);
    }
}

// Quarter turn of 2- or 4-byte pixels by 8 x 8 blocks, in strips of 32
// source columns so that the 32 destination rows being written stay in
// cache. Pixels of the partial blocks at the right and bottom go one by one.
template <typename T>
void TurnQuarterBlocks(const Image& src, const Image& dst, Turn turn) {
    const T* s = reinterpret_cast<const T*>(src.data);
    T* d = reinterpret_cast<T*>(dst.data);
    const ptrdiff_t sw = src.w, sh = src.h, dw = dst.w;
    const bool cw = turn == Turn::k90;
    // Destination of source pixel (r, c).
    auto target = [&](ptrdiff_t r, ptrdiff_t c) -> T* {
        return cw ? d + c * dw + (sh - 1 - r) : d + (sw - 1 - c) * dw + r;
    };
    const ptrdiff_t full_w = sw / 8 * 8, full_h = sh / 8 * 8;
    for (ptrdiff_t strip = 0; strip < full_w; strip += 32) {
        const ptrdiff_t strip_end = std::min(strip + 32, full_w);
        for (ptrdiff_t r = 0; r < full_h; r += 8) {
            for (ptrdiff_t c = strip; c < strip_end; c += 8) {
                // 90: column c + j -> row c + j from x = sh - 8 - r, backwards.
                // 270: column c + j -> row sw - 1 - c - j from x = r.
                if (cw) {
                    Block8x8(s + r * sw + c, sw, d + c * dw + (sh - 8 - r), dw, true);
                } else {
                    Block8x8(s + r * sw + c, sw, d + (sw - 1 - c) * dw + r, -dw, false);
                }
            }
        }
    }
    for (ptrdiff_t r = 0; r < sh; ++r) {
        const ptrdiff_t c_begin = r < full_h ? full_w : 0;
        for (ptrdiff_t c = c_begin; c < sw; ++c) *target(r, c) = s[r * sw + c];
    }
}

void TurnQuarter(const Image& src, const Image& dst, Turn turn) {
    switch (src.c) {
        case 1:
            libyuv::RotatePlane(src.data, src.w, dst.data, dst.w, src.w, src.h,
                                turn == Turn::k90 ? libyuv::kRotate90 : libyuv::kRotate270);
            return;
        case 4:
            TurnQuarterBlocks<uint32_t>(src, dst, turn);
            return;
        case 2:
            TurnQuarterBlocks<uint16_t>(src, dst, turn);
            return;
        case 3:
            TurnQuarterTiled<3>(src, dst, turn);
            return;
        default:
            TurnQuarterAny(src, dst, turn);
            return;
    }
}

void Reverse(const Image& src, const Image& dst, bool flip_rows) {
    if (flip_rows) {
        switch (src.c) {
            case 1:
                libyuv::RotatePlane(src.data, src.w, dst.data, dst.w, src.w, src.h,
                                    libyuv::kRotate180);
                return;
            case 2:
                // A negative height makes libyuv read the rows bottom up.
                libyuv::MirrorUVPlane(src.data, src.w * 2, dst.data, dst.w * 2, src.w, -src.h);
                return;
            case 4:
                libyuv::ARGBRotate(src.data, src.w * 4, dst.data, dst.w * 4, src.w, src.h,
                                   libyuv::kRotate180);
                return;
            default:
                break;
        }
    } else {
        switch (src.c) {
            case 1:
                libyuv::MirrorPlane(src.data, src.w, dst.data, dst.w, src.w, src.h);
                return;
            case 2:
                libyuv::MirrorUVPlane(src.data, src.w * 2, dst.data, dst.w * 2, src.w, src.h);
                return;
            case 4:
                libyuv::ARGBMirror(src.data, src.w * 4, dst.data, dst.w * 4, src.w, src.h);
                return;
            default:
                break;
        }
    }
    switch (src.c) {
        case 1:
            ReverseRows<1>(src, dst, flip_rows);
            return;
        case 2:
            ReverseRows<2>(src, dst, flip_rows);
            return;
        case 3:
            ReverseRows<3>(src, dst, flip_rows);
            return;
        case 4:
            ReverseRows<4>(src, dst, flip_rows);
            return;
        default:
            ReverseRowsAny(src, dst, flip_rows);
            return;
    }
}

// Checks src and dst for a pixel-moving kernel; dst must be {dh, dw, C}
// where (dh, dw) is (W, H) for a quarter turn and (H, W) otherwise.
bool CheckMove(const char* kernel, const TensorPtr& src, const TensorPtr& dst, bool quarter,
               Image* s, Image* d) {
    if (!AsHWC(src, s)) {
        Refuse(kernel, src, dst, "src must be a u8 HWC image");
        return false;
    }
    if (!AsHWC(dst, d)) {
        Refuse(kernel, src, dst, "dst must be a u8 HWC image");
        return false;
    }
    const int want_h = quarter ? s->w : s->h;
    const int want_w = quarter ? s->h : s->w;
    if (d->h != want_h || d->w != want_w || d->c != s->c) {
        Refuse(kernel, src, dst,
               quarter ? "dst must be {W, H, C} of src" : "dst must be {H, W, C} of src");
        return false;
    }
    if (detail::Overlap(*s, *d)) {
        Refuse(kernel, src, dst, "src and dst share storage");
        return false;
    }
    return true;
}

}  // namespace

void F_Crop_U8_HWC_Memcpy(const TensorPtr& src, int x, int y, int w, int h, uint8_t pad_value,
                          const TensorPtr& dst) {
    static const char* const kName = "F_Crop_U8_HWC_Memcpy";
    Image s, d;
    if (!AsHWC(src, &s)) return Refuse(kName, src, dst, "src must be a u8 HWC image");
    if (!AsHWC(dst, &d)) return Refuse(kName, src, dst, "dst must be a u8 HWC image");
    if (d.c != s.c) return Refuse(kName, src, dst, "src and dst must have the same channels");
    if (w <= 0 || h <= 0 || d.w != w || d.h != h) {
        return Refuse(kName, src, dst, "dst must be {h, w, C} of the region");
    }
    if (detail::Overlap(s, d)) return Refuse(kName, src, dst, "src and dst share storage");

    const size_t c = static_cast<size_t>(s.c);
    // Columns [x0, x1) of the region lie inside src; 64-bit so that a region
    // far outside the image cannot overflow.
    const int64_t x_begin = std::max<int64_t>(x, 0);
    const int64_t x_end = std::min<int64_t>(static_cast<int64_t>(x) + w, s.w);
    const size_t left = static_cast<size_t>(std::clamp<int64_t>(x_begin - x, 0, w));
    const size_t inside = x_end > x_begin ? static_cast<size_t>(x_end - x_begin) : 0;
    const size_t right = static_cast<size_t>(w) - std::min<size_t>(left + inside, w);
    for (int r = 0; r < h; ++r) {
        uint8_t* out = d.row(r);
        const int64_t sy = static_cast<int64_t>(y) + r;
        if (sy < 0 || sy >= s.h || inside == 0) {
            std::memset(out, pad_value, d.stride());
            continue;
        }
        std::memset(out, pad_value, left * c);
        std::memcpy(out + left * c, s.row(static_cast<int>(sy)) + x_begin * c, inside * c);
        std::memset(out + (left + inside) * c, pad_value, right * c);
    }
}

void F_Rotate_Clockwise90_HWC_Fallback(const TensorPtr& src, const TensorPtr& dst) {
    Image s, d;
    if (!CheckMove("F_Rotate_Clockwise90_HWC_Fallback", src, dst, true, &s, &d)) return;
    TurnQuarter(s, d, Turn::k90);
}

void F_Rotate_Clockwise180_HWC_Fallback(const TensorPtr& src, const TensorPtr& dst) {
    Image s, d;
    if (!CheckMove("F_Rotate_Clockwise180_HWC_Fallback", src, dst, false, &s, &d)) return;
    Reverse(s, d, true);
}

void F_Rotate_Clockwise270_HWC_Fallback(const TensorPtr& src, const TensorPtr& dst) {
    Image s, d;
    if (!CheckMove("F_Rotate_Clockwise270_HWC_Fallback", src, dst, true, &s, &d)) return;
    TurnQuarter(s, d, Turn::k270);
}

void F_HFlip_HWC_Fallback(const TensorPtr& src, const TensorPtr& dst) {
    Image s, d;
    if (!CheckMove("F_HFlip_HWC_Fallback", src, dst, false, &s, &d)) return;
    Reverse(s, d, false);
}

void F_VFlip_HWC_Fallback(const TensorPtr& src, const TensorPtr& dst) {
    Image s, d;
    if (!CheckMove("F_VFlip_HWC_Fallback", src, dst, false, &s, &d)) return;
    for (int r = 0; r < s.h; ++r) std::memcpy(d.row(r), s.row(s.h - 1 - r), s.stride());
}

}  // namespace functional
}  // namespace kernel
}  // namespace quvas
