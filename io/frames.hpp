// frames.hpp - pictures to camera frames and back, and tensors to pictures.
//
// Colour conversion for frames is libyuv's: a picture becomes a two-plane
// 4:2:0 frame through ARGBToJ420 (BT.601 full range, 2x2 chroma averages)
// and I420ToNV12 / I420ToNV21, which only interleave the chroma planes; a
// frame is shown through NV12ToARGBMatrix / NV21ToARGBMatrix with the same
// BT.601 full-range constants. The kit decodes nv12/nv21 with BT.601 weights
// in 64ths whose blue weight (133/64) is above the standard's 1.772, so a
// tensor made from a picture shows blues and yellows a little stronger than
// the picture; that is the kit's colour handling, not the tool's.
#ifndef QVN_IO_FRAMES_HPP
#define QVN_IO_FRAMES_HPP

#include "image_io.hpp"

#include <qvn_kit/qvn_kit.h>
#include <quvas/runtime/tensor.h>

#include <cstdint>
#include <vector>

namespace qvntool {

// A QVN_Image together with the bytes it points to. Not copyable: the record
// points into the vector.
struct Frame {
    QVN_Image image{};
    std::vector<uint8_t> bytes;

    Frame() = default;
    Frame(const Frame&) = delete;
    Frame& operator=(const Frame&) = delete;
    // Sets the record's fields and points it at `bytes`.
    void Bind(uint32_t pix_fmt, int width, int height, int channels, uint32_t ori);
};

// Byte size of a raw input frame of this format (nv12, nv21, yuv420sp_a/b,
// bgra, rgba), from the kit's own rule checked in 64 bits; 0 for a size the
// kit cannot take (odd two-plane sides, a count that wraps at 32 bits).
size_t FrameBytes(uint32_t pix_fmt, int width, int height);

// A picture as an input frame of format nv12, nv21, bgra or rgba. For the
// 4:2:0 formats a picture with an odd side is padded to even sides by
// repeating its last column or row, with a note to the user.
void PictureToFrame(const Picture& pic, uint32_t pix_fmt, uint32_t ori, Frame& frame);

// A frame (any input format) as an R,G,B picture, for looking at.
Picture FrameToPicture(const QVN_Image& frame);

// True when a colour output of `width` x `height` (a tensor, a crop) cannot
// be made from a two-plane frame: the colour converters resize the
// half-size chroma plane, and 4:2:0 keeps one chroma pair per 2x2 block, so
// the output needs at least 2x2 pixels. Gray output reads the luma plane
// only.
bool TooSmallForChroma(uint32_t pix_fmt, bool gray, int64_t width, int64_t height);

// A packed picture as a QVN_Image of GRAY8, RGB888 or RGBA8888 (channels =
// bytes per pixel), pointing into `pic`.
QVN_Image PictureImage(Picture& pic);

// A u8 tensor as a picture: planar {3, H, W} put back together with the
// kit's post_getRGB_HWC_from_RGB_CHW;
// {H, W, 1} or {1, H, W} as gray.
Picture TensorToPicture(const quvas::runtime::Tensor& tensor);

}  // namespace qvntool

#endif  // QVN_IO_FRAMES_HPP
