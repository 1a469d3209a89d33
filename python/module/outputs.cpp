// outputs.cpp - network outputs: masks to bytes and softmax.
#include "arguments.hpp"
#include "log_route.hpp"
#include "registry.hpp"

#include <qvn_kit/qvn_kit.hpp>

#include <cstring>

namespace qvnpy {
namespace {

py::array Mask(py::handle values, bool sigmoid, py::handle out) {
    LogFlush flush;
    py::array raw = CheckedArray<float>(values, "values");
    if (raw.size() > (1L << 30)) throw py::value_error("values holds more than 2**30 elements");
    std::vector<py::ssize_t> shape(raw.shape(), raw.shape() + raw.ndim());
    CArray<uint8_t> result = out.is_none() ? CArray<uint8_t>(shape)
                                           : OutputArray<uint8_t>(out, "out", shape);
    if (!out.is_none()) CheckNoOverlap(result, raw, "out", "values");
    CArray<float> in = Contiguous<float>(raw);
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
    py::array raw = CheckedArray<float>(values, "values");
    if (raw.size() > (1L << 30)) throw py::value_error("values holds more than 2**30 elements");
    std::vector<py::ssize_t> shape(raw.shape(), raw.shape() + raw.ndim());
    py::array_t<float> out = NewArray<float>(shape);
    CArray<float> in = Contiguous<float>(raw);
    const float* src = in.data();
    float* dst = out.mutable_data();
    const int n = static_cast<int>(in.size());
    {
        py::gil_scoped_release release;
        quvas::kit::softmax_float(src, dst, n);
    }
    return std::move(out);
}

}  // namespace

void RegisterOutputs(py::module_& m) {
    m.def("mask", &Mask, py::arg("values"), py::arg("sigmoid") = false,
          py::arg("out") = py::none(),
          "float32 values (any shape) to uint8 bytes 0..255 of the same shape;\n"
          "sigmoid=True applies the logistic function first (raw scores). out: a C-contiguous\n"
          "uint8 array of that shape to write into, sharing no memory with values.");
    m.def("softmax", &Softmax, py::arg("values"),
          "Softmax over all elements of a float32 array (no max shift, as on the device).");
}

}  // namespace qvnpy
