// preprocess.hpp - the frame-to-tensor steps shared by `preprocess` and
// `demo`.
#ifndef QVN_TOOL_PREPROCESS_HPP
#define QVN_TOOL_PREPROCESS_HPP

#include "common.hpp"

#include <qvn_kit/frame_tensor.hpp>
#include <qvn_kit/frame_view.hpp>
#include <qvn_kit/qvn_kit.h>
#include <quvas/runtime/tensor.h>

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace qvntool {

struct TensorTarget {
    int c = 3, h = 256, w = 256;
    bool gray = false;
};

// The options both converting commands share, checked the same way: --crop
// "x,y,w,h" (empty: none; else a positive width and height), --pad 0..255,
// and --gray and --bgr not together. Returns the crop, empty or x, y, w, h.
std::vector<int> CheckCropPadChannels(const std::string& crop, int pad, bool gray, bool bgr);

// --letterbox PAD (< 0: off) and --letterbox-align (empty or "centre",
// "topleft") into the tensor converter's options, checked as `preprocess`
// and `video` both check them.
void ApplyLetterbox(int letterbox, const std::string& align, quvas::kit::TensorOptions& t);
// Registers --letterbox PAD and --letterbox-align on a converting command;
// `pad_note` ends the help of --letterbox.
void AddLetterboxOptions(CLI::App* cmd, int* letterbox, std::string* align,
                         const char* pad_note);

// "CxHxW", checked against what the chosen converter writes.
TensorTarget ParseTensorSpec(const std::string& text, bool gray);
// Planar {C, H, W} (layout CHW), or {H, W, 1} (layout HWC) for gray; u8.
quvas::runtime::TensorPtr MakeOutputTensor(quvas::runtime::DeviceCPU& device,
                                           const TensorTarget& target);
// Validates the frame with the kit, then converts it; `crop` is empty or
// x, y, w, h.
void ConvertFrame(const QVN_Image& frame, const TensorTarget& target, bool bgr,
                  const std::vector<int>& crop, unsigned char pad,
                  quvas::runtime::TensorPtr& tensor);
// The same for a view of a decoder's planes, through the one-pass
// converter that reads it in place.
void ConvertView(const quvas::kit::FrameView& view, const TensorTarget& target, bool bgr,
                 const std::vector<int>& crop, unsigned char pad,
                 quvas::runtime::TensorPtr& tensor);
// .npy or PNG by the name.
void WriteTensor(const std::string& path, const quvas::runtime::Tensor& tensor, bool bgr);
// Bytes of one raw frame of `size_text` ("WxH", parsed into `size`) in
// format pix_fmt, after --max-pixels and the kit's 32-bit byte count (kept
// only where it agrees with the count in 64 bits); ToolError otherwise.
size_t RawFrameBytes(uint32_t pix_fmt, const std::string& size_text, Size2& size);
// Whole frames in a raw file of `file_bytes`; ToolError naming `path` when
// the file is empty or ends inside a frame.
long RawFrameCount(uint32_t pix_fmt, const std::string& size_text, size_t frame_bytes,
                   const std::string& path, size_t file_bytes);
// "out.png" -> "out_00003.png" when count > 1.
std::string IndexedPath(const std::string& path, long index, long count);

}  // namespace qvntool

#endif  // QVN_TOOL_PREPROCESS_HPP
