// The core's image kernels beside OpenCV doing the same work, single
// threaded, at camera sizes: each case runs as <kernel>/ours and
// <kernel>/opencv in the same process on the same random input.
#include <quvas/kernel/functional.h>
#include <quvas/runtime/tensor.h>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <cstring>
#include <memory>
#include <vector>

#include "bench_common.h"

namespace {

using namespace qvn_bench;

TensorPtr Planes(cv::Mat& m, int h, int w) {  // m holds 3*h*w bytes
    rt::TensorShape shape({3, h, w}, rt::data_type::kUInt8, rt::layout::kCHW);
    return Device().CreateTensorExternal(shape, m.data);
}

void SetUp() {
    static bool once = [] {
        cv::setNumThreads(0);  // OpenCV runs sequentially, as our kernels do
        return true;
    }();
    (void)once;
}

// ---------------------------------------------------------------------------
// Resize 1920x1080 -> 256x256
// ---------------------------------------------------------------------------

template <int C>
void Resize_Ours(benchmark::State& state) {
    SetUp();
    const int sw = static_cast<int>(state.range(0)), sh = static_cast<int>(state.range(1));
    cv::Mat src = RandomMat(sh, sw, C), dst(256, 256, CV_8UC(C));
    TensorPtr s = Wrap(src), d = Wrap(dst);
    for (auto _ : state) {
        if (C == 1) fn::F_Resize_Bilinear_HWC_U8_C1_Fallback(s, d);
        if (C == 2) fn::F_Resize_Bilinear_HWC_U8_C2_Fallback(s, d);
        if (C == 4) fn::F_Resize_Bilinear_HWC_U8_C4_Fallback(s, d);
        benchmark::DoNotOptimize(dst.data);
    }
}

template <int C>
void Resize_OpenCV(benchmark::State& state) {
    SetUp();
    const int sw = static_cast<int>(state.range(0)), sh = static_cast<int>(state.range(1));
    cv::Mat src = RandomMat(sh, sw, C), dst(256, 256, CV_8UC(C));
    for (auto _ : state) {
        cv::resize(src, dst, dst.size(), 0, 0, cv::INTER_LINEAR);
        benchmark::DoNotOptimize(dst.data);
    }
}

BENCHMARK(Resize_Ours<1>)->Name("Resize_C1_1920x1080_to_256/ours")->Args({1920, 1080})->Unit(benchmark::kMicrosecond);
BENCHMARK(Resize_OpenCV<1>)->Name("Resize_C1_1920x1080_to_256/opencv")->Args({1920, 1080})->Unit(benchmark::kMicrosecond);
BENCHMARK(Resize_Ours<2>)->Name("Resize_C2_1920x1080_to_256/ours")->Args({1920, 1080})->Unit(benchmark::kMicrosecond);
BENCHMARK(Resize_OpenCV<2>)->Name("Resize_C2_1920x1080_to_256/opencv")->Args({1920, 1080})->Unit(benchmark::kMicrosecond);
BENCHMARK(Resize_Ours<4>)->Name("Resize_C4_1920x1080_to_256/ours")->Args({1920, 1080})->Unit(benchmark::kMicrosecond);
BENCHMARK(Resize_OpenCV<4>)->Name("Resize_C4_1920x1080_to_256/opencv")->Args({1920, 1080})->Unit(benchmark::kMicrosecond);
// Upscaling: a 128x128 source to 256x256.
BENCHMARK(Resize_Ours<4>)->Name("Resize_C4_128x128_to_256/ours")->Args({128, 128})->Unit(benchmark::kMicrosecond);
BENCHMARK(Resize_OpenCV<4>)->Name("Resize_C4_128x128_to_256/opencv")->Args({128, 128})->Unit(benchmark::kMicrosecond);

// ---------------------------------------------------------------------------
// Turns and flips of a full frame (C1 and C4 1920x1080, C2 960x540)
// ---------------------------------------------------------------------------

enum Move { kRot90, kRot180, kRot270, kHFlip, kVFlip };

template <Move M>
void Move_Ours(benchmark::State& state) {
    SetUp();
    const int c = static_cast<int>(state.range(0)), w = static_cast<int>(state.range(1)),
              h = static_cast<int>(state.range(2));
    cv::Mat src = RandomMat(h, w, c);
    const bool quarter = M == kRot90 || M == kRot270;
    cv::Mat dst = quarter ? cv::Mat(w, h, CV_8UC(c)) : cv::Mat(h, w, CV_8UC(c));
    TensorPtr s = Wrap(src), d = Wrap(dst);
    for (auto _ : state) {
        switch (M) {
            case kRot90: fn::F_Rotate_Clockwise90_HWC_Fallback(s, d); break;
            case kRot180: fn::F_Rotate_Clockwise180_HWC_Fallback(s, d); break;
            case kRot270: fn::F_Rotate_Clockwise270_HWC_Fallback(s, d); break;
            case kHFlip: fn::F_HFlip_HWC_Fallback(s, d); break;
            case kVFlip: fn::F_VFlip_HWC_Fallback(s, d); break;
        }
        benchmark::DoNotOptimize(dst.data);
    }
}

template <Move M>
void Move_OpenCV(benchmark::State& state) {
    SetUp();
    const int c = static_cast<int>(state.range(0)), w = static_cast<int>(state.range(1)),
              h = static_cast<int>(state.range(2));
    cv::Mat src = RandomMat(h, w, c);
    const bool quarter = M == kRot90 || M == kRot270;
    cv::Mat dst = quarter ? cv::Mat(w, h, CV_8UC(c)) : cv::Mat(h, w, CV_8UC(c));
    for (auto _ : state) {
        switch (M) {
            case kRot90: cv::rotate(src, dst, cv::ROTATE_90_CLOCKWISE); break;
            case kRot180: cv::rotate(src, dst, cv::ROTATE_180); break;
            case kRot270: cv::rotate(src, dst, cv::ROTATE_90_COUNTERCLOCKWISE); break;
            case kHFlip: cv::flip(src, dst, 1); break;
            case kVFlip: cv::flip(src, dst, 0); break;
        }
        benchmark::DoNotOptimize(dst.data);
    }
}

#define QVN_MOVE_BENCH(M, label)                                                             \
    BENCHMARK(Move_Ours<M>)->Name(label "/ours")->ArgNames({"c", "w", "h"})                 \
        ->Args({1, 1920, 1080})->Args({2, 960, 540})->Args({4, 1920, 1080})                   \
        ->Unit(benchmark::kMicrosecond);                                                     \
    BENCHMARK(Move_OpenCV<M>)->Name(label "/opencv")->ArgNames({"c", "w", "h"})             \
        ->Args({1, 1920, 1080})->Args({2, 960, 540})->Args({4, 1920, 1080})                   \
        ->Unit(benchmark::kMicrosecond)

QVN_MOVE_BENCH(kRot90, "Rotate90");
QVN_MOVE_BENCH(kRot180, "Rotate180");
QVN_MOVE_BENCH(kRot270, "Rotate270");
QVN_MOVE_BENCH(kHFlip, "HFlip");
QVN_MOVE_BENCH(kVFlip, "VFlip");

// ---------------------------------------------------------------------------
// Crop of a 1280x720 region out of a 1920x1080 BGRA frame
// ---------------------------------------------------------------------------

void Crop_Ours(benchmark::State& state) {
    SetUp();
    cv::Mat src = RandomMat(1080, 1920, 4), dst(720, 1280, CV_8UC4);
    TensorPtr s = Wrap(src), d = Wrap(dst);
    for (auto _ : state) {
        fn::F_Crop_U8_HWC_Memcpy(s, 300, 200, 1280, 720, 0, d);
        benchmark::DoNotOptimize(dst.data);
    }
}

void Crop_OpenCV(benchmark::State& state) {
    SetUp();
    cv::Mat src = RandomMat(1080, 1920, 4), dst(720, 1280, CV_8UC4);
    for (auto _ : state) {
        src(cv::Rect(300, 200, 1280, 720)).copyTo(dst);
        benchmark::DoNotOptimize(dst.data);
    }
}

BENCHMARK(Crop_Ours)->Name("Crop_C4_1280x720_of_1920x1080/ours")->Unit(benchmark::kMicrosecond);
BENCHMARK(Crop_OpenCV)->Name("Crop_C4_1280x720_of_1920x1080/opencv")->Unit(benchmark::kMicrosecond);

// ---------------------------------------------------------------------------
// Colour: BGRA to R, G, B planes; BGRA to gray; two-plane YUV to planes
// ---------------------------------------------------------------------------

void BgraPlanes_Ours(benchmark::State& state) {
    SetUp();
    const int w = static_cast<int>(state.range(0)), h = static_cast<int>(state.range(1));
    cv::Mat src = RandomMat(h, w, 4), dst(3 * h, w, CV_8UC1);
    TensorPtr s = Wrap(src), d = Planes(dst, h, w);
    for (auto _ : state) {
        fn::F_ColorCvt_BGRA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback(s, d);
        benchmark::DoNotOptimize(dst.data);
    }
}

// OpenCV's one-pass way to the same planes.
void BgraPlanes_OpenCV(benchmark::State& state) {
    SetUp();
    const int w = static_cast<int>(state.range(0)), h = static_cast<int>(state.range(1));
    cv::Mat src = RandomMat(h, w, 4), dst(3 * h, w, CV_8UC1);
    cv::Mat planes[3] = {dst.rowRange(0, h), dst.rowRange(h, 2 * h), dst.rowRange(2 * h, 3 * h)};
    const int from_to[] = {2, 0, 1, 1, 0, 2};
    for (auto _ : state) {
        cv::mixChannels(&src, 1, planes, 3, from_to, 3);
        benchmark::DoNotOptimize(dst.data);
    }
}

void Gray_Ours(benchmark::State& state) {
    SetUp();
    const int w = static_cast<int>(state.range(0)), h = static_cast<int>(state.range(1));
    cv::Mat src = RandomMat(h, w, 4), dst(h, w, CV_8UC1);
    TensorPtr s = Wrap(src), d = Wrap(dst);
    for (auto _ : state) {
        fn::F_ColorCvt_BGRA8888_To_Gray8_Fallback(s, d);
        benchmark::DoNotOptimize(dst.data);
    }
}

void Gray_OpenCV(benchmark::State& state) {
    SetUp();
    const int w = static_cast<int>(state.range(0)), h = static_cast<int>(state.range(1));
    cv::Mat src = RandomMat(h, w, 4), dst(h, w, CV_8UC1);
    for (auto _ : state) {
        cv::cvtColor(src, dst, cv::COLOR_BGRA2GRAY);
        benchmark::DoNotOptimize(dst.data);
    }
}

void Yuv_Ours(benchmark::State& state) {
    SetUp();
    const int w = static_cast<int>(state.range(0)), h = static_cast<int>(state.range(1));
    cv::Mat y = RandomMat(h, w, 1), uv = RandomMat(h / 2, w / 2, 2), dst(3 * h, w, CV_8UC1);
    TensorPtr ty = Wrap(y), tuv = Wrap(uv), d = Planes(dst, h, w);
    auto m = std::make_shared<quvas::kernel::YUVCvtMatrix>(
        quvas::kernel::YUVCvtMatrix{{1, 0, 1.402f, -0.3441363f, -0.7141363f, 1.772f, 0, 0, 0.5f, 0.5f}});
    for (auto _ : state) {
        fn::F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback(ty, tuv, m, d);
        benchmark::DoNotOptimize(dst.data);
    }
}

// OpenCV has no planar output: its NV12 converter (BT.601, fixed matrix)
// into interleaved RGB, then a split into the three planes.
void Yuv_OpenCV(benchmark::State& state) {
    SetUp();
    const int w = static_cast<int>(state.range(0)), h = static_cast<int>(state.range(1));
    cv::Mat y = RandomMat(h, w, 1), uv = RandomMat(h / 2, w / 2, 2), rgb(h, w, CV_8UC3),
            dst(3 * h, w, CV_8UC1);
    cv::Mat planes[3] = {dst.rowRange(0, h), dst.rowRange(h, 2 * h), dst.rowRange(2 * h, 3 * h)};
    for (auto _ : state) {
        cv::cvtColorTwoPlane(y, uv, rgb, cv::COLOR_YUV2RGB_NV12);
        cv::split(rgb, planes);
        benchmark::DoNotOptimize(dst.data);
    }
}

#define QVN_COLOUR_BENCH(fn_name, label)                                                     \
    BENCHMARK(fn_name##_Ours)->Name(label "/ours")->ArgNames({"w", "h"})                     \
        ->Args({1920, 1080})->Args({256, 256})->Unit(benchmark::kMicrosecond);               \
    BENCHMARK(fn_name##_OpenCV)->Name(label "/opencv")->ArgNames({"w", "h"})                 \
        ->Args({1920, 1080})->Args({256, 256})->Unit(benchmark::kMicrosecond)

QVN_COLOUR_BENCH(BgraPlanes, "BGRA_to_RGB_planes");
QVN_COLOUR_BENCH(Gray, "BGRA_to_gray");
QVN_COLOUR_BENCH(Yuv, "YUV_2plane_to_planes");

}  // namespace

BENCHMARK_MAIN();
