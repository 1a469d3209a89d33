// Heatmap decoders and float-to-byte mask converters beside OpenCV doing the
// same work, single-threaded. Throughput counts the f32 input bytes; a memcpy
// of the same bytes runs alongside as the memory-speed yardstick.
#include <qvn_kit/qvn_kit.hpp>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>

#include <cstring>
#include <random>
#include <vector>

#include "test_support.h"

namespace {

constexpr int kChannels = 17;

// ---------------------------------------------------------------------------
// Decoders: 17 heatmaps of W x H (args: W, H).
// ---------------------------------------------------------------------------

enum Variant { kScalar, kNoSqrt, kSseSqrt, kSseNoSqrt };

template <Variant V>
void BM_SoftArgMax(benchmark::State& state) {
    const int W = static_cast<int>(state.range(0)), H = static_cast<int>(state.range(1));
    const auto data = qvntest::RandomFloats(size_t(W) * H * kChannels, 0.0f, 1.0f, 1);
    quvas::kit::SoftArgMax sam(W, H, kChannels, 8.0f);
    for (auto _ : state) {
        switch (V) {
            case kScalar: sam.Decode_CHW_F32(data.data(), kChannels, H, W); break;
            case kNoSqrt: sam.Decode_WithConfidenceNoSqrt_CHW_F32(data.data(), kChannels, H, W); break;
            case kSseSqrt: sam.Decode_WithConfidence_CHW_F32_SSE(data.data(), kChannels, H, W); break;
            case kSseNoSqrt:
                sam.Decode_WithConfidenceNoSqrt_CHW_F32_SSE(data.data(), kChannels, H, W);
                break;
        }
        benchmark::DoNotOptimize(sam.x_out[0]);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * W * H * kChannels * 4);
}

// OpenCV soft-argmax with the library exponential: x, y per plane (no spread).
void BM_SoftArgMax_OpenCV(benchmark::State& state) {
    const int W = static_cast<int>(state.range(0)), H = static_cast<int>(state.range(1));
    auto data = qvntest::RandomFloats(size_t(W) * H * kChannels, 0.0f, 1.0f, 1);
    cv::Mat gx(H, W, CV_32F), gy(H, W, CV_32F), e(H, W, CV_32F);
    for (int r = 0; r < H; ++r)
        for (int k = 0; k < W; ++k) {
            gx.at<float>(r, k) = 2.0f * k / (W - 1) - 1.0f;
            gy.at<float>(r, k) = 2.0f * r / (H - 1) - 1.0f;
        }
    float xs[kChannels], ys[kChannels];
    for (auto _ : state) {
        for (int c = 0; c < kChannels; ++c) {
            const cv::Mat plane(H, W, CV_32F, data.data() + size_t(c) * W * H);
            plane.convertTo(e, CV_32F, 8.0);
            cv::exp(e, e);
            const double s = cv::sum(e)[0];
            xs[c] = static_cast<float>(e.dot(gx) / s);
            ys[c] = static_cast<float>(e.dot(gy) / s);
        }
        benchmark::DoNotOptimize(xs);
        benchmark::DoNotOptimize(ys);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * W * H * kChannels * 4);
}

// Large vectors come page-aligned from mmap. With source and destination at
// the same page offset, glibc's memcpy (rep movsb) runs about 14x slower here
// (measured: 2.1 vs 29 GB/s for 256 KiB), so the copy lands 64 bytes in.
void CopyBytes(benchmark::State& state, size_t bytes) {
    std::vector<char> a(bytes, 1), b(bytes + 64);
    for (auto _ : state) {
        std::memcpy(b.data() + 64, a.data(), bytes);
        benchmark::ClobberMemory();
    }
}

void BM_Memcpy_Heatmaps(benchmark::State& state) {
    const size_t bytes = size_t(state.range(0)) * state.range(1) * kChannels * 4;
    CopyBytes(state, bytes);
    state.SetBytesProcessed(int64_t(state.iterations()) * bytes);
}

#define DECODE_SHAPES ->Args({64, 48})->Args({96, 72})
// Names follow scripts/bench: "<workload>/<implementation>[-variant]".
BENCHMARK(BM_SoftArgMax<kScalar>)->Name("SoftArgMax/ours-scalar") DECODE_SHAPES;
BENCHMARK(BM_SoftArgMax<kNoSqrt>)->Name("SoftArgMax/ours-scalarNoSqrt") DECODE_SHAPES;
BENCHMARK(BM_SoftArgMax<kSseSqrt>)->Name("SoftArgMax/ours-sse") DECODE_SHAPES;
BENCHMARK(BM_SoftArgMax<kSseNoSqrt>)->Name("SoftArgMax/ours-sseNoSqrt") DECODE_SHAPES;
BENCHMARK(BM_SoftArgMax_OpenCV)->Name("SoftArgMax/opencv") DECODE_SHAPES;
BENCHMARK(BM_Memcpy_Heatmaps)->Name("SoftArgMax/memcpy") DECODE_SHAPES;

// ---------------------------------------------------------------------------
// Float-to-byte conversion of W x H values (args: W, H).
// ---------------------------------------------------------------------------

void SetConvertBytes(benchmark::State& state) {
    state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0) * state.range(1) * 4);
}

