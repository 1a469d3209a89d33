// frame_view.hpp - frames as decoders deliver them.
//
// A FrameView describes a frame that lies in someone else's memory: a video
// decoder's planes (FFmpeg's AVFrame data/linesize, PyAV's planes), a JPEG
// decoder's Y, Cb, Cr planes, or a packed QVN_Image. Each plane has its own
// row stride in bytes (rows may be padded), and 4:2:0 frames carry their
// colour description (matrix and range), so the converters below read the
// planes in place, expand limited range and convert colour in the same pass
// that crops, resizes, turns and mirrors.
//
// Formats: the two-plane 4:2:0 formats (QVN_PIX_FMT_YUV420SP_A/_B/_C/_D),
// the four-byte ones (QVN_PIX_FMT_BGRA8888, _RGBA8888), and three-plane
// 4:2:0, QVN_PIX_FMT_YUV420_A, whose planes are always given as Y, U, V
// (FFmpeg's yuv420p; a "yv12" buffer, Y then V then U, is the same format
// with planes[1] and planes[2] pointing at its U and V parts). The frame
// converters of qvn_kit.hpp that take a QVN_Image keep refusing three-plane
// frames; only the FrameView converters take them.
#ifndef QVN_KIT_FRAME_VIEW_HPP
#define QVN_KIT_FRAME_VIEW_HPP

#include <qvn_kit/qvn_kit.hpp>

#include <cstddef>
#include <cstdint>

namespace quvas {
namespace kit {

// The colour standard of a 4:2:0 frame. kDefault keeps the format's own
// weights for the two-plane formats (exactly what the QVN_Image converters
// use) and, for three-plane frames, takes what players assume for an
// untagged stream: BT.601 for frames up to 576 lines and BT.709 above, in
// limited range.
enum class YuvMatrix : uint8_t { kDefault = 0, kBT601 = 1, kBT709 = 2 };
// Limited: Y in 16..235 and chroma in 16..240 (broadcast video); full: 0..255
// (JPEG/JFIF, most phone cameras).
enum class YuvRange : uint8_t { kDefault = 0, kLimited = 1, kFull = 2 };

struct FramePlane {
    const uint8_t* data = nullptr;
    ptrdiff_t stride = 0;  // bytes from one row to the next, at least the row's bytes
};

struct FrameView {
    uint32_t pix_fmt = QVN_PIX_FMT_UNKNOW;
    uint32_t ori_fmt = QVN_ORIENT_FMT_DEFAULT;  // as QVN_Image::ori_fmt
    int32_t width = 0;
    int32_t height = 0;
    // Two-plane: luma, then (w/2) x (h/2) interleaved chroma pairs in the
    // format's byte order. Three-plane: luma, U, V, the chroma planes
    // (w/2) x (h/2) samples (halves rounded down; a decoder's rounded-up
    // planes hold them). Four-byte: one plane.
    FramePlane planes[3];
    YuvMatrix matrix = YuvMatrix::kDefault;
    YuvRange range = YuvRange::kDefault;
};

// Describes a packed QVN_Image (rows of width x bytes per pixel, chroma right
// after luma) as a view over the same memory; nothing is copied. False, with
// the view untouched, for a null image, a null data pointer or a format no
// view takes.
QVN_API bool FrameView_From_QVN_Image(const QVN_Image* img, FrameView* view);

// True when the converters below accept `view`: a view format, positive
// sides (at least 2 x 2 for 4:2:0), a plane pointer for every plane, strides
// that hold a row, and a known matrix and range. Otherwise logs one level-16
// line saying what is wrong.
QVN_API bool Is_Valid_FrameView(const FrameView& view);

// For float output, letterboxing, caller buffers with strides and the
// transform back to the frame, see QV_OnePass_Convert_FrameView_To_Tensor
// (frame_tensor.hpp).
//
// The one-pass converters over a view: the arguments, checks, log lines and
// crop rules of the QVN_Image one-pass converters. For a view of a packed
// QVN_Image (FrameView_From_QVN_Image, default colour) they write exactly
// the bytes those converters write. A three-plane frame gives the bytes of
// the same samples interleaved into a two-plane frame converted with the
// same colour description. Gray output of a limited-range 4:2:0 frame is
// its luma expanded to full range.
QVN_API void QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_FrameView_To_U8_CHW_TensorCPU(
    const FrameView& view, TensorPtr& o_tensor, const bool& to_bgr, const int& crop_x,
    const int& crop_y, const int& crop_w, const int& crop_h, const unsigned char& pad_value);
QVN_API void QV_OnePass_Crop_BilinearResize_Rotate_Flip_Convert_FrameView_To_Gray8_TensorCPU(
    const FrameView& view, TensorPtr& o_tensor, const int& crop_x, const int& crop_y,
    const int& crop_w, const int& crop_h, const unsigned char& pad_value);

}  // namespace kit
}  // namespace quvas

#endif  // QVN_KIT_FRAME_VIEW_HPP
