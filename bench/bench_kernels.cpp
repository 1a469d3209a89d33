// The pixel-kernel layer once per operation, through each of its callers,
// against the peers doing the same work in the same process: OpenCV (one
// thread), libyuv where it computes the same bytes, the Simd Library when the
// build found it (QVN_HAVE_SIMD), and a memcpy of the same bytes. Workloads
// are 1920 x 1080 frames. Names: <operation>/<who>.
#include <qvn_kit/qvn_kit.h>
#include <qvn_kit/qvn_kit.hpp>
#include <quvas/kernel/functional.h>
#include <quvas/kernel/image_process.h>
#include <quvas/runtime/tensor.h>

#include <benchmark/benchmark.h>
#include <libyuv/planar_functions.h>
#include <libyuv/rotate.h>
#include <libyuv/rotate_argb.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#ifdef QVN_HAVE_SIMD
#include <Simd/SimdLib.h>
#endif

#include <cstring>
#include <memory>
#include <vector>

#include "bench_common.h"

namespace {

using namespace qvn_bench;

constexpr int kOut = 256;

struct OneThread {
    OneThread() {
        cv::setNumThreads(1);
#ifdef QVN_HAVE_SIMD
        SimdSetThreadNumber(1);
#endif
    }
} one_thread;

void Bytes(benchmark::State& state, size_t bytes) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

// ---------------------------------------------------------------------------
// Quarter turns (clockwise), half turns and mirrors, N bytes a pixel.
// ---------------------------------------------------------------------------

enum Move { kTurn90, kTurn180, kMirror };

void Move_Kit(benchmark::State& state) {
    const Move move = static_cast<Move>(state.range(0));
    const int n = static_cast<int>(state.range(1));
    cv::Mat src = RandomMat(kH, kW, n), dst(move == kTurn90 ? kW : kH, move == kTurn90 ? kH : kW, CV_8UC(n));
    QVN_Image s = Image(src), d = Image(dst);
    for (auto _ : state) {
        if (move == kMirror) {
            QVN_Mirror_Image_CPU(&s, &d);
        } else {
            QVN_Clockwise_Rotate_Image_CPU(&s, &d, move == kTurn90 ? 90 : 180);
        }
        benchmark::ClobberMemory();
    }
    Bytes(state, src.total() * n);
}

void Move_Core(benchmark::State& state) {
    const Move move = static_cast<Move>(state.range(0));
    const int n = static_cast<int>(state.range(1));
    cv::Mat src = RandomMat(kH, kW, n), dst(move == kTurn90 ? kW : kH, move == kTurn90 ? kH : kW, CV_8UC(n));
    TensorPtr s = Wrap(src), d = Wrap(dst);
    for (auto _ : state) {
        if (move == kTurn90) fn::F_Rotate_Clockwise90_HWC_Fallback(s, d);
        if (move == kTurn180) fn::F_Rotate_Clockwise180_HWC_Fallback(s, d);
        if (move == kMirror) fn::F_HFlip_HWC_Fallback(s, d);
        benchmark::ClobberMemory();
    }
    Bytes(state, src.total() * n);
}

void Move_OpenCV(benchmark::State& state) {
    const Move move = static_cast<Move>(state.range(0));
    const int n = static_cast<int>(state.range(1));
    cv::Mat src = RandomMat(kH, kW, n), dst;
    for (auto _ : state) {
        if (move == kTurn90) cv::rotate(src, dst, cv::ROTATE_90_CLOCKWISE);
        if (move == kTurn180) cv::rotate(src, dst, cv::ROTATE_180);
        if (move == kMirror) cv::flip(src, dst, 1);
        benchmark::ClobberMemory();
    }
    Bytes(state, src.total() * n);
}

// libyuv: one-byte planes and four-byte pixels.
void Move_LibYUV(benchmark::State& state) {
    const Move move = static_cast<Move>(state.range(0));
    const int n = static_cast<int>(state.range(1));
    cv::Mat src = RandomMat(kH, kW, n), dst(move == kTurn90 ? kW : kH, move == kTurn90 ? kH : kW, CV_8UC(n));
    const int ds = static_cast<int>(dst.step);
    for (auto _ : state) {
        if (n == 1) {
            if (move == kMirror) {
                libyuv::MirrorPlane(src.data, kW, dst.data, ds, kW, kH);
            } else {
                libyuv::RotatePlane(src.data, kW, dst.data, ds, kW, kH,
                                    move == kTurn90 ? libyuv::kRotate90 : libyuv::kRotate180);
            }
        } else {
            if (move == kMirror) {
                libyuv::ARGBMirror(src.data, kW * 4, dst.data, ds, kW, kH);
            } else {
                libyuv::ARGBRotate(src.data, kW * 4, dst.data, ds, kW, kH,
                                   move == kTurn90 ? libyuv::kRotate90 : libyuv::kRotate180);
            }
        }
        benchmark::ClobberMemory();
    }
    Bytes(state, src.total() * n);
}

#ifdef QVN_HAVE_SIMD
void Move_Simd(benchmark::State& state) {
    const Move move = static_cast<Move>(state.range(0));
    const int n = static_cast<int>(state.range(1));
    cv::Mat src = RandomMat(kH, kW, n), dst(move == kTurn90 ? kW : kH, move == kTurn90 ? kH : kW, CV_8UC(n));
    // Its Rotate270 is counter-clockwise 270, i.e. clockwise 90; its
    // TransposeRotate90 is the left-right mirror.
    const SimdTransformType t = move == kTurn90    ? SimdTransformRotate270
                                : move == kTurn180 ? SimdTransformRotate180
                                                   : SimdTransformTransposeRotate90;
    for (auto _ : state) {
        SimdTransformImage(src.data, src.step, kW, kH, n, t, dst.data, dst.step);
        benchmark::ClobberMemory();
    }
    Bytes(state, src.total() * n);
}
#endif

void Move_Memcpy(benchmark::State& state) {
    const int n = static_cast<int>(state.range(1));
    cv::Mat src = RandomMat(kH, kW, n), dst(kH, kW, CV_8UC(n));
    for (auto _ : state) {
        std::memcpy(dst.data, src.data, src.total() * n);
        benchmark::ClobberMemory();
    }
    Bytes(state, src.total() * n);
}

void MoveArgs(benchmark::internal::Benchmark* b, bool libyuv_only = false) {
    b->ArgNames({"move", "n"})->Unit(benchmark::kMicrosecond);
    for (int move : {kTurn90, kTurn180, kMirror}) {
        for (int n : {1, 2, 3, 4}) {
            if (libyuv_only && n != 1 && n != 4) continue;
            b->Args({move, n});
        }
    }
}

BENCHMARK(Move_Kit)->Name("Move/kit")->Apply([](auto* b) { MoveArgs(b); });
BENCHMARK(Move_Core)->Name("Move/core")->Apply([](auto* b) { MoveArgs(b); });
BENCHMARK(Move_OpenCV)->Name("Move/opencv")->Apply([](auto* b) { MoveArgs(b); });
BENCHMARK(Move_LibYUV)->Name("Move/libyuv")->Apply([](auto* b) { MoveArgs(b, true); });
#ifdef QVN_HAVE_SIMD
BENCHMARK(Move_Simd)->Name("Move/simd")->Apply([](auto* b) { MoveArgs(b); });
#endif
BENCHMARK(Move_Memcpy)->Name("Move/memcpy")->ArgNames({"move", "n"})->Args({0, 1})->Args({0, 2})
    ->Args({0, 3})->Args({0, 4})->Unit(benchmark::kMicrosecond);

// ---------------------------------------------------------------------------
// BGRA -> gray
// ---------------------------------------------------------------------------

void Gray_Core(benchmark::State& state) {
    cv::Mat src = RandomMat(kH, kW, 4), dst(kH, kW, CV_8UC1);
    TensorPtr s = Wrap(src), d = Wrap(dst);
    for (auto _ : state) {
        fn::F_ColorCvt_BGRA8888_To_Gray8_Fallback(s, d);
        benchmark::ClobberMemory();
    }
    Bytes(state, src.total() * 4);
}

void Gray_OpenCV(benchmark::State& state) {
    cv::Mat src = RandomMat(kH, kW, 4), dst;
    for (auto _ : state) {
        cv::cvtColor(src, dst, cv::COLOR_BGRA2GRAY);
        benchmark::ClobberMemory();
    }
    Bytes(state, src.total() * 4);
}

#ifdef QVN_HAVE_SIMD
void Gray_Simd(benchmark::State& state) {
    cv::Mat src = RandomMat(kH, kW, 4), dst(kH, kW, CV_8UC1);
    for (auto _ : state) {
        SimdBgraToGray(src.data, kW, kH, src.step, dst.data, dst.step);
        benchmark::ClobberMemory();
    }
    Bytes(state, src.total() * 4);
}
BENCHMARK(Gray_Simd)->Name("Gray/simd")->Unit(benchmark::kMicrosecond);
#endif

// memcpy of the bytes read.
void Gray_Memcpy(benchmark::State& state) {
    cv::Mat src = RandomMat(kH, kW, 4), dst(kH, kW, CV_8UC4);
    for (auto _ : state) {
        std::memcpy(dst.data, src.data, src.total() * 4);
        benchmark::ClobberMemory();
    }
    Bytes(state, src.total() * 4);
}

BENCHMARK(Gray_Core)->Name("Gray/core")->Unit(benchmark::kMicrosecond);
BENCHMARK(Gray_OpenCV)->Name("Gray/opencv")->Unit(benchmark::kMicrosecond);
BENCHMARK(Gray_Memcpy)->Name("Gray/memcpy")->Unit(benchmark::kMicrosecond);

// ---------------------------------------------------------------------------
// Resize 1920 x 1080 -> 256 x 256, C channels: the functional kernel and the
// image-process operation (both on the same rows, each with its own table).
// ---------------------------------------------------------------------------

void Resize_Core(benchmark::State& state) {
    const int c = static_cast<int>(state.range(0));
    cv::Mat src = RandomMat(kH, kW, c), dst(kOut, kOut, CV_8UC(c));
    TensorPtr s = Wrap(src), d = Wrap(dst);
    for (auto _ : state) {
        if (c == 1) fn::F_Resize_Bilinear_HWC_U8_C1_Fallback(s, d);
        if (c == 2) fn::F_Resize_Bilinear_HWC_U8_C2_Fallback(s, d);
        if (c == 4) fn::F_Resize_Bilinear_HWC_U8_C4_Fallback(s, d);
        benchmark::ClobberMemory();
    }
}

void Resize_ImageProcess(benchmark::State& state) {
    const int c = static_cast<int>(state.range(0));
    cv::Mat src = RandomMat(kH, kW, c), dst(kOut, kOut, CV_8UC(c));
    const int32_t layout = c == 1 ? rt::layout::kPlane : rt::layout::kHWC;
    TensorPtr s = Wrap(src, layout), d = Wrap(dst, layout);
    quvas::kernel::ImageProcessFallback proc;
    const int code = c == 1 ? 77 : c == 3 ? 83 : 84;
    for (auto _ : state) {
        proc.ConvertPixel(s, d, code, nullptr);
        benchmark::ClobberMemory();
    }
}

void Resize_OpenCV(benchmark::State& state) {
    const int c = static_cast<int>(state.range(0));
    cv::Mat src = RandomMat(kH, kW, c), dst(kOut, kOut, CV_8UC(c));
    for (auto _ : state) {
        cv::resize(src, dst, dst.size(), 0, 0, cv::INTER_LINEAR);
        benchmark::ClobberMemory();
    }
}

#ifdef QVN_HAVE_SIMD
void Resize_Simd(benchmark::State& state) {
    const int c = static_cast<int>(state.range(0));
    cv::Mat src = RandomMat(kH, kW, c), dst(kOut, kOut, CV_8UC(c));
    void* resizer = SimdResizerInit(kW, kH, kOut, kOut, c, SimdResizeChannelByte, SimdResizeMethodBilinear);
    for (auto _ : state) {
        SimdResizerRun(resizer, src.data, src.step, dst.data, dst.step);
        benchmark::ClobberMemory();
    }
    SimdRelease(resizer);
}
BENCHMARK(Resize_Simd)->Name("Resize/simd")->ArgName("c")->Arg(1)->Arg(2)->Arg(3)->Arg(4)->Unit(benchmark::kMicrosecond);
#endif

BENCHMARK(Resize_Core)->Name("Resize/core")->ArgName("c")->Arg(1)->Arg(2)->Arg(4)->Unit(benchmark::kMicrosecond);
BENCHMARK(Resize_ImageProcess)->Name("Resize/imageprocess")->ArgName("c")->Arg(1)->Arg(3)->Arg(4)->Unit(benchmark::kMicrosecond);
BENCHMARK(Resize_OpenCV)->Name("Resize/opencv")->ArgName("c")->Arg(1)->Arg(2)->Arg(3)->Arg(4)->Unit(benchmark::kMicrosecond);

// ---------------------------------------------------------------------------
// Splits (BGRA -> three planes) and merges (three or four planes -> HWC).
// ---------------------------------------------------------------------------

void Split_Core(benchmark::State& state) {
    cv::Mat src = RandomMat(kH, kW, 4), dst(3 * kH, kW, CV_8UC1);
    TensorPtr s = Wrap(src);
    TensorPtr d = Device().CreateTensorExternal(
        rt::TensorShape({3, kH, kW}, rt::data_type::kUInt8, rt::layout::kCHW), dst.data);
    for (auto _ : state) {
        fn::F_ColorCvt_BGRA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback(s, d);
        benchmark::ClobberMemory();
    }
    Bytes(state, src.total() * 4);
}

void Split_OpenCV(benchmark::State& state) {
    cv::Mat src = RandomMat(kH, kW, 4);
    cv::Mat planes[3] = {cv::Mat(kH, kW, CV_8UC1), cv::Mat(kH, kW, CV_8UC1), cv::Mat(kH, kW, CV_8UC1)};
    const int pairs[] = {2, 0, 1, 1, 0, 2};
    for (auto _ : state) {
        cv::mixChannels(&src, 1, planes, 3, pairs, 3);
        benchmark::ClobberMemory();
    }
    Bytes(state, src.total() * 4);
}

#ifdef QVN_HAVE_SIMD
void Split_Simd(benchmark::State& state) {
    cv::Mat src = RandomMat(kH, kW, 4), dst(3 * kH, kW, CV_8UC1);
    uint8_t* r = dst.data;
    uint8_t* g = r + kW * kH;
    uint8_t* b = g + kW * kH;
    for (auto _ : state) {
        SimdDeinterleaveBgra(src.data, src.step, kW, kH, b, kW, g, kW, r, kW, nullptr, 0);
        benchmark::ClobberMemory();
    }
    Bytes(state, src.total() * 4);
}
BENCHMARK(Split_Simd)->Name("Split4/simd")->Unit(benchmark::kMicrosecond);
#endif

BENCHMARK(Split_Core)->Name("Split4/core")->Unit(benchmark::kMicrosecond);
BENCHMARK(Split_OpenCV)->Name("Split4/opencv")->Unit(benchmark::kMicrosecond);

void Merge_Kit(benchmark::State& state) {
    const int c = static_cast<int>(state.range(0));
    cv::Mat src = RandomMat(c * kH, kW, 1), dst(kH, kW, CV_8UC(c));
    QVN_Image s = Image(src), d = Image(dst);
    s.height = kH;
    s.channels = c;
    for (auto _ : state) {
        if (c == 3) quvas::kit::post_getRGB_HWC_from_RGB_CHW(&s, &d);
        if (c == 4) quvas::kit::post_getRGBA_HWC_from_RGBA_CHW(&s, &d);
        benchmark::ClobberMemory();
    }
    Bytes(state, src.total());
}

void Merge_OpenCV(benchmark::State& state) {
    const int c = static_cast<int>(state.range(0));
    cv::Mat src = RandomMat(c * kH, kW, 1), dst;
    std::vector<cv::Mat> planes;
    for (int k = 0; k < c; ++k) planes.push_back(src.rowRange(k * kH, (k + 1) * kH));
    for (auto _ : state) {
        cv::merge(planes, dst);
        benchmark::ClobberMemory();
    }
    Bytes(state, src.total());
}

BENCHMARK(Merge_Kit)->Name("Merge/kit")->ArgName("c")->Arg(3)->Arg(4)->Unit(benchmark::kMicrosecond);
BENCHMARK(Merge_OpenCV)->Name("Merge/opencv")->ArgName("c")->Arg(3)->Arg(4)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
