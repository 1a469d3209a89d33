// Frame to network input: the kit's converters beside OpenCV, single-threaded.
//
// Workload: a 1920 x 1080 frame, the upright region 1000 x 1000 at (400, 40),
// resized to 256 x 256, a quarter turn undone (ori_fmt 2: turned clockwise by
// 90 degrees), planar R,G,B bytes. The frame is stored turned, so the region
// lies at (40, -320) of the sensor image and its upper third is padding.
//
// NV21 here is pix_fmt 9: luma, then chroma pairs in memory order V, U (its
// colour matrix takes the first chroma byte as V).
//
// Two OpenCV pipelines give the same tensor shape:
//  - "Steps": the same steps as the kit (padded crop copy, resize, rotate,
//    colour last on the small image);
//  - "Warp": one inverse-mapped bilinear warp per plane that crops, pads,
//    resizes and turns at once, reading only the pixels it needs.
// OpenCV converts NV21 with its own BT.601 video-range weights, so its bytes
// differ from the kit's matrix; the work per pixel is the same.
//
// I420 is a decoder's frame (FFmpeg's yuv420p): three planes whose rows are
// padded to a 64-byte multiple plus one cache line, as decoders pad them,
// read in place through a FrameView in BT.601 limited range (an untagged
// standard-definition stream is read so; here the description is given).
// OpenCV's pipelines work plane by plane and convert with COLOR_YUV2RGB_I420
// (BT.601 limited) on the small image.
//
// The Step_* benchmarks time each core kernel of the kit's path on its own,
// with the tensors made beforehand; Alloc_* time making a zero-filled owned
// tensor of that size.
#include <qvn_kit/frame_tensor.hpp>
#include <qvn_kit/frame_view.hpp>
#include <qvn_kit/qvn_kit.hpp>

#include <quvas/qvn_core.h>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <sys/resource.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace {

using quvas::kit::TensorPtr;
using quvas::runtime::DeviceCPU;
using quvas::runtime::TensorShape;
namespace F = quvas::kernel::functional;

constexpr int kW = 1920, kH = 1080;
constexpr int kCropX = 400, kCropY = 40, kCropSize = 1000;
constexpr int kOut = 256;
constexpr uint32_t kOri = QVN_ORIENT_FMT_ROTATE_90L;
// The frame-space box of the upright region for ori 2 (x' = y, y' = H-1-x).
constexpr int kFx = kCropY, kFy = (kH - 1) - (kCropX + kCropSize - 1);

struct Setup {
    Setup() {
        cv::setNumThreads(1);
        std::mt19937 rng(1);
        nv21.resize(static_cast<size_t>(kW) * kH * 3 / 2);
        bgra.resize(static_cast<size_t>(kW) * kH * 4);
        for (uint8_t& b : nv21) b = static_cast<uint8_t>(rng() >> 24);
        for (uint8_t& b : bgra) b = static_cast<uint8_t>(rng() >> 24);
        i420.resize(static_cast<size_t>(kLumaStride) * kH + 2 * kChromaStride * (kH / 2));
        for (uint8_t& b : i420) b = static_cast<uint8_t>(rng() >> 24);
    }
    static constexpr int kLumaStride = kW + 64, kChromaStride = kW / 2 + 64;
    uint8_t* I420Plane(int p) {
        return i420.data() + (p == 0 ? 0
                                     : static_cast<size_t>(kLumaStride) * kH +
                                           static_cast<size_t>(p - 1) * kChromaStride * (kH / 2));
    }
    quvas::kit::FrameView View() {
        quvas::kit::FrameView v;
        v.pix_fmt = QVN_PIX_FMT_YUV420_A;
        v.ori_fmt = kOri;
        v.width = kW;
        v.height = kH;
        v.planes[0] = {I420Plane(0), kLumaStride};
        v.planes[1] = {I420Plane(1), kChromaStride};
        v.planes[2] = {I420Plane(2), kChromaStride};
        v.matrix = quvas::kit::YuvMatrix::kBT601;
        v.range = quvas::kit::YuvRange::kLimited;
        return v;
    }
    QVN_Image Image(uint32_t fmt) {
        QVN_Image img{};
        img.ori_fmt = kOri;
        img.pix_fmt = fmt;
        img.width = kW;
        img.height = kH;
        img.channels = fmt == QVN_PIX_FMT_BGRA8888 ? 4 : 1;
        img.rect = {0.f, 0.f, 1.f, 1.f};
        img.data = fmt == QVN_PIX_FMT_BGRA8888 ? bgra.data() : nv21.data();
        return img;
    }
    std::vector<uint8_t> nv21, bgra, i420;
    DeviceCPU device;
};

