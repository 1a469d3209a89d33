// Box trackers: ns per track and per predict of the Kalman and One-Euro
// trackers, the dynamic-size Kalman filter template on its own, and as the
// peer the same 12-state, 4-measurement Kalman step written with OpenCV
// matrices (cv::gemm, cv::invert with LU). OpenCV's own KalmanFilter lives
// in its video module, which is not installed here; the peer below performs
// the same operations that class performs, with LU in place of its SVD solve.
#include <qvn_kit/qv_filters.hpp>
#include <qvn_kit/qvn_kit.hpp>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <vector>

namespace {

using namespace quvas::kit;

constexpr int kW = 1280;
constexpr int kH = 720;
constexpr float kFrequency = 30.0f;

std::shared_ptr<QVTBoxTrackerParams> Params() {
    auto p = std::make_shared<QVTBoxTrackerParams>();
    *p = QVTBoxTrackerParams{};
    p->frequency = kFrequency;
    p->min_cutoff = 1.0f;
    p->beta = 0.01f;
    p->d_cutoff = 1.0f;
    p->process_noise = 0.05f;
    p->measurement_noise = 2.0f;
    return p;
}

// 1024 noisy boxes along a slow drift, cycled through by the loops.
struct Boxes {
    std::vector<float> v;
    Boxes() {
        std::mt19937 rng(1);
        std::normal_distribution<float> noise(0.0f, 0.002f);
        for (int i = 0; i < 1024; ++i) {
            const float t = i / 1024.0f;
            v.insert(v.end(), {0.3f + 0.2f * t + noise(rng), 0.4f + noise(rng), 0.2f + noise(rng),
                               0.25f + noise(rng)});
        }
    }
    const float* at(size_t i) const { return &v[4 * (i & 1023)]; }
};
const Boxes& TheBoxes() {
    static const Boxes boxes;
    return boxes;
}

template <typename Tracker>
void BM_Track(benchmark::State& state) {
    Tracker t(kW, kH, Params());
    const Boxes& boxes = TheBoxes();
    t.init(boxes.at(0)[0], boxes.at(0)[1], boxes.at(0)[2], boxes.at(0)[3]);
    size_t i = 0;
    for (auto _ : state) {
        const float* b = boxes.at(++i);
        float x = b[0], y = b[1], w = b[2], h = b[3];
        t.track(&x, &y, &w, &h);
        benchmark::DoNotOptimize(x);
        benchmark::DoNotOptimize(h);
    }
}

template <typename Tracker>
void BM_Predict(benchmark::State& state) {
    Tracker t(kW, kH, Params());
    const Boxes& boxes = TheBoxes();
    t.init(boxes.at(0)[0], boxes.at(0)[1], boxes.at(0)[2], boxes.at(0)[3]);
    for (int i = 1; i < 8; ++i) {  // some velocity to extrapolate
        float x = boxes.at(i)[0], y = boxes.at(i)[1], w = boxes.at(i)[2], h = boxes.at(i)[3];
        t.track(&x, &y, &w, &h);
    }
    float x = 0, y = 0, w = 0, h = 0;
    for (auto _ : state) {
        t.predict(&x, &y, &w, &h);
        benchmark::DoNotOptimize(x);
        benchmark::DoNotOptimize(h);
    }
    state.counters["finite"] = std::isfinite(x) && std::isfinite(w);
}

BENCHMARK_TEMPLATE(BM_Track, QVTBoxKalmanTracker);
BENCHMARK_TEMPLATE(BM_Predict, QVTBoxKalmanTracker);
BENCHMARK_TEMPLATE(BM_Track, QVTBoxOneEuroTracker);
BENCHMARK_TEMPLATE(BM_Predict, QVTBoxOneEuroTracker);

// One Kalman step (predict + correct with a 4-corner measurement), without
// the box conversions of the tracker.
void BM_KalmanStep_DynamicTemplate(benchmark::State& state) {
    QVTBoxKalmanTracker t(kW, kH, Params());
    t.init(0.3f, 0.4f, 0.2f, 0.25f);
    KalmanFilter<FilterMatrix> f = *t.filter;  // same model, heap MatrixXd products
    const Boxes& boxes = TheBoxes();
    FilterMatrix z(4, 1);
    size_t i = 0;
    for (auto _ : state) {
        const float* b = boxes.at(++i);
        z << b[0] * kW, b[1] * kH, (b[0] + b[2]) * kW, (b[1] + b[3]) * kH;
        f.predict();
        benchmark::DoNotOptimize(f.correct(z).data());
    }
}
BENCHMARK(BM_KalmanStep_DynamicTemplate);

struct CvKalman {
    cv::Mat F, H, Q, R, x_pre, x_post, P_pre, P_post, t1, t2, t3, t3_inv, t4, K, t5, z;
    CvKalman() {
        const float dt = 1.0f / kFrequency, half = dt * 0.5f * dt;
        F = cv::Mat::eye(12, 12, CV_64F);
        for (int i = 0; i < 8; ++i) F.at<double>(i, i + 4) = dt;
        for (int i = 0; i < 4; ++i) F.at<double>(i, i + 8) = half;
        H = cv::Mat::zeros(4, 12, CV_64F);
        for (int i = 0; i < 4; ++i) H.at<double>(i, i) = 1.0;
        Q = cv::Mat::eye(12, 12, CV_64F) * static_cast<double>(0.05f);  // the f32 parameter
        R = cv::Mat::eye(4, 4, CV_64F) * 2.0;
        x_pre = cv::Mat::zeros(12, 1, CV_64F);
        x_post = x_pre.clone();
        P_pre = cv::Mat::zeros(12, 12, CV_64F);
        P_post = P_pre.clone();
        z = cv::Mat::zeros(4, 1, CV_64F);
    }
    void Step() {
        // predict
        cv::gemm(F, x_post, 1, cv::noArray(), 0, x_pre);
        cv::gemm(F, P_post, 1, cv::noArray(), 0, t1);
        cv::gemm(t1, F, 1, Q, 1, P_pre, cv::GEMM_2_T);
        x_pre.copyTo(x_post);
        P_pre.copyTo(P_post);
        // correct
        cv::gemm(H, P_pre, 1, cv::noArray(), 0, t2);
        cv::gemm(t2, H, 1, R, 1, t3, cv::GEMM_2_T);
        cv::invert(t3, t3_inv, cv::DECOMP_LU);
        cv::gemm(t3_inv, t2, 1, cv::noArray(), 0, t4);
        cv::transpose(t4, K);
        cv::gemm(H, x_pre, -1, z, 1, t5);
        cv::gemm(K, t5, 1, x_pre, 1, x_post);
        cv::gemm(K, t2, -1, P_pre, 1, P_post);
    }
};

void BM_KalmanStep_OpenCV(benchmark::State& state) {
    const Boxes& boxes = TheBoxes();
    {
        // Same model, same answers: run both on 200 measurements first.
        QVTBoxKalmanTracker t(kW, kH, Params());
        t.init(0.0f, 0.0f, 0.0f, 0.0f);  // zero seed, as the peer starts
        CvKalman peer;
        double worst = 0;
        for (size_t j = 1; j <= 200; ++j) {
            const float* b = boxes.at(j);
            float x = b[0], y = b[1], w = b[2], h = b[3];
            double* z = peer.z.ptr<double>();
            z[0] = x * kW, z[1] = y * kH, z[2] = (x + w) * kW, z[3] = (y + h) * kH;
            t.track(&x, &y, &w, &h);
            peer.Step();
            for (int r = 0; r < 12; ++r) {
                const double a = t.filter->state_corrected(r), c = peer.x_post.at<double>(r);
                worst = std::max(worst, std::fabs(a - c) / (1.0 + std::fabs(c)));
            }
        }
        state.counters["rel_diff_vs_kit"] = worst;
    }
    CvKalman k;
    size_t i = 0;
    for (auto _ : state) {
        const float* b = boxes.at(++i);
        double* z = k.z.ptr<double>();
        z[0] = b[0] * kW, z[1] = b[1] * kH, z[2] = (b[0] + b[2]) * kW, z[3] = (b[1] + b[3]) * kH;
        k.Step();
        benchmark::DoNotOptimize(k.x_post.data);
    }
}
BENCHMARK(BM_KalmanStep_OpenCV);

}  // namespace

BENCHMARK_MAIN();
