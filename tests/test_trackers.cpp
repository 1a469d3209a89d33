// Box records, the Kalman tracker against a textbook
// Kalman filter in long double (and, bit for bit, against the dynamic-size
// filter template), and the One-Euro filter and tracker against the
// published One-Euro algorithm written out here.
#include <qvn_kit/qv_filters.hpp>
#include <qvn_kit/qvn_kit.hpp>

#include <quvas/utility/log.h>

#include <Eigen/Dense>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using namespace quvas::kit;
using Mat = FilterMatrix;
using LdMat = Eigen::Matrix<long double, Eigen::Dynamic, Eigen::Dynamic>;
using Euro = OneEuroFilter<Mat, 4>;

constexpr int kW = 640;
constexpr int kH = 480;

struct Box {
    float x, y, w, h;
};

std::shared_ptr<QVTBoxTrackerParams> MakeParams(float frequency, float min_cutoff, float beta,
                                                float d_cutoff, float process_noise,
                                                float measurement_noise) {
    auto p = std::make_shared<QVTBoxTrackerParams>();
    *p = QVTBoxTrackerParams{};
    p->frequency = frequency, p->min_cutoff = min_cutoff, p->beta = beta, p->d_cutoff = d_cutoff;
    p->process_noise = process_noise, p->measurement_noise = measurement_noise;
    return p;
}

// The box convention: corners formed in f32, the way back in f64.
void Corners(const Box& b, double c[4]) {
    c[0] = b.x * static_cast<float>(kW);
    c[1] = b.y * static_cast<float>(kH);
    c[2] = (b.x + b.w) * static_cast<float>(kW);
    c[3] = (b.y + b.h) * static_cast<float>(kH);
}
Box FromCorners(double c0, double c1, double c2, double c3) {
    const double x = c0 / kW, y = c1 / kH;
    return {static_cast<float>(x), static_cast<float>(y), static_cast<float>(c2 / kW - x),
            static_cast<float>(c3 / kH - y)};
}
Box RoundTrip(const Box& b) {
    double c[4];
    Corners(b, c);
    return FromCorners(c[0], c[1], c[2], c[3]);
}
void ExpectBoxNear(const Box& got, const Box& want, double tol) {
    const float g[] = {got.x, got.y, got.w, got.h}, w[] = {want.x, want.y, want.w, want.h};
    for (int i = 0; i < 4; ++i) EXPECT_NEAR(g[i], w[i], tol) << "field " << i;
}
void ExpectBoxEq(const Box& got, const Box& want) { ExpectBoxNear(got, want, 0.0); }
Box Track(QVTBoxTracker& t, Box b) {
    t.track(&b.x, &b.y, &b.w, &b.h);
    return b;
}
Box Predict(QVTBoxTracker& t) {
    Box b{-1, -1, -1, -1};  // ignored on input
    t.predict(&b.x, &b.y, &b.w, &b.h);
    return b;
}

// A box wandering with random accelerations, observed with noise.
struct Wanderer {
    std::mt19937 rng;
    double pos[4] = {200, 150, 260, 230}, vel[4] = {};
    explicit Wanderer(unsigned seed) : rng(seed) {}
    Box Next() {
        std::normal_distribution<double> acc(0.0, 0.4), noise(0.0, 1.5);
        for (int i = 0; i < 4; ++i) vel[i] += acc(rng), pos[i] += vel[i];
        return {static_cast<float>((pos[0] + noise(rng)) / kW),
                static_cast<float>((pos[1] + noise(rng)) / kH),
                static_cast<float>((pos[2] - pos[0] + noise(rng)) / kW),
                static_cast<float>((pos[3] - pos[1] + noise(rng)) / kH)};
    }
};

// ---------------------------------------------------------------------------
// Records and interface
// ---------------------------------------------------------------------------

// The sizes and offsets callers lay out by hand; the constructors fill the
// fields in declaration order and default to zero.
static_assert(sizeof(QVBox) == 20 && sizeof(QVTBox) == 24, "box records");
static_assert(offsetof(QVTBoxTrackerParams, frequency) == 16 &&
                  offsetof(QVTBoxTrackerParams, d_cutoff) == 28 &&
                  offsetof(QVTBoxTrackerParams, measurement_noise) == 36,
              "tracker parameters");

