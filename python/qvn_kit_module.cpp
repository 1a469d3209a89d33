// qvn_kit_module.cpp - the Python module `qvn_kit`: the kit's preprocessing,
// decoding, tracking and re-orientation over NumPy arrays.
//
// Every function checks its arrays completely before it touches an output,
// so a refused call raises TypeError/ValueError and writes nothing. Inputs
// that are C-contiguous and of the right dtype are read in place; anything
// else of the right dtype is made contiguous once. The GIL is released
// around every call into the kit, so a thread pool over frames runs on all
// cores.
//
// The kit reports problems only through the core's log callback, which may
// run on any thread. The callback installed here never touches Python: it
// appends the line to a buffer of the calling thread, and the wrapper hands
// the buffered lines to logging.getLogger("qvn_kit") once it holds the GIL
// again. The kit starts no threads, so every line lands in the buffer of the
// thread that made the call.
//
// Pictures become frames through the command-line tool's own code
// (tools/qvn-kit/frames.cpp, compiled into this module), so a frame made
// here is byte for byte the one `qvn-kit preprocess` makes from a file.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <qvn_kit/qvn_kit.hpp>
#include <quvas/runtime/tensor.h>
#include <quvas/utility/log.h>

#include "common.hpp"
#include "frames.hpp"
#include "image_io.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace py = pybind11;
using quvas::runtime::DeviceCPU;
using quvas::runtime::TensorPtr;
using quvas::runtime::TensorShape;

