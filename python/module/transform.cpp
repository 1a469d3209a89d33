// transform.cpp - TensorTransform: the map between a frame and the tensor
// preprocess made of it, for a network's points and boxes.
#include "arguments.hpp"
#include "registry.hpp"

#include <qvn_kit/frame_tensor.hpp>

#include <algorithm>

namespace qvnpy {
namespace {

using quvas::kit::TensorTransform;

// An (N, cols) float array of points or boxes, as float32 in C order (a
// float64 or integer array is converted; its values are read once).
CArray<float> Rows(py::handle obj, py::ssize_t cols, const char* name) {
    py::array a = py::array::ensure(obj);
    if (!a) {
        PyErr_Clear();
        throw py::type_error(std::string(name) + " must be an array of numbers, not " +
                             TypeName(obj));
    }
    if (a.ndim() != 2 || a.shape(1) != cols) {
        throw py::value_error(std::string(name) + " must have shape (N, " + std::to_string(cols) +
                              "), not " + ShapeText(a));
    }
    if (a.dtype().kind() != 'f' && a.dtype().kind() != 'i' && a.dtype().kind() != 'u') {
        throw py::type_error(std::string(name) + " must hold numbers, not " +
                             std::string(py::str(a.dtype())));
    }
    auto f = py::array_t<float, py::array::c_style | py::array::forcecast>::ensure(a);
    if (!f) throw py::error_already_set();
    return std::move(f);
}

using MapFn = void (*)(const TensorTransform&, const float*, float*, size_t);

py::array Map(const TensorTransform& t, py::handle in, py::ssize_t cols, const char* name,
              MapFn fn) {
    CArray<float> src = Rows(in, cols, name);
    CArray<float> dst(std::vector<py::ssize_t>{src.shape(0), cols});
    const float* s = src.data();
    float* d = dst.mutable_data();
    const size_t n = static_cast<size_t>(src.shape(0));
    {
        py::gil_scoped_release release;
        fn(t, s, d, n);
    }
    return std::move(dst);
}

py::array Matrix(const double (&m)[6]) {
    py::array_t<double> a(std::vector<py::ssize_t>{2, 3});
    std::copy(m, m + 6, a.mutable_data());
    // A copy handed out each time, and marked read-only so that writing to
    // it is not mistaken for changing the transform.
    py::detail::array_proxy(a.ptr())->flags &= ~py::detail::npy_api::NPY_ARRAY_WRITEABLE_;
    return std::move(a);
}

}  // namespace

py::object WrapTransform(const TensorTransform& t) { return py::cast(t); }

void RegisterTransform(py::module_& m) {
    namespace kit = quvas::kit;
    py::class_<TensorTransform>(
        m, "TensorTransform",
        "The map between a frame and the tensor preprocess made of it (crop, turn, mirror,\n"
        "resize, letterbox). Frame points are normalised to 0..1 of the frame as stored\n"
        "(x = 0 at its left edge, 1 at its right edge); tensor points are pixels, pixel\n"
        "(i, j) covering [i, i + 1) x [j, j + 1). The map is affine and defined beyond the\n"
        "picture and the frame too.")
        .def_property_readonly("to_tensor", [](const TensorTransform& t) { return Matrix(t.to_tensor); },
                               "2x3 float64: tensor = to_tensor @ (x, y, 1) (read-only copy)")
        .def_property_readonly("to_frame", [](const TensorTransform& t) { return Matrix(t.to_frame); },
                               "2x3 float64: frame = to_frame @ (x, y, 1) (read-only copy)")
        .def_property_readonly(
            "picture",
            [](const TensorTransform& t) {
                return py::make_tuple(t.picture_x, t.picture_y, t.picture_width,
                                      t.picture_height);
            },
            "(x, y, w, h) of the picture in the tensor, in pixels (the whole tensor without "
            "letterbox)")
        .def_property_readonly(
            "size",
            [](const TensorTransform& t) {
                return py::make_tuple(t.tensor_height, t.tensor_width);
            },
            "(H, W) of the tensor")
        .def(
            "points_to_tensor",
            [](const TensorTransform& t, py::handle p) {
                return Map(t, p, 2, "points", kit::TensorTransform_Points_To_Tensor);
            },
            py::arg("points"), "(N, 2) frame points (x, y) -> (N, 2) float32 tensor pixels")
        .def(
            "points_to_frame",
            [](const TensorTransform& t, py::handle p) {
                return Map(t, p, 2, "points", kit::TensorTransform_Points_To_Frame);
            },
            py::arg("points"), "(N, 2) tensor pixels (x, y) -> (N, 2) float32 frame points")
        .def(
            "boxes_to_tensor",
            [](const TensorTransform& t, py::handle b) {
                return Map(t, b, 4, "boxes", kit::TensorTransform_Boxes_To_Tensor);
            },
            py::arg("boxes"),
            "(N, 4) frame boxes (x, y, w, h) -> (N, 4) float32 tensor boxes: the bounding box "
            "of the four mapped corners")
        .def(
            "boxes_to_frame",
            [](const TensorTransform& t, py::handle b) {
                return Map(t, b, 4, "boxes", kit::TensorTransform_Boxes_To_Frame);
            },
            py::arg("boxes"), "(N, 4) tensor boxes (x, y, w, h) -> (N, 4) float32 frame boxes")
        .def("__repr__", [](const TensorTransform& t) {
            return "TensorTransform(size=(" + std::to_string(t.tensor_height) + ", " +
                   std::to_string(t.tensor_width) + "), picture=(" +
                   std::to_string(t.picture_x) + ", " + std::to_string(t.picture_y) + ", " +
                   std::to_string(t.picture_width) + ", " + std::to_string(t.picture_height) +
                   "))";
        });
}

}  // namespace qvnpy
