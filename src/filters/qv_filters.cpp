// qv_filters.cpp - box records and the Kalman and One-Euro box trackers.
//
// A tracker smooths one box from frame to frame. Boxes arrive normalised to
// the frame; the filters work on the four pixel corners (left, top, right,
// bottom) so that their noise scales and speeds are in pixels.
#include <qvn_kit/qv_filters.hpp>
#include <qvn_kit/qvn_kit.hpp>

#include <quvas/utility/log.h>

#include <memory>

namespace quvas {
namespace kit {

// ---------------------------------------------------------------------------
// Box records
// ---------------------------------------------------------------------------

QVBox::QVBox() : x(0.0f), y(0.0f), w(0.0f), h(0.0f), score(0.0f) {}

QVBox::QVBox(float x_, float y_, float w_, float h_, float score_)
    : x(x_), y(y_), w(w_), h(h_), score(score_) {}

QVTBox::QVTBox() : QVBox(), id(0) {}

QVTBox::QVTBox(float x_, float y_, float w_, float h_, float score_, int32_t id_)
    : QVBox(x_, y_, w_, h_, score_), id(id_) {}

// ---------------------------------------------------------------------------
// Tracker base
// ---------------------------------------------------------------------------

QVTBoxTracker::QVTBoxTracker(const int& width_, const int& height_,
                             const std::shared_ptr<QVTBoxTrackerParams>& params_)
    : width(width_), height(height_), params(params_) {}

QVTBoxTracker::~QVTBoxTracker() {
    width = 0;
    height = 0;
    params.reset();
}

namespace {

constexpr int kStates = 12;   // 4 corners, their velocities, their accelerations
constexpr int kMeasures = 4;  // the 4 corners

// Corners are formed in f32 (as the caller's floats multiply) and only then
// widened, so a box and its corners agree with what callers compute.
inline void BoxToCorners(float x, float y, float w, float h, int32_t width, int32_t height,
                         double* c) {
    const float fw = static_cast<float>(width);
    const float fh = static_cast<float>(height);
    c[0] = x * fw;
    c[1] = y * fh;
    c[2] = (x + w) * fw;
    c[3] = (y + h) * fh;
}

// The way back is in f64; the box is narrowed once, when stored. A width or
// height of 0 gives non-finite values (not guarded: a tracker needs a frame).
inline void CornersToBox(const double* r, int32_t width, int32_t height, float* x, float* y,
                         float* w, float* h) {
    const double bx = r[0] / width;
    const double by = r[1] / height;
    *x = static_cast<float>(bx);
    *y = static_cast<float>(by);
    *w = static_cast<float>(r[2] / width - bx);
    *h = static_cast<float>(r[3] / height - by);
}

// ---------------------------------------------------------------------------
// Fixed-size Kalman step.
//
// The filter keeps its matrices as heap MatrixXd (its layout is public), but
// the tracker's sizes never change, so the step maps them as 12x12 / 4x12 /
// 4x4 Eigen types and works on the stack. The coefficient-based products
// below accumulate each element in the same order (ascending inner index,
// one fused multiply-add per term) as Eigen's general dynamic products do
// for these shapes, and the 4x4 inverse is the same partial-pivoting LU, so
// the step gives the dynamic KalmanFilter<MatrixXd> results bit for bit;
// the tracker tests compare the two on long random runs. Eigen's closed-form
// Matrix4d::inverse() would round differently and must not be used here.
// ---------------------------------------------------------------------------

using Vec12 = Eigen::Matrix<double, kStates, 1>;
using Mat12 = Eigen::Matrix<double, kStates, kStates>;
using Mat4x12 = Eigen::Matrix<double, kMeasures, kStates>;
using Mat12x4 = Eigen::Matrix<double, kStates, kMeasures>;
using Mat4 = Eigen::Matrix<double, kMeasures, kMeasures>;
using Vec4 = Eigen::Matrix<double, kMeasures, 1>;
using Kalman = KalmanFilter<FilterMatrix>;

inline bool Is(const FilterMatrix& m, int rows, int cols) {
    return m.rows() == rows && m.cols() == cols;
}

// The members are public, so a caller could have reshaped them; the fixed
// path runs only on the shapes it was written for.
bool HasTrackerShape(const Kalman& f) {
    return Is(f.state_predicted, kStates, 1) && Is(f.state_corrected, kStates, 1) &&
           Is(f.transition, kStates, kStates) && Is(f.measurement_map, kMeasures, kStates) &&
           Is(f.process_noise_cov, kStates, kStates) &&
           Is(f.measurement_noise_cov, kMeasures, kMeasures) &&
           Is(f.cov_predicted, kStates, kStates) && Is(f.gain, kStates, kMeasures) &&
           Is(f.cov_corrected, kStates, kStates) && Is(f.scratch1, kStates, kStates) &&
           Is(f.scratch2, kMeasures, kStates) && Is(f.scratch3, kMeasures, kMeasures) &&
           Is(f.scratch4, kMeasures, kStates) && Is(f.scratch5, kMeasures, 1);
}

void PredictFixed(Kalman& f) {
    Eigen::Map<const Mat12> F(f.transition.data());
    Eigen::Map<Vec12> xp(f.state_predicted.data());
    Eigen::Map<Vec12> xc(f.state_corrected.data());
    Eigen::Map<Mat12> s1(f.scratch1.data());
    Eigen::Map<Mat12> Pp(f.cov_predicted.data());
    Eigen::Map<Mat12> Pc(f.cov_corrected.data());

    xp.noalias() = F.lazyProduct(xc);
    s1.noalias() = F.lazyProduct(Pc);
    Pp.noalias() = s1.lazyProduct(F.transpose());
    Pp += Eigen::Map<const Mat12>(f.process_noise_cov.data());
    xc = xp;
    Pc = Pp;
}

void CorrectFixed(Kalman& f, const Vec4& z) {
    Eigen::Map<const Mat4x12> H(f.measurement_map.data());
    Eigen::Map<const Mat12> Pp(f.cov_predicted.data());
    Eigen::Map<const Vec12> xp(f.state_predicted.data());
    Eigen::Map<Mat4x12> s2(f.scratch2.data());
    Eigen::Map<Mat4> s3(f.scratch3.data());
    Eigen::Map<Mat4x12> s4(f.scratch4.data());
    Eigen::Map<Vec4> s5(f.scratch5.data());
    Eigen::Map<Mat12x4> K(f.gain.data());
    Eigen::Map<Vec12> xc(f.state_corrected.data());
    Eigen::Map<Mat12> Pc(f.cov_corrected.data());

    s2.noalias() = H.lazyProduct(Pp);
    s3.noalias() = s2.lazyProduct(H.transpose());
    s3 += Eigen::Map<const Mat4>(f.measurement_noise_cov.data());
    const Mat4 s3_inv = Eigen::PartialPivLU<Mat4>(s3).inverse();
    s4.noalias() = s3_inv.lazyProduct(s2);
    K = s4.transpose();
    s5 = z;
    s5.noalias() -= H.lazyProduct(xp);
    xc = xp;
    xc.noalias() += K.lazyProduct(s5);
    Pc = Pp;
    Pc.noalias() -= K.lazyProduct(s2);
}

// One model step with a measurement of the four corners; returns the
// corrected state.
const FilterMatrix& KalmanStep(Kalman& f, const double* corners) {
    if (HasTrackerShape(f)) {
        PredictFixed(f);
        CorrectFixed(f, Vec4(corners[0], corners[1], corners[2], corners[3]));
        return f.state_corrected;
    }
    FilterMatrix z(kMeasures, 1);
    z << corners[0], corners[1], corners[2], corners[3];
    f.predict();
    return f.correct(z);
}

inline double NowSeconds() {
    return quvas::utility::getTickCount() / quvas::utility::getTickFrequency();
}

}  // namespace

// ---------------------------------------------------------------------------
// Kalman box tracker: constant-acceleration model, one step per call.
// ---------------------------------------------------------------------------

QVTBoxKalmanTracker::QVTBoxKalmanTracker(const int& width_, const int& height_,
                                         const std::shared_ptr<QVTBoxTrackerParams>& params_)
    : QVTBoxTracker(width_, height_, params_) {}

QVTBoxKalmanTracker::~QVTBoxKalmanTracker() { filter.reset(); }

void QVTBoxKalmanTracker::init(const float& x, const float& y, const float& w, const float& h) {
    filter = std::make_shared<Kalman>(kStates, kMeasures, 0);
    Kalman& f = *filter;

    // The time step is formed in f32 from the f32 frame rate.
    const float dt = 1.0f / params->frequency;
    const float half = dt * 0.5f * dt;
    for (int i = 0; i < 2 * kMeasures; ++i) f.transition(i, i + 4) = dt;    // x += v dt, v += a dt
    for (int i = 0; i < kMeasures; ++i) f.transition(i, i + 8) = half;      // x += a dt^2 / 2
    for (int i = 0; i < kMeasures; ++i) f.measurement_map(i, i) = 1.0;
    f.process_noise_cov = FilterMatrix::Identity(kStates, kStates) *
                          static_cast<double>(params->process_noise);
    f.measurement_noise_cov = FilterMatrix::Identity(kMeasures, kMeasures) *
                              static_cast<double>(params->measurement_noise);

    double c[kMeasures];
    BoxToCorners(x, y, w, h, width, height, c);
    for (int i = 0; i < kMeasures; ++i) {
        f.state_corrected(i) = c[i];
        f.state_predicted(i) = c[i];
    }
}

void QVTBoxKalmanTracker::track(float* x, float* y, float* w, float* h) {
    double c[kMeasures];
    BoxToCorners(*x, *y, *w, *h, width, height, c);
    const FilterMatrix& r = KalmanStep(*filter, c);
    CornersToBox(r.data(), width, height, x, y, w, h);
}

// Without a measurement the prediction is fed back as one: the state stays
// where the model puts it, and the covariance tightens as if the box had
// been seen there. A detector that drops a frame or two thus keeps a box
// that does not balloon in uncertainty and snap on the next detection.
void QVTBoxKalmanTracker::predict(float* x, float* y, float* w, float* h) {
    Kalman& f = *filter;
    if (HasTrackerShape(f)) {
        PredictFixed(f);
        const Vec4 p = Eigen::Map<const Vec12>(f.state_predicted.data()).head<kMeasures>();
        CorrectFixed(f, p);
    } else {
        const FilterMatrix p = f.predict();
        f.correct(p.topRows(kMeasures));
    }
    CornersToBox(f.state_corrected.data(), width, height, x, y, w, h);
}

// ---------------------------------------------------------------------------
// One-Euro box tracker, timed by the core runtime's monotonic clock.
// ---------------------------------------------------------------------------

QVTBoxOneEuroTracker::QVTBoxOneEuroTracker(const int& width_, const int& height_,
                                           const std::shared_ptr<QVTBoxTrackerParams>& params_)
    : QVTBoxTracker(width_, height_, params_) {}

QVTBoxOneEuroTracker::~QVTBoxOneEuroTracker() { filter.reset(); }

void QVTBoxOneEuroTracker::init(const float& x, const float& y, const float& w,
                                const float& h) {
    const QVTBoxTrackerParams& p = *params;
    filter = std::make_shared<OneEuroFilter<FilterMatrix, kMeasures>>(
        p.frequency, p.min_cutoff, p.beta, p.d_cutoff);
    // The seed only serves predict(): the filter stays uninitialised, so
    // the first measurement passes through instead of blending with it.
    double c[kMeasures];
    BoxToCorners(x, y, w, h, width, height, c);
    for (int i = 0; i < kMeasures; ++i) filter->x_filter.hat_x_prev(i) = c[i];
}

void QVTBoxOneEuroTracker::track(float* x, float* y, float* w, float* h) {
    double c[kMeasures];
    BoxToCorners(*x, *y, *w, *h, width, height, c);
    FilterMatrix z(kMeasures, 1);
    z << c[0], c[1], c[2], c[3];
    const FilterMatrix r = filter->track(z, NowSeconds());
    CornersToBox(r.data(), width, height, x, y, w, h);
}

// The last smoothed box moved on by the last smoothed velocity over one
// sampling interval. The clock still advances, so the next track() measures
// its interval from this call.
void QVTBoxOneEuroTracker::predict(float* x, float* y, float* w, float* h) {
    OneEuroFilter<FilterMatrix, kMeasures>& f = *filter;
    f.update_rate(NowSeconds());
    const FilterMatrix p = f.x_filter.hat_x_prev + f.dx_filter.hat_x_prev / f.frequency;
    CornersToBox(p.data(), width, height, x, y, w, h);
}

}  // namespace kit
}  // namespace quvas
