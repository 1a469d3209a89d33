// trackers.cpp - the box trackers (Kalman, One-Euro) over normalised
// (x, y, w, h) boxes.
#include "arguments.hpp"
#include "log_route.hpp"
#include "registry.hpp"

#include <qvn_kit/qvn_kit.hpp>

#include <cstring>
#include <memory>
#include <mutex>
#include <utility>

namespace qvnpy {
namespace {

// The tool's limits: between one frame a day and a million a second.
constexpr float kMinFrequency = 1e-5f, kMaxFrequency = 1e6f;

template <typename Tracker>
class PyTracker {
public:
    PyTracker(int width, int height, const quvas::kit::QVTBoxTrackerParams& params) {
        CheckedInt(width, "width", 1, 1 << 24);
        CheckedInt(height, "height", 1, 1 << 24);
        // Refused as the tool refuses its options: one NaN or infinity here
        // makes every box the filter gives NaN for good.
        for (auto [value, name] : {std::pair<float, const char*>{params.frequency, "frequency"},
                                   {params.min_cutoff, "min_cutoff"},
                                   {params.beta, "beta"},
                                   {params.d_cutoff, "d_cutoff"},
                                   {params.process_noise, "process_noise"},
                                   {params.measurement_noise, "measurement_noise"}}) {
            Finite(value, name);
        }
        if (!(params.frequency >= kMinFrequency && params.frequency <= kMaxFrequency)) {
            throw py::value_error("frequency must be between 1e-5 and 1e6 Hz");
        }
        params_ = std::make_shared<quvas::kit::QVTBoxTrackerParams>(params);
        tracker_ = std::make_unique<Tracker>(width, height, params_);
    }

    // Boxes are checked (four finite numbers) before the filter sees them,
    // so a refused box leaves the track as it was.
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

}  // namespace

void RegisterTrackers(py::module_& m) {
    py::class_<PyKalman>(m, "KalmanTracker",
                         "Kalman smoother of one normalised box (x, y, w, h) in a frame of\n"
                         "width x height pixels; one step of 1/frequency per call. Every\n"
                         "number must be finite, frequency within 1e-5..1e6 Hz.")
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
             "Feed a measured box; returns the smoothed box, float32 (4,). A box that is not\n"
             "four finite numbers raises ValueError and leaves the track as it was.")
        .def("predict", &PyKalman::Predict, "The box expected now, without a measurement.");

    py::class_<PyOneEuro>(m, "OneEuroTracker",
                          "One-Euro smoother of one normalised box (x, y, w, h); timed by the\n"
                          "wall clock, starting at `frequency`. Every number must be finite,\n"
                          "frequency within 1e-5..1e6 Hz.")
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
             "Feed a measured box; returns the smoothed box, float32 (4,). A box that is not\n"
             "four finite numbers raises ValueError and leaves the track as it was.")
        .def("predict", &PyOneEuro::Predict, "The box expected now, without a measurement.");
}

}  // namespace qvnpy
