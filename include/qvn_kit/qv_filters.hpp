// qv_filters.hpp - the filters that the box trackers own: a linear Kalman
// filter and a One-Euro filter, both templates over an Eigen dense matrix.
//
// The trackers of <qvn_kit/qvn_kit.hpp> instantiate them over FilterMatrix
// (Eigen::MatrixXd). This header is separate so that only code that looks
// inside a tracker's filter pays for Eigen. Include it after or instead of
// qvn_kit.hpp; it needs Eigen 3 on the include path.
#ifndef QVN_KIT_QV_FILTERS_HPP
#define QVN_KIT_QV_FILTERS_HPP

#include <qvn_kit/qvn_kit.hpp>

#include <Eigen/Dense>

#include <cmath>

namespace quvas {
namespace kit {

// Linear Kalman filter without control input. The member names and their
// order are part of the interface: callers inspect the state and covariance
// through them. predict() leaves the filter consistent on its own (the
// corrected state and covariance take the predicted ones), so a run of
// predictions without measurements keeps extrapolating.
template <typename M>
class KalmanFilter {
public:
    // Sizes the fifteen matrices: states and covariances zero, transition
    // identity, the measurement map zero, both noise covariances identity.
    // The owner fills in the model (time-step terms, map, noise scales).
    KalmanFilter(int state_size, int measure_size, int control_size = 0)
        : state_predicted(M::Zero(state_size, 1)),
          state_corrected(M::Zero(state_size, 1)),
          transition(M::Identity(state_size, state_size)),
          control(M::Zero(control_size, control_size)),
          measurement_map(M::Zero(measure_size, state_size)),
          process_noise_cov(M::Identity(state_size, state_size)),
          measurement_noise_cov(M::Identity(measure_size, measure_size)),
          cov_predicted(M::Zero(state_size, state_size)),
          gain(M::Zero(state_size, measure_size)),
          cov_corrected(M::Zero(state_size, state_size)),
          scratch1(M::Zero(state_size, state_size)),
          scratch2(M::Zero(measure_size, state_size)),
          scratch3(M::Zero(measure_size, measure_size)),
          scratch4(M::Zero(measure_size, state_size)),
          scratch5(M::Zero(measure_size, 1)) {}

    // x' = F x;  P' = (F P) F^T + Q;  then corrected := predicted.
    const M& predict() {
        state_predicted.noalias() = transition * state_corrected;
        scratch1.noalias() = transition * cov_corrected;
        // Q first, then += the product: the product's accumulator is added
        // to Q in one rounding, exactly as "product + Q" would, without the
        // temporary that Eigen makes for a product inside a sum.
        cov_predicted = process_noise_cov;
        cov_predicted.noalias() += scratch1 * transition.transpose();
        state_corrected = state_predicted;
        cov_corrected = cov_predicted;
        return state_predicted;
    }

    // S = H P' H^T + R;  K = (S^-1 H P')^T;  x = x' + K (z - H x');
    // P = P' - K H P'.  S is inverted by LU with partial pivoting and is not
    // checked for singularity.
    const M& correct(const M& measurement) {
        scratch2.noalias() = measurement_map * cov_predicted;
        scratch3 = measurement_noise_cov;
        scratch3.noalias() += scratch2 * measurement_map.transpose();
        scratch4.noalias() = M(scratch3.partialPivLu().inverse()) * scratch2;
        gain = scratch4.transpose();
        scratch5 = measurement;
        scratch5.noalias() -= measurement_map * state_predicted;
        state_corrected = state_predicted;
        state_corrected.noalias() += gain * scratch5;
        cov_corrected = cov_predicted;
        cov_corrected.noalias() -= gain * scratch2;
        return state_corrected;
    }

