// images.cpp - packed images turned, mirrored, flipped and warped.
#include "arguments.hpp"
#include "log_route.hpp"
#include "registry.hpp"

#include <qvn_kit/qvn_kit.hpp>

#include <cstring>

namespace qvnpy {
namespace {

// A packed image: (H, W) is one byte a pixel, (H, W, C) C bytes a pixel.
struct ImageArg {
    CArray<uint8_t> array;
    int w = 0, h = 0, c = 0;
    bool planar2d = false;
};

ImageArg ParseImage(py::handle obj, const char* name, int max_channels) {
    ImageArg img;
    py::array a = CheckedArray<uint8_t>(obj, name);
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
    img.planar2d = a.ndim() == 2;
    CheckBytes(img.h, img.w, img.c, name);
    img.array = Contiguous<uint8_t>(a);
    return img;
}

std::vector<py::ssize_t> ImageShape(int h, int w, int c, bool planar2d) {
    if (planar2d) return {h, w};
    return {h, w, c};
}

QVN_Image PackedImage(const ImageArg& img) {
    QVN_Image src{};
    src.width = img.w;
    src.height = img.h;
    src.channels = img.c;
    src.rect = QVN_Rect2D{0.f, 0.f, 1.f, 1.f};
    src.data = const_cast<uint8_t*>(img.array.data());
    return src;
}

py::array RotateImage(py::handle image, int angle) {
    LogFlush flush;
    ImageArg img = ParseImage(image, "image", 64);
    if (angle != 0 && angle != 90 && angle != 180 && angle != 270) {
        throw py::value_error("angle must be 0, 90, 180 or 270, not " + std::to_string(angle));
    }
    const bool quarter = angle == 90 || angle == 270;
    const int ow = quarter ? img.h : img.w, oh = quarter ? img.w : img.h;
    py::array_t<uint8_t> out = NewArray<uint8_t>(ImageShape(oh, ow, img.c, img.planar2d));
    QVN_Image src = PackedImage(img);
    QVN_Image dst = src;
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
    py::array_t<uint8_t> out = NewArray<uint8_t>(ImageShape(img.h, img.w, img.c, img.planar2d));
    QVN_Image src = PackedImage(img);
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
    py::array_t<uint8_t> out = NewArray<uint8_t>(ImageShape(oh, ow, img.c, img.planar2d));
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

}  // namespace

void RegisterImages(py::module_& m) {
    m.def("rotate", &RotateImage, py::arg("image"), py::arg("angle"),
          "Turn a packed uint8 image (H, W) or (H, W, C) clockwise by 0, 90, 180 or 270 degrees.");
    m.def("mirror", &FlipImage<QVN_Mirror_Image_CPU>, py::arg("image"),
          "Mirror a packed uint8 image (H, W) or (H, W, C) left to right.");
    m.def("flip_v", &FlipImage<QVN_FlipV_Image_CPU>, py::arg("image"),
          "Flip a packed uint8 image (H, W) or (H, W, C) top to bottom.");
    m.def("warp", &Warp, py::arg("image"), py::arg("matrix"), py::arg("size"),
          py::arg("border") = 0, py::arg("vector") = false,
          "Bilinear warp of a uint8 image (H, W) or (H, W, C), C <= 4, through an inverse\n"
          "2x3 matrix (destination pixel -> source point, finite numbers) into `size` (H, W).\n"
          "Outside pixels read `border` (0..255, every channel). vector=True uses the\n"
          "fixed-point AVX2 kernels, whose results differ slightly from the scalar ones.");
}

}  // namespace qvnpy
