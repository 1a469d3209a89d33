// fuzz_raw_frames.cpp - qvn-kit's raw-frame path with a fuzzed --size, file
// length, format, orientation, crop and tensor: the tool's own checks either
// refuse the input with a usage or input error, or the frames it accepts go
// through the kit's converter without any refusal (strict mode) and without
// an exception.
#include "common.hpp"
#include "frames.hpp"
#include "fuzz_common.hpp"
#include "preprocess.hpp"

#include <quvas/runtime/tensor.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    qvnfuzz::Input in(data, size);
    // The tool's own route: ConvertFrame turns a logged line into exit 5.
    static const bool routed = (qvntool::InstallLogRoute(), true);
    (void)routed;
    const std::vector<uint32_t> formats = {QVN_PIX_FMT_YUV420SP_C, QVN_PIX_FMT_YUV420SP_D,
                                           QVN_PIX_FMT_YUV420SP_A, QVN_PIX_FMT_YUV420SP_B,
                                           QVN_PIX_FMT_BGRA8888,   QVN_PIX_FMT_RGBA8888};
    const uint32_t pix_fmt = in.Pick(formats);
    // Sizes as typed: mostly small, sometimes anything up to 2^20 per side.
    const bool wide = in.U8() < 16;
    const int w = wide ? in.Range(1, 1 << 20) : in.Range(1, 40);
    const int h = wide ? in.Range(1, 1 << 20) : in.Range(1, 40);
    const std::string size_text = std::to_string(w) + "x" + std::to_string(h);
    const uint32_t ori = in.U8() & 127;
    const bool gray = in.Bit(), bgr = in.Bit();
    std::vector<int> crop;
    if (in.Bit()) {
        crop = {in.Range(-60, 60), in.Range(-60, 60), in.Range(1, 80), in.Range(1, 80)};
    }
    const int th = in.Range(1, 40), tw = in.Range(1, 40);
    const unsigned char pad = in.U8();
    const size_t file_bytes = in.rest_size();
    try {
        qvntool::Size2 parsed;
        size_t frame_bytes = qvntool::RawFrameBytes(pix_fmt, size_text, parsed);
        long count = qvntool::RawFrameCount(pix_fmt, size_text, frame_bytes, "fuzz.raw", file_bytes);
        qvntool::TensorTarget target = qvntool::ParseTensorSpec(
            std::string(gray ? "1x" : "3x") + std::to_string(th) + "x" + std::to_string(tw), gray);
        quvas::runtime::DeviceCPU device;
        for (long i = 0; i < count && i < 3; ++i) {
            qvntool::Frame frame;
            frame.bytes.assign(in.rest() + frame_bytes * static_cast<size_t>(i),
                               in.rest() + frame_bytes * static_cast<size_t>(i + 1));
            int channels = pix_fmt == QVN_PIX_FMT_BGRA8888 || pix_fmt == QVN_PIX_FMT_RGBA8888 ? 4 : 1;
            frame.Bind(pix_fmt, parsed.w, parsed.h, channels, ori);
            quvas::runtime::TensorPtr tensor = qvntool::MakeOutputTensor(device, target);
            qvntool::ConvertFrame(frame.image, target, bgr, crop, pad, tensor);
        }
    } catch (const qvntool::ToolError& e) {
        if (e.code() == qvntool::kExitLibrary && qvnfuzz::Strict()) {
            std::fprintf(stderr, "the tool accepted a frame the library refused: %s\n", e.what());
            std::abort();
        }
        if (e.code() != qvntool::kExitUsage && e.code() != qvntool::kExitInput) {
            qvnfuzz::Fail("raw-frame refusal with an unexpected exit code");
        }
    }
    return 0;
}
