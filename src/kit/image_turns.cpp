// image_turns.cpp - plain byte movers: a pixel is `channels` bytes moved as a
// block, whatever the format. The output is byte for byte the pixel-by-pixel
// definition; only the order of the work differs. The pixels move through the
// core's plane drivers (kernels/planar.h, linked in privately), the same ones
// behind the core's turn kernels; kernels/README.md says which engine each
// uses and why. The region of interest moves with the rectangle moves of
// rect_turns.h, the same as the result transforms use.
#include "image_turns.h"

#include <quvas/utility/log.h>

#include <cstring>

#include "kernels/planar.h"
#include "rect_turns.h"

namespace quvas {
namespace kit {
namespace internal {

namespace {

// Bytes in a packed row of w pixels of n bytes.
inline ptrdiff_t Pitch(int w, int n) { return static_cast<ptrdiff_t>(w) * n; }

}  // namespace

int32_t TurnImage(const QVN_Image* src, QVN_Image* dst, int angle) {
    const int w = src->width;
    const int h = src->height;
    const int n = src->channels;
    const QVN_Rect2D r = src->rect;
    // Pixels move only for a real image; a pixel of no bytes moves nothing.
    const bool move = w > 0 && h > 0 && n > 0;
    switch (angle) {
        case 0: {
            // The size is a 32-bit product, as callers have always computed it.
            const int64_t bytes = static_cast<int64_t>(static_cast<int32_t>(
                static_cast<int64_t>(w) * h * n));
            if (bytes > 0) std::memcpy(dst->data, src->data, static_cast<size_t>(bytes));
            dst->width = w;
            dst->height = h;
            dst->channels = n;
            // The region of interest stays as the caller set it.
            return QVN_RESULT_SUCCESS;
        }
        case 90:
            if (move) kernels::RotateClockwise90(src->data, Pitch(w, n), dst->data, Pitch(h, n), w, h, n);
            dst->width = h;
            dst->height = w;
            dst->channels = n;
            RectRotate90(r, &dst->rect);
            return QVN_RESULT_SUCCESS;
        case 180:
            if (move) kernels::Rotate180(src->data, Pitch(w, n), dst->data, Pitch(w, n), w, h, n);
            dst->width = w;
            dst->height = h;
            dst->channels = n;
            RectRotate180(r, &dst->rect);
            return QVN_RESULT_SUCCESS;
        case 270:
            if (move) kernels::RotateClockwise270(src->data, Pitch(w, n), dst->data, Pitch(h, n), w, h, n);
            dst->width = h;
            dst->height = w;
            dst->channels = n;
            RectRotate270(r, &dst->rect);
            return QVN_RESULT_SUCCESS;
        default:
            utility::Log(QVN_LOG_LEVEL_ERROR, "[Quvas Error] unsupported rotate angle");
            return QVN_RESULT_INVALID_ARG;
    }
}

int32_t MirrorImage(const QVN_Image* src, QVN_Image* dst) {
    const int w = src->width;
    const int h = src->height;
    const int n = src->channels;
    const QVN_Rect2D r = src->rect;
    if (w > 0 && h > 0 && n > 0) kernels::Mirror(src->data, Pitch(w, n), dst->data, Pitch(w, n), w, h, n);
    // Only the horizontal extent of the region moves; the caller has set the
    // rest of dst (normally to a copy of src).
    RectFlipH(r, &dst->rect);
    return QVN_RESULT_SUCCESS;
}

int32_t FlipImageV(const QVN_Image* src, QVN_Image* dst) {
    const int h = src->height;
    const QVN_Rect2D r = src->rect;
    const int64_t row = static_cast<int64_t>(src->width) * src->channels;
    if (h > 0 && row > 0) {
        kernels::FlipVertical(src->data, row, dst->data, row, static_cast<size_t>(row), h);
    }
    RectFlipV(r, &dst->rect);
    return QVN_RESULT_SUCCESS;
}

}  // namespace internal
}  // namespace kit
}  // namespace quvas
