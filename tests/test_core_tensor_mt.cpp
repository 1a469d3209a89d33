// One CPU device serving several threads: each converts frames into tensors
// of its own while all intermediate tensors come from, and go back to, the
// device's shared cache of freed storage. Every thread must get the bytes a
// lone conversion gives. Run under ThreadSanitizer.
#include <qvn_kit/qvn_kit.hpp>

#include <quvas/runtime/tensor.h>

#include <gtest/gtest.h>

#include "test_support.h"

#include <cstdint>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

namespace {

namespace rt = quvas::runtime;
namespace kit = quvas::kit;

TEST(DeviceCacheThreads, ConcurrentConversionsOnOneDeviceAgree) {
    constexpr int kThreads = 4, kFrames = 6, kW = 96, kH = 64, kOut = 32;
    std::vector<uint8_t> nv21 = qvntest::RandomBytes(kW * kH * 3 / 2, 3);
    std::vector<uint8_t> bgra = qvntest::RandomBytes(kW * kH * 4, 4);
    rt::DeviceCPU device;
    const rt::TensorShape planar({3, kOut, kOut}, rt::data_type::kUInt8, 0);
    // Thread t converts with its own format, orientation and crop; the
    // sizes differ, so blocks of several sizes pass through the cache.
    // Odd frames go through the one-pass converter (scratch per thread): the
    // same bytes again.
    auto convert = [&](int t, rt::TensorPtr& out, bool one_pass = false) {
        const uint32_t fmt = t % 2 ? QVN_PIX_FMT_BGRA8888 : QVN_PIX_FMT_YUV420SP_D;
        const uint32_t ori = t % 3 == 0 ? QVN_ORIENT_FMT_ROTATE_90L : QVN_ORIENT_FMT_MIRROR;
        const bool four = fmt == QVN_PIX_FMT_BGRA8888;
        const QVN_Image img = qvntest::MakeImage(fmt, kW, kH, four ? 4 : 1, four ? bgra.data() : nv21.data(), ori);
        (one_pass ? kit::QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU
                  : kit::QV_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU)(
            &img, out, false, 4 * t - 6, 3 + t, 40 + 8 * t, 36 + 6 * t, 17);
    };
    std::vector<std::vector<uint8_t>> want(kThreads);
    for (int t = 0; t < kThreads; ++t) {
        rt::DeviceCPU alone;
        rt::TensorPtr out = alone.CreateTensor(planar, nullptr);
        convert(t, out);
        want[t].assign(out->data(), out->data() + out->byte_size());
    }
    std::vector<std::vector<int>> mismatches(kThreads, std::vector<int>(kFrames, -1));
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            rt::TensorPtr out = device.CreateTensor(planar, nullptr);
            for (int f = 0; f < kFrames; ++f) {
                std::memset(out->data(), 0, out->byte_size());
                convert(t, out, f % 2 == 1);
                mismatches[t][f] = std::memcmp(out->data(), want[t].data(), want[t].size()) != 0;
            }
        });
    }
    for (auto& th : threads) th.join();
    for (int t = 0; t < kThreads; ++t)
        for (int f = 0; f < kFrames; ++f) EXPECT_EQ(mismatches[t][f], 0) << "thread " << t << " frame " << f;
    // Every intermediate tensor came back: the cache holds some, bounded.
    EXPECT_GT(device.CachedBytes(), 0u);
    EXPECT_LE(device.CachedBytes(), rt::DeviceCPU::kCacheBytes);
}

}  // namespace