namespace {

// ---------------------------------------------------------------------------
// Log lines: collected per thread while the GIL is released, emitted after.
// ---------------------------------------------------------------------------

thread_local std::vector<std::string> t_log_lines;

int CollectLogLine(const char* text) {
    t_log_lines.emplace_back(text != nullptr ? text : "");
    return 0;
}

void EmitLogLines() {
    if (t_log_lines.empty()) return;
    std::vector<std::string> lines;
    lines.swap(t_log_lines);
    py::object logger = py::module_::import("logging").attr("getLogger")("qvn_kit");
    // Every line of the kit is an error report (level 16).
    for (const std::string& line : lines) logger.attr("error")("%s", line);
}

// Emits what the kit logged during a wrapper, also when the wrapper throws.
struct LogFlush {
    LogFlush() = default;
    LogFlush(const LogFlush&) = delete;
    LogFlush& operator=(const LogFlush&) = delete;
    ~LogFlush() {
        try {
            EmitLogLines();
        } catch (py::error_already_set& e) {
            e.discard_as_unraisable("qvn_kit log forwarding");
        } catch (...) {
        }
    }
};

// ---------------------------------------------------------------------------
// Argument checks.
// ---------------------------------------------------------------------------

template <typename T>
const char* DtypeName();
template <>
const char* DtypeName<uint8_t>() {
    return "uint8";
}
template <>
const char* DtypeName<float>() {
    return "float32";
}

std::string ShapeText(const py::array& a) {
    std::string s = "(";
    for (py::ssize_t i = 0; i < a.ndim(); ++i) {
        if (i) s += ", ";
        s += std::to_string(a.shape(i));
    }
    if (a.ndim() == 1) s += ",";
    return s + ")";
}

std::string TypeName(py::handle obj) {
    return py::str(py::type::handle_of(obj).attr("__name__"));
}

// A NumPy array of dtype T, C-contiguous (copied once when it is not).
template <typename T>
py::array_t<T, py::array::c_style> InputArray(py::handle obj, const char* name) {
    if (!py::isinstance<py::array>(obj)) {
        throw py::type_error(std::string(name) + " must be a numpy.ndarray of dtype " +
                             DtypeName<T>() + ", not " + TypeName(obj));
    }
    if (!py::isinstance<py::array_t<T>>(obj)) {
        throw py::type_error(std::string(name) + " must have dtype " + DtypeName<T>() +
                             ", not " +
                             std::string(py::str(py::reinterpret_borrow<py::array>(obj).dtype())));
    }
    if (py::detail::check_flags(obj.ptr(), py::array::c_style | py::detail::npy_api::NPY_ARRAY_ALIGNED_)) {
        return py::reinterpret_borrow<py::array_t<T, py::array::c_style>>(obj);
    }
    return py::array_t<T, py::array::c_style>::ensure(obj);
}

// A caller's output array: dtype T, C-contiguous, writeable, exactly `shape`.
// Never copied: the result must land in the caller's memory.
template <typename T>
py::array_t<T, py::array::c_style> OutputArray(py::handle obj, const char* name,
                                              const std::vector<py::ssize_t>& shape) {
    if (!py::isinstance<py::array>(obj)) {
        throw py::type_error(std::string(name) + " must be a numpy.ndarray of dtype " +
                             DtypeName<T>() + ", not " + TypeName(obj));
    }
    py::array a = py::reinterpret_borrow<py::array>(obj);
    if (!py::isinstance<py::array_t<T>>(obj)) {
        throw py::type_error(std::string(name) + " must have dtype " + DtypeName<T>() +
                             ", not " + std::string(py::str(a.dtype())));
    }
    std::string want = "(";
    for (size_t i = 0; i < shape.size(); ++i) want += (i ? ", " : "") + std::to_string(shape[i]);
    want += shape.size() == 1 ? ",)" : ")";
    bool same = a.ndim() == static_cast<py::ssize_t>(shape.size());
    for (size_t i = 0; same && i < shape.size(); ++i) same = a.shape(i) == shape[i];
    if (!same) {
        throw py::value_error(std::string(name) + " must have shape " + want + ", not " +
                              ShapeText(a));
    }
    if (!(a.flags() & py::array::c_style)) {
        throw py::value_error(std::string(name) +
                              " must be C-contiguous: the result is written into it in place");
    }
    if (!a.writeable()) throw py::value_error(std::string(name) + " is read-only");
    return py::reinterpret_borrow<py::array_t<T, py::array::c_style>>(obj);
}

template <typename T>
py::array_t<T> NewArray(const std::vector<py::ssize_t>& shape) {
    return py::array_t<T>(shape);
}

// Pixel format: a name the command-line tool accepts, or the QVN_PIX_FMT value.
uint32_t ParseFormat(py::handle obj, const char* name) {
    if (PyUnicode_Check(obj.ptr())) {
        // The usual lower-case names without building std::strings: this
        // runs on every preprocess call.
        Py_ssize_t len = 0;
        const char* text = PyUnicode_AsUTF8AndSize(obj.ptr(), &len);
        if (text != nullptr && len == 4) {
            if (std::memcmp(text, "nv21", 4) == 0) return QVN_PIX_FMT_YUV420SP_D;
            if (std::memcmp(text, "nv12", 4) == 0) return QVN_PIX_FMT_YUV420SP_C;
            if (std::memcmp(text, "bgra", 4) == 0) return QVN_PIX_FMT_BGRA8888;
            if (std::memcmp(text, "rgba", 4) == 0) return QVN_PIX_FMT_RGBA8888;
        }
        if (text == nullptr) throw py::error_already_set();
        try {
            return qvntool::ParseFrameFormat(obj.cast<std::string>());
        } catch (const qvntool::ToolError& e) {
            throw py::value_error(std::string(name) + ": " + e.what());
        }
    }
    if (py::isinstance<py::int_>(obj) && !py::isinstance<py::bool_>(obj)) {
        long v = obj.cast<long>();
        if (v < 0 || v > 15) {
            throw py::value_error(std::string(name) + " " + std::to_string(v) +
                                  " is not a pixel format value 0..15");
        }
        return static_cast<uint32_t>(v);
    }
    throw py::type_error(std::string(name) + " must be a str such as 'nv21' or an int, not " +
                         TypeName(obj));
}

// Orientation flags: an int 0..127 or names such as "rotate90r|mirror".
uint32_t ParseOrient(py::handle obj, const char* name) {
    if (py::isinstance<py::str>(obj)) {
        try {
            return qvntool::ParseOrientation(obj.cast<std::string>());
        } catch (const qvntool::ToolError& e) {
            throw py::value_error(std::string(name) + ": " + e.what());
        }
    }
    if (py::isinstance<py::int_>(obj) && !py::isinstance<py::bool_>(obj)) {
        long v = obj.cast<long>();
        if (v < 0 || v > 127) {
            throw py::value_error(std::string(name) + " " + std::to_string(v) +
                                  " is out of range 0..127");
        }
        return static_cast<uint32_t>(v);
    }
    throw py::type_error(std::string(name) + " must be an int or a str such as 'rotate90r', not " +
                         TypeName(obj));
}

// A fixed number of numbers from a tuple, list or array.
template <typename T>
std::vector<T> Numbers(py::handle obj, const char* name, size_t count) {
    std::vector<T> out;
    // Tuples, the usual case, without the sequence protocol.
    if (PyTuple_Check(obj.ptr()) && static_cast<size_t>(PyTuple_GET_SIZE(obj.ptr())) == count) {
        try {
            for (size_t i = 0; i < count; ++i) {
                out.push_back(py::handle(PyTuple_GET_ITEM(obj.ptr(), i)).cast<T>());
            }
            return out;
        } catch (const py::cast_error&) {
            out.clear();
        }
    }
    bool ok = !py::isinstance<py::str>(obj) && py::hasattr(obj, "__len__");
    if (ok) {
        try {
            py::sequence seq = py::reinterpret_borrow<py::object>(
                py::isinstance<py::array>(obj) ? obj.attr("ravel")().attr("tolist")() : obj);
            if (py::len(seq) != count) {
                throw py::value_error(std::string(name) + " must hold " + std::to_string(count) +
                                      " numbers, not " + std::to_string(py::len(seq)));
            }
            for (py::handle v : seq) out.push_back(v.cast<T>());
        } catch (const py::cast_error&) {
            ok = false;
        }
    }
    if (!ok) {
        throw py::type_error(std::string(name) + " must be a sequence of " +
                             std::to_string(count) + " numbers, not " + TypeName(obj));
    }
    return out;
}

int CheckedInt(long v, const char* name, long lo, long hi) {
    if (v < lo || v > hi) {
        throw py::value_error(std::string(name) + " " + std::to_string(v) + " is not in " +
                              std::to_string(lo) + ".." + std::to_string(hi));
    }
    return static_cast<int>(v);
}

bool IsTwoPlane(uint32_t fmt) {
    return fmt == QVN_PIX_FMT_YUV420SP_A || fmt == QVN_PIX_FMT_YUV420SP_B ||
           fmt == QVN_PIX_FMT_YUV420SP_C || fmt == QVN_PIX_FMT_YUV420SP_D;
}

bool IsFourByte(uint32_t fmt) {
    return fmt == QVN_PIX_FMT_BGRA8888 || fmt == QVN_PIX_FMT_RGBA8888;
}

constexpr long kMaxSide = 1L << 15;  // keeps every product of two sides in 32 bits

// The kit computes byte counts of whole images in signed 32-bit arithmetic.
void CheckBytes(long h, long w, long c, const char* name) {
    if (h * w * c > 0x7fffffffL) {
        throw py::value_error(std::string(name) + " of " + std::to_string(h) + " x " +
                              std::to_string(w) + " x " + std::to_string(c) +
                              " bytes is larger than 2**31 - 1 bytes");
    }
}

// A camera frame array as the kit's record. Two-plane frames are 2-D,
// (H * 3 / 2, W): the luma rows, then the interleaved chroma rows, as the
// kit lays them out; four-byte frames are (H, W, 4).
struct FrameArg {
    py::array_t<uint8_t, py::array::c_style> array;
    QVN_Image image{};
};

FrameArg ParseFrame(py::handle obj, uint32_t fmt, uint32_t orient) {
    FrameArg f;
    f.array = InputArray<uint8_t>(obj, "frame");
    const py::array& a = f.array;
    int w = 0, h = 0, channels = 1;
    if (IsTwoPlane(fmt)) {
        // (H * 3 / 2) rows with H even: a multiple of 3.
        if (a.ndim() != 2 || a.shape(0) % 3 != 0 || a.shape(0) < 3 || a.shape(1) % 2 != 0 ||
            a.shape(1) < 2) {
            throw py::value_error("frame must have shape (H * 3 / 2, W) with H and W even and "
                                  "positive for a two-plane format, not " + ShapeText(a));
        }
        h = static_cast<int>(std::min<py::ssize_t>(a.shape(0) / 3 * 2, kMaxSide + 1));
        w = static_cast<int>(std::min<py::ssize_t>(a.shape(1), kMaxSide + 1));
    } else if (IsFourByte(fmt)) {
        if (a.ndim() != 3 || a.shape(2) != 4 || a.shape(0) < 1 || a.shape(1) < 1) {
            throw py::value_error("frame must have shape (H, W, 4) for a four-byte format, not " +
                                  ShapeText(a));
        }
        h = static_cast<int>(std::min<py::ssize_t>(a.shape(0), kMaxSide + 1));
        w = static_cast<int>(std::min<py::ssize_t>(a.shape(1), kMaxSide + 1));
        channels = 4;
    } else {
        throw py::value_error("format " + std::to_string(fmt) +
                              " is not an input frame format (use nv12, nv21, bgra, rgba, "
                              "yuv420sp_a or yuv420sp_b)");
    }
    if (w > kMaxSide || h > kMaxSide) {
        throw py::value_error("frame of shape " + ShapeText(a) + " is larger than " +
                              std::to_string(kMaxSide) + " pixels on a side");
    }
    CheckBytes(h, w, channels == 4 ? 4 : 2, "frame");
    f.image.ori_fmt = orient;
    f.image.pix_fmt = fmt;
    f.image.width = w;
    f.image.height = h;
    f.image.channels = channels;
    f.image.rect = QVN_Rect2D{0.f, 0.f, 1.f, 1.f};
    f.image.data = const_cast<uint8_t*>(f.array.data());
    return f;
}

// A packed image: (H, W) is one byte a pixel, (H, W, C) C bytes a pixel.
struct ImageArg {
    py::array_t<uint8_t, py::array::c_style> array;
    int w = 0, h = 0, c = 0;
};

ImageArg ParseImage(py::handle obj, const char* name, int max_channels) {
    ImageArg img;
    img.array = InputArray<uint8_t>(obj, name);
    const py::array& a = img.array;
    if (a.ndim() != 2 && a.ndim() != 3) {
        throw py::value_error(std::string(name) + " must have shape (H, W) or (H, W, C), not " +
                              ShapeText(a));
    }
    py::ssize_t c = a.ndim() == 3 ? a.shape(2) : 1;
    if (a.shape(0) < 1 || a.shape(1) < 1 || c < 1 || c > max_channels) {
        throw py::value_error(std::string(name) + " must have shape (H, W) or (H, W, C) with " +
                              "H, W >= 1 and 1 <= C <= " + std::to_string(max_channels) +
                              ", not " + ShapeText(a));
    }
    if (a.shape(0) > kMaxSide || a.shape(1) > kMaxSide) {
        throw py::value_error(std::string(name) + " of shape " + ShapeText(a) +
                              " is larger than " + std::to_string(kMaxSide) +
                              " pixels on a side");
    }
    img.h = static_cast<int>(a.shape(0));
    img.w = static_cast<int>(a.shape(1));
    img.c = static_cast<int>(c);
    CheckBytes(img.h, img.w, img.c, name);
    return img;
}

std::vector<py::ssize_t> ImageShape(int h, int w, int c, bool planar2d) {
    if (planar2d) return {h, w};
    return {h, w, c};
}

// ---------------------------------------------------------------------------
// Frames and pictures (the command-line tool's code).
// ---------------------------------------------------------------------------

py::array MakeFrame(py::handle picture, py::handle format, bool bgr) {
    LogFlush flush;
    uint32_t fmt = ParseFormat(format, "format");
    if (fmt != QVN_PIX_FMT_YUV420SP_C && fmt != QVN_PIX_FMT_YUV420SP_D && !IsFourByte(fmt)) {
        throw py::value_error("format: a picture becomes an nv12, nv21, bgra or rgba frame, "
                              "not format " + std::to_string(fmt));
    }
    auto a = InputArray<uint8_t>(picture, "picture");
    py::ssize_t c = a.ndim() == 3 ? a.shape(2) : 1;
    if ((a.ndim() != 2 && a.ndim() != 3) || (c != 1 && c != 3 && c != 4) || a.shape(0) < 1 ||
        a.shape(1) < 1) {
        throw py::value_error("picture must have shape (H, W), (H, W, 3) or (H, W, 4), not " +
                              ShapeText(a));
    }
    if (a.shape(0) > kMaxSide || a.shape(1) > kMaxSide) {
        throw py::value_error("picture of shape " + ShapeText(a) + " is larger than " +
                              std::to_string(kMaxSide) + " pixels on a side");
    }
    const int h = static_cast<int>(a.shape(0)), w = static_cast<int>(a.shape(1));
    if (bgr && c == 1) throw py::value_error("bgr=True needs a picture with 3 or 4 channels");
    // Two-plane frames need even sides: like the tool, an odd picture gets its
    // last column and/or row repeated (done here, so that the tool's code,
    // which would note it on stderr, sees an even picture).
    const int ew = IsFourByte(fmt) ? w : w + (w & 1), eh = IsFourByte(fmt) ? h : h + (h & 1);
    std::vector<py::ssize_t> shape = IsFourByte(fmt) ? std::vector<py::ssize_t>{h, w, 4}
                                                     : std::vector<py::ssize_t>{eh / 2 * 3, ew};
    py::array_t<uint8_t> out = NewArray<uint8_t>(shape);
    uint8_t* dst = out.mutable_data();
    const uint8_t* src = a.data();
    {
        py::gil_scoped_release release;
        qvntool::Picture pic(ew, eh, static_cast<int>(c));
        const size_t row = static_cast<size_t>(w) * c, erow = static_cast<size_t>(ew) * c;
        for (int y = 0; y < eh; ++y) {
            uint8_t* d = pic.pixels.data() + static_cast<size_t>(y) * erow;
            std::memcpy(d, src + static_cast<size_t>(std::min(y, h - 1)) * row, row);
            if (ew != w) std::memcpy(d + row, d + row - c, static_cast<size_t>(c));
        }
        if (bgr) {
            for (size_t i = 0; i < pic.pixels.size(); i += static_cast<size_t>(c)) {
                std::swap(pic.pixels[i], pic.pixels[i + 2]);
            }
        }
        qvntool::Frame frame;
        qvntool::PictureToFrame(pic, fmt, 0, frame);
        std::memcpy(dst, frame.bytes.data(), frame.bytes.size());
    }
    return std::move(out);
}

py::array ReadPicture(const std::string& path) {
    LogFlush flush;
    qvntool::Picture pic;
    std::string error;
    {
        py::gil_scoped_release release;
        try {
            pic = qvntool::ReadPicture(path);
        } catch (const qvntool::ToolError& e) {
            error = e.what();
        }
    }
    if (!error.empty()) throw py::value_error(error);
    py::array_t<uint8_t> out = NewArray<uint8_t>(ImageShape(pic.height, pic.width, pic.channels,
                                                             pic.channels == 1));
    std::memcpy(out.mutable_data(), pic.pixels.data(), pic.pixels.size());
    return std::move(out);
}

bool ValidateFrame(py::handle frame, py::handle format, py::handle orient, bool for_input) {
    LogFlush flush;
    uint32_t fmt = ParseFormat(format, "format");
    uint32_t ori = ParseOrient(orient, "orient");
    auto a = InputArray<uint8_t>(frame, "frame");
    QVN_Image img{};
    img.ori_fmt = ori;
    img.pix_fmt = fmt;
    img.channels = a.ndim() == 3 ? static_cast<int>(a.shape(2)) : 1;
    img.rect = QVN_Rect2D{0.f, 0.f, 1.f, 1.f};
    img.data = a.size() > 0 ? const_cast<uint8_t*>(a.data()) : nullptr;
    if (a.ndim() >= 2) {
        py::ssize_t rows = IsTwoPlane(fmt) ? a.shape(0) / 3 * 2 : a.shape(0);
        img.height = static_cast<int>(std::min<py::ssize_t>(rows, kMaxSide + 1));
        img.width = static_cast<int>(std::min<py::ssize_t>(a.shape(1), kMaxSide + 1));
    }
    bool ok;
    {
        py::gil_scoped_release release;
        ok = quvas::kit::Is_Valid_QVN_Image_For_CPU(&img, for_input);
    }
    return ok;
}

// ---------------------------------------------------------------------------
// Frame to network input.
// ---------------------------------------------------------------------------

py::array Preprocess(py::handle frame, py::handle format, py::handle orient, py::handle crop,
                     py::handle size, bool bgr, bool gray, int pad, bool fast, py::handle out) {
    LogFlush flush;
    const uint32_t fmt = ParseFormat(format, "format");
    const uint32_t ori = ParseOrient(orient, "orient");
    if (gray && bgr) throw py::value_error("bgr and gray exclude each other");
    CheckedInt(pad, "pad", 0, 255);
    FrameArg f = ParseFrame(frame, fmt, ori);

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
    if (IsTwoPlane(fmt) && !gray && (th < 2 || tw < 2)) {
        throw py::value_error("size (" + std::to_string(th) + ", " + std::to_string(tw) +
                              ") is too small: a two-plane frame needs at least (2, 2)");
    }
    CheckBytes(th, tw, gray ? 1 : 4, "size");  // four-byte frames resize in 4 channels
    std::vector<py::ssize_t> shape =
        gray ? std::vector<py::ssize_t>{th, tw} : std::vector<py::ssize_t>{3, th, tw};
    py::array_t<uint8_t, py::array::c_style> result =
        out.is_none() ? py::array_t<uint8_t, py::array::c_style>(shape)
                      : OutputArray<uint8_t>(out, "out", shape);
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
                &f.image, tensor, cx, cy, cw, ch, padv);
        } else {
            (fast ? kit::QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU
                  : kit::QV_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU)(
                &f.image, tensor, bgr, cx, cy, cw, ch, padv);
        }
    }
    return std::move(result);
}