    M state_predicted;        // x'  (n x 1)
    M state_corrected;        // x   (n x 1)
    M transition;             // F   (n x n)
    M control;                // unused (0 x 0)
    M measurement_map;        // H   (m x n)
    M process_noise_cov;      // Q   (n x n)
    M measurement_noise_cov;  // R   (m x m)
    M cov_predicted;          // P'  (n x n)
    M gain;                   // K   (n x m)
    M cov_corrected;          // P   (n x n)
    M scratch1;               // F P       (n x n)
    M scratch2;               // H P'      (m x n)
    M scratch3;               // S         (m x m)
    M scratch4;               // S^-1 H P' (m x n)
    M scratch5;               // innovation (m x 1)
};

// One-Euro filter over N-row columns: an exponential smoother whose cutoff
// rises with the smoothed speed of the signal, so slow motion is smoothed
// hard (no jitter) and fast motion follows with little lag. The sampling
// rate comes from the timestamps handed to track().
//
// Which previous value the derivative uses: track() takes the speed as
// (x - previous raw input) * rate, not against the previous filtered output.
// The filter's authors' current reference code (since 2023) uses the filtered
// output, so settings ported from it give different numbers here (visibly so
// on their own test signal); neither is a bug. Trackers tuned on this kit keep
// this behaviour.
template <typename M, int N>
class OneEuroFilter {
public:
    class low_pass_filter {
    public:
        low_pass_filter() : hat_x_prev(M::Zero(N, 1)), x_prev(M::Zero(N, 1)), initialized(false) {}

        // out = prev + a (x - prev), element by element; the first call
        // passes x through.
        M operator()(M x, M alpha) {
            M out;
            if (initialized) {
                out = ((x - hat_x_prev).array() * alpha.array() + hat_x_prev.array()).matrix();
            } else {
                out = x;
                initialized = true;
            }
            x_prev = x;
            hat_x_prev = out;
            return out;
        }

        M hat_x_prev;  // last output
        M x_prev;      // last raw input
        bool initialized;
    };

    OneEuroFilter(double frequency_hz, double min_cutoff_hz, double beta_, double d_cutoff_hz)
        : last_time(-1.0),
          frequency(frequency_hz),
          beta(beta_),
          min_cutoff(M::Constant(N, 1, min_cutoff_hz)),
          d_cutoff(M::Constant(N, 1, d_cutoff_hz)) {}

    // Smoothing factor per element for the current sampling rate:
    // 1 / (1 + tau f) with tau = 1 / (2 pi cutoff).
    template <typename T>
    T alpha(T cutoff) {
        const auto tau = (cutoff.array() * 6.283185307179586).inverse();
        return T((1.0 + tau * frequency).inverse().matrix());
    }

    // Learns the sampling rate from the timestamps; skips the update when
    // there is no previous time, the time did not move, or t is -1.
    void update_rate(double timestamp) {
        if (last_time != -1.0 && timestamp != last_time && timestamp != -1.0) {
            frequency = 1.0 / (timestamp - last_time);
        }
        last_time = timestamp;
    }

    M track(M x, double timestamp) {
        update_rate(timestamp);
        // The speed is taken against the previous raw input, not the
        // previous output: a smoothed output lags and would read as motion.
        M dx = x_filter.initialized ? M((x - x_filter.x_prev) * frequency) : M(M::Zero(N, 1));
        M edx = dx_filter(dx, alpha(d_cutoff));
        M cutoff(N, 1);
        for (int i = 0; i < N; ++i) {
            cutoff(i) = std::fma(beta, std::abs(edx(i)), min_cutoff(i));
        }
        return x_filter(x, alpha(cutoff));
    }

    low_pass_filter x_filter;   // the value
    low_pass_filter dx_filter;  // its derivative
    double last_time;           // seconds; -1 before the first call
    double frequency;           // Hz, current sampling rate
    double beta;                // speed coefficient
    M min_cutoff;               // N x 1
    M d_cutoff;                 // N x 1
};

}  // namespace kit
}  // namespace quvas

#endif  // QVN_KIT_QV_FILTERS_HPP
