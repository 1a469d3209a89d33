// result_transforms.h - how a turn, mirror or flip moves the points and
// boxes of the result records, shared by the per-record transforms of
// qv_kit.cpp. Header-only so that the vector point map is inlined into each
// transform with its flags as constants.
//
// A point map is a possible exchange of x and y followed by 1 - v on x, on y
// or on both (normalised coordinates, single precision):
//
//                 swap  1-x  1-y       (x, y) becomes
//   clockwise 90   yes   yes   no       (1 - y, x)
//   clockwise 180  no    yes   yes      (1 - x, 1 - y)
//   clockwise 270  yes   no    yes      (y, 1 - x)
//   mirror         no    yes   no       (1 - x, y)
//   vertical flip  no    no    yes      (x, 1 - y)
//
// The boxes move with the rectangle moves of rect_turns.h.
#ifndef QVN_KIT_SRC_RESULT_TRANSFORMS_H
#define QVN_KIT_SRC_RESULT_TRANSFORMS_H

#include <qvn_kit/qvn_kit.h>

#include <immintrin.h>

#include <cstddef>
#include <cstdint>
#include <utility>

#include "rect_turns.h"

namespace quvas {
namespace kit {
namespace internal {

// Maps n interleaved (x, y) points in place, eight points (two AVX registers)
// per step. 1 - v is computed for every lane and a blend keeps it only where
// the map asks for it, so each point gets exactly the scalar 1.0f - v.
template <bool kSwap, bool kOneMinusX, bool kOneMinusY>
inline void MapPoints(QVN_Point2D* points, uint32_t n) {
    float* p = &points[0].x;
    const __m256 one = _mm256_set1_ps(1.0f);
    // Lane i of a register holds x for even i and y for odd i.
    constexpr int kBlend = (kOneMinusX ? 0x55 : 0) | (kOneMinusY ? 0xAA : 0);
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        __m256 a = _mm256_loadu_ps(p + 2 * i);
        __m256 b = _mm256_loadu_ps(p + 2 * i + 8);
        if (kSwap) {
            a = _mm256_permute_ps(a, 0xB1);  // (x, y) -> (y, x) in every pair
            b = _mm256_permute_ps(b, 0xB1);
        }
        a = _mm256_blend_ps(a, _mm256_sub_ps(one, a), kBlend);
        b = _mm256_blend_ps(b, _mm256_sub_ps(one, b), kBlend);
        _mm256_storeu_ps(p + 2 * i, a);
        _mm256_storeu_ps(p + 2 * i + 8, b);
    }
    // At most seven points remain; points beyond n are never touched.
    for (; i < n; ++i) {
        float x = p[2 * i];
        float y = p[2 * i + 1];
        if (kSwap) std::swap(x, y);
        p[2 * i] = kOneMinusX ? 1.0f - x : x;
        p[2 * i + 1] = kOneMinusY ? 1.0f - y : y;
    }
}

template <bool kSwap, bool kOneMinusX, bool kOneMinusY, void (*kRect)(QVN_Rect2D*)>
inline void MapFaces(QVN_FaceFrameDataArr* arr) {
    for (uint32_t i = 0; i < arr->count; ++i) {
        QVN_Face& face = arr->faces[i];
        kRect(&face.rect);
        MapPoints<kSwap, kOneMinusX, kOneMinusY>(face.landmarks, face.landmarksNum);
    }
}

template <bool kSwap, bool kOneMinusX, bool kOneMinusY, void (*kRect)(QVN_Rect2D*)>
inline void MapBodies(QVN_BodyFrameDataArr* arr) {
    for (uint32_t i = 0; i < arr->count; ++i) {
        QVN_Body& body = arr->bodies[i];
        kRect(&body.rect);
        MapPoints<kSwap, kOneMinusX, kOneMinusY>(body.landmarks, body.landmarksNum);
    }
}

template <void (*kRect)(QVN_Rect2D*)>
inline void MapObjRects(QVN_ObjCountDataArr* arr) {
    // count is signed: zero or less means the record holds nothing.
    for (int32_t i = 0; i < arr->count; ++i) kRect(&arr->objRectArr[i]);
}

template <void (*kRect)(QVN_Rect2D*)>
inline void MapGestures(QVN_GestureFrameDataArr* arr) {
    for (uint32_t i = 0; i < arr->count; ++i) kRect(&arr->gestures[i].rect);
}

// The face mirror: boxes and points as for every mirror, then each landmark
// (and its score) put back under its own index, since a mirrored left eye is
// a right eye (result_transforms.cpp, with the table of pairs).
void MirrorFaces(QVN_FaceFrameDataArr* arr);

}  // namespace internal
}  // namespace kit
}  // namespace quvas

#endif  // QVN_KIT_SRC_RESULT_TRANSFORMS_H