Setup& S() {
    static Setup setup;
    return setup;
}

// ---------------------------------------------------------------------------
// The kit. One conversion runs before timing (the first frame faults its
// intermediate storage in); "faults/frame" counts the minor page faults of
// the timed frames (getrusage before and after), 0 when the device's cache
// of freed storage serves every later frame.
// ---------------------------------------------------------------------------

long MinorFaults() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return u.ru_minflt;
}

template <class Convert>
void TimeFrames(benchmark::State& state, Convert convert) {
    convert();
    const long before = MinorFaults();
    for (auto _ : state) convert();
    state.counters["faults/frame"] =
        static_cast<double>(MinorFaults() - before) / static_cast<double>(std::max<int64_t>(1, state.iterations()));
}

// The step-by-step converters and their one-pass twins on the same frame.
template <uint32_t kFormat, bool kGray, bool kOnePass>
void BM_Kit(benchmark::State& state) {
    namespace kit = quvas::kit;
    QVN_Image img = S().Image(kFormat);
    TensorPtr out = kGray ? S().device.CreateTensor(TensorShape({kOut, kOut, 1}, 7, 1), nullptr)
                          : S().device.CreateTensor(TensorShape({3, kOut, kOut}, 7, 0), nullptr);
    TimeFrames(state, [&] {
        if (kGray && kOnePass) {
            kit::QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_Gray8_TensorCPU(
                &img, out, kCropX, kCropY, kCropSize, kCropSize, 0);
        } else if (kGray) {
            kit::QV_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_Gray8_TensorCPU(
                &img, out, kCropX, kCropY, kCropSize, kCropSize, 0);
        } else if (kOnePass) {
            kit::QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(
                &img, out, false, kCropX, kCropY, kCropSize, kCropSize, 0);
        } else {
            kit::QV_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(
                &img, out, false, kCropX, kCropY, kCropSize, kCropSize, 0);
        }
        benchmark::DoNotOptimize(out->data());
    });
}

void BM_Kit_I420_View(benchmark::State& state) {
    const quvas::kit::FrameView view = S().View();
    TensorPtr out = S().device.CreateTensor(TensorShape({3, kOut, kOut}, 7, 0), nullptr);
    TimeFrames(state, [&] {
        quvas::kit::QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_FrameView_To_U8_CHW_TensorCPU(
            view, out, false, kCropX, kCropY, kCropSize, kCropSize, 0);
        benchmark::DoNotOptimize(out->data());
    });
}

// ---------------------------------------------------------------------------
// OpenCV.
// ---------------------------------------------------------------------------

// The padded crop: the part inside the frame copied, the rest constant.
cv::Mat PaddedCrop(const cv::Mat& src, int x, int y, int w, int h) {
    const cv::Rect inside = cv::Rect(x, y, w, h) & cv::Rect(0, 0, src.cols, src.rows);
    cv::Mat out;
    cv::copyMakeBorder(src(inside), out, inside.y - y, y + h - inside.y - inside.height,
                       inside.x - x, x + w - inside.x - inside.width, cv::BORDER_CONSTANT,
                       cv::Scalar::all(0));
    return out;
}

// Pixel (row i, column j) of the turned output is pixel (row out-1-j, column
// i) of the resized crop; its centre, mapped back into the frame, gives the
// inverse affine map of one plane.
cv::Mat TurnedCropMap(double fx, double fy, double crop, int out) {
    const double s = crop / out;
    cv::Mat m = (cv::Mat_<double>(2, 3) << 0, s, fx + 0.5 * s - 0.5,  //
                 -s, 0, fy + (out - 0.5) * s - 0.5);
    return m;
}

cv::Mat CropMap(double fx, double fy, double crop, int out) {
    const double s = crop / out;
    return (cv::Mat_<double>(2, 3) << s, 0, fx + 0.5 * s - 0.5, 0, s, fy + 0.5 * s - 0.5);
}