TEST(Records, FieldsInConstructorOrder) {
    float words[6];
    const QVBox zero;
    std::memcpy(words, &zero, sizeof zero);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(words[i], 0.0f);
    const QVBox box(1.5f, 2.5f, 3.5f, 4.5f, 0.75f);
    std::memcpy(words, &box, sizeof box);
    EXPECT_EQ(std::vector<float>(words, words + 5), (std::vector<float>{1.5f, 2.5f, 3.5f, 4.5f, 0.75f}));
    const QVTBox tbox(1, 2, 3, 4, 5, -7), tzero;
    int32_t id;
    std::memcpy(&id, reinterpret_cast<const char*>(&tbox) + 20, 4);
    EXPECT_EQ(std::make_tuple(id, tbox.score, tzero.id), std::make_tuple(-7, 5.0f, 0));
    EXPECT_EQ(tzero.x + tzero.y + tzero.w + tzero.h + tzero.score, 0.0f);
}

// ---------------------------------------------------------------------------
// Kalman tracker
// ---------------------------------------------------------------------------

// The textbook filter: x = F x, P = F P F' + Q; K = P H' S^-1 with
// S = H P H' + R, x += K (z - H x), P = (I - K H) P. All in long double.
struct TextbookKalman {
    LdMat F, H, Q, R, x, P;
    TextbookKalman(float frequency, float q, float r, const double c[4]) {
        const float dt = 1.0f / frequency, half = dt * 0.5f * dt;
        F = LdMat::Identity(12, 12);
        for (int i = 0; i < 8; ++i) F(i, i + 4) = dt;
        for (int i = 0; i < 4; ++i) F(i, i + 8) = half;
        H = LdMat::Identity(4, 12);
        Q = LdMat::Identity(12, 12) * static_cast<long double>(q);
        R = LdMat::Identity(4, 4) * static_cast<long double>(r);
        x = LdMat::Zero(12, 1);
        for (int i = 0; i < 4; ++i) x(i) = c[i];
        P = LdMat::Zero(12, 12);
    }
    void Predict() {
        x = F * x;
        P = F * P * F.transpose() + Q;
    }
    void Correct(const LdMat& z) {
        const LdMat S = H * P * H.transpose() + R;
        const LdMat K = P * H.transpose() * S.inverse();
        x = x + K * (z - H * x);
        P = (LdMat::Identity(12, 12) - K * H) * P;
    }
    Box Output() const {
        return FromCorners(static_cast<double>(x(0)), static_cast<double>(x(1)),
                           static_cast<double>(x(2)), static_cast<double>(x(3)));
    }
};

struct NoiseCase {
    float frequency, q, r;
};
const NoiseCase kNoiseCases[] = {{30, 0.01f, 0.1f}, {60, 1, 10}, {15.5f, 1e-3f, 1}, {25, 5, 0.5f}};

TEST(KalmanTracker, MatchesTextbookFilterInLongDouble) {
    for (const NoiseCase& nc : kNoiseCases) {
        QVTBoxKalmanTracker t(kW, kH, MakeParams(nc.frequency, 0, 0, 0, nc.q, nc.r));
        Wanderer wander(42);
        Box b = wander.Next();
        t.init(b.x, b.y, b.w, b.h);
        double c[4];
        Corners(b, c);
        TextbookKalman ref(nc.frequency, nc.q, nc.r, c);
        std::mt19937 pick(5);
        double worst_state = 0, worst_cov = 0;
        for (int step = 0; step < 600; ++step) {
            b = wander.Next();
            Box got;
            if (pick() % 5 == 0) {  // a dropped detection
                got = Predict(t);
                ref.Predict();
                ref.Correct(ref.H * ref.x);
            } else {
                got = Track(t, b);
                Corners(b, c);
                LdMat z(4, 1);
                z << c[0], c[1], c[2], c[3];
                ref.Predict();
                ref.Correct(z);
            }
            const LdMat dx = t.filter->state_corrected.cast<long double>() - ref.x;
            const LdMat dP = t.filter->cov_corrected.cast<long double>() - ref.P;
            worst_state = std::max(worst_state, static_cast<double>(dx.cwiseAbs().maxCoeff() /
                                                                    (1 + ref.x.cwiseAbs().maxCoeff())));
            worst_cov = std::max(worst_cov, static_cast<double>(dP.cwiseAbs().maxCoeff() /
                                                                ref.P.cwiseAbs().maxCoeff()));
            ExpectBoxNear(got, ref.Output(), 1.2e-7);  // at most a rounding step of a float
        }
        EXPECT_LT(worst_state, 1e-12) << "frequency " << nc.frequency;
        EXPECT_LT(worst_cov, 1e-12) << "frequency " << nc.frequency;
    }
}

