// The core's image-process operations at camera size (1920x1080 in; 256x256
// out for resizes and crop-resizes), each beside the same work done by
// OpenCV on one thread in the same run.
#include <quvas/kernel/image_process.h>
#include <quvas/runtime/tensor.h>

#include <benchmark/benchmark.h>

#include <memory>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <random>
#include <vector>

namespace {

using quvas::kernel::ImageProcessFallback;
using quvas::runtime::Context;
using quvas::runtime::DeviceCPU;
using quvas::runtime::TensorPtr;
using quvas::runtime::TensorShape;
namespace op = quvas::kernel::op;
namespace layout = quvas::runtime::layout;

constexpr int kH = 1080;
constexpr int kW = 1920;
constexpr int kOut = 256;
constexpr float kBox[4] = {0.2f, 0.1f, 0.8f, 0.9f};  // x0, y0, x1, y1

DeviceCPU& Device() {
    static DeviceCPU device;
    return device;
}

TensorPtr Make(std::vector<int32_t> dims, int32_t lay) {
    TensorPtr t = Device().CreateTensor(TensorShape(std::move(dims), 7, lay), nullptr);
    std::mt19937 rng(7);
    for (size_t i = 0; i < t->byte_size(); ++i) t->data()[i] = static_cast<uint8_t>(rng());
    return t;
}

cv::Mat Wrap(const TensorPtr& t, int rows, int cols, int channels, size_t offset = 0) {
    return cv::Mat(rows, cols, CV_8UC(channels), t->data() + offset);
}

void SetBytes(benchmark::State& state, size_t bytes_in) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(bytes_in));
}

// --- ours --------------------------------------------------------------------

void Ours(benchmark::State& state, int code, std::vector<int32_t> in_dims, int32_t in_layout,
          std::vector<int32_t> out_dims, int32_t out_layout, bool box) {
    ImageProcessFallback proc;
    auto ctx = std::make_shared<Context>();
    TensorPtr in = Make(in_dims, in_layout);
    TensorPtr out = Make(out_dims, out_layout);
    for (auto _ : state) {
        if (box) {
            proc.ConvertPixel(in, out, kBox[0], kBox[1], kBox[2], kBox[3], code, ctx);
        } else {
            proc.ConvertPixel(in, out, code, ctx);
        }
        benchmark::DoNotOptimize(out->data());
        benchmark::ClobberMemory();
    }
    SetBytes(state, in->byte_size());
}