// ---------------------------------------------------------------------------
// Image turns and warps.
// ---------------------------------------------------------------------------

py::array RotateImage(py::handle image, int angle) {
    LogFlush flush;
    ImageArg img = ParseImage(image, "image", 64);
    if (angle != 0 && angle != 90 && angle != 180 && angle != 270) {
        throw py::value_error("angle must be 0, 90, 180 or 270, not " + std::to_string(angle));
    }
    const bool quarter = angle == 90 || angle == 270;
    const int ow = quarter ? img.h : img.w, oh = quarter ? img.w : img.h;
    py::array_t<uint8_t> out = NewArray<uint8_t>(ImageShape(oh, ow, img.c, img.array.ndim() == 2));
    QVN_Image src{}, dst{};
    src.width = img.w;
    src.height = img.h;
    src.channels = img.c;
    src.rect = QVN_Rect2D{0.f, 0.f, 1.f, 1.f};
    src.data = const_cast<uint8_t*>(img.array.data());
    dst = src;
    dst.data = out.mutable_data();
    {
        py::gil_scoped_release release;
        QVN_Clockwise_Rotate_Image_CPU(&src, &dst, angle);
    }
    return std::move(out);
}

template <int32_t (*Fn)(const QVN_Image*, QVN_Image*)>
py::array FlipImage(py::handle image) {
    LogFlush flush;
    ImageArg img = ParseImage(image, "image", 64);
    py::array_t<uint8_t> out = NewArray<uint8_t>(ImageShape(img.h, img.w, img.c,
                                                             img.array.ndim() == 2));
    QVN_Image src{};
    src.width = img.w;
    src.height = img.h;
    src.channels = img.c;
    src.rect = QVN_Rect2D{0.f, 0.f, 1.f, 1.f};
    src.data = const_cast<uint8_t*>(img.array.data());
    QVN_Image dst = src;
    dst.data = out.mutable_data();
    {
        py::gil_scoped_release release;
        Fn(&src, &dst);
    }
    return std::move(out);
}

