// Setup the kernel benchmarks share: one CPU device, random frames, and
// tensors and image records laid over OpenCV matrices without a copy, so
// that ours and the peers read the very same bytes.
#pragma once

#include <qvn_kit/qvn_kit.h>
#include <quvas/kernel/functional.h>
#include <quvas/runtime/tensor.h>

#include <opencv2/core.hpp>

#include <cstdint>
#include <random>

namespace qvn_bench {

namespace rt = quvas::runtime;
namespace fn = quvas::kernel::functional;
using rt::TensorPtr;

// Workloads are camera frames of this size.
constexpr int kW = 1920;
constexpr int kH = 1080;

inline rt::DeviceCPU& Device() {
    static rt::DeviceCPU device;
    return device;
}

// The same bytes for the same size on every run.
inline cv::Mat RandomMat(int h, int w, int c) {
    cv::Mat m(h, w, CV_8UC(c));
    std::mt19937 rng(static_cast<unsigned>(h * 131 + w * 7 + c));
    for (size_t i = 0; i < m.total() * m.elemSize(); ++i) m.data[i] = static_cast<uint8_t>(rng());
    return m;
}

inline TensorPtr Wrap(cv::Mat& m, int32_t layout = rt::layout::kHWC) {
    rt::TensorShape shape({m.rows, m.cols, m.channels()}, rt::data_type::kUInt8, layout);
    return Device().CreateTensorExternal(shape, m.data);
}

// A frame record over m; its rect lies inside, so the calls that map the
// rect do that work as they would on a real frame.
inline QVN_Image Image(cv::Mat& m) {
    QVN_Image img{};
    img.width = m.cols;
    img.height = m.rows;
    img.channels = static_cast<int32_t>(m.elemSize());
    img.rect = {0.1f, 0.2f, 0.7f, 0.9f};
    img.data = m.data;
    return img;
}

}  // namespace qvn_bench
