// frame_one_pass.cpp - the one-pass frame converter: the same bytes as the
// step-by-step converter (frame_stepwise.cpp), without its intermediate
// tensors: the crop is never copied (the resize reads the
// frame's rows in place and builds padded rows only where the crop reaches
// outside the frame), the resize reads only the source rows its taps need,
// and the turn, mirror and colour steps work on output-sized scratch that
// stays with the thread, so a stream of frames of one size allocates
// nothing after the first. The pixel arithmetic is the core's own rows
// (kernels/), so the bytes cannot drift from the step-by-step path.
#include <cstddef>
#include <cstdint>
#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "frame_convert.h"
#include "kernels/planar.h"
#include "scratch.h"

namespace quvas {
namespace kit {
namespace internal {

namespace {

using runtime::DeviceCPU;
using runtime::data_type::kUInt8;

// The step-by-step converter makes a tensor of h x w x c bytes at each step;
// where it could not (a size that is not positive or overflows), the one-pass
// converter throws the same exception by asking the same creator.
void MustBeCreatable(DeviceCPU* dev, Creator make, int h, int w, int c) {
    const bool positive = h > 0 && w > 0;
    const bool fits = positive && static_cast<size_t>(h) <= SIZE_MAX / static_cast<size_t>(w) /
                                                              static_cast<size_t>(c);
    if (!fits) (dev->*make)(static_cast<unsigned>(h), static_cast<unsigned>(w), nullptr);
}

// A w x h region at (x, y) of a plane of pw x ph pixels of c bytes, read by
// the resize row by row as if it had been cut out with `pad` around.
struct Region {
    const uint8_t* plane;
    ptrdiff_t stride;
    int pw, ph;
    int x, y, w, h, c;
    uint8_t pad;
    bool columns_inside;  // every column of the region lies in the plane
    uint8_t* slot[2];     // w * c bytes each, for rows that need padding
};

Region MakeRegion(const FramePlane& plane, int pw, int ph, int c, int x, int y, int w, int h,
                  uint8_t pad) {
    Region r{plane.data, plane.stride, pw, ph, x, y, w, h, c, pad, false, {}};
    r.columns_inside = x >= 0 && static_cast<int64_t>(x) + w <= pw;
    return r;
}

const uint8_t* FetchRegionRow(void* ctx, int sy, int slot) {
    Region& r = *static_cast<Region*>(ctx);
    const int64_t py = static_cast<int64_t>(r.y) + sy;
    const bool row_inside = py >= 0 && py < r.ph;
    if (row_inside && r.columns_inside) {
        return r.plane + static_cast<ptrdiff_t>(py) * r.stride + static_cast<ptrdiff_t>(r.x) * r.c;
    }
    uint8_t* out = r.slot[slot];
    if (!row_inside) {
        std::memset(out, r.pad, static_cast<size_t>(r.w) * r.c);
    } else {
        kernels::CopyRegionPadded(r.plane, r.stride, r.pw, r.ph, r.x, static_cast<int>(py), out,
                                  0, r.w, 1, r.c, r.pad);
    }
    return out;
}

// Resizes a region into the dw x dh image at dst (rows packed). Padded rows
// are built in `slots` (2 * region width * c bytes) when the region reaches
// outside the plane.
//
// A destination row whose two source rows both lie above or below the plane
// is `pad` in every byte: both taps of every column are pad, and since the
// weights of each axis sum to 2048, (pad * 2048 * 2048 + 2^21) >> 22 = pad.
// Those rows are filled directly; only the rows between are resized (a crop
// reaching past the frame's edge is common: a face near the border).
void ResizeRegion(Region& region, uint8_t* slots, uint8_t* dst, int dw, int dh) {
    region.slot[0] = slots;
    region.slot[1] = slots + static_cast<size_t>(region.w) * region.c;
    const ptrdiff_t row = static_cast<ptrdiff_t>(dw) * region.c;
    kernels::BilinearAxis ys = kernels::HalfPixelAxis(region.h, dh);
    const auto outside = [&](int sy) {
        const int64_t py = static_cast<int64_t>(region.y) + sy;
        return py < 0 || py >= region.ph;
    };
    const auto all_pad = [&](int dy) {
        const int r0 = ys.index[dy];
        return outside(r0) && outside(region.h >= 2 ? r0 + 1 : r0);
    };
    int top = 0, bottom = dh;
    while (top < dh && all_pad(top)) ++top;
    while (bottom > top && all_pad(bottom - 1)) --bottom;
    std::memset(dst, region.pad, static_cast<size_t>(top) * row);
    std::memset(dst + bottom * row, region.pad, static_cast<size_t>(dh - bottom) * row);
    if (top == bottom) return;
    ys.index.erase(ys.index.begin() + bottom, ys.index.end());
    ys.weight.erase(ys.weight.begin() + bottom, ys.weight.end());
    ys.index.erase(ys.index.begin(), ys.index.begin() + top);
    ys.weight.erase(ys.weight.begin(), ys.weight.begin() + top);
    kernels::ResizeBilinearRows(&FetchRegionRow, &region, region.w, region.h, dst + top * row, row,
                                dw, bottom - top, region.c, kernels::HalfPixelAxis(region.w, dw),
                                ys);
}

size_t SlotBytes(const Region& r) {
    const bool inside = r.columns_inside && r.y >= 0 && static_cast<int64_t>(r.y) + r.h <= r.ph;
    return inside ? 0 : 2 * static_cast<size_t>(r.w) * r.c;
}

// Turn (first matching bit) then mirror of a w x h image of n-byte pixels at
// `src`, the steps of TurnKernel and MirrorKernel; returns where the result
// lies (src itself, a or b), w x h turned as the output.
const uint8_t* Orient(uint32_t ori, const uint8_t* src, int w, int h, int n, uint8_t* a,
                      uint8_t* b) {
    const ptrdiff_t row = static_cast<ptrdiff_t>(w) * n;
    const ptrdiff_t turned_row = static_cast<ptrdiff_t>(h) * n;
    const uint8_t* cur = src;
    ptrdiff_t cur_row = row;
    int cur_w = w;
    int cur_h = h;
    if (ori & QVN_ORIENT_FMT_ROTATE_90L) {
        kernels::RotateClockwise90(src, row, a, turned_row, w, h, n);
    } else if (ori & QVN_ORIENT_FMT_ROTATE_90R) {
        kernels::RotateClockwise270(src, row, a, turned_row, w, h, n);
    } else if (ori & QVN_ORIENT_FMT_ROTATE_180) {
        kernels::Rotate180(src, row, a, row, w, h, n);
    }
    if (ori & (QVN_ORIENT_FMT_ROTATE_90L | QVN_ORIENT_FMT_ROTATE_90R)) {
        cur = a;
        cur_row = turned_row;
        std::swap(cur_w, cur_h);
    } else if (ori & QVN_ORIENT_FMT_ROTATE_180) {
        cur = a;
    }
    uint8_t* next = cur == a ? b : a;
    if (ori & QVN_ORIENT_FMT_MIRROR) {
        kernels::Mirror(cur, cur_row, next, cur_row, cur_w, cur_h, n);
        cur = next;
    } else if (ori & QVN_ORIENT_FMT_FLIPV) {
        kernels::FlipVertical(cur, cur_row, next, cur_row, static_cast<size_t>(cur_row), cur_h);
        cur = next;
    }
    return cur;
}

constexpr uint32_t kOrientBits = QVN_ORIENT_FMT_ROTATE_90L | QVN_ORIENT_FMT_ROTATE_90R |
                                 QVN_ORIENT_FMT_ROTATE_180 | QVN_ORIENT_FMT_MIRROR |
                                 QVN_ORIENT_FMT_FLIPV;

// The same steps ending in `dst` (w x h turned bytes), with `tmp` as room
// for the turned image when a mirror follows.
void OrientInto(uint32_t ori, const uint8_t* src, int w, int h, int n, uint8_t* dst, uint8_t* tmp) {
    const bool turns = (ori & (QVN_ORIENT_FMT_ROTATE_90L | QVN_ORIENT_FMT_ROTATE_90R |
                               QVN_ORIENT_FMT_ROTATE_180)) != 0;
    const bool mirrors = (ori & (QVN_ORIENT_FMT_MIRROR | QVN_ORIENT_FMT_FLIPV)) != 0;
    const uint8_t* at = Orient(ori, src, w, h, n, turns && mirrors ? tmp : dst, turns && mirrors ? dst : tmp);
    if (at != dst) std::memcpy(dst, at, static_cast<size_t>(w) * h * n);
}

// The output the one-pass converter fills: u8 {3, T_h, T_w} CHW, or u8
// {T_h, T_w, 1} HWC (or plane) for gray, with storage for every byte. The
// step-by-step converter's last kernel refuses anything else.
bool OutputFits(const TensorPtr& o, bool gray) {
    const runtime::TensorShape& s = o->shape();
    if (o->data() == nullptr || s.data_type != kUInt8 || s.dims.size() != 3) return false;
    for (int32_t d : s.dims) {
        if (d <= 0) return false;
    }
    if (gray) {
        const bool layout_ok = s.layout == runtime::layout::kHWC ||
                               s.layout == runtime::layout::kPlane;
        if (!layout_ok || s.dims[2] != 1) return false;
    } else if (s.layout != kLayoutPlanar || s.dims[0] != 3) {
        return false;
    }
    const size_t bytes = static_cast<size_t>(s.dims[0]) * static_cast<size_t>(s.dims[1]) *
                         static_cast<size_t>(s.dims[2]);
    return o->byte_size() >= bytes;
}

// Every byte of a w x h plane, read as the sample the crop region's
// resize expects: the region of `box` (halved for chroma) or the whole plane.
Region PlaneRegion(const FramePlane& plane, int pw, int ph, int c, const CropBox& box, bool half,
                   uint8_t pad) {
    if (!box.active) return MakeRegion(plane, pw, ph, c, 0, 0, pw, ph, pad);
    if (!half) return MakeRegion(plane, pw, ph, c, box.x, box.y, box.w, box.h, pad);
    return MakeRegion(plane, pw, ph, c, box.x / 2, box.y / 2, box.w / 2, box.h / 2, pad);
}

// n samples of one chroma plane into every second byte of interleaved pairs.
void InterleaveInto(const uint8_t* src, uint8_t* dst, size_t n) {
    for (size_t i = 0; i < n; ++i) dst[2 * i] = src[i];
}

}  // namespace

void PlanarPicture(const FrameView& view, bool to_bgr, const CropBox& box, uint8_t pad, int t_w,
                   int t_h, uint8_t* out, const RowSink* sink) {
    const bool quarter = (view.ori_fmt & kQuarterTurns) != 0;
    const int r_h = quarter ? t_w : t_h;
    const int r_w = quarter ? t_h : t_w;
    const int fh = view.height;
    const int fw = view.width;
    const size_t plane = static_cast<size_t>(t_h) * t_w;
    const pixfmt::Layout layout = pixfmt::LayoutOf(view.pix_fmt);

    if (layout == pixfmt::Layout::kTwoPlane420 || layout == pixfmt::Layout::kThreePlane420) {
        // A three-plane frame's chroma planes are the two bytes of its pairs.
        const bool three = layout == pixfmt::Layout::kThreePlane420;
        const int cc = three ? 1 : 2;
        Region y = PlaneRegion(view.planes[0], fw, fh, 1, box, false, pad);
        Region c0 = PlaneRegion(view.planes[1], fw >> 1, fh >> 1, cc, box, true, pad);
        Region c1 = three ? PlaneRegion(view.planes[2], fw >> 1, fh >> 1, 1, box, true, pad) : c0;
        const size_t y_bytes = plane;
        const size_t pairs = static_cast<size_t>(t_h >> 1) * (t_w >> 1);
        const size_t c_bytes = pairs * cc;
        const size_t band_plane = static_cast<size_t>(kSinkBand) * t_w;
        Scratch s({SlotBytes(y), SlotBytes(c0), y_bytes, y_bytes, y_bytes, c_bytes, c_bytes,
                   c_bytes, three ? 2 * pairs : 0, sink != nullptr ? 3 * band_plane : 0});
        ResizeRegion(y, s[0], s[2], r_w, r_h);
        const uint8_t* yo = Orient(view.ori_fmt, s[2], r_w, r_h, 1, s[3], s[4]);
        const uint8_t* uvo = nullptr;
        if (!three) {
            ResizeRegion(c0, s[1], s[5], r_w >> 1, r_h >> 1);
            uvo = Orient(view.ori_fmt, s[5], r_w >> 1, r_h >> 1, 2, s[6], s[7]);
        } else {
            // U and V resized and turned one after the other as planes (the
            // same arithmetic and moves, byte for byte, as interleaved
            // pairs), then interleaved at the output's size.
            for (int k = 0; k < 2; ++k) {
                Region& c = k == 0 ? c0 : c1;
                ResizeRegion(c, s[1], s[5], r_w >> 1, r_h >> 1);
                const uint8_t* co = Orient(view.ori_fmt, s[5], r_w >> 1, r_h >> 1, 1, s[6], s[7]);
                InterleaveInto(co, s[8] + k, pairs);
            }
            uvo = s[8];
        }
        const kernels::YuvFixed fixed = ViewYuvFixed(view, to_bgr);
        const ptrdiff_t uv_stride = static_cast<ptrdiff_t>(t_w >> 1) * 2;
        if (sink == nullptr) {
            kernels::YuvToPlanes(yo, t_w, uvo, uv_stride, t_w >> 1, t_h >> 1, fixed, out, t_w,
                                 plane, t_w, t_h);
            return;
        }
        // A band of rows at a time, handed on while it is in the cache. Luma
        // row r takes chroma row min(r / 2, last): a band starting at the
        // even row r0 starts its chroma at min(r0 / 2, last).
        const int uv_h = t_h >> 1;
        for (int r0 = 0; r0 < t_h; r0 += kSinkBand) {
            const int n = std::min(kSinkBand, t_h - r0);
            const int c_row = std::min(r0 / 2, uv_h - 1);
            kernels::YuvToPlanes(yo + static_cast<ptrdiff_t>(r0) * t_w, t_w,
                                 uvo + c_row * uv_stride, uv_stride, t_w >> 1, uv_h - c_row,
                                 fixed, s[9], t_w, band_plane, t_w, n);
            sink->rows(sink->ctx, r0, n, s[9], band_plane);
        }
        return;
    }
    Region in = PlaneRegion(view.planes[0], fw, fh, 4, box, false, pad);
    Scratch s({SlotBytes(in), plane * 4, plane * 3, plane, sink != nullptr ? plane * 3 : 0});
    if (sink != nullptr) out = s[4];
    ResizeRegion(in, s[0], s[1], r_w, r_h);
    // Plane p takes byte pick[p]: B,G,R output reads the pixels the other way.
    const bool reads_as_bgra = IsBgraFrame(view.pix_fmt) != to_bgr;
    uint8_t* by_byte[3];
    for (int p = 0; p < 3; ++p) by_byte[reads_as_bgra ? 2 - p : p] = out + plane * p;
    if ((view.ori_fmt & kOrientBits) == 0) {
        kernels::SplitPlanes(s[1], 4, plane, by_byte[0], by_byte[1], by_byte[2]);
    } else {
        // Split first, then turn each byte plane: the same bytes (both only
        // move them), and a one-byte turn is far cheaper than a four-byte one.
        uint8_t* split = s[2];
        kernels::SplitPlanes(s[1], 4, plane, split, split + plane, split + 2 * plane);
        for (int p = 0; p < 3; ++p) {
            OrientInto(view.ori_fmt, split + plane * p, r_w, r_h, 1, by_byte[p], s[3]);
        }
    }
    if (sink != nullptr) sink->rows(sink->ctx, 0, t_h, out, plane);
}

void GrayPicture(const FrameView& view, const CropBox& box, uint8_t pad, int w, int h,
                 uint8_t* out) {
    const bool yuv = pixfmt::IsFourTwoZero(view.pix_fmt);
    Region in = PlaneRegion(view.planes[0], view.width, view.height, yuv ? 1 : 4, box, false, pad);
    const size_t n = static_cast<size_t>(w) * h;
    if (yuv) {
        // Luma resized straight into the output; limited-range luma is then
        // stretched to 0..255 in place.
        Scratch s({SlotBytes(in)});
        ResizeRegion(in, s[0], out, w, h);
        if (ViewIsLimited(view)) ExpandLimitedLuma(out, n);
        return;
    }
    Scratch s({SlotBytes(in), n * 4});
    ResizeRegion(in, s[0], s[1], w, h);
    kernels::BgraToGray(s[1], out, n);
}

void OnePassPlanar(const FrameView& view, TensorPtr& o_tensor, bool to_bgr, const CropBox& box,
                   uint8_t pad, const char* caller) {
    if (!OutputFits(o_tensor, false)) {
        utility::Assert(false, "%s: o_tensor must be a u8 CHW tensor {3, H, W} with storage",
                        caller);
        return;
    }
    DeviceCPU* dev = o_tensor->device();
    const Sizes size = OutputSizes(view.ori_fmt, o_tensor, /*gray=*/false);
    const int r_h = size.r_h, r_w = size.r_w;
    const int fh = view.height;
    const int fw = view.width;
    // The sizes the step-by-step path makes tensors of, in its order: where
    // it throws, so does this one, before anything is written.
    if (pixfmt::IsFourTwoZero(view.pix_fmt)) {
        const bool three = pixfmt::LayoutOf(view.pix_fmt) == pixfmt::Layout::kThreePlane420;
        const Creator chroma_make =
            three ? &DeviceCPU::CreateYPlane8BitTensor : &DeviceCPU::CreateUVPlane8BitTensor;
        const int cc = three ? 1 : 2;
        MustBeCreatable(dev, &DeviceCPU::CreateYPlane8BitTensor, fh, fw, 1);
        MustBeCreatable(dev, chroma_make, fh >> 1, fw >> 1, cc);
        if (box.active) {
            MustBeCreatable(dev, &DeviceCPU::CreateYPlane8BitTensor, box.h, box.w, 1);
            MustBeCreatable(dev, chroma_make, box.h / 2, box.w / 2, cc);
        }
        MustBeCreatable(dev, &DeviceCPU::CreateYPlane8BitTensor, r_h, r_w, 1);
        MustBeCreatable(dev, chroma_make, r_h >> 1, r_w >> 1, cc);
    } else {
        const Creator make = IsBgraFrame(view.pix_fmt) ? &DeviceCPU::CreateBGRA8888Tensor
                                                       : &DeviceCPU::CreateRGBA8888Tensor;
        MustBeCreatable(dev, make, fh, fw, 4);
        if (box.active) MustBeCreatable(dev, make, box.h, box.w, 4);
        MustBeCreatable(dev, make, r_h, r_w, 4);
    }
    PlanarPicture(view, to_bgr, box, pad, size.t_w, size.t_h, o_tensor->data(), nullptr);
}

void OnePassGray(const FrameView& view, TensorPtr& o_tensor, const CropBox& box, uint8_t pad,
                 const char* caller) {
    if (!OutputFits(o_tensor, true)) {
        utility::Assert(false, "%s: o_tensor must be a u8 HWC tensor {H, W, 1} with storage",
                        caller);
        return;
    }
    DeviceCPU* dev = o_tensor->device();
    const Sizes size = OutputSizes(view.ori_fmt, o_tensor, /*gray=*/true);
    const bool yuv = pixfmt::IsFourTwoZero(view.pix_fmt);
    const int c = yuv ? 1 : 4;
    const Creator make = yuv ? &DeviceCPU::CreateYPlane8BitTensor
                         : IsBgraFrame(view.pix_fmt) ? &DeviceCPU::CreateBGRA8888Tensor
                                                     : &DeviceCPU::CreateRGBA8888Tensor;
    MustBeCreatable(dev, make, view.height, view.width, c);
    if (box.active) MustBeCreatable(dev, make, box.h, box.w, c);
    // Luma goes to the output's own size. Four-byte frames are resized to
    // the exchanged size when a quarter turn is pending and never turned:
    // that picture fills the output row after row.
    if (yuv) {
        GrayPicture(view, box, pad, size.t_w, size.t_h, o_tensor->data());
    } else {
        GrayPicture(view, box, pad, size.r_w, size.r_h, o_tensor->data());
    }
}

}  // namespace internal
}  // namespace kit
}  // namespace quvas