void BM_Float01ToByte(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0) * state.range(1));
    const auto src = qvntest::RandomFloats((n + 15) / 16 * 16, 0.0f, 1.0f, 2);
    std::vector<unsigned char> dst((n + 15) / 16 * 16);
    for (auto _ : state) {
        quvas::kit::float01toUchar0255SSE(src.data(), dst.data(), n);
        benchmark::ClobberMemory();
    }
    SetConvertBytes(state);
}

void BM_Float01ToByte_OpenCV(benchmark::State& state) {
    const int W = static_cast<int>(state.range(0)), H = static_cast<int>(state.range(1));
    auto src = qvntest::RandomFloats(size_t(W) * H, 0.0f, 1.0f, 2);
    const cv::Mat in(H, W, CV_32F, src.data());
    cv::Mat out(H, W, CV_8U);
    for (auto _ : state) {
        in.convertTo(out, CV_8U, 255.0);
        benchmark::ClobberMemory();
    }
    SetConvertBytes(state);
}

void BM_SigmoidToByte(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0) * state.range(1));
    const auto src = qvntest::RandomFloats((n + 15) / 16 * 16, -6.0f, 6.0f, 3);
    std::vector<unsigned char> dst((n + 15) / 16 * 16);
    for (auto _ : state) {
        quvas::kit::sigmoid_float01toUchar0255SSE(src.data(), dst.data(), n);
        benchmark::ClobberMemory();
    }
    SetConvertBytes(state);
}

// 255 / (1 + exp(-x)) with OpenCV's vectorised exp, temporaries reused.
void BM_SigmoidToByte_OpenCV(benchmark::State& state) {
    const int W = static_cast<int>(state.range(0)), H = static_cast<int>(state.range(1));
    auto src = qvntest::RandomFloats(size_t(W) * H, -6.0f, 6.0f, 3);
    const cv::Mat in(H, W, CV_32F, src.data());
    cv::Mat t(H, W, CV_32F), out(H, W, CV_8U);
    for (auto _ : state) {
        cv::multiply(in, cv::Scalar(-1.0), t);
        cv::exp(t, t);
        cv::add(t, cv::Scalar(1.0), t);
        cv::divide(255.0, t, t);
        t.convertTo(out, CV_8U);
        benchmark::ClobberMemory();
    }
    SetConvertBytes(state);
}

void BM_Memcpy_Floats(benchmark::State& state) {
    CopyBytes(state, size_t(state.range(0)) * state.range(1) * 4);
    SetConvertBytes(state);
}

#define CONVERT_SHAPES ->Args({256, 256})->Args({1920, 1080})
BENCHMARK(BM_Float01ToByte)->Name("Float01ToByte/ours") CONVERT_SHAPES;
BENCHMARK(BM_Float01ToByte_OpenCV)->Name("Float01ToByte/opencv") CONVERT_SHAPES;
BENCHMARK(BM_SigmoidToByte)->Name("SigmoidToByte/ours") CONVERT_SHAPES;
BENCHMARK(BM_SigmoidToByte_OpenCV)->Name("SigmoidToByte/opencv") CONVERT_SHAPES;
BENCHMARK(BM_Memcpy_Floats)->Name("FloatsToBytes/memcpy") CONVERT_SHAPES;

}  // namespace

int main(int argc, char** argv) {
    cv::setNumThreads(1);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
