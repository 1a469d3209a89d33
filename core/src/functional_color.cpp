// functional_color.cpp - colour conversions of u8 images into planes.
//
// Two-plane YUV to three planes, fixed point. With the matrix m of
// YUVCvtMatrix, S = 13 fractional bits and round() to nearest (halves away
// from zero), computed in double once per call:
//   W0 = round(m0 * 2^S), and for output plane p with chroma weights (a, b) =
//   (m1, m2), (m3, m4), (m5, m6):   Wa = round(a * 2^S), Wb = round(b * 2^S),
//   Bp = round(-(a * m8 + b * m9) * 255 * 2^S) + 2^(S-1)
// and for luma byte Y with chroma bytes (c0, c1):
//   plane p = clamp((W0 * Y + Wa * c0 + Wb * c1 + Bp) >> S, 0, 255)
// (>> is an arithmetic shift, i.e. floor). All sums are exact in 32 bits.
// The real-valued result 255 * (m0 Y/255 + a (c0/255 - m8) + b (c1/255 - m9))
// rounded to nearest differs from this by at most 1, and only when it lies
// within about 0.05 of a half. Luma pixel (x, y) takes the chroma pair at
// (min(x/2, uv width - 1), min(y/2, uv height - 1)), so a chroma plane of
// floor(W/2) x floor(H/2) pairs serves an odd-sized luma plane too. The
// weights must lie in (-4, 4) (and round to at most 32767 in magnitude) and
// the offsets m8, m9 in [-4, 4]; m7 is not read.
//
// Four-byte pixels to planes only move bytes. Gray is BT.601 luma with the
// weights rounded to 1/16384:
//   gray = (1868 B + 9617 G + 4899 R + 8192) >> 14
#include <quvas/kernel/functional.h>
#include <quvas/utility/log.h>

#include <immintrin.h>

#include <algorithm>
#include <cmath>

#include "functional_check.h"

namespace quvas {
namespace kernel {
namespace functional {

using detail::AsCHW;
using detail::AsHWC;
using detail::Image;
using detail::Refuse;

namespace {

// Puts the four bytes of every 8 pixels channel by channel, 8 each:
// (c0 x8, c1 x8, c2 x8, c3 x8) as 64-bit groups.
inline __m256i GroupChannels(__m256i v) {
    const __m256i by_channel = _mm256_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11,
                                                15, 0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7,
                                                11, 15);
    const __m256i lanes = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    return _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(v, by_channel), lanes);
}

// Packs 32 int32 values (4 vectors, each 8 in order) into 32 saturated bytes.
inline __m256i PackBytes(__m256i s0, __m256i s1, __m256i s2, __m256i s3) {
    const __m256i bytes =
        _mm256_packus_epi16(_mm256_packs_epi32(s0, s1), _mm256_packs_epi32(s2, s3));
    return _mm256_permutevar8x32_epi32(bytes, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7));
}

// Four-byte HWC to three planes: plane p receives byte pick[p] of each pixel.
void Pack4ToPlanes(const Image& s, const Image& d, const int pick[3]) {
    const size_t plane = static_cast<size_t>(d.h) * d.w;
    uint8_t* out[3] = {d.data + plane * 0, d.data + plane * 1, d.data + plane * 2};
    const size_t n = plane;  // pixels, rows are packed on both sides
    const uint8_t* in = s.data;
    size_t i = 0;
    for (; i + 32 <= n; i += 32) {
        const __m256i* p = reinterpret_cast<const __m256i*>(in + i * 4);
        const __m256i v0 = GroupChannels(_mm256_loadu_si256(p));
        const __m256i v1 = GroupChannels(_mm256_loadu_si256(p + 1));
        const __m256i v2 = GroupChannels(_mm256_loadu_si256(p + 2));
        const __m256i v3 = GroupChannels(_mm256_loadu_si256(p + 3));
        const __m256i lo01 = _mm256_unpacklo_epi64(v0, v1);  // c0 v0, c0 v1, c2 v0, c2 v1
        const __m256i hi01 = _mm256_unpackhi_epi64(v0, v1);  // c1 ..., c3 ...
        const __m256i lo23 = _mm256_unpacklo_epi64(v2, v3);
        const __m256i hi23 = _mm256_unpackhi_epi64(v2, v3);
        __m256i ch[3];
        ch[0] = _mm256_permute2x128_si256(lo01, lo23, 0x20);
        ch[1] = _mm256_permute2x128_si256(hi01, hi23, 0x20);
        ch[2] = _mm256_permute2x128_si256(lo01, lo23, 0x31);
        for (int k = 0; k < 3; ++k) {
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(out[k] + i), ch[pick[k]]);
        }
    }
    for (; i < n; ++i) {
        for (int k = 0; k < 3; ++k) out[k][i] = in[i * 4 + pick[k]];
    }
}