py::array Warp(py::handle image, py::handle matrix, py::handle size, int border, bool vector) {
    LogFlush flush;
    ImageArg img = ParseImage(image, "image", 4);
    std::vector<float> m = Numbers<float>(matrix, "matrix", 6);
    std::vector<long> s = Numbers<long>(size, "size", 2);
    const int oh = CheckedInt(s[0], "size height", 1, kMaxSide);
    const int ow = CheckedInt(s[1], "size width", 1, kMaxSide);
    CheckedInt(border, "border", 0, 255);
    CheckBytes(oh, ow, img.c, "size");
    // Zeroed: the one-channel vector kernel leaves outside pixels as they
    // were when the border is 0.
    py::array_t<uint8_t> out = py::array_t<uint8_t>(ImageShape(oh, ow, img.c, img.array.ndim() == 2));
    std::memset(out.mutable_data(), 0, static_cast<size_t>(out.size()));
    const uint8_t* src = img.array.data();
    uint8_t* dst = out.mutable_data();
    const int c = img.c, w = img.w, h = img.h;
    {
        py::gil_scoped_release release;
        if (vector) {
            const unsigned word = static_cast<unsigned>(border) * 0x01010101u;
            auto fn = c == 1   ? quvas::kit::warpaffine_linear_SSE_C1
                      : c == 2 ? quvas::kit::warpaffine_linear_SSE_C2
                      : c == 3 ? quvas::kit::warpaffine_linear_SSE_C3
                               : quvas::kit::warpaffine_linear_SSE_C4;
            fn(h, w, w * c, c, oh, ow, ow * c, dst, src, m.data(), word);
        } else {
            auto fn = c == 1   ? quvas::kit::affine_inv_image_bilinear_c1
                      : c == 2 ? quvas::kit::affine_inv_image_bilinear_c2
                      : c == 3 ? quvas::kit::affine_inv_image_bilinear_c3
                               : quvas::kit::affine_inv_image_bilinear_c4;
            fn(src, w, h, dst, ow, oh, static_cast<unsigned char>(border), m.data());
        }
    }
    return std::move(out);
}

