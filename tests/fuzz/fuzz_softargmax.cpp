// fuzz_softargmax.cpp - the SoftArgMax decoders (scalar and vectorised, with
// and without confidence) on random heatmap shapes, betas and values. Where
// beta times every value stays well inside the exponential's range, every
// point lies in -1..1 and every confidence is finite; nothing is refused.
#include "fuzz_common.hpp"

#include <qvn_kit/qvn_kit.hpp>

#include <cmath>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    qvnfuzz::Input in(data, size);
    qvnfuzz::StartCall();
    const int variant = in.Range(0, 3);
    const bool sse = variant >= 2;
    const int c = in.Range(1, 6), h = in.Range(2, 24);
    // The vectorised decoders take four columns at a time.
    const int w = sse ? 4 * in.Range(1, 6) : in.Range(2, 24);
    const bool wild = in.U8() < 32;
    const float beta = wild ? in.Finite() : static_cast<float>(in.Range(-400, 400)) / 10.f;
    std::vector<float> heat(static_cast<size_t>(c) * h * w);
    float peak = 0.f;
    for (float& v : heat) {
        v = wild ? in.Finite() : static_cast<float>(in.Range(-1000, 1000)) / 1000.f;
        peak = std::max(peak, std::fabs(v));
    }
    quvas::kit::SoftArgMax d(w, h, c, beta);
    switch (variant) {
        case 0: d.Decode_CHW_F32(heat.data(), c, h, w); break;
        case 1: d.Decode_WithConfidenceNoSqrt_CHW_F32(heat.data(), c, h, w); break;
        case 2: d.Decode_WithConfidence_CHW_F32_SSE(heat.data(), c, h, w); break;
        default: d.Decode_WithConfidenceNoSqrt_CHW_F32_SSE(heat.data(), c, h, w); break;
    }
    qvnfuzz::ExpectQuiet("SoftArgMax");
    if (std::fabs(beta) * peak < 40.f) {
        for (int i = 0; i < c; ++i) {
            // A weighted mean of grid points from -1 to 1 (rounding aside).
            if (!(std::fabs(d.x_out[i]) <= 1.0001f) || !(std::fabs(d.y_out[i]) <= 1.0001f)) {
                qvnfuzz::Fail("a point outside -1..1");
            }
            if (variant != 0 && !std::isfinite(d.confidence[i])) {
                qvnfuzz::Fail("a non-finite confidence");
            }
        }
    }
    return 0;
}
