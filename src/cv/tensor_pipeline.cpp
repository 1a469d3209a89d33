// tensor_pipeline.cpp - the tensor processing pipeline: operation codes of
// the core's image-process kernel chosen from a frame's pixel format or
// orientation flags, with the plane views and intermediate tensors the
// operations need. The pixel work belongs to the core.
#include "tensor_pipeline.h"

#include <quvas/qvn_core.h>

#include <cstdint>
#include <vector>

#include "../kit/qv_internal.h"

namespace quvas {
namespace kit {
namespace internal {

namespace {

using runtime::Context;
using runtime::DeviceCPU;
using runtime::TensorShape;

// The core's operation codes, data type, layout and location codes, by the
// names its headers give them.
namespace code = kernel::op;
using runtime::data_type::kUInt8;
using runtime::layout::kCHW;
using runtime::layout::kPlane;
using runtime::location::kMainMemory;

// The operations are virtual on the core's base class; calling through it
// lets a caller hand in any implementation of the fallback's interface.
inline kernel::ImageProcess* Base(kernel::ImageProcessFallback* proc) { return proc; }

TensorShape KitShape(std::vector<int32_t> dims, int32_t layout) {
    TensorShape shape;
    shape.dims = std::move(dims);
    shape.data_type = kUInt8;
    shape.layout = layout;
    shape.location = kMainMemory;
    shape.extra.step_size = 0;
    shape.extra.serializable_type.clear();
    return shape;
}

// Views of a three-plane 4:2:0 frame stored at `data` with luma dims {h, w}:
// luma, then two quarter-size chroma planes. None owns the memory.
struct PlaneViews {
    TensorPtr plane[3];
};

PlaneViews MakePlaneViews(DeviceCPU* dev, const TensorPtr& frame) {
    const std::vector<int32_t>& dims = frame->shape().dims;
    const uint32_t h = static_cast<uint32_t>(dims[0]);
    const uint32_t w = static_cast<uint32_t>(dims[1]);
    const size_t luma = static_cast<size_t>(h) * w;
    const std::vector<int32_t> chroma_dims = {static_cast<int32_t>(h >> 1),
                                              static_cast<int32_t>(w >> 1), 1};
    uint8_t* data = frame->data();
    PlaneViews views;
    views.plane[0] = dev->CreateTensorExternal(
        KitShape({static_cast<int32_t>(h), static_cast<int32_t>(w), 1}, kPlane), data);
    views.plane[1] = dev->CreateTensorExternal(KitShape(chroma_dims, kPlane), data + luma);
    views.plane[2] =
        dev->CreateTensorExternal(KitShape(chroma_dims, kPlane), data + luma + (luma >> 2));
    return views;
}

}  // namespace

// The operation codes are a fixed table per entry point, not read from the
// pixel-format table: the two colour targets are mirror images for the
// four-byte formats, but a three-byte frame of the other channel order falls
// to the default code like every unlisted format instead of being swapped.
void ConvertColourPlanes(TensorPtr& in, TensorPtr& out, QVN_PIX_FMT fmt, bool to_bgr,
                         kernel::ImageProcessFallback* proc, const ContextPtr& ctx) {
    int op = code::kPack3ToPlanar210;
    if (!to_bgr) {
        switch (fmt) {
            case QVN_PIX_FMT_YUV420_A: op = code::kYUV420PlanarToRGB; break;
            case QVN_PIX_FMT_BGRA8888: op = code::kPack4ToPlanar210; break;
            case QVN_PIX_FMT_RGBA8888: op = code::kPack4ToPlanar012; break;
            case QVN_PIX_FMT_RGB888: op = code::kPack3ToPlanar012; break;
            default: break;  // BGR888 and everything else take the default code
        }
    } else {
        switch (fmt) {
            case QVN_PIX_FMT_YUV420_A: op = code::kYUV420PlanarToRGB; break;
            case QVN_PIX_FMT_BGRA8888: op = code::kPack4ToPlanar012; break;
            case QVN_PIX_FMT_RGBA8888: op = code::kPack4ToPlanar210; break;
            case QVN_PIX_FMT_BGR888: op = code::kPack3ToPlanar012; break;
            default: break;  // RGB888 and everything else take the default code
        }
    }
    Base(proc)->ConvertPixel(in, out, op, ctx);
}

void TurnAndMirror(TensorPtr& in, TensorPtr& out, QVN_ORIENT_FMT flags,
                   kernel::ImageProcessFallback* proc, const ContextPtr& ctx) {
    const std::vector<int32_t>& d = in->shape().dims;
    // A quarter turn exchanges the last two dims; anything else keeps the
    // input's shape.
    const TensorShape turned = KitShape({d[0], d[2], d[1]}, kCHW);
    const TensorShape same = in->shape();
    DeviceCPU* dev = ctx->device;
    const uint32_t f = static_cast<uint32_t>(flags);

    // The first stage takes the lowest turn bit set: a lower bit shadows a
    // higher one, and the box-only half turn (64) counts as a half turn.
    TensorPtr mid;
    if (f & QVN_ORIENT_FMT_ROTATE_90R) {
        mid = dev->CreateTensor(turned, nullptr);
        Base(proc)->ConvertPixel(in, mid, code::kRotate270, ctx);
    } else if (f & QVN_ORIENT_FMT_ROTATE_90L) {
        mid = dev->CreateTensor(turned, nullptr);
        Base(proc)->ConvertPixel(in, mid, code::kRotate90, ctx);
    } else if (f & kHalfTurns) {
        mid = dev->CreateTensor(same, nullptr);
        Base(proc)->ConvertPixel(in, mid, code::kRotate180, ctx);
    } else {
        // Callers have always paid for this allocation; its result is unused
        // and no pixel of the input is copied.
        dev->CreateTensor(same, nullptr);
        mid = in;
    }

    // Both flips ask the core for its one mirror operation.
    if (f & kFlips) {
        Base(proc)->ConvertPixel(mid, out, code::kMirror, ctx);
    } else {
        out = mid;
    }
}

// Formats these two paths do not handle are ignored without a word, unlike
// the warp dispatcher, which logs them: each behaviour is the one callers of
// that entry point have always had, so the two are not made alike.
void ResizeFrame(TensorPtr& in, TensorPtr& out, QVN_PIX_FMT fmt,
                 kernel::ImageProcessFallback* proc, const ContextPtr& ctx) {
    switch (fmt) {
        case QVN_PIX_FMT_RGB888:
        case QVN_PIX_FMT_BGR888:
            Base(proc)->ConvertPixel(in, out, code::kResizeHWC3, ctx);
            return;
        case QVN_PIX_FMT_BGRA8888:
        case QVN_PIX_FMT_RGBA8888:
            Base(proc)->ConvertPixel(in, out, code::kResizeHWC4, ctx);
            return;
        case QVN_PIX_FMT_YUV420_A: {
            PlaneViews src = MakePlaneViews(ctx->device, in);
            PlaneViews dst = MakePlaneViews(ctx->device, out);
            for (int i = 0; i < 3; ++i) {
                Base(proc)->ConvertPixel(src.plane[i], dst.plane[i], code::kResizePlane, ctx);
            }
            return;
        }
        default:
            return;  // not a format this path resizes
    }
}

void CropResizeFrame(TensorPtr& in, TensorPtr& out, QVN_PIX_FMT fmt,
                     kernel::ImageProcessFallback* proc, const ContextPtr& ctx, float a, float b,
                     float c, float d) {
    // The box is normalised, so the same four values serve the full-size luma
    // plane and the half-size chroma planes.
    switch (fmt) {
        case QVN_PIX_FMT_RGB888:
        case QVN_PIX_FMT_BGR888:
            Base(proc)->ConvertPixel(in, out, a, b, c, d, code::kCropResizeHWC3, ctx);
            return;
        case QVN_PIX_FMT_BGRA8888:
        case QVN_PIX_FMT_RGBA8888:
            Base(proc)->ConvertPixel(in, out, a, b, c, d, code::kCropResizeHWC4, ctx);
            return;
        case QVN_PIX_FMT_YUV420_A: {
            PlaneViews src = MakePlaneViews(ctx->device, in);
            PlaneViews dst = MakePlaneViews(ctx->device, out);
            for (int i = 0; i < 3; ++i) {
                Base(proc)->ConvertPixel(src.plane[i], dst.plane[i], a, b, c, d,
                                         code::kCropResizePlane, ctx);
            }
            return;
        }
        default:
            return;  // not a format this path crops
    }
}

}  // namespace internal
}  // namespace kit
}  // namespace quvas