// ---------------------------------------------------------------------------
// Geometry.
// ---------------------------------------------------------------------------

py::array AffineMatrix(py::handle orient, int width, int height, bool inverse) {
    LogFlush flush;
    // The matrices switch on the whole word, so any 32-bit value is accepted.
    unsigned ori = 0;
    if (py::isinstance<py::int_>(orient) && !py::isinstance<py::bool_>(orient)) {
        long long v = orient.cast<long long>();
        if (v < 0 || v > 0xffffffffLL) throw py::value_error("orient must fit 32 unsigned bits");
        ori = static_cast<unsigned>(v);
    } else {
        ori = ParseOrient(orient, "orient");
    }
    std::vector<float> m(6, 0.f);
    if (inverse) {
        quvas::kit::getAffineTransformInv(ori, width, height, m);  // empties m, writes its storage
    } else {
        quvas::kit::getAffineTransform(ori, width, height, m);
    }
    py::array_t<float> out = NewArray<float>({2, 3});
    std::memcpy(out.mutable_data(), m.data(), 6 * sizeof(float));
    return std::move(out);
}

py::tuple RectifyBox(py::handle orient, py::handle box) {
    uint32_t ori = ParseOrient(orient, "orient");
    std::vector<float> b = Numbers<float>(box, "box", 4);
    quvas::kit::Cropbox_Rectify(static_cast<QVN_ORIENT_FMT>(ori), b[0], b[1], b[2], b[3]);
    return py::make_tuple(b[0], b[1], b[2], b[3]);
}

py::tuple RectifyCrop(py::handle orient, py::handle frame_size, py::handle box, bool normalized) {
    LogFlush flush;
    uint32_t ori = ParseOrient(orient, "orient");
    std::vector<long> s = Numbers<long>(frame_size, "frame_size", 2);
    std::vector<float> b = Numbers<float>(box, "box", 4);
    QVN_Image img{};
    img.ori_fmt = ori;
    img.height = CheckedInt(s[0], "frame_size height", 1, kMaxSide);
    img.width = CheckedInt(s[1], "frame_size width", 1, kMaxSide);
    quvas::kit::Cropbox_Rectify(&img, normalized, b[0], b[1], b[2], b[3]);
    return py::make_tuple(b[0], b[1], b[2], b[3]);
}

py::array CropResizeInverse(py::handle crop, py::handle size) {
    std::vector<float> c = Numbers<float>(crop, "crop", 4);
    std::vector<float> s = Numbers<float>(size, "size", 2);
    py::array_t<float> out = NewArray<float>({3, 3});
    // size is (H, W) like every size of this module; the kit takes W, H.
    quvas::kit::cal_crop_resize_inv_float_param(c[0], c[1], c[2], c[3], s[1], s[0],
                                                out.mutable_data());
    return std::move(out);
}

// ---------------------------------------------------------------------------
// Network outputs.
// ---------------------------------------------------------------------------

py::array Mask(py::handle values, bool sigmoid, py::handle out) {
    LogFlush flush;
    auto in = InputArray<float>(values, "values");
    if (in.size() > (1L << 30)) throw py::value_error("values holds more than 2**30 elements");
    std::vector<py::ssize_t> shape(in.shape(), in.shape() + in.ndim());
    py::array_t<uint8_t, py::array::c_style> result =
        out.is_none() ? py::array_t<uint8_t, py::array::c_style>(shape)
                      : OutputArray<uint8_t>(out, "out", shape);
    const int n = static_cast<int>(in.size());
    const float* src = in.data();
    uint8_t* dst = result.mutable_data();
    {
        py::gil_scoped_release release;
        auto fn = sigmoid ? quvas::kit::sigmoid_float01toUchar0255SSE
                          : quvas::kit::float01toUchar0255SSE;
        // The kernels read and write whole blocks of 16. The blocks that lie
        // inside the arrays run in place; the last n % 16 values go through
        // a padded copy, where the kernel computes all of them by its tail
        // rule, exactly as it would at the end of the full array.
        const int body = n - n % 16;
        if (body > 0) fn(src, dst, body);
        if (n % 16 != 0) {
            alignas(16) float tail_in[16] = {};
            alignas(16) unsigned char tail_out[16] = {};
            std::memcpy(tail_in, src + body, static_cast<size_t>(n - body) * sizeof(float));
            fn(tail_in, tail_out, n - body);
            std::memcpy(dst + body, tail_out, static_cast<size_t>(n - body));
        }
    }
    return std::move(result);
}

py::array Softmax(py::handle values) {
    auto in = InputArray<float>(values, "values");
    if (in.size() > (1L << 30)) throw py::value_error("values holds more than 2**30 elements");
    std::vector<py::ssize_t> shape(in.shape(), in.shape() + in.ndim());
    py::array_t<float> out = NewArray<float>(shape);
    const float* src = in.data();
    float* dst = out.mutable_data();
    const int n = static_cast<int>(in.size());
    {
        py::gil_scoped_release release;
        quvas::kit::softmax_float(src, dst, n);
    }
    return std::move(out);
}

py::tuple RectTuple(const QVN_Rect2D& r) { return py::make_tuple(r.x0, r.y0, r.x1, r.y1); }

QVN_Rect2D RectArg(py::handle box) {
    std::vector<float> b = Numbers<float>(box, "box", 4);
    return QVN_Rect2D{b[0], b[1], b[2], b[3]};
}

// Heatmap decoder. One decoder is used by one thread at a time: the lock
// keeps two Python threads from sharing its result arrays.
class PySoftArgMax {
public:
    PySoftArgMax(int width, int height, int channels, float beta) {
        CheckedInt(width, "width", 2, kMaxSide);
        CheckedInt(height, "height", 2, kMaxSide);
        CheckedInt(channels, "channels", 1, 1 << 16);
        if (static_cast<long>(width) * height * channels > (1L << 28)) {
            throw py::value_error("width * height * channels must not exceed 2**28");
        }
        decoder_ = std::make_unique<quvas::kit::SoftArgMax>(width, height, channels, beta);
    }

    enum Variant { kPlain, kVariance, kVarianceVector, kDeviationVector };

