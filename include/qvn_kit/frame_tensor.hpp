// frame_tensor.hpp - a network's input in one pass, and the way back.
//
// QV_OnePass_Convert_FrameView_To_Tensor runs the one-pass converter over a
// FrameView (crop, bilinear resize, turn, mirror, colour) and writes the
// result straight into the caller's buffer: bytes or normalised floats,
// planar (C x H x W) or interleaved (H x W x C), with row and plane strides
// so that one item of a batch is filled in place. It can keep the crop's
// aspect ratio (letterbox) and hands back the transform between frame
// coordinates and tensor pixels, so a network's points and boxes go back to
// the frame exactly.
//
// Geometry, in this order:
//  1. The crop box (upright view, pixels, as the QVN_Image converters take
//     it; crop_w * crop_h <= 0 means the whole frame) is moved into the
//     frame as stored by the frame's orientation and truncated to whole
//     pixels, exactly as the converters do. Parts outside the frame read
//     as `pad_value`.
//  2. Colour output: the region is resized bilinearly (half-pixel centres),
//     then turned (ori_fmt bit 2: a quarter turn clockwise, else bit 1: a
//     quarter turn counter-clockwise, else bit 4: a half turn) and then
//     mirrored (bit 16: left-right, else bit 8: upside down). Gray output is
//     never turned or mirrored (the orientation only moves the crop box):
//     the region is resized to the picture's size as it lies in the frame.
//  3. Letterbox off: the picture is the whole tensor. Letterbox on: the
//     region's sides after the turn (as stored for gray), cw x ch, are
//     scaled to fit the tensor's tw x th: when cw * th <= ch * tw the
//     picture is th high and round(cw * th / ch) wide, otherwise tw wide
//     and round(ch * tw / cw) high, rounding halves up, and never less than
//     the least picture side (2 for 4:2:0 colour, whose chroma needs two
//     pixels, else 1). Centred: the picture starts at ((tw - pw) / 2,
//     (th - ph) / 2), rounded down, so an odd remainder leaves the extra
//     pixel on the right or at the bottom. Top-left: at (0, 0). Every other
//     tensor pixel is `letterbox_pad` (in every channel, before
//     normalisation).
//
// Float output: every value is (float(b) - mean[c]) / std[c], a single-
// precision subtraction then a single-precision division, each rounded once,
// where b is the byte the byte output holds at that position: the float
// tensor is the byte tensor normalised, bit for bit, never a different
// resample.
//
// Coordinates: frame points are normalised to 0..1 of the frame as stored
// (x = 0 at the left edge, 1 at the right edge). Tensor points are in
// continuous pixels: pixel (i, j) covers [i, i + 1) x [j, j + 1) and its
// centre is (i + 0.5, j + 0.5), the convention of the half-pixel resize, so
// the frame point under a pixel's centre is the point the resize sampled.
// The transform is affine (scale, offset and a possible exchange of the
// axes); it is defined beyond the picture and the frame too.
#ifndef QVN_KIT_FRAME_TENSOR_HPP
#define QVN_KIT_FRAME_TENSOR_HPP

