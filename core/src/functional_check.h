// functional_check.h - the tensor checks of the core's image kernels and
// image-process operations, and the one view type they hand to the plane
// drivers of kernels/planar.h.
//
// Every kernel first turns its tensors into plain image views here; a tensor
// that is null, not u8, not a {H, W, C} image or whose storage is too small
// never reaches the pixel loops. The functional kernels refuse through
// utility::Assert with the kernel's name and both shapes (Refuse); the
// image-process operations word their own messages with ShapeWords.
#ifndef QUVAS_CORE_SRC_FUNCTIONAL_CHECK_H
#define QUVAS_CORE_SRC_FUNCTIONAL_CHECK_H

#include <quvas/runtime/tensor.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>

namespace quvas {
namespace kernel {
namespace detail {

// A tightly packed u8 image: h rows of w pixels of c bytes (for a planar
// tensor, c planes of h x w), and the bytes of storage the kernels touch
// (more than h * w * c for a 4:2:0 frame, whose chroma follows).
struct Image {
    uint8_t* data = nullptr;
    int h = 0;
    int w = 0;
    int c = 0;
    size_t extent = 0;
    size_t stride() const { return static_cast<size_t>(w) * static_cast<size_t>(c); }
    size_t bytes() const { return extent; }
    uint8_t* row(int y) const { return data + static_cast<size_t>(y) * stride(); }
};

// True when `t` is a u8 tensor of dims {H, W, C} in HWC layout (or the plane
// layout when C is 1) whose storage holds H*W*C bytes; fills `image`.
bool AsHWC(const runtime::TensorPtr& t, Image* image);
// True when `t` is a u8 tensor of dims {C, H, W} in CHW layout whose storage
// holds C*H*W bytes; fills `image` with h = H, w = W, c = C (planes follow
// one another, each h*w bytes).
bool AsCHW(const runtime::TensorPtr& t, Image* image);

// The image-process operations' view: `t` has storage in main memory, u8,
// three positive dims, one of `layouts`, and at most 2^31 - 1 bytes (so that
// every row, plane and pixel count fits an int) that its storage holds. A
// planar tensor {C, H, W} gives h = H, w = W, c = C; every other layout
// {H, W, C} (a 4:2:0 frame {H, W, 1} with its chroma planes after the luma).
bool AsImageProcessView(const runtime::TensorPtr& t, std::initializer_list<int32_t> layouts,
                        Image* image);

// "{1080, 1920, 4} (type 7, layout 1)", or "null".
std::string ShapeText(const runtime::TensorPtr& t);

// "{1080, 1920, 4} type 7 layout 1", with " location 0x..." when not in main
// memory, " without storage" without data; or "null".
std::string ShapeWords(const runtime::TensorPtr& t);

// True when the storage ranges of two views share a byte.
bool Overlap(const Image& a, const Image& b);

// Logs "<kernel>: src <shape> and dst <shape> do not fit: <reason>" at level 16.
void Refuse(const char* kernel, const runtime::TensorPtr& src, const runtime::TensorPtr& dst,
            const char* reason);

}  // namespace detail
}  // namespace kernel
}  // namespace quvas

#endif  // QUVAS_CORE_SRC_FUNCTIONAL_CHECK_H
