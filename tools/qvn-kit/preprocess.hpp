// preprocess.hpp - the frame-to-tensor steps shared by `preprocess` and
// `demo`.
#ifndef QVN_TOOL_PREPROCESS_HPP
#define QVN_TOOL_PREPROCESS_HPP

#include <qvn_kit/qvn_kit.h>
#include <quvas/runtime/tensor.h>

#include <string>
#include <vector>

namespace qvntool {

struct TensorTarget {
    int c = 3, h = 256, w = 256;
    bool gray = false;
};

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
// .npy or PNG by the name.
void WriteTensor(const std::string& path, const quvas::runtime::Tensor& tensor, bool bgr);
// "out.png" -> "out_00003.png" when count > 1.
std::string IndexedPath(const std::string& path, long index, long count);

}  // namespace qvntool

#endif  // QVN_TOOL_PREPROCESS_HPP