void SplitInto(const cv::Mat& rgb, uint8_t* planes) {
    cv::Mat out[3] = {cv::Mat(kOut, kOut, CV_8UC1, planes),
                      cv::Mat(kOut, kOut, CV_8UC1, planes + kOut * kOut),
                      cv::Mat(kOut, kOut, CV_8UC1, planes + 2 * kOut * kOut)};
    cv::split(rgb, out);
}

void BM_CV_NV21_Planar_Steps(benchmark::State& state) {
    cv::Mat y(kH, kW, CV_8UC1, S().nv21.data());
    cv::Mat uv(kH / 2, kW / 2, CV_8UC2, S().nv21.data() + kW * kH);
    std::vector<uint8_t> out(3 * kOut * kOut);
    cv::Mat yr, uvr, yt, uvt, rgb;
    for (auto _ : state) {
        cv::resize(PaddedCrop(y, kFx, kFy, kCropSize, kCropSize), yr, cv::Size(kOut, kOut), 0, 0,
                   cv::INTER_LINEAR);
        cv::resize(PaddedCrop(uv, kFx / 2, kFy / 2, kCropSize / 2, kCropSize / 2), uvr,
                   cv::Size(kOut / 2, kOut / 2), 0, 0, cv::INTER_LINEAR);
        cv::rotate(yr, yt, cv::ROTATE_90_CLOCKWISE);
        cv::rotate(uvr, uvt, cv::ROTATE_90_CLOCKWISE);
        cv::cvtColorTwoPlane(yt, uvt, rgb, cv::COLOR_YUV2RGB_NV21);
        SplitInto(rgb, out.data());
        benchmark::DoNotOptimize(out.data());
    }
}

void BM_CV_NV21_Planar_Warp(benchmark::State& state) {
    cv::Mat y(kH, kW, CV_8UC1, S().nv21.data());
    cv::Mat uv(kH / 2, kW / 2, CV_8UC2, S().nv21.data() + kW * kH);
    const cv::Mat my = TurnedCropMap(kFx, kFy, kCropSize, kOut);
    const cv::Mat muv = TurnedCropMap(kFx / 2, kFy / 2, kCropSize / 2, kOut / 2);
    std::vector<uint8_t> out(3 * kOut * kOut);
    cv::Mat yt, uvt, rgb;
    for (auto _ : state) {
        cv::warpAffine(y, yt, my, cv::Size(kOut, kOut), cv::INTER_LINEAR | cv::WARP_INVERSE_MAP,
                       cv::BORDER_CONSTANT, cv::Scalar::all(0));
        cv::warpAffine(uv, uvt, muv, cv::Size(kOut / 2, kOut / 2),
                       cv::INTER_LINEAR | cv::WARP_INVERSE_MAP, cv::BORDER_CONSTANT,
                       cv::Scalar::all(0));
        cv::cvtColorTwoPlane(yt, uvt, rgb, cv::COLOR_YUV2RGB_NV21);
        SplitInto(rgb, out.data());
        benchmark::DoNotOptimize(out.data());
    }
}

// B,G,R,A bytes to R, G, B planes in one pass.
void BgraToPlanes(const cv::Mat& bgra, uint8_t* planes) {
    cv::Mat out[3] = {cv::Mat(kOut, kOut, CV_8UC1, planes),
                      cv::Mat(kOut, kOut, CV_8UC1, planes + kOut * kOut),
                      cv::Mat(kOut, kOut, CV_8UC1, planes + 2 * kOut * kOut)};
    const int from_to[] = {2, 0, 1, 1, 0, 2};
    cv::mixChannels(&bgra, 1, out, 3, from_to, 3);
}

void BM_CV_BGRA_Planar_Steps(benchmark::State& state) {
    cv::Mat in(kH, kW, CV_8UC4, S().bgra.data());
    std::vector<uint8_t> out(3 * kOut * kOut);
    cv::Mat r, t;
    for (auto _ : state) {
        cv::resize(PaddedCrop(in, kFx, kFy, kCropSize, kCropSize), r, cv::Size(kOut, kOut), 0, 0,
                   cv::INTER_LINEAR);
        cv::rotate(r, t, cv::ROTATE_90_CLOCKWISE);
        BgraToPlanes(t, out.data());
        benchmark::DoNotOptimize(out.data());
    }
}

