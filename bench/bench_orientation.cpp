// Orientation speed: landmark maps against a plain loop, and image turns,
// mirrors and flips of 1920x1080 images against libyuv, OpenCV (one thread)
// and a memcpy of the same bytes.
#include <qvn_kit/qvn_kit.hpp>

#include <benchmark/benchmark.h>
#include <libyuv/planar_functions.h>
#include <libyuv/rotate.h>
#include <libyuv/rotate_argb.h>
#include <opencv2/core.hpp>

#include <cstring>
#include <memory>
#include <random>
#include <vector>

namespace {

// ---------------------------------------------------------------------------
// Landmarks: a full array of 16 faces of 278 landmarks, turned clockwise.
// ---------------------------------------------------------------------------

std::unique_ptr<QVN_FaceFrameDataArr> FullFaces() {
    auto arr = std::make_unique<QVN_FaceFrameDataArr>();
    std::mt19937 rng(1);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    arr->count = QVN_MAX_FACE_NUM;
    for (auto& face : arr->faces) {
        face.rect = {u(rng), u(rng), u(rng), u(rng)};
        face.landmarksNum = QVN_FACE_LANDMARK_NUM;
        for (auto& p : face.landmarks) p = {u(rng), u(rng)};
    }
    return arr;
}

// The point map one landmark at a time, as one would first write it.
template <bool kAllowVectorizer>
void PlainRotate90(QVN_FaceFrameDataArr* arr);

template <>
__attribute__((noinline, optimize("no-tree-vectorize"))) void PlainRotate90<false>(
    QVN_FaceFrameDataArr* arr) {
    for (uint32_t i = 0; i < arr->count; ++i) {
        QVN_Face& f = arr->faces[i];
        const QVN_Rect2D r = f.rect;
        f.rect = {1.0f - r.y1, r.x0, 1.0f - r.y0, r.x1};
        for (uint32_t k = 0; k < f.landmarksNum; ++k) {
            const QVN_Point2D p = f.landmarks[k];
            f.landmarks[k] = {1.0f - p.y, p.x};
        }
    }
}

template <>
__attribute__((noinline)) void PlainRotate90<true>(QVN_FaceFrameDataArr* arr) {
    for (uint32_t i = 0; i < arr->count; ++i) {
        QVN_Face& f = arr->faces[i];
        const QVN_Rect2D r = f.rect;
        f.rect = {1.0f - r.y1, r.x0, 1.0f - r.y0, r.x1};
        for (uint32_t k = 0; k < f.landmarksNum; ++k) {
            const QVN_Point2D p = f.landmarks[k];
            f.landmarks[k] = {1.0f - p.y, p.x};
        }
    }
}

void BM_Landmarks_Kit_Rotate90(benchmark::State& state) {
    auto arr = FullFaces();
    for (auto _ : state) {
        quvas::kit::FaceFrameDataArr_clockwise_rotate_90_result(arr.get());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * QVN_MAX_FACE_NUM * QVN_FACE_LANDMARK_NUM);
}

template <bool kAllowVectorizer>
void BM_Landmarks_Plain_Rotate90(benchmark::State& state) {
    auto arr = FullFaces();
    for (auto _ : state) {
        PlainRotate90<kAllowVectorizer>(arr.get());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * QVN_MAX_FACE_NUM * QVN_FACE_LANDMARK_NUM);
}

void BM_Landmarks_Kit_Mirror(benchmark::State& state) {
    auto arr = FullFaces();
    for (auto _ : state) {
        quvas::kit::FaceFrameDataArr_flip_h_result(arr.get());
        benchmark::ClobberMemory();
    }
}

BENCHMARK(BM_Landmarks_Kit_Rotate90);
BENCHMARK(BM_Landmarks_Plain_Rotate90<false>)->Name("BM_Landmarks_PlainScalar_Rotate90");
BENCHMARK(BM_Landmarks_Plain_Rotate90<true>)->Name("BM_Landmarks_PlainAutoVec_Rotate90");
BENCHMARK(BM_Landmarks_Kit_Mirror);

// ---------------------------------------------------------------------------
// Images: 1920 x 1080, N bytes per pixel (range(0)); angle in range(1).
// ---------------------------------------------------------------------------

constexpr int kW = 1920;
constexpr int kH = 1080;

struct Frames {
    explicit Frames(int n) : n(n), src(static_cast<size_t>(kW) * kH * n), dst(src.size()) {
        std::mt19937 rng(2);
        for (auto& v : src) v = static_cast<uint8_t>(rng());
        in.width = kW, in.height = kH, in.channels = n;
        in.pix_fmt = QVN_PIX_FMT_U8_CN;
        in.rect = {0.1f, 0.2f, 0.6f, 0.7f};
        in.data = src.data();
        out = in;
        out.data = dst.data();
    }
    int n;
    std::vector<uint8_t> src, dst;
    QVN_Image in{}, out{};
    cv::Mat SrcMat() { return cv::Mat(kH, kW, CV_8UC(n), src.data()); }
    cv::Mat DstMat(bool turned) {
        return turned ? cv::Mat(kW, kH, CV_8UC(n), dst.data()) : cv::Mat(kH, kW, CV_8UC(n), dst.data());
    }
    void Count(benchmark::State& state) const {
        state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(src.size()));
    }
};

