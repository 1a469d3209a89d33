// qv2_image_process.cpp - camera frame to network input tensor.
//
// A frame (two-plane YUV 4:2:0, BGRA or RGBA) is optionally cropped, resized
// bilinearly, turned and mirrored upright according to its ori_fmt, and
// converted into planar R,G,B / B,G,R bytes or into gray. The pixel work is
// all done by the core's functional kernels; this file only decides which
// kernel runs on which tensor, with which sizes and which colour matrix.
//
// Every intermediate tensor is held by a shared_ptr and dropped as soon as the
// next step has consumed it, so an exception thrown by the core (a refused
// size, a failed allocation) leaves nothing behind.
#include <qvn_kit/qvn_kit.hpp>

#include <quvas/qvn_core.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <utility>
#include <vector>

#include "kernels/planar.h"

#include "../kit/qv_internal.h"

namespace quvas {
namespace kit {

namespace {

using runtime::DeviceCPU;
namespace F = kernel::functional;

using runtime::data_type::kUInt8;
using runtime::location::kMainMemory;
constexpr int32_t kLayoutPlanar = runtime::layout::kCHW;  // {C, H, W}
constexpr int32_t kLayoutGray = runtime::layout::kHWC;    // {H, W, 1}

constexpr const char* kBadFormat = "Invaild pixel format of input image.";

// Owned creator of one kind of u8 HWC tensor (Y, UV, BGRA, RGBA).
using Creator = TensorPtr (DeviceCPU::*)(const unsigned&, const unsigned&, const void*);
using Kernel = void (*)(const TensorPtr&, const TensorPtr&);

using internal::TruncToInt;
using internal::WrapAdd;
using internal::WrapMul;
using internal::WrapSub;

struct CropBox {
    bool active = false;
    int x = 0;
    int y = 0;
    int w = 0;
    int h = 0;
};

// The crop is given in upright coordinates; the frame's own orientation moves
// it to where the region really lies in the sensor image.
CropBox FrameCropBox(const QVN_Image* img, int crop_x, int crop_y, int crop_w, int crop_h) {
    float x0 = static_cast<float>(crop_x);
    float y0 = static_cast<float>(crop_y);
    float x1 = static_cast<float>(WrapSub(WrapAdd(crop_x, crop_w), 1));
    float y1 = static_cast<float>(WrapSub(WrapAdd(crop_y, crop_h), 1));
    CropBox box;
    if (WrapMul(crop_w, crop_h) > 0) {
        Cropbox_Rectify(img, false, x0, y0, x1, y1);
        box.active = true;
    }
    box.x = TruncToInt(x0);
    box.y = TruncToInt(y0);
    box.w = WrapAdd(WrapSub(TruncToInt(x1), box.x), 1);
    box.h = WrapAdd(WrapSub(TruncToInt(y1), box.y), 1);
    return box;
}

// The output checks report and let the work go on: a caller with a slightly
// wrong tensor still gets as much as the core can do with it.
void CheckOutput(const TensorPtr& o_tensor, int32_t layout) {
    const runtime::TensorShape& shape = o_tensor->shape();
    utility::Assert(shape.data_type == kUInt8, "o_tensor must be a UInt8 DataType Tensor.");
    utility::Assert(shape.layout == layout, "o_tensor must be a HWC Layout Tensor.");
    utility::Assert(shape.location == kMainMemory,
                    "o_tensor must be a MainMemory Location Tensor.");
}

// One plane of the frame on its way to the output. A two-plane YUV frame has
// a full-size luma plane and a half-size interleaved chroma plane; a packed
// frame is a single full-size four-byte plane.
struct Plane {
    TensorPtr t;
    Creator make;   // owned creator of this plane's kind
    bool half;      // chroma at half resolution
    Kernel resize;  // bilinear resize for this plane's channel count
};

// Crop every plane: all destinations are made first, then filled. Chroma is
// cut at half the luma box; its size is read back from the tensor made.
void CropPlanes(Plane* planes, int count, DeviceCPU* dev, const CropBox& box, uint8_t pad) {
    TensorPtr dst[2];
    for (int i = 0; i < count; ++i) {
        const int h = planes[i].half ? box.h / 2 : box.h;
        const int w = planes[i].half ? box.w / 2 : box.w;
        dst[i] = (dev->*planes[i].make)(static_cast<unsigned>(h), static_cast<unsigned>(w),
                                        nullptr);
    }
    for (int i = 0; i < count; ++i) {
        if (planes[i].half) {
            const std::vector<int32_t>& dims = dst[i]->shape().dims;
            F::F_Crop_U8_HWC_Memcpy(planes[i].t, box.x / 2, box.y / 2, dims[1], dims[0], pad,
                                    dst[i]);
        } else {
            F::F_Crop_U8_HWC_Memcpy(planes[i].t, box.x, box.y, box.w, box.h, pad, dst[i]);
        }
        planes[i].t = std::move(dst[i]);
    }
}

// Run `kernel` (or each plane's resize when `kernel` is null) from every plane
// into a fresh owned plane of h x w (chroma: h >> 1, w >> 1).
void StepPlanes(Plane* planes, int count, DeviceCPU* dev, unsigned h, unsigned w, Kernel kernel) {
    TensorPtr dst[2];
    for (int i = 0; i < count; ++i) {
        const unsigned shift = planes[i].half ? 1u : 0u;
        dst[i] = (dev->*planes[i].make)(h >> shift, w >> shift, nullptr);
    }
    for (int i = 0; i < count; ++i) {
        (kernel != nullptr ? kernel : planes[i].resize)(planes[i].t, dst[i]);
        planes[i].t = std::move(dst[i]);
    }
}

// Undoing the frame's turn: only the first matching bit counts.
Kernel TurnKernel(uint32_t ori) {
    if (ori & QVN_ORIENT_FMT_ROTATE_90L) return &F::F_Rotate_Clockwise90_HWC_Fallback;
    if (ori & QVN_ORIENT_FMT_ROTATE_90R) return &F::F_Rotate_Clockwise270_HWC_Fallback;
    if (ori & QVN_ORIENT_FMT_ROTATE_180) return &F::F_Rotate_Clockwise180_HWC_Fallback;
    return nullptr;
}

// Undoing the frame's mirror: a horizontal mirror shadows a vertical flip.
Kernel MirrorKernel(uint32_t ori) {
    if (ori & QVN_ORIENT_FMT_MIRROR) return &F::F_HFlip_HWC_Fallback;
    if (ori & QVN_ORIENT_FMT_FLIPV) return &F::F_VFlip_HWC_Fallback;
    return nullptr;
}

// Colour weights handed to the two-plane converter, positions 0..7 (8 and 9
// are the chroma offsets 0.5, 0.5). Rows: formats 2, 3, 8, 9; the second
// block is the B,G,R output, red and blue weights exchanged. Formats 8 and 9
// carry the BT.601 weights in 64ths and differ only in chroma byte order.
constexpr float kYUVWeights[2][4][8] = {
    {
        {1.0f, 0.0f, 1.5748f, -0.46812427f, -0.18732427f, 1.8556f, 0.0f, 0.0f},
        {1.0f, 0.0f, 1.402f, -0.7141363f, -0.3441363f, 1.772f, 0.0f, 0.0f},
        {1.0f, 0.0f, 1.40625f, -0.34375f, -0.71875f, 2.078125f, 0.0f, 0.0f},
        {1.0f, 1.40625f, 0.0f, -0.71875f, -0.34375f, 0.0f, 2.078125f, 0.0f},
    },
    {
        {1.0f, 1.8556f, 0.0f, -0.46812427f, -0.18732427f, 0.0f, 1.5748f, 0.0f},
        {1.0f, 1.772f, 0.0f, -0.7141363f, -0.3441363f, 0.0f, 1.402f, 0.0f},
        {1.0f, 2.078125f, 0.0f, -0.34375f, -0.71875f, 0.0f, 1.40625f, 0.0f},
        {1.0f, 0.0f, 2.078125f, -0.71875f, -0.34375f, 1.40625f, 0.0f, 0.0f},
    },
};

std::shared_ptr<kernel::YUVCvtMatrix> MakeYUVMatrix(bool to_bgr, uint32_t pix_fmt) {
    int row = 0;
    switch (pix_fmt) {
        case QVN_PIX_FMT_YUV420SP_A: row = 0; break;
        case QVN_PIX_FMT_YUV420SP_B: row = 1; break;
        case QVN_PIX_FMT_YUV420SP_C: row = 2; break;
        default: row = 3; break;  // QVN_PIX_FMT_YUV420SP_D
    }
    auto matrix = std::make_shared<kernel::YUVCvtMatrix>();
    const float* weights = kYUVWeights[to_bgr ? 1 : 0][row];
    for (int i = 0; i < 8; ++i) matrix->m[i] = weights[i];
    matrix->m[8] = 0.5f;
    matrix->m[9] = 0.5f;
    return matrix;
}

bool IsTwoPlaneYUV(uint32_t pix_fmt) {
    return pix_fmt == QVN_PIX_FMT_YUV420SP_A || pix_fmt == QVN_PIX_FMT_YUV420SP_B ||
           pix_fmt == QVN_PIX_FMT_YUV420SP_C || pix_fmt == QVN_PIX_FMT_YUV420SP_D;
}

// Wraps the caller's frame (no copy) as the planes the geometry works on;
// `luma_only` leaves the chroma plane of a YUV frame unwrapped. Returns the
// number of planes, 0 for a format that is not an input frame.
int WrapFrame(const QVN_Image* img, DeviceCPU* dev, Plane* planes, bool luma_only = false) {
    const unsigned h = static_cast<unsigned>(img->height);
    const unsigned w = static_cast<unsigned>(img->width);
    uint8_t* data = img->data;
    if (IsTwoPlaneYUV(img->pix_fmt)) {
        planes[0] = {dev->CreateYPlane8BitTensorExternal(h, w, data),
                     &DeviceCPU::CreateYPlane8BitTensor, false,
                     &F::F_Resize_Bilinear_HWC_U8_C1_Fallback};
        if (luma_only) return 1;
        planes[1] = {dev->CreateUVPlane8BitTensorExternal(h >> 1, w >> 1,
                                                          data + static_cast<size_t>(h) * w),
                     &DeviceCPU::CreateUVPlane8BitTensor, true,
                     &F::F_Resize_Bilinear_HWC_U8_C2_Fallback};
        return 2;
    }
    if (img->pix_fmt == QVN_PIX_FMT_BGRA8888) {
        planes[0] = {dev->CreateBGRA8888TensorExternal(h, w, data),
                     &DeviceCPU::CreateBGRA8888Tensor, false,
                     &F::F_Resize_Bilinear_HWC_U8_C4_Fallback};
        return 1;
    }
    if (img->pix_fmt == QVN_PIX_FMT_RGBA8888) {
        planes[0] = {dev->CreateRGBA8888TensorExternal(h, w, data),
                     &DeviceCPU::CreateRGBA8888Tensor, false,
                     &F::F_Resize_Bilinear_HWC_U8_C4_Fallback};
        return 1;
    }
    return 0;
}

bool IsInputFrameFormat(uint32_t pix_fmt) {
    return IsTwoPlaneYUV(pix_fmt) || pix_fmt == QVN_PIX_FMT_BGRA8888 ||
           pix_fmt == QVN_PIX_FMT_RGBA8888;
}

// Shared body of the two planar converters.
void ConvertToPlanar(const QVN_Image* img, TensorPtr& o_tensor, bool to_bgr, const CropBox& box,
                     uint8_t pad_value) {
    if (!IsInputFrameFormat(img->pix_fmt)) {
        utility::Assert(false, "%s", kBadFormat);
        return;
    }
    DeviceCPU* dev = o_tensor->device();
    const std::vector<int32_t>& dims = o_tensor->shape().dims;
    const unsigned t_h = static_cast<unsigned>(dims[1]);
    const unsigned t_w = static_cast<unsigned>(dims[2]);
    // With a quarter turn still to come, resize to the turned size so that the
    // turn lands on the output's size.
    const bool quarter = (img->ori_fmt & 3u) != 0;
    const unsigned r_h = quarter ? t_w : t_h;
    const unsigned r_w = quarter ? t_h : t_w;

    Plane planes[2] = {};
    const int count = WrapFrame(img, dev, planes);
    if (box.active) CropPlanes(planes, count, dev, box, pad_value);
    StepPlanes(planes, count, dev, r_h, r_w, nullptr);
    if (Kernel turn = TurnKernel(img->ori_fmt)) StepPlanes(planes, count, dev, t_h, t_w, turn);
    if (Kernel mirror = MirrorKernel(img->ori_fmt)) {
        StepPlanes(planes, count, dev, t_h, t_w, mirror);
    }

    if (count == 2) {
        F::F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback(
            planes[0].t, planes[1].t, MakeYUVMatrix(to_bgr, img->pix_fmt), o_tensor);
        return;
    }
    // B,G,R output is made by reading the source in the other byte order.
    const bool reads_as_bgra = (img->pix_fmt == QVN_PIX_FMT_BGRA8888) != to_bgr;
    if (reads_as_bgra) {
        F::F_ColorCvt_BGRA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback(planes[0].t, o_tensor);
    } else {
        F::F_ColorCvt_RGBA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback(planes[0].t, o_tensor);
    }
}

// ---------------------------------------------------------------------------
// One pass. The same bytes as the step-by-step converters above, without
// their intermediate tensors: the crop is never copied (the resize reads the
// frame's rows in place and builds padded rows only where the crop reaches
// outside the frame), the resize reads only the source rows its taps need,
// and the turn, mirror and colour steps work on output-sized scratch that
// stays with the thread, so a stream of frames of one size allocates
// nothing after the first. The pixel arithmetic is the core's own rows
// (kernels/), so the bytes cannot drift from the step-by-step path.
// ---------------------------------------------------------------------------

// Output-sized scratch, kept per thread. A buffer grown past kKeepScratch
// for an unusually large output is given back when the call ends.
constexpr size_t kKeepScratch = size_t{16} << 20;

class Scratch {
public:
    // Carves `sizes[i]` bytes for piece i, each 64-byte aligned.
    Scratch(std::initializer_list<size_t> sizes) {
        size_t used = 0;
        for (size_t bytes : sizes) {
            offsets_[count_++] = used;
            used += (bytes + 63) & ~size_t{63};
        }
        std::vector<uint8_t>& buffer = Buffer();
        if (buffer.size() < used + 64) buffer.resize(used + 64);
        base_ = reinterpret_cast<uint8_t*>(
            (reinterpret_cast<uintptr_t>(buffer.data()) + 63) & ~uintptr_t{63});
    }
    ~Scratch() {
        if (Buffer().size() > kKeepScratch) std::vector<uint8_t>().swap(Buffer());
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    uint8_t* operator[](int i) const { return base_ + offsets_[i]; }

private:
    static std::vector<uint8_t>& Buffer() {
        thread_local std::vector<uint8_t> buffer;
        return buffer;
    }
    size_t offsets_[8] = {};
    int count_ = 0;
    uint8_t* base_ = nullptr;
};

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

Region MakeRegion(const uint8_t* plane, int pw, int ph, int c, int x, int y, int w, int h,
                  uint8_t pad) {
    Region r{plane, static_cast<ptrdiff_t>(pw) * c, pw, ph, x, y, w, h, c, pad, false, {}};
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

constexpr const char* kOnePassPlanar =
    "QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU";
constexpr const char* kOnePassGray =
    "QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_Gray8_TensorCPU";

void OnePassPlanar(const QVN_Image* img, TensorPtr& o_tensor, bool to_bgr, const CropBox& box,
                   uint8_t pad) {
    if (!IsInputFrameFormat(img->pix_fmt)) {
        utility::Assert(false, "%s", kBadFormat);
        return;
    }
    if (!OutputFits(o_tensor, false)) {
        utility::Assert(false, "%s: o_tensor must be a u8 CHW tensor {3, H, W} with storage",
                        kOnePassPlanar);
        return;
    }
    DeviceCPU* dev = o_tensor->device();
    const std::vector<int32_t>& dims = o_tensor->shape().dims;
    const int t_h = dims[1];
    const int t_w = dims[2];
    const bool quarter = (img->ori_fmt & 3u) != 0;
    const int r_h = quarter ? t_w : t_h;
    const int r_w = quarter ? t_h : t_w;
    const int fh = img->height;
    const int fw = img->width;
    uint8_t* out = o_tensor->data();
    const size_t plane = static_cast<size_t>(t_h) * t_w;

    if (IsTwoPlaneYUV(img->pix_fmt)) {
        // The sizes the step-by-step path makes tensors of, in its order.
        MustBeCreatable(dev, &DeviceCPU::CreateYPlane8BitTensor, fh, fw, 1);
        MustBeCreatable(dev, &DeviceCPU::CreateUVPlane8BitTensor, fh >> 1, fw >> 1, 2);
        Region y = MakeRegion(img->data, fw, fh, 1, 0, 0, fw, fh, pad);
        Region uv = MakeRegion(img->data + static_cast<size_t>(fh) * fw, fw >> 1, fh >> 1, 2, 0,
                               0, fw >> 1, fh >> 1, pad);
        if (box.active) {
            MustBeCreatable(dev, &DeviceCPU::CreateYPlane8BitTensor, box.h, box.w, 1);
            MustBeCreatable(dev, &DeviceCPU::CreateUVPlane8BitTensor, box.h / 2, box.w / 2, 2);
            y = MakeRegion(img->data, fw, fh, 1, box.x, box.y, box.w, box.h, pad);
            uv = MakeRegion(uv.plane, fw >> 1, fh >> 1, 2, box.x / 2, box.y / 2, box.w / 2,
                            box.h / 2, pad);
        }
        MustBeCreatable(dev, &DeviceCPU::CreateYPlane8BitTensor, r_h, r_w, 1);
        MustBeCreatable(dev, &DeviceCPU::CreateUVPlane8BitTensor, r_h >> 1, r_w >> 1, 2);
        const size_t y_bytes = plane;
        const size_t uv_bytes = static_cast<size_t>(t_h >> 1) * (t_w >> 1) * 2;
        Scratch s({SlotBytes(y), SlotBytes(uv), y_bytes, y_bytes, y_bytes, uv_bytes, uv_bytes,
                   uv_bytes});
        ResizeRegion(y, s[0], s[2], r_w, r_h);
        ResizeRegion(uv, s[1], s[5], r_w >> 1, r_h >> 1);
        const uint8_t* yo = Orient(img->ori_fmt, s[2], r_w, r_h, 1, s[3], s[4]);
        const uint8_t* uvo = Orient(img->ori_fmt, s[5], r_w >> 1, r_h >> 1, 2, s[6], s[7]);
        std::shared_ptr<kernel::YUVCvtMatrix> matrix = MakeYUVMatrix(to_bgr, img->pix_fmt);
        kernels::YuvFixed fixed;
        kernels::MakeYuvFixed(matrix->m, &fixed);  // the kit's matrices are all in range
        kernels::YuvToPlanes(yo, t_w, uvo, static_cast<ptrdiff_t>(t_w >> 1) * 2, t_w >> 1,
                             t_h >> 1, fixed, out, t_w, plane, t_w, t_h);
        return;
    }
    const Creator make = img->pix_fmt == QVN_PIX_FMT_BGRA8888 ? &DeviceCPU::CreateBGRA8888Tensor
                                                              : &DeviceCPU::CreateRGBA8888Tensor;
    MustBeCreatable(dev, make, fh, fw, 4);
    Region in = MakeRegion(img->data, fw, fh, 4, 0, 0, fw, fh, pad);
    if (box.active) {
        MustBeCreatable(dev, make, box.h, box.w, 4);
        in = MakeRegion(img->data, fw, fh, 4, box.x, box.y, box.w, box.h, pad);
    }
    MustBeCreatable(dev, make, r_h, r_w, 4);
    Scratch s({SlotBytes(in), plane * 4, plane * 3, plane});
    ResizeRegion(in, s[0], s[1], r_w, r_h);
    // Plane p takes byte pick[p]: B,G,R output reads the pixels the other way.
    const bool reads_as_bgra = (img->pix_fmt == QVN_PIX_FMT_BGRA8888) != to_bgr;
    uint8_t* by_byte[3];
    for (int p = 0; p < 3; ++p) by_byte[reads_as_bgra ? 2 - p : p] = out + plane * p;
    if ((img->ori_fmt & kOrientBits) == 0) {
        kernels::SplitPlanes(s[1], 4, plane, by_byte[0], by_byte[1], by_byte[2]);
        return;
    }
    // Split first, then turn each byte plane: the same bytes (both only
    // move them), and a one-byte turn is far cheaper than a four-byte one.
    uint8_t* split = s[2];
    kernels::SplitPlanes(s[1], 4, plane, split, split + plane, split + 2 * plane);
    for (int p = 0; p < 3; ++p) {
        OrientInto(img->ori_fmt, split + plane * p, r_w, r_h, 1, by_byte[p], s[3]);
    }
}

void OnePassGray(const QVN_Image* img, TensorPtr& o_tensor, const CropBox& box, uint8_t pad) {
    if (!IsInputFrameFormat(img->pix_fmt)) {
        utility::Assert(false, "%s", kBadFormat);
        return;
    }
    if (!OutputFits(o_tensor, true)) {
        utility::Assert(false, "%s: o_tensor must be a u8 HWC tensor {H, W, 1} with storage",
                        kOnePassGray);
        return;
    }
    DeviceCPU* dev = o_tensor->device();
    const std::vector<int32_t>& dims = o_tensor->shape().dims;
    const int t_h = dims[0];
    const int t_w = dims[1];
    const bool quarter = (img->ori_fmt & 3u) != 0;
    const int fh = img->height;
    const int fw = img->width;
    const bool yuv = IsTwoPlaneYUV(img->pix_fmt);
    const int c = yuv ? 1 : 4;
    const Creator make = yuv ? &DeviceCPU::CreateYPlane8BitTensor
                         : img->pix_fmt == QVN_PIX_FMT_BGRA8888 ? &DeviceCPU::CreateBGRA8888Tensor
                                                                : &DeviceCPU::CreateRGBA8888Tensor;
    MustBeCreatable(dev, make, fh, fw, c);
    Region in = MakeRegion(img->data, fw, fh, c, 0, 0, fw, fh, pad);
    if (box.active) {
        MustBeCreatable(dev, make, box.h, box.w, c);
        in = MakeRegion(img->data, fw, fh, c, box.x, box.y, box.w, box.h, pad);
    }
    if (yuv) {
        // Luma resized straight into the output, at the output's own size.
        Scratch s({SlotBytes(in)});
        ResizeRegion(in, s[0], o_tensor->data(), t_w, t_h);
        return;
    }
    // Resized to the swapped size when a quarter turn is pending, never
    // turned: that picture fills the output row after row.
    const int r_h = quarter ? t_w : t_h;
    const int r_w = quarter ? t_h : t_w;
    const size_t n = static_cast<size_t>(t_h) * t_w;
    Scratch s({SlotBytes(in), n * 4});
    ResizeRegion(in, s[0], s[1], r_w, r_h);
    kernels::BgraToGray(s[1], o_tensor->data(), n);
}

}  // namespace

QVN_API void QV_BinlinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(
    const QVN_Image* img, TensorPtr& o_tensor, const bool& to_bgr) {
    CheckOutput(o_tensor, kLayoutPlanar);
    ConvertToPlanar(img, o_tensor, to_bgr, CropBox(), 0);
}

QVN_API void QV_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(
    const QVN_Image* img, TensorPtr& o_tensor, const bool& to_bgr, const int& crop_x,
    const int& crop_y, const int& crop_w, const int& crop_h, const unsigned char& pad_value) {
    CheckOutput(o_tensor, kLayoutPlanar);
    const CropBox box = FrameCropBox(img, crop_x, crop_y, crop_w, crop_h);
    ConvertToPlanar(img, o_tensor, to_bgr, box, pad_value);
}

QVN_API void QV_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_Gray8_TensorCPU(
    const QVN_Image* img, TensorPtr& o_tensor, const int& crop_x, const int& crop_y,
    const int& crop_w, const int& crop_h, const unsigned char& pad_value) {
    CheckOutput(o_tensor, kLayoutGray);
    const CropBox box = FrameCropBox(img, crop_x, crop_y, crop_w, crop_h);
    if (!IsInputFrameFormat(img->pix_fmt)) {
        utility::Assert(false, "%s", kBadFormat);
        return;
    }
    DeviceCPU* dev = o_tensor->device();
    const std::vector<int32_t>& dims = o_tensor->shape().dims;
    const unsigned t_h = static_cast<unsigned>(dims[0]);
    const unsigned t_w = static_cast<unsigned>(dims[1]);
    // The gray output is never turned: the orientation only moves the crop box
    // and swaps the resize size.
    const bool quarter = (img->ori_fmt & 3u) != 0;
    const unsigned r_h = quarter ? t_w : t_h;
    const unsigned r_w = quarter ? t_h : t_w;

    Plane planes[2] = {};
    // Gray needs luma only: the chroma plane of a YUV frame is never touched.
    WrapFrame(img, dev, planes, /*luma_only=*/true);
    if (box.active) CropPlanes(planes, 1, dev, box, pad_value);
    if (IsTwoPlaneYUV(img->pix_fmt)) {
        F::F_Resize_Bilinear_HWC_U8_C1_Fallback(planes[0].t, o_tensor);
        return;
    }
    // RGBA frames go through the same B,G,R,A gray kernel (red and blue
    // weights in swapped roles): the behaviour detectors were tuned with.
    StepPlanes(planes, 1, dev, r_h, r_w, nullptr);
    F::F_ColorCvt_BGRA8888_To_Gray8_Fallback(planes[0].t, o_tensor);
}

QVN_API void QV_Crop_NearestResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(
    const QVN_Image*, TensorPtr&, const bool&, const int&, const int&, const int&, const int&,
    const unsigned char&) {
    // Exported for callers built against it; no nearest-neighbour path exists.
}

QVN_API void QV_Crop_Resize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(
    const QVN_Image*, TensorPtr&, const bool&, const int&, const int&, const int&, const int&,
    const unsigned char&, const char*) {
    // Exported for callers built against it; the method name is not consulted.
}

QVN_API void QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(
    const QVN_Image* img, TensorPtr& o_tensor, const bool& to_bgr, const int& crop_x,
    const int& crop_y, const int& crop_w, const int& crop_h, const unsigned char& pad_value) {
    CheckOutput(o_tensor, kLayoutPlanar);
    const CropBox box = FrameCropBox(img, crop_x, crop_y, crop_w, crop_h);
    OnePassPlanar(img, o_tensor, to_bgr, box, pad_value);
}

QVN_API void QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_Gray8_TensorCPU(
    const QVN_Image* img, TensorPtr& o_tensor, const int& crop_x, const int& crop_y,
    const int& crop_w, const int& crop_h, const unsigned char& pad_value) {
    CheckOutput(o_tensor, kLayoutGray);
    const CropBox box = FrameCropBox(img, crop_x, crop_y, crop_w, crop_h);
    OnePassGray(img, o_tensor, box, pad_value);
}

}  // namespace kit
}  // namespace quvas