void BM_CV_BGRA_Planar_Warp(benchmark::State& state) {
    cv::Mat in(kH, kW, CV_8UC4, S().bgra.data());
    const cv::Mat m = TurnedCropMap(kFx, kFy, kCropSize, kOut);
    std::vector<uint8_t> out(3 * kOut * kOut);
    cv::Mat t;
    for (auto _ : state) {
        cv::warpAffine(in, t, m, cv::Size(kOut, kOut), cv::INTER_LINEAR | cv::WARP_INVERSE_MAP,
                       cv::BORDER_CONSTANT, cv::Scalar::all(0));
        BgraToPlanes(t, out.data());
        benchmark::DoNotOptimize(out.data());
    }
}

// The three turned planes laid out as one I420 image, then converted.
void I420ToPlanes(const cv::Mat* planes, cv::Mat& i420, cv::Mat& rgb, uint8_t* out) {
    planes[0].copyTo(i420(cv::Rect(0, 0, kOut, kOut)));
    const int q = (kOut / 2) * (kOut / 2);
    std::memcpy(i420.ptr(kOut), planes[1].data, q);
    std::memcpy(i420.ptr(kOut) + q, planes[2].data, q);
    cv::cvtColor(i420, rgb, cv::COLOR_YUV2RGB_I420);
    SplitInto(rgb, out);
}

cv::Mat I420Mat(int p) {
    const int div = p == 0 ? 1 : 2;
    return cv::Mat(kH / div, kW / div, CV_8UC1, S().I420Plane(p),
                   p == 0 ? Setup::kLumaStride : Setup::kChromaStride);
}

void BM_CV_I420_Planar_Steps(benchmark::State& state) {
    std::vector<uint8_t> out(3 * kOut * kOut);
    cv::Mat r[3], t[3], i420(kOut * 3 / 2, kOut, CV_8UC1), rgb;
    for (auto _ : state) {
        for (int p = 0; p < 3; ++p) {
            const int div = p == 0 ? 1 : 2;
            cv::resize(PaddedCrop(I420Mat(p), kFx / div, kFy / div, kCropSize / div, kCropSize / div),
                       r[p], cv::Size(kOut / div, kOut / div), 0, 0, cv::INTER_LINEAR);
            cv::rotate(r[p], t[p], cv::ROTATE_90_CLOCKWISE);
        }
        I420ToPlanes(t, i420, rgb, out.data());
        benchmark::DoNotOptimize(out.data());
    }
}

void BM_CV_I420_Planar_Warp(benchmark::State& state) {
    std::vector<uint8_t> out(3 * kOut * kOut);
    const cv::Mat m[2] = {TurnedCropMap(kFx, kFy, kCropSize, kOut),
                          TurnedCropMap(kFx / 2, kFy / 2, kCropSize / 2, kOut / 2)};
    cv::Mat t[3], i420(kOut * 3 / 2, kOut, CV_8UC1), rgb;
    for (auto _ : state) {
        for (int p = 0; p < 3; ++p) {
            const int div = p == 0 ? 1 : 2;
            cv::warpAffine(I420Mat(p), t[p], m[p == 0 ? 0 : 1], cv::Size(kOut / div, kOut / div),
                           cv::INTER_LINEAR | cv::WARP_INVERSE_MAP, cv::BORDER_CONSTANT,
                           cv::Scalar::all(0));
        }
        I420ToPlanes(t, i420, rgb, out.data());
        benchmark::DoNotOptimize(out.data());
    }
}

// Gray is not turned: the region is resized as it lies in the frame.
void BM_CV_NV21_Gray_Steps(benchmark::State& state) {
    cv::Mat y(kH, kW, CV_8UC1, S().nv21.data());
    cv::Mat out(kOut, kOut, CV_8UC1);
    for (auto _ : state) {
        cv::resize(PaddedCrop(y, kFx, kFy, kCropSize, kCropSize), out, out.size(), 0, 0,
                   cv::INTER_LINEAR);
        benchmark::DoNotOptimize(out.data);
    }
}

void BM_CV_NV21_Gray_Warp(benchmark::State& state) {
    cv::Mat y(kH, kW, CV_8UC1, S().nv21.data());
    const cv::Mat m = CropMap(kFx, kFy, kCropSize, kOut);
    cv::Mat out(kOut, kOut, CV_8UC1);
    for (auto _ : state) {
        cv::warpAffine(y, out, m, out.size(), cv::INTER_LINEAR | cv::WARP_INVERSE_MAP,
                       cv::BORDER_CONSTANT, cv::Scalar::all(0));
        benchmark::DoNotOptimize(out.data);
    }
}