    py::tuple Decode(py::handle heatmaps, Variant variant) {
        LogFlush flush;
        auto in = InputArray<float>(heatmaps, "heatmaps");
        const int c = decoder_->channels, h = decoder_->height, w = decoder_->width;
        if (in.ndim() != 3 || in.shape(0) != c || in.shape(1) != h || in.shape(2) != w) {
            throw py::value_error("heatmaps must have shape (" + std::to_string(c) + ", " +
                                  std::to_string(h) + ", " + std::to_string(w) + "), not " +
                                  ShapeText(in));
        }
        if ((variant == kVarianceVector || variant == kDeviationVector) && w % 4 != 0) {
            throw py::value_error("the vector decoders need a heatmap width that is a multiple "
                                  "of 4, not " + std::to_string(w));
        }
        py::array_t<float> points = NewArray<float>({c, 2});
        py::array_t<float> confidence = NewArray<float>({c});
        float* p = points.mutable_data();
        float* conf = confidence.mutable_data();
        const float* data = in.data();
        {
            py::gil_scoped_release release;
            std::lock_guard<std::mutex> lock(mutex_);
            quvas::kit::SoftArgMax& d = *decoder_;
            switch (variant) {
                case kPlain: d.Decode_CHW_F32(data, c, h, w); break;
                case kVariance: d.Decode_WithConfidenceNoSqrt_CHW_F32(data, c, h, w); break;
                case kVarianceVector:
                    d.Decode_WithConfidenceNoSqrt_CHW_F32_SSE(data, c, h, w);
                    break;
                case kDeviationVector: d.Decode_WithConfidence_CHW_F32_SSE(data, c, h, w); break;
            }
            for (int i = 0; i < c; ++i) {
                p[2 * i] = d.x_out[i];
                p[2 * i + 1] = d.y_out[i];
                conf[i] = d.confidence[i];
            }
        }
        return py::make_tuple(std::move(points), std::move(confidence));
    }

    int width() const { return decoder_->width; }
    int height() const { return decoder_->height; }
    int channels() const { return decoder_->channels; }
    float beta() const { return decoder_->beta; }

private:
    std::unique_ptr<quvas::kit::SoftArgMax> decoder_;
    std::mutex mutex_;
};

// Box trackers over normalised (x, y, w, h) boxes.
template <typename Tracker>
class PyTracker {
public:
    PyTracker(int width, int height, const quvas::kit::QVTBoxTrackerParams& params) {
        CheckedInt(width, "width", 1, 1 << 24);
        CheckedInt(height, "height", 1, 1 << 24);
        if (!(params.frequency > 0.f)) throw py::value_error("frequency must be positive");
        params_ = std::make_shared<quvas::kit::QVTBoxTrackerParams>(params);
        tracker_ = std::make_unique<Tracker>(width, height, params_);
    }

    void Init(py::handle box) {
        std::vector<float> b = Numbers<float>(box, "box", 4);
        py::gil_scoped_release release;
        std::lock_guard<std::mutex> lock(mutex_);
        tracker_->init(b[0], b[1], b[2], b[3]);
        started_ = true;
    }

    py::array Track(py::handle box) {
        std::vector<float> b = Numbers<float>(box, "box", 4);
        RequireStarted();
        {
            py::gil_scoped_release release;
            std::lock_guard<std::mutex> lock(mutex_);
            tracker_->track(&b[0], &b[1], &b[2], &b[3]);
        }
        return Box(b);
    }

    py::array Predict() {
        std::vector<float> b(4, 0.f);
        RequireStarted();
        {
            py::gil_scoped_release release;
            std::lock_guard<std::mutex> lock(mutex_);
            tracker_->predict(&b[0], &b[1], &b[2], &b[3]);
        }
        return Box(b);
    }

    const quvas::kit::QVTBoxTrackerParams& params() const { return *params_; }

private:
    void RequireStarted() {
        // The kit's trackers have no filter before init(): using one would crash.
        if (!started_) throw py::value_error("call init(box) before track() or predict()");
    }
    static py::array Box(const std::vector<float>& b) {
        py::array_t<float> out = NewArray<float>({4});
        std::memcpy(out.mutable_data(), b.data(), 4 * sizeof(float));
        return std::move(out);
    }

    std::shared_ptr<quvas::kit::QVTBoxTrackerParams> params_;
    std::unique_ptr<Tracker> tracker_;
    std::mutex mutex_;
    bool started_ = false;
};

using PyKalman = PyTracker<quvas::kit::QVTBoxKalmanTracker>;
using PyOneEuro = PyTracker<quvas::kit::QVTBoxOneEuroTracker>;

// ---------------------------------------------------------------------------
// Result re-orientation: (N, 4) boxes and (N, 2) points, normalised.
// ---------------------------------------------------------------------------

enum class Turn { kRotate, kMirror, kFlipV };

int CheckAngle(int angle) {
    if (angle != 0 && angle != 90 && angle != 180 && angle != 270 && angle != 360) {
        throw py::value_error("angle must be 0, 90, 180, 270 or 360, not " +
                              std::to_string(angle));
    }
    return angle;
}

py::array_t<float, py::array::c_style> RowsArg(py::handle obj, const char* name, int cols) {
    auto a = InputArray<float>(obj, name);
    if (a.ndim() != 2 || a.shape(1) != cols) {
        throw py::value_error(std::string(name) + " must have shape (N, " + std::to_string(cols) +
                              "), not " + ShapeText(a));
    }
    if (a.shape(0) > (1L << 30)) throw py::value_error(std::string(name) + " has too many rows");
    return a;
}

py::array TurnBoxes(py::handle boxes, Turn turn, int angle) {
    LogFlush flush;
    auto in = RowsArg(boxes, "boxes", 4);
    if (turn == Turn::kRotate) CheckAngle(angle);
    py::array_t<float> out = NewArray<float>({in.shape(0), 4});
    std::memcpy(out.mutable_data(), in.data(), static_cast<size_t>(in.size()) * sizeof(float));
    QVN_ObjCountDataArr arr{};
    arr.count = static_cast<int32_t>(in.shape(0));
    arr.objRectArr = reinterpret_cast<QVN_Rect2D*>(out.mutable_data());
    {
        py::gil_scoped_release release;
        if (turn == Turn::kRotate) QVN_ObjCountDataArr_Result_Rotate(&arr, angle);
        if (turn == Turn::kMirror) QVN_ObjCountDataArr_Result_Mirror(&arr);
        if (turn == Turn::kFlipV) QVN_ObjCountDataArr_Result_FlipV(&arr);
    }
    arr.objRectArr = nullptr;  // the array is NumPy's, not the record's
    return std::move(out);
}