// The tracker runs a fixed-size step; the filter template in the header is
// the dynamic MatrixXd one. Both must agree in every bit of every matrix.
TEST(KalmanTracker, FixedSizeStepEqualsDynamicFilterBitForBit) {
    for (const NoiseCase& nc : kNoiseCases) {
        QVTBoxKalmanTracker t(kW, kH, MakeParams(nc.frequency, 0, 0, 0, nc.q, nc.r));
        Wanderer wander(7);
        Box b = wander.Next();
        t.init(b.x, b.y, b.w, b.h);
        KalmanFilter<Mat> dyn = *t.filter;  // same model and seed, dynamic products
        std::mt19937 pick(9);
        for (int step = 0; step < 5000; ++step) {
            b = wander.Next();
            if (pick() % 4 == 0) {
                Predict(t);
                const Mat p = dyn.predict();
                dyn.correct(p.topRows(4));
            } else {
                Track(t, b);
                double c[4];
                Corners(b, c);
                Mat z(4, 1);
                z << c[0], c[1], c[2], c[3];
                dyn.predict();
                dyn.correct(z);
            }
            const KalmanFilter<Mat>& f = *t.filter;
            const std::pair<const Mat*, const Mat*> pairs[] = {
                {&f.state_predicted, &dyn.state_predicted}, {&f.state_corrected, &dyn.state_corrected},
                {&f.cov_predicted, &dyn.cov_predicted},     {&f.gain, &dyn.gain},
                {&f.cov_corrected, &dyn.cov_corrected},     {&f.scratch1, &dyn.scratch1},
                {&f.scratch2, &dyn.scratch2},               {&f.scratch3, &dyn.scratch3},
                {&f.scratch4, &dyn.scratch4},               {&f.scratch5, &dyn.scratch5}};
            for (const auto& pr : pairs) {
                ASSERT_EQ(std::memcmp(pr.first->data(), pr.second->data(),
                                      sizeof(double) * pr.first->size()),
                          0)
                    << "step " << step << ", frequency " << nc.frequency;
            }
        }
    }
}

TEST(KalmanTracker, ParametersAreReadOnlyAtInit) {
    auto shared = MakeParams(30, 0, 0, 0, 0.1f, 2);
    QVTBoxKalmanTracker a(kW, kH, shared), b(kW, kH, MakeParams(30, 0, 0, 0, 0.1f, 2));
    a.init(0.6f, 0.1f, 0.2f, 0.2f);  // a second init, after a step, starts afresh
    Track(a, {0.5f, 0.15f, 0.2f, 0.2f});
    a.init(0.2f, 0.2f, 0.3f, 0.3f);
    b.init(0.2f, 0.2f, 0.3f, 0.3f);
    shared->frequency = 5;
    shared->process_noise = 100;
    Wanderer wander(3);
    for (int i = 0; i < 50; ++i) {
        const Box m = wander.Next();
        ExpectBoxEq(Track(a, m), Track(b, m));
    }
}

TEST(KalmanTracker, UnguardedInputsGiveNonFiniteBoxes) {
    // A zero rate, a zero frame width, no noise at all.
    const struct { int width; float frequency, noise; } cases[] = {{kW, 0, 1}, {0, 30, 1}, {kW, 30, 0}};
    for (const auto& c : cases) {
        QVTBoxKalmanTracker t(c.width, kH, MakeParams(c.frequency, 0, 0, 0, c.noise, c.noise));
        t.init(0.2f, 0.2f, 0.3f, 0.3f);
        const Box b = Track(t, {0.2f, 0.2f, 0.3f, 0.3f});
        EXPECT_FALSE(std::isfinite(b.x) && std::isfinite(b.w)) << c.width << " " << c.frequency;
    }
}

