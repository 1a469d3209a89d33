// image_process.h - the core's image-process operations, chosen by code.
//
// ConvertPixel runs the operation named by `code` from `in` to `out`. The
// calls are virtual so that a caller can wrap or record them. An unknown
// code, or tensors that do not fit the code, is logged at level 16 with a
// message naming the code and the shapes, and `out` is left untouched.
// Nothing throws but allocation.
#ifndef QUVAS_KERNEL_IMAGE_PROCESS_H
#define QUVAS_KERNEL_IMAGE_PROCESS_H

#include <quvas/export.h>
#include <quvas/runtime/tensor.h>

#include <memory>

namespace quvas {
namespace kernel {

// Operation codes.
namespace op {
constexpr int kPack4ToPlanar012 = 1;    // HWC 4 ch -> CHW 3, bytes 0, 1, 2
constexpr int kPack4ToPlanar210 = 3;    // HWC 4 ch -> CHW 3, bytes 2, 1, 0
constexpr int kPack3ToPlanar012 = 4;    // HWC 3 ch -> CHW 3, bytes 0, 1, 2
constexpr int kYUV420PlanarToRGB = 32;  // three-plane 4:2:0 -> CHW R, G, B (BT.601 full range)
constexpr int kRotate90 = 50;           // CHW -> CHW clockwise 90 (H and W exchanged)
constexpr int kRotate180 = 51;          // CHW -> CHW
constexpr int kRotate270 = 52;          // CHW -> CHW clockwise 270 (H and W exchanged)
constexpr int kMirror = 53;             // CHW -> CHW horizontal mirror
constexpr int kPack3ToPlanar210 = 60;   // HWC 3 ch -> CHW 3, bytes 2, 1, 0 (the default code)
constexpr int kResizePlane = 77;        // one plane -> one plane, bilinear
constexpr int kResizeHWC3 = 83;         // HWC 3 ch -> HWC 3 ch, bilinear
constexpr int kResizeHWC4 = 84;         // HWC 4 ch -> HWC 4 ch, bilinear
constexpr int kCropResizePlane = 85;    // crop (a, b, c, d) normalised, then resize
constexpr int kCropResizeHWC3 = 87;
constexpr int kCropResizeHWC4 = 88;
}  // namespace op

class QUVAS_API ImageProcess {
public:
    virtual ~ImageProcess();
    virtual void ConvertPixel(std::shared_ptr<runtime::Tensor>& in,
                              std::shared_ptr<runtime::Tensor>& out, int code,
                              std::shared_ptr<runtime::Context> ctx) = 0;
    // Crop-resize codes: (a, b, c, d) is the normalised box (x0, y0, x1, y1)
    // of the input; samples outside the frame repeat the edge.
    virtual void ConvertPixel(std::shared_ptr<runtime::Tensor>& in,
                              std::shared_ptr<runtime::Tensor>& out, float a, float b, float c,
                              float d, int code, std::shared_ptr<runtime::Context> ctx) = 0;
};

class QUVAS_API ImageProcessFallback : public ImageProcess {
public:
    ImageProcessFallback();
    ~ImageProcessFallback() override;
    void ConvertPixel(std::shared_ptr<runtime::Tensor>& in, std::shared_ptr<runtime::Tensor>& out,
                      int code, std::shared_ptr<runtime::Context> ctx) override;
    void ConvertPixel(std::shared_ptr<runtime::Tensor>& in, std::shared_ptr<runtime::Tensor>& out,
                      float a, float b, float c, float d, int code,
                      std::shared_ptr<runtime::Context> ctx) override;
};

}  // namespace kernel
}  // namespace quvas

#endif  // QUVAS_KERNEL_IMAGE_PROCESS_H