void BM_CV_BGRA_Gray_Steps(benchmark::State& state) {
    cv::Mat in(kH, kW, CV_8UC4, S().bgra.data());
    cv::Mat r, out(kOut, kOut, CV_8UC1);
    for (auto _ : state) {
        cv::resize(PaddedCrop(in, kFx, kFy, kCropSize, kCropSize), r, cv::Size(kOut, kOut), 0, 0,
                   cv::INTER_LINEAR);
        cv::cvtColor(r, out, cv::COLOR_BGRA2GRAY);
        benchmark::DoNotOptimize(out.data);
    }
}

void BM_CV_BGRA_Gray_Warp(benchmark::State& state) {
    cv::Mat in(kH, kW, CV_8UC4, S().bgra.data());
    const cv::Mat m = CropMap(kFx, kFy, kCropSize, kOut);
    cv::Mat r, out(kOut, kOut, CV_8UC1);
    for (auto _ : state) {
        cv::warpAffine(in, r, m, cv::Size(kOut, kOut), cv::INTER_LINEAR | cv::WARP_INVERSE_MAP,
                       cv::BORDER_CONSTANT, cv::Scalar::all(0));
        cv::cvtColor(r, out, cv::COLOR_BGRA2GRAY);
        benchmark::DoNotOptimize(out.data);
    }
}

// ---------------------------------------------------------------------------
// Where the kit's time goes: each core kernel of its path, alone.
// ---------------------------------------------------------------------------

TensorPtr Owned(std::vector<int32_t> dims) {
    return S().device.CreateTensor(TensorShape(std::move(dims), 7, 1), nullptr);
}

void BM_Step_Alloc(benchmark::State& state) {
    const int h = static_cast<int>(state.range(0)), w = h, c = static_cast<int>(state.range(1));
    for (auto _ : state) {
        TensorPtr t = Owned({h, w, c});
        benchmark::DoNotOptimize(t->data());
    }
}

void BM_Step_Crop(benchmark::State& state) {
    const int c = static_cast<int>(state.range(0));  // 1 luma, 2 chroma, 4 BGRA
    const int div = c == 2 ? 2 : 1;
    uint8_t* data = c == 4 ? S().bgra.data()
                           : S().nv21.data() + (c == 2 ? static_cast<size_t>(kW) * kH : 0);
    TensorPtr src = S().device.CreateTensorExternal(
        TensorShape({kH / div, kW / div, c}, 7, 1), data);
    TensorPtr dst = Owned({kCropSize / div, kCropSize / div, c});
    for (auto _ : state) {
        F::F_Crop_U8_HWC_Memcpy(src, kFx / div, kFy / div, kCropSize / div, kCropSize / div, 0,
                                dst);
        benchmark::DoNotOptimize(dst->data());
    }
}

void BM_Step_Resize(benchmark::State& state) {
    const int c = static_cast<int>(state.range(0));
    const int div = c == 2 ? 2 : 1;
    TensorPtr src = Owned({kCropSize / div, kCropSize / div, c});
    // Picture bytes: rows of one value (padding) take a shortcut.
    std::mt19937 rng(3);
    for (size_t i = 0; i < src->byte_size(); ++i) src->data()[i] = static_cast<uint8_t>(rng() >> 24);
    TensorPtr dst = Owned({kOut / div, kOut / div, c});
    for (auto _ : state) {
        if (c == 1) F::F_Resize_Bilinear_HWC_U8_C1_Fallback(src, dst);
        if (c == 2) F::F_Resize_Bilinear_HWC_U8_C2_Fallback(src, dst);
        if (c == 4) F::F_Resize_Bilinear_HWC_U8_C4_Fallback(src, dst);
        benchmark::DoNotOptimize(dst->data());
    }
}

void BM_Step_Rotate90(benchmark::State& state) {
    const int c = static_cast<int>(state.range(0));
    const int div = c == 2 ? 2 : 1;
    TensorPtr src = Owned({kOut / div, kOut / div, c});
    TensorPtr dst = Owned({kOut / div, kOut / div, c});
    for (auto _ : state) {
        F::F_Rotate_Clockwise90_HWC_Fallback(src, dst);
        benchmark::DoNotOptimize(dst->data());
    }
}

