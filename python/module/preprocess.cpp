// preprocess.cpp - camera frames to network inputs: validate_frame and
// preprocess, which share one rule for what array a frame of each format is.
#include "arguments.hpp"
#include "log_route.hpp"
#include "registry.hpp"

#include "pixel_format.h"

#include <qvn_kit/qvn_kit.hpp>
#include <quvas/runtime/tensor.h>

#include <algorithm>

namespace qvnpy {
namespace {

namespace pixfmt = quvas::kit::pixfmt;
using pixfmt::Layout;
using quvas::runtime::DeviceCPU;
using quvas::runtime::TensorPtr;
using quvas::runtime::TensorShape;

struct FrameGeometry {
    int width = 0;
    int height = 0;
    int channels = 1;
};

// The one rule for what array holds a frame of format `fmt`; preprocess
// raises and validate_frame returns False on the same arrays. 4:2:0 frames
// are 2-D, (H * 3 / 2, W): the luma rows, then the chroma rows, as the kit
// lays them out; packed formats are (H, W, bytes a pixel), or (H, W) at one
// byte a pixel. Returns why `a` is no such frame, "" when it is one.
std::string FrameShapeError(const py::array& a, uint32_t fmt, FrameGeometry& g) {
    const pixfmt::Format* f = pixfmt::Find(fmt);
    const Layout layout = f != nullptr ? f->layout : Layout::kInvalid;
    const py::ssize_t rows = a.ndim() >= 1 ? a.shape(0) : 0;
    const py::ssize_t cols = a.ndim() >= 2 ? a.shape(1) : 0;
    long bytes_per_pixel = 1;
    switch (layout) {
        case Layout::kTwoPlane420:
        case Layout::kThreePlane420:
            // (H * 3 / 2) rows with H even: a multiple of 3.
            if (a.ndim() != 2 || rows % 3 != 0 || rows < 3 || cols % 2 != 0 || cols < 2) {
                return std::string("frame must have shape (H * 3 / 2, W) with H and W even and "
                                   "positive for a ") +
                       (layout == Layout::kTwoPlane420 ? "two" : "three") +
                       "-plane format, not " + ShapeText(a);
            }
            g.height = static_cast<int>(std::min<py::ssize_t>(rows / 3 * 2, kMaxSide + 1));
            bytes_per_pixel = 2;
            break;
        case Layout::kPacked: {
            const int b = f->luma_bytes;
            const bool fits = b == 1 ? a.ndim() == 2 || (a.ndim() == 3 && a.shape(2) == 1)
                                     : a.ndim() == 3 && a.shape(2) == b;
            if (!fits || rows < 1 || cols < 1) {
                static const char* const kShapes[] = {"", "(H, W)", "", "(H, W, 3)", "(H, W, 4)"};
                static const char* const kKinds[] = {"", "one", "", "three", "four"};
                return std::string("frame must have shape ") + kShapes[b] + " for a " +
                       kKinds[b] + "-byte format, not " + ShapeText(a);
            }
            g.channels = b;
            bytes_per_pixel = b;
            g.height = static_cast<int>(std::min<py::ssize_t>(rows, kMaxSide + 1));
            break;
        }
        case Layout::kChannels:
        case Layout::kFloatChannels:
            if ((a.ndim() != 2 && a.ndim() != 3) || rows < 1 || cols < 1 ||
                (a.ndim() == 3 && a.shape(2) < 1)) {
                return "frame must have shape (H, W) or (H, W, C), not " + ShapeText(a);
            }
            g.channels = a.ndim() == 3 ? static_cast<int>(std::min<py::ssize_t>(a.shape(2), 1 << 16)) : 1;
            bytes_per_pixel = layout == Layout::kFloatChannels ? 4L * g.channels : g.channels;
            g.height = static_cast<int>(std::min<py::ssize_t>(rows, kMaxSide + 1));
            break;
        case Layout::kInvalid:
            // No layout to hold the array to: the kit's check has the word.
            g.channels = a.ndim() == 3 ? static_cast<int>(std::min<py::ssize_t>(a.shape(2), 1 << 16)) : 1;
            if (a.ndim() >= 2) {
                g.height = static_cast<int>(std::min<py::ssize_t>(rows, kMaxSide + 1));
                g.width = static_cast<int>(std::min<py::ssize_t>(cols, kMaxSide + 1));
            }
            return "";
    }
    g.width = static_cast<int>(std::min<py::ssize_t>(cols, kMaxSide + 1));
    if (g.width > kMaxSide || g.height > kMaxSide) {
        return "frame of shape " + ShapeText(a) + " is larger than " + std::to_string(kMaxSide) +
               " pixels on a side";
    }
    return BytesError(g.height, g.width, bytes_per_pixel, "frame");
}

std::string NotInputFrameText(uint32_t fmt) {
    return "format " + std::to_string(fmt) +
           " is not an input frame format (use nv12, nv21, bgra, rgba, yuv420sp_a or "
           "yuv420sp_b)";
}

QVN_Image FrameImage(const FrameGeometry& g, uint32_t fmt, uint32_t orient, const void* data) {
    QVN_Image image{};
    image.ori_fmt = orient;
    image.pix_fmt = fmt;
    image.width = g.width;
    image.height = g.height;
    image.channels = g.channels;
    image.rect = QVN_Rect2D{0.f, 0.f, 1.f, 1.f};
    image.data = static_cast<uint8_t*>(const_cast<void*>(data));
    return image;
}

bool ValidateFrame(py::handle frame, py::handle format, py::handle orient, bool for_input) {
    LogFlush flush;
    const uint32_t fmt = ParseFormat(format, "format");
    const uint32_t ori = ParseOrient(orient, "orient");
    // Only the record is checked, never the pixels: no contiguous copy.
    py::array a = CheckedArray<uint8_t>(frame, "frame");
    FrameGeometry g;
    std::string error = FrameShapeError(a, fmt, g);
    if (!error.empty()) {
        NoteLogLine(error);
        return false;
    }
    QVN_Image img = FrameImage(g, fmt, ori, a.size() > 0 ? a.data() : nullptr);
    bool ok;
    {
        py::gil_scoped_release release;
        ok = quvas::kit::Is_Valid_QVN_Image_For_CPU(&img, for_input);
    }
    // The kit also passes three-plane and three-byte frames as inputs, which
    // no converter preprocess calls takes.
    if (ok && for_input && !pixfmt::IsInputFrame(fmt)) {
        NoteLogLine(NotInputFrameText(fmt));
        ok = false;
    }
    return ok;
}

py::array Preprocess(py::handle frame, py::handle format, py::handle orient, py::handle crop,
                     py::handle size, bool bgr, bool gray, int pad, bool fast, py::handle out) {
    LogFlush flush;
    const uint32_t fmt = ParseFormat(format, "format");
    const uint32_t ori = ParseOrient(orient, "orient");
    if (gray && bgr) throw py::value_error("bgr and gray exclude each other");
    CheckedInt(pad, "pad", 0, 255);
    py::array a = CheckedArray<uint8_t>(frame, "frame");
    if (!pixfmt::IsInputFrame(fmt)) throw py::value_error(NotInputFrameText(fmt));
    FrameGeometry g;
    std::string error = FrameShapeError(a, fmt, g);
    if (!error.empty()) throw py::value_error(error);

    int cx = 0, cy = 0, cw = 0, ch = 0;
    if (!crop.is_none()) {
        std::vector<long> c = Numbers<long>(crop, "crop", 4);
        cx = CheckedInt(c[0], "crop x", -(1L << 20), 1L << 20);
        cy = CheckedInt(c[1], "crop y", -(1L << 20), 1L << 20);
        cw = CheckedInt(c[2], "crop width", 1, kMaxSide);
        ch = CheckedInt(c[3], "crop height", 1, kMaxSide);
    }
    int th = 256, tw = 256;
    if (!size.is_none()) {
        std::vector<long> s = Numbers<long>(size, "size", 2);
        th = CheckedInt(s[0], "size height", 1, kMaxSide);
        tw = CheckedInt(s[1], "size width", 1, kMaxSide);
    } else if (!out.is_none() && py::isinstance<py::array>(out)) {
        py::array o = py::reinterpret_borrow<py::array>(out);
        if (o.ndim() == (gray ? 2 : 3)) {
            th = static_cast<int>(std::min<py::ssize_t>(o.shape(gray ? 0 : 1), kMaxSide));
            tw = static_cast<int>(std::min<py::ssize_t>(o.shape(gray ? 1 : 2), kMaxSide));
        }
    }
    // The two-plane colour path resizes the half-size chroma plane to
    // (H / 2, W / 2), which must not be empty.
    if (pixfmt::IsTwoPlane(fmt) && !gray && (th < 2 || tw < 2)) {
        throw py::value_error("size (" + std::to_string(th) + ", " + std::to_string(tw) +
                              ") is too small: a two-plane frame needs at least (2, 2)");
    }
    CheckBytes(th, tw, gray ? 1 : 4, "size");  // four-byte frames resize in 4 channels
    std::vector<py::ssize_t> shape =
        gray ? std::vector<py::ssize_t>{th, tw} : std::vector<py::ssize_t>{3, th, tw};
    CArray<uint8_t> result = out.is_none() ? CArray<uint8_t>(shape)
                                           : OutputArray<uint8_t>(out, "out", shape);
    if (!out.is_none()) CheckNoOverlap(result, a, "out", "frame");
    // Last, once nothing can be refused any more: the copy of a frame that
    // is not C-contiguous.
    CArray<uint8_t> pixels = Contiguous<uint8_t>(a);
    QVN_Image image = FrameImage(g, fmt, ori, pixels.data());
    uint8_t* dst = result.mutable_data();
    {
        py::gil_scoped_release release;
        // One device for the module: the step-by-step converters' intermediate
        // tensors come back from its storage cache on later calls (a device
        // per call would fault fresh pages in on every frame: 10x the time
        // at 256 x 256). The device is safe to share between threads.
        static DeviceCPU device;
        TensorShape ts = gray ? TensorShape({th, tw, 1}, quvas::runtime::data_type::kUInt8,
                                            quvas::runtime::layout::kHWC)
                              : TensorShape({3, th, tw}, quvas::runtime::data_type::kUInt8,
                                            quvas::runtime::layout::kCHW);
        TensorPtr tensor = device.CreateTensorExternal(ts, dst);
        const unsigned char padv = static_cast<unsigned char>(pad);
        namespace kit = quvas::kit;
        if (gray) {
            (fast ? kit::QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_Gray8_TensorCPU
                  : kit::QV_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_Gray8_TensorCPU)(
                &image, tensor, cx, cy, cw, ch, padv);
        } else {
            (fast ? kit::QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU
                  : kit::QV_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU)(
                &image, tensor, bgr, cx, cy, cw, ch, padv);
        }
    }
    return std::move(result);
}

}  // namespace

void RegisterPreprocess(py::module_& m) {
    m.def("validate_frame", &ValidateFrame, py::arg("frame"), py::arg("format"),
          py::arg("orient") = 0, py::arg("for_input") = true,
          "The kit's check of a frame record (Is_Valid_QVN_Image_For_CPU), after the\n"
          "check of the array's shape that preprocess makes: an array preprocess refuses\n"
          "as a frame is refused here too. A rejection returns False and logs the reason\n"
          "to the 'qvn_kit' logger.");
    m.def("preprocess", &Preprocess, py::arg("frame"), py::arg("format"), py::arg("orient") = 0,
          py::arg("crop") = py::none(), py::arg("size") = py::none(), py::arg("bgr") = false,
          py::arg("gray") = false, py::arg("pad") = 0, py::arg("fast") = false,
          py::arg("out") = py::none(),
          "A camera frame to a network input, through the kit's crop converters.\n\n"
          "frame: uint8 (H * 3 / 2, W) for 'nv12', 'nv21', 'yuv420sp_a', 'yuv420sp_b'; (H, W, 4)\n"
          "for 'bgra', 'rgba'. orient: the frame's orientation flags (int 0..127 or names such\n"
          "as 'rotate90r|mirror'), undone by the conversion. crop: (x, y, w, h) in pixels of the\n"
          "upright view, or None for the whole frame; pixels outside the frame read `pad`.\n"
          "size: (H, W) of the result, (256, 256) unless `out` gives it. Returns uint8\n"
          "(3, H, W) planes R,G,B (B,G,R with bgr=True), or (H, W) with gray=True. out: a\n"
          "C-contiguous uint8 array of that shape to write into (e.g. one row of a batch),\n"
          "sharing no memory with the frame.\n"
          "fast=True runs the one-pass converter: the same bytes, without intermediate tensors.");
}

}  // namespace qvnpy
