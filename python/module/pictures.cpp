// pictures.cpp - picture files and frames made from pictures, through the
// command-line tool's own reader and frame maker, so that a frame made here
// is byte for byte the one `qvn-kit preprocess` makes from a file.
#include "arguments.hpp"
#include "log_route.hpp"
#include "registry.hpp"

#include "common.hpp"
#include "frames.hpp"
#include "image_io.hpp"
#include "jpeg_planes.hpp"
#include "pixel_format.h"

#include <algorithm>
#include <memory>
#include <cstring>
#include <utility>

namespace qvnpy {
namespace {

namespace pixfmt = quvas::kit::pixfmt;

py::array MakeFrame(py::handle picture, py::handle format, bool bgr) {
    LogFlush flush;
    const uint32_t fmt = ParseFormat(format, "format");
    // The tool's frame maker writes nv12 and nv21 (BT.601 full range) and the
    // four-byte formats, nothing else.
    const bool four_byte = pixfmt::IsFourByteColour(fmt);
    if (fmt != QVN_PIX_FMT_YUV420SP_C && fmt != QVN_PIX_FMT_YUV420SP_D && !four_byte) {
        throw py::value_error("format: a picture becomes an nv12, nv21, bgra or rgba frame, "
                              "not format " + std::to_string(fmt));
    }
    py::array raw = CheckedArray<uint8_t>(picture, "picture");
    const py::ssize_t c = raw.ndim() == 3 ? raw.shape(2) : 1;
    if ((raw.ndim() != 2 && raw.ndim() != 3) || (c != 1 && c != 3 && c != 4) ||
        raw.shape(0) < 1 || raw.shape(1) < 1) {
        throw py::value_error("picture must have shape (H, W), (H, W, 3) or (H, W, 4), not " +
                              ShapeText(raw));
    }
    if (raw.shape(0) > kMaxSide || raw.shape(1) > kMaxSide) {
        throw py::value_error("picture of shape " + ShapeText(raw) + " is larger than " +
                              std::to_string(kMaxSide) + " pixels on a side");
    }
    const int h = static_cast<int>(raw.shape(0)), w = static_cast<int>(raw.shape(1));
    if (bgr && c == 1) throw py::value_error("bgr=True needs a picture with 3 or 4 channels");
    // Two-plane frames need even sides: like the tool, an odd picture gets its
    // last column and/or row repeated (done here, so that the tool's code,
    // which would note it on stderr, sees an even picture).
    const int ew = four_byte ? w : w + (w & 1), eh = four_byte ? h : h + (h & 1);
    std::vector<py::ssize_t> shape = four_byte ? std::vector<py::ssize_t>{h, w, 4}
                                               : std::vector<py::ssize_t>{eh / 2 * 3, ew};
    py::array_t<uint8_t> out = NewArray<uint8_t>(shape);
    CArray<uint8_t> a = Contiguous<uint8_t>(raw);
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

py::array ReadPicture(py::handle path_arg) {
    LogFlush flush;
    const std::string path = PathArg(path_arg);
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
    // The message names the file, whose bytes need not be UTF-8.
    if (!error.empty()) ThrowValueError(error);
    std::vector<py::ssize_t> shape{pic.height, pic.width};
    if (pic.channels != 1) shape.push_back(pic.channels);
    py::array_t<uint8_t> out = NewArray<uint8_t>(shape);
    std::memcpy(out.mutable_data(), pic.pixels.data(), pic.pixels.size());
    return std::move(out);
}

// A JPEG's Y, Cb, Cr planes as three arrays over one buffer, which the
// arrays keep alive together; nothing is copied.
py::object ReadJpegPlanes(py::handle path_arg, int reduce) {
    LogFlush flush;
    const std::string path = PathArg(path_arg);
    if (reduce != 1 && reduce != 2 && reduce != 4 && reduce != 8) {
        throw py::value_error("reduce must be 1, 2, 4 or 8, not " + std::to_string(reduce));
    }
    auto planes = std::make_unique<qvntool::JpegPlanes>();
    bool decoded = false;
    std::string error;
    {
        py::gil_scoped_release release;
        try {
            const std::vector<uint8_t> bytes = qvntool::ReadPictureBytes(path);
            decoded = qvntool::IsJpeg(bytes) &&
                      qvntool::DecodeJpegPlanes(path, bytes, reduce, *planes);
        } catch (const qvntool::ToolError& e) {
            error = e.what();
        }
    }
    if (!error.empty()) ThrowValueError(error);
    if (!decoded) return py::none();
    qvntool::JpegPlanes* raw = planes.release();
    py::capsule owner(raw, [](void* p) { delete static_cast<qvntool::JpegPlanes*>(p); });
    const py::ssize_t h[3] = {raw->height, raw->height / 2, raw->height / 2};
    const py::ssize_t w[3] = {raw->width, raw->width / 2, raw->width / 2};
    py::tuple result(3);
    for (int c = 0; c < 3; ++c) {
        result[c] = py::array_t<uint8_t>({h[c], w[c]},
                                         {static_cast<py::ssize_t>(raw->stride[c]), py::ssize_t{1}},
                                         raw->plane[c], owner);
    }
    return std::move(result);
}

// What a JPEG's header says, or None for a file that is not a JPEG.
py::object JpegHeader(py::handle path_arg) {
    LogFlush flush;
    const std::string path = PathArg(path_arg);
    qvntool::JpegHeader header;
    bool jpeg = false;
    std::string error;
    {
        py::gil_scoped_release release;
        try {
            const std::vector<uint8_t> bytes = qvntool::ReadPictureBytes(path);
            jpeg = qvntool::IsJpeg(bytes);
            if (jpeg) header = qvntool::ReadJpegHeader(bytes);
        } catch (const qvntool::ToolError& e) {
            error = e.what();
        }
    }
    if (!error.empty()) ThrowValueError(error);
    if (!jpeg) return py::none();
    return py::make_tuple(header.width, header.height, header.sampling, header.colour);
}

}  // namespace

void RegisterPictures(py::module_& m) {
    m.def("read_picture", &ReadPicture, py::arg("path"),
          "Read a PNG or JPEG with the command-line tool's reader: uint8 (H, W) gray,\n"
          "(H, W, 3) R,G,B or (H, W, 4) R,G,B,A. path: str, bytes or os.PathLike; a str is\n"
          "encoded as os.fsencode does, so names from os.listdir work. ValueError with the\n"
          "tool's message when the file is missing, unreadable or malformed, or when the\n"
          "path holds a NUL byte.");
    m.def("make_frame", &MakeFrame, py::arg("picture"), py::arg("format") = "nv21",
          py::arg("bgr") = false,
          "A camera frame made from a uint8 picture exactly as `qvn-kit preprocess` makes it.\n\n"
          "picture: (H, W) gray, (H, W, 3) R,G,B or (H, W, 4) R,G,B,A; bgr=True reads the\n"
          "colour channels as B,G,R. format: 'nv12' or 'nv21' give (H * 3 / 2, W) (luma rows,\n"
          "then interleaved chroma rows; an odd picture gets its last column or row repeated,\n"
          "as the tool does), 'bgra' or 'rgba' give (H, W, 4).");
    m.def("read_jpeg_planes", &ReadJpegPlanes, py::arg("path"), py::arg("reduce") = 1,
          "A 4:2:0 YCbCr JPEG decoded to its own planes (TurboJPEG), without upsampling or\n"
          "colour conversion: a tuple (y, u, v) of uint8 arrays, y (H, W) and u, v\n"
          "(H / 2, W / 2), rows padded to the decoder's strides, that preprocess takes as a\n"
          "three-plane frame (format 'i420', matrix='bt601', range='full': what JFIF stores).\n"
          "reduce: 1, 2, 4 or 8 decodes at that scale in the DCT. An odd decoded side loses\n"
          "its last column or row. None when the file is a JPEG of another sampling or colour\n"
          "(4:4:4, 4:2:2, gray, CMYK, ...) or not a JPEG at all (read_picture reads those).\n"
          "ValueError with the tool's message for a missing, unreadable or damaged file.");
    m.def("jpeg_header", &JpegHeader, py::arg("path"),
          "(width, height, sampling, colour) of a JPEG as its header gives them, sampling\n"
          "'4:2:0', '4:2:2', '4:4:4', '4:4:0', '4:1:1', 'gray' or 'unknown', colour 'YCbCr',\n"
          "'RGB', 'gray', 'CMYK', 'YCCK' or 'unknown'; None for a file that is not a JPEG.");
}

}  // namespace qvnpy
