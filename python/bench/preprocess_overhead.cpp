// preprocess_overhead.cpp - the C++ side of the binding-overhead measurement,
// loaded by preprocess_overhead.py through ctypes so that both sides run in
// one process, in alternating rounds, under the same machine load.
//
// qvn_bench_preprocess(side, calls) converts a side x side NV21 frame, turned
// (rotate90r), into a 3 x side x side tensor in caller memory `calls` times,
// exactly as qvn_kit.preprocess does per call (a device, a tensor over the
// output, the converter), and returns the mean time per call in µs.
#include <qvn_kit/qvn_kit.hpp>
#include <quvas/runtime/tensor.h>

#include <chrono>
#include <vector>

extern "C" __attribute__((visibility("default"))) double qvn_bench_preprocess(int side,
                                                                             int calls) {
    const int w = side, h = side;
    std::vector<uint8_t> frame(static_cast<size_t>(w) * h * 3 / 2);
    for (size_t i = 0; i < frame.size(); ++i) frame[i] = static_cast<uint8_t>(i * 7 + i / 251);
    std::vector<uint8_t> out(3u * w * h);
    QVN_Image img{};
    img.ori_fmt = QVN_ORIENT_FMT_ROTATE_90R;
    img.pix_fmt = QVN_PIX_FMT_YUV420SP_D;
    img.width = w;
    img.height = h;
    img.channels = 1;
    img.rect = QVN_Rect2D{0.f, 0.f, 1.f, 1.f};
    img.data = frame.data();
    auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < calls; ++i) {
        quvas::runtime::DeviceCPU device;
        quvas::runtime::TensorPtr t = device.CreateTensorExternal(
            quvas::runtime::TensorShape({3, h, w}, quvas::runtime::data_type::kUInt8,
                                        quvas::runtime::layout::kCHW),
            out.data());
        quvas::kit::QV_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(
            &img, t, false, 0, 0, 0, 0, 0);
    }
    std::chrono::duration<double, std::micro> d = std::chrono::steady_clock::now() - start;
    return d.count() / calls;
}