void BM_Step_ColourYUV(benchmark::State& state) {
    TensorPtr y = Owned({kOut, kOut, 1});
    TensorPtr uv = Owned({kOut / 2, kOut / 2, 2});
    TensorPtr out = S().device.CreateTensor(TensorShape({3, kOut, kOut}, 7, 0), nullptr);
    auto m = std::make_shared<quvas::kernel::YUVCvtMatrix>();
    const float row[10] = {1, 1.40625f, 0, -0.71875f, -0.34375f, 0, 2.078125f, 0, 0.5f, 0.5f};
    std::memcpy(m->m, row, sizeof(row));
    for (auto _ : state) {
        F::F_ColorCvt_YUV_2Plane_UInt8_To_CHW_UInt8_Fallback(y, uv, m, out);
        benchmark::DoNotOptimize(out->data());
    }
}

void BM_Step_ColourBGRA(benchmark::State& state) {
    TensorPtr src = Owned({kOut, kOut, 4});
    TensorPtr out = S().device.CreateTensor(TensorShape({3, kOut, kOut}, 7, 0), nullptr);
    for (auto _ : state) {
        F::F_ColorCvt_BGRA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback(src, out);
        benchmark::DoNotOptimize(out->data());
    }
}

void BM_Step_GrayBGRA(benchmark::State& state) {
    TensorPtr src = Owned({kOut, kOut, 4});
    TensorPtr out = Owned({kOut, kOut, 1});
    for (auto _ : state) {
        F::F_ColorCvt_BGRA8888_To_Gray8_Fallback(src, out);
        benchmark::DoNotOptimize(out->data());
    }
}

}  // namespace

// Names follow scripts/bench: "<workload>/<implementation>[-variant]".
BENCHMARK(BM_Kit<QVN_PIX_FMT_YUV420SP_D, false, false>)->Name("FrameToTensor_NV21_Planar/ours")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Kit<QVN_PIX_FMT_YUV420SP_D, false, true>)->Name("FrameToTensor_NV21_Planar/ours-onepass")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CV_NV21_Planar_Steps)->Name("FrameToTensor_NV21_Planar/opencv-steps")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CV_NV21_Planar_Warp)->Name("FrameToTensor_NV21_Planar/opencv-warp")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Kit_I420_View)->Name("FrameToTensor_I420_Planar/ours-onepass")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CV_I420_Planar_Steps)->Name("FrameToTensor_I420_Planar/opencv-steps")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CV_I420_Planar_Warp)->Name("FrameToTensor_I420_Planar/opencv-warp")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Kit<QVN_PIX_FMT_BGRA8888, false, false>)->Name("FrameToTensor_BGRA_Planar/ours")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Kit<QVN_PIX_FMT_BGRA8888, false, true>)->Name("FrameToTensor_BGRA_Planar/ours-onepass")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CV_BGRA_Planar_Steps)->Name("FrameToTensor_BGRA_Planar/opencv-steps")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CV_BGRA_Planar_Warp)->Name("FrameToTensor_BGRA_Planar/opencv-warp")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Kit<QVN_PIX_FMT_YUV420SP_D, true, false>)->Name("FrameToTensor_NV21_Gray/ours")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Kit<QVN_PIX_FMT_YUV420SP_D, true, true>)->Name("FrameToTensor_NV21_Gray/ours-onepass")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CV_NV21_Gray_Steps)->Name("FrameToTensor_NV21_Gray/opencv-steps")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CV_NV21_Gray_Warp)->Name("FrameToTensor_NV21_Gray/opencv-warp")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Kit<QVN_PIX_FMT_BGRA8888, true, false>)->Name("FrameToTensor_BGRA_Gray/ours")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Kit<QVN_PIX_FMT_BGRA8888, true, true>)->Name("FrameToTensor_BGRA_Gray/ours-onepass")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CV_BGRA_Gray_Steps)->Name("FrameToTensor_BGRA_Gray/opencv-steps")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CV_BGRA_Gray_Warp)->Name("FrameToTensor_BGRA_Gray/opencv-warp")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Step_Alloc)
    ->Args({kCropSize, 1})
    ->Args({kCropSize / 2, 2})
    ->Args({kCropSize, 4})
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Step_Crop)->Arg(1)->Arg(2)->Arg(4)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Step_Resize)->Arg(1)->Arg(2)->Arg(4)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Step_Rotate90)->Arg(1)->Arg(2)->Arg(4)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Step_ColourYUV)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Step_ColourBGRA)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Step_GrayBGRA)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();

