// Paired timings of the pixel-kernel layer against its peers: each round
// runs ours and every peer (in alternating order), then a memcpy of the same
// bytes, back to back,
// and the ratios are taken within the round. On a shared machine the load
// changes from second to second; the median of per-round ratios follows the
// work much more closely than ratios of separately taken medians.
//
//   taskset -c 1 bench/bench_paired [rounds]
//
// Prints per workload: the median of ours and of each peer (µs), the median
// of ours / best peer and of ours / memcpy. 1920 x 1080 frames.
#include <qvn_kit/qvn_kit.h>
#include <quvas/kernel/functional.h>
#include <quvas/runtime/tensor.h>

#include <libyuv/planar_functions.h>
#include <libyuv/rotate.h>
#include <libyuv/rotate_argb.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#ifdef QVN_HAVE_SIMD
#include <Simd/SimdLib.h>
#endif

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "bench_common.h"

namespace {

using namespace qvn_bench;

double Median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

struct Entry {
    std::string who;
    std::function<void()> run;
};

int g_rounds = 51;

// ours[0] is reported; any further "ours" entries (another caller of the
// same driver) are listed beside it.
void Compare(const std::string& work, const std::vector<Entry>& ours, const std::vector<Entry>& peers,
             const std::function<void()>& copy) {
    std::vector<Entry> all = ours;
    all.insert(all.end(), peers.begin(), peers.end());
    for (const Entry& e : all) e.run();  // warm up
    copy();
    std::vector<std::vector<double>> t(all.size());
    std::vector<double> t_copy, vs_best, vs_copy;
    for (int r = 0; r < g_rounds; ++r) {
        std::vector<double> round(all.size());
        // Every other round runs the entries in the opposite order, so that
        // none always comes first after the copy.
        for (size_t step = 0; step < all.size(); ++step) {
            const size_t k = r % 2 ? all.size() - 1 - step : step;
            const auto a = std::chrono::steady_clock::now();
            all[k].run();
            const auto b = std::chrono::steady_clock::now();
            round[k] = std::chrono::duration<double, std::micro>(b - a).count();
            t[k].push_back(round[k]);
        }
        const auto a = std::chrono::steady_clock::now();
        copy();
        const auto b = std::chrono::steady_clock::now();
        const double c = std::chrono::duration<double, std::micro>(b - a).count();
        t_copy.push_back(c);
        double best = 1e300;
        for (size_t k = ours.size(); k < all.size(); ++k) best = std::min(best, round[k]);
        if (!peers.empty()) vs_best.push_back(round[0] / best);
        vs_copy.push_back(round[0] / c);
    }
    std::printf("%-24s", work.c_str());
    for (size_t k = 0; k < all.size(); ++k) std::printf(" %s %.0f", all[k].who.c_str(), Median(t[k]));
    std::printf(" | memcpy %.0f | ours/best peer %.2f ours/memcpy %.2f\n", Median(t_copy),
                peers.empty() ? 0.0 : Median(vs_best), Median(vs_copy));
    std::fflush(stdout);
}

void Moves() {
    for (int n : {1, 2, 3, 4}) {
        cv::Mat src = RandomMat(kH, kW, n), turned(kW, kH, CV_8UC(n)), same(kH, kW, CV_8UC(n)), ocv;
        cv::Mat copy_dst(kH, kW, CV_8UC(n));
        QVN_Image s = Image(src), dt = Image(turned), ds = Image(same);
        TensorPtr ts = Wrap(src), tt = Wrap(turned), tm = Wrap(same);
        const size_t bytes = src.total() * n;
        auto copy = [&] { std::memcpy(copy_dst.data, src.data, bytes); };
        const std::string tag = " " + std::to_string(n) + "B";
        for (int move = 0; move < 3; ++move) {
            std::vector<Entry> ours, peers;
            if (move == 0) {
                ours = {{"kit", [&] { QVN_Clockwise_Rotate_Image_CPU(&s, &dt, 90); }},
                        {"core", [&] { fn::F_Rotate_Clockwise90_HWC_Fallback(ts, tt); }}};
                peers.push_back({"opencv", [&] { cv::rotate(src, ocv, cv::ROTATE_90_CLOCKWISE); }});
                if (n == 1) peers.push_back({"libyuv", [&] { libyuv::RotatePlane(src.data, kW, turned.data, kH, kW, kH, libyuv::kRotate90); }});
                if (n == 4) peers.push_back({"libyuv", [&] { libyuv::ARGBRotate(src.data, kW * 4, turned.data, kH * 4, kW, kH, libyuv::kRotate90); }});
#ifdef QVN_HAVE_SIMD
                peers.push_back({"simd", [&] { SimdTransformImage(src.data, src.step, kW, kH, n, SimdTransformRotate270, turned.data, turned.step); }});
#endif
            } else if (move == 1) {
                ours = {{"kit", [&] { QVN_Clockwise_Rotate_Image_CPU(&s, &ds, 180); }},
                        {"core", [&] { fn::F_Rotate_Clockwise180_HWC_Fallback(ts, tm); }}};
                peers.push_back({"opencv", [&] { cv::rotate(src, ocv, cv::ROTATE_180); }});
                if (n == 1) peers.push_back({"libyuv", [&] { libyuv::RotatePlane(src.data, kW, same.data, kW, kW, kH, libyuv::kRotate180); }});
                if (n == 4) peers.push_back({"libyuv", [&] { libyuv::ARGBRotate(src.data, kW * 4, same.data, kW * 4, kW, kH, libyuv::kRotate180); }});
#ifdef QVN_HAVE_SIMD
                peers.push_back({"simd", [&] { SimdTransformImage(src.data, src.step, kW, kH, n, SimdTransformRotate180, same.data, same.step); }});
#endif
            } else {
                ours = {{"kit", [&] { QVN_Mirror_Image_CPU(&s, &ds); }},
                        {"core", [&] { fn::F_HFlip_HWC_Fallback(ts, tm); }}};
                peers.push_back({"opencv", [&] { cv::flip(src, ocv, 1); }});
                if (n == 1) peers.push_back({"libyuv", [&] { libyuv::MirrorPlane(src.data, kW, same.data, kW, kW, kH); }});
                if (n == 4) peers.push_back({"libyuv", [&] { libyuv::ARGBMirror(src.data, kW * 4, same.data, kW * 4, kW, kH); }});
#ifdef QVN_HAVE_SIMD
                peers.push_back({"simd", [&] { SimdTransformImage(src.data, src.step, kW, kH, n, SimdTransformTransposeRotate90, same.data, same.step); }});
#endif
            }
            const char* names[] = {"quarter turn", "half turn", "mirror"};
            Compare(names[move] + tag, ours, peers, copy);
        }
    }
}

void Gray() {
    cv::Mat src = RandomMat(kH, kW, 4), dst(kH, kW, CV_8UC1), ocv, copy_dst(kH, kW, CV_8UC4);
    TensorPtr s = Wrap(src), d = Wrap(dst);
    std::vector<Entry> peers = {{"opencv", [&] { cv::cvtColor(src, ocv, cv::COLOR_BGRA2GRAY); }}};
#ifdef QVN_HAVE_SIMD
    peers.push_back({"simd", [&] { SimdBgraToGray(src.data, kW, kH, src.step, dst.data, dst.step); }});
#endif
    Compare("BGRA to gray", {{"core", [&] { fn::F_ColorCvt_BGRA8888_To_Gray8_Fallback(s, d); }}}, peers,
            [&] { std::memcpy(copy_dst.data, src.data, src.total() * 4); });
}

void Split() {
    cv::Mat src = RandomMat(kH, kW, 4), dst(3 * kH, kW, CV_8UC1), copy_dst(kH, kW, CV_8UC4);
    TensorPtr s = Wrap(src);
    TensorPtr d = Device().CreateTensorExternal(
        rt::TensorShape({3, kH, kW}, rt::data_type::kUInt8, rt::layout::kCHW), dst.data);
    cv::Mat planes[3] = {dst.rowRange(0, kH), dst.rowRange(kH, 2 * kH), dst.rowRange(2 * kH, 3 * kH)};
    const int pairs[] = {2, 0, 1, 1, 0, 2};
    std::vector<Entry> peers = {{"opencv", [&] { cv::mixChannels(&src, 1, planes, 3, pairs, 3); }}};
#ifdef QVN_HAVE_SIMD
    uint8_t* r = dst.data;
    peers.push_back({"simd", [&] {
                         SimdDeinterleaveBgra(src.data, src.step, kW, kH, r + 2 * kW * kH, kW, r + kW * kH, kW, r, kW,
                                              nullptr, 0);
                     }});
#endif
    Compare("BGRA to RGB planes", {{"core", [&] { fn::F_ColorCvt_BGRA2RGB_HWC_UInt8_To_CHW_UInt8_Fallback(s, d); }}},
            peers, [&] { std::memcpy(copy_dst.data, src.data, src.total() * 4); });
}

void Resize() {
    for (int c : {1, 2, 4}) {
        cv::Mat src = RandomMat(kH, kW, c), dst(256, 256, CV_8UC(c)), ocv(256, 256, CV_8UC(c));
        cv::Mat copy_dst(kH, kW, CV_8UC(c));
        TensorPtr s = Wrap(src), d = Wrap(dst);
        auto ours = [&, c] {
            if (c == 1) fn::F_Resize_Bilinear_HWC_U8_C1_Fallback(s, d);
            if (c == 2) fn::F_Resize_Bilinear_HWC_U8_C2_Fallback(s, d);
            if (c == 4) fn::F_Resize_Bilinear_HWC_U8_C4_Fallback(s, d);
        };
        std::vector<Entry> peers = {{"opencv", [&] { cv::resize(src, ocv, ocv.size(), 0, 0, cv::INTER_LINEAR); }}};
#ifdef QVN_HAVE_SIMD
        void* resizer = SimdResizerInit(kW, kH, 256, 256, c, SimdResizeChannelByte, SimdResizeMethodBilinear);
        peers.push_back({"simd", [&] { SimdResizerRun(resizer, src.data, src.step, ocv.data, ocv.step); }});
#endif
        Compare("resize to 256 C" + std::to_string(c), {{"core", ours}}, peers,
                [&] { std::memcpy(copy_dst.data, src.data, src.total() * c); });
#ifdef QVN_HAVE_SIMD
        SimdRelease(resizer);
#endif
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) g_rounds = std::max(3, std::atoi(argv[1]));
    cv::setNumThreads(1);
#ifdef QVN_HAVE_SIMD
    SimdSetThreadNumber(1);
#endif
    Moves();
    Gray();
    Split();
    Resize();
    return 0;
}