void BM_Rotate_Kit(benchmark::State& state) {
    Frames f(static_cast<int>(state.range(0)));
    const int angle = static_cast<int>(state.range(1));
    for (auto _ : state) {
        QVN_Clockwise_Rotate_Image_CPU(&f.in, &f.out, angle);
        benchmark::ClobberMemory();
    }
    f.Count(state);
}

void BM_Rotate_OpenCV(benchmark::State& state) {
    cv::setNumThreads(0);
    Frames f(static_cast<int>(state.range(0)));
    const int angle = static_cast<int>(state.range(1));
    const int code = angle == 90 ? cv::ROTATE_90_CLOCKWISE
                     : angle == 180 ? cv::ROTATE_180 : cv::ROTATE_90_COUNTERCLOCKWISE;
    cv::Mat src = f.SrcMat();
    cv::Mat dst = f.DstMat(angle != 180);
    for (auto _ : state) {
        cv::rotate(src, dst, code);
        benchmark::ClobberMemory();
    }
    f.Count(state);
}

void BM_Rotate_LibYUV(benchmark::State& state) {
    Frames f(static_cast<int>(state.range(0)));
    const auto mode = static_cast<libyuv::RotationMode>(state.range(1));
    const int dst_w = mode == libyuv::kRotate180 ? kW : kH;
    for (auto _ : state) {
        if (f.n == 1) {
            libyuv::RotatePlane(f.src.data(), kW, f.dst.data(), dst_w, kW, kH, mode);
        } else {
            libyuv::ARGBRotate(f.src.data(), kW * 4, f.dst.data(), dst_w * 4, kW, kH, mode);
        }
        benchmark::ClobberMemory();
    }
    f.Count(state);
}

void BM_Mirror_Kit(benchmark::State& state) {
    Frames f(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        QVN_Mirror_Image_CPU(&f.in, &f.out);
        benchmark::ClobberMemory();
    }
    f.Count(state);
}

void BM_Mirror_OpenCV(benchmark::State& state) {
    cv::setNumThreads(0);
    Frames f(static_cast<int>(state.range(0)));
    cv::Mat src = f.SrcMat();
    cv::Mat dst = f.DstMat(false);
    for (auto _ : state) {
        cv::flip(src, dst, 1);
        benchmark::ClobberMemory();
    }
    f.Count(state);
}

void BM_FlipV_Kit(benchmark::State& state) {
    Frames f(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        QVN_FlipV_Image_CPU(&f.in, &f.out);
        benchmark::ClobberMemory();
    }
    f.Count(state);
}

void BM_FlipV_OpenCV(benchmark::State& state) {
    cv::setNumThreads(0);
    Frames f(static_cast<int>(state.range(0)));
    cv::Mat src = f.SrcMat();
    cv::Mat dst = f.DstMat(false);
    for (auto _ : state) {
        cv::flip(src, dst, 0);
        benchmark::ClobberMemory();
    }
    f.Count(state);
}

void BM_Memcpy(benchmark::State& state) {
    Frames f(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        std::memcpy(f.dst.data(), f.src.data(), f.src.size());
        benchmark::ClobberMemory();
    }
    f.Count(state);
}

void TurnArgs(benchmark::internal::Benchmark* b, std::initializer_list<int64_t> sizes) {
    b->ArgNames({"N", "angle"})->Unit(benchmark::kMicrosecond);
    for (int64_t n : sizes)
        for (int64_t a : {90, 180, 270}) b->Args({n, a});
}

void PixelArgs(benchmark::internal::Benchmark* b) {
    b->ArgName("N")->Unit(benchmark::kMicrosecond);
    for (int64_t n : {1, 3, 4}) b->Arg(n);
}

BENCHMARK(BM_Rotate_Kit)->Apply([](auto* b) { TurnArgs(b, {1, 3, 4}); });
BENCHMARK(BM_Rotate_LibYUV)->Apply([](auto* b) { TurnArgs(b, {1, 4}); });
BENCHMARK(BM_Rotate_OpenCV)->Apply([](auto* b) { TurnArgs(b, {1, 3, 4}); });
BENCHMARK(BM_Memcpy)->Apply(PixelArgs);
BENCHMARK(BM_Mirror_Kit)->Apply(PixelArgs);
BENCHMARK(BM_Mirror_OpenCV)->Apply(PixelArgs);
BENCHMARK(BM_FlipV_Kit)->Apply(PixelArgs);
BENCHMARK(BM_FlipV_OpenCV)->Apply(PixelArgs);

}  // namespace

BENCHMARK_MAIN();
