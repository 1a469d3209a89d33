// decoders.cpp - the keypoint heatmap decoder (SoftArgMax).
#include "arguments.hpp"
#include "log_route.hpp"
#include "registry.hpp"

#include <qvn_kit/qvn_kit.hpp>

#include <memory>
#include <mutex>

namespace qvnpy {
namespace {

// One decoder is used by one thread at a time: the lock keeps two Python
// threads from sharing its result arrays.
class PySoftArgMax {
public:
    PySoftArgMax(int width, int height, int channels, float beta) {
        CheckedInt(width, "width", 2, kMaxSide);
        CheckedInt(height, "height", 2, kMaxSide);
        CheckedInt(channels, "channels", 1, 1 << 16);
        if (static_cast<long>(width) * height * channels > (1L << 28)) {
            throw py::value_error("width * height * channels must not exceed 2**28");
        }
        // As the tool's --beta: a NaN or infinite sharpening makes every
        // exponential NaN or infinite.
        Finite(beta, "beta");
        decoder_ = std::make_unique<quvas::kit::SoftArgMax>(width, height, channels, beta);
    }

    enum Variant { kPlain, kVariance, kVarianceVector, kDeviationVector };

    py::tuple Decode(py::handle heatmaps, Variant variant) {
        LogFlush flush;
        py::array raw = CheckedArray<float>(heatmaps, "heatmaps");
        const int c = decoder_->channels, h = decoder_->height, w = decoder_->width;
        if (raw.ndim() != 3 || raw.shape(0) != c || raw.shape(1) != h || raw.shape(2) != w) {
            throw py::value_error("heatmaps must have shape (" + std::to_string(c) + ", " +
                                  std::to_string(h) + ", " + std::to_string(w) + "), not " +
                                  ShapeText(raw));
        }
        if ((variant == kVarianceVector || variant == kDeviationVector) && w % 4 != 0) {
            throw py::value_error("the vector decoders need a heatmap width that is a multiple "
                                  "of 4, not " + std::to_string(w));
        }
        CArray<float> in = Contiguous<float>(raw);
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

}  // namespace

void RegisterDecoders(py::module_& m) {
    py::class_<PySoftArgMax>(m, "SoftArgMax",
                             "Keypoint heatmap decoder for one heatmap shape (C, H, W); beta,\n"
                             "the sharpening factor, must be finite.")
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
}

}  // namespace qvnpy