// ---------------------------------------------------------------------------
// One-Euro filter
// ---------------------------------------------------------------------------

// The published algorithm for one coordinate, in long double: alpha from the
// sampling period, s = a x + (1 - a) s, the speed against the last raw value.
struct PublishedOneEuro {
    PublishedOneEuro(long double f, long double mc, long double b, long double dc)
        : freq(f), min_cutoff(mc), beta(b), d_cutoff(dc) {}
    long double freq, min_cutoff, beta, d_cutoff;
    bool has_time = false;
    long double last_time = 0;
    struct LowPass {
        bool init = false;
        long double raw = 0, s = 0;
        long double operator()(long double v, long double a) {
            s = init ? a * v + (1 - a) * s : v;
            init = true;
            raw = v;
            return s;
        }
    } x, dx;
    long double Alpha(long double cutoff) const {
        const long double te = 1 / freq;
        const long double tau = 1 / (2 * 3.14159265358979323846264338327950288L * cutoff);
        return 1 / (1 + tau / te);
    }
    void Clock(long double t) {
        if (has_time) freq = 1 / (t - last_time);
        has_time = true;
        last_time = t;
    }
    long double operator()(long double v, long double t) {
        Clock(t);
        const long double d = x.init ? (v - x.raw) * freq : 0;
        const long double ed = dx(d, Alpha(d_cutoff));
        return x(v, Alpha(min_cutoff + beta * std::fabs(ed)));
    }
};

Mat Col(double a, double b, double c, double d) {
    Mat m(4, 1);
    m << a, b, c, d;
    return m;
}

TEST(OneEuroFilter, MatchesPublishedAlgorithmWithGivenTimestamps) {
    const double freq = 30, min_cutoff = 1.0, beta = 0.05, d_cutoff = 1.0;
    Euro f(freq, min_cutoff, beta, d_cutoff);
    std::vector<PublishedOneEuro> ref(4, PublishedOneEuro(freq, min_cutoff, beta, d_cutoff));
    // An exact twin in double, in the order the filter promises: alpha as
    // 1 / (1 + tau f), the blend as (x - prev) a + prev, the cutoff as one
    // fused multiply-add.
    double s[4] = {}, sd[4] = {}, raw[4] = {}, rate = freq, last = -1;
    auto alpha = [&](double cutoff) { return 1.0 / (1.0 + (1.0 / (cutoff * 6.283185307179586)) * rate); };

    std::mt19937 rng(99);
    std::uniform_real_distribution<double> gap(0.008, 0.06), noise(-2, 2);
    double t = 12.5;
    for (int k = 0; k < 400; ++k) {
        t += gap(rng);
        const double phase = 0.05 * k;
        double v[4] = {300 + 80 * std::sin(phase), 200 + 40 * std::cos(3 * phase), 420 + noise(rng),
                       k < 200 ? 100.0 : 260.0};  // a jump halfway
        for (double& e : v) e += noise(rng);
        const Mat out = f.track(Col(v[0], v[1], v[2], v[3]), t);

        if (last != -1 && t != last) rate = 1.0 / (t - last);
        last = t;
        for (int i = 0; i < 4; ++i) {
            const double d = k ? (v[i] - raw[i]) * rate : 0.0;
            sd[i] = k ? (d - sd[i]) * alpha(d_cutoff) + sd[i] : d;
            const double cutoff = std::fma(beta, std::fabs(sd[i]), min_cutoff);
            s[i] = k ? (v[i] - s[i]) * alpha(cutoff) + s[i] : v[i];
            raw[i] = v[i];
            EXPECT_EQ(out(i), s[i]) << "k " << k << " i " << i;

            const long double want = ref[i](v[i], t);
            EXPECT_NEAR(out(i), static_cast<double>(want), 1e-12 * std::fabs(want));
        }
    }
    EXPECT_EQ(f.last_time, t);
}

