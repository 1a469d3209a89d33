// fuzz_frame_to_tensor.cpp - the kit's frame-to-tensor converters with
// random frame formats and sizes, crops (inside, across and outside the
// frame), tensor sizes and orientation words, on buffers of exactly the size
// the frame needs. What the target believes valid must convert without a
// refusal and without an exception.
#include "fuzz_common.hpp"

#include <qvn_kit/qvn_kit.hpp>
#include <quvas/runtime/tensor.h>

#include <cstring>
#include <exception>

using namespace quvas::runtime;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    qvnfuzz::Input in(data, size);
    qvnfuzz::StartCall();
    // Two invalid formats (three-plane YUV and RGB888) are refused by design.
    const std::vector<uint32_t> formats = {
        QVN_PIX_FMT_YUV420SP_A, QVN_PIX_FMT_YUV420SP_B, QVN_PIX_FMT_YUV420SP_C,
        QVN_PIX_FMT_YUV420SP_D, QVN_PIX_FMT_BGRA8888,   QVN_PIX_FMT_RGBA8888,
        QVN_PIX_FMT_YUV420_A,   QVN_PIX_FMT_RGB888};
    QVN_Image img{};
    img.pix_fmt = in.Pick(formats);
    img.width = in.Range(1, 48);
    img.height = in.Range(1, 48);
    img.ori_fmt = in.U8() & 127;
    const int mode = in.Range(0, 2);  // whole frame, crop, gray crop
    const bool to_bgr = in.Bit();
    const int cx = in.Range(-64, 64), cy = in.Range(-64, 64);
    const int cw = in.Range(-4, 80), ch = in.Range(-4, 80);
    const int th = in.Range(1, 40), tw = in.Range(1, 40);
    const unsigned char pad = in.U8();

    const bool four_byte = img.pix_fmt == QVN_PIX_FMT_BGRA8888 || img.pix_fmt == QVN_PIX_FMT_RGBA8888;
    const bool two_plane = !four_byte && img.pix_fmt != QVN_PIX_FMT_YUV420_A &&
                           img.pix_fmt != QVN_PIX_FMT_RGB888;
    const size_t w = static_cast<size_t>(img.width), h = static_cast<size_t>(img.height);
    const size_t bytes = four_byte   ? w * h * 4
                         : two_plane ? w * h + 2 * (w / 2) * (h / 2)
                                     : w * h * 3;
    img.channels = four_byte ? 4 : 1;
    std::vector<uint8_t> frame = in.Bytes(bytes);
    img.data = frame.data();
    img.rect = QVN_Rect2D{0, 0, 1, 1};

    const bool gray = mode == 2;
    const bool crop_active = mode != 0 && cw * ch > 0;
    bool valid = four_byte || two_plane;
    if (two_plane && !gray) {
        // 4:2:0 chroma needs at least one sample each way, in the frame, the
        // crop and the tensor.
        valid = valid && img.width >= 2 && img.height >= 2 && th >= 2 && tw >= 2;
        if (crop_active) valid = valid && cw >= 2 && ch >= 2;
    }

    DeviceCPU device;
    const TensorShape shape = gray ? TensorShape({th, tw, 1}, data_type::kUInt8, layout::kHWC)
                                   : TensorShape({3, th, tw}, data_type::kUInt8, layout::kCHW);
    TensorPtr t = device.CreateTensor(shape, nullptr);
    TensorPtr one = device.CreateTensor(shape, nullptr);
    std::memset(t->data(), 0xA5, t->byte_size());
    std::memset(one->data(), 0xA5, one->byte_size());
    // The one-pass twins of the crop converters must give the same bytes, and
    // throw where the step-by-step ones throw.
    bool one_threw = false;
    if (mode != 0) {
        try {
            if (gray) {
                quvas::kit::QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_Gray8_TensorCPU(
                    &img, one, cx, cy, cw, ch, pad);
            } else {
                quvas::kit::QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(
                    &img, one, to_bgr, cx, cy, cw, ch, pad);
            }
        } catch (const std::exception&) {
            one_threw = true;
        }
    }
    try {
        if (mode == 0) {
            quvas::kit::QV_BinlinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(
                &img, t, to_bgr);
        } else if (mode == 1) {
            quvas::kit::QV_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_U8_CHW_TensorCPU(
                &img, t, to_bgr, cx, cy, cw, ch, pad);
        } else {
            quvas::kit::QV_Crop_BilinearResize_Rotate_Flip_Convert_VideoFrameData_To_Gray8_TensorCPU(
                &img, t, cx, cy, cw, ch, pad);
        }
    } catch (const std::exception& e) {
        if (valid) {
            std::fprintf(stderr, "exception on an input believed valid: %s\n", e.what());
            std::abort();
        }
        if (mode != 0 && !one_threw) qvnfuzz::Fail("the one-pass converter did not throw");
        return 0;
    }
    if (mode != 0) {
        if (one_threw) qvnfuzz::Fail("the one-pass converter threw where the steps did not");
        if (std::memcmp(t->data(), one->data(), t->byte_size()) != 0) {
            qvnfuzz::Fail("the one-pass converter wrote other bytes than the steps");
        }
    }
    if (valid) qvnfuzz::ExpectQuiet("frame to tensor");
    if (!valid && !two_plane && !four_byte && qvnfuzz::Logged().empty()) {
        qvnfuzz::Fail("an unsupported pixel format was converted without a refusal");
    }
    return 0;
}
