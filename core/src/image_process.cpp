// image_process.cpp - ImageProcessFallback: checks the tensors against the
// operation code, then hands contiguous images to the pixel kernels.
//
// A refusal is logged at level 16 and leaves `out` untouched; the checks all
// run before the first byte is written. The contract (codes, shapes,
// arithmetic, refusals) is written down in core/IMAGE_PROCESS.md.
#include <quvas/kernel/image_process.h>
#include <quvas/utility/log.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <limits>
#include <string>

#include "functional_check.h"
#include "image_process_kernels.h"
#include "kernels/planar.h"

namespace quvas {
namespace kernel {

ImageProcess::~ImageProcess() = default;
ImageProcessFallback::ImageProcessFallback() = default;
ImageProcessFallback::~ImageProcessFallback() = default;

namespace {

using runtime::TensorPtr;
namespace lay = runtime::layout;

constexpr char kWho[] = "ImageProcessFallback::ConvertPixel";
using detail::Image;
// Shapes in messages: "{d0, d1, d2} type T layout L" (see functional_check.h).
std::string Describe(const TensorPtr& t) { return detail::ShapeWords(t); }

const char* Expects(int code) {
    switch (code) {
        case op::kPack4ToPlanar012:
        case op::kPack4ToPlanar210:
            return "in u8 HWC {H, W, 4} and out u8 CHW {3, H, W}";
        case op::kPack3ToPlanar012:
        case op::kPack3ToPlanar210:
            return "in u8 HWC {H, W, 3} and out u8 CHW {3, H, W}";
        case op::kYUV420PlanarToRGB:
            return "in a u8 4:2:0 frame {H, W, 1} (layout 24, H and W at least 2) and out u8 CHW "
                   "{3, H, W}";
        case op::kRotate90:
        case op::kRotate270:
            return "in u8 CHW {C, H, W} and out u8 CHW {C, W, H}";
        case op::kRotate180:
        case op::kMirror:
            return "in u8 CHW {C, H, W} and out u8 CHW {C, H, W}";
        case op::kResizePlane:
        case op::kCropResizePlane:
            return "in and out u8 planes {H, W, 1} (layout 23 or 1)";
        case op::kResizeHWC3:
        case op::kCropResizeHWC3:
            return "in and out u8 HWC {H, W, 3}";
        default:
            return "in and out u8 HWC {H, W, 4}";
    }
}

bool IsCropCode(int code) {
    return code == op::kCropResizePlane || code == op::kCropResizeHWC3 ||
           code == op::kCropResizeHWC4;
}

bool IsPlainCode(int code) {
    switch (code) {
        case op::kPack4ToPlanar012:
        case op::kPack4ToPlanar210:
        case op::kPack3ToPlanar012:
        case op::kPack3ToPlanar210:
        case op::kYUV420PlanarToRGB:
        case op::kRotate90:
        case op::kRotate180:
        case op::kRotate270:
        case op::kMirror:
        case op::kResizePlane:
        case op::kResizeHWC3:
        case op::kResizeHWC4:
            return true;
        default:
            return false;
    }
}

// Shapes of in and out for `code`; fills the views (a planar tensor as c
// planes of h x w, any other as h x w pixels of c bytes).
bool ShapesFit(int code, const TensorPtr& in, const TensorPtr& out, Image* i, Image* o) {
    using detail::AsImageProcessView;
    switch (code) {
        case op::kPack4ToPlanar012:
        case op::kPack4ToPlanar210:
        case op::kPack3ToPlanar012:
        case op::kPack3ToPlanar210: {
            const int channels =
                (code == op::kPack4ToPlanar012 || code == op::kPack4ToPlanar210) ? 4 : 3;
            return AsImageProcessView(in, {lay::kHWC}, i) && i->c == channels &&
                   AsImageProcessView(out, {lay::kCHW}, o) && o->c == 3 && o->h == i->h &&
                   o->w == i->w;
        }
        case op::kYUV420PlanarToRGB:
            return AsImageProcessView(in, {lay::kYUV420Planar}, i) && i->c == 1 && i->h >= 2 &&
                   i->w >= 2 && AsImageProcessView(out, {lay::kCHW}, o) && o->c == 3 &&
                   o->h == i->h && o->w == i->w;
        case op::kRotate90:
        case op::kRotate270:
            return AsImageProcessView(in, {lay::kCHW}, i) && AsImageProcessView(out, {lay::kCHW}, o) &&
                   o->c == i->c && o->h == i->w && o->w == i->h;
        case op::kRotate180:
        case op::kMirror:
            return AsImageProcessView(in, {lay::kCHW}, i) && AsImageProcessView(out, {lay::kCHW}, o) &&
                   o->c == i->c && o->h == i->h && o->w == i->w;
        case op::kResizePlane:
        case op::kCropResizePlane:
            return AsImageProcessView(in, {lay::kPlane, lay::kHWC}, i) && i->c == 1 &&
                   AsImageProcessView(out, {lay::kPlane, lay::kHWC}, o) && o->c == 1;
        case op::kResizeHWC3:
        case op::kCropResizeHWC3:
            return AsImageProcessView(in, {lay::kHWC}, i) && i->c == 3 &&
                   AsImageProcessView(out, {lay::kHWC}, o) && o->c == 3;
        case op::kResizeHWC4:
        case op::kCropResizeHWC4:
            return AsImageProcessView(in, {lay::kHWC}, i) && i->c == 4 &&
                   AsImageProcessView(out, {lay::kHWC}, o) && o->c == 4;
        default:
            return false;
    }
}

void Execute(int code, const Image& i, const Image& o, double x0, double y0, double x1, double y1) {
    const size_t plane = static_cast<size_t>(o.h) * static_cast<size_t>(o.w);
    switch (code) {
        case op::kPack4ToPlanar012:
            kernels::SplitPlanes(i.data, 4, plane, o.data, o.data + plane, o.data + 2 * plane);
            return;
        case op::kPack4ToPlanar210:
            kernels::SplitPlanes(i.data, 4, plane, o.data + 2 * plane, o.data + plane, o.data);
            return;
        case op::kPack3ToPlanar012:
            kernels::SplitPlanes(i.data, 3, plane, o.data, o.data + plane, o.data + 2 * plane);
            return;
        case op::kPack3ToPlanar210:
            kernels::SplitPlanes(i.data, 3, plane, o.data + 2 * plane, o.data + plane, o.data);
            return;
        case op::kYUV420PlanarToRGB: {
            const uint8_t* u = i.data + plane;
            const uint8_t* v = u + static_cast<size_t>(i.h / 2) * static_cast<size_t>(i.w / 2);
            ipk::Yuv420ToPlanarRgb(i.data, u, v, i.h, i.w, o.data, o.data + plane,
                                   o.data + 2 * plane);
            return;
        }
        case op::kRotate90:
        case op::kRotate180:
        case op::kRotate270:
        case op::kMirror:
            for (int c = 0; c < i.c; ++c) {
                const uint8_t* s = i.data + c * plane;
                uint8_t* d = o.data + c * plane;
                const int h = i.h, w = i.w;
                if (code == op::kRotate90) kernels::RotateClockwise90(s, w, d, h, w, h, 1);
                if (code == op::kRotate180) kernels::Rotate180(s, w, d, w, w, h, 1);
                if (code == op::kRotate270) kernels::RotateClockwise270(s, w, d, h, w, h, 1);
                if (code == op::kMirror) kernels::Mirror(s, w, d, w, w, h, 1);
            }
            return;
        default:
            // Resizes and crop-resizes.
            ipk::ResampleBilinear(i.data, i.w, i.h, o.data, o.w, o.h, i.c, x0, y0, x1, y1);
            return;
    }
}

// Runs a known code, or logs why not. `box` is null for the plain codes.
void Run(int code, const TensorPtr& in, const TensorPtr& out, const float* box) {
    Image i, o;
    if (!ShapesFit(code, in, out, &i, &o)) {
        utility::Log(utility::kLogError, "%s: code %d expects %s, got in %s, out %s", kWho, code,
                     Expects(code), Describe(in).c_str(), Describe(out).c_str());
        return;
    }
    double x0 = 0.0, y0 = 0.0, x1 = 1.0, y1 = 1.0;
    if (box != nullptr) {
        const bool finite = std::isfinite(box[0]) && std::isfinite(box[1]) &&
                            std::isfinite(box[2]) && std::isfinite(box[3]);
        if (!finite || !(box[0] < box[2]) || !(box[1] < box[3])) {
            utility::Log(utility::kLogError,
                         "%s: code %d needs a finite box with x0 < x1 and y0 < y1, got (%g, %g, "
                         "%g, %g) for in %s, out %s",
                         kWho, code, box[0], box[1], box[2], box[3], Describe(in).c_str(),
                         Describe(out).c_str());
            return;
        }
        x0 = box[0];
        y0 = box[1];
        x1 = box[2];
        y1 = box[3];
    }
    if (detail::Overlap(i, o)) {
        utility::Log(utility::kLogError,
                     "%s: code %d cannot work in place, in %s and out %s share storage", kWho,
                     code, Describe(in).c_str(), Describe(out).c_str());
        return;
    }
    Execute(code, i, o, x0, y0, x1, y1);
}

void Unknown(int code, const TensorPtr& in, const TensorPtr& out) {
    utility::Log(utility::kLogError, "%s: unknown code %d (in %s, out %s)", kWho, code,
                 Describe(in).c_str(), Describe(out).c_str());
}

}  // namespace

void ImageProcessFallback::ConvertPixel(std::shared_ptr<runtime::Tensor>& in,
                                        std::shared_ptr<runtime::Tensor>& out, int code,
                                        std::shared_ptr<runtime::Context> ctx) {
    (void)ctx;
    if (IsPlainCode(code)) {
        Run(code, in, out, nullptr);
    } else if (IsCropCode(code)) {
        utility::Log(utility::kLogError, "%s: code %d needs a crop box (in %s, out %s)", kWho,
                     code, Describe(in).c_str(), Describe(out).c_str());
    } else {
        Unknown(code, in, out);
    }
}

void ImageProcessFallback::ConvertPixel(std::shared_ptr<runtime::Tensor>& in,
                                        std::shared_ptr<runtime::Tensor>& out, float a, float b,
                                        float c, float d, int code,
                                        std::shared_ptr<runtime::Context> ctx) {
    (void)ctx;
    if (IsCropCode(code)) {
        const float box[4] = {a, b, c, d};
        Run(code, in, out, box);
    } else if (IsPlainCode(code)) {
        utility::Log(utility::kLogError, "%s: code %d takes no crop box (in %s, out %s)", kWho,
                     code, Describe(in).c_str(), Describe(out).c_str());
    } else {
        Unknown(code, in, out);
    }
}

}  // namespace kernel
}  // namespace quvas