py::array TurnPoints(py::handle points, Turn turn, int angle) {
    LogFlush flush;
    auto in = RowsArg(points, "points", 2);
    if (turn == Turn::kRotate) CheckAngle(angle);
    const size_t n = static_cast<size_t>(in.shape(0));
    py::array_t<float> out = NewArray<float>({in.shape(0), 2});
    const float* src = in.data();
    float* dst = out.mutable_data();
    {
        py::gil_scoped_release release;
        // Points travel as the key points of body records, 35 a body.
        auto arr = std::make_unique<QVN_BodyFrameDataArr>();
        const size_t per_record = QVN_BODY_LANDMARK_NUM * QVN_MAX_BODY_NUM;
        for (size_t start = 0; start < n; start += per_record) {
            const size_t count = std::min(per_record, n - start);
            std::memset(arr.get(), 0, sizeof(QVN_BodyFrameDataArr));
            arr->count = static_cast<uint32_t>((count + QVN_BODY_LANDMARK_NUM - 1) /
                                               QVN_BODY_LANDMARK_NUM);
            for (size_t i = 0; i < count; ++i) {
                QVN_Body& body = arr->bodies[i / QVN_BODY_LANDMARK_NUM];
                body.landmarks[i % QVN_BODY_LANDMARK_NUM] =
                    QVN_Point2D{src[2 * (start + i)], src[2 * (start + i) + 1]};
                body.landmarksNum = static_cast<uint32_t>(i % QVN_BODY_LANDMARK_NUM + 1);
            }
            if (turn == Turn::kRotate) QVN_BodyFrameDataArr_Result_Rotate(arr.get(), angle);
            if (turn == Turn::kMirror) QVN_BodyFrameDataArr_Result_Mirror(arr.get());
            if (turn == Turn::kFlipV) QVN_BodyFrameDataArr_Result_FlipV(arr.get());
            for (size_t i = 0; i < count; ++i) {
                const QVN_Point2D& p =
                    arr->bodies[i / QVN_BODY_LANDMARK_NUM].landmarks[i % QVN_BODY_LANDMARK_NUM];
                dst[2 * (start + i)] = p.x;
                dst[2 * (start + i) + 1] = p.y;
            }
        }
    }
    return std::move(out);
}

}  // namespace