void BM_Ours_Pack4To012_c1(benchmark::State& s) { Ours(s, op::kPack4ToPlanar012, {kH, kW, 4}, layout::kHWC, {3, kH, kW}, layout::kCHW, false); }
void BM_Ours_Pack4To210_c3(benchmark::State& s) { Ours(s, op::kPack4ToPlanar210, {kH, kW, 4}, layout::kHWC, {3, kH, kW}, layout::kCHW, false); }
void BM_Ours_Pack3To012_c4(benchmark::State& s) { Ours(s, op::kPack3ToPlanar012, {kH, kW, 3}, layout::kHWC, {3, kH, kW}, layout::kCHW, false); }
void BM_Ours_Pack3To210_c60(benchmark::State& s) { Ours(s, op::kPack3ToPlanar210, {kH, kW, 3}, layout::kHWC, {3, kH, kW}, layout::kCHW, false); }
void BM_Ours_Yuv420ToRGB_c32(benchmark::State& s) { Ours(s, op::kYUV420PlanarToRGB, {kH, kW, 1}, layout::kYUV420Planar, {3, kH, kW}, layout::kCHW, false); }
void BM_Ours_Rotate90_c50(benchmark::State& s) { Ours(s, op::kRotate90, {3, kH, kW}, layout::kCHW, {3, kW, kH}, layout::kCHW, false); }
void BM_Ours_Rotate180_c51(benchmark::State& s) { Ours(s, op::kRotate180, {3, kH, kW}, layout::kCHW, {3, kH, kW}, layout::kCHW, false); }
void BM_Ours_Rotate270_c52(benchmark::State& s) { Ours(s, op::kRotate270, {3, kH, kW}, layout::kCHW, {3, kW, kH}, layout::kCHW, false); }
void BM_Ours_Mirror_c53(benchmark::State& s) { Ours(s, op::kMirror, {3, kH, kW}, layout::kCHW, {3, kH, kW}, layout::kCHW, false); }
void BM_Ours_ResizePlane_c77(benchmark::State& s) { Ours(s, op::kResizePlane, {kH, kW, 1}, layout::kPlane, {kOut, kOut, 1}, layout::kPlane, false); }
void BM_Ours_ResizeHWC3_c83(benchmark::State& s) { Ours(s, op::kResizeHWC3, {kH, kW, 3}, layout::kHWC, {kOut, kOut, 3}, layout::kHWC, false); }
void BM_Ours_ResizeHWC4_c84(benchmark::State& s) { Ours(s, op::kResizeHWC4, {kH, kW, 4}, layout::kHWC, {kOut, kOut, 4}, layout::kHWC, false); }
void BM_Ours_CropResizePlane_c85(benchmark::State& s) { Ours(s, op::kCropResizePlane, {kH, kW, 1}, layout::kPlane, {kOut, kOut, 1}, layout::kPlane, true); }
void BM_Ours_CropResizeHWC3_c87(benchmark::State& s) { Ours(s, op::kCropResizeHWC3, {kH, kW, 3}, layout::kHWC, {kOut, kOut, 3}, layout::kHWC, true); }
void BM_Ours_CropResizeHWC4_c88(benchmark::State& s) { Ours(s, op::kCropResizeHWC4, {kH, kW, 4}, layout::kHWC, {kOut, kOut, 4}, layout::kHWC, true); }

// --- OpenCV, the same work ------------------------------------------------------

// Interleaved -> three planes, picking channels `from`.
void CvPlanes(benchmark::State& state, int channels, int f0, int f1, int f2) {
    TensorPtr in = Make({kH, kW, channels}, layout::kHWC);
    TensorPtr out = Make({3, kH, kW}, layout::kCHW);
    const size_t plane = static_cast<size_t>(kH) * kW;
    const cv::Mat src = Wrap(in, kH, kW, channels);
    cv::Mat dst[3] = {Wrap(out, kH, kW, 1), Wrap(out, kH, kW, 1, plane),
                      Wrap(out, kH, kW, 1, 2 * plane)};
    const int from_to[] = {f0, 0, f1, 1, f2, 2};
    for (auto _ : state) {
        cv::mixChannels(&src, 1, dst, 3, from_to, 3);
        benchmark::ClobberMemory();
    }
    SetBytes(state, in->byte_size());
}
void BM_OpenCV_Pack4To012_c1(benchmark::State& s) { CvPlanes(s, 4, 0, 1, 2); }
void BM_OpenCV_Pack4To210_c3(benchmark::State& s) { CvPlanes(s, 4, 2, 1, 0); }
void BM_OpenCV_Pack3To012_c4(benchmark::State& s) { CvPlanes(s, 3, 0, 1, 2); }
void BM_OpenCV_Pack3To210_c60(benchmark::State& s) { CvPlanes(s, 3, 2, 1, 0); }

// OpenCV has no planar-output 4:2:0 conversion; its interleaved one does
// less work than ours (no split), and uses limited-range weights.
void BM_OpenCV_Yuv420ToRGB_c32(benchmark::State& state) {
    TensorPtr in = Make({kH, kW, 1}, layout::kYUV420Planar);
    const cv::Mat src(kH * 3 / 2, kW, CV_8UC1, in->data());
    cv::Mat dst(kH, kW, CV_8UC3);
    for (auto _ : state) {
        cv::cvtColor(src, dst, cv::COLOR_YUV2RGB_I420);
        benchmark::ClobberMemory();
    }
    SetBytes(state, in->byte_size());
}

