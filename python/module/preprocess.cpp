// preprocess.cpp - camera frames to network inputs: validate_frame and
// preprocess, which share one rule for what array a frame of each format is.
#include "arguments.hpp"
#include "log_route.hpp"
#include "registry.hpp"

#include "pixel_format.h"

#include <qvn_kit/frame_tensor.hpp>
#include <qvn_kit/frame_view.hpp>
#include <qvn_kit/qvn_kit.hpp>
#include <quvas/runtime/tensor.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

namespace qvnpy {

py::object WrapTransform(const quvas::kit::TensorTransform& t);  // transform.cpp

namespace {

namespace pixfmt = quvas::kit::pixfmt;
using pixfmt::Layout;
using quvas::kit::FrameView;
using quvas::kit::YuvMatrix;
using quvas::kit::YuvRange;
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
           " is not an input frame format (use nv12, nv21, bgra, rgba, yuv420sp_a, "
           "yuv420sp_b, i420 or yv12)";
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

// The format argument. "yv12" is the three-plane format with its chroma
// planes exchanged (Y, V, U), which the table has no row for; "i420" is
// looked up here too, since the table's names are those of the QVN_Image
// input frames.
uint32_t ParseFrameFormat(py::handle format, bool& yv12) {
    yv12 = false;
    if (PyUnicode_Check(format.ptr())) {
        Py_ssize_t len = 0;
        const char* text = PyUnicode_AsUTF8AndSize(format.ptr(), &len);
        if (text == nullptr) {
            PyErr_Clear();  // ParseFormat says what is wrong with it
        } else {
            const std::string name(text, static_cast<size_t>(len));
            if (name == pixfmt::kYV12Name) yv12 = true;
            if (yv12 || name == pixfmt::NameOf(QVN_PIX_FMT_YUV420_A)) return QVN_PIX_FMT_YUV420_A;
        }
    }
    return ParseFormat(format, "format");
}

YuvMatrix ParseMatrix(py::handle obj) {
    if (obj.is_none()) return YuvMatrix::kDefault;
    if (PyUnicode_Check(obj.ptr())) {
        const char* text = PyUnicode_AsUTF8(obj.ptr());
        if (text == nullptr) PyErr_Clear();
        if (text != nullptr && std::strcmp(text, "bt601") == 0) return YuvMatrix::kBT601;
        if (text != nullptr && std::strcmp(text, "bt709") == 0) return YuvMatrix::kBT709;
    }
    throw py::value_error("matrix must be 'bt601', 'bt709' or None, not " +
                          std::string(py::repr(obj)));
}

YuvRange ParseRange(py::handle obj) {
    if (obj.is_none()) return YuvRange::kDefault;
    if (PyUnicode_Check(obj.ptr())) {
        const char* text = PyUnicode_AsUTF8(obj.ptr());
        if (text == nullptr) PyErr_Clear();
        if (text != nullptr && std::strcmp(text, "limited") == 0) return YuvRange::kLimited;
        if (text != nullptr && std::strcmp(text, "full") == 0) return YuvRange::kFull;
    }
    throw py::value_error("range must be 'limited', 'full' or None, not " +
                          std::string(py::repr(obj)));
}

// A frame argument as the converters read it: the arrays (the caller's, or
// one copy where a plane's rows are not contiguous bytes) and the view over
// them.
struct FrameArg {
    uint32_t fmt = QVN_PIX_FMT_UNKNOW;
    bool yv12 = false;
    bool planes = false;  // a (y, u, v) tuple rather than one array
    py::array arrays[3];
    FrameGeometry g;
    YuvMatrix matrix = YuvMatrix::kDefault;
    YuvRange range = YuvRange::kDefault;
    bool Described() const {
        return matrix != YuvMatrix::kDefault || range != YuvRange::kDefault;
    }
};

// A plane is read in place when its bytes within a row are contiguous and
// rows are a positive stride apart that holds a row (a decoder's padded
// rows, a slice of a wider array); any other plane (a column slice with a
// step, a flipped view) is copied once.
bool InPlace(const py::array& a) {
    return a.strides(1) == 1 && (a.shape(0) == 1 || a.strides(0) >= a.shape(1));
}

ptrdiff_t RowStride(const py::array& a) {
    return a.shape(0) == 1 ? static_cast<ptrdiff_t>(a.shape(1))
                           : static_cast<ptrdiff_t>(a.strides(0));
}

// Checks a (y, u, v) tuple: y (H, W) with both sides at least 2, u and v
// (H / 2, W / 2) with the halves rounded down or up (decoders round up).
// Returns why it is no such frame, "" when it is one.
std::string PlanesError(py::handle frame, FrameArg& f) {
    py::sequence seq = py::reinterpret_borrow<py::sequence>(frame);
    if (py::len(seq) != 3) {
        return "a frame given as planes must be a tuple (y, u, v) of three arrays, not " +
               std::to_string(py::len(seq));
    }
    static const char* const kNames[3] = {"plane y", "plane u", "plane v"};
    for (int p = 0; p < 3; ++p) f.arrays[p] = CheckedArray<uint8_t>(seq[p], kNames[p]);
    if (f.fmt != QVN_PIX_FMT_YUV420_A) {
        return "a tuple of planes is a three-plane frame: give format 'i420' for (y, u, v) or "
               "'yv12' for (y, v, u), not format " + std::to_string(f.fmt);
    }
    const py::array& y = f.arrays[0];
    bool ok = y.ndim() == 2 && y.shape(0) >= 2 && y.shape(1) >= 2;
    for (int p = 1; ok && p < 3; ++p) {
        const py::array& c = f.arrays[p];
        ok = c.ndim() == 2;
        for (int d = 0; ok && d < 2; ++d) {
            ok = c.shape(d) == y.shape(d) / 2 || c.shape(d) == (y.shape(d) + 1) / 2;
        }
    }
    if (!ok) {
        return "planes must be y (H, W) with H and W at least 2, and u, v (H / 2, W / 2) "
               "(halves rounded down or up), not " + ShapeText(f.arrays[0]) + ", " +
               ShapeText(f.arrays[1]) + ", " + ShapeText(f.arrays[2]);
    }
    if (y.shape(0) > kMaxSide || y.shape(1) > kMaxSide) {
        return "frame of shape " + ShapeText(y) + " is larger than " + std::to_string(kMaxSide) +
               " pixels on a side";
    }
    f.g.height = static_cast<int>(y.shape(0));
    f.g.width = static_cast<int>(y.shape(1));
    return "";
}

// Reads the frame, format and colour arguments into `f`, without copying.
// Returns why the frame is refused, "" when it is taken; TypeError and
// ValueError for arguments of the wrong kind or value are raised.
std::string ReadFrameArg(py::handle frame, py::handle format, py::handle matrix,
                         py::handle range, FrameArg& f) {
    f.fmt = ParseFrameFormat(format, f.yv12);
    f.matrix = ParseMatrix(matrix);
    f.range = ParseRange(range);
    f.planes = PyTuple_Check(frame.ptr());
    std::string error;
    if (f.planes) {
        error = PlanesError(frame, f);
    } else {
        f.arrays[0] = CheckedArray<uint8_t>(frame, "frame");
        error = FrameShapeError(f.arrays[0], f.fmt, f.g);
    }
    if (error.empty() && f.Described() && !pixfmt::IsFourTwoZero(f.fmt)) {
        error = std::string("matrix and range describe 4:2:0 frames, not a ") +
                pixfmt::NameOf(f.fmt) + " frame";
    }
    return error;
}

// The view the FrameView converters read; call after `f` was read without
// error. `copy`: replace planes that cannot be read in place by copies.
FrameView MakeView(FrameArg& f, uint32_t orient, bool copy) {
    FrameView v;
    v.pix_fmt = f.fmt;
    v.ori_fmt = orient;
    v.width = f.g.width;
    v.height = f.g.height;
    v.matrix = f.matrix;
    v.range = f.range;
    if (f.planes) {
        for (int p = 0; p < 3; ++p) {
            if (copy && !InPlace(f.arrays[p])) f.arrays[p] = Contiguous<uint8_t>(f.arrays[p]);
            v.planes[p] = {static_cast<const uint8_t*>(f.arrays[p].data()), RowStride(f.arrays[p])};
        }
    } else {
        // One array: the packed layout of the kit's frames, read as a whole
        // (a three-plane array's chroma planes do not follow its rows).
        if (copy) f.arrays[0] = Contiguous<uint8_t>(f.arrays[0]);
        QVN_Image image = FrameImage(f.g, f.fmt, orient, f.arrays[0].data());
        quvas::kit::FrameView_From_QVN_Image(&image, &v);
        v.matrix = f.matrix;
        v.range = f.range;
    }
    if (f.yv12) std::swap(v.planes[1], v.planes[2]);
    return v;
}

bool ValidateFrame(py::handle frame, py::handle format, py::handle orient, bool for_input,
                   py::handle matrix, py::handle range) {
    LogFlush flush;
    FrameArg f;
    const uint32_t ori = ParseOrient(orient, "orient");
    // Only the record is checked, never the pixels: no contiguous copy.
    std::string error = ReadFrameArg(frame, format, matrix, range, f);
    if (!error.empty()) {
        NoteLogLine(error);
        return false;
    }
    bool ok;
    if (for_input && (f.fmt == QVN_PIX_FMT_YUV420_A || f.Described())) {
        // What preprocess hands to the FrameView converters.
        FrameView view = MakeView(f, ori, false);
        if (f.planes) {
            // A plane preprocess would copy: its copy's stride holds a row.
            for (int p = 0; p < 3; ++p) {
                if (!InPlace(f.arrays[p])) view.planes[p].stride = f.arrays[p].shape(1);
            }
        }
        py::gil_scoped_release release;
        ok = quvas::kit::Is_Valid_FrameView(view);
    } else {
        const py::array& a = f.arrays[0];
        QVN_Image img = FrameImage(f.g, f.fmt, ori, a.size() > 0 ? a.data() : nullptr);
        {
            py::gil_scoped_release release;
            ok = quvas::kit::Is_Valid_QVN_Image_For_CPU(&img, for_input);
        }
        // The kit also passes three-byte frames as inputs, which no converter
        // preprocess calls takes.
        if (ok && for_input && !pixfmt::IsViewFrame(f.fmt)) {
            NoteLogLine(NotInputFrameText(f.fmt));
            ok = false;
        }
    }
    return ok;
}

// The tensor converter's own arguments: float output, the layout, the
// letterbox and the transform.
struct TensorArgs {
    bool as_float = false;
    bool hwc = false;
    int letterbox = -1;  // none
    bool top_left = false;
    bool transform = false;
    std::vector<float> mean, std;
    // Any of them takes the tensor converter; without them preprocess keeps
    // the converters (and the bytes) it always took.
    bool Used() const { return as_float || hwc || letterbox >= 0 || transform; }
};

TensorArgs ReadTensorArgs(py::handle dtype, py::handle mean, py::handle std, py::handle layout,
                          py::handle letterbox, py::handle align, bool transform, bool gray) {
    TensorArgs a;
    a.transform = transform;
    if (!dtype.is_none()) {
        py::dtype d = py::dtype::from_args(py::reinterpret_borrow<py::object>(dtype));
        if (d.is(py::dtype::of<float>()) || d.equal(py::dtype::of<float>())) {
            a.as_float = true;
        } else if (!d.equal(py::dtype::of<uint8_t>())) {
            throw py::value_error("dtype must be numpy.uint8 or numpy.float32, not " +
                                  std::string(py::str(d)));
        }
    }
    const char* text = PyUnicode_Check(layout.ptr()) ? PyUnicode_AsUTF8(layout.ptr()) : nullptr;
    if (text == nullptr) PyErr_Clear();
    if (text != nullptr && std::strcmp(text, "hwc") == 0) {
        a.hwc = true;
    } else if (text == nullptr || std::strcmp(text, "chw") != 0) {
        throw py::value_error("layout must be 'chw' or 'hwc', not " +
                              std::string(py::repr(layout)));
    }
    if (!letterbox.is_none()) {
        a.letterbox = static_cast<int>(ParseWord(letterbox, "letterbox", 0, 255));
    }
    text = PyUnicode_Check(align.ptr()) ? PyUnicode_AsUTF8(align.ptr()) : nullptr;
    if (text == nullptr) PyErr_Clear();
    a.top_left = text != nullptr && std::strcmp(text, "topleft") == 0;
    if (!a.top_left && (text == nullptr || std::strcmp(text, "centre") != 0)) {
        throw py::value_error("letterbox_align must be 'centre' or 'topleft', not " +
                              std::string(py::repr(align)));
    }
    if ((!mean.is_none() || !std.is_none()) && !a.as_float) {
        throw py::value_error("mean and std need dtype=numpy.float32");
    }
    const size_t n = gray ? 1 : 3;
    const char* what = gray ? "mean (one value for gray)" : "mean";
    a.mean = mean.is_none() ? std::vector<float>(n, 0.f) : Numbers<float>(mean, what, n);
    a.std = std.is_none() ? std::vector<float>(n, 1.f)
                          : Numbers<float>(std, gray ? "std (one value for gray)" : "std", n);
    for (size_t c = 0; c < n; ++c) {
        Finite(a.mean[c], "every mean");
        if (!std::isfinite(a.std[c]) || a.std[c] == 0.f) {
            throw py::value_error("std[" + std::to_string(c) + "] is " +
                                  std::string(py::str(py::float_(a.std[c]))) +
                                  "; it must be finite and non-zero");
        }
    }
    return a;
}

// Through the tensor converter: float or bytes, either layout, letterbox,
// transform. Checks the output, then converts without the GIL.
template <typename T>
py::object ToTensorAs(FrameArg& f, uint32_t ori, const TensorArgs& a,
                      const quvas::kit::TensorOptions& o, bool gray, py::handle out) {
    namespace kit = quvas::kit;
    const py::ssize_t th = o.height, tw = o.width;
    std::vector<py::ssize_t> shape = gray ? std::vector<py::ssize_t>{th, tw}
                                     : a.hwc ? std::vector<py::ssize_t>{th, tw, 3}
                                             : std::vector<py::ssize_t>{3, th, tw};
    CArray<T> result = out.is_none() ? CArray<T>(shape) : OutputArray<T>(out, "out", shape);
    if (!out.is_none()) {
        for (int p = 0; p < (f.planes ? 3 : 1); ++p) {
            CheckNoOverlap(result, f.arrays[p], "out", f.planes ? "a plane" : "frame");
        }
    }
    const FrameView view = MakeView(f, ori, true);
    kit::TensorBuffer buf;
    buf.data = result.mutable_data();
    buf.element = a.as_float ? kit::TensorElement::kFloat32 : kit::TensorElement::kUInt8;
    buf.order = a.hwc ? kit::TensorOrder::kInterleaved : kit::TensorOrder::kPlanar;
    kit::TensorTransform t;
    bool ok;
    {
        py::gil_scoped_release release;
        ok = kit::QV_OnePass_Convert_FrameView_To_Tensor(view, o, buf, &t);
    }
    if (!ok) {
        throw py::value_error("the kit refused the conversion (its reason is logged to the "
                              "'qvn_kit' logger)");
    }
    if (!a.transform) return std::move(result);
    return py::make_tuple(std::move(result), WrapTransform(t));
}

py::object ToTensor(FrameArg& f, uint32_t ori, const TensorArgs& a, int cx, int cy, int cw,
                    int ch, int th, int tw, bool bgr, bool gray, int pad, py::handle out) {
    namespace kit = quvas::kit;
    kit::TensorOptions o;
    o.width = tw;
    o.height = th;
    o.gray = gray;
    o.to_bgr = bgr;
    o.crop_x = cx;
    o.crop_y = cy;
    o.crop_w = cw;
    o.crop_h = ch;
    o.pad_value = static_cast<uint8_t>(pad);
    if (a.letterbox >= 0) {
        o.letterbox = a.top_left ? kit::Letterbox::kTopLeft : kit::Letterbox::kCentre;
        o.letterbox_pad = static_cast<uint8_t>(a.letterbox);
    }
    o.mean = a.mean;
    o.std = a.std;
    if (a.as_float) return ToTensorAs<float>(f, ori, a, o, gray, out);
    return ToTensorAs<uint8_t>(f, ori, a, o, gray, out);
}

py::object Preprocess(py::handle frame, py::handle format, py::handle orient, py::handle crop,
                      py::handle size, bool bgr, bool gray, int pad, bool fast, py::handle out,
                      py::handle matrix, py::handle range, py::handle dtype, py::handle mean,
                      py::handle std, py::handle layout, py::handle letterbox,
                      py::handle letterbox_align, bool transform) {
    LogFlush flush;
    FrameArg f;
    f.fmt = ParseFrameFormat(format, f.yv12);
    const uint32_t ori = ParseOrient(orient, "orient");
    if (gray && bgr) throw py::value_error("bgr and gray exclude each other");
    CheckedInt(pad, "pad", 0, 255);
    if (!PyTuple_Check(frame.ptr())) {
        CheckedArray<uint8_t>(frame, "frame");
    }
    if (!pixfmt::IsViewFrame(f.fmt)) throw py::value_error(NotInputFrameText(f.fmt));
    const TensorArgs targs =
        ReadTensorArgs(dtype, mean, std, layout, letterbox, letterbox_align, transform, gray);
    std::string error = ReadFrameArg(frame, format, matrix, range, f);
    if (!error.empty()) throw py::value_error(error);
    const FrameGeometry& g = f.g;
    // Three-plane frames and frames with a colour description go through the
    // FrameView converter, which is one pass whatever `fast` says (no
    // step-by-step converter takes them).
    const bool use_view = f.fmt == QVN_PIX_FMT_YUV420_A || f.Described();

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
            const int hd = gray || targs.hwc ? 0 : 1;
            th = static_cast<int>(std::min<py::ssize_t>(o.shape(hd), kMaxSide));
            tw = static_cast<int>(std::min<py::ssize_t>(o.shape(hd + 1), kMaxSide));
        }
    }
    // The 4:2:0 colour path resizes the half-size chroma plane to
    // (H / 2, W / 2), which must not be empty.
    if (pixfmt::IsFourTwoZero(f.fmt) && !gray && (th < 2 || tw < 2)) {
        throw py::value_error("size (" + std::to_string(th) + ", " + std::to_string(tw) +
                              ") is too small: a " +
                              (pixfmt::IsTwoPlane(f.fmt) ? "two" : "three") +
                              "-plane frame needs at least (2, 2)");
    }
    CheckBytes(th, tw, gray ? 1 : 4, "size");  // four-byte frames resize in 4 channels
    if (targs.Used()) {
        return ToTensor(f, ori, targs, cx, cy, cw, ch, th, tw, bgr, gray, pad, out);
    }
    std::vector<py::ssize_t> shape =
        gray ? std::vector<py::ssize_t>{th, tw} : std::vector<py::ssize_t>{3, th, tw};
    CArray<uint8_t> result = out.is_none() ? CArray<uint8_t>(shape)
                                           : OutputArray<uint8_t>(out, "out", shape);
    if (!out.is_none()) {
        for (int p = 0; p < (f.planes ? 3 : 1); ++p) {
            CheckNoOverlap(result, f.arrays[p], "out", f.planes ? "a plane" : "frame");
        }
    }
    // Last, once nothing can be refused any more: the copy of a frame (or
    // plane) that cannot be read in place.
    FrameView view;
    QVN_Image image{};
    if (use_view) {
        view = MakeView(f, ori, true);
    } else {
        f.arrays[0] = Contiguous<uint8_t>(f.arrays[0]);
        image = FrameImage(g, f.fmt, ori, f.arrays[0].data());
    }
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
        if (use_view && gray) {
            kit::QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_FrameView_To_Gray8_TensorCPU(
                view, tensor, cx, cy, cw, ch, padv);
        } else if (use_view) {
            kit::QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_FrameView_To_U8_CHW_TensorCPU(
                view, tensor, bgr, cx, cy, cw, ch, padv);
        } else if (gray) {
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
          py::arg("orient") = 0, py::arg("for_input") = true, py::kw_only(),
          py::arg("matrix") = py::none(), py::arg("range") = py::none(),
          "The kit's check of a frame record (Is_Valid_QVN_Image_For_CPU, or\n"
          "Is_Valid_FrameView for the frames preprocess reads through a view), after the\n"
          "check of the array's shape that preprocess makes: a frame preprocess refuses is\n"
          "refused here too. A rejection returns False and logs the reason to the 'qvn_kit'\n"
          "logger; a matrix or range that is no such name raises ValueError.");
    m.def("preprocess", &Preprocess, py::arg("frame"), py::arg("format"), py::arg("orient") = 0,
          py::arg("crop") = py::none(), py::arg("size") = py::none(), py::arg("bgr") = false,
          py::arg("gray") = false, py::arg("pad") = 0, py::arg("fast") = false,
          py::arg("out") = py::none(), py::kw_only(), py::arg("matrix") = py::none(),
          py::arg("range") = py::none(), py::arg("dtype") = py::none(),
          py::arg("mean") = py::none(), py::arg("std") = py::none(), py::arg("layout") = "chw",
          py::arg("letterbox") = py::none(), py::arg("letterbox_align") = "centre",
          py::arg("transform") = false,
          "A camera frame to a network input, through the kit's crop converters.\n\n"
          "frame: uint8 (H * 3 / 2, W) for 'nv12', 'nv21', 'yuv420sp_a', 'yuv420sp_b', and for\n"
          "three-plane 'i420' (Y, U, V planes one after the other) and 'yv12' (Y, V, U);\n"
          "(H, W, 4) for 'bgra', 'rgba'; or, for 'i420', a tuple (y, u, v) of 2-D planes, y\n"
          "(H, W) and u, v (H / 2, W / 2) with halves rounded down or up, as a decoder hands\n"
          "them over (PyAV's frame.planes); 'yv12' takes (y, v, u). Planes are read in\n"
          "place, each with its own row stride; a plane whose rows are not contiguous bytes\n"
          "is copied once. orient: the frame's orientation flags (int 0..127 or names such\n"
          "as 'rotate90r|mirror'), undone by the conversion. crop: (x, y, w, h) in pixels of the\n"
          "upright view, or None for the whole frame; pixels outside the frame read `pad`.\n"
          "size: (H, W) of the result, (256, 256) unless `out` gives it. Returns uint8\n"
          "(3, H, W) planes R,G,B (B,G,R with bgr=True), or (H, W) with gray=True. out: a\n"
          "C-contiguous uint8 array of that shape to write into (e.g. one row of a batch),\n"
          "sharing no memory with the frame.\n"
          "matrix: 'bt601' or 'bt709'; range: 'limited' (Y 16..235, chroma 16..240) or\n"
          "'full'. None keeps the format's own colour for the two-plane formats and, for\n"
          "three-plane frames, takes what players assume of an untagged stream: BT.601 up to\n"
          "576 lines, BT.709 above, limited range. Gray output of a limited-range frame is\n"
          "its luma expanded to full range. 4:2:0 frames only.\n"
          "fast=True runs the one-pass converter: the same bytes, without intermediate\n"
          "tensors. Three-plane frames and frames given a matrix or range always take the\n"
          "one-pass converter, whatever `fast` says.\n\n"
          "dtype=numpy.float32: (b - mean[c]) / std[c] per channel in single precision, b\n"
          "the byte the uint8 result holds there (mean 0 and std 1 unless given; one value\n"
          "each for gray). layout: 'chw' (3, H, W) or 'hwc' (H, W, 3); gray is (H, W).\n"
          "letterbox: a byte 0..255: keep the crop's aspect ratio, fit it inside the tensor\n"
          "and pad the rest with that byte (before normalisation), centred or, with\n"
          "letterbox_align='topleft', at the top-left. transform=True returns (tensor, t),\n"
          "t a TensorTransform mapping points and boxes between frame and tensor. Any of\n"
          "these takes the kit's tensor converter (one pass); `out` then has the result's\n"
          "dtype and shape.");
}

}  // namespace qvnpy