void Pack4(const char* kernel, const TensorPtr& src, const TensorPtr& dst, const int pick[3]) {
    Image s, d;
    if (!AsHWC(src, &s) || s.c != 4) {
        return Refuse(kernel, src, dst, "src must be a u8 HWC image of 4 channels");
    }
    if (!AsCHW(dst, &d) || d.c != 3 || d.h != s.h || d.w != s.w) {
        return Refuse(kernel, src, dst, "dst must be a u8 CHW image {3, H, W} of src");
    }
    if (detail::Overlap(s, d)) return Refuse(kernel, src, dst, "src and dst share storage");
    Pack4ToPlanes(s, d, pick);
}

constexpr int kGrayB = 1868, kGrayG = 9617, kGrayR = 4899;

void BgraToGray(const Image& s, const Image& d) {
    const size_t n = static_cast<size_t>(s.h) * s.w;
    const uint8_t* in = s.data;
    uint8_t* out = d.data;
    const __m256i w = _mm256_set1_epi64x(static_cast<long long>(kGrayB) |
                                         static_cast<long long>(kGrayG) << 16 |
                                         static_cast<long long>(kGrayR) << 32);
    const __m256i zero = _mm256_setzero_si256();
    const __m256i round = _mm256_set1_epi32(1 << 13);
    size_t i = 0;
    for (; i + 32 <= n; i += 32) {
        __m256i sum[4];
        for (int k = 0; k < 4; ++k) {
            const __m256i v =
                _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in + (i + 8 * k) * 4));
            // Pixels (0, 1 | 4, 5) and (2, 3 | 6, 7) as 16-bit B G R A.
            const __m256i lo = _mm256_madd_epi16(_mm256_unpacklo_epi8(v, zero), w);
            const __m256i hi = _mm256_madd_epi16(_mm256_unpackhi_epi8(v, zero), w);
            sum[k] = _mm256_srli_epi32(_mm256_add_epi32(_mm256_hadd_epi32(lo, hi), round), 14);
        }
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + i),
                            PackBytes(sum[0], sum[1], sum[2], sum[3]));
    }
    for (; i < n; ++i) {
        const uint8_t* p = in + i * 4;
        out[i] = static_cast<uint8_t>((kGrayB * p[0] + kGrayG * p[1] + kGrayR * p[2] + 8192) >> 14);
    }
}

// --- two-plane YUV --------------------------------------------------------

constexpr int kYuvBits = 13;

struct YuvFixed {
    int32_t w0;
    int32_t wa[3], wb[3];
    int32_t bias[3];
};

// False when a weight or offset is out of range (or not a number).
bool MakeYuvFixed(const YUVCvtMatrix& m, YuvFixed* f) {
    const double one = 1 << kYuvBits;
    for (int k = 0; k <= 6; ++k) {
        if (!(std::fabs(m.m[k]) < 4.0f)) return false;
    }
    if (!(std::fabs(m.m[8]) <= 4.0f) || !(std::fabs(m.m[9]) <= 4.0f)) return false;
    f->w0 = static_cast<int32_t>(std::lround(m.m[0] * one));
    for (int p = 0; p < 3; ++p) {
        const double a = m.m[1 + 2 * p];
        const double b = m.m[2 + 2 * p];
        f->wa[p] = static_cast<int32_t>(std::lround(a * one));
        f->wb[p] = static_cast<int32_t>(std::lround(b * one));
        f->bias[p] = static_cast<int32_t>(
                         std::lround(-(a * m.m[8] + b * m.m[9]) * 255.0 * one)) +
                     (1 << (kYuvBits - 1));
    }
    // The vector code multiplies 16-bit weights: a weight that rounds to
    // +-32768 (|m| just under 4) is out too.
    const int32_t* all[] = {&f->w0, f->wa, f->wa + 1, f->wa + 2, f->wb, f->wb + 1, f->wb + 2};
    for (const int32_t* w : all) {
        if (*w < -32767 || *w > 32767) return false;
    }
    return true;
}