PYBIND11_MODULE(qvn_kit, m) {
    m.doc() =
        "The device's exact preprocessing and decoding over NumPy arrays.\n\n"
        "Every function gives, byte for byte, what libqvn_kit gives the device. Arrays are\n"
        "read in place when C-contiguous; results are new arrays unless `out` is given.\n"
        "Sizes are (height, width). Library log lines go to logging.getLogger('qvn_kit').";

    QVN_SetLogCallback(&CollectLogLine);

    uint32_t kit_major = 0, kit_minor = 0;
    QVN_GetKitVersion(&kit_major, &kit_minor);
    unsigned core_major = 0, core_minor = 0;
    QVN_Get_Core_Version(core_major, core_minor);
    m.attr("__version__") = QVN_PYTHON_VERSION;
    m.attr("kit_version") = py::make_tuple(kit_major, kit_minor);
    m.attr("core_version") = py::make_tuple(core_major, core_minor);

    m.def("read_picture", &ReadPicture, py::arg("path"),
          "Read a PNG or JPEG with the command-line tool's reader: uint8 (H, W) gray,\n"
          "(H, W, 3) R,G,B or (H, W, 4) R,G,B,A. ValueError with the tool's message\n"
          "when the file is missing, unreadable or malformed.");
    m.def("make_frame", &MakeFrame, py::arg("picture"), py::arg("format") = "nv21",
          py::arg("bgr") = false,
          "A camera frame made from a uint8 picture exactly as `qvn-kit preprocess` makes it.\n\n"
          "picture: (H, W) gray, (H, W, 3) R,G,B or (H, W, 4) R,G,B,A; bgr=True reads the\n"
          "colour channels as B,G,R. format: 'nv12' or 'nv21' give (H * 3 / 2, W) (luma rows,\n"
          "then interleaved chroma rows; an odd picture gets its last column or row repeated,\n"
          "as the tool does), 'bgra' or 'rgba' give (H, W, 4).");
    m.def("validate_frame", &ValidateFrame, py::arg("frame"), py::arg("format"),
          py::arg("orient") = 0, py::arg("for_input") = true,
          "The kit's check of a frame record (Is_Valid_QVN_Image_For_CPU). A rejection\n"
          "returns False and logs the kit's reason to the 'qvn_kit' logger.");
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
          "C-contiguous uint8 array of that shape to write into (e.g. one row of a batch).\n"
          "fast=True runs the one-pass converter: the same bytes, without intermediate tensors.");
    m.def("rotate", &RotateImage, py::arg("image"), py::arg("angle"),
          "Turn a packed uint8 image (H, W) or (H, W, C) clockwise by 0, 90, 180 or 270 degrees.");
    m.def("mirror", &FlipImage<QVN_Mirror_Image_CPU>, py::arg("image"),
          "Mirror a packed uint8 image (H, W) or (H, W, C) left to right.");
    m.def("flip_v", &FlipImage<QVN_FlipV_Image_CPU>, py::arg("image"),
          "Flip a packed uint8 image (H, W) or (H, W, C) top to bottom.");
    m.def("warp", &Warp, py::arg("image"), py::arg("matrix"), py::arg("size"),
          py::arg("border") = 0, py::arg("vector") = false,
          "Bilinear warp of a uint8 image (H, W) or (H, W, C), C <= 4, through an inverse\n"
          "2x3 matrix (destination pixel -> source point) into `size` (H, W). Outside pixels\n"
          "read `border` (0..255, every channel). vector=True uses the fixed-point AVX2\n"
          "kernels, whose results differ slightly from the scalar ones.");
    m.def("affine_matrix", &AffineMatrix, py::arg("orient"), py::arg("width"),
          py::arg("height"), py::arg("inverse") = false,
          "The 2x3 float32 matrix of an orientation value for a frame of width x height\n"
          "(getAffineTransform / getAffineTransformInv).");
    m.def("rectify_box", &RectifyBox, py::arg("orient"), py::arg("box"),
          "A normalised box (x0, y0, x1, y1) of the frame's view mapped to the upright view\n"
          "for orientation flags `orient` (Cropbox_Rectify by orientation).");
    m.def("rectify_crop", &RectifyCrop, py::arg("orient"), py::arg("frame_size"),
          py::arg("box"), py::arg("normalized") = false,
          "The bounding box of (x0, y0, x1, y1) turned by the matrix of `orient` for a frame\n"
          "of frame_size (H, W): what the converters do with a crop (Cropbox_Rectify).");
    m.def("crop_resize_inverse", &CropResizeInverse, py::arg("crop"), py::arg("size"),
          "3x3 float32 matrix taking a pixel of a crop (x, y, w, h) resized to size (H, W)\n"
          "back to the frame.");
    m.def("mask", &Mask, py::arg("values"), py::arg("sigmoid") = false,
          py::arg("out") = py::none(),
          "float32 values (any shape) to uint8 bytes 0..255 of the same shape;\n"
          "sigmoid=True applies the logistic function first (raw scores).");
    m.def("softmax", &Softmax, py::arg("values"),
          "Softmax over all elements of a float32 array (no max shift, as on the device).");
    m.def(
        "extend_box",
        [](py::handle box, float scale) {
            return RectTuple(quvas::kit::extend_bbox(RectArg(box), scale));
        },
        py::arg("box"), py::arg("scale"),
        "The square of side max(w, h) * scale about the centre of box (x0, y0, x1, y1).");
    m.def(
        "adjust_box",
        [](py::handle box, float top, float bottom, float left, float right, float scale_x,
           float scale_y) {
            return RectTuple(quvas::kit::adjust_bbox(RectArg(box), top, bottom, left, right,
                                                     scale_x, scale_y));
        },
        py::arg("box"), py::arg("top"), py::arg("bottom"), py::arg("left"), py::arg("right"),
        py::arg("scale_x"), py::arg("scale_y"),
        "Pad box (x0, y0, x1, y1) by fractions of its size, snap to whole units and scale\n"
        "the square about its centre (adjust_bbox).");

    m.def(
        "rotate_boxes", [](py::handle b, int angle) { return TurnBoxes(b, Turn::kRotate, angle); },
        py::arg("boxes"), py::arg("angle"),
        "float32 (N, 4) normalised boxes (x0, y0, x1, y1) turned clockwise by 0/90/180/270/360.");
    m.def(
        "mirror_boxes", [](py::handle b) { return TurnBoxes(b, Turn::kMirror, 0); },
        py::arg("boxes"), "float32 (N, 4) normalised boxes mirrored left to right.");
    m.def(
        "flip_v_boxes", [](py::handle b) { return TurnBoxes(b, Turn::kFlipV, 0); },
        py::arg("boxes"), "float32 (N, 4) normalised boxes flipped top to bottom.");
    m.def(
        "rotate_points",
        [](py::handle p, int angle) { return TurnPoints(p, Turn::kRotate, angle); },
        py::arg("points"), py::arg("angle"),
        "float32 (N, 2) normalised points turned clockwise by 0/90/180/270/360.");
    m.def(
        "mirror_points", [](py::handle p) { return TurnPoints(p, Turn::kMirror, 0); },
        py::arg("points"), "float32 (N, 2) normalised points mirrored left to right.");
    m.def(
        "flip_v_points", [](py::handle p) { return TurnPoints(p, Turn::kFlipV, 0); },
        py::arg("points"), "float32 (N, 2) normalised points flipped top to bottom.");

    py::class_<PySoftArgMax>(m, "SoftArgMax",
                             "Keypoint heatmap decoder for one heatmap shape (C, H, W).")
        .def(py::init<int, int, int, float>(), py::arg("width"), py::arg("height"),
             py::arg("channels"), py::arg("beta") = 1.0f)
        .def(
            "decode",
            [](PySoftArgMax& d, py::handle h) { return d.Decode(h, PySoftArgMax::kPlain); },
            py::arg("heatmaps"),
            "float32 (C, H, W) heatmaps to points (C, 2) in -1..1 and confidences (C,), all 1.")
        .def(
            "decode_with_variance",
            [](PySoftArgMax& d, py::handle h) { return d.Decode(h, PySoftArgMax::kVariance); },
            py::arg("heatmaps"),
            "Points and the weighted variance of the distance from them (scalar decoder).")
        .def(
            "decode_with_variance_vector",
            [](PySoftArgMax& d, py::handle h) {
                return d.Decode(h, PySoftArgMax::kVarianceVector);
            },
            py::arg("heatmaps"), "As decode_with_variance, vectorised (W a multiple of 4).")
        .def(
            "decode_with_deviation_vector",
            [](PySoftArgMax& d, py::handle h) {
                return d.Decode(h, PySoftArgMax::kDeviationVector);
            },
            py::arg("heatmaps"),
            "Points and the weighted standard deviation, vectorised (W a multiple of 4).")
        .def_property_readonly("width", &PySoftArgMax::width)
        .def_property_readonly("height", &PySoftArgMax::height)
        .def_property_readonly("channels", &PySoftArgMax::channels)
        .def_property_readonly("beta", &PySoftArgMax::beta);

    py::class_<PyKalman>(m, "KalmanTracker",
                         "Kalman smoother of one normalised box (x, y, w, h) in a frame of\n"
                         "width x height pixels; one step of 1/frequency per call.")
        .def(py::init([](int width, int height, float frequency, float process_noise,
                         float measurement_noise) {
                 quvas::kit::QVTBoxTrackerParams p{};
                 p.frequency = frequency;
                 p.process_noise = process_noise;
                 p.measurement_noise = measurement_noise;
                 return std::make_unique<PyKalman>(width, height, p);
             }),
             py::arg("width"), py::arg("height"), py::kw_only(), py::arg("frequency") = 30.f,
             py::arg("process_noise") = 1e-2f, py::arg("measurement_noise") = 1e-1f)
        .def("init", &PyKalman::Init, py::arg("box"), "Start a track at box (x, y, w, h).")
        .def("track", &PyKalman::Track, py::arg("box"),
             "Feed a measured box; returns the smoothed box, float32 (4,).")
        .def("predict", &PyKalman::Predict, "The box expected now, without a measurement.");

    py::class_<PyOneEuro>(m, "OneEuroTracker",
                          "One-Euro smoother of one normalised box (x, y, w, h); timed by the\n"
                          "wall clock, starting at `frequency`.")
        .def(py::init([](int width, int height, float frequency, float min_cutoff, float beta,
                         float d_cutoff) {
                 quvas::kit::QVTBoxTrackerParams p{};
                 p.frequency = frequency;
                 p.min_cutoff = min_cutoff;
                 p.beta = beta;
                 p.d_cutoff = d_cutoff;
                 return std::make_unique<PyOneEuro>(width, height, p);
             }),
             py::arg("width"), py::arg("height"), py::kw_only(), py::arg("frequency") = 30.f,
             py::arg("min_cutoff") = 1.f, py::arg("beta") = 0.f, py::arg("d_cutoff") = 1.f)
        .def("init", &PyOneEuro::Init, py::arg("box"), "Start a track at box (x, y, w, h).")
        .def("track", &PyOneEuro::Track, py::arg("box"),
             "Feed a measured box; returns the smoothed box, float32 (4,).")
        .def("predict", &PyOneEuro::Predict, "The box expected now, without a measurement.");
}