TEST(OneEuroFilter, FirstCallAndTimestampRules) {
    Euro f(25.0, 1.0, 0.5, 1.0);

    const Mat x1 = Col(10, 20, 30, 40), x2 = Col(12, 20, 27, 40);
    EXPECT_EQ(f.track(x1, 3.0), x1);  // the first value passes through
    EXPECT_EQ(f.frequency, 25.0);     // one timestamp gives no interval

    // The same timestamp again: the rate stays (no division by zero).
    const Mat out = f.track(x2, 3.0);
    EXPECT_EQ(f.frequency, 25.0);
    PublishedOneEuro ref{25.0, 1.0, 0.5, 1.0};
    ref(x1(0), 3.0);
    ref.has_time = false;  // the published form would divide by zero here
    EXPECT_NEAR(out(0), static_cast<double>(ref(x2(0), 3.0)), 1e-12);
    EXPECT_EQ(out(1), 20.0);  // a coordinate that did not move stays put

    f.track(x2, 3.05);
    EXPECT_EQ(f.frequency, 1.0 / (3.05 - 3.0));
    const double rate = f.frequency;
    f.track(x2, -1.0);  // -1 means "no time": no rate change, and none next
    EXPECT_EQ(f.frequency, rate);
    EXPECT_EQ(f.last_time, -1.0);
    f.track(x2, 4.0);
    EXPECT_EQ(f.frequency, rate);
    EXPECT_EQ(f.last_time, 4.0);
}

// ---------------------------------------------------------------------------
// One-Euro tracker on the core's clock
// ---------------------------------------------------------------------------

double Now() { return quvas::utility::getTickCount() / quvas::utility::getTickFrequency(); }

TEST(OneEuroTracker, SeedServesOnlyPredict) {
    const Box b0{0.25f, 0.5f, 0.125f, 0.25f}, b1{0.3f, 0.45f, 0.2f, 0.3f};
    QVTBoxOneEuroTracker t(kW, kH, MakeParams(30, 1, 0.5f, 1, 0, 0));
    t.init(b0.x, b0.y, b0.w, b0.h);
    ExpectBoxEq(Predict(t), RoundTrip(b0));  // the derivative is still 0
    ExpectBoxEq(Track(t, b1), RoundTrip(b1)); // not blended with the seed
    // A second init drops state and timing.
    t.init(b0.x, b0.y, b0.w, b0.h);
    EXPECT_EQ(t.filter->last_time, -1.0);
    EXPECT_EQ(t.filter->frequency, 30.0);
    ExpectBoxEq(Track(t, b1), RoundTrip(b1));
}

// The tracker stamps each call with the core's clock. The stamps it used are
// read back from the filter (and checked against the clock around the call);
// the published algorithm replayed with them must give the same boxes.
TEST(OneEuroTracker, RealClockReplaysThePublishedAlgorithm) {
    // Distinct cutoffs, so that exchanged parameters show.
    const float freq = 30, min_cutoff = 1.0f, beta = 0.02f, d_cutoff = 0.7f;
    QVTBoxOneEuroTracker t(kW, kH, MakeParams(freq, min_cutoff, beta, d_cutoff, 0, 0));
    Wanderer wander(17);
    const Box b0 = wander.Next();
    t.init(b0.x, b0.y, b0.w, b0.h);
    std::vector<PublishedOneEuro> ref(4, PublishedOneEuro(freq, min_cutoff, beta, d_cutoff));
    double prev_time = -1;
    for (int k = 0; k < 24; ++k) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2 + k % 3));
        const bool predict = k > 0 && k % 5 == 0;
        const Box m = wander.Next();
        const double before = Now();
        const Box got = predict ? Predict(t) : Track(t, m);
        const double after = Now();
        const double stamp = t.filter->last_time;
        ASSERT_LE(before, stamp);
        ASSERT_LE(stamp, after);
        if (prev_time != -1) {
            EXPECT_EQ(t.filter->frequency, 1.0 / (stamp - prev_time));  // also after a predict
        }
        prev_time = stamp;

        long double c[4];
        double cm[4];
        Corners(m, cm);
        for (int i = 0; i < 4; ++i) {
            if (predict) {  // smoothed position + smoothed speed over one interval
                ref[i].Clock(stamp);
                c[i] = ref[i].x.s + ref[i].dx.s / ref[i].freq;
            } else {
                c[i] = ref[i](cm[i], stamp);
            }
        }
        const Box want = FromCorners(static_cast<double>(c[0]), static_cast<double>(c[1]),
                                     static_cast<double>(c[2]), static_cast<double>(c[3]));
        ExpectBoxNear(got, want, 1.2e-7);
    }
}

}  // namespace