inline uint8_t YuvPixel(const YuvFixed& f, int p, int y, int c0, int c1) {
    const int32_t v = (f.w0 * y + f.wa[p] * c0 + f.wb[p] * c1 + f.bias[p]) >> kYuvBits;
    return static_cast<uint8_t>(std::clamp(v, 0, 255));
}

void YuvToPlanes(const Image& y, const Image& uv, const YuvFixed& f, const Image& d) {
    const size_t plane = static_cast<size_t>(d.h) * d.w;
    const __m256i w0 = _mm256_set1_epi32(static_cast<int32_t>(static_cast<uint32_t>(f.w0) & 0xFFFFu));  // (W0, 0) against (Y, 0)
    __m256i wc[3], bias[3];
    for (int p = 0; p < 3; ++p) {
        wc[p] = _mm256_set1_epi32(static_cast<int32_t>((static_cast<uint32_t>(f.wa[p]) & 0xFFFFu) |
                                                      (static_cast<uint32_t>(f.wb[p]) << 16)));
        bias[p] = _mm256_set1_epi32(f.bias[p]);
    }
    const __m256i dup_lo = _mm256_setr_epi32(0, 0, 1, 1, 2, 2, 3, 3);
    const __m256i dup_hi = _mm256_setr_epi32(4, 4, 5, 5, 6, 6, 7, 7);
    for (int r = 0; r < y.h; ++r) {
        const uint8_t* yrow = y.row(r);
        const uint8_t* crow = uv.row(std::min(r / 2, uv.h - 1));
        uint8_t* out[3];
        for (int p = 0; p < 3; ++p) out[p] = d.data + plane * p + static_cast<size_t>(r) * d.w;
        int x = 0;
        // 32 luma pixels use 16 chroma pairs starting at pair x/2.
        for (; x + 32 <= y.w && x / 2 + 16 <= uv.w; x += 32) {
            const __m256i ca = _mm256_cvtepu8_epi16(
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(crow + x)));
            const __m256i cb = _mm256_cvtepu8_epi16(
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(crow + x + 16)));
            const __m128i y0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(yrow + x));
            const __m128i y1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(yrow + x + 16));
            const __m256i l0 = _mm256_madd_epi16(_mm256_cvtepu8_epi32(y0), w0);
            const __m256i l1 = _mm256_madd_epi16(_mm256_cvtepu8_epi32(_mm_srli_si128(y0, 8)), w0);
            const __m256i l2 = _mm256_madd_epi16(_mm256_cvtepu8_epi32(y1), w0);
            const __m256i l3 = _mm256_madd_epi16(_mm256_cvtepu8_epi32(_mm_srli_si128(y1, 8)), w0);
            for (int p = 0; p < 3; ++p) {
                const __m256i chroma_a = _mm256_add_epi32(_mm256_madd_epi16(ca, wc[p]), bias[p]);
                const __m256i chroma_b = _mm256_add_epi32(_mm256_madd_epi16(cb, wc[p]), bias[p]);
                const __m256i s0 = _mm256_srai_epi32(
                    _mm256_add_epi32(l0, _mm256_permutevar8x32_epi32(chroma_a, dup_lo)), kYuvBits);
                const __m256i s1 = _mm256_srai_epi32(
                    _mm256_add_epi32(l1, _mm256_permutevar8x32_epi32(chroma_a, dup_hi)), kYuvBits);
                const __m256i s2 = _mm256_srai_epi32(
                    _mm256_add_epi32(l2, _mm256_permutevar8x32_epi32(chroma_b, dup_lo)), kYuvBits);
                const __m256i s3 = _mm256_srai_epi32(
                    _mm256_add_epi32(l3, _mm256_permutevar8x32_epi32(chroma_b, dup_hi)), kYuvBits);
                _mm256_storeu_si256(reinterpret_cast<__m256i*>(out[p] + x),
                                    PackBytes(s0, s1, s2, s3));
            }
        }
        for (; x < y.w; ++x) {
            const uint8_t* c = crow + 2 * std::min(x / 2, uv.w - 1);
            for (int p = 0; p < 3; ++p) out[p][x] = YuvPixel(f, p, yrow[x], c[0], c[1]);
        }
    }
}