#include <qvn_kit/frame_view.hpp>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace quvas {
namespace kit {

enum class TensorElement : uint8_t { kUInt8 = 0, kFloat32 = 1 };
// kPlanar: C x H x W (NCHW); kInterleaved: H x W x C (NHWC). Gray has one
// channel, so the two differ only in their strides.
enum class TensorOrder : uint8_t { kPlanar = 0, kInterleaved = 1 };
enum class Letterbox : uint8_t { kOff = 0, kCentre = 1, kTopLeft = 2 };

struct TensorOptions {
    int width = 0;   // tensor sides, upright
    int height = 0;
    bool gray = false;    // one channel; else three, R, G, B ...
    bool to_bgr = false;  // ... or B, G, R
    int crop_x = 0, crop_y = 0, crop_w = 0, crop_h = 0;  // upright view, pixels
    uint8_t pad_value = 0;  // where the crop reaches outside the frame
    Letterbox letterbox = Letterbox::kOff;
    uint8_t letterbox_pad = 0;
    // Float output only (ignored for bytes): one value per channel (3, or 1
    // for gray), each finite; every std non-zero.
    std::vector<float> mean;
    std::vector<float> std;
};

// The caller's memory for one tensor. Strides count elements (bytes for
// kUInt8, floats for kFloat32); 0 means packed: row_stride = width (planar)
// or width * channels (interleaved), plane_stride = height * row_stride.
// plane_stride is read for planar output only. Rows and planes must not
// overlap; padding between them is left alone.
struct TensorBuffer {
    void* data = nullptr;
    TensorElement element = TensorElement::kUInt8;
    TensorOrder order = TensorOrder::kPlanar;
    ptrdiff_t row_stride = 0;
    ptrdiff_t plane_stride = 0;
};

// From frame coordinates (normalised) to tensor pixels and back:
// tensor = to_tensor * (x, y, 1), frame = to_frame * (x, y, 1), 2 x 3
// row-major, in double. picture_* is where the picture lies in the tensor
// (the whole tensor without letterbox).
struct TensorTransform {
    double to_tensor[6] = {1, 0, 0, 0, 1, 0};
    double to_frame[6] = {1, 0, 0, 0, 1, 0};
    int tensor_width = 0, tensor_height = 0;
    int picture_x = 0, picture_y = 0, picture_width = 0, picture_height = 0;
};

// Converts `view` into `out` as `options` say, and fills `transform` when it
// is not null. True on success. Refused, with one level-16 log line and
// nothing written (neither `out` nor `transform`): a view
// Is_Valid_FrameView refuses (its own line), a null out.data, a tensor side
// below the least picture side, a 4:2:0 colour crop narrower or lower than 2
// pixels, strides that cannot hold a row or a plane, and for float output a
// mean or std list whose length is not the channel count, a mean that is not
// finite or a std of 0, NaN or infinity. The log lines begin with the
// function's name:
//   "QV_OnePass_Convert_FrameView_To_Tensor: mean and std need one value per channel (3), got 2 and 3."
//   "QV_OnePass_Convert_FrameView_To_Tensor: std[1] is 0; it must be finite and non-zero."
//   "QV_OnePass_Convert_FrameView_To_Tensor: mean[0] is nan; it must be finite."
//   "QV_OnePass_Convert_FrameView_To_Tensor: a 1x5 tensor cannot hold a picture of at least 2x2."
//   "QV_OnePass_Convert_FrameView_To_Tensor: a 1x9 crop of a 4:2:0 frame is less than 2x2."
//   "QV_OnePass_Convert_FrameView_To_Tensor: the output buffer is NULL."
//   "QV_OnePass_Convert_FrameView_To_Tensor: a row stride of 5 cannot hold a row of 6."
//   "QV_OnePass_Convert_FrameView_To_Tensor: a plane stride of 5 cannot hold a plane of 6."
// (numbers and names as the case is). Without letterbox the bytes equal
// those of the FrameView converters on a tensor of the same size, except
// gray from a four-byte frame with a pending quarter turn and a tensor that
// is not square: the older converter writes its picture resized to the
// exchanged size row after row; this one resizes to the tensor's size.
// Safe to call from several threads (scratch is per thread).
QVN_API bool QV_OnePass_Convert_FrameView_To_Tensor(const FrameView& view,
                                                    const TensorOptions& options,
                                                    const TensorBuffer& out,
                                                    TensorTransform* transform);

// The transform alone: what the conversion would hand back. The same
// checks of the view, the sizes and the crop (not of the buffer or of mean
// and std), logged under this function's name.
QVN_API bool QV_FrameView_Tensor_Transform(const FrameView& view, const TensorOptions& options,
                                           TensorTransform* transform);

// n points (x, y) or boxes (x, y, w, h) through the transform; in and out
// may be the same array. A box maps to the bounding box of its four mapped
// corners (the transform keeps axes parallel, so this is exact).
QVN_API void TensorTransform_Points_To_Tensor(const TensorTransform& t, const float* in,
                                              float* out, size_t n);
QVN_API void TensorTransform_Points_To_Frame(const TensorTransform& t, const float* in,
                                             float* out, size_t n);
QVN_API void TensorTransform_Boxes_To_Tensor(const TensorTransform& t, const float* in,
                                             float* out, size_t n);
QVN_API void TensorTransform_Boxes_To_Frame(const TensorTransform& t, const float* in,
                                            float* out, size_t n);

}  // namespace kit
}  // namespace quvas

#endif  // QVN_KIT_FRAME_TENSOR_HPP
