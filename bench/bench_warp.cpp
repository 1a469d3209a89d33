// Inverse-affine warps of a 1920 x 1080 frame: the fixed-point vector
// kernels and the scalar float samplers beside OpenCV's warpAffine
// (bilinear, inverse map, constant border, one thread) and, when the build
// found it, the Simd Library's warp (one thread), on two jobs:
//   crop256 - a 600 x 600 region turned by 30 degrees into 256 x 256;
//   turn5   - the whole frame turned by 5 degrees about its centre.
#include <qvn_kit/qvn_kit.hpp>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#ifdef QVN_HAVE_SIMD
#include <Simd/SimdLib.h>
#endif

#include <cmath>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int kSrcW = 1920, kSrcH = 1080;

struct Job {
    const char* name;
    int dw, dh;
    float M[6];  // destination pixel -> source point
};

Job MakeJob(const char* name, int dw, int dh, double degrees, double scale, double cx, double cy) {
    const double a = degrees * 3.14159265358979 / 180.0;
    const double c = std::cos(a) * scale, s = std::sin(a) * scale;
    const double hx = dw * 0.5, hy = dh * 0.5;
    Job j{name, dw, dh, {}};
    j.M[0] = static_cast<float>(c);
    j.M[1] = static_cast<float>(-s);
    j.M[2] = static_cast<float>(cx - c * hx + s * hy);
    j.M[3] = static_cast<float>(s);
    j.M[4] = static_cast<float>(c);
    j.M[5] = static_cast<float>(cy - s * hx - c * hy);
    return j;
}

const Job kJobs[] = {MakeJob("crop256", 256, 256, 30.0, 600.0 / 256.0, 1100.0, 500.0),
                     MakeJob("turn5", kSrcW, kSrcH, 5.0, 1.0, kSrcW * 0.5, kSrcH * 0.5)};

const cv::Mat& Source(int channels) {
    static cv::Mat src[5];
    if (src[channels].empty()) {
        src[channels].create(kSrcH, kSrcW, CV_8UC(channels));
        std::mt19937 rng(7);
        cv::randu(src[channels], cv::Scalar::all(0), cv::Scalar::all(256));
    }
    return src[channels];
}

using FixedFn = void (*)(int, int, int, int, int, int, int, unsigned char*, const unsigned char*, const float*,
                         unsigned int);
using FloatFn = void (*)(const unsigned char*, int, int, unsigned char*, int, int, unsigned char, float*);

void BM_Vector(benchmark::State& state, FixedFn fn, int cn, const Job* job) {
    const cv::Mat& src = Source(cn);
    cv::Mat dst(job->dh, job->dw, CV_8UC(cn));
    for (auto _ : state) {
        fn(kSrcH, kSrcW, static_cast<int>(src.step), cn, job->dh, job->dw, static_cast<int>(dst.step), dst.data,
           src.data, job->M, 0);
        benchmark::DoNotOptimize(dst.data);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * job->dw * job->dh);
}

void BM_Scalar(benchmark::State& state, FloatFn fn, int cn, const Job* job) {
    const cv::Mat& src = Source(cn);
    cv::Mat dst(job->dh, job->dw, CV_8UC(cn));
    float M[6];
    std::copy(job->M, job->M + 6, M);
    for (auto _ : state) {
        fn(src.data, kSrcW, kSrcH, dst.data, job->dw, job->dh, 0, M);
        benchmark::DoNotOptimize(dst.data);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * job->dw * job->dh);
}

void BM_OpenCV(benchmark::State& state, int cn, const Job* job) {
    cv::setNumThreads(1);
    const cv::Mat& src = Source(cn);
    cv::Mat dst(job->dh, job->dw, CV_8UC(cn));
    const cv::Matx23f m(job->M[0], job->M[1], job->M[2], job->M[3], job->M[4], job->M[5]);
    for (auto _ : state) {
        cv::warpAffine(src, dst, m, dst.size(), cv::INTER_LINEAR | cv::WARP_INVERSE_MAP, cv::BORDER_CONSTANT,
                       cv::Scalar::all(0));
        benchmark::DoNotOptimize(dst.data);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * job->dw * job->dh);
}