void RefuseYuv(const TensorPtr& y, const TensorPtr& uv, const TensorPtr& dst, const char* reason) {
    utility::Assert(false, "%s: y %s, uv %s and dst %s do not fit: %s",
                    "F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback",
                    detail::ShapeText(y).c_str(), detail::ShapeText(uv).c_str(),
                    detail::ShapeText(dst).c_str(), reason);
}

}  // namespace

void F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback(const TensorPtr& y, const TensorPtr& uv,
                                                       const std::shared_ptr<YUVCvtMatrix>& matrix,
                                                       const TensorPtr& dst) {
    Image yi, ci, d;
    if (!AsHWC(y, &yi) || yi.c != 1) return RefuseYuv(y, uv, dst, "y must be a u8 {H, W, 1} plane");
    if (!AsHWC(uv, &ci) || ci.c != 2 || ci.h < yi.h / 2 || ci.w < yi.w / 2) {
        return RefuseYuv(y, uv, dst, "uv must be a u8 {H/2, W/2, 2} plane of chroma pairs");
    }
    if (!AsCHW(dst, &d) || d.c != 3 || d.h != yi.h || d.w != yi.w) {
        return RefuseYuv(y, uv, dst, "dst must be a u8 CHW image {3, H, W} of y");
    }
    if (detail::Overlap(yi, d) || detail::Overlap(ci, d)) {
        return RefuseYuv(y, uv, dst, "a source and dst share storage");
    }
    if (!matrix) return RefuseYuv(y, uv, dst, "the colour matrix is missing");
    YuvFixed fixed;
    if (!MakeYuvFixed(*matrix, &fixed)) {
        return RefuseYuv(y, uv, dst,
                         "colour matrix weights must lie in (-4, 4) and offsets in [-4, 4]");
    }
    YuvToPlanes(yi, ci, fixed, d);
}

void F_ColorCvt_BGRA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback(const TensorPtr& src,
                                                         const TensorPtr& dst) {
    static const int kPick[3] = {2, 1, 0};
    Pack4("F_ColorCvt_BGRA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback", src, dst, kPick);
}

void F_ColorCvt_RGBA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback(const TensorPtr& src,
                                                         const TensorPtr& dst) {
    static const int kPick[3] = {0, 1, 2};
    Pack4("F_ColorCvt_RGBA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback", src, dst, kPick);
}

void F_ColorCvt_BGRA8888_To_Gray8_Fallback(const TensorPtr& src, const TensorPtr& dst) {
    static const char* const kName = "F_ColorCvt_BGRA8888_To_Gray8_Fallback";
    Image s, d;
    if (!AsHWC(src, &s) || s.c != 4) {
        return Refuse(kName, src, dst, "src must be a u8 HWC image of 4 channels");
    }
    // The destination may have other dims than the source as long as it holds
    // one byte per source pixel: the gray converter resizes a frame with a
    // pending quarter turn to the swapped size and never turns it, so its
    // {T_h, T_w, 1} output receives the {T_w, T_h} picture row after row.
    if (!AsHWC(dst, &d) || d.c != 1 ||
        static_cast<size_t>(d.h) * static_cast<size_t>(d.w) !=
            static_cast<size_t>(s.h) * static_cast<size_t>(s.w)) {
        return Refuse(kName, src, dst, "dst must be a u8 HWC image {H, W, 1} of src");
    }
    if (detail::Overlap(s, d)) return Refuse(kName, src, dst, "src and dst share storage");
    BgraToGray(s, d);
}

}  // namespace functional
}  // namespace kernel
}  // namespace quvas
