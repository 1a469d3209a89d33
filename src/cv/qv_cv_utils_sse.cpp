// qv_cv_utils_sse.cpp - vectorised fixed-point affine warps, float-to-byte
// mask conversion, and the tensor processing entry points that drive the
// core's image-process operations.
#include <qvn_kit/qvn_kit.hpp>

#include <quvas/utility/log.h>

#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

// ===========================================================================
// Vectorised affine warps
// ===========================================================================

// ===========================================================================
// Float-to-byte output conversion
// ===========================================================================

// ===========================================================================
// Tensor processing pipeline
// ===========================================================================

#include <quvas/qvn_core.h>

namespace quvas {
namespace kit {

namespace {

using runtime::Context;
using runtime::DeviceCPU;
using runtime::TensorShape;

// Core operation codes used here. The numbering is the core's; these names
// only say what this file asks of each.
namespace code {
constexpr int kPack4Planar012 = 1;
constexpr int kPack4Planar210 = 3;
constexpr int kPack3Planar012 = 4;
constexpr int kYUV420PlanarToRGB = 32;
constexpr int kRotateCW90 = 50;
constexpr int kRotate180 = 51;
constexpr int kRotateCW270 = 52;
constexpr int kMirror = 53;
constexpr int kDefaultColour = 60;
constexpr int kResizePlane = 77;
constexpr int kResizePack3 = 83;
constexpr int kResizePack4 = 84;
constexpr int kCropResizePlane = 85;
constexpr int kCropResizePack3 = 87;
constexpr int kCropResizePack4 = 88;
}  // namespace code

constexpr int32_t kUInt8 = 7;
constexpr int32_t kLayoutCHW = 0;
constexpr int32_t kLayoutPlane = 23;
constexpr uint32_t kMainMemory = 0x10001;

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
        KitShape({static_cast<int32_t>(h), static_cast<int32_t>(w), 1}, kLayoutPlane), data);
    views.plane[1] = dev->CreateTensorExternal(KitShape(chroma_dims, kLayoutPlane), data + luma);
    views.plane[2] =
        dev->CreateTensorExternal(KitShape(chroma_dims, kLayoutPlane), data + luma + (luma >> 2));
    return views;
}

}  // namespace

QVN_API void ConvertColorProcessSSE(TensorPtr& in, TensorPtr& out, QVN_PIX_FMT fmt,
                                    kernel::ImageProcessFallback* proc,
                                    std::shared_ptr<Context> ctx) {
    int op = code::kDefaultColour;
    switch (fmt) {
        case QVN_PIX_FMT_YUV420_A: op = code::kYUV420PlanarToRGB; break;
        case QVN_PIX_FMT_BGRA8888: op = code::kPack4Planar210; break;
        case QVN_PIX_FMT_RGBA8888: op = code::kPack4Planar012; break;
        case QVN_PIX_FMT_RGB888: op = code::kPack3Planar012; break;
        default: break;  // BGR888 and everything else take the default code
    }
    Base(proc)->ConvertPixel(in, out, op, ctx);
}

QVN_API void ConvertColorProcessSSEToBGRTensor(TensorPtr& in, TensorPtr& out, QVN_PIX_FMT fmt,
                                               kernel::ImageProcessFallback* proc,
                                               std::shared_ptr<Context> ctx) {
    int op = code::kDefaultColour;
    switch (fmt) {
        case QVN_PIX_FMT_YUV420_A: op = code::kYUV420PlanarToRGB; break;
        case QVN_PIX_FMT_BGRA8888: op = code::kPack4Planar012; break;
        case QVN_PIX_FMT_RGBA8888: op = code::kPack4Planar210; break;
        case QVN_PIX_FMT_BGR888: op = code::kPack3Planar012; break;
        default: break;  // RGB888 and everything else take the default code
    }
    Base(proc)->ConvertPixel(in, out, op, ctx);
}

QVN_API void TransformMatrixProcessSSE(TensorPtr& in, TensorPtr& out, QVN_ORIENT_FMT flags,
                                       kernel::ImageProcessFallback* proc,
                                       std::shared_ptr<Context> ctx) {
    const std::vector<int32_t>& d = in->shape().dims;
    // A quarter turn exchanges the last two dims; anything else keeps the
    // input's shape.
    const TensorShape turned = KitShape({d[0], d[2], d[1]}, kLayoutCHW);
    const TensorShape same = in->shape();
    DeviceCPU* dev = ctx->device;
    const uint32_t f = static_cast<uint32_t>(flags);

    TensorPtr mid;
    if (f & 0x01u) {
        mid = dev->CreateTensor(turned, nullptr);
        Base(proc)->ConvertPixel(in, mid, code::kRotateCW270, ctx);
    } else if (f & 0x02u) {
        mid = dev->CreateTensor(turned, nullptr);
        Base(proc)->ConvertPixel(in, mid, code::kRotateCW90, ctx);
    } else if (f & 0x44u) {
        mid = dev->CreateTensor(same, nullptr);
        Base(proc)->ConvertPixel(in, mid, code::kRotate180, ctx);
    } else {
        // Callers have always paid for this allocation; its result is unused
        // and no pixel of the input is copied.
        dev->CreateTensor(same, nullptr);
        mid = in;
    }

    // Both flip bits ask the core for its one mirror operation.
    if (f & 0x18u) {
        Base(proc)->ConvertPixel(mid, out, code::kMirror, ctx);
    } else {
        out = mid;
    }
}

QVN_API void ResizeProcessSSE(TensorPtr& in, TensorPtr& out, QVN_PIX_FMT fmt,
                              kernel::ImageProcessFallback* proc, std::shared_ptr<Context> ctx) {
    switch (fmt) {
        case QVN_PIX_FMT_RGB888:
        case QVN_PIX_FMT_BGR888:
            Base(proc)->ConvertPixel(in, out, code::kResizePack3, ctx);
            return;
        case QVN_PIX_FMT_BGRA8888:
        case QVN_PIX_FMT_RGBA8888:
            Base(proc)->ConvertPixel(in, out, code::kResizePack4, ctx);
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

QVN_API void CropResizeProcessSSE(TensorPtr& in, TensorPtr& out, QVN_PIX_FMT fmt,
                                  kernel::ImageProcessFallback* proc,
                                  std::shared_ptr<Context> ctx, float a, float b, float c,
                                  float d) {
    // The box is normalised, so the same four values serve the full-size luma
    // plane and the half-size chroma planes.
    switch (fmt) {
        case QVN_PIX_FMT_RGB888:
        case QVN_PIX_FMT_BGR888:
            Base(proc)->ConvertPixel(in, out, a, b, c, d, code::kCropResizePack3, ctx);
            return;
        case QVN_PIX_FMT_BGRA8888:
        case QVN_PIX_FMT_RGBA8888:
            Base(proc)->ConvertPixel(in, out, a, b, c, d, code::kCropResizePack4, ctx);
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

}  // namespace kit
}  // namespace quvas