// ---------------------------------------------------------------------------
// Float input for a network: (byte - mean) / std per channel, planar floats.
// "FrameToTensorFloat_*": the workload above; "FrameToTensorFloatLetterbox_*":
// the whole frame, turned upright (1080 x 1920), letterboxed into 256 x 256
// (a 144 x 256 picture, 56 columns of pad byte 114 either side).
// ours-onepass: QV_OnePass_Convert_FrameView_To_Tensor writing floats;
// ours-onepass-u8: the same call writing bytes (compare with
// FrameToTensor_*_Planar/ours-onepass for the cost of the entry point, and
// with ours-onepass for the cost of the floats); ours-onepass-nhwc:
// interleaved floats. opencv-steps: the recipe users write, pass by pass
// (padded crop, resize, rotate, colour, copyMakeBorder, convertTo to float,
// subtract, divide, split into planes; OpenCV's dnn module, whose
// blobFromImage makes the same passes, is not installed here).
// ---------------------------------------------------------------------------

namespace {

const float kMean[3] = {123.675f, 116.28f, 103.53f};
const float kStd[3] = {58.395f, 57.12f, 57.375f};
constexpr int kLbPicture = 144, kLbPad = (kOut - kLbPicture) / 2;

template <uint32_t kFormat, int kKind, bool kLetterbox>  // kKind: 0 bytes, 1 CHW, 2 HWC floats
void BM_KitTensor(benchmark::State& state) {
    namespace kit = quvas::kit;
    QVN_Image img = S().Image(kFormat);
    kit::FrameView view;
    kit::FrameView_From_QVN_Image(&img, &view);
    kit::TensorOptions o;
    o.width = o.height = kOut;
    if (kLetterbox) {
        o.letterbox = kit::Letterbox::kCentre;
        o.letterbox_pad = 114;
    } else {
        o.crop_x = kCropX, o.crop_y = kCropY, o.crop_w = o.crop_h = kCropSize;
    }
    o.mean.assign(kMean, kMean + 3);
    o.std.assign(kStd, kStd + 3);
    std::vector<float> out(3 * kOut * kOut);
    kit::TensorBuffer b;
    b.data = out.data();
    b.element = kKind == 0 ? kit::TensorElement::kUInt8 : kit::TensorElement::kFloat32;
    b.order = kKind == 2 ? kit::TensorOrder::kInterleaved : kit::TensorOrder::kPlanar;
    TimeFrames(state, [&] {
        kit::QV_OnePass_Convert_FrameView_To_Tensor(view, o, b, nullptr);
        benchmark::DoNotOptimize(out.data());
    });
}

// The float passes of the recipe on an H x W x 3 R,G,B byte image.
void NormaliseToPlanes(const cv::Mat& rgb, cv::Mat& f, float* planes) {
    rgb.convertTo(f, CV_32FC3);
    cv::subtract(f, cv::Scalar(kMean[0], kMean[1], kMean[2]), f);
    cv::divide(f, cv::Scalar(kStd[0], kStd[1], kStd[2]), f);
    cv::Mat out[3] = {cv::Mat(kOut, kOut, CV_32FC1, planes),
                      cv::Mat(kOut, kOut, CV_32FC1, planes + kOut * kOut),
                      cv::Mat(kOut, kOut, CV_32FC1, planes + 2 * kOut * kOut)};
    cv::split(f, out);
}

void Letterbox(const cv::Mat& rgb, cv::Mat& boxed) {
    cv::copyMakeBorder(rgb, boxed, 0, 0, kLbPad, kOut - kLbPicture - kLbPad, cv::BORDER_CONSTANT,
                       cv::Scalar::all(114));
}

template <bool kLetterbox>
void BM_CV_NV21_Float_Steps(benchmark::State& state) {
    cv::Mat y(kH, kW, CV_8UC1, S().nv21.data());
    cv::Mat uv(kH / 2, kW / 2, CV_8UC2, S().nv21.data() + kW * kH);
    std::vector<float> out(3 * kOut * kOut);
    cv::Mat yr, uvr, yt, uvt, rgb, boxed, f;
    // The resize size before the quarter turn (stored orientation).
    const cv::Size size = kLetterbox ? cv::Size(kOut, kLbPicture) : cv::Size(kOut, kOut);
    for (auto _ : state) {
        if (kLetterbox) {
            cv::resize(y, yr, size, 0, 0, cv::INTER_LINEAR);
            cv::resize(uv, uvr, size / 2, 0, 0, cv::INTER_LINEAR);
        } else {
            cv::resize(PaddedCrop(y, kFx, kFy, kCropSize, kCropSize), yr, size, 0, 0,
                       cv::INTER_LINEAR);
            cv::resize(PaddedCrop(uv, kFx / 2, kFy / 2, kCropSize / 2, kCropSize / 2), uvr,
                       size / 2, 0, 0, cv::INTER_LINEAR);
        }
        cv::rotate(yr, yt, cv::ROTATE_90_CLOCKWISE);
        cv::rotate(uvr, uvt, cv::ROTATE_90_CLOCKWISE);
        cv::cvtColorTwoPlane(yt, uvt, rgb, cv::COLOR_YUV2RGB_NV21);
        if (kLetterbox) Letterbox(rgb, boxed);
        NormaliseToPlanes(kLetterbox ? boxed : rgb, f, out.data());
        benchmark::DoNotOptimize(out.data());
    }
}

template <bool kLetterbox>
void BM_CV_BGRA_Float_Steps(benchmark::State& state) {
    cv::Mat in(kH, kW, CV_8UC4, S().bgra.data());
    std::vector<float> out(3 * kOut * kOut);
    cv::Mat r, t, rgb, boxed, f;
    const cv::Size size = kLetterbox ? cv::Size(kOut, kLbPicture) : cv::Size(kOut, kOut);
    for (auto _ : state) {
        if (kLetterbox) {
            cv::resize(in, r, size, 0, 0, cv::INTER_LINEAR);
        } else {
            cv::resize(PaddedCrop(in, kFx, kFy, kCropSize, kCropSize), r, size, 0, 0,
                       cv::INTER_LINEAR);
        }
        cv::rotate(r, t, cv::ROTATE_90_CLOCKWISE);
        cv::cvtColor(t, rgb, cv::COLOR_BGRA2RGB);
        if (kLetterbox) Letterbox(rgb, boxed);
        NormaliseToPlanes(kLetterbox ? boxed : rgb, f, out.data());
        benchmark::DoNotOptimize(out.data());
    }
}

}  // namespace