void CvTurn(benchmark::State& state, int how, bool swaps) {
    TensorPtr in = Make({3, kH, kW}, layout::kCHW);
    TensorPtr out = Make({3, swaps ? kW : kH, swaps ? kH : kW}, layout::kCHW);
    const size_t plane = static_cast<size_t>(kH) * kW;
    for (auto _ : state) {
        for (int c = 0; c < 3; ++c) {
            const cv::Mat src = Wrap(in, kH, kW, 1, c * plane);
            cv::Mat dst = Wrap(out, swaps ? kW : kH, swaps ? kH : kW, 1, c * plane);
            if (how < 0) {
                cv::flip(src, dst, 1);
            } else {
                cv::rotate(src, dst, how);
            }
        }
        benchmark::ClobberMemory();
    }
    SetBytes(state, in->byte_size());
}
void BM_OpenCV_Rotate90_c50(benchmark::State& s) { CvTurn(s, cv::ROTATE_90_CLOCKWISE, true); }
void BM_OpenCV_Rotate180_c51(benchmark::State& s) { CvTurn(s, cv::ROTATE_180, false); }
void BM_OpenCV_Rotate270_c52(benchmark::State& s) { CvTurn(s, cv::ROTATE_90_COUNTERCLOCKWISE, true); }
void BM_OpenCV_Mirror_c53(benchmark::State& s) { CvTurn(s, -1, false); }

void CvResize(benchmark::State& state, int channels, bool box) {
    TensorPtr in = Make({kH, kW, channels}, channels == 1 ? layout::kPlane : layout::kHWC);
    cv::Mat src = Wrap(in, kH, kW, channels);
    if (box) {
        src = src(cv::Rect(cvRound(kBox[0] * kW), cvRound(kBox[1] * kH),
                           cvRound((kBox[2] - kBox[0]) * kW), cvRound((kBox[3] - kBox[1]) * kH)));
    }
    cv::Mat dst(kOut, kOut, CV_8UC(channels));
    for (auto _ : state) {
        cv::resize(src, dst, cv::Size(kOut, kOut), 0, 0, cv::INTER_LINEAR);
        benchmark::ClobberMemory();
    }
    SetBytes(state, in->byte_size());
}
void BM_OpenCV_ResizePlane_c77(benchmark::State& s) { CvResize(s, 1, false); }
void BM_OpenCV_ResizeHWC3_c83(benchmark::State& s) { CvResize(s, 3, false); }
void BM_OpenCV_ResizeHWC4_c84(benchmark::State& s) { CvResize(s, 4, false); }
void BM_OpenCV_CropResizePlane_c85(benchmark::State& s) { CvResize(s, 1, true); }
void BM_OpenCV_CropResizeHWC3_c87(benchmark::State& s) { CvResize(s, 3, true); }
void BM_OpenCV_CropResizeHWC4_c88(benchmark::State& s) { CvResize(s, 4, true); }

}  // namespace

#define PAIR(name)                                            \
    BENCHMARK(BM_Ours_##name)->Unit(benchmark::kMicrosecond); \
    BENCHMARK(BM_OpenCV_##name)->Unit(benchmark::kMicrosecond)

PAIR(Pack4To012_c1);
PAIR(Pack4To210_c3);
PAIR(Pack3To012_c4);
PAIR(Pack3To210_c60);
PAIR(Yuv420ToRGB_c32);
PAIR(Rotate90_c50);
PAIR(Rotate180_c51);
PAIR(Rotate270_c52);
PAIR(Mirror_c53);
PAIR(ResizePlane_c77);
PAIR(ResizeHWC3_c83);
PAIR(ResizeHWC4_c84);
PAIR(CropResizePlane_c85);
PAIR(CropResizeHWC3_c87);
PAIR(CropResizeHWC4_c88);

int main(int argc, char** argv) {
    cv::setNumThreads(1);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
