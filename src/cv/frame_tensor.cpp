// frame_tensor.cpp - the one-pass converter writing a network's input in
// place: bytes or normalised floats, planar or interleaved, letterboxed when
// asked, with the affine map between frame and tensor that the geometry
// implies. The picture itself comes from the one-pass pipeline
// (frame_one_pass.cpp), so it is the bytes the other converters write; this
// file only places it and normalises it on the way out.
#include <qvn_kit/frame_tensor.hpp>

#include <quvas/qvn_core.h>

#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "frame_convert.h"

namespace quvas {
namespace kit {

namespace {

using internal::CropBox;
using internal::kQuarterTurns;

constexpr int kErr = 16;
constexpr const char* kConvertName = "QV_OnePass_Convert_FrameView_To_Tensor";
constexpr const char* kTransformName = "QV_FrameView_Tensor_Transform";

// Everything the conversion decides before it touches a pixel.
struct Plan {
    CropBox box;
    int channels;
    int tw, th;  // tensor
    int pw, ph;  // picture, upright
    int px, py;  // where it lies in the tensor
    int rw, rh;  // the size the region is resized to (before the turn)
    bool turns;  // colour output follows the orientation; gray does not
};

bool MakePlan(const FrameView& view, const TensorOptions& o, const char* name, Plan* plan) {
    if (!Is_Valid_FrameView(view)) return false;
    const bool yuv = pixfmt::IsFourTwoZero(view.pix_fmt);
    const int least = (yuv && !o.gray) ? 2 : 1;
    if (o.width < least || o.height < least) {
        utility::Log(kErr, "%s: a %dx%d tensor cannot hold a picture of at least %dx%d.", name,
                     o.width, o.height, least, least);
        return false;
    }
    QVN_Image geometry{};
    geometry.pix_fmt = view.pix_fmt;
    geometry.ori_fmt = view.ori_fmt;
    geometry.width = view.width;
    geometry.height = view.height;
    Plan p;
    p.box = internal::FrameCropBox(&geometry, o.crop_x, o.crop_y, o.crop_w, o.crop_h);
    if (!p.box.active) p.box = CropBox{false, 0, 0, view.width, view.height};
    if (p.box.w < least || p.box.h < least) {
        utility::Log(kErr, "%s: a %dx%d crop of a 4:2:0 frame is less than 2x2.", name, p.box.w,
                     p.box.h);
        return false;
    }
    p.channels = o.gray ? 1 : 3;
    p.turns = !o.gray;
    p.tw = o.width;
    p.th = o.height;
    const bool quarter = p.turns && (view.ori_fmt & kQuarterTurns) != 0;
    if (o.letterbox == Letterbox::kOff) {
        p.pw = p.tw;
        p.ph = p.th;
    } else {
        // The region's sides as they will stand in the tensor; scaled to
        // fit, the longer relative side fills the tensor exactly and the
        // other is rounded to the nearest pixel, halves up.
        const int64_t cw = quarter ? p.box.h : p.box.w;
        const int64_t ch = quarter ? p.box.w : p.box.h;
        if (cw * p.th <= ch * p.tw) {
            p.ph = p.th;
            p.pw = static_cast<int>((2 * cw * p.th + ch) / (2 * ch));
        } else {
            p.pw = p.tw;
            p.ph = static_cast<int>((2 * ch * p.tw + cw) / (2 * cw));
        }
        p.pw = std::max(p.pw, least);
        p.ph = std::max(p.ph, least);
    }
    const bool centred = o.letterbox == Letterbox::kCentre;
    p.px = centred ? (p.tw - p.pw) / 2 : 0;
    p.py = centred ? (p.th - p.ph) / 2 : 0;
    p.rw = quarter ? p.ph : p.pw;
    p.rh = quarter ? p.pw : p.ph;
    *plan = p;
    return true;
}

// 2 x 3 affine maps, row-major; Then(a, b) is b after a.
struct Affine {
    double m[6];
};

Affine Then(const Affine& a, const Affine& b) {
    const double* p = a.m;
    const double* q = b.m;
    return Affine{{q[0] * p[0] + q[1] * p[3], q[0] * p[1] + q[1] * p[4],
                   q[0] * p[2] + q[1] * p[5] + q[2], q[3] * p[0] + q[4] * p[3],
                   q[3] * p[1] + q[4] * p[4], q[3] * p[2] + q[4] * p[5] + q[5]}};
}

Affine Inverse(const Affine& a) {
    const double* m = a.m;
    const double det = m[0] * m[4] - m[1] * m[3];
    const double i0 = m[4] / det, i1 = -m[1] / det, i3 = -m[3] / det, i4 = m[0] / det;
    return Affine{{i0, i1, -(i0 * m[2] + i1 * m[5]), i3, i4, -(i3 * m[2] + i4 * m[5])}};
}

// The conversion's geometry step by step, on continuous pixel coordinates:
// normalised frame -> frame pixels -> resized region -> turned -> mirrored
// -> placed in the tensor. The turn and mirror rules are the converter's
// (first matching bit of each group).
TensorTransform TransformOf(const FrameView& view, const Plan& p) {
    const CropBox& b = p.box;
    const double sx = static_cast<double>(p.rw) / b.w;
    const double sy = static_cast<double>(p.rh) / b.h;
    Affine t{{view.width * sx, 0, -b.x * sx, 0, view.height * sy, -b.y * sy}};
    const uint32_t ori = p.turns ? view.ori_fmt : 0;
    const double rw = p.rw, rh = p.rh;
    if (ori & QVN_ORIENT_FMT_ROTATE_90L) {  // clockwise: (x, y) -> (rh - y, x)
        t = Then(t, Affine{{0, -1, rh, 1, 0, 0}});
    } else if (ori & QVN_ORIENT_FMT_ROTATE_90R) {  // counter-clockwise: (y, rw - x)
        t = Then(t, Affine{{0, 1, 0, -1, 0, rw}});
    } else if (ori & QVN_ORIENT_FMT_ROTATE_180) {
        t = Then(t, Affine{{-1, 0, rw, 0, -1, rh}});
    }
    if (ori & QVN_ORIENT_FMT_MIRROR) {
        t = Then(t, Affine{{-1, 0, static_cast<double>(p.pw), 0, 1, 0}});
    } else if (ori & QVN_ORIENT_FMT_FLIPV) {
        t = Then(t, Affine{{1, 0, 0, 0, -1, static_cast<double>(p.ph)}});
    }
    t = Then(t, Affine{{1, 0, static_cast<double>(p.px), 0, 1, static_cast<double>(p.py)}});
    TensorTransform out;
    const Affine inv = Inverse(t);
    std::copy(t.m, t.m + 6, out.to_tensor);
    std::copy(inv.m, inv.m + 6, out.to_frame);
    out.tensor_width = p.tw;
    out.tensor_height = p.th;
    out.picture_x = p.px;
    out.picture_y = p.py;
    out.picture_width = p.pw;
    out.picture_height = p.ph;
    return out;
}

bool NormalisationOk(const TensorOptions& o, int channels) {
    const size_t n = static_cast<size_t>(channels);
    if (o.mean.size() != n || o.std.size() != n) {
        utility::Log(kErr, "%s: mean and std need one value per channel (%d), got %zu and %zu.", kConvertName,
                     channels, o.mean.size(), o.std.size());
        return false;
    }
    for (int c = 0; c < channels; ++c) {
        if (!std::isfinite(o.mean[c])) {
            utility::Log(kErr, "%s: mean[%d] is %g; it must be finite.", kConvertName, c,
                         static_cast<double>(o.mean[c]));
            return false;
        }
    }
    for (int c = 0; c < channels; ++c) {
        if (!std::isfinite(o.std[c]) || o.std[c] == 0.0f) {
            utility::Log(kErr, "%s: std[%d] is %g; it must be finite and non-zero.",
                         kConvertName, c, static_cast<double>(o.std[c]));
            return false;
        }
    }
    return true;
}

struct Strides {
    ptrdiff_t row, plane, step;  // step: from one pixel to the next in a row
};

bool StridesOf(const TensorBuffer& out, const Plan& p, Strides* s) {
    if (out.data == nullptr) {
        utility::Log(kErr, "%s: the output buffer is NULL.", kConvertName);
        return false;
    }
    const bool planar = out.order == TensorOrder::kPlanar;
    const ptrdiff_t row = planar ? p.tw : static_cast<ptrdiff_t>(p.tw) * p.channels;
    s->row = out.row_stride == 0 ? row : out.row_stride;
    if (s->row < row) {
        utility::Log(kErr, "%s: a row stride of %td cannot hold a row of %td.", kConvertName,
                     s->row, row);
        return false;
    }
    const ptrdiff_t plane = (p.th - 1) * s->row + row;
    s->plane = planar ? (out.plane_stride == 0 ? p.th * s->row : out.plane_stride) : 1;
    if (planar && p.channels > 1 && s->plane < plane) {
        utility::Log(kErr, "%s: a plane stride of %td cannot hold a plane of %td.", kConvertName,
                     s->plane, plane);
        return false;
    }
    s->step = planar ? 1 : p.channels;
    return true;
}

// One tensor row of channel c: pad, picture row (null: all pad), pad.
void PlaceRow(uint8_t* dst, ptrdiff_t step, const uint8_t* src, const Plan& p, uint8_t pad) {
    if (step == 1) {
        std::memset(dst, pad, static_cast<size_t>(p.tw));
        if (src != nullptr) std::memcpy(dst + p.px, src, static_cast<size_t>(p.pw));
        return;
    }
    for (int x = 0; x < p.tw; ++x) dst[x * step] = pad;
    if (src != nullptr) {
        for (int x = 0; x < p.pw; ++x) dst[(p.px + x) * step] = src[x];
    }
}

// How one channel's bytes become floats: the exact value of each byte in
// `table` (for the pad, row ends and strided rows), and the same value in
// vector form for whole rows. A vector subtraction and division round each lane
// as the scalar ones do, so they give the table's bits; but the division is
// slow. Faster: q = d * (1 / std), corrected once by its residual,
// q + (d - q * std) * (1 / std), both fused multiply-adds. That is the
// correctly rounded quotient nearly always, not always, so it is used only
// when it gives the table's bits for all 256 bytes of the channel, which is
// checked once per call.
struct Channel {
    const float* table;  // each byte's value: a single-precision subtraction, then a division
    float mean, std, recip;
    bool corrected;
};

// Fills the channel's table (eight bytes at a time: the vector operations
// round as the scalar ones) and checks the corrected reciprocal against it.
Channel MakeChannel(float* table, float mean, float std) {
    Channel ch{table, mean, std, 1.0f / std, true};
    const __m256 vmean = _mm256_set1_ps(mean);
    const __m256 vstd = _mm256_set1_ps(std);
    const __m256 recip = _mm256_set1_ps(ch.recip);
    __m256i same = _mm256_set1_epi32(-1);
    for (int b = 0; b < 256; b += 8) {
        const __m256i bytes = _mm256_add_epi32(_mm256_set1_epi32(b),
                                               _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
        const __m256 d = _mm256_sub_ps(_mm256_cvtepi32_ps(bytes), vmean);
        const __m256 exact = _mm256_div_ps(d, vstd);
        _mm256_storeu_ps(table + b, exact);
        const __m256 q = _mm256_mul_ps(d, recip);
        const __m256 q1 = _mm256_fmadd_ps(_mm256_fnmadd_ps(q, vstd, d), recip, q);
        same = _mm256_and_si256(same, _mm256_cmpeq_epi32(_mm256_castps_si256(q1),
                                                         _mm256_castps_si256(exact)));
    }
    ch.corrected = _mm256_movemask_epi8(same) == -1;
    return ch;
}

void NormaliseRow(const uint8_t* src, float* dst, int n, const Channel& ch) {
    const __m256 mean = _mm256_set1_ps(ch.mean);
    const __m256 std = _mm256_set1_ps(ch.std);
    const __m256 recip = _mm256_set1_ps(ch.recip);
    const auto diff = [&](int x) {
        const __m128i b = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(src + x));
        return _mm256_sub_ps(_mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(b)), mean);
    };
    int x = 0;
    if (ch.corrected) {
        for (; x + 8 <= n; x += 8) {
            const __m256 d = diff(x);
            const __m256 q = _mm256_mul_ps(d, recip);
            _mm256_storeu_ps(dst + x, _mm256_fmadd_ps(_mm256_fnmadd_ps(q, std, d), recip, q));
        }
    } else {
        for (; x + 8 <= n; x += 8) _mm256_storeu_ps(dst + x, _mm256_div_ps(diff(x), std));
    }
    for (; x < n; ++x) dst[x] = ch.table[src[x]];
}

void PlaceRow(float* dst, ptrdiff_t step, const uint8_t* src, const Plan& p, const Channel& ch,
              uint8_t pad) {
    const float padf = ch.table[pad];
    const int end = src == nullptr ? p.tw : p.px;
    for (int x = 0; x < end; ++x) dst[x * step] = padf;
    if (src == nullptr) return;
    float* d = dst + p.px * step;
    if (step == 1) {
        NormaliseRow(src, d, p.pw, ch);
    } else {
        for (int x = 0; x < p.pw; ++x) d[x * step] = ch.table[src[x]];
    }
    for (int x = p.px + p.pw; x < p.tw; ++x) dst[x * step] = padf;
}

// Writes the tensor: pad rows, and each picture row between its pads, as
// the pipeline hands the rows over (RowSink).
struct Placer {
    const Plan* plan;
    Strides strides;
    void* data;
    bool floats;
    Channel channels[3];
    uint8_t pad;
};

void PlaceTensorRow(const Placer& k, int c, int y, const uint8_t* src) {
    const Strides& s = k.strides;
    const ptrdiff_t at = y * s.row + (s.step == 1 ? c * s.plane : c);
    if (k.floats) {
        PlaceRow(static_cast<float*>(k.data) + at, s.step, src, *k.plan, k.channels[c], k.pad);
    } else {
        PlaceRow(static_cast<uint8_t*>(k.data) + at, s.step, src, *k.plan, k.pad);
    }
}

// Three channels' picture rows as interleaved floats, pads around: each
// row normalised a chunk at a time into planar floats (as planar output is),
// then woven into R,G,B triples eight pixels at a time.
void PlaceRowInterleaved3(float* dst, const uint8_t* const src[3], const Plan& p,
                          const Channel ch[3], uint8_t pad) {
    const float pads[3] = {ch[0].table[pad], ch[1].table[pad], ch[2].table[pad]};
    for (int x = 0; x < p.px; ++x) {
        for (int c = 0; c < 3; ++c) dst[3 * x + c] = pads[c];
    }
    for (int x = p.px + p.pw; x < p.tw; ++x) {
        for (int c = 0; c < 3; ++c) dst[3 * x + c] = pads[c];
    }
    constexpr int kChunk = 64;
    alignas(32) float f[3][kChunk];
    const __m256i lo = _mm256_setr_epi32(0, 0, 0, 1, 1, 1, 2, 2);
    const __m256i mid = _mm256_setr_epi32(2, 3, 3, 3, 4, 4, 4, 5);
    const __m256i hi = _mm256_setr_epi32(5, 5, 6, 6, 6, 7, 7, 7);
    float* d = dst + 3 * p.px;
    for (int x0 = 0; x0 < p.pw; x0 += kChunk) {
        const int n = std::min(kChunk, p.pw - x0);
        for (int c = 0; c < 3; ++c) NormaliseRow(src[c] + x0, f[c], n, ch[c]);
        int x = 0;
        for (; x + 8 <= n; x += 8) {
            const __m256 r = _mm256_load_ps(f[0] + x);
            const __m256 g = _mm256_load_ps(f[1] + x);
            const __m256 b = _mm256_load_ps(f[2] + x);
            // Lane i of each output takes its pixel from the channel that
            // i mod 3 names (shifted by one per output vector).
            const __m256 o0 = _mm256_blend_ps(
                _mm256_blend_ps(_mm256_permutevar8x32_ps(r, lo), _mm256_permutevar8x32_ps(g, lo),
                                0x92),
                _mm256_permutevar8x32_ps(b, lo), 0x24);
            const __m256 o1 = _mm256_blend_ps(
                _mm256_blend_ps(_mm256_permutevar8x32_ps(r, mid),
                                _mm256_permutevar8x32_ps(g, mid), 0x24),
                _mm256_permutevar8x32_ps(b, mid), 0x49);
            const __m256 o2 = _mm256_blend_ps(
                _mm256_blend_ps(_mm256_permutevar8x32_ps(r, hi), _mm256_permutevar8x32_ps(g, hi),
                                0x49),
                _mm256_permutevar8x32_ps(b, hi), 0x92);
            float* o = d + 3 * (x0 + x);
            _mm256_storeu_ps(o, o0);
            _mm256_storeu_ps(o + 8, o1);
            _mm256_storeu_ps(o + 16, o2);
        }
        for (; x < n; ++x) {
            for (int c = 0; c < 3; ++c) d[3 * (x0 + x) + c] = f[c][x];
        }
    }
}

void SinkRows(void* ctx, int y0, int n, const uint8_t* data, size_t plane) {
    const Placer& k = *static_cast<const Placer*>(ctx);
    const Plan& p = *k.plan;
    for (int i = 0; i < n; ++i) {
        const int y = p.py + y0 + i;
        const uint8_t* rows[3];
        for (int c = 0; c < p.channels; ++c) {
            rows[c] = data + plane * c + static_cast<size_t>(i) * p.pw;
        }
        if (k.floats && k.strides.step == 3) {
            PlaceRowInterleaved3(static_cast<float*>(k.data) + y * k.strides.row, rows, p,
                                 k.channels, k.pad);
            continue;
        }
        for (int c = 0; c < p.channels; ++c) PlaceTensorRow(k, c, y, rows[c]);
    }
}

}  // namespace

QVN_API bool QV_FrameView_Tensor_Transform(const FrameView& view, const TensorOptions& options,
                                           TensorTransform* transform) {
    Plan p;
    if (!MakePlan(view, options, kTransformName, &p)) return false;
    if (transform != nullptr) *transform = TransformOf(view, p);
    return true;
}

QVN_API bool QV_OnePass_Convert_FrameView_To_Tensor(const FrameView& view,
                                                    const TensorOptions& options,
                                                    const TensorBuffer& out,
                                                    TensorTransform* transform) {
    Plan p;
    if (!MakePlan(view, options, kConvertName, &p)) return false;
    const bool floats = out.element == TensorElement::kFloat32;
    if (floats && !NormalisationOk(options, p.channels)) return false;
    Strides s;
    if (!StridesOf(out, p, &s)) return false;

    // Packed planar bytes without letterbox are the picture itself: written
    // in place.
    const bool in_place = !floats && p.pw == p.tw && p.ph == p.th && s.step == 1 &&
                          s.row == p.tw &&
                          (p.channels == 1 || s.plane == static_cast<ptrdiff_t>(p.tw) * p.th);
    if (in_place) {
        uint8_t* at = static_cast<uint8_t*>(out.data);
        if (options.gray) {
            internal::GrayPicture(view, p.box, options.pad_value, p.pw, p.ph, at);
        } else {
            internal::PlanarPicture(view, options.to_bgr, p.box, options.pad_value, p.pw, p.ph,
                                    at, nullptr);
        }
        if (transform != nullptr) *transform = TransformOf(view, p);
        return true;
    }

    Placer k{&p, s, out.data, floats, {}, options.letterbox_pad};
    float table[3 * 256];
    if (floats) {
        for (int c = 0; c < p.channels; ++c) {
            k.channels[c] = MakeChannel(table + 256 * c, options.mean[c], options.std[c]);
        }
    }
    for (int y = 0; y < p.th; ++y) {
        if (y >= p.py && y < p.py + p.ph) continue;
        for (int c = 0; c < p.channels; ++c) PlaceTensorRow(k, c, y, nullptr);
    }
    if (options.gray) {
        // One plane: made whole in this thread's buffer (the pipeline's
        // scratch is separate), then placed.
        thread_local std::vector<uint8_t> picture;
        picture.resize(static_cast<size_t>(p.pw) * p.ph);
        internal::GrayPicture(view, p.box, options.pad_value, p.pw, p.ph, picture.data());
        SinkRows(&k, 0, p.ph, picture.data(), 0);
    } else {
        const internal::RowSink sink{&SinkRows, &k};
        internal::PlanarPicture(view, options.to_bgr, p.box, options.pad_value, p.pw, p.ph,
                                nullptr, &sink);
    }
    if (transform != nullptr) *transform = TransformOf(view, p);
    return true;
}

namespace {

void Map(const double* m, const float* in, float* out, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        const double x = in[2 * i], y = in[2 * i + 1];
        out[2 * i] = static_cast<float>(m[0] * x + m[1] * y + m[2]);
        out[2 * i + 1] = static_cast<float>(m[3] * x + m[4] * y + m[5]);
    }
}

void MapBoxes(const double* m, const float* in, float* out, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        const double x0 = in[4 * i], y0 = in[4 * i + 1];
        const double x1 = x0 + in[4 * i + 2], y1 = y0 + in[4 * i + 3];
        const double xs[4] = {x0, x1, x0, x1};
        const double ys[4] = {y0, y0, y1, y1};
        double lo[2] = {HUGE_VAL, HUGE_VAL}, hi[2] = {-HUGE_VAL, -HUGE_VAL};
        for (int k = 0; k < 4; ++k) {
            const double u = m[0] * xs[k] + m[1] * ys[k] + m[2];
            const double v = m[3] * xs[k] + m[4] * ys[k] + m[5];
            lo[0] = std::min(lo[0], u);
            hi[0] = std::max(hi[0], u);
            lo[1] = std::min(lo[1], v);
            hi[1] = std::max(hi[1], v);
        }
        out[4 * i] = static_cast<float>(lo[0]);
        out[4 * i + 1] = static_cast<float>(lo[1]);
        out[4 * i + 2] = static_cast<float>(hi[0] - lo[0]);
        out[4 * i + 3] = static_cast<float>(hi[1] - lo[1]);
    }
}

}  // namespace

QVN_API void TensorTransform_Points_To_Tensor(const TensorTransform& t, const float* in,
                                              float* out, size_t n) {
    Map(t.to_tensor, in, out, n);
}

QVN_API void TensorTransform_Points_To_Frame(const TensorTransform& t, const float* in,
                                             float* out, size_t n) {
    Map(t.to_frame, in, out, n);
}

QVN_API void TensorTransform_Boxes_To_Tensor(const TensorTransform& t, const float* in,
                                             float* out, size_t n) {
    MapBoxes(t.to_tensor, in, out, n);
}

QVN_API void TensorTransform_Boxes_To_Frame(const TensorTransform& t, const float* in,
                                            float* out, size_t n) {
    MapBoxes(t.to_frame, in, out, n);
}

}  // namespace kit
}  // namespace quvas