BENCHMARK(BM_KitTensor<QVN_PIX_FMT_YUV420SP_D, 1, false>)->Name("FrameToTensorFloat_NV21_Planar/ours-onepass")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_KitTensor<QVN_PIX_FMT_YUV420SP_D, 0, false>)->Name("FrameToTensorFloat_NV21_Planar/ours-onepass-u8")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_KitTensor<QVN_PIX_FMT_YUV420SP_D, 2, false>)->Name("FrameToTensorFloat_NV21_Planar/ours-onepass-nhwc")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CV_NV21_Float_Steps<false>)->Name("FrameToTensorFloat_NV21_Planar/opencv-steps")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_KitTensor<QVN_PIX_FMT_BGRA8888, 1, false>)->Name("FrameToTensorFloat_BGRA_Planar/ours-onepass")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_KitTensor<QVN_PIX_FMT_BGRA8888, 0, false>)->Name("FrameToTensorFloat_BGRA_Planar/ours-onepass-u8")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_KitTensor<QVN_PIX_FMT_BGRA8888, 2, false>)->Name("FrameToTensorFloat_BGRA_Planar/ours-onepass-nhwc")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CV_BGRA_Float_Steps<false>)->Name("FrameToTensorFloat_BGRA_Planar/opencv-steps")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_KitTensor<QVN_PIX_FMT_YUV420SP_D, 1, true>)->Name("FrameToTensorFloatLetterbox_NV21_Planar/ours-onepass")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CV_NV21_Float_Steps<true>)->Name("FrameToTensorFloatLetterbox_NV21_Planar/opencv-steps")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_KitTensor<QVN_PIX_FMT_BGRA8888, 1, true>)->Name("FrameToTensorFloatLetterbox_BGRA_Planar/ours-onepass")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CV_BGRA_Float_Steps<true>)->Name("FrameToTensorFloatLetterbox_BGRA_Planar/opencv-steps")->Unit(benchmark::kMicrosecond);