#ifdef QVN_HAVE_SIMD
// Simd takes the forward map (source -> destination) and inverts it itself:
// it gets the inverse of our destination -> source matrix. Its first run sets
// up lazily, so one run happens before timing.
void BM_Simd(benchmark::State& state, int cn, const Job* job) {
    SimdSetThreadNumber(1);
    const cv::Mat& src = Source(cn);
    cv::Mat dst(job->dh, job->dw, CV_8UC(cn));
    const double a = job->M[0], b = job->M[1], c = job->M[2], d = job->M[3], e = job->M[4], f = job->M[5];
    const double det = a * e - b * d;
    const float fwd[6] = {static_cast<float>(e / det), static_cast<float>(-b / det),
                          static_cast<float>((b * f - c * e) / det), static_cast<float>(-d / det),
                          static_cast<float>(a / det), static_cast<float>((c * d - a * f) / det)};
    void* ctx = SimdWarpAffineInit(kSrcW, kSrcH, src.step, job->dw, job->dh, dst.step, cn, fwd,
                                   static_cast<SimdWarpAffineFlags>(SimdWarpAffineChannelByte | SimdWarpAffineInterpBilinear |
                                                                    SimdWarpAffineBorderConstant),
                                   nullptr);
    if (ctx == nullptr) {
        state.SkipWithError("SimdWarpAffineInit failed");
        return;
    }
    SimdWarpAffineRun(ctx, src.data, dst.data);
    // Same job? Simd's 5-bit weights differ from ours by a few levels; a
    // wrong matrix would differ by about 85 on these random bytes.
    {
        const FixedFn ours[5] = {nullptr, quvas::kit::warpaffine_linear_SSE_C1, quvas::kit::warpaffine_linear_SSE_C2,
                                 quvas::kit::warpaffine_linear_SSE_C3, quvas::kit::warpaffine_linear_SSE_C4};
        cv::Mat mine(job->dh, job->dw, CV_8UC(cn), cv::Scalar::all(0));
        ours[cn](kSrcH, kSrcW, static_cast<int>(src.step), cn, job->dh, job->dw, static_cast<int>(mine.step),
                 mine.data, src.data, job->M, 0);
        const double mean = cv::norm(mine, dst, cv::NORM_L1) / (static_cast<double>(mine.total()) * cn);
        if (mean > 4.0) {
            state.SkipWithError("Simd's warp does not match ours: wrong matrix?");
            SimdRelease(ctx);
            return;
        }
    }
    for (auto _ : state) {
        SimdWarpAffineRun(ctx, src.data, dst.data);
        benchmark::DoNotOptimize(dst.data);
        benchmark::ClobberMemory();
    }
    SimdRelease(ctx);
    state.SetItemsProcessed(state.iterations() * job->dw * job->dh);
}
#endif

int Register() {
    const struct {
        int cn;
        FixedFn vec;
        FloatFn scalar;
    } kinds[] = {{1, quvas::kit::warpaffine_linear_SSE_C1, quvas::kit::affine_inv_image_bilinear_c1},
                 {2, quvas::kit::warpaffine_linear_SSE_C2, quvas::kit::affine_inv_image_bilinear_c2},
                 {3, quvas::kit::warpaffine_linear_SSE_C3, quvas::kit::affine_inv_image_bilinear_c3},
                 {4, quvas::kit::warpaffine_linear_SSE_C4, quvas::kit::affine_inv_image_bilinear_c4}};
    for (const Job& job : kJobs) {
        for (const auto& k : kinds) {
            // Names follow scripts/bench: "<workload>/<implementation>".
            const std::string head = std::string("Warp_C") + std::to_string(k.cn) + "_" + job.name + "/";
            benchmark::RegisterBenchmark((head + "vector").c_str(), BM_Vector, k.vec, k.cn, &job)
                ->Unit(benchmark::kMicrosecond);
            benchmark::RegisterBenchmark((head + "opencv").c_str(), BM_OpenCV, k.cn, &job)
                ->Unit(benchmark::kMicrosecond);
#ifdef QVN_HAVE_SIMD
            benchmark::RegisterBenchmark((head + "simd").c_str(), BM_Simd, k.cn, &job)
                ->Unit(benchmark::kMicrosecond);
#endif
            benchmark::RegisterBenchmark((head + "scalar").c_str(), BM_Scalar, k.scalar, k.cn, &job)
                ->Unit(benchmark::kMicrosecond);
        }
    }
    return 0;
}

const int kRegistered = Register();

}  // namespace

BENCHMARK_MAIN();
