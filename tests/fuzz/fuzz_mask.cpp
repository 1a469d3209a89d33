// fuzz_mask.cpp - the float-to-byte mask converters on random lengths and
// values, with both buffers rounded up to whole blocks of 16 as the kit
// documents (ASan sees any access beyond them). Values in 0..1 give a byte
// within a step of 255 x value (the sigmoid: of 255 / (1 + e^-x)).
#include "fuzz_common.hpp"

#include <qvn_kit/qvn_kit.hpp>

#include <cmath>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    qvnfuzz::Input in(data, size);
    qvnfuzz::StartCall();
    const bool sigmoid = in.Bit();
    const bool wild = in.Bit();
    const int n = in.Range(0, 200);
    const size_t padded = (static_cast<size_t>(n) + 15) / 16 * 16;
    std::vector<float> src(padded, 0.f);
    for (int i = 0; i < n; ++i) {
        src[static_cast<size_t>(i)] = wild ? in.Finite() : static_cast<float>(in.Range(0, 1000)) / 1000.f;
    }
    std::vector<unsigned char> dst(padded, 0x77);
    if (sigmoid) {
        quvas::kit::sigmoid_float01toUchar0255SSE(src.data(), dst.data(), n);
    } else {
        quvas::kit::float01toUchar0255SSE(src.data(), dst.data(), n);
    }
    qvnfuzz::ExpectQuiet("mask");
    for (int i = 0; i < n; ++i) {
        const float x = src[static_cast<size_t>(i)];
        const double want = sigmoid ? 255.0 / (1.0 + std::exp(-static_cast<double>(x))) : 255.0 * x;
        if (!wild || (x >= 0.f && x <= 1.f)) {
            // Vector blocks round, the tail truncates; the sigmoid's vector
            // exponential is an approximation good to a few steps.
            const double slack = sigmoid ? 8.0 : 1.0;
            if (std::fabs(dst[static_cast<size_t>(i)] - want) > slack) qvnfuzz::Fail("byte far from 255 x value");
        }
    }
    return 0;
}
